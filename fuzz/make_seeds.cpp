// Writes small valid seed files for the fuzz targets: fuzz_make_seeds <folder> creates
// <folder>/jpeg, <folder>/png, <folder>/metadata and <folder>/registry. The files are made as the
// tests make theirs.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "CodecTestSupport.h"
#include "FormatSamples.h"

using namespace qor::imageio::testing;

// x265, behind libheif's HEVC encoder, keeps a few blocks of global state for the life of the
// process; they are not this library's leaks.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }

namespace {

void write(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// `bytes` as `path`, and copies with 1 to roads - 1 zero bytes after the file's end, which the
// decoders ignore: the targets pick their road by the input's length, so that every road starts
// from every seed.
void writeForEveryRoad(const std::string& path, const Bytes& bytes, int roads) {
    write(path, bytes);
    Bytes padded = bytes;
    for (int pad = 1; pad < roads; ++pad) {
        padded.push_back(0);
        write(path + "." + std::to_string(pad), padded);
    }
}

// A JPEG of `components` channels (1 grey, 3 RGB, 4 CMYK) with a simple pattern.
Bytes jpeg(int width, int height, int components, bool progressive = false, bool restarts = false) {
    const J_COLOR_SPACE space = components == 1   ? JCS_GRAYSCALE
                                : components == 4 ? JCS_CMYK
                                                  : JCS_RGB;
    return encodeJpeg(
        width, height, components, space, 50,
        [&](int y, unsigned char* row) {
            for (int i = 0; i < width * components; ++i)
                row[i] = static_cast<unsigned char>(i * 7 + y * 13);
        },
        progressive, restarts);
}

Bytes png(int width, int height, int colorType, int depth, bool interlaced, bool trns) {
    PngRecipe recipe;
    recipe.width = width;
    recipe.height = height;
    recipe.colorType = colorType;
    recipe.bitDepth = depth;
    recipe.interlaced = interlaced;
    if (colorType == PNG_COLOR_TYPE_PALETTE) {
        recipe.palette = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {9, 9, 9}};
        if (trns) recipe.paletteAlpha = {0, 128};
    } else if (trns) {
        recipe.hasTransparentColour = true;
    }
    const int channels = colorType == PNG_COLOR_TYPE_RGB          ? 3
                         : colorType == PNG_COLOR_TYPE_RGBA       ? 4
                         : colorType == PNG_COLOR_TYPE_GRAY_ALPHA ? 2
                                                                  : 1;
    const size_t rowBytes = (size_t(width) * channels * depth + 7) / 8;
    for (int y = 0; y < height; ++y) {
        Bytes row(rowBytes);
        for (size_t i = 0; i < rowBytes; ++i) {
            row[i] = static_cast<uint8_t>(i * 5 + y * 3);
            if (colorType == PNG_COLOR_TYPE_PALETTE && depth == 8) row[i] &= 3;
        }
        recipe.rows.push_back(row);
    }
    return makePng(recipe);
}

// `file` with EXIF (and a thumbnail), IPTC and XMP written by Exiv2.
Bytes tagged(const Bytes& file, bool thumbnail) {
    return withMetadata(file, [thumbnail](Exiv2::Image& image) {
        Exiv2::ExifData& exif = image.exifData();
        exif["Exif.Image.Make"] = "Make";
        exif["Exif.Photo.FNumber"] = Exiv2::URational(28, 10);
        exif["Exif.Photo.DateTimeOriginal"] = "2020:01:02 03:04:05";
        exif["Exif.GPSInfo.GPSLatitudeRef"] = "S";
        exif["Exif.GPSInfo.GPSLatitude"] = "48/1 30/1 0/1";
        if (thumbnail) {
            const Bytes thumb = jpeg(8, 8, 3);
            Exiv2::ExifThumb(exif).setJpegThumbnail(thumb.data(), thumb.size());
        }
        image.iptcData()["Iptc.Application2.City"] = "City";
        image.xmpData()["Xmp.dc.title"] = "Title";
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_make_seeds <folder>\n");
        return 2;
    }
    const std::string root = argv[1];
    for (const char* sub : {"jpeg", "png", "metadata", "registry"})
        std::filesystem::create_directories(root + "/" + sub);

    // The roads of fuzz_jpeg and fuzz_png; the tall files span several bands of the band reads.
    const auto jpegSeed = [&](const char* name, const Bytes& bytes) {
        writeForEveryRoad(root + "/jpeg/" + name, bytes, 6);
    };
    const auto pngSeed = [&](const char* name, const Bytes& bytes) {
        writeForEveryRoad(root + "/png/" + name, bytes, 4);
    };
    jpegSeed("baseline.jpg", jpeg(16, 16, 3));
    jpegSeed("progressive.jpg", jpeg(24, 9, 3, true));
    jpegSeed("grey.jpg", jpeg(9, 9, 1));
    jpegSeed("cmyk.jpg", jpeg(8, 8, 4));
    jpegSeed("restarts.jpg", jpeg(16, 24, 3, false, true));
    jpegSeed("tall.jpg", jpeg(8, 72, 3));
    jpegSeed("thumbnail.jpg", tagged(jpeg(16, 16, 3), true));

    pngSeed("rgb.png", png(7, 5, PNG_COLOR_TYPE_RGB, 8, false, false));
    pngSeed("rgba_interlaced.png", png(9, 9, PNG_COLOR_TYPE_RGBA, 8, true, false));
    pngSeed("rgb_interlaced_trns.png", png(9, 9, PNG_COLOR_TYPE_RGB, 8, true, true));
    pngSeed("palette4_trns.png", png(5, 3, PNG_COLOR_TYPE_PALETTE, 2, false, true));
    pngSeed("palette8.png", png(5, 3, PNG_COLOR_TYPE_PALETTE, 8, false, false));
    pngSeed("grey1.png", png(11, 2, PNG_COLOR_TYPE_GRAY, 1, false, false));
    pngSeed("grey16_trns.png", png(3, 3, PNG_COLOR_TYPE_GRAY, 16, false, true));
    pngSeed("grey_alpha16.png", png(3, 3, PNG_COLOR_TYPE_GRAY_ALPHA, 16, true, false));
    pngSeed("rgb16.png", png(2, 2, PNG_COLOR_TYPE_RGB, 16, false, false));
    pngSeed("tall.png", png(4, 60, PNG_COLOR_TYPE_RGBA, 8, false, false));
    pngSeed("tall16.png", png(3, 50, PNG_COLOR_TYPE_GRAY, 16, false, false));

    write(root + "/metadata/exif_thumbnail.jpg", tagged(jpeg(16, 16, 3), true));
    write(root + "/metadata/exif.png",
          tagged(png(4, 4, PNG_COLOR_TYPE_RGB, 8, false, false), false));
    write(root + "/metadata/plain.jpg", jpeg(8, 8, 3));

    // fuzz_registry: a small picture in every format the registry reads, for each of its names.
    const TempFolder folder;
    for (const FormatSample& sample : formatSamples(folder, 12, 8, "seed"))
        writeForEveryRoad(root + "/registry/" + sample.format, readFile(sample.path), 3);
    return 0;
}
