#include <epoxy/egl.h>
#include <gtest/gtest.h>

#include <string>

#include "GPUTestSupport.h"
#include "base/Md5Stream.h"
#include "gpu/gl2/TextureGL.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageStorageManager.h"

namespace qor::gpu {
namespace {

using namespace imaging;
using test::RendererTest;

std::string glString(GLenum name) {
    const GLubyte* s = glGetString(name);
    return s ? reinterpret_cast<const char*>(s) : "";
}

bool onLlvmpipe() { return glString(GL_RENDERER).find("llvmpipe") != std::string::npos; }

TEST(RendererLoad, LoadsTheHeadlessContextReportsAndUnloads) {
    QOR_REQUIRE_GL();
    LogCapture log;
    ASSERT_TRUE(loadRenderer());
    auto* r = dynamic_cast<RendererGL*>(renderer().get());
    ASSERT_TRUE(r);
    EXPECT_EQ(r->context(), eglGetCurrentContext());
    EXPECT_TRUE(log.contains("Initialized OpenGL-Renderer sucessfully:"));
    EXPECT_TRUE(log.contains("Version: " + glString(GL_VERSION)));
    EXPECT_TRUE(log.contains("Detected version major = " + std::to_string(r->glMajor()) +
                             " minor = " + std::to_string(r->glMinor())));
    EXPECT_TRUE(log.contains("detected vendor identifier: "));
    EXPECT_TRUE(log.contains("GL_ARB_framebuffer_object = "));
    EXPECT_TRUE(log.contains("Calling 'qor::gpu::loadRenderer():registerTextureImageFormat'"));
    // Both bit sets, each bit on a line of its own.
    const auto entries = log.entries();
    auto expectBitLines = [&](const std::string& title, unsigned bits) {
        size_t at = 0;
        while (at < entries.size() && entries[at].text != title) ++at;
        ASSERT_LT(at + 32, entries.size()) << title;
        for (unsigned b = 0; b < 32; ++b)
            EXPECT_EQ(entries[at + 1 + b].text,
                      "bit " + std::to_string(b) + " is " + ((bits >> b) & 1 ? "ON " : "OFF "));
    };
    expectBitLines("***** System information bits ***", r->systemInfoBits());
    expectBitLines("***** Texture capabilities ***", r->textureCapabilities());
    EXPECT_EQ(log.assertions(), 0u);

    // A second load keeps the first renderer.
    EXPECT_TRUE(loadRenderer());
    EXPECT_EQ(log.assertions("!s_renderer"), 1u);
    EXPECT_EQ(renderer().get(), r);

    unloadRenderer();
    EXPECT_FALSE(renderer());
    EXPECT_TRUE(log.contains("glwShutdown()"));
    ASSERT_TRUE(loadRenderer());
    EXPECT_TRUE(renderer());
    unloadRenderer();
}

TEST(RendererLoad, FailsWithoutACurrentContextAndLeavesNoRenderer) {
    QOR_REQUIRE_GL();
    auto* ctx = test::GLTestContext::obtain();
    ASSERT_TRUE(eglMakeCurrent(ctx->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT));
    LogCapture log;
    EXPECT_FALSE(loadRenderer());
    EXPECT_FALSE(renderer());
    EXPECT_TRUE(log.contains("Failed to load GL renderer: "));
    EXPECT_EQ(log.assertions("_context != 0"), 1u);
    ASSERT_TRUE(test::GLTestContext::obtain());
    ASSERT_TRUE(loadRenderer());
    unloadRenderer();
}

TEST(RendererLoad, SettingsChangeOnlyWithoutRenderer) {
    QOR_REQUIRE_GL();
    LogCapture log;
    Renderer::enableTextureCache(false);
    Renderer::enforceReadbackAfterTextureDataUpload(true);
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_TRUE(log.contains("Renderer::enableTextureCache(0)"));
    EXPECT_TRUE(log.contains("Renderer::enforceReadbackAfterTextureDataUpload(1)"));
    EXPECT_FALSE(Renderer::isTextureCacheEnabled());
    EXPECT_TRUE(Renderer::isReadbackAfterTextureDataUploadEnforced());

    ASSERT_TRUE(loadRenderer());
    Renderer::enableTextureCache(true);
    Renderer::enforceReadbackAfterTextureDataUpload(false);
    EXPECT_EQ(log.assertions("!s_renderer"), 2u);
    unloadRenderer();
    Renderer::enableTextureCache(true);
    Renderer::enforceReadbackAfterTextureDataUpload(false);
}

TEST(RendererSearchPaths, KeepsOrderAndRefusesOverlongPaths) {
    LogCapture log;
    Renderer::setSearchPath("/opt/shaders");
    EXPECT_EQ(Renderer::searchPath(), "/opt/shaders");
    Renderer::addSearchPath("/usr/share/qor");
    EXPECT_EQ(Renderer::searchPaths(),
              (std::vector<std::string>{"/opt/shaders", "/usr/share/qor"}));
    Renderer::addSearchPath(std::string(1000, 'x'));
    EXPECT_EQ(log.assertions("path.length() < 1000"), 1u);
    EXPECT_EQ(Renderer::searchPaths().size(), 2u);
    Renderer::setSearchPaths({"a", std::string(999, 'y'), "b"});
    EXPECT_EQ(Renderer::searchPaths().size(), 3u);
    EXPECT_EQ(Renderer::searchPath(), "a");
    Renderer::setSearchPaths({});
    EXPECT_EQ(Renderer::searchPath(), "");
}

using RendererGLTest = RendererTest;

TEST_F(RendererGLTest, ReadsTheDriverItRunsOn) {
    const GLVersion v = parseGLVersion(glString(GL_VERSION));
    EXPECT_EQ(_renderer->glMajor(), v.major);
    EXPECT_EQ(_renderer->glMinor(), v.minor);
    EXPECT_GE(_renderer->glMajor(), 2);
    EXPECT_EQ(_renderer->vendor(), detectVendor(glString(GL_VENDOR)));
    EXPECT_TRUE(_renderer->hasExtension("GL_ARB_texture_non_power_of_two"));
    EXPECT_FALSE(_renderer->hasExtension("GL_QOR_no_such_extension"));
    GLint mts = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &mts);
    EXPECT_EQ(_renderer->maxTextureSize(), Vec2i(mts, mts));
    EXPECT_TRUE(_renderer->supportsNonPowerOfTwo());
    EXPECT_TRUE(_renderer->hasFBO());
    EXPECT_TRUE(_renderer->isValidRenderThread());
    EXPECT_NE(_renderer->glslVersion(), "");
}

TEST_F(RendererGLTest, CapabilityBitsOnTheHeadlessDriver) {
    const unsigned sys = _renderer->systemInfoBits();
    EXPECT_TRUE(sys & SibAlways);
    EXPECT_TRUE(sys & SibGL13);
    EXPECT_EQ(bool(sys & SibFloatFiltering), _renderer->glMajor() >= 3);
    EXPECT_EQ(bool(sys & SibFramebufferObject),
              _renderer->hasExtension("GL_EXT_framebuffer_object"));
    const unsigned tex = _renderer->textureCapabilities();
    EXPECT_TRUE(tex & TcBase);
    EXPECT_EQ(bool(tex & TcTextureRG), _renderer->hasExtension("GL_ARB_texture_rg"));
    if (onLlvmpipe()) {
        // llvmpipe keeps 16 bits in GL_RGBA16 and renders into every format tested.
        EXPECT_EQ(tex, 0x1FFFu);
        EXPECT_FALSE(_renderer->memoryInfo().known);
    }
    // The render test and isRenderable agree, format by format.
    EXPECT_EQ(_renderer->isRenderable(PfRGBA16F), _renderer->checkFBOBind(GL_RGBA16F));
    EXPECT_EQ(_renderer->isRenderable(PfRed8), _renderer->checkFBOBind(GL_R8));
    EXPECT_TRUE(_renderer->isRenderable(PfBGRA8));
}

TEST_F(RendererGLTest, RenderTestRefusesWhatCannotBeMade) {
    LogCapture log;
    // Not a colour format: the proxy refuses, or the framebuffer is not complete.
    EXPECT_FALSE(_renderer->checkFBOBind(GL_DEPTH_COMPONENT24));
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    EXPECT_TRUE(_renderer->checkFBOBind(GL_RGBA8));
}

TEST_F(RendererGLTest, UniqueIdNamesTheDriverSetup) {
    const std::string id = _renderer->uniqueId().c_str();
    ASSERT_EQ(id.size(), 11u + 32u) << id;
    EXPECT_EQ(id.substr(0, 11), "RendererGL_");
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef", 11), std::string::npos) << id;
    const Digest digest =
        Md5Stream::of(glString(GL_VERSION) + glString(GL_RENDERER) + _renderer->extensions());
    EXPECT_EQ(id, "RendererGL_" + digest.toHex());
    // The same driver gives the same id after a reload.
    LogCapture quiet;
    unloadRenderer();
    ASSERT_TRUE(loadRenderer());
    _renderer = dynamic_cast<RendererGL*>(renderer().get());
    EXPECT_EQ(std::string(_renderer->uniqueId().c_str()), id);
}

TEST_F(RendererGLTest, ChoosesFormatsTheDriverRenders) {
    DrawParameters p(MM_OFF, IM_LINEAR, IM_LINEAR);
    for (RawPixelFormat f : {PfRGBA16, PfRGB16, PfRed16, PfRed8, PfRGBA32F}) {
        const RawPixelFormat chosen = _renderer->chooseTextureFormat(f, p);
        EXPECT_TRUE(_renderer->isRenderable(chosen)) << pixelFormatString(f);
        if (_renderer->isRenderable(f)) {
            EXPECT_EQ(chosen, f) << pixelFormatString(f);
        }
    }
}

TEST_F(RendererGLTest, TellsTheImageLayerTheLargestTexture) {
    const Vec2i saved = ImageSource::getGPUPreferredTileSize();
    const int beyond = _renderer->maxTextureSize().x * 2;
    ImageSource::setGPUPreferredTileSize(Vec2i(beyond, 64));
    EXPECT_EQ(ImageSource::getGPUPreferredTileSize(), Vec2i(_renderer->maxTextureSize().x, 64));
    {
        LogCapture quiet;
        unloadRenderer();
        _renderer = nullptr;
    }
    EXPECT_EQ(ImageSource::getGPUPreferredTileSize(), Vec2i(beyond, 64));
    ImageSource::setGPUPreferredTileSize(saved);
    EXPECT_EQ(ImageStorageManager::instance()->memoryLimit(SaGPU), ImageStorageManager::NoLimit);
}

TEST_F(RendererGLTest, TexturesOverTheLargestSizeAreRefused) {
    LogCapture log;
    const Vec2i tooWide(_renderer->maxTextureSize().x + 1, 4);
    EXPECT_THROW(_renderer->createTexture(tooWide, PfRGBA8, DrawParameters()), std::bad_alloc);
    EXPECT_EQ(log.assertions("size.x <= _maxTextureSize.x && size.y <= _maxTextureSize.y"), 1u);
    EXPECT_TRUE(log.contains("std::bad_alloc(): Proxy texture test failed (requested size (" +
                             std::to_string(tooWide.x) + ",4))!"));
}

}  // namespace
}  // namespace qor::gpu
