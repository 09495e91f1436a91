#pragma once
// The pixel format word and its queries.
//
// A RawPixelFormat value is a packed description of a format, not a running number; every
// property is read from its bits, so the queries are bit operations fit for pixel loops:
//   bits 0-3    sample kind: 1 unsigned integer, 2 floating point
//   bits 4-11   bits per sample (8, 16, 32); bits 7-11 read the same field as bytes per sample
//   bits 12-14  channels per pixel, 1 to 4
//   bits 15-19  channel letters present: R, G, B, A, L
//   bit 20      channels stored in reverse of the letter order (only PfBGRA8)

#include <cstdint>

#include "text/FastString.h"

namespace qor::imaging {

enum RawPixelFormat : std::uint32_t {
    PfInvalid = 0,
    PfRed8 = 0x9081,
    PfRed16 = 0x9101,
    PfRed16F = 0x9102,
    PfRed32 = 0x9201,
    PfRed32F = 0x9202,
    PfRGB8 = 0x3B081,
    PfRGB16 = 0x3B101,
    PfRGB16F = 0x3B102,
    PfRGB32 = 0x3B201,
    PfRGB32F = 0x3B202,
    PfAlpha8 = 0x41081,
    PfAlpha16 = 0x41101,
    PfAlpha32 = 0x41201,
    PfAlpha32F = 0x41202,
    PfRGBA8 = 0x7C081,
    PfRGBA16 = 0x7C101,
    PfRGBA16F = 0x7C102,
    PfRGBA32 = 0x7C201,
    PfRGBA32F = 0x7C202,
    PfBGRA8 = 0x17C081,
    PfLum8 = 0x81081,
    PfLum16 = 0x81101,
    PfLum16F = 0x81102,
    PfLum32 = 0x81201,
    PfLum32F = 0x81202,
};

enum PixelFormatKind : unsigned { PfkUnsigned = 1, PfkFloat = 2 };

enum PixelFormatChannelBits : std::uint32_t {
    PfChannelR = 0x8000,
    PfChannelG = 0x10000,
    PfChannelB = 0x20000,
    PfChannelA = 0x40000,
    PfChannelL = 0x80000,
    PfReversed = 0x100000,
};

// Sample kind: 1 unsigned integer, 2 floating point, anything else unknown.
constexpr unsigned pixelFormatKind(RawPixelFormat pf) { return pf & 0xF; }
constexpr unsigned getBitsPerChannel(RawPixelFormat pf) { return (pf >> 4) & 0xFF; }
constexpr unsigned getBytesPerChannel(RawPixelFormat pf) { return (pf >> 7) & 31; }
constexpr unsigned getChannelCount(RawPixelFormat pf) { return (pf >> 12) & 7; }
// Bytes of one pixel, with no check: PfInvalid gives 0.
constexpr unsigned getBytesPerPixel(RawPixelFormat pf) {
    return ((pf >> 7) & 31) * ((pf >> 12) & 7);
}
constexpr bool isFloatFormat(RawPixelFormat pf) { return pixelFormatKind(pf) == PfkFloat; }
constexpr bool hasAlpha(RawPixelFormat pf) { return (std::uint32_t(pf) & PfChannelA) != 0; }
constexpr bool isReversed(RawPixelFormat pf) { return (std::uint32_t(pf) & PfReversed) != 0; }

// True for the twenty formats that processor storage holds (all but the Alpha family and Red32).
constexpr bool isStorageFormat(RawPixelFormat pf) {
    switch (pf) {
        case PfLum8: case PfLum16: case PfLum32: case PfLum16F: case PfLum32F:
        case PfRGB8: case PfRGB16: case PfRGB32: case PfRGB16F: case PfRGB32F:
        case PfRGBA8: case PfRGBA16: case PfRGBA32: case PfRGBA16F: case PfRGBA32F:
        case PfBGRA8: case PfRed8: case PfRed16: case PfRed16F: case PfRed32F:
            return true;
        default:
            return false;
    }
}

// The format's name: channel letters (walked backwards for a reversed format), bits per sample,
// then 'u' for unsigned, 'f' for float, '?' otherwise. PfBGRA8 prints as "ABGR8u".
FastString<char> pixelFormatString(RawPixelFormat pf);

// Whether converting source to dest loses nothing, by the fixed rules of the format word (16-bit
// float to 8-bit unsigned counts as lossless; 8-bit unsigned to 16-bit float does not).
bool losslessConversionPossible(RawPixelFormat source, RawPixelFormat dest);

// Row length in samples (not bytes) of a pixel buffer; callers pass an alignment of 32.
unsigned int computeStride(int width, unsigned int bytesPerChannel, unsigned int channels,
                           int alignment);

}  // namespace qor::imaging
