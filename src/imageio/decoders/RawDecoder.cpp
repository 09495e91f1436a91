#include "imageio/decoders/FormatDecoders.h"

#include <libraw/libraw.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "base/Log.h"
#include "imageio/ImageIO.h"
#include "imageio/decoders/detail/DecodeSupport.h"
#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/PathExtension.h"

namespace qor::imageio {

namespace {

using detail::Rgba8Image;

struct RawClose {
    void operator()(libraw_data_t* raw) const { libraw_close(raw); }
};
struct ProcessedFree {
    void operator()(libraw_processed_image_t* image) const { libraw_dcraw_clear_mem(image); }
};
using Raw = std::unique_ptr<libraw_data_t, RawClose>;
using Processed = std::unique_ptr<libraw_processed_image_t, ProcessedFree>;

// LibRaw turns the EXIF time, which carries no zone, into a time_t through local time; the wall
// clock fields are taken back and kept as UTC fields, as Timestamp::fromMetaString does.
Timestamp captureTime(const libraw_data_t* raw) {
    const time_t stamp = raw->other.timestamp;
    if (stamp <= 0) return Timestamp();
    std::tm fields{};
    if (!localtime_r(&stamp, &fields)) return Timestamp();
    return Timestamp::fromFields(fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,
                                 fields.tm_hour, fields.tm_min, fields.tm_sec);
}

// The size of the developed image, turned as the camera was held.
math::GenVec<int, 2> developedSize(const libraw_data_t* raw) {
    const math::GenVec<int, 2> size(raw->sizes.width, raw->sizes.height);
    return raw->sizes.flip & 4 ? math::GenVec<int, 2>(size.y, size.x) : size;
}

// How the camera was held, as an EXIF orientation (LibRaw keeps it as its own flip code). LibRaw
// turns the developed image itself; the embedded preview comes as stored and is turned here, so
// that both show the picture the same way up.
int previewOrientation(const libraw_data_t* raw) {
    switch (raw->sizes.flip) {
        case 1: return 2;
        case 3: return 3;
        case 2: return 4;
        case 4: return 5;
        case 6: return 6;
        case 7: return 7;
        case 5: return 8;
        default: return 1;
    }
}

// The preview turned upright.
SharedPtr<Rgba8Image> uprightPreview(SharedPtr<Rgba8Image> preview, int orientation) {
    if (!preview || orientation == 1) return preview;
    const math::GenVec<int, 2> stored(preview->width(), preview->height());
    const math::Recti whole(math::GenVec<int, 2>(0, 0), stored);
    return detail::orientRegion(*preview, whole, orientation, stored,
                                math::Recti(math::GenVec<int, 2>(0, 0),
                                            detail::uprightSize(stored, orientation)));
}

// A LibRaw bitmap (8 or 16 bits, 1 or 3 colours) as RGBA. Null when it has another layout.
SharedPtr<Rgba8Image> fromBitmap(const libraw_processed_image_t& bitmap,
                                 const FastString<char>& path) {
    const int colors = bitmap.colors;
    const int bytes = bitmap.bits == 16 ? 2 : 1;
    if ((colors != 1 && colors != 3) || (bitmap.bits != 8 && bitmap.bits != 16)) return nullptr;
    const uint64_t needed = uint64_t(bitmap.width) * bitmap.height * colors * bytes;
    if (needed > bitmap.data_size) return nullptr;
    SharedPtr<Rgba8Image> image = detail::allocateRgba(bitmap.width, bitmap.height, path);
    if (!image) return nullptr;
    const unsigned char* in = bitmap.data;
    for (int y = 0; y < bitmap.height; ++y) {
        unsigned char* out = image->row(y);
        for (int x = 0; x < bitmap.width; ++x) {
            unsigned char sample[3] = {0, 0, 0};
            for (int c = 0; c < colors; ++c, in += bytes) {
                // 16-bit samples are in the machine's byte order; keep the high byte.
                sample[c] = bytes == 2 ? uint8_t(*reinterpret_cast<const uint16_t*>(in) >> 8) : *in;
            }
            out[x * 4 + 0] = sample[0];
            out[x * 4 + 1] = sample[colors == 3 ? 1 : 0];
            out[x * 4 + 2] = sample[colors == 3 ? 2 : 0];
            out[x * 4 + 3] = 255;
        }
    }
    return image;
}

// The embedded preview, reduced to fit inside `fit` when that has no zero side; null when
// the file has no preview that decodes.
SharedPtr<Rgba8Image> decodePreview(libraw_data_t* raw, math::GenVec<int, 2> fit,
                                    const FastString<char>& path) {
    if (libraw_unpack_thumb(raw) != LIBRAW_SUCCESS) return nullptr;
    int error = LIBRAW_SUCCESS;
    Processed thumbnail(libraw_dcraw_make_mem_thumb(raw, &error));
    if (!thumbnail || error != LIBRAW_SUCCESS) return nullptr;
    if (thumbnail->type == LIBRAW_IMAGE_JPEG) {
        ImageOut preview;
        if (!loadJpeg(thumbnail->data, thumbnail->data_size, fit, ImageQualityThumbnail, &preview))
            QOR_LOG(LogInfo, "The preview of raw file '%*' does not decode", path);
        return preview;
    }
    if (thumbnail->type == LIBRAW_IMAGE_BITMAP) return fromBitmap(*thumbnail, path);
    return nullptr;
}

// The raw data developed to 8-bit sRGB; at half size when `halfSize`.
SharedPtr<Rgba8Image> develop(libraw_data_t* raw, bool halfSize, const FastString<char>& path) {
    raw->params.output_bps = 8;
    raw->params.output_color = 1;  // sRGB
    raw->params.use_camera_wb = 1;
    raw->params.half_size = halfSize ? 1 : 0;
    int error = libraw_unpack(raw);
    if (error == LIBRAW_SUCCESS) error = libraw_dcraw_process(raw);
    Processed developed;
    if (error == LIBRAW_SUCCESS) developed.reset(libraw_dcraw_make_mem_image(raw, &error));
    if (error != LIBRAW_SUCCESS || !developed) {
        QOR_LOG(LogInfo, "Raw file '%*' cannot be developed: %*", path, libraw_strerror(error));
        return nullptr;
    }
    SharedPtr<Rgba8Image> image = fromBitmap(*developed, path);
    if (!image) QOR_LOG(LogInfo, "Raw file '%*' developed to an unusable bitmap", path);
    return image;
}

}  // namespace

bool RawDecoder::accepts(const unsigned char*, size_t,
                         const FastString<char>& upperExtension) const {
    const auto& raw = detail::RawExtensions;
    return std::find(raw.begin(), raw.end(), upperExtension.view()) != raw.end();
}

bool RawDecoder::decode(RandomAccessFile&, const FastString<char>& path, math::GenVec<int, 2> size,
                        ImageQuality quality, ImageOut* image, SharedPtr<Metadata>* metadata,
                        const math::Recti& roi) const {
    Raw raw(libraw_init(0));
    if (!raw) return false;
    const std::string file(path.view());
    const int error = libraw_open_file(raw.get(), file.c_str());
    if (error != LIBRAW_SUCCESS) {
        QOR_LOG(LogInfo, "Raw file '%*' cannot be opened: %*", path, libraw_strerror(error));
        return false;
    }
    const math::GenVec<int, 2> fullSize = developedSize(raw.get());
    if (!detail::plausibleSize(fullSize.x, fullSize.y)) {
        QOR_LOG(LogInfo, "Raw file '%*' claims an implausible size %*x%*", path, fullSize.x,
                fullSize.y);
        return false;
    }
    const Timestamp time = captureTime(raw.get());
    const int orientation = previewOrientation(raw.get());
    const bool previewWanted = quality == ImageQualityThumbnail;
    if (!detail::wanted(image)) {
        // Without decoding: the preview's recorded size, when it has one.
        const libraw_thumbnail_t& thumb = raw->thumbnail;
        const bool preview = previewWanted && thumb.twidth > 0 && thumb.theight > 0;
        detail::provideMetadata(
            metadata,
            preview ? detail::uprightSize(math::GenVec<int, 2>(thumb.twidth, thumb.theight),
                                          orientation)
                    : fullSize,
            time);
        return true;
    }

    SharedPtr<Rgba8Image> decoded;
    math::GenVec<int, 2> sourceSize = fullSize;
    if (previewWanted) {
        // The box the upright picture must fit in, as the stored preview sees it.
        const math::GenVec<int, 2> fit =
            roi.empty() ? detail::uprightSize(size, orientation) : math::GenVec<int, 2>();
        decoded = uprightPreview(decodePreview(raw.get(), fit, path), orientation);
        // A preview reduced by the JPEG decoder reports its own full size.
        if (decoded) {
            const libraw_thumbnail_t& thumb = raw->thumbnail;
            sourceSize = thumb.twidth > 0 && thumb.theight > 0
                             ? detail::uprightSize(
                                   math::GenVec<int, 2>(thumb.twidth, thumb.theight), orientation)
                             : math::GenVec<int, 2>(decoded->width(), decoded->height());
        }
    }
    if (!decoded) {
        // Half size still covers what was asked for when the fitted size is at most half.
        const math::GenVec<int, 2> target = fitInside(fullSize, size);
        const bool halfSize = roi.empty() && size.x > 0 && size.y > 0 &&
                              target.x * 2 <= fullSize.x && target.y * 2 <= fullSize.y;
        decoded = develop(raw.get(), halfSize, path);
        if (!decoded) return false;
        if (!halfSize) sourceSize = math::GenVec<int, 2>(decoded->width(), decoded->height());
    }
    decoded = detail::finishImage(std::move(decoded), size, roi, path);
    if (!decoded) return false;
    *image = std::move(decoded);
    detail::provideMetadata(metadata, sourceSize, time);
    return true;
}

}  // namespace qor::imageio
