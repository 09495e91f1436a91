#include "imageio/detail/PngIO.h"

#include <png.h>

#include <cstdlib>

#include "base/Log.h"

namespace qor::imageio::detail {

namespace {

// Called by libpng, whose C frames no exception may cross: whatever the file throws ends in
// png_error. That long-jumps out of here; nothing with a destructor is alive when it is called.
void qorPngRead(png_structp png, png_bytep data, png_size_t length) {
    PngInput* input = static_cast<PngInput*>(png_get_io_ptr(png));
    bool ok = false;
    try {
        ok = input->file && input->file->readAt(input->position, data, length) == length;
    } catch (...) {
        ok = false;
    }
    if (!ok) {
        try {
            QOR_LOG(LogError, "Couldn't read from file '%*'", input->name);
        } catch (...) {
            // out of memory for the log line: the error below is what matters
        }
        png_error(png, "Read error in qor_png_read_function");
    }
    input->position += length;
}

[[noreturn]] void qorPngError(png_structp png, png_const_charp message) {
    PngInput* input = static_cast<PngInput*>(png_get_error_ptr(png));
    try {
        input->error = message ? message : "";
    } catch (...) {
        // keep the previous text: the error itself is what matters
    }
    png_longjmp(png, 1);
}

void qorPngWarning(png_structp png, png_const_charp message) {
    PngInput* input = static_cast<PngInput*>(png_get_error_ptr(png));
    try {
        QOR_LOG(LogDebug, "libpng: %* ('%*')", message ? message : "", input->name);
    } catch (...) {
        // a warning not logged for want of memory
    }
}

// libpng's allocations: a request over kPngChunkMallocMax fails, which libpng turns into a
// skipped chunk (with a warning) or an error. It allocates a text chunk's declared length before
// reading it, whatever its chunk limit says, so a few bytes that claim 2 GB would take them.
png_voidp qorPngMalloc(png_structp, png_alloc_size_t size) {
    return size > kPngChunkMallocMax ? nullptr : std::malloc(size);
}

void qorPngFree(png_structp, png_voidp memory) { std::free(memory); }

}  // namespace

bool createPngReader(PngInput& input, png_structp* png, png_infop* info) {
    *png = png_create_read_struct_2(PNG_LIBPNG_VER_STRING, &input, qorPngError, qorPngWarning,
                                    nullptr, qorPngMalloc, qorPngFree);
    *info = *png ? png_create_info_struct(*png) : nullptr;
    if (!*info) {
        if (*png) png_destroy_read_struct(png, nullptr, nullptr);
        *png = nullptr;
        return false;
    }
    png_set_read_fn(*png, &input, qorPngRead);
    png_set_sig_bytes(*png, 8);
    // Decompressed text and profiles stay within the same limit. The image data is read in
    // pieces and is bounded by neither.
    png_set_chunk_malloc_max(*png, kPngChunkMallocMax);
#if defined(FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION)
    // Fuzzing only: mutated files would otherwise rarely get past the checksums.
    png_set_crc_action(*png, PNG_CRC_QUIET_USE, PNG_CRC_QUIET_USE);
#ifdef PNG_IGNORE_ADLER32
    png_set_option(*png, PNG_IGNORE_ADLER32, PNG_OPTION_ON);
#endif
#endif
    return true;
}

bool setPngTransforms(png_structp png, png_infop info, int bits, bool fillAlpha, int* passes) {
    png_uint_32 width = 0, height = 0;
    int bitDepth = 0, colorType = 0;
    png_get_IHDR(png, info, &width, &height, &bitDepth, &colorType, nullptr, nullptr, nullptr);
    if (colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (colorType == PNG_COLOR_TYPE_GRAY && bitDepth < 8) png_set_expand_gray_1_2_4_to_8(png);
    bool alpha = (colorType & PNG_COLOR_MASK_ALPHA) != 0;
    if (png_get_valid(png, info, PNG_INFO_tRNS)) {
        png_set_tRNS_to_alpha(png);
        alpha = true;
    }
    if (bits == 16) {
        if (bitDepth < 16) png_set_expand_16(png);
        if constexpr (std::endian::native == std::endian::little) png_set_swap(png);
    } else if (bitDepth == 16) {
        png_set_strip_16(png);
    }
    if ((colorType & ~PNG_COLOR_MASK_ALPHA) == PNG_COLOR_TYPE_GRAY) png_set_gray_to_rgb(png);
    if (fillAlpha && !alpha) png_set_filler(png, 0xffff, PNG_FILLER_AFTER);
    *passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    // The rows below are allocated for this layout; anything else would overrun them.
    const size_t channels = alpha || fillAlpha ? 4 : 3;
    if (png_get_rowbytes(png, info) != size_t(width) * channels * size_t(bits / 8))
        png_error(png, "unexpected row layout after the transformations");
    return alpha;
}

}  // namespace qor::imageio::detail
