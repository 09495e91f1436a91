#pragma once
// What a GL driver offers, worked out from its strings and the results of its tests: version and
// vendor parsing, extension lookup, the system information bits and the texture capability bits,
// and the texture format choice that follows from them. Pure functions of their arguments, so
// that RendererGL and tests share them; any thread.

#include <string>
#include <string_view>

#include "imaging/DrawParameters.h"
#include "imaging/PixelFormat.h"

namespace qor::gpu {

struct GLVersion {
    int major = 0;
    int minor = 0;

    bool atLeast(int ma, int mi) const { return major > ma || (major == ma && minor >= mi); }
};

// GL_VERSION cut at the first space and at the dots; the first two pieces as numbers (0 where a
// piece is missing or not a number). "4.5 (Compatibility Profile) Mesa 22.3.6" gives 4.5.
GLVersion parseGLVersion(std::string_view version);

enum GLVendor : int {
    VendorUnknown = 0,
    VendorNVIDIA = 1,
    VendorATI = 2,
    VendorIntel = 3,
};

// GL_VENDOR split into words, each compared without case with "intel", then "nvidia", then "ati".
GLVendor detectVendor(std::string_view vendor);

// Whether `name` is one of the space-separated names of `extensions` (whole names only).
bool hasGLExtension(std::string_view extensions, std::string_view name);

// System information bits.
enum SystemInfoBits : unsigned {
    SibGL13 = 0x1,
    SibFramebufferObject = 0x2 | 0x400,
    SibBlendFuncSeparate = 0x4,
    SibVertexShader = 0x8,
    SibFragmentShader = 0x10,
    SibBlendColor = 0x20,
    SibFloatFiltering = 0x40,  // float textures can be filtered
    SibMultipleWindowsDefect = 0x80,
    SibNonPowerOfTwoFloat = 0x100,
    SibAlways = 0x200,
    SibNoRGBA16 = 0x800,  // part of several rules below; 16-bit RGBA is not tested
    SibIntelOS5 = 0x1800,
    SibHalfFloatPixel = 0x2000,
    SibClearNewTextures = 0x4000,
    SibATI = 0x8000,
    SibIntel = 0x10000,
    SibIntelOS6 = 0x20800,
};

// Texture capability bits: 0x1 always, 0x2 and 0x4 from the driver, the rest from render tests.
enum TextureCapabilityBits : unsigned {
    TcBase = 0x1,
    TcRGBA16Precision = 0x2,  // a GL_RGBA16 texture keeps 16 bits per channel
    TcTextureRG = 0x4,        // GL_ARB_texture_rg
    TcRenderRGBA16F = 0x8,
    TcRenderRGBA32F = 0x10,
    TcRenderRGB16F = 0x20,
    TcRenderRGB32F = 0x40,
    TcRenderRGBA16 = 0x80,
    TcRenderRGB16 = 0x100,
    TcRenderR16F = 0x200,
    TcRenderR32F = 0x400,
    TcRenderR8 = 0x800,
    TcRenderR16 = 0x1000,
};

// What the system bits are computed from.
struct SystemInfoInput {
    GLVersion version;
    GLVendor vendor = VendorUnknown;
    std::string_view extensions;
    bool multipleWindowsDefect = false;
    int osVersionNumber = 0;     // OS version, major in thousands
    std::string_view osVersion;  // the same as text, "6.1.0"
};

unsigned computeSystemInfoBits(const SystemInfoInput& in);

// The format a texture asked for in `format` is made in, given what the driver offers; may force
// nearest filtering and switch mipmapping off where the format requires it (asserted for the
// formats that cannot be mipmapped). See RendererGL::chooseTextureFormat.
imaging::RawPixelFormat chooseTextureFormatFor(imaging::RawPixelFormat format,
                                               imaging::DrawParameters& drawParamsIn,
                                               unsigned systemInfoBits,
                                               unsigned textureCapabilities);

// Whether a render target of `format` works, by the capability bits, without fallback.
bool isRenderableFor(imaging::RawPixelFormat format, unsigned textureCapabilities);

// Whether the driver builds the mipmap levels of a texture of `format` (glGenerateMipmap renders
// them): a format it renders into, and for floats one it can also filter (system bit 0x40). The
// levels of the others are built on the processor.
bool mipmapsByDriverFor(imaging::RawPixelFormat format, unsigned systemInfoBits,
                        unsigned textureCapabilities);

}  // namespace qor::gpu
