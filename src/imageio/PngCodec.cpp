// loadPng: PNG files of every colour type and depth into 8-bit RGBA, on libpng's read path, set
// up as PngBandReader sets it up (detail/PngBandReader.h), so that both give the same pixels.
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
#include "imageio/detail/PngIO.h"

namespace qor::imageio {

namespace {

using Vec2i = math::GenVec<int, 2>;

struct PngState {
    ~PngState() {
        if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
    }

    detail::PngInput input;
    png_structp png = nullptr;
    png_infop info = nullptr;

    png_uint_32 width = 0;
    png_uint_32 height = 0;
    bool alpha = false;
    std::vector<png_byte> buffer;  // one RGB row, for pictures without alpha
    ImagePtr image;
    SharedPtr<Metadata> metadata;
};

// Reads the header and, when `wantImage`, the pixels. May long-jump out (libpng errors) and throw
// std::bad_alloc (the pixels).
void readPng(PngState& s, bool wantImage, bool wantMetadata) {
    png_structp png = s.png;
    png_infop info = s.info;
    png_read_info(png, info);
    s.width = png_get_image_width(png, info);
    s.height = png_get_image_height(png, info);
    if (wantMetadata) {
        s.metadata = std::make_shared<Metadata>();
        s.metadata->set(MetadataField::Imagesize, Vec2i(int(s.width), int(s.height)));
    }
    if (!wantImage) return;

    int passes = 1;
    s.alpha = detail::setPngTransforms(png, info, 8, false, &passes);
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
        QOR_LOG(LogWarning, "loadPng: libpng failed with: %* ('%*')", s.input.error, s.input.name);
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
        s.input.file = &file;
        s.input.name = name;
        s.input.position = 8;
        if (!detail::createPngReader(s.input, &s.png, &s.info)) {
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
