#pragma once
// Shared pieces of the fuzz targets: a quiet log, and the size checks that keep inputs which
// merely declare an enormous picture from being reported as out-of-memory.

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "base/Log.h"

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

// The picture size of a JPEG's header times its scan count bound, or 0 when there is no header.
inline uint64_t jpegPixels(const uint8_t* data, size_t size) {
    jpeg_decompress_struct cinfo;
    HeaderErrors errors;
    cinfo.err = jpeg_std_error(&errors.pub);
    errors.pub.error_exit = [](j_common_ptr c) {
        std::longjmp(reinterpret_cast<HeaderErrors*>(c->err)->jump, 1);
    };
    errors.pub.output_message = [](j_common_ptr) {};
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return 0;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    uint64_t pixels = 0;
    if (jpeg_read_header(&cinfo, TRUE) == JPEG_HEADER_OK)
        pixels = uint64_t(cinfo.image_width) * cinfo.image_height;
    jpeg_destroy_decompress(&cinfo);
    return pixels;
}

// The picture size of a PNG's IHDR, or 0 when the data are too short for one.
inline uint64_t pngPixels(const uint8_t* data, size_t size) {
    if (size < 24) return 0;
    auto be32 = [data](size_t at) {
        return uint32_t(data[at]) << 24 | uint32_t(data[at + 1]) << 16 |
               uint32_t(data[at + 2]) << 8 | uint32_t(data[at + 3]);
    };
    return uint64_t(be32(16)) * be32(20);
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

}  // namespace qor::fuzz
