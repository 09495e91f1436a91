// qor export IN -o OUT.jpg|.tif|.exr [--size WxH | --scale S] [--quality Q] [--profile NAME]:
// writes a picture file in another format, optionally resized. The picture is read tile by tile
// from IN (ImageIOImageSource, upright by its orientation), resampled by ScaledImageSource when a
// size or scale is given (a JPEG stored upright decodes the first halvings itself, by libjpeg's
// DCT scaling), and written by the image saver while its tiles are computed, so that a picture of
// any size goes through without being held whole (memory follows the limits below).
// --profile names the colour space of the output (srgb, adobergb, linear): the pixels are
// converted from the file's embedded profile (sRGB when it has none) and the profile is embedded
// in JPEG and TIFF output.
//
// Threads: the calling thread parses, builds the sources and draws the progress bar; saveImage
// runs the saver on a thread of its own and the pipeline computes tiles on its workers.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "SaveImage.h"
#include "imageio/ImageIOImageSource.h"
#include "imageio/ImageLoader.h"
#include "imaging/Image.h"
#include "imaging/ImageMemoryManager.h"
#include "imaging/ScaledImageSource.h"
#include "imaging/TileCache.h"

namespace qor::tool {

namespace {

using Vec2i = math::GenVec<int, 2>;

// Tile cache limit of the run. An export reads each tile once: the saver holds its own tile rows
// and a request shares the input tiles among the jobs that read them, so the cache only has to
// hold what neighbouring output tiles of a scaled export share at the seams of the requests' job
// graphs. A 16 MB cache held 16 MB of file tiles nobody asked for again; with none, a scaled
// export computed some input tiles twice (a third more processor time at --scale 0.3).
constexpr unsigned long kCacheMb = 4;
// Pixel memory limit of the run. The memory manager keeps the resident tiles 32 MB below it once
// it is reached, and tiles computed further ahead of a slow writer (LZW TIFF) go to the swap
// file: 48 MB holds 16 MB of tiles, for the same time as 64 in our runs (the writer sets the pace
// either way) and 16 MB less peak.
constexpr unsigned long kPixelMemoryMb = 48;
// Tile side of the file source. A picture that decodes from the top is read in bands of one tile
// row at full width, and two bands are kept: 256 lines keep that to 2 x 12 MB at 12000 pixels
// across (2 x 6 MB at 6000, the half size a JPEG decodes to), as fast as 512 or 1024 lines, and a
// row of the saver's tiles is half as large as with 512.
constexpr int kFileTileSide = 256;
constexpr unsigned long kMaxSide = 1ul << 30;

struct ExportOptions {
    std::string input, output;
    Vec2i size{0, 0};  // --size: fit inside; (0, 0) when not given
    double scale = 0;  // --scale; 0 when not given
    int quality = 90;
    std::string profile;
};

bool parseNumber(const std::string& text, double& value) {
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && ptr == end && !text.empty() && std::isfinite(value);
}

bool parseSide(const std::string& text, int& side) {
    unsigned long value = 0;
    if (!parseCount(text, value) || value < 1 || value > kMaxSide) return false;
    side = int(value);
    return true;
}

int parseExportOptions(const std::vector<std::string>& args, ExportOptions& o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.empty() || arg[0] != '-') {
            if (!o.input.empty()) return usageError("export: more than one input file");
            o.input = arg;
            continue;
        }
        if (arg != "-o" && arg != "--size" && arg != "--scale" && arg != "--quality" &&
            arg != "--profile")
            return usageError("export: unknown option '" + arg + "'");
        if (i + 1 >= args.size()) return usageError("export: " + arg + " needs a value");
        const std::string& value = args[++i];
        if (arg == "-o") {
            if (!savableExtension(value))
                return usageError("export: -o needs a file name ending in .jpg, .tif or .exr");
            o.output = value;
        } else if (arg == "--size") {
            const size_t x = value.find('x');
            if (x == std::string::npos || !parseSide(value.substr(0, x), o.size.x) ||
                !parseSide(value.substr(x + 1), o.size.y))
                return usageError("export: --size must be WIDTHxHEIGHT, each from 1 to " +
                                  std::to_string(kMaxSide));
        } else if (arg == "--scale") {
            if (!parseNumber(value, o.scale) || o.scale <= 0 || o.scale > 16)
                return usageError("export: --scale must be a number above 0 and at most 16");
        } else if (arg == "--quality") {
            unsigned long q = 0;
            if (!parseCount(value, q) || q > 100)
                return usageError("export: --quality must be a number from 0 to 100");
            o.quality = int(q);
        } else {
            if (!imaging::ColorProfile::builtIn(value))
                return usageError("export: unknown profile '" + value +
                                  "' (srgb, adobergb or linear)");
            o.profile = value;
        }
    }
    if (o.input.empty()) return usageError("export: the input file is missing");
    if (o.output.empty()) return usageError("export: -o OUT.jpg|.tif|.exr is required");
    if (o.size != Vec2i(0, 0) && o.scale > 0)
        return usageError("export: give --size or --scale, not both");
    return 0;
}

// The factor that fits `picture` inside `box`.
double fitScale(Vec2i picture, Vec2i box) {
    return std::min(double(box.x) / picture.x, double(box.y) / picture.y);
}

}  // namespace

int runExport(const std::vector<std::string>& args) {
    ExportOptions o;
    if (int status = parseExportOptions(args, o)) return status;

    imaging::ImageMemoryManager::setPhysicalMemoryLimit(unsigned(kPixelMemoryMb));
    imaging::TileCache::setMemoryLimit((unsigned long long)kCacheMb << 20);
    imaging::TileCache::enable();

    int status = 1;
    {
        imageio::ImageIOImageSourceBase::ConstructionParam param;
        SharedPtr<imaging::ColorProfile> target;
        try {
            // The header tells the size and the embedded profile; the tiles are read later.
            const imageio::ImageLoader loader(imageio::ImageLoader::String(o.input), false);
            param.size = loader.size();
            param.tileSize = Vec2i(kFileTileSide, kFileTileSide);
            if (!o.profile.empty()) {
                target = imaging::ColorProfile::builtIn(o.profile);
                param.commonProfile = target;
                param.imageProfile = loader.getColorProfile();
                if (!param.imageProfile) param.imageProfile = imaging::ColorProfile::sRGB();
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "qor: export: %s\n", e.what());
            return 1;
        }
        const double scale = o.scale > 0             ? o.scale
                             : o.size != Vec2i(0, 0) ? fitScale(param.size, o.size)
                                                     : 1.0;
        const Vec2i out = imaging::ScaledImageSource::scaledSize(param.size, scale);
        if ((unsigned long long)out.x * (unsigned long long)out.y > (1ull << 32)) {
            std::fprintf(stderr, "qor: export: the output would exceed 2^32 pixels\n");
            return 1;
        }
        // A JPEG decodes its first halvings itself; the scaled source does the rest.
        const SharedPtr<imaging::Image> image = imageio::ImageIOImageSource::createScaled(
            imageio::ImageLoader::String(o.input), param, scale);
        if (!image) {
            std::fprintf(stderr, "qor: export: cannot read '%s'\n", o.input.c_str());
            return 1;
        }
        SaveOptions options;
        options.command = "export";
        options.quality = o.quality;
        options.profile = target;
        status = saveImage(image, o.output, options);
    }
    imaging::TileCache::clearCache();
    imaging::ImageMemoryManager::release();
    return status;
}

}  // namespace qor::tool
