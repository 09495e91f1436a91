#pragma once
// GifDecoder: GIF 87a and 89a files through giflib. The first frame only, drawn on the file's
// logical screen: what the frame does not cover is transparent, and so is the frame's transparent
// colour; interlaced frames are put in row order. GIF has no preview and no capture time; the
// metadata is the screen's size.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// giflib handle.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

class GifDecoder : public ImageDecoder {
public:
    const char* name() const override { return "gif"; }
    bool accepts(const unsigned char* head, size_t length,
                 const FastString<char>& upperExtension) const override;
    bool decode(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                ImageOut* image, SharedPtr<Metadata>* metadata,
                const math::Recti& roi) const override;
};

}  // namespace qor::imageio
