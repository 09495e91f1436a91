// The file commands:
//   qor info [--json] [--verify] FILE...
//                               item type, format, item checksum, typed metadata fields and raw
//                               metadata map of image and video files, read without decoding
//                               pixels; --verify also decodes a small picture of each file, which
//                               proves its pixels all there (a truncated file is found out only so)
//   qor thumb FILE [--size WxH] [--cache CACHEDIR] -o OUT
//                               a thumbnail fitted inside W x H (makeThumbnail's), written as JPEG
//                               or BMP by OUT's extension; with --cache through the thumbnail
//                               disk cache, which answers when it holds it
//   qor checksum FILE...        the item checksum of each file
//
// Pictures are known by their content, whatever their names: ImageLoader asks the decoder registry
// which decoder recognises the file, and info and thumb read it through that one (the extension
// gives only the item type). Videos are known by their extension.
//
// A bad file (missing, empty, not a picture, truncated under --verify) gives one line on standard
// error, and the command goes on with the next; the exit status is 1 when any file was bad. The
// library's own log lines are recorded while a file is read: the first warning among them (or,
// when nothing came out, the first line at all) is the reason given on that one line. A file counts
// as bad when nothing could be read from it or the library warned while reading it (a truncated
// JPEG decodes to a partial picture with a warning). Everything runs on the main thread.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "ItemText.h"
#include "ThumbChain.h"
#include "base/Log.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageIO.h"
#include "imageio/ImageLoader.h"
#include "imageio/MetadataValue.h"
#include "imageio/VideoThumbnail.h"
#include "imageio/detail/PathExtension.h"
#include "imaging/ImagingException.h"

namespace qor::tool {

namespace {

using imageio::Metadata;
using imageio::MetadataField;
using imageio::MetadataValue;
using Vec2i = math::GenVec<int, 2>;

const char* itemTypeName(imageio::ItemType type) {
    switch (type) {
        case imageio::ItemTypeImage:
            return "image";
        case imageio::ItemTypeVideo:
            return "video";
        case imageio::ItemTypeRaw:
            return "raw";
        default:
            return "unknown";
    }
}

// Runs `read` with the library's log lines recorded. Returns why the file is bad: the first line
// at warning level or above, or, when `produced` says that nothing came out, the first line of any
// level or `fallback`. Empty when the file is good.
template <class Read, class Produced>
std::string readQuietly(Read&& read, Produced&& produced, const char* fallback) {
    LogCapture capture(false);  // the lines still reach the log where -v or --log sends it
    read();
    const std::vector<LogCapture::Entry> lines = capture.entries();
    for (const LogCapture::Entry& line : lines)
        if (line.level >= LogWarning) return line.text;
    if (produced()) return {};
    for (const LogCapture::Entry& line : lines)
        if (line.level >= LogInfo) return line.text;
    return fallback;
}

// The reason in a loader exception's text, without the path that the tool's line names already.
std::string reasonOf(const std::exception& e, const std::string& file) {
    const std::string text = e.what();
    const std::string named = "'" + file + "': ";
    const size_t at = text.find(named);
    return at == std::string::npos ? text : text.substr(at + named.size());
}

// Opens `file` by its content, logging why it cannot be read as a warning, so that readQuietly
// gives that reason. Null when it cannot.
std::unique_ptr<imageio::ImageLoader> openPicture(const std::string& file) {
    try {
        return std::make_unique<imageio::ImageLoader>(FastString<char>(file), true);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "%*", reasonOf(e, file));
    }
    return nullptr;
}

// loader.decodeFitted(size, quality, decoded), or null when it throws, logging why as openPicture
// does.
imageio::ImagePtr decodeQuietly(const imageio::ImageLoader& loader, const std::string& file,
                                Vec2i size, imageio::ImageQuality quality,
                                SharedPtr<Metadata>* decoded = nullptr) {
    try {
        return loader.decodeFitted(size, quality, decoded);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "%*", reasonOf(e, file));
    }
    return nullptr;
}

// ---- info ----

// Everything info shows of one file.
struct ItemInfo {
    imageio::ItemType type = imageio::ItemTypeUnknown;
    std::string format;  // the decoder that recognised a picture's content; empty for a video
    Digest checksum;
    SharedPtr<Metadata> metadata;
    std::string problem;  // why the file is bad; empty when it is good
};

// Reads the metadata, and with `verify` decodes a small picture, which proves that the pixels are
// all there (a JPEG is decoded at an eighth, so this reads every byte at a fraction of the full
// cost). Without `verify` no pixel is decoded: a video is only opened (its Imagesize, the
// thumbnail's size, comes with `verify`), and a truncated file is not noticed.
ItemInfo readItem(const std::string& file, bool verify) {
    const FastString<char> path(file);
    const Vec2i box(256, 256);
    ItemInfo item;
    item.type = imageio::getItemType(path);
    if (!(item.problem = unreadable(file)).empty()) return item;
    bool decoded = !verify;
    item.problem = readQuietly(
        [&] {
            if (item.type == imageio::ItemTypeVideo) {
                imageio::ImagePtr image;
                SharedPtr<Metadata> metadata = std::make_shared<Metadata>();
                SharedPtr<Metadata> none;  // asks for no size, so no frame is decoded
                if (imageio::loadVideoThumbnail(path, box, verify ? &image : nullptr,
                                                verify ? &metadata : &none))
                    item.metadata = metadata;
                decoded = decoded || image;
            } else if (const auto loader = openPicture(file)) {
                item.format = loader->decoder().name();
                item.metadata = loader->getMetadata();
                if (verify)
                    decoded =
                        decodeQuietly(*loader, file, box, imageio::ImageQualityFast) != nullptr;
            }
            if (item.metadata) item.checksum = imageio::imageChecksum(path);
        },
        [&] { return item.metadata && decoded; }, "no picture in the file");
    return item;
}

// The typed field as a value of its type; empty when the metadata lacks it.
MetadataValue fieldValue(const Metadata& metadata, MetadataField field) {
    return typedValue(field, [&](auto& value) { return metadata.get(field, value); });
}

// Calls f(field, value) for each typed field the metadata holds, in field table order.
template <class Fn>
void forEachField(const Metadata& metadata, Fn f) {
    for (int number = 0; number < imageio::MetadataFieldEnd; ++number) {
        const auto field = static_cast<MetadataField>(number);
        if (field == MetadataField::RecordConsistent) continue;  // a database column, no type
        const MetadataValue value = fieldValue(metadata, field);
        if (!value.empty()) f(field, value);
    }
}

void printItem(const std::string& file, const ItemInfo& item) {
    std::printf("%s\n", file.c_str());
    std::printf("  type      %s\n", itemTypeName(item.type));
    if (!item.format.empty()) std::printf("  format    %s\n", item.format.c_str());
    std::printf("  checksum  %s\n", item.checksum.toHex().c_str());
    std::printf("  fields\n");
    forEachField(*item.metadata, [](MetadataField field, const MetadataValue& value) {
        std::printf("    %-24s %s\n", imageio::fieldName(field).c_str(),
                    readable(valueText(value)).c_str());
    });
    std::printf("  raw\n");
    for (const auto& [key, value] : item.metadata->rawMap())
        std::printf("    %-32s %s\n", key.c_str(), readable(value.view()).c_str());
}

Json itemJson(const std::string& file, const ItemInfo& item) {
    Json out;
    out["file"] = file;
    if (!item.problem.empty()) {
        out["error"] = item.problem;
        return out;
    }
    out["type"] = itemTypeName(item.type);
    if (!item.format.empty()) out["format"] = item.format;
    out["checksum"] = item.checksum.toHex();
    Json& fields = out["fields"] = Json::object();
    forEachField(*item.metadata, [&](MetadataField field, const MetadataValue& value) {
        fields[imageio::fieldName(field).str()] = jsonValue(value);
    });
    Json& raw = out["raw"] = Json::object();
    for (const auto& [key, value] : item.metadata->rawMap()) raw[key.str()] = value.str();
    return out;
}

// ---- thumb ----

// "WxH" with both sides from 1 to 16384.
bool parseBox(const std::string& text, Vec2i& box) {
    const size_t x = text.find('x');
    unsigned long w = 0, h = 0;
    if (x == std::string::npos || !parseCount(text.substr(0, x), w) ||
        !parseCount(text.substr(x + 1), h))
        return false;
    if (w == 0 || h == 0 || w > 16384 || h > 16384) return false;
    box = Vec2i(int(w), int(h));
    return true;
}

enum class ThumbFormat { None, Jpeg, Bmp };

ThumbFormat thumbFormatOf(const std::string& path) {
    const FastString<char> extension = imageio::detail::upperExtension(FastString<char>(path));
    if (extension == ".JPG" || extension == ".JPEG") return ThumbFormat::Jpeg;
    if (extension == ".BMP") return ThumbFormat::Bmp;
    return ThumbFormat::None;
}

}  // namespace

int runInfo(const std::vector<std::string>& args) {
    bool json = false;
    bool verify = false;
    std::vector<std::string> files;
    for (const std::string& arg : args) {
        if (arg == "--json")
            json = true;
        else if (arg == "--verify")
            verify = true;
        else
            files.push_back(arg);
    }
    if (files.empty()) return usageError("info: give one or more files");
    imageio::initSupportedItemsList();
    int status = 0;
    Json document = Json::array();
    for (const std::string& file : files) {
        const ItemInfo item = readItem(file, verify);
        if (!item.problem.empty()) status = reportBad("info", file, item.problem);
        if (json)
            document.push_back(itemJson(file, item));
        else if (item.problem.empty())
            printItem(file, item);
    }
    if (json)  // metadata text that is not UTF-8 comes out with replacement characters
        std::printf("%s\n", document.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return status;
}

int runThumb(const std::vector<std::string>& args) {
    std::vector<std::string> files;
    std::string out, cacheDir;
    Vec2i box(256, 256);
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--size") {
            if (i + 1 >= args.size() || !parseBox(args[i + 1], box))
                return usageError("thumb: --size must be WxH, each side from 1 to 16384");
            ++i;
        } else if (args[i] == "-o") {
            if (i + 1 >= args.size()) return usageError("thumb: -o needs an output file");
            out = args[++i];
        } else if (args[i] == "--cache") {
            if (i + 1 >= args.size()) return usageError("thumb: --cache needs a folder");
            cacheDir = args[++i];
        } else {
            files.push_back(args[i]);
        }
    }
    if (files.size() != 1 || out.empty())
        return usageError("thumb: give one input file and -o OUT.jpg or OUT.bmp");
    const ThumbFormat format = thumbFormatOf(out);
    if (format == ThumbFormat::None)
        return usageError("thumb: the output must end in .jpg, .jpeg or .bmp");
    imageio::initSupportedItemsList();
    if (const std::string problem = unreadable(files[0]); !problem.empty())
        return reportBad("thumb", files[0], problem);
    // The size class of the box's longer side, then fitted inside the box itself.
    const int side = std::max(box.x, box.y);
    imageio::ConstImagePtr image;
    const char* origin = "";
    if (!cacheDir.empty()) {
        ThumbChain chain;
        if (!chain.open("thumb", cacheDir)) return 1;
        const ResourceID id = chain.add({files[0]})[0];
        const bool cached = chain.disk->contains(id, side);
        imagecache::Thumbnail t = chain.disk->get(id, side);
        if (t.placeholder) return reportBad("thumb", files[0], ThumbChain::reasonFor(files[0]));
        image = t.image;
        origin = cached ? " (from the cache)" : " (made and cached)";
    } else {
        std::string error;
        image = imagecache::makeThumbnail(files[0], side, &error);
        if (!image) return reportBad("thumb", files[0], ThumbChain::reasonIn(error, files[0]));
    }
    if (image->width() > box.x || image->height() > box.y) {
        // The scaling consumes its input: a copy, the cache's image being shared.
        imageio::ImagePtr copy = imageio::Image4ub::create(image->width(), image->height());
        for (int y = 0; y < image->height(); ++y)
            std::memcpy(copy->data() + y * copy->stride(), image->data() + y * image->stride(),
                        size_t(image->width()) * 4);
        image = imageio::scaleTrilinear_destructive(copy, box.x, box.y, imageio::ScaleFitInside);
    }
    const FastString<char> target(out);
    const bool saved = format == ThumbFormat::Jpeg ? imageio::saveJpeg(target, image, 90)
                                                   : imageio::saveBmp(target, image);
    if (!saved) {
        std::fprintf(stderr, "qor: thumb: cannot write '%s'\n", out.c_str());
        return 1;
    }
    std::printf("%s: %d x %d%s\n", out.c_str(), image->width(), image->height(), origin);
    return 0;
}

int runChecksum(const std::vector<std::string>& args) {
    if (args.empty()) return usageError("checksum: give one or more files");
    imageio::initSupportedItemsList();
    int status = 0;
    for (const std::string& file : args) {
        // The checksum covers the first bytes only; the file is not decoded, so a truncated one
        // is not found out here (qor info --verify does that).
        const FastString<char> path(file);
        std::string problem = unreadable(file);
        if (problem.empty() && imageio::getItemType(path) == imageio::ItemTypeUnknown &&
            !recognisedPicture(file))
            problem = "not an image or video file";
        Digest digest;
        if (problem.empty())
            problem = readQuietly([&] { digest = imageio::imageChecksum(path); },
                                  [&] { return !digest.isNull(); }, "cannot be read");
        if (!problem.empty()) {
            status = reportBad("checksum", file, problem);
            continue;
        }
        std::printf("%s  %s\n", digest.toHex().c_str(), file.c_str());
    }
    return status;
}

}  // namespace qor::tool
