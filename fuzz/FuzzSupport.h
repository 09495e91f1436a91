#pragma once
// Shared pieces of the fuzz targets: a quiet log, the size checks that keep inputs which merely
// declare an enormous picture from being reported as out-of-memory, the temporary file that the
// roads reading by path get, and the band and tile reads of those roads.

#include <unistd.h>

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "base/Exception.h"
#include "base/Log.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/LoaderImageSource.h"

namespace qor::fuzz {

// Largest picture a target decodes, in pixels (as libjpeg-turbo's own fuzzers do).
constexpr uint64_t MaxPixels = uint64_t(1) << 22;

// Drops every log line: the targets run millions of inputs that fail on purpose.
inline void quietLog() {
    static const bool done = [] {
        setLogLevel(LogError + 1);
        setLogToStderr(false);
        return true;
    }();
    (void)done;
}

struct HeaderErrors {
    jpeg_error_mgr pub;
    std::jmp_buf jump;
};

// The width and height of a JPEG's header; 0 x 0 when there is no header.
inline void jpegSize(const uint8_t* data, size_t size, int* width, int* height) {
    *width = *height = 0;
    jpeg_decompress_struct cinfo;
    HeaderErrors errors;
    cinfo.err = jpeg_std_error(&errors.pub);
    errors.pub.error_exit = [](j_common_ptr c) {
        std::longjmp(reinterpret_cast<HeaderErrors*>(c->err)->jump, 1);
    };
    errors.pub.output_message = [](j_common_ptr) {};
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    if (jpeg_read_header(&cinfo, TRUE) == JPEG_HEADER_OK) {
        *width = int(cinfo.image_width);
        *height = int(cinfo.image_height);
    }
    jpeg_destroy_decompress(&cinfo);
}

// The picture size of a JPEG's header, or 0 when there is none.
inline uint64_t jpegPixels(const uint8_t* data, size_t size) {
    int width, height;
    jpegSize(data, size, &width, &height);
    return uint64_t(width) * uint64_t(height);
}

// The width and height that a PNG's IHDR declares; 0 x 0 when the data are too short for one.
inline void pngSize(const uint8_t* data, size_t size, uint32_t* width, uint32_t* height) {
    *width = *height = 0;
    if (size < 24) return;
    auto be32 = [data](size_t at) {
        return uint32_t(data[at]) << 24 | uint32_t(data[at + 1]) << 16 |
               uint32_t(data[at + 2]) << 8 | uint32_t(data[at + 3]);
    };
    *width = be32(16);
    *height = be32(20);
}

// The picture size of a PNG's IHDR, or 0 when the data are too short for one.
inline uint64_t pngPixels(const uint8_t* data, size_t size) {
    uint32_t width, height;
    pngSize(data, size, &width, &height);
    return uint64_t(width) * height;
}

// Reads every byte of a decoded picture, so that a wrong size or an unwritten row shows up under
// the sanitizers.
template <class Image>
void touchPixels(const Image& image) {
    unsigned sum = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width() * 4; ++x) sum += image.row(y)[x];
    volatile unsigned sink = sum;
    (void)sink;
}

// Writes the input to this process's temporary file "/tmp/qor-fuzz-<name>-<pid><extension>" and
// returns its path; empty when it cannot be written.
inline std::string writeTempFile(const char* name, const char* extension, const uint8_t* data,
                                 size_t size) {
    static const std::string pid = std::to_string(::getpid());
    std::string path = std::string("/tmp/qor-fuzz-") + name + "-" + pid + extension;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return {};
    const bool written = std::fwrite(data, 1, size, f) == size;
    if (std::fclose(f) != 0 || !written) return {};
    return path;
}

// Reads lines [0, height) from the top in bands of `band` lines through `read(top, lines)`, which
// gives a band's pixels or null, and touches each band. After the second band it reads the first
// again (a band above the decoder's position: the decoder starts over), then goes on below, so
// that the lines of the second band are skipped over. Stops at the first null.
template <class Read>
void readBands(int height, int band, Read read) {
    auto readAndTouch = [&](int top) {
        const auto pixels = read(top, std::min(band, height - top));
        if (pixels) touchPixels(*pixels);
        return bool(pixels);
    };
    for (int top = 0, i = 0; top < height; top += band, ++i) {
        if (!readAndTouch(top)) return;
        if (i == 1 && !readAndTouch(0)) return;
    }
}

// The file source road: a loader of `path` (shown upright, as the file sources make it), its
// source in 8 or 16 bits with `tile` x `tile` tiles, and up to `most` tiles read in line order,
// then the first again; touches each tile's pixels. The loader's exceptions are the expected
// answer to a bad file.
inline void readSourceTiles(const std::string& path, bool sixteen, int tile, int most) {
    using imaging::PfRGBA16;
    using imaging::PfRGBA8;
    try {
        const imageio::ImageLoader loader{imageio::ImageLoader::String(path)};
        const auto source = std::dynamic_pointer_cast<imageio::detail::LoaderSourceBase>(
            loader.getImageSource(sixteen ? PfRGBA16 : PfRGBA8, imageio::ImageLoader::ImageTypeFull,
                                  math::GenVec<int, 2>(tile, tile), {}));
        if (!source) return;
        const math::GenVec<int, 2> count = source->tileLayout().tileCount;
        const int tiles = int(std::min<int64_t>(most, int64_t(count.x) * count.y));
        if (tiles <= 0) return;
        for (int i = 0; i <= tiles; ++i) {
            const int t = i < tiles ? i : 0;
            const auto read = source->readTileNow(unsigned(t % count.x), unsigned(t / count.x));
            if (sixteen)
                touchPixels(*read->getRawData<PfRGBA16>());
            else
                touchPixels(*read->getRawData<PfRGBA8>());
        }
    } catch (const Exception&) {
    }
}

}  // namespace qor::fuzz
