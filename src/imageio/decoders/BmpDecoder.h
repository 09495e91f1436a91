#pragma once
// BmpDecoder: uncompressed Windows bitmaps. Signature "BM", and "MB", which saveBmp writes. Core
// (12-byte) and INFO to V5 headers; 1-, 4- and 8-bit palettes; 16-bit (5-5-5 or bit fields);
// 24-bit; 32-bit, where plain 32-bit pixels are opaque and bit fields with an alpha mask carry
// alpha. Rows bottom-up (positive height) or top-down (negative height). Run-length and embedded
// JPEG or PNG compression are refused, as is a file whose pixel data ends early. BMP has no
// preview and no capture time; the metadata is the picture's size.
//
// Thread contract: stateless; decode runs on any number of threads at once.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

class BmpDecoder : public ImageDecoder {
public:
    const char* name() const override { return "bmp"; }
    bool accepts(const unsigned char* head, size_t length,
                 const FastString<char>& upperExtension) const override;
    bool decode(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                ImageOut* image, SharedPtr<Metadata>* metadata,
                const math::Recti& roi) const override;
};

}  // namespace qor::imageio
