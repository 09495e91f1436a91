// Writes small valid seed files for the fuzz targets: fuzz_make_seeds <folder> creates
// <folder>/jpeg, <folder>/png and <folder>/metadata. The files are made as the tests make theirs.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "CodecTestSupport.h"

using namespace qor::imageio::testing;

namespace {

void write(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
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
    for (const char* sub : {"jpeg", "png", "metadata"})
        std::filesystem::create_directories(root + "/" + sub);

    write(root + "/jpeg/baseline.jpg", jpeg(16, 16, 3));
    write(root + "/jpeg/progressive.jpg", jpeg(24, 9, 3, true));
    write(root + "/jpeg/grey.jpg", jpeg(9, 9, 1));
    write(root + "/jpeg/cmyk.jpg", jpeg(8, 8, 4));
    write(root + "/jpeg/restarts.jpg", jpeg(16, 24, 3, false, true));
    write(root + "/jpeg/thumbnail.jpg", tagged(jpeg(16, 16, 3), true));

    write(root + "/png/rgb.png", png(7, 5, PNG_COLOR_TYPE_RGB, 8, false, false));
    write(root + "/png/rgba_interlaced.png", png(9, 9, PNG_COLOR_TYPE_RGBA, 8, true, false));
    write(root + "/png/rgb_interlaced_trns.png", png(9, 9, PNG_COLOR_TYPE_RGB, 8, true, true));
    write(root + "/png/palette4_trns.png", png(5, 3, PNG_COLOR_TYPE_PALETTE, 2, false, true));
    write(root + "/png/palette8.png", png(5, 3, PNG_COLOR_TYPE_PALETTE, 8, false, false));
    write(root + "/png/grey1.png", png(11, 2, PNG_COLOR_TYPE_GRAY, 1, false, false));
    write(root + "/png/grey16_trns.png", png(3, 3, PNG_COLOR_TYPE_GRAY, 16, false, true));
    write(root + "/png/grey_alpha16.png", png(3, 3, PNG_COLOR_TYPE_GRAY_ALPHA, 16, true, false));
    write(root + "/png/rgb16.png", png(2, 2, PNG_COLOR_TYPE_RGB, 16, false, false));

    write(root + "/metadata/exif_thumbnail.jpg", tagged(jpeg(16, 16, 3), true));
    write(root + "/metadata/exif.png",
          tagged(png(4, 4, PNG_COLOR_TYPE_RGB, 8, false, false), false));
    write(root + "/metadata/plain.jpg", jpeg(8, 8, 3));
    return 0;
}
