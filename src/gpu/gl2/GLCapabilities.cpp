#include "gpu/gl2/GLCapabilities.h"

#include "base/Log.h"
#include "text/TextUtils.h"

namespace qor::gpu {

using namespace imaging;

namespace {

bool equalsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = char(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = char(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

bool anyWordIs(std::string_view text, std::string_view word) {
    size_t at = 0;
    while (at < text.size()) {
        while (at < text.size() && text[at] == ' ') ++at;
        size_t end = text.find(' ', at);
        if (end == std::string_view::npos) end = text.size();
        if (end > at && equalsNoCase(text.substr(at, end - at), word)) return true;
        at = end;
    }
    return false;
}

bool all(unsigned bits, unsigned wanted) { return (bits & wanted) == wanted; }

// A mipmapped request for a format that cannot be mipmapped: asserted with `message`, and made
// plain.
void refuseMipmaps(DrawParameters& drawParamsIn, const char* message) {
    QOR_ASSERT_MSG(!drawParamsIn.isMipmapped(), "%*", message);
    drawParamsIn.mipmap = MM_OFF;
}

}  // namespace

GLVersion parseGLVersion(std::string_view version) {
    const size_t space = version.find(' ');
    if (space != std::string_view::npos) version = version.substr(0, space);
    GLVersion v;
    const size_t dot = version.find('.');
    v.major = text::strtoi(version.substr(0, dot), 0);
    if (dot != std::string_view::npos) {
        std::string_view rest = version.substr(dot + 1);
        v.minor = text::strtoi(rest.substr(0, rest.find('.')), 0);
    }
    return v;
}

GLVendor detectVendor(std::string_view vendor) {
    if (anyWordIs(vendor, "intel")) return VendorIntel;
    if (anyWordIs(vendor, "nvidia")) return VendorNVIDIA;
    if (anyWordIs(vendor, "ati")) return VendorATI;
    return VendorUnknown;
}

bool hasGLExtension(std::string_view extensions, std::string_view name) {
    if (name.empty()) return false;
    size_t at = 0;
    while ((at = extensions.find(name, at)) != std::string_view::npos) {
        const bool startsWord = at == 0 || extensions[at - 1] == ' ';
        const size_t end = at + name.size();
        const bool endsWord = end == extensions.size() || extensions[end] == ' ';
        if (startsWord && endsWord) return true;
        at = end;
    }
    return false;
}

unsigned computeSystemInfoBits(const SystemInfoInput& in) {
    auto has = [&](std::string_view name) { return hasGLExtension(in.extensions, name); };
    const bool gl15 = in.version.atLeast(1, 5);
    const bool intel = in.vendor == VendorIntel;
    const bool ati = in.vendor == VendorATI;
    const int osMajor = in.osVersionNumber / 1000;

    unsigned bits = 0;
    if (in.version.atLeast(1, 3)) bits |= SibGL13;
    if (has("GL_EXT_framebuffer_object")) bits |= SibFramebufferObject;
    if (has("GL_EXT_blend_func_separate")) bits |= SibBlendFuncSeparate;
    if (has("GL_ARB_vertex_shader")) bits |= SibVertexShader;
    if (has("GL_ARB_fragment_shader") && gl15) bits |= SibFragmentShader;
    if (has("GL_EXT_blend_color") || has("GL_ARB_imaging")) bits |= SibBlendColor;
    if (in.version.major >= 3 || ((in.vendor == VendorNVIDIA || ati) && has("GL_EXT_gpu_shader4")))
        bits |= SibFloatFiltering;
    if (intel) bits |= SibIntel;
    if (in.multipleWindowsDefect) bits |= SibMultipleWindowsDefect;
    if (has("GL_ARB_texture_non_power_of_two") && (bits & SibFloatFiltering))
        bits |= SibNonPowerOfTwoFloat;
    bits |= SibAlways;
    if (intel && !gl15 && osMajor == 5) bits |= SibIntelOS5;
    if (intel && !gl15 && osMajor == 6) bits |= SibIntelOS6;
    if (ati && osMajor == 5) bits |= SibClearNewTextures;
    if (ati) bits |= SibATI;
    if (ati && in.osVersion.find("10.7") != std::string_view::npos) {
        QOR_ASSERT_TEXT(in.osVersion != "10.7.3",
                        "qor::eos::Environment::getOSVersion() != \"10.7.3\"");
        bits |= SibNoRGBA16;
    }
    if (has("GL_ARB_half_float_pixel") || has("GL_NV_half_float")) bits |= SibHalfFloatPixel;
    return bits;
}

RawPixelFormat chooseTextureFormatFor(RawPixelFormat format, DrawParameters& drawParamsIn,
                                      unsigned systemInfoBits, unsigned tc) {
    RawPixelFormat result = PfRGBA8;
    switch (format) {
        case PfRGB8:
        case PfRGBA8:
        case PfBGRA8:
            result = format;
            break;
        case PfRGBA16:
            result = all(tc, TcRGBA16Precision | TcRenderRGBA16) ? PfRGBA16
                     : all(tc, TcBase | TcRenderRGBA16F)         ? PfRGBA16F
                                                                 : PfRGBA8;
            break;
        case PfRGBA16F:
            result = all(tc, TcBase | TcRenderRGBA16F) ? PfRGBA16F : PfRGBA8;
            break;
        case PfRGBA32F:
            result = all(tc, TcBase | TcRenderRGBA32F) ? PfRGBA32F : PfRGBA8;
            break;
        case PfRGB16:
            result = all(tc, TcRGBA16Precision | TcRenderRGB16) ? PfRGB16
                     : all(tc, TcBase | TcRenderRGB16F)         ? PfRGB16F
                                                                : PfRGB8;
            break;
        case PfRGB16F:
            result = all(tc, TcBase | TcRenderRGB16F) ? PfRGB16F : PfRGB8;
            break;
        case PfRGB32F:
            result = all(tc, TcBase | TcRenderRGB32F) ? PfRGB32F : PfRGB8;
            break;
        case PfRed8:
            if (all(tc, TcTextureRG | TcRenderR8)) {
                refuseMipmaps(drawParamsIn, "R8 mipmapped textures are not supported.");
                result = PfRed8;
            } else {
                result = PfRGB8;
            }
            break;
        case PfRed16:
            if (all(tc, TcTextureRG | TcRenderR16)) {
                refuseMipmaps(drawParamsIn, "R16 mipmapped textures are not supported.");
                result = PfRed16;
            } else {
                result = all(tc, TcRGBA16Precision | TcRenderRGBA16) ? PfRGBA16 : PfRGB8;
            }
            break;
        case PfRed16F:
            result = all(tc, TcTextureRG | TcRenderR16F) ? PfRed16F
                     : all(tc, TcBase | TcRenderRGB16F)  ? PfRGB16F
                                                         : PfRGB8;
            break;
        case PfRed32F:
            result = all(tc, TcTextureRG | TcRenderR32F) ? PfRed32F
                     : all(tc, TcBase | TcRenderRGB32F)  ? PfRGB32F
                                                         : PfRGB8;
            break;
        case PfRGB32:
        case PfRGBA32:
            QOR_ASSERT_MSG(false,
                           "RGB[A]32 format not supported for GPU filtering for the moment.");
            refuseMipmaps(drawParamsIn, "RGB[A]32 mipmapped textures are not supported.");
            result = format == PfRGB32 ? PfRGB8 : PfRGBA8;
            break;
        default:
            QOR_ASSERT(false);
            result = PfRGBA8;
            break;
    }

    if (isFloatFormat(result) && !(systemInfoBits & SibFloatFiltering)) {
        drawParamsIn.min = IM_NEAREST;
        drawParamsIn.mag = IM_NEAREST;
        if (drawParamsIn.mipmap != MM_OFF && drawParamsIn.mipmap != MM_NEAREST) {
            // Linear filtering inside a level cannot be had on float textures here.
            QOR_ASSERT_TEXT(false,
                            "drawParamsIn.mag == IM_NEAREST && drawParamsIn.min == IM_NEAREST");
            drawParamsIn.mipmap = MM_NEAREST;
        }
    }
    return result;
}

bool isRenderableFor(RawPixelFormat format, unsigned tc) {
    switch (format) {
        case PfRGBA8:
        case PfRGB8:
        case PfBGRA8:
            return true;
        case PfRGBA16F:
            return (tc & TcRenderRGBA16F) != 0;
        case PfRGBA32F:
            return (tc & TcRenderRGBA32F) != 0;
        case PfRGB16F:
            return (tc & TcRenderRGB16F) != 0;
        case PfRGB32F:
            return (tc & TcRenderRGB32F) != 0;
        case PfRGBA16:
            return (tc & TcRenderRGBA16) != 0;
        case PfRGB16:
            return (tc & TcRenderRGB16) != 0;
        case PfRed16F:
            return (tc & TcRenderR16F) != 0;
        case PfRed32F:
            return (tc & TcRenderR32F) != 0;
        case PfRed8:
            return (tc & TcRenderR8) != 0;
        case PfRed16:
            return (tc & TcRenderR16) != 0;
        case PfRGB32:
        case PfRGBA32:
            QOR_ASSERT_MSG(false,
                           "RGB[A]32 format not supported for GPU filtering for the moment.");
            return false;
        default:
            QOR_ASSERT(false);
            return false;
    }
}

bool mipmapsByDriverFor(RawPixelFormat format, unsigned systemInfoBits, unsigned tc) {
    if (isFloatFormat(format) && !(systemInfoBits & SibFloatFiltering)) return false;
    return isRenderableFor(format, tc);
}

}  // namespace qor::gpu
