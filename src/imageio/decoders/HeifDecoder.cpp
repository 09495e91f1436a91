#include "imageio/decoders/FormatDecoders.h"

#include <libheif/heif.h>

#include <algorithm>
#include <cstring>
#include <exiv2/exiv2.hpp>
#include <memory>
#include <vector>

#include "base/Log.h"
#include "imageio/decoders/detail/DecodeSupport.h"
#include "imageio/detail/Exiv2Setup.h"

namespace qor::imageio {

namespace {

using detail::Rgba8Image;

// libheif refuses images wider or higher than this before decoding anything.
constexpr int kMaxSide = 1 << 16;

struct ContextFree {
    void operator()(heif_context* context) const { heif_context_free(context); }
};
struct HandleRelease {
    void operator()(heif_image_handle* handle) const { heif_image_handle_release(handle); }
};
struct ImageRelease {
    void operator()(heif_image* image) const { heif_image_release(image); }
};
struct OptionsFree {
    void operator()(heif_decoding_options* options) const { heif_decoding_options_free(options); }
};
using Context = std::unique_ptr<heif_context, ContextFree>;
using Handle = std::unique_ptr<heif_image_handle, HandleRelease>;
using HeifImage = std::unique_ptr<heif_image, ImageRelease>;
using Options = std::unique_ptr<heif_decoding_options, OptionsFree>;

const char* errorText(const heif_error& error) {
    return error.message ? error.message : "unknown error";
}

// The primary image's largest thumbnail, or null.
Handle largestThumbnail(heif_image_handle* primary) {
    const int count = heif_image_handle_get_number_of_thumbnails(primary);
    if (count <= 0) return nullptr;
    std::vector<heif_item_id> ids(static_cast<size_t>(count));
    const int listed = heif_image_handle_get_list_of_thumbnail_IDs(primary, ids.data(), count);
    Handle best;
    int64_t bestPixels = 0;
    for (int i = 0; i < listed; ++i) {
        heif_image_handle* thumbnail = nullptr;
        if (heif_image_handle_get_thumbnail(primary, ids[size_t(i)], &thumbnail).code !=
            heif_error_Ok)
            continue;
        Handle owned(thumbnail);
        const int64_t pixels = int64_t(heif_image_handle_get_width(thumbnail)) *
                               heif_image_handle_get_height(thumbnail);
        if (pixels > bestPixels) {
            bestPixels = pixels;
            best = std::move(owned);
        }
    }
    return best;
}

// DateTimeOriginal, else DateTime, from the image's first EXIF block; null when there is none.
Timestamp exifCaptureTime(heif_image_handle* handle) {
    heif_item_id id = 0;
    if (heif_image_handle_get_list_of_metadata_block_IDs(handle, "Exif", &id, 1) < 1)
        return Timestamp();
    const size_t bytes = heif_image_handle_get_metadata_size(handle, id);
    if (bytes < 4 + 8 || bytes > (size_t(1) << 26)) return Timestamp();
    std::vector<uint8_t> block(bytes);
    if (heif_image_handle_get_metadata(handle, id, block.data()).code != heif_error_Ok)
        return Timestamp();
    // The block starts with the big-endian offset of the TIFF header behind these four bytes.
    const uint32_t offset = uint32_t(block[0]) << 24 | uint32_t(block[1]) << 16 |
                            uint32_t(block[2]) << 8 | uint32_t(block[3]);
    if (offset > bytes - 4 - 8) return Timestamp();
    try {
        detail::ensureExiv2Initialized();
        Exiv2::ExifData exif;
        const size_t start = 4 + size_t(offset);
        Exiv2::ExifParser::decode(exif, block.data() + start, uint32_t(bytes - start));
        for (const char* key : {"Exif.Photo.DateTimeOriginal", "Exif.Image.DateTime"}) {
            const auto found = exif.findKey(Exiv2::ExifKey(key));
            Timestamp time;
            if (found != exif.end() && Timestamp::fromMetaString(found->toString(), time))
                return time;
        }
    } catch (const std::exception&) {
        // Unreadable EXIF: no capture time.
    }
    return Timestamp();
}

// Decodes `handle` into a new RGBA image, alpha 255 where the image has none.
SharedPtr<Rgba8Image> decodeHandle(heif_image_handle* handle, const FastString<char>& path) {
    const bool alpha = heif_image_handle_has_alpha_channel(handle) != 0;
    Options options(heif_decoding_options_alloc());
    if (!options) return nullptr;
    options->convert_hdr_to_8bit = 1;
    heif_image* decoded = nullptr;
    const heif_error error = heif_decode_image(
        handle, &decoded, heif_colorspace_RGB,
        alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB, options.get());
    HeifImage owned(decoded);
    if (error.code != heif_error_Ok || !decoded) {
        QOR_LOG(LogInfo, "HEIF '%*' cannot be decoded: %*", path, errorText(error));
        return nullptr;
    }
    const int width = heif_image_get_width(decoded, heif_channel_interleaved);
    const int height = heif_image_get_height(decoded, heif_channel_interleaved);
    int stride = 0;
    const uint8_t* plane =
        heif_image_get_plane_readonly(decoded, heif_channel_interleaved, &stride);
    if (!plane || stride <= 0) {
        QOR_LOG(LogInfo, "HEIF '%*' decoded to no pixels", path);
        return nullptr;
    }
    SharedPtr<Rgba8Image> image = detail::allocateRgba(width, height, path);
    if (!image) return nullptr;
    const bool premultiplied = alpha && heif_image_handle_is_premultiplied_alpha(handle);
    for (int y = 0; y < height; ++y) {
        const uint8_t* in = plane + size_t(y) * size_t(stride);
        unsigned char* out = image->row(y);
        if (alpha) {
            std::memcpy(out, in, size_t(width) * 4);
            if (!premultiplied) continue;
            for (int x = 0; x < width; ++x) {
                unsigned char* p = out + size_t(x) * 4;
                if (p[3] == 0 || p[3] == 255) continue;
                for (int c = 0; c < 3; ++c)
                    p[c] = uint8_t(std::min(255, (p[c] * 255 + p[3] / 2) / p[3]));
            }
        } else {
            for (int x = 0; x < width; ++x) {
                out[x * 4 + 0] = in[x * 3 + 0];
                out[x * 4 + 1] = in[x * 3 + 1];
                out[x * 4 + 2] = in[x * 3 + 2];
                out[x * 4 + 3] = 255;
            }
        }
    }
    return image;
}

}  // namespace

bool HeifDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    if (length < 12) return false;
    const heif_filetype_result type = heif_check_filetype(head, int(length));
    return type == heif_filetype_yes_supported || type == heif_filetype_maybe;
}

bool HeifDecoder::decode(RandomAccessFile&, const FastString<char>& path, math::GenVec<int, 2> size,
                         ImageQuality quality, ImageOut* image, SharedPtr<Metadata>* metadata,
                         const math::Recti& roi) const {
    Context context(heif_context_alloc());
    if (!context) return false;
    heif_context_set_maximum_image_size_limit(context.get(), kMaxSide);
    const std::string file(path.view());
    heif_error error = heif_context_read_from_file(context.get(), file.c_str(), nullptr);
    if (error.code != heif_error_Ok) {
        QOR_LOG(LogInfo, "HEIF '%*' cannot be read: %*", path, errorText(error));
        return false;
    }
    heif_image_handle* primaryRaw = nullptr;
    error = heif_context_get_primary_image_handle(context.get(), &primaryRaw);
    Handle primary(primaryRaw);
    if (error.code != heif_error_Ok || !primary) {
        QOR_LOG(LogInfo, "HEIF '%*' has no primary image: %*", path, errorText(error));
        return false;
    }
    Handle thumbnail;
    if (quality == ImageQualityThumbnail) thumbnail = largestThumbnail(primary.get());
    heif_image_handle* source = thumbnail ? thumbnail.get() : primary.get();
    const math::GenVec<int, 2> sourceSize(heif_image_handle_get_width(source),
                                          heif_image_handle_get_height(source));
    if (!detail::plausibleSize(sourceSize.x, sourceSize.y)) {
        QOR_LOG(LogInfo, "HEIF '%*' claims an implausible size %*x%*", path, sourceSize.x,
                sourceSize.y);
        return false;
    }
    if (detail::wanted(image)) {
        SharedPtr<Rgba8Image> result =
            detail::finishImage(decodeHandle(source, path), size, roi, path);
        if (!result) return false;
        *image = std::move(result);
    }
    if (detail::wanted(metadata))
        detail::provideMetadata(metadata, sourceSize, exifCaptureTime(primary.get()));
    return true;
}

}  // namespace qor::imageio
