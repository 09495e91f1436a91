// The driver-description functions on fixed strings: no GL context needed.

#include <gtest/gtest.h>

#include <string>

#include "base/Log.h"
#include "gpu/detail/SystemQueries.h"
#include "gpu/gl2/GLCapabilities.h"
#include "gpu/gl2/GLFormats.h"

namespace qor::gpu {
namespace {

using namespace imaging;

TEST(GLCapabilities, ParsesVersionStringsOfRealDrivers) {
    struct Case {
        const char* text;
        int major, minor;
    } cases[] = {
        {"4.5 (Compatibility Profile) Mesa 22.3.6", 4, 5},
        {"2.1.2 NVIDIA 310.44", 2, 1},
        {"3.3.0 - Build 8.15.10.2712", 3, 3},
        {"1.4", 1, 4},
        {"4", 4, 0},
        {"OpenGL ES 3.2 Mesa 22.3.6", 0, 0},  // the first piece is not a number
        {"", 0, 0},
    };
    for (const Case& c : cases) {
        const GLVersion v = parseGLVersion(c.text);
        EXPECT_EQ(v.major, c.major) << c.text;
        EXPECT_EQ(v.minor, c.minor) << c.text;
    }
    EXPECT_TRUE((GLVersion{1, 5}).atLeast(1, 3));
    EXPECT_TRUE((GLVersion{2, 0}).atLeast(1, 5));
    EXPECT_FALSE((GLVersion{1, 4}).atLeast(1, 5));
}

TEST(GLCapabilities, DetectsVendorByWholeWordsIgnoringCase) {
    EXPECT_EQ(detectVendor("NVIDIA Corporation"), VendorNVIDIA);
    EXPECT_EQ(detectVendor("ATI Technologies Inc."), VendorATI);
    EXPECT_EQ(detectVendor("Intel Open Source Technology Center"), VendorIntel);
    EXPECT_EQ(detectVendor("intel"), VendorIntel);
    EXPECT_EQ(detectVendor("Corporation  nViDiA"), VendorNVIDIA);
    EXPECT_EQ(detectVendor("Mesa/X.org"), VendorUnknown);
    EXPECT_EQ(detectVendor("Katie's Graphics"), VendorUnknown);  // "ati" inside a word
    EXPECT_EQ(detectVendor(""), VendorUnknown);
}

TEST(GLCapabilities, FindsOnlyWholeExtensionNames) {
    const std::string list = "GL_ARB_multitexture GL_EXT_framebuffer_object_ext GL_ARB_imaging";
    EXPECT_TRUE(hasGLExtension(list, "GL_ARB_multitexture"));
    EXPECT_TRUE(hasGLExtension(list, "GL_ARB_imaging"));
    EXPECT_FALSE(hasGLExtension(list, "GL_EXT_framebuffer_object"));
    EXPECT_FALSE(hasGLExtension(list, "GL_ARB_multi"));
    EXPECT_FALSE(hasGLExtension(list, "ARB_imaging"));
    EXPECT_FALSE(hasGLExtension(list, ""));
    EXPECT_FALSE(hasGLExtension("", "GL_ARB_imaging"));
}

TEST(GLCapabilities, SystemBitsOfAModernDriver) {
    SystemInfoInput in;
    in.version = {4, 5};
    in.extensions =
        "GL_EXT_framebuffer_object GL_EXT_blend_func_separate GL_ARB_vertex_shader "
        "GL_ARB_fragment_shader GL_EXT_blend_color GL_ARB_texture_non_power_of_two "
        "GL_ARB_half_float_pixel";
    in.osVersionNumber = 6001;
    in.osVersion = "6.1.0";
    const unsigned bits = computeSystemInfoBits(in);
    EXPECT_EQ(bits, SibGL13 | SibFramebufferObject | SibBlendFuncSeparate | SibVertexShader |
                        SibFragmentShader | SibBlendColor | SibFloatFiltering |
                        SibNonPowerOfTwoFloat | SibAlways | SibHalfFloatPixel);
    EXPECT_EQ(bits & 0x400u, 0x400u);  // the framebuffer rule sets both of its bits
}

TEST(GLCapabilities, SystemBitsFollowVersionVendorAndOS) {
    SystemInfoInput intel;
    intel.version = {1, 4};
    intel.vendor = VendorIntel;
    intel.multipleWindowsDefect = true;
    intel.extensions = "GL_ARB_fragment_shader GL_ARB_imaging GL_NV_half_float";
    intel.osVersionNumber = 5001;
    unsigned bits = computeSystemInfoBits(intel);
    EXPECT_EQ(bits, SibGL13 | SibIntel | SibMultipleWindowsDefect | SibAlways | SibIntelOS5 |
                        SibBlendColor | SibHalfFloatPixel);
    EXPECT_FALSE(bits & SibFragmentShader) << "needs GL 1.5";

    intel.osVersionNumber = 6000;
    bits = computeSystemInfoBits(intel);
    EXPECT_EQ(bits & SibIntelOS6, unsigned(SibIntelOS6));
    EXPECT_EQ(bits & 0x1000u, 0u);

    intel.version = {1, 5};
    bits = computeSystemInfoBits(intel);
    EXPECT_EQ(bits & (SibIntelOS5 | SibIntelOS6), 0u);
    EXPECT_TRUE(bits & SibFragmentShader);

    // Float filtering: GL 3, or NVIDIA and ATI with gpu_shader4; never Intel by the extension.
    SystemInfoInput gl2;
    gl2.version = {2, 1};
    gl2.extensions = "GL_EXT_gpu_shader4 GL_ARB_texture_non_power_of_two";
    gl2.vendor = VendorIntel;
    EXPECT_FALSE(computeSystemInfoBits(gl2) & SibFloatFiltering);
    gl2.vendor = VendorNVIDIA;
    EXPECT_TRUE(computeSystemInfoBits(gl2) & SibFloatFiltering);
    EXPECT_TRUE(computeSystemInfoBits(gl2) & SibNonPowerOfTwoFloat);
    gl2.extensions = "GL_ARB_texture_non_power_of_two";
    EXPECT_FALSE(computeSystemInfoBits(gl2) & SibNonPowerOfTwoFloat) << "needs bit 0x40";

    SystemInfoInput ati;
    ati.version = {2, 1};
    ati.vendor = VendorATI;
    ati.osVersionNumber = 5001;
    bits = computeSystemInfoBits(ati);
    EXPECT_TRUE(bits & SibATI);
    EXPECT_TRUE(bits & SibClearNewTextures);
    EXPECT_FALSE(bits & SibNoRGBA16);
    ati.osVersionNumber = 10007;
    ati.osVersion = "10.7.2";
    bits = computeSystemInfoBits(ati);
    EXPECT_FALSE(bits & SibClearNewTextures);
    EXPECT_TRUE(bits & SibNoRGBA16);

    LogCapture log;
    ati.osVersion = "10.7.3";
    computeSystemInfoBits(ati);
    EXPECT_EQ(log.assertions("qor::eos::Environment::getOSVersion() != \"10.7.3\""), 1u);
}

// The OS rules name systems whose drivers had defects (number / 1000 of 5 or 6, "10.7"); Linux is
// none of them, whichever kernel runs: a driver that would match them gets no OS bit here.
TEST(GLCapabilities, TheOSRulesSeeOneLinuxAnswerNotTheKernel) {
    const std::string os = detail::osVersion();
    SystemInfoInput in;
    in.version = {1, 4};
    in.vendor = VendorIntel;
    in.osVersionNumber = detail::osVersionNumber();
    in.osVersion = os;
    EXPECT_EQ(computeSystemInfoBits(in) & (SibIntelOS5 | SibIntelOS6), 0u) << os;
    in.vendor = VendorATI;
    EXPECT_EQ(computeSystemInfoBits(in) & (SibClearNewTextures | SibNoRGBA16), 0u) << os;
}

constexpr unsigned AllRenderCaps = 0x1FFF;

TEST(GLCapabilities, ChooseTextureFormatKeepsWhatTheDriverRenders) {
    for (RawPixelFormat f : {PfRGB8, PfRGBA8, PfBGRA8, PfRGBA16, PfRGBA16F, PfRGBA32F, PfRGB16,
                             PfRGB16F, PfRGB32F, PfRed8, PfRed16, PfRed16F, PfRed32F}) {
        DrawParameters p(MM_OFF, IM_LINEAR, IM_LINEAR);
        EXPECT_EQ(chooseTextureFormatFor(f, p, SibFloatFiltering, AllRenderCaps), f)
            << pixelFormatString(f);
        EXPECT_EQ(p, DrawParameters(MM_OFF, IM_LINEAR, IM_LINEAR)) << pixelFormatString(f);
        EXPECT_TRUE(isRenderableFor(f, AllRenderCaps)) << pixelFormatString(f);
    }
}

TEST(GLCapabilities, ChooseTextureFormatFallsBack) {
    struct Case {
        RawPixelFormat asked;
        unsigned caps;
        RawPixelFormat expected;
    } cases[] = {
        // Nothing but the base bit: the 8-bit formats.
        {PfRGBA16, TcBase, PfRGBA8},
        {PfRGBA16F, TcBase, PfRGBA8},
        {PfRGBA32F, TcBase, PfRGBA8},
        {PfRGB16, TcBase, PfRGB8},
        {PfRGB16F, TcBase, PfRGB8},
        {PfRGB32F, TcBase, PfRGB8},
        {PfRed8, TcBase, PfRGB8},
        {PfRed16, TcBase, PfRGB8},
        {PfRed16F, TcBase, PfRGB8},
        {PfRed32F, TcBase, PfRGB8},
        // Float render targets but no 16-bit integer ones: the float forms.
        {PfRGBA16, TcBase | TcRenderRGBA16F, PfRGBA16F},
        {PfRGB16, TcBase | TcRenderRGB16F, PfRGB16F},
        {PfRed16F, TcBase | TcRenderRGB16F, PfRGB16F},
        {PfRed32F, TcBase | TcRenderRGB32F, PfRGB32F},
        // 16-bit precision without the render test result is not enough.
        {PfRGBA16, TcBase | TcRGBA16Precision, PfRGBA8},
        {PfRed16, TcBase | TcRGBA16Precision | TcRenderRGBA16, PfRGBA16},
        // Red render results without GL_ARB_texture_rg are not used.
        {PfRed8, TcBase | TcRenderR8, PfRGB8},
        {PfRed16F, TcBase | TcRenderR16F | TcRenderRGB16F, PfRGB16F},
    };
    for (const Case& c : cases) {
        DrawParameters p;
        EXPECT_EQ(chooseTextureFormatFor(c.asked, p, SibFloatFiltering, c.caps), c.expected)
            << pixelFormatString(c.asked) << " caps " << c.caps;
    }
}

TEST(GLCapabilities, ChooseTextureFormatRefusesWhatCannotBeMipmapped) {
    LogCapture log;
    DrawParameters p(MM_LINEAR, IM_LINEAR, IM_LINEAR);
    EXPECT_EQ(chooseTextureFormatFor(PfRed8, p, SibFloatFiltering, AllRenderCaps), PfRed8);
    EXPECT_FALSE(p.isMipmapped());
    EXPECT_EQ(log.count("R8 mipmapped textures are not supported."), 1u);
    EXPECT_EQ(log.assertions("!drawParamsIn.isMipmapped()"), 1u);

    p = DrawParameters(MM_NEAREST, IM_LINEAR, IM_LINEAR);
    EXPECT_EQ(chooseTextureFormatFor(PfRed16, p, SibFloatFiltering, AllRenderCaps), PfRed16);
    EXPECT_FALSE(p.isMipmapped());
    EXPECT_EQ(log.count("R16 mipmapped textures are not supported."), 1u);

    log.clear();
    p = DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR);
    EXPECT_EQ(chooseTextureFormatFor(PfRGBA32, p, SibFloatFiltering, AllRenderCaps), PfRGBA8);
    EXPECT_FALSE(p.isMipmapped());
    EXPECT_EQ(log.count("RGB[A]32 format not supported for GPU filtering for the moment."), 1u);
    EXPECT_EQ(log.count("RGB[A]32 mipmapped textures are not supported."), 1u);
    p = DrawParameters();
    EXPECT_EQ(chooseTextureFormatFor(PfRGB32, p, SibFloatFiltering, AllRenderCaps), PfRGB8);
    EXPECT_FALSE(isRenderableFor(PfRGB32, AllRenderCaps));

    log.clear();
    EXPECT_EQ(chooseTextureFormatFor(PfLum8, p, SibFloatFiltering, AllRenderCaps), PfRGBA8);
    EXPECT_EQ(log.assertions("false"), 1u);
}

TEST(GLCapabilities, FloatFormatsWithoutFloatFilteringSampleNearest) {
    LogCapture log;
    DrawParameters p(MM_OFF, IM_LINEAR, IM_LINEAR);
    EXPECT_EQ(chooseTextureFormatFor(PfRGBA16F, p, 0, AllRenderCaps), PfRGBA16F);
    EXPECT_EQ(p, DrawParameters(MM_OFF, IM_NEAREST, IM_NEAREST));

    p = DrawParameters(MM_NEAREST, IM_LINEAR, IM_LINEAR);
    chooseTextureFormatFor(PfRGB32F, p, 0, AllRenderCaps);
    EXPECT_EQ(p, DrawParameters(MM_NEAREST, IM_NEAREST, IM_NEAREST));
    EXPECT_EQ(log.assertions(), 0u);

    p = DrawParameters(MM_LINEAR, IM_LINEAR, IM_NEAREST);
    chooseTextureFormatFor(PfRed32F, p, 0, AllRenderCaps);
    EXPECT_EQ(p, DrawParameters(MM_NEAREST, IM_NEAREST, IM_NEAREST));
    EXPECT_EQ(log.assertions("drawParamsIn.mag == IM_NEAREST && drawParamsIn.min == IM_NEAREST"),
              1u);

    // A 16-bit integer request that falls back to half floats is a float result too.
    p = DrawParameters(MM_OFF, IM_LINEAR, IM_LINEAR);
    EXPECT_EQ(chooseTextureFormatFor(PfRGBA16, p, 0, TcBase | TcRenderRGBA16F), PfRGBA16F);
    EXPECT_EQ(p.min, IM_NEAREST);
    // Integer formats keep their filters.
    p = DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR);
    EXPECT_EQ(chooseTextureFormatFor(PfRGBA16, p, 0, AllRenderCaps), PfRGBA16);
    EXPECT_EQ(p, DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR));
}

TEST(GLCapabilities, RenderableFormatsFollowTheirTestBits) {
    EXPECT_TRUE(isRenderableFor(PfBGRA8, TcBase));
    EXPECT_FALSE(isRenderableFor(PfRGBA16F, TcBase));
    EXPECT_TRUE(isRenderableFor(PfRGBA16F, TcRenderRGBA16F));
    EXPECT_FALSE(isRenderableFor(PfRed16, AllRenderCaps & ~unsigned(TcRenderR16)));
    EXPECT_TRUE(isRenderableFor(PfRed16, TcRenderR16));
}

TEST(GLFormats, TransferFormatsFollowTheFormatWord) {
    EXPECT_EQ(transferFormat<float>(PfChannelR | PfChannelG | PfChannelB), PfRGB32F);
    EXPECT_EQ(transferFormat<half>(PfChannelR), PfRed16F);
    EXPECT_EQ(transferFormat<unsigned short>(PfChannelR | PfChannelG | PfChannelB | PfChannelA),
              PfRGBA16);
    EXPECT_EQ(transferFormat<unsigned char>(PfChannelR | PfChannelG | PfChannelB | PfChannelA |
                                            PfReversed),
              PfBGRA8);
    EXPECT_EQ(transferFormat<unsigned char>(PfChannelL), PfLum8);

    EXPECT_EQ(glPixelFormat(PfBGRA8), GLenum(GL_BGRA));
    EXPECT_EQ(glPixelFormat(PfLum16F), GLenum(GL_LUMINANCE));
    EXPECT_EQ(glPixelType(PfRGBA32), GLenum(GL_UNSIGNED_INT));
    EXPECT_EQ(glPixelType(PfRed16F), GLenum(GL_HALF_FLOAT));
    EXPECT_EQ(glInternalFormat(PfBGRA8), GLenum(GL_RGBA8));
    LogCapture log;
    EXPECT_EQ(glInternalFormat(PfLum8), GLenum(GL_RGB8));
    EXPECT_EQ(glPixelFormat(RawPixelFormat(PfChannelR | PfChannelG | PfkFloat)), GLenum(GL_RGBA));
    EXPECT_EQ(log.assertions("false"), 2u);
}

}  // namespace
}  // namespace qor::gpu
