#pragma once
// Pictures and files for the codec tests, made in code: RGBA test images, PNG files of every colour
// type from libpng's write path, and comparisons of images.

#include <png.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "TestJpeg.h"
#include "imageio/ImageIO.h"

namespace qor::imageio::testing {

// A picture with smooth gradients in R and G, a constant B and a varying alpha.
inline ImagePtr gradientImage(int width, int height) {
    ImagePtr image = Image4ub::create(width, height);
    for (int y = 0; y < height; ++y) {
        unsigned char* row = image->row(y);
        for (int x = 0; x < width; ++x) {
            row[4 * x] = static_cast<unsigned char>(x * 255 / std::max(1, width - 1));
            row[4 * x + 1] = static_cast<unsigned char>(y * 255 / std::max(1, height - 1));
            row[4 * x + 2] = 96;
            row[4 * x + 3] = static_cast<unsigned char>((x + y) & 255);
        }
    }
    return image;
}

// A picture of one colour.
inline ImagePtr solidImage(int width, int height, unsigned char r, unsigned char g, unsigned char b,
                           unsigned char a = 255) {
    ImagePtr image = Image4ub::create(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            image->at(x, y, 0) = r;
            image->at(x, y, 1) = g;
            image->at(x, y, 2) = b;
            image->at(x, y, 3) = a;
        }
    return image;
}

// Largest difference of any channel of any pixel; -1 when the sizes differ. `channels` 3 leaves
// alpha out.
inline int maxDifference(const Image4ub& a, const Image4ub& b, int channels = 4) {
    if (a.width() != b.width() || a.height() != b.height()) return -1;
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            for (int c = 0; c < channels; ++c)
                worst = std::max(worst, std::abs(int(a.at(x, y, c)) - int(b.at(x, y, c))));
    return worst;
}

// Rectangle `r` of `image`, copied.
inline ImagePtr crop(const Image4ub& image, const math::Recti& r) {
    ImagePtr out = Image4ub::create(r.width(), r.height());
    for (int y = 0; y < r.height(); ++y)
        std::memcpy(out->row(y), image.row(r.mins.y + y) + 4 * r.mins.x, size_t(r.width()) * 4);
    return out;
}

inline Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What a PNG file holds, for makePng.
struct PngRecipe {
    int width = 0;
    int height = 0;
    int colorType = PNG_COLOR_TYPE_RGB;
    int bitDepth = 8;
    bool interlaced = false;
    // Packed rows as libpng takes them (bitDepth bits per sample, big-endian for 16).
    std::vector<Bytes> rows;
    std::vector<png_color> palette;
    Bytes paletteAlpha;  // tRNS for a palette picture
    bool hasTransparentColour = false;
    png_color_16 transparentColour{};  // tRNS for grey or RGB
};

inline void pngAppend(png_structp png, png_bytep data, png_size_t length) {
    Bytes* out = static_cast<Bytes*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + length);
}

inline void pngFlush(png_structp) {}

// The PNG file that `recipe` describes, written by libpng.
inline Bytes makePng(const PngRecipe& recipe) {
    Bytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return Bytes();
    }
    png_set_write_fn(png, &out, pngAppend, pngFlush);
    png_set_IHDR(png, info, png_uint_32(recipe.width), png_uint_32(recipe.height), recipe.bitDepth,
                 recipe.colorType, recipe.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (!recipe.palette.empty())
        png_set_PLTE(png, info, recipe.palette.data(), int(recipe.palette.size()));
    if (!recipe.paletteAlpha.empty())
        png_set_tRNS(png, info, recipe.paletteAlpha.data(), int(recipe.paletteAlpha.size()), nullptr);
    if (recipe.hasTransparentColour) {
        png_color_16 colour = recipe.transparentColour;
        png_set_tRNS(png, info, nullptr, 0, &colour);
    }
    png_write_info(png, info);
    std::vector<png_bytep> rows;
    for (const Bytes& row : recipe.rows) rows.push_back(const_cast<png_bytep>(row.data()));
    png_write_image(png, rows.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

// An 8-bit RGB or RGBA PNG of `image` (alpha kept when `withAlpha`).
inline Bytes pngOf(const Image4ub& image, bool withAlpha, bool interlaced = false) {
    PngRecipe recipe;
    recipe.width = image.width();
    recipe.height = image.height();
    recipe.colorType = withAlpha ? PNG_COLOR_TYPE_RGBA : PNG_COLOR_TYPE_RGB;
    recipe.interlaced = interlaced;
    for (int y = 0; y < image.height(); ++y) {
        Bytes row;
        for (int x = 0; x < image.width(); ++x)
            for (int c = 0; c < (withAlpha ? 4 : 3); ++c) row.push_back(image.at(x, y, c));
        recipe.rows.push_back(row);
    }
    return makePng(recipe);
}

}  // namespace qor::imageio::testing
