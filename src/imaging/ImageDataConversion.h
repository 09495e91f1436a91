#pragma once
// Pixel conversion between the twenty storage formats.
//
// Values, per component (unsigned maxima: 255, 65535, 4294967295; float and half are 0 to 1):
//   8-bit  -> float/half  v * (1 / 255), in single precision
//   16-bit -> float/half  v * (1 / 65535), in single precision
//   32-bit -> float/half  v * 2^-32 (exact in double, then rounded to float once), so the top
//                         value lies a hair under 1.0 before that rounding
//   float/half -> 8-bit   clamp to [0, 1] (NaN gives 0), * 255 + 0.5, truncated
//   float/half -> 16-bit  clamp, * 65535 + 0.5, truncated
//   float/half -> 32-bit  clamp, * 4294967295.0 in double + 0.5, truncated
//   half <-> float        exact widening; float to half rounds to nearest even
//   unsigned widening     exact replication: 8->16 v * 257, 8->32 v * 16843009, 16->32 v * 65537
//   unsigned narrowing    floor(v * maxTarget / maxSource), i.e. v / 257, v / 16843009 and
//                         v / 65537. For 16 to 8 bits this is, for every value, what
//                         (v * (1 / 65535.0)) * 255 truncated gives in double precision; there is
//                         no rounding half up on these paths. Widening then narrowing gives back
//                         the original value.
//   same element type     copied.
// Any 8-bit pattern survives a round trip through every format with at least 8 bits per channel.
//
// Channels:
//   Lum or Red -> RGB, RGBA, BGRA   the value goes to R, G and B.
//   RGB(A)/BGRA -> Lum              Rec. 709: 0.2126 R + 0.7152 G + 0.0722 B, computed in the
//                                   source's scale (float; double for 32-bit sources), rounded to
//                                   nearest for unsigned sources, then converted by the rules above.
//   RGB(A)/BGRA -> Red              takes R.
//   Lum <-> Red                     the value is copied.
//   no alpha -> alpha               opaque: the target's maximum, 1.0 for float and half.
//   alpha -> no alpha               dropped.
//   BGRA8 holds bytes B, G, R, A in memory; to and from the RGB families the order is swapped.

#include "imaging/PixelFormat.h"

namespace qor::imaging {

// Size and layout of one block of pixels. `stride` is the row length in components, not bytes.
struct ImageDataFeature {
    int width = 0;
    int height = 0;
    unsigned stride = 0;
    RawPixelFormat format = PfInvalid;

    ImageDataFeature() = default;
    // A stride of 0 takes computeStride(width, bytes per channel, channels, 32).
    ImageDataFeature(int width, int height, unsigned stride, RawPixelFormat format);
};

// Converts pixels between the storage formats (isStorageFormat). Stateless; thread-safe as long as
// the destination pixels are not shared with another thread during the call.
class ImageDataConversion {
public:
    // Converts width x height pixels of src into dst, row by row, touching no destination byte
    // past width * channels in a row (the padding up to the stride stays as it was). The blocks
    // must not overlap. Returns false after a logged assertion when the sizes differ, a pointer is
    // null, a stride is shorter than a row or a size is not positive, and false after an error line
    // when a format is not a storage format. A dst.stride of 0 is filled in by computeStride.
    // Blocks for the length of the copy; never throws.
    static bool convert(ImageDataFeature& dst, void* dstPixels, const ImageDataFeature& src,
                        const void* srcPixels);
};

}  // namespace qor::imaging
