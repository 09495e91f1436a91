#include "imagecache/thumbnails/detail/ThumbnailPng.h"

#include <png.h>

#include <csetjmp>
#include <memory>
#include <new>

namespace qor::imagecache::detail {

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

void writeData(png_structp png, png_bytep data, png_size_t length) {
    auto* state = static_cast<PngWriteState*>(png_get_io_ptr(png));
    try {
        state->out->append(reinterpret_cast<const char*>(data), length);
    } catch (...) {
        state->outOfMemory = true;
        png_error(png, "out of memory");
    }
}

void flushData(png_structp) {}

void failed(png_structp png, png_const_charp message) {
    auto* state = static_cast<PngWriteState*>(png_get_error_ptr(png));
    state->failure = message ? message : "unknown error";
    png_longjmp(png, 1);
}

void warned(png_structp, png_const_charp) {}

// The encoding itself; holds no object with a destructor, since libpng may long-jump out.
bool writeRows(PngWriteState& s, const imageio::Image4ub& image) {
    if (setjmp(png_jmpbuf(s.png))) return false;
    png_set_write_fn(s.png, &s, writeData, flushData);
    png_set_IHDR(s.png, s.info, png_uint_32(image.width()), png_uint_32(image.height()), 8,
                 PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    // Thumbnails are written once and read often; level 6 is zlib's balance of size and time.
    png_set_compression_level(s.png, 6);
    png_write_info(s.png, s.info);
    for (int y = 0; y < image.height(); ++y)
        png_write_row(s.png, const_cast<png_bytep>(image.row(y)));
    png_write_end(s.png, s.info);
    return true;
}

}  // namespace

bool encodePngRGBA(const imageio::Image4ub& image, std::string* out, std::string* failure) {
    const auto state = std::make_unique<PngWriteState>();
    state->out = out;
    state->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state.get(), failed, warned);
    if (state->png) state->info = png_create_info_struct(state->png);
    if (!state->png || !state->info) {
        *failure = "libpng could not be set up";
        return false;
    }
    if (writeRows(*state, image)) return true;
    if (state->outOfMemory) throw std::bad_alloc();
    *failure = state->failure;
    return false;
}

}  // namespace qor::imagecache::detail
