#pragma once
// The JPEG decoder and encoder cores behind the public entry points of ImageIO.h.
//
// Thread contract: every call has its own libjpeg object; calls run on any threads at once.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/ImageIO.h"

namespace qor::imageio::detail {

// Decodes the JPEG in `file` (from its start) or in memory. `size` (0, 0) keeps the full size;
// any other size picks libjpeg's reduction (scale_denom 8, 4, 2 or 1, see the source) and then
// reduces the result to fit inside `size`, never enlarging it. A non-empty `roi` gives that
// rectangle of the decoded picture, clipped to it, and no further reduction. ImageQualityBest
// decodes with the floating point DCT, the others with the fast integer one.
//
// libjpeg failures before the first scanline log "decodeJpegCore: libjpeg failed with: %*" and
// give null; later ones log "decodeJpegCore: libjpeg failed after decompression with: %*" and give
// the rows read so far, the rest mid-grey. Throws std::bad_alloc when the pixels cannot be
// allocated; nothing else.
// What went wrong in a decode, for callers that report failures themselves.
struct JpegDecodeReport {
    // The compressed data broke off (a truncated or damaged file): the rows from there on are
    // filled, not decoded.
    bool dataMissing = false;
    // libjpeg's message when the decode failed or broke off; empty otherwise.
    std::string failure;
};

ImagePtr decodeJpeg(RandomAccessFile& file, math::GenVec<int, 2> size, ImageQuality quality,
                    const math::Recti& roi);
// The whole JPEG in `file` at libjpeg's reduction 1 / `denominator` (1, 2, 4 or 8): ceil(W / d)
// x ceil(H / d), nothing reduced further. What goes wrong lands in *report instead of the log.
// Throws std::bad_alloc; nothing else.
ImagePtr decodeJpegReduced(RandomAccessFile& file, int denominator, ImageQuality quality,
                           JpegDecodeReport* report);
ImagePtr decodeJpeg(const void* data, size_t byteCount, math::GenVec<int, 2> size,
                    ImageQuality quality, const math::Recti& roi);

// The scale_denom that decodes a W x H picture (`full`) for a request of `wanted`: 1 for a
// request with a zero side, else the largest of 8, 4, 2 whose reduction the request is below in
// width or in height (integer division), else 1.
int jpegScaleDenominator(math::GenVec<int, 2> full, math::GenVec<int, 2> wanted);

// What an encoding adds to the picture, and the kind of rows it reads.
struct JpegExtras {
    int inputChannels = 4;            // rows of RGBA (alpha dropped) or RGB
    std::vector<std::string> app1;    // whole APP1 blocks (EXIF, XMP) with their headers
    const std::vector<uint8_t>* icc = nullptr;  // an ICC profile, written in APP2 markers
    bool optimizeCoding = false;      // optimal Huffman tables (smaller files, slower)
};

// Encodes a JPEG of `size` into `file` from its current position, pulling rows from `nextRow`
// (top to bottom; a null row stops the encoding), with libjpeg's default DCT. Returns true for
// a complete picture. A stopped encoding returns false with *stopped set; a libjpeg failure
// returns false with one log line "encodeJpegCore: libjpeg failed with: ...".
bool encodeJpeg(RandomAccessFile& file, math::GenVec<int, 2> size,
                const Function0<const unsigned char*>& nextRow, int quality,
                const JpegExtras& extras, bool* stopped);

// The picture size in the header of the JPEG in `file`; (0, 0) when it has no readable header.
// Never throws.
math::GenVec<int, 2> readJpegSize(RandomAccessFile& file);

// The metadata of the JPEG in `file`: its EXIF, IPTC and XMP through readMetadata, with Imagesize
// from the JPEG header. Null when the metadata cannot be read. Never throws.
SharedPtr<Metadata> readJpegMetadata(RandomAccessFile& file);

}  // namespace qor::imageio::detail
