#include "imageio/PngMemoryEncoder.h"

#include <png.h>

#include <csetjmp>
#include <memory>
#include <new>

namespace qor::imageio {

namespace {

// Everything the libpng callbacks reach, on the heap: libpng long-jumps out of its calls, past
// any frame that would hold it.
struct PngWriteState {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::string* out = nullptr;
    std::string failure;
    bool outOfMemory = false;

    ~PngWriteState() {
        if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
    }
};

void appendData(png_structp png, png_bytep data, png_size_t length) {
    auto* state = static_cast<PngWriteState*>(png_get_io_ptr(png));
    try {
        state->out->append(reinterpret_cast<const char*>(data), length);
    } catch (...) {
        state->outOfMemory = true;
        png_error(png, "out of memory");
    }
}

void flushNothing(png_structp) {}

void failed(png_structp png, png_const_charp message) {
    auto* state = static_cast<PngWriteState*>(png_get_error_ptr(png));
    state->failure = message ? message : "unknown error";
    png_longjmp(png, 1);
}

void warned(png_structp, png_const_charp) {}

// The encoding itself; holds no object with a destructor, since libpng may long-jump out.
bool encodeRows(PngWriteState& s, const imaging::RgbaRows& rows, int level) {
    if (setjmp(png_jmpbuf(s.png))) return false;
    png_set_write_fn(s.png, &s, appendData, flushNothing);
    png_set_IHDR(s.png, s.info, png_uint_32(rows.width), png_uint_32(rows.height),
                 rows.bitsPerChannel, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(s.png, level);
    png_write_info(s.png, s.info);
    // PNG holds 16-bit samples big-endian; they come in the machine's order.
    if (rows.bitsPerChannel == 16) png_set_swap(s.png);
    const auto* pixels = static_cast<const unsigned char*>(rows.pixels);
    for (int y = 0; y < rows.height; ++y)
        png_write_row(s.png, const_cast<png_bytep>(pixels + size_t(y) * rows.byteStride));
    png_write_end(s.png, s.info);
    return true;
}

}  // namespace

bool encodePngRgba(const imaging::RgbaRows& rows, int compressionLevel, std::string* out,
                   std::string* failure) {
    if (rows.width <= 0 || rows.height <= 0 || !rows.pixels ||
        (rows.bitsPerChannel != 8 && rows.bitsPerChannel != 16)) {
        *failure = "not a picture of 8 or 16 bits RGBA";
        return false;
    }
    const auto state = std::make_unique<PngWriteState>();
    state->out = out;
    state->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state.get(), failed, warned);
    if (state->png) state->info = png_create_info_struct(state->png);
    if (!state->png || !state->info) {
        *failure = "libpng could not be set up";
        return false;
    }
    if (encodeRows(*state, rows, compressionLevel)) return true;
    if (state->outOfMemory) throw std::bad_alloc();
    *failure = "libpng: " + state->failure;
    return false;
}

}  // namespace qor::imageio
