// loadPng: PNG files of every colour type and depth into 8-bit RGBA, on libpng's read path.
//
// libpng reports errors by long-jumping to the setjmp of its read struct. The state of a call
// lives on the heap, and its destructor destroys the read struct, so that every way out of the
// call (return, long jump, exception) releases libpng's memory. Frames that call libpng hold no
// object with a destructor while they do.

#include <png.h>

#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "base/Log.h"
#include "imageio/ImageIO.h"

namespace qor::imageio {

namespace {

using Vec2i = math::GenVec<int, 2>;

struct PngState {
    ~PngState() {
        if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
    }

    RandomAccessFile* file = nullptr;
    std::string name;
    png_structp png = nullptr;
    png_infop info = nullptr;
    uint64_t position = 0;  // read position of qorPngRead
    std::string error;      // the message of the last libpng error

    png_uint_32 width = 0;
    png_uint_32 height = 0;
    int bitDepth = 0;
    int colorType = 0;
    bool alpha = false;
    std::vector<png_byte> buffer;  // one RGB row, for pictures without alpha
    ImagePtr image;
    SharedPtr<Metadata> metadata;
};

// png_error long-jumps out of here; nothing with a destructor is alive when it is called.
void qorPngRead(png_structp png, png_bytep data, png_size_t length) {
    PngState* s = static_cast<PngState*>(png_get_io_ptr(png));
    bool ok = false;
    try {
        ok = s->file->readAt(s->position, data, length) == length;
    } catch (const std::exception&) {
        ok = false;
    }
    if (!ok) {
        QOR_LOG(LogError, "Couldn't read from file '%*'", s->name);
        png_error(png, "Read error in qor_png_read_function");
    }
    s->position += length;
}

[[noreturn]] void qorPngError(png_structp png, png_const_charp message) {
    PngState* s = static_cast<PngState*>(png_get_error_ptr(png));
    try {
        s->error = message ? message : "";
    } catch (...) {
        // keep the previous text: the error itself is what matters
    }
    png_longjmp(png, 1);
}

void qorPngWarning(png_structp png, png_const_charp message) {
    PngState* s = static_cast<PngState*>(png_get_error_ptr(png));
    QOR_LOG(LogDebug, "libpng: %* ('%*')", message ? message : "", s->name);
}

// Reads the header and, when `wantImage`, the pixels. May long-jump out (libpng errors) and throw
// std::bad_alloc (the pixels).
void readPng(PngState& s, bool wantImage, bool wantMetadata) {
    png_structp png = s.png;
    png_infop info = s.info;
    png_set_read_fn(png, &s, qorPngRead);
    png_set_sig_bytes(png, 8);
#if defined(FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION)
    // Fuzzing only: mutated files would otherwise rarely get past the checksums.
    png_set_crc_action(png, PNG_CRC_QUIET_USE, PNG_CRC_QUIET_USE);
#ifdef PNG_IGNORE_ADLER32
    png_set_option(png, PNG_IGNORE_ADLER32, PNG_OPTION_ON);
#endif
#endif
    png_read_info(png, info);
    png_get_IHDR(png, info, &s.width, &s.height, &s.bitDepth, &s.colorType, nullptr, nullptr,
                 nullptr);
    if (wantMetadata) {
        s.metadata = std::make_shared<Metadata>();
        s.metadata->set(MetadataField::Imagesize, Vec2i(int(s.width), int(s.height)));
    }
    if (!wantImage) return;

    if (s.colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (s.colorType == PNG_COLOR_TYPE_GRAY && s.bitDepth < 8) png_set_expand_gray_1_2_4_to_8(png);
    s.alpha = (s.colorType & PNG_COLOR_MASK_ALPHA) != 0;
    if (png_get_valid(png, info, PNG_INFO_tRNS)) {
        png_set_tRNS_to_alpha(png);
        s.alpha = true;
    }
    if (s.bitDepth == 16) png_set_strip_16(png);
    if ((s.colorType & ~PNG_COLOR_MASK_ALPHA) == PNG_COLOR_TYPE_GRAY) png_set_gray_to_rgb(png);
    const int passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    // The transforms above must have made rows of 8-bit RGB or RGBA; anything else would overrun
    // the rows below.
    if (png_get_rowbytes(png, info) != size_t(s.width) * (s.alpha ? 4 : 3))
        png_error(png, "unexpected row layout after the transformations");

    s.image = Image4ub::create(int(s.width), int(s.height));
    if (passes > 1) {
        // Later passes fill in pixels between those of earlier ones; start from defined memory.
        for (int y = 0; y < int(s.height); ++y)
            std::memset(s.image->row(y), 0, size_t(s.width) * 4);
    }
    if (!s.alpha) s.buffer.resize(size_t(s.width) * 3);
    for (int pass = 0; pass < passes; ++pass) {
        for (int y = 0; y < int(s.height); ++y) {
            png_bytep target = s.image->row(y);
            if (s.alpha) {
                png_read_rows(png, &target, nullptr, 1);
                continue;
            }
            png_bytep rgb = s.buffer.data();
            if (pass > 0) {
                // libpng writes only this pass' pixels into the row: hand it the earlier ones.
                for (png_uint_32 x = 0; x < s.width; ++x)
                    std::memcpy(rgb + 3 * x, target + 4 * x, 3);
            }
            png_read_rows(png, &rgb, nullptr, 1);
            for (png_uint_32 x = 0; x < s.width; ++x) {
                std::memcpy(target + 4 * x, rgb + 3 * x, 3);
                target[4 * x + 3] = 255;
            }
        }
    }
    png_read_end(png, nullptr);
}

bool decodePng(PngState& s, bool wantImage, bool wantMetadata) {
    if (setjmp(png_jmpbuf(s.png))) {
        QOR_LOG(LogWarning, "loadPng: libpng failed with: %* ('%*')", s.error, s.name);
        return false;
    }
    readPng(s, wantImage, wantMetadata);
    return true;
}

}  // namespace

bool loadPng(RandomAccessFile& file, ImagePtr* image, SharedPtr<Metadata>* metadata) {
    const bool wantImage = image && !*image;
    const bool wantMetadata = metadata && !*metadata;
    std::string name;
    try {
        name = file.name();
        unsigned char signature[8];
        if (file.readAt(0, signature, 8) != 8 || png_sig_cmp(signature, 0, 8) != 0) {
            QOR_LOG(LogWarning, "loadPng: not a PNG file: '%*'", name);
            return false;
        }
        const std::unique_ptr<PngState> state = std::make_unique<PngState>();
        PngState& s = *state;
        s.file = &file;
        s.name = name;
        s.position = 8;
        s.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &s, qorPngError, qorPngWarning);
        if (s.png) s.info = png_create_info_struct(s.png);
        if (!s.png || !s.info) {
            QOR_LOG(LogError, "loadPng: libpng could not be set up for '%*'", name);
            return false;
        }
        if (!decodePng(s, wantImage, wantMetadata)) return false;
        if (wantImage) *image = std::move(s.image);
        if (wantMetadata) *metadata = std::move(s.metadata);
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "loadPng: failed to load '%*': %*", name, e.what());
        return false;
    }
}

bool loadPng(const FastString<char>& path, ImagePtr* image, SharedPtr<Metadata>* metadata) {
    ScopedPtr<RandomAccessFileStd> file;
    try {
        file = std::make_unique<RandomAccessFileStd>(path.view());
    } catch (const std::exception&) {
        QOR_LOG(LogWarning, "Couldn't open png file '%*'", path);
        return false;
    }
    return loadPng(*file, image, metadata);
}

}  // namespace qor::imageio
