#include "imageio/ImageLogPng.h"

#include <png.h>

#include <csetjmp>
#include <memory>
#include <new>
#include <stdexcept>

#include "base/filesystem/AtomicFileWriter.h"

namespace qor::imageio {

namespace {

// Everything the libpng callbacks reach, on the heap: libpng long-jumps out of its calls, past
// any frame that would hold it.
struct PngState {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::string out;
    std::string failure;
    bool outOfMemory = false;

    ~PngState() {
        if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
    }
};

void appendData(png_structp png, png_bytep data, png_size_t length) {
    auto* state = static_cast<PngState*>(png_get_io_ptr(png));
    try {
        state->out.append(reinterpret_cast<const char*>(data), length);
    } catch (...) {
        state->outOfMemory = true;
        png_error(png, "out of memory");
    }
}

void flushNothing(png_structp) {}

void failed(png_structp png, png_const_charp message) {
    auto* state = static_cast<PngState*>(png_get_error_ptr(png));
    state->failure = message ? message : "unknown error";
    png_longjmp(png, 1);
}

void warned(png_structp, png_const_charp) {}

// The encoding itself; holds no object with a destructor, since libpng may long-jump out.
bool encodeRows(PngState& s, const imaging::ImageLogPicture& picture) {
    if (setjmp(png_jmpbuf(s.png))) return false;
    png_set_write_fn(s.png, &s, appendData, flushNothing);
    png_set_IHDR(s.png, s.info, png_uint_32(picture.width), png_uint_32(picture.height),
                 picture.bitsPerChannel, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    // A log is written while the engine runs and looked at once: the fastest level.
    png_set_compression_level(s.png, 1);
    png_write_info(s.png, s.info);
    // PNG holds 16-bit samples big-endian; the log hands them over in the machine's order.
    if (picture.bitsPerChannel == 16) png_set_swap(s.png);
    const auto* pixels = static_cast<const unsigned char*>(picture.pixels);
    for (int y = 0; y < picture.height; ++y)
        png_write_row(s.png, const_cast<png_bytep>(pixels + size_t(y) * picture.byteStride));
    png_write_end(s.png, s.info);
    return true;
}

}  // namespace

void PngImageLogWriter::write(const std::string& path, const imaging::ImageLogPicture& picture) {
    if (picture.width <= 0 || picture.height <= 0 || !picture.pixels ||
        (picture.bitsPerChannel != 8 && picture.bitsPerChannel != 16))
        throw std::invalid_argument("not a picture of 8 or 16 bits RGBA");
    const auto state = std::make_unique<PngState>();
    state->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state.get(), failed, warned);
    if (state->png) state->info = png_create_info_struct(state->png);
    if (!state->png || !state->info) throw std::runtime_error("libpng could not be set up");
    if (!encodeRows(*state, picture)) {
        if (state->outOfMemory) throw std::bad_alloc();
        throw std::runtime_error("libpng: " + state->failure);
    }
    filesystem::writeFileAtomically(path, state->out, false);
}

void installImageLogPngWriter() {
    imaging::ImageLog::setWriter(std::make_shared<PngImageLogWriter>());
}

namespace {

// When the library is loaded: the writer first, then the log if the environment asks for it.
[[maybe_unused]] const bool gInstalledAtLoad = [] {
    installImageLogPngWriter();
    imaging::ImageLog::startFromEnvironment();
    return true;
}();

}  // namespace

}  // namespace qor::imageio
