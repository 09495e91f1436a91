#include "imageio/decoders/FormatDecoders.h"

#include <webp/decode.h>

#include <cstring>
#include <exception>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/decoders/detail/DecodeSupport.h"

namespace qor::imageio {

namespace {

using detail::Rgba8Image;

// A RIFF container can claim up to 4 GiB; a still picture of the largest WebP size stays far
// below this.
constexpr uint64_t kMaxFileBytes = uint64_t(1) << 30;
// Enough of the file for WebPGetFeatures: the RIFF header and the first chunk's header.
constexpr size_t kHeaderBytes = 64;

const char* statusText(VP8StatusCode status) {
    switch (status) {
        case VP8_STATUS_OK:
            return "ok";
        case VP8_STATUS_OUT_OF_MEMORY:
            return "out of memory";
        case VP8_STATUS_INVALID_PARAM:
            return "invalid parameter";
        case VP8_STATUS_BITSTREAM_ERROR:
            return "bitstream error";
        case VP8_STATUS_UNSUPPORTED_FEATURE:
            return "unsupported feature";
        case VP8_STATUS_SUSPENDED:
            return "suspended";
        case VP8_STATUS_USER_ABORT:
            return "aborted";
        case VP8_STATUS_NOT_ENOUGH_DATA:
            return "not enough data";
    }
    return "unknown error";
}

// Decodes `data` into a new image of target.x by target.y pixels (libwebp rescales when that is
// not the picture's own size). Null and a log line on failure.
SharedPtr<Rgba8Image> decodeWebp(const std::vector<uint8_t>& data, math::GenVec<int, 2> target,
                                 const FastString<char>& path) {
    WebPDecoderConfig config;
    if (!WebPInitDecoderConfig(&config)) return nullptr;
    VP8StatusCode status = WebPGetFeatures(data.data(), data.size(), &config.input);
    if (status != VP8_STATUS_OK) {
        QOR_LOG(LogInfo, "WebP '%*' cannot be read: %*", path, statusText(status));
        return nullptr;
    }
    SharedPtr<Rgba8Image> image = detail::allocateRgba(target.x, target.y, path);
    if (!image) return nullptr;
    if (target.x != config.input.width || target.y != config.input.height) {
        config.options.use_scaling = 1;
        config.options.scaled_width = target.x;
        config.options.scaled_height = target.y;
    }
    config.output.colorspace = MODE_RGBA;
    config.output.is_external_memory = 1;
    config.output.u.RGBA.rgba = image->data();
    config.output.u.RGBA.stride = int(image->byteStride());
    config.output.u.RGBA.size = image->byteStride() * size_t(target.y);
    status = WebPDecode(data.data(), data.size(), &config);
    WebPFreeDecBuffer(&config.output);
    if (status != VP8_STATUS_OK) {
        QOR_LOG(LogInfo, "WebP '%*' cannot be decoded: %*", path, statusText(status));
        return nullptr;
    }
    return image;
}

}  // namespace

bool WebpDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    return length >= 12 && std::memcmp(head, "RIFF", 4) == 0 &&
           std::memcmp(head + 8, "WEBP", 4) == 0;
}

bool WebpDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                         math::GenVec<int, 2> size, ImageQuality, ImageOut* image,
                         SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    std::vector<uint8_t> data;
    try {
        const uint64_t bytes = file.size();
        if (bytes > kMaxFileBytes) {
            QOR_LOG(LogInfo, "WebP '%*' is too large: %* bytes", path, bytes);
            return false;
        }
        // The header alone answers a metadata-only request.
        data.resize(detail::wanted(image) ? size_t(bytes) : std::min<size_t>(bytes, kHeaderBytes));
        data.resize(file.readAt(0, data.data(), data.size()));
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "Cannot read WebP '%*': %*", path, e.what());
        return false;
    }
    int width = 0;
    int height = 0;
    if (!WebPGetInfo(data.data(), data.size(), &width, &height) ||
        !detail::plausibleSize(width, height)) {
        QOR_LOG(LogInfo, "WebP '%*' has no readable header", path);
        return false;
    }
    const math::GenVec<int, 2> full(width, height);
    if (detail::wanted(image)) {
        // A region is cut from the whole picture; a fitted size comes from libwebp's rescaler.
        const math::GenVec<int, 2> target = roi.empty() ? fitInside(full, size) : full;
        if (!detail::plausibleSize(target.x, target.y)) {
            QOR_LOG(LogInfo, "Requested size %*x%* is too large for '%*'", target.x, target.y,
                    path);
            return false;
        }
        SharedPtr<Rgba8Image> decoded = decodeWebp(data, target, path);
        if (!decoded) return false;
        if (!roi.empty()) decoded = detail::finishImage(std::move(decoded), size, roi, path);
        if (!decoded) return false;
        *image = std::move(decoded);
    }
    detail::provideMetadata(metadata, full);
    return true;
}

}  // namespace qor::imageio
