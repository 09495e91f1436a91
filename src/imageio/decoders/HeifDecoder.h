#pragma once
// HeifDecoder: HEIF, HEIC and AVIF files through libheif (HEVC and AV1 decoders as libheif was
// built with). The primary image with its rotation, mirroring and crop applied; with
// ImageQualityThumbnail the primary image's largest thumbnail when the file has one. The capture
// time comes from the primary image's EXIF block (DateTimeOriginal, else DateTime), read with
// Exiv2.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// libheif context.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

class HeifDecoder : public ImageDecoder {
public:
    const char* name() const override { return "heif"; }
    bool accepts(const unsigned char* head, size_t length,
                 const FastString<char>& upperExtension) const override;
    bool decode(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                ImageOut* image, SharedPtr<Metadata>* metadata,
                const math::Recti& roi) const override;
};

}  // namespace qor::imageio
