#pragma once
// DecoderRegistry: the decoders that recognise a picture file by its content and decode it,
// whatever its name: JPEG, PNG, TIFF, OpenEXR, GIF, WebP, HEIF/HEIC/AVIF, BMP and camera raw
// files (their previews or developed data). loadImage hands every file whose extension is not its
// own JPEG, PNG or TIFF road to decodeWithRegistry; ImageLoader asks findDecoder once what a file
// is and keeps the answer. Each decoder looks at the first bytes of the file; only camera raw
// files, which share no signature, go by their extension, and they are asked after every format
// that has a signature of its own except TIFF, which they are built on.
//
// The contract of a decode, for every decoder: the image is fitted inside `size` (uniform scale,
// each side rounded, at least 1; a size of (0, 0) or a region of interest means full size), in
// 8-bit R, G, B, A order with alpha 255 where the file has none; with ImageQualityThumbnail a
// decoder that has a preview (an embedded thumbnail) uses it; a non-empty `roi` gives only that
// rectangle of the full-size image; the metadata output, when wanted and empty, gets Imagesize
// (the size of what was decoded, the preview's for a preview) and, where the file has it,
// OriginalTime. The JPEG and TIFF decoders give the file's whole metadata (EXIF, IPTC, XMP) as
// well. Pixels come as stored: an EXIF orientation is not applied (ImageLoader applies it), with two
// exceptions that come upright: libheif applies a HEIF's own rotation, which is part of its
// picture, and the raw decoder turns both the developed picture and the preview as the camera was
// held.
//
// Ownership: the registry owns its decoders, which live to the end of the process. Thread
// contract: decoders are registered at start-up (the built-in ones on first use); finding and
// decoding may run on many threads at once. One mutex guards the list of decoders; it is held while
// the decoders look at a file's first bytes, never while they decode.

#include <cstddef>
#include <memory>

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/ImageQuality.h"
#include "imageio/Metadata.h"
#include "imaging/GenImageData.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

using ImageOut = SharedPtr<imaging::GenImageData<unsigned char, 4>>;

// How many of a file's first bytes the decoders are shown to recognise it.
inline constexpr size_t DecoderHeadLength = 64;

// The formats of the built-in decoders. A decoder registered from outside is FileFormatOther.
enum FileFormat {
    FileFormatOther,
    FileFormatJpeg,
    FileFormatPng,
    FileFormatTiff,
    FileFormatExr,
    FileFormatGif,
    FileFormatWebp,
    FileFormatHeif,
    FileFormatBmp,
    FileFormatRaw,
};

class ImageDecoder {
public:
    virtual ~ImageDecoder() = default;
    // A short name for logs and for the tool ("jpeg", "gif" ...).
    virtual const char* name() const = 0;
    virtual FileFormat format() const { return FileFormatOther; }
    // Whether the decoder takes a file that starts with `head` (DecoderHeadLength bytes; fewer,
    // possibly none, for a short file) and has the extension `upperExtension` (with its dot, upper
    // case; may be empty). Must be safe on any bytes. Runs under the registry's lock: it must be
    // quick and must not call the registry.
    virtual bool accepts(const unsigned char* head, size_t length,
                         const FastString<char>& upperExtension) const = 0;
    // Decodes as the contract above says. `file` is the file at `path`, open for reading; the
    // decoder reads it by position (decoders whose library opens files by name, as libtiff,
    // OpenEXR, libheif and LibRaw do, open `path` again). Fills only outputs that are wanted
    // (non-null) and empty. Returns false, with one log line naming the path, when the file cannot
    // be decoded. Must not throw.
    virtual bool decode(RandomAccessFile& file, const FastString<char>& path,
                        math::GenVec<int, 2> size, ImageQuality quality, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const math::Recti& roi) const = 0;
};

// Adds a decoder; later registrations are asked after the built-in ones and earlier ones.
void registerDecoder(std::unique_ptr<ImageDecoder> decoder);

// The first decoder that takes a file with this head and extension (see ImageDecoder::accepts);
// null when none does. Never throws.
const ImageDecoder* findDecoder(const unsigned char* head, size_t length,
                                const FastString<char>& upperExtension);

// Decodes `path` with the decoder that recognises it; the file is opened once, here. A file that
// cannot be opened, that no decoder takes, or whose decoder fails leaves the outputs as they were
// and logs "Failed to load image using WIC: '%*'" with the path (after a line at info level that
// says why). Never throws.
bool decodeWithRegistry(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
                        ImageOut* image, SharedPtr<Metadata>* metadata, const math::Recti& roi);

// The size of `source` fitted inside `box`: uniform scale, each side rounded, at least 1. A box
// with a zero side gives `source`.
math::GenVec<int, 2> fitInside(math::GenVec<int, 2> source, math::GenVec<int, 2> box);

}  // namespace qor::imageio
