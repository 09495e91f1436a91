#pragma once
// Picture files of every format the decoder registry reads, made here with each format's own
// encoder: GIF (giflib), WebP (libwebp), HEIF (libheif, when it has an encoder), and, through the
// library, JPEG, PNG, TIFF, OpenEXR and BMP.

#include <gif_lib.h>
#include <libheif/heif.h>
#include <webp/encode.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "CodecTestSupport.h"
#include "imageio/ExportData.h"
#include "imageio/IImageSaver.h"
#include "imageio/detail/LoaderPixels.h"

namespace qor::imageio::testing {

using Pixel = std::array<int, 4>;

inline Pixel pixelAt(const Image4ub& image, int x, int y) {
    return {image.at(x, y, 0), image.at(x, y, 1), image.at(x, y, 2), image.at(x, y, 3)};
}

// ---- GIF through giflib's encoder ----

struct GifRecipe {
    math::GenVec<int, 2> screen;
    math::Recti frame;  // the first frame's place on the screen
    bool interlace = false;
    int transparent = NO_TRANSPARENT_COLOR;
    std::function<int(int, int)> index;  // palette index of a frame pixel
    bool secondFrame = false;            // a second frame of index 0 over the whole screen
    // Palette entry i; by default (i, 255 - i, 7 * i).
    std::function<Pixel(int)> palette;
};

inline Pixel paletteColour(int i) { return {i, 255 - i, 7 * i % 256, 255}; }

inline Bytes makeGif(const GifRecipe& recipe) {
    Bytes out;
    int error = 0;
    GifFileType* gif = EGifOpen(
        &out,
        [](GifFileType* g, const GifByteType* data, int length) {
            auto* bytes = static_cast<Bytes*>(g->UserData);
            bytes->insert(bytes->end(), data, data + length);
            return length;
        },
        &error);
    std::array<GifColorType, 256> colours;
    for (int i = 0; i < 256; ++i) {
        const Pixel c = recipe.palette ? recipe.palette(i) : paletteColour(i);
        colours[size_t(i)] = {GifByteType(c[0]), GifByteType(c[1]), GifByteType(c[2])};
    }
    ColorMapObject* map = GifMakeMapObject(256, colours.data());
    EGifSetGifVersion(gif, true);
    EGifPutScreenDesc(gif, recipe.screen.x, recipe.screen.y, 8, 0, map);
    GraphicsControlBlock control{DISPOSAL_UNSPECIFIED, false, 0, recipe.transparent};
    GifByteType extension[4];
    const size_t length = EGifGCBToExtension(&control, extension);
    EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, int(length), extension);
    const int w = recipe.frame.width(), h = recipe.frame.height();
    EGifPutImageDesc(gif, recipe.frame.xmin(), recipe.frame.ymin(), w, h, recipe.interlace,
                     nullptr);
    std::vector<int> order;
    if (recipe.interlace) {
        for (auto [start, step] : {std::pair{0, 8}, {4, 8}, {2, 4}, {1, 2}})
            for (int y = start; y < h; y += step) order.push_back(y);
    } else {
        for (int y = 0; y < h; ++y) order.push_back(y);
    }
    std::vector<GifPixelType> line(size_t(std::max(w, recipe.screen.x)));
    for (int y : order) {
        for (int x = 0; x < w; ++x) line[size_t(x)] = GifPixelType(recipe.index(x, y));
        EGifPutLine(gif, line.data(), w);
    }
    if (recipe.secondFrame) {
        EGifPutImageDesc(gif, 0, 0, recipe.screen.x, recipe.screen.y, false, nullptr);
        std::fill(line.begin(), line.end(), 0);
        for (int y = 0; y < recipe.screen.y; ++y) EGifPutLine(gif, line.data(), recipe.screen.x);
    }
    EGifCloseFile(gif, &error);
    GifFreeMapObject(map);
    return out;
}

// ---- WebP through libwebp's encoder ----

inline Bytes makeWebp(int w, int h, bool lossless, const std::function<Pixel(int, int)>& colour) {
    std::vector<uint8_t> rgba(size_t(w) * size_t(h) * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c)
                rgba[size_t(y * w + x) * 4 + size_t(c)] = uint8_t(colour(x, y)[size_t(c)]);
    uint8_t* out = nullptr;
    const size_t size = lossless ? WebPEncodeLosslessRGBA(rgba.data(), w, h, w * 4, &out)
                                 : WebPEncodeRGBA(rgba.data(), w, h, w * 4, 90, &out);
    Bytes bytes(out, out + size);
    WebPFree(out);
    return bytes;
}

// ---- HEIF through libheif's encoder, when this libheif has one ----

struct HeifFile {
    std::string path;
    std::string skipReason;  // why there is no file
};

// A HEIF file at `folder`/`name` of w x h pixels of colour(x, y) (opaque), with a thumbnail that
// fits `thumbnailBox` when that is positive and an EXIF DateTimeOriginal when `exifTime` is set.
inline HeifFile makeHeif(const TempFolder& folder, const std::string& name, int w, int h,
                         const std::function<Pixel(int, int)>& colour, int thumbnailBox = 0,
                         const char* exifTime = nullptr) {
    HeifFile file;
    heif_context* context = heif_context_alloc();
    heif_encoder* encoder = nullptr;
    for (heif_compression_format format : {heif_compression_HEVC, heif_compression_AV1}) {
        if (heif_context_get_encoder_for_format(context, format, &encoder).code == heif_error_Ok)
            break;
        encoder = nullptr;
    }
    if (!encoder) {
        heif_context_free(context);
        file.skipReason = "this libheif has no HEVC or AV1 encoder";
        return file;
    }
    heif_encoder_set_lossy_quality(encoder, 90);
    heif_image* image = nullptr;
    heif_image_create(w, h, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
    heif_image_add_plane(image, heif_channel_interleaved, w, h, 8);
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Pixel c = colour(x, y);
            uint8_t* p = plane + y * stride + x * 3;
            for (int i = 0; i < 3; ++i) p[i] = uint8_t(c[size_t(i)]);
        }
    heif_image_handle* handle = nullptr;
    heif_context_encode_image(context, image, encoder, nullptr, &handle);
    if (thumbnailBox > 0) {
        heif_image_handle* thumbnail = nullptr;
        heif_context_encode_thumbnail(context, image, handle, encoder, nullptr, thumbnailBox,
                                      &thumbnail);
        heif_image_handle_release(thumbnail);
    }
    if (exifTime) {
        Exiv2::ExifData exif;
        exif["Exif.Photo.DateTimeOriginal"] = exifTime;
        Exiv2::Blob blob;
        Exiv2::ExifParser::encode(blob, Exiv2::littleEndian, exif);
        heif_context_add_exif_metadata(context, handle, blob.data(), int(blob.size()));
    }
    file.path = folder.path() + "/" + name;
    heif_context_write_to_file(context, file.path.c_str());
    heif_image_handle_release(handle);
    heif_image_release(image);
    heif_encoder_release(encoder);
    heif_context_free(context);
    return file;
}

// ---- one picture in every format ----

// The sample picture of formatSamples: smooth ramps of 16 levels in R and G (so that GIF holds it
// exactly in its palette of 256) and a constant B, opaque.
inline Pixel samplePixel(int x, int y, int w, int h) {
    return {x * 15 / std::max(1, w - 1) * 17, y * 15 / std::max(1, h - 1) * 17, 96, 255};
}

inline ImagePtr samplePicture(int w, int h) {
    ImagePtr image = Image4ub::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c)
                image->at(x, y, c) = uint8_t(samplePixel(x, y, w, h)[size_t(c)]);
    return image;
}

struct FormatSample {
    std::string format;  // the name of the decoder that reads it
    std::string path;
    int tolerance;  // the largest channel difference to samplePicture that the coding allows
};

// samplePicture(w, h) written in every format, each under the name `stem` plus the format's usual
// extension unless `extension` replaces it ("" leaves the name without one). HEIF is left out
// when libheif has no encoder; *heifSkipReason then says so.
inline std::vector<FormatSample> formatSamples(const TempFolder& folder, int w, int h,
                                               const std::string& stem,
                                               const std::string* extension = nullptr,
                                               std::string* heifSkipReason = nullptr) {
    const ImagePtr picture = samplePicture(w, h);
    const auto name = [&](const char* usual) { return stem + (extension ? *extension : usual); };
    const auto colour = [&](int x, int y) { return samplePixel(x, y, w, h); };
    std::vector<FormatSample> samples;
    const auto saved = [&](const char* format, const char* usual, int tolerance, auto&& save) {
        const std::string path = folder.path() + "/" + std::string(format) + "-" + name(usual);
        save(path);
        samples.push_back({format, path, tolerance});
    };
    const auto write = [](const std::string& path, const Bytes& bytes) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    };
    // Lossy JPEG and HEIF: within the coding error at the steps of the ramps (chroma at half
    // resolution spreads each step of 17 over its neighbours).
    saved("jpeg", ".jpg", 16,
          [&](const std::string& p) { saveJpeg(FastString<char>(p), picture, 95); });
    saved("png", ".png", 0, [&](const std::string& p) { write(p, pngOf(*picture, false)); });
    saved("tiff", ".tif", 0,
          [&](const std::string& p) { ImageSaverTIFF().save4ub(FastString<char>(p), picture); });
    // Samples of v / 255 come back to the same byte.
    saved("openexr", ".exr", 1, [&](const std::string& p) {
        ImageSaverOpenEXR exr;
        const auto floats = detail::convertImage<float>(*picture);
        ExportData<imaging::PfRGBA32F> rows{
            SharedPtr<const imaging::RawImageDataOf<imaging::PfRGBA32F>>(floats)};
        exr.saveRows(FastString<char>(p), imaging::PfRGBA32F, rows);
    });
    saved("gif", ".gif", 0, [&](const std::string& p) {
        GifRecipe recipe;
        recipe.screen = {w, h};
        recipe.frame = math::Recti(math::GenVec<int, 2>(w, h));
        recipe.palette = [](int i) { return Pixel{i / 16 * 17, i % 16 * 17, 96, 255}; };
        recipe.index = [&](int x, int y) {
            const Pixel c = colour(x, y);
            return c[0] / 17 * 16 + c[1] / 17;
        };
        write(p, makeGif(recipe));
    });
    saved("webp", ".webp", 0,
          [&](const std::string& p) { write(p, makeWebp(w, h, true, colour)); });
    saved("bmp", ".bmp", 0, [&](const std::string& p) { saveBmp(FastString<char>(p), picture); });
    const HeifFile heif = makeHeif(folder, "heif-" + name(".heic"), w, h, colour);
    if (heif.skipReason.empty())
        samples.push_back({"heif", heif.path, 24});
    else if (heifSkipReason)
        *heifSkipReason = heif.skipReason;
    return samples;
}

}  // namespace qor::imageio::testing
