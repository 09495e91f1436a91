#pragma once
// WebpDecoder: still WebP files, lossy or lossless, with or without alpha, through libwebp. A
// reduced size is made by libwebp's own rescaler while decoding. Animated files are refused (the
// still decoder does not take them). WebP has no preview; the metadata is the picture's size.
//
// Thread contract: stateless; decode runs on any number of threads at once.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

class WebpDecoder : public ImageDecoder {
public:
    const char* name() const override { return "webp"; }
    bool accepts(const unsigned char* head, size_t length,
                 const FastString<char>& upperExtension) const override;
    bool decode(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                ImageOut* image, SharedPtr<Metadata>* metadata,
                const math::Recti& roi) const override;
};

}  // namespace qor::imageio
