#include "gpu/gl2/GLFormats.h"

#include "base/Log.h"

namespace qor::gpu {

using namespace imaging;

namespace {
constexpr std::uint32_t LetterMask =
    PfChannelR | PfChannelG | PfChannelB | PfChannelA | PfChannelL | PfReversed;
}  // namespace

GLenum glInternalFormat(RawPixelFormat format) {
    switch (format) {
        case PfRed8:
            return GL_R8;
        case PfRed16:
            return GL_R16;
        case PfRed16F:
            return GL_R16F;
        case PfRed32F:
            return GL_R32F;
        case PfRGB8:
            return GL_RGB8;
        case PfRGB16:
            return GL_RGB16;
        case PfRGB16F:
            return GL_RGB16F;
        case PfRGB32F:
            return GL_RGB32F;
        case PfRGBA8:
        case PfBGRA8:
            return GL_RGBA8;
        case PfRGBA16:
            return GL_RGBA16;
        case PfRGBA16F:
            return GL_RGBA16F;
        case PfRGBA32F:
            return GL_RGBA32F;
        default:
            QOR_ASSERT(false);
            return GL_RGB8;
    }
}

GLenum glPixelFormat(RawPixelFormat format) {
    switch (std::uint32_t(format) & LetterMask) {
        case PfChannelR:
            return GL_RED;
        case PfChannelR | PfChannelG | PfChannelB:
            return GL_RGB;
        case PfChannelR | PfChannelG | PfChannelB | PfChannelA:
            return GL_RGBA;
        case PfChannelR | PfChannelG | PfChannelB | PfChannelA | PfReversed:
            return GL_BGRA;
        case PfChannelL:
            return GL_LUMINANCE;
        case PfChannelA:
            return GL_ALPHA;
        default:
            QOR_ASSERT(false);
            return GL_RGBA;
    }
}

GLenum glPixelType(RawPixelFormat format) {
    const unsigned bits = getBitsPerChannel(format);
    switch (pixelFormatKind(format)) {
        case PfkUnsigned:
            if (bits == 8) return GL_UNSIGNED_BYTE;
            if (bits == 16) return GL_UNSIGNED_SHORT;
            if (bits == 32) return GL_UNSIGNED_INT;
            break;
        case PfkFloat:
            if (bits == 16) return GL_HALF_FLOAT;
            if (bits == 32) return GL_FLOAT;
            break;
        default:
            break;
    }
    QOR_ASSERT(false);
    return GL_UNSIGNED_BYTE;
}

}  // namespace qor::gpu
