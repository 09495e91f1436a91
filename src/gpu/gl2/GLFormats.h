#pragma once
// The mapping of pixel formats to OpenGL: the internal format a texture of each format is made in,
// and the format and type of pixel transfers. Any thread (no GL call).
//
//   RawPixelFormat   internal      format    type
//   Red8             GL_R8         GL_RED    GL_UNSIGNED_BYTE
//   Red16            GL_R16        GL_RED    GL_UNSIGNED_SHORT
//   Red16F           GL_R16F       GL_RED    GL_HALF_FLOAT
//   Red32F           GL_R32F       GL_RED    GL_FLOAT
//   RGB8             GL_RGB8       GL_RGB    GL_UNSIGNED_BYTE
//   RGB16            GL_RGB16      GL_RGB    GL_UNSIGNED_SHORT
//   RGB16F           GL_RGB16F     GL_RGB    GL_HALF_FLOAT
//   RGB32F           GL_RGB32F     GL_RGB    GL_FLOAT
//   RGBA8            GL_RGBA8      GL_RGBA   GL_UNSIGNED_BYTE
//   BGRA8            GL_RGBA8      GL_BGRA   GL_UNSIGNED_BYTE
//   RGBA16           GL_RGBA16     GL_RGBA   GL_UNSIGNED_SHORT
//   RGBA16F          GL_RGBA16F    GL_RGBA   GL_HALF_FLOAT
//   RGBA32F          GL_RGBA32F    GL_RGBA   GL_FLOAT

#include <epoxy/gl.h>

#include <cstdint>
#include <type_traits>

#include "imaging/GenImageData.h"
#include "imaging/PixelFormat.h"

namespace qor::gpu {

// The internal format of the table; any other format asserts "false" and gives GL_RGB8.
GLenum glInternalFormat(imaging::RawPixelFormat format);
// The transfer format, from the channel bits: R alone GL_RED, RGB GL_RGB, RGBA GL_RGBA (GL_BGRA
// when reversed), L GL_LUMINANCE, A GL_ALPHA. Any other asserts "false" and gives GL_RGBA.
GLenum glPixelFormat(imaging::RawPixelFormat format);
// The transfer type, from the sample depth and kind: 8, 16 and 32-bit unsigned as GL_UNSIGNED_BYTE,
// GL_UNSIGNED_SHORT, GL_UNSIGNED_INT; 16 and 32-bit float as GL_HALF_FLOAT, GL_FLOAT. Any other
// asserts "false" and gives GL_UNSIGNED_BYTE.
GLenum glPixelType(imaging::RawPixelFormat format);

// The pixel format of samples of type T (float, half, 16 or 8-bit unsigned) in the channel
// letters `letters` (PfChannel* bits, with PfReversed for BGRA): the format of a typed transfer.
template <class T>
constexpr imaging::RawPixelFormat transferFormat(std::uint32_t letters) {
    unsigned channels = 0;
    for (std::uint32_t bit = imaging::PfChannelR; bit <= imaging::PfChannelL; bit <<= 1)
        channels += (letters & bit) ? 1 : 0;
    const std::uint32_t kind = std::is_floating_point_v<T> || std::is_same_v<T, imaging::half>
                                   ? imaging::PfkFloat
                                   : imaging::PfkUnsigned;
    return imaging::RawPixelFormat(kind | (std::uint32_t(sizeof(T) * 8) << 4) | (channels << 12) |
                                   letters);
}

}  // namespace qor::gpu
