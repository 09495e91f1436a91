#pragma once
// DecoderRegistry: the decoders for the file formats that have no direct codec (GIF, WebP,
// HEIF/HEIC/AVIF, BMP, camera raw files ...). loadImage hands every file that is neither JPEG, PNG
// nor TIFF to decodeWithRegistry, which asks each registered decoder in turn whether it takes the
// file (by its first bytes) and lets the first that does decode it.
//
// The contract of a decode, for every decoder: the image is fitted inside `size` (uniform scale,
// each side rounded, at least 1; a size of (0, 0) or a region of interest means full size), in
// 8-bit R, G, B, A order with alpha 255 where the file has none; with ImageQualityThumbnail a
// decoder that has a preview (an embedded thumbnail) uses it; a non-empty `roi` gives only that
// rectangle of the full-size image; the metadata output, when wanted and empty, gets Imagesize
// (the size of what was decoded, the preview's for a preview) and, where the file has it,
// OriginalTime.
//
// Ownership: the registry owns its decoders. Thread contract: decoders are registered once at
// start-up (the built-in ones on first use); decode may run on many threads at once.

#include <memory>
#include <vector>

#include "imageio/ImageQuality.h"
#include "imageio/Metadata.h"
#include "imaging/GenImageData.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

using ImageOut = SharedPtr<imaging::GenImageData<unsigned char, 4>>;

class ImageDecoder {
public:
    virtual ~ImageDecoder() = default;
    // A short name for logs ("gif", "webp" ...).
    virtual const char* name() const = 0;
    // Whether the decoder takes a file that starts with `head` (up to 64 bytes; fewer for a short
    // file) and has the extension `upperExtension` (with its dot, upper case; may be empty).
    virtual bool accepts(const unsigned char* head, size_t length,
                         const FastString<char>& upperExtension) const = 0;
    // Decodes as the contract above says. Fills only outputs that are wanted (non-null) and empty.
    // Returns false, with one log line naming the path, when the file cannot be decoded. Must not
    // throw.
    virtual bool decode(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                        ImageOut* image, SharedPtr<Metadata>* metadata,
                        const math::Recti& roi) const = 0;
};

// Adds a decoder; later registrations are asked after earlier ones.
void registerDecoder(std::unique_ptr<ImageDecoder> decoder);

// Decodes `path` with the first decoder that accepts it. A file that no decoder takes, or whose
// decoder fails, leaves the outputs as they were and logs "Failed to load image using WIC: '%*'"
// with the path. Never throws.
bool decodeWithRegistry(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                        ImageOut* image, SharedPtr<Metadata>* metadata, const math::Recti& roi);

// The size of `source` fitted inside `box`: uniform scale, each side rounded, at least 1. A box
// with a zero side gives `source`.
math::GenVec<int, 2> fitInside(math::GenVec<int, 2> source, math::GenVec<int, 2> box);

}  // namespace qor::imageio
