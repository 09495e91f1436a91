#pragma once
// RawDecoder: camera raw files through LibRaw, taken by their extension (".NEF", ".CR2", ".DNG"
// ...), since raw formats share no signature. With ImageQualityThumbnail the camera's embedded
// preview (a JPEG or a bitmap) when the file has one; otherwise the raw data developed by LibRaw
// (camera white balance, sRGB, 8 bits), at half resolution when the requested size allows it. The
// capture time is LibRaw's.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// LibRaw instance of the thread-safe build.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

class RawDecoder : public ImageDecoder {
public:
    const char* name() const override { return "raw"; }
    bool accepts(const unsigned char* head, size_t length,
                 const FastString<char>& upperExtension) const override;
    bool decode(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                ImageOut* image, SharedPtr<Metadata>* metadata,
                const math::Recti& roi) const override;
};

}  // namespace qor::imageio
