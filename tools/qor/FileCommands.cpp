// qor info FILE...: what the library reads from image and video files: the item type, the item checksum,
// the decoded size and the metadata keys.
// qor thumb IN OUT [--size N]: a thumbnail of an image or video file, fitted inside N x N, as JPEG.

#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "imageio/ImageIO.h"
#include "imageio/VideoThumbnail.h"

namespace qor::tool {

namespace {

const char* itemTypeName(imageio::ItemType type) {
    switch (type) {
        case imageio::ItemTypeImage: return "image";
        case imageio::ItemTypeVideo: return "video";
        case imageio::ItemTypeRaw: return "raw";
        default: return "unknown";
    }
}

}  // namespace

int runInfo(const std::vector<std::string>& args) {
    if (args.empty()) return usageError("info: give one or more files");
    imageio::initSupportedItemsList();
    int status = 0;
    for (const std::string& file : args) {
        const FastString<char> path(file);
        imageio::ImagePtr image;
        SharedPtr<imageio::Metadata> metadata;
        const imageio::ItemType type = imageio::getItemType(path);
        if (type == imageio::ItemTypeVideo) {
            metadata = std::make_shared<imageio::Metadata>();
            if (!imageio::loadVideoThumbnail(path, math::GenVec<int, 2>(256, 256), &image,
                                             &metadata))
                metadata.reset();
        } else {
            imageio::loadImage(path, math::GenVec<int, 2>(0, 0), imageio::ImageQualityFast, &image,
                               &metadata, math::Recti());
        }
        if (!image && !metadata) {
            std::fprintf(stderr, "qor: info: cannot read '%s'\n", file.c_str());
            status = 1;
            continue;
        }
        std::printf("%s\n", file.c_str());
        std::printf("  type      %s\n", itemTypeName(type));
        std::printf("  checksum  %s\n", imageio::imageChecksum(path).toHex().c_str());
        if (image) std::printf("  decoded   %d x %d\n", image->width(), image->height());
        if (metadata) {
            math::GenVec<int, 2> size;
            if (metadata->get(imageio::MetadataField::Imagesize, size))
                std::printf("  size      %d x %d\n", size.x, size.y);
            for (const auto& [key, value] : metadata->rawMap())
                std::printf("  %-24s %s\n", std::string(key).c_str(), std::string(value).c_str());
        }
    }
    return status;
}

int runThumb(const std::vector<std::string>& args) {
    std::vector<std::string> files;
    unsigned long side = 256;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--size") {
            if (i + 1 >= args.size() || !parseCount(args[i + 1], side) || side == 0 || side > 16384)
                return usageError("thumb: --size must be a number from 1 to 16384");
            ++i;
        } else {
            files.push_back(args[i]);
        }
    }
    if (files.size() != 2) return usageError("thumb: give an input file and an output .jpg");
    imageio::initSupportedItemsList();
    const FastString<char> in(files[0]), out(files[1]);
    const math::GenVec<int, 2> box{int(side), int(side)};
    imageio::ImagePtr image;
    if (imageio::getItemType(in) == imageio::ItemTypeVideo) {
        imageio::loadVideoThumbnail(in, box, &image, nullptr);
    } else {
        SharedPtr<imageio::Metadata> metadata;  // asked for, so that an EXIF thumbnail can serve
        imageio::loadImage(in, box, imageio::ImageQualityThumbnail, &image, &metadata,
                           math::Recti());
    }
    if (!image) {
        std::fprintf(stderr, "qor: thumb: cannot read '%s'\n", files[0].c_str());
        return 1;
    }
    // Decoders fit what they can; the rest (a preview larger than asked, say) is reduced here.
    image = imageio::scaleTrilinear_destructive(image, box.x, box.y, imageio::ScaleFitInside);
    if (!imageio::saveJpeg(out, image, 90)) {
        std::fprintf(stderr, "qor: thumb: cannot write '%s'\n", files[1].c_str());
        return 1;
    }
    std::printf("%s: %d x %d\n", files[1].c_str(), image->width(), image->height());
    return 0;
}

}  // namespace qor::tool
