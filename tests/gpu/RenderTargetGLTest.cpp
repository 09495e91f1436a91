#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include <epoxy/egl.h>

#include <vector>

#include "GLTestContext.h"
#include "GPUTestSupport.h"
#include "gpu/Drawer.h"
#include "gpu/RenderTarget.h"
#include "gpu/gl2/FramebufferObject.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/RenderTargetGL.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {
namespace {

using namespace imaging;
using RenderTargetGLTest = test::RendererTest;

// A pattern that uses the whole range of T, different in every channel and pixel.
template <class T>
T sample(int x, int y, int c) {
    const int v = x * 29 + y * 13 + c * 5;
    if constexpr (std::is_same_v<T, unsigned char>) return T(v & 255);
    if constexpr (std::is_same_v<T, unsigned short>) return T((v * 263 + y) & 0xFFFF);
    if constexpr (std::is_same_v<T, half>) return half(float(v % 89) / 8.0f - 4.0f);
    if constexpr (std::is_same_v<T, float>) return float(v % 997) / 3.0f - 100.0f;
}

template <class T, int N>
SharedPtr<GenImageData<T, N>> pattern(int w, int h) {
    auto data = GenImageData<T, N>::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < N; ++c) data->at(x, y, c) = sample<T>(x, y, c);
    return data;
}

// The largest difference between `rect` of `whole` and the origin of `part`.
template <class T, int N>
double differenceFromRect(const GenImageData<T, N>& whole, const Recti& rect,
                          const GenImageData<T, N>& part) {
    double worst = 0;
    for (int y = 0; y < rect.height(); ++y)
        for (int x = 0; x < rect.width(); ++x)
            for (int c = 0; c < N; ++c)
                worst = std::max(
                    worst, std::fabs(double(float(whole.at(rect.xmin() + x, rect.ymin() + y, c))) -
                                     double(float(part.at(x, y, c)))));
    return worst;
}

SharedPtr<TextureTarget> makeTarget(Renderer& r, const Vec2i& size, RawPixelFormat format) {
    auto target = r.createTextureTarget(size, format);
    EXPECT_TRUE(target);
    return target;
}

void renderClear(TextureTarget& target, float r, float g, float b, float a) {
    SharedPtr<Drawer> drawer = target.beginRender();
    drawer->clear(r, g, b, a);
    target.finishRender(drawer);
}

TEST_F(RenderTargetGLTest, SixteenConfigurationsEvictTheLeastRecentlyUsedFramebuffer) {
    LogCapture log;
    const GLenum rgba8 = glInternalFormat(PfRGBA8);
    std::vector<SharedPtr<TextureTarget>> targets;
    for (int i = 0; i < 15; ++i) {
        targets.push_back(makeTarget(*_renderer, Vec2i(8 + i, 8), PfRGBA8));
        renderClear(*targets.back(), 0, 0, 0, 1);
    }
    EXPECT_EQ(FramebufferObject::poolSize(), 15u);
    const auto first = FramebufferObject::pooled(Vec2i(8, 8), rgba8, GL_TEXTURE_2D);
    ASSERT_TRUE(first);

    // Another texture of the first configuration reuses its object and makes it the most recent.
    auto again = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA8);
    renderClear(*again, 1, 1, 1, 1);
    EXPECT_EQ(FramebufferObject::pooled(Vec2i(8, 8), rgba8, GL_TEXTURE_2D), first);
    EXPECT_EQ(FramebufferObject::poolSize(), 15u);

    // The sixteenth configuration evicts the least recently used one: the second.
    auto sixteenth = makeTarget(*_renderer, Vec2i(40, 8), PfRGBA8);
    renderClear(*sixteenth, 0, 1, 0, 1);
    EXPECT_EQ(FramebufferObject::poolSize(), 15u);
    EXPECT_FALSE(FramebufferObject::pooled(Vec2i(9, 8), rgba8, GL_TEXTURE_2D));
    EXPECT_EQ(FramebufferObject::pooled(Vec2i(8, 8), rgba8, GL_TEXTURE_2D), first);
    EXPECT_TRUE(FramebufferObject::pooled(Vec2i(40, 8), rgba8, GL_TEXTURE_2D));
    // Another format is another configuration.
    auto other = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA32F);
    renderClear(*other, 0, 1, 0, 1);
    EXPECT_FALSE(FramebufferObject::pooled(Vec2i(10, 8), rgba8, GL_TEXTURE_2D));
    EXPECT_NE(FramebufferObject::pooled(Vec2i(8, 8), glInternalFormat(PfRGBA32F), GL_TEXTURE_2D),
              first);

    // Nothing stays attached or bound after a render, and each target still holds its pixels.
    EXPECT_FALSE(FramebufferObject::getBoundFBO(FBO_Bind_Draw) &&
                 FramebufferObject::getBoundFBO(FBO_Bind_Draw)->getAttachment());
    auto pixel = GenImageData<unsigned char, 4>::create(1, 1);
    targets[3]->readBackRGBA(pixel, Recti(2, 2, 1, 1));
    EXPECT_EQ(pixel->at(0, 0, 0), 0);
    EXPECT_EQ(pixel->at(0, 0, 3), 255);
    sixteenth->readBackRGBA(pixel, Recti(2, 2, 1, 1));
    EXPECT_EQ(pixel->at(0, 0, 1), 255);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST_F(RenderTargetGLTest, OneRenderAtATime) {
    auto a = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA8);
    auto b = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA8);
    auto screen = _renderer->createFramebufferTarget();
    ASSERT_TRUE(screen);
    SharedPtr<Drawer> drawer = a->beginRender();
    {
        LogCapture log;
        EXPECT_THROW(b->beginRender(), RenderTargetException);
        EXPECT_THROW(a->beginRender(), RenderTargetException);
        EXPECT_THROW(screen->beginRender(), RenderTargetException);
        EXPECT_EQ(log.count("TextureTargetGL::beginRender() call during another render operation!"),
                  2u);
        EXPECT_EQ(log.assertions("!s_rendering && !_isRendering"), 2u);
        EXPECT_EQ(log.assertions("!s_rendering"), 1u);
    }
    drawer->clear(1, 0, 0, 1);
    a->finishRender(drawer);
    // The refused renders changed nothing: b begins now, and a kept what was drawn.
    renderClear(*b, 0, 0, 1, 1);
    auto pixel = GenImageData<unsigned char, 4>::create(1, 1);
    a->readBackRGBA(pixel, Recti(4, 4, 1, 1));
    EXPECT_EQ(pixel->at(0, 0, 0), 255);
    EXPECT_EQ(pixel->at(0, 0, 2), 0);
    EXPECT_FALSE(TextureTargetGL::isRenderingAny());
}

// Uploads a pattern in the format's own element type, then reads a rectangle back through the
// GPU and, with the GPU read failing, through the processor. Formats hold their element types
// exactly, so both must equal the pattern. False, testing nothing, for a format the driver does
// not render into.
template <class T, int N>
bool checkReadBack(
    Renderer& r, RawPixelFormat format,
    std::function<void(Texture&, const ImageDataIn<T, N>&)> upload,
    std::function<void(TextureTarget&, const ImageDataOut<T, N>&, const Recti&)> read) {
    SCOPED_TRACE(pixelFormatString(format).c_str());
    if (!r.isRenderable(format)) return false;
    const Vec2i size(33, 21);
    auto target = makeTarget(r, size, format);
    EXPECT_EQ(target->texture()->pixelFormat(), format);
    if (target->texture()->pixelFormat() != format) return true;
    auto src = pattern<T, N>(size.x, size.y);
    upload(*target->texture(), src);
    const Recti rect(5, 3, 17, 12);
    auto viaGPU = GenImageData<T, N>::create(rect.width() + 3, rect.height());  // wider rows
    {
        LogCapture log;
        read(*target, viaGPU, rect);
        EXPECT_FALSE(log.contains("Falling back")) << "the GPU path was not taken";
        EXPECT_EQ(log.assertions(), 0u);
    }
    EXPECT_EQ(differenceFromRect(*src, rect, *viaGPU), 0.0);

    auto viaCPU = GenImageData<T, N>::create(rect.width(), rect.height());
    {
        LogCapture log;
        testing::simulateGLError(GLErrorCheck::Transfer, GL_INVALID_OPERATION, 1);
        read(*target, viaCPU, rect);
        EXPECT_EQ(log.count("Falling back to GPU -> CPU path. Failed reading back: "), 1u);
        EXPECT_FALSE(FramebufferObject::getBoundFBO(FBO_Bind_Read));
    }
    EXPECT_EQ(differenceFromRect(*src, rect, *viaCPU), 0.0);
    return true;
}

TEST_F(RenderTargetGLTest, ReadBackEqualsTheUploadInEveryRenderableFormat) {
    using UC = unsigned char;
    using US = unsigned short;
    Renderer& r = *_renderer;
    auto rgba = [](Texture& t, const auto& d) { t.setDataRGBA(d); };
    auto rgb = [](Texture& t, const auto& d) { t.setDataRGB(d); };
    auto red = [](Texture& t, const auto& d) { t.setDataRed(d); };
    auto readRGBA = [](TextureTarget& t, const auto& d, const Recti& s) { t.readBackRGBA(d, s); };
    auto readRGB = [](TextureTarget& t, const auto& d, const Recti& s) { t.readBackRGB(d, s); };
    auto readRed = [](TextureTarget& t, const auto& d, const Recti& s) { t.readBackRed(d, s); };
    int tested = 0;
    tested += checkReadBack<UC, 4>(r, PfRGBA8, rgba, readRGBA);
    tested += checkReadBack<UC, 4>(
        r, PfBGRA8, [](Texture& t, const auto& d) { t.setDataBGRA(d); },
        [](TextureTarget& t, const auto& d, const Recti& s) { t.readBackBGRA(d, s); });
    tested += checkReadBack<UC, 3>(r, PfRGB8, rgb, readRGB);
    tested += checkReadBack<US, 4>(r, PfRGBA16, rgba, readRGBA);
    tested += checkReadBack<US, 3>(r, PfRGB16, rgb, readRGB);
    tested += checkReadBack<half, 4>(r, PfRGBA16F, rgba, readRGBA);
    tested += checkReadBack<half, 3>(r, PfRGB16F, rgb, readRGB);
    tested += checkReadBack<float, 4>(r, PfRGBA32F, rgba, readRGBA);
    tested += checkReadBack<float, 3>(r, PfRGB32F, rgb, readRGB);
    tested += checkReadBack<UC, 1>(r, PfRed8, red, readRed);
    tested += checkReadBack<US, 1>(r, PfRed16, red, readRed);
    tested += checkReadBack<half, 1>(r, PfRed16F, red, readRed);
    tested += checkReadBack<float, 1>(r, PfRed32F, red, readRed);
    EXPECT_GT(tested, 0) << "the driver renders into no format";
}

TEST_F(RenderTargetGLTest, DrawnPixelsReadBackInEveryRenderableFormat) {
    // A clear of the whole target and a clipped clear of a rectangle, read back as floats. 8-bit
    // channels are the coarsest: values within a step of 1/255, 0.5 rounding either way.
    const RawPixelFormat formats[] = {PfRGBA8,   PfBGRA8,  PfRGB8,    PfRGBA16, PfRGB16,
                                      PfRGBA16F, PfRGB16F, PfRGBA32F, PfRGB32F, PfRed8,
                                      PfRed16,   PfRed16F, PfRed32F};
    const float outside[4] = {0.25f, 0.5f, 0.75f, 1.0f}, inside[4] = {1.0f, 0.0f, 0.5f, 1.0f};
    const Recti clip(3, 2, 6, 5);
    int tested = 0;
    for (RawPixelFormat format : formats) {
        if (!_renderer->isRenderable(format)) continue;
        ++tested;
        SCOPED_TRACE(pixelFormatString(format).c_str());
        auto target = makeTarget(*_renderer, Vec2i(12, 9), format);
        SharedPtr<Drawer> drawer = target->beginRender();
        drawer->clear(outside[0], outside[1], outside[2], outside[3]);
        drawer->setClipping(clip, true);
        drawer->clear(inside[0], inside[1], inside[2], inside[3]);
        target->finishRender(drawer);

        auto back = GenImageData<float, 4>::create(12, 9);
        target->readBackRGBA(back, Recti(Vec2i(12, 9)));
        const unsigned channels = getChannelCount(format);
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 12; ++x) {
                const float* want = clip.contains(Vec2i(x, y)) ? inside : outside;
                for (unsigned c = 0; c < channels && c < 3; ++c)
                    ASSERT_NEAR(back->at(x, y, int(c)), want[c], 1.0 / 255) << x << "," << y;
            }
    }
    EXPECT_GT(tested, 0) << "the driver renders into no format";
}

TEST_F(RenderTargetGLTest, AnIncompleteFramebufferThrowsAndLeavesNothingBound) {
    auto target = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA16F);
    {
        LogCapture log;
        testing::failFramebufferChecks(1);
        try {
            target->beginRender();
            ADD_FAILURE() << "no exception";
        } catch (const RenderTargetException& e) {
            EXPECT_STREQ(e.what(), "Could not bind texture {RGBA16f@(8,8)}!");
        }
        EXPECT_TRUE(log.contains("Check FBO status returned: "));
        EXPECT_EQ(log.assertions("status == GL_FRAMEBUFFER_COMPLETE_EXT"), 1u);
    }
    EXPECT_FALSE(FramebufferObject::getBoundFBO(FBO_Bind_Draw));
    GLint bound = -1;
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
    auto fbo = FramebufferObject::pooled(target->texture()->texSize(), glInternalFormat(PfRGBA16F),
                                         GL_TEXTURE_2D);
    ASSERT_TRUE(fbo);
    EXPECT_FALSE(fbo->getAttachment());
    EXPECT_FALSE(TextureTargetGL::isRenderingAny());
    // The next attempt works.
    renderClear(*target, 0.5f, 0.5f, 0.5f, 1);
}

TEST_F(RenderTargetGLTest, CopiesBetweenTexturesOnTheGPUAndThroughTheProcessorAgree) {
    auto source = makeTarget(*_renderer, Vec2i(20, 16), PfRGBA16F);
    auto src = pattern<half, 4>(20, 16);
    source->texture()->setDataRGBA(src);
    const Recti srcrect(2, 3, 9, 7), rect(6, 1, 9, 7);

    // GPU: drawn through the destination's framebuffer object.
    auto drawnInto = makeTarget(*_renderer, Vec2i(18, 12), PfRGBA16F);
    drawnInto->copyFromTexture(source->texture(), rect, srcrect);
    auto viaGPU = GenImageData<half, 4>::create(rect.width(), rect.height());
    drawnInto->readBackRGBA(viaGPU, rect);
    EXPECT_EQ(differenceFromRect(*src, srcrect, *viaGPU), 0.0);

    // The mirror, from the source target into another texture.
    auto mirrored = makeTarget(*_renderer, Vec2i(18, 12), PfRGBA16F);
    source->copyToTexture(mirrored->texture(), rect, srcrect);
    auto viaMirror = GenImageData<half, 4>::create(rect.width(), rect.height());
    mirrored->readBackRGBA(viaMirror, rect);
    EXPECT_EQ(differenceFromRect(*src, srcrect, *viaMirror), 0.0);

    // Processor.
    auto copied = makeTarget(*_renderer, Vec2i(18, 12), PfRGBA16F);
    TextureTargetGL::textureCopyCPU(source->texture(), copied->texture(), rect, srcrect);
    auto viaCPU = GenImageData<half, 4>::create(rect.width(), rect.height());
    copied->readBackRGBA(viaCPU, rect);
    EXPECT_EQ(differenceFromRect(*src, srcrect, *viaCPU), 0.0);

    // A format with no processor path asserts and copies nothing.
    LogCapture log;
    auto redTexture = _renderer->createTexture(Vec2i(4, 4), PfRed8, DrawParameters());
    TextureTargetGL::textureCopyCPU(redTexture, copied->texture(), Recti(0, 0, 2, 2),
                                    Recti(0, 0, 2, 2));
    EXPECT_EQ(log.assertions("false"), 1u);
}

// A destination with a border texel (a driver without edge clamping) takes the rectangle where
// its own border puts it, whatever the source's border.
TEST_F(RenderTargetGLTest, TheProcessorCopyPlacesPixelsByTheDestinationsBorder) {
    auto source = _renderer->createTexture(Vec2i(12, 10), PfRGBA8, DrawParameters());
    auto src = pattern<unsigned char, 4>(12, 10);
    source->setDataRGBA(src);
    testing::forceBorderTexels(true);
    auto bordered = _renderer->createTexture(Vec2i(12, 10), PfRGBA8, DrawParameters());
    testing::forceBorderTexels(false);
    ASSERT_EQ(dynamic_cast<TextureGL&>(*source).border(), 0);
    ASSERT_EQ(dynamic_cast<TextureGL&>(*bordered).border(), 1);

    // Both rectangles in allocated texels: the destination's image starts at (1, 1).
    const Recti srcrect(2, 3, 6, 5), rect(5, 2, 6, 5);
    TextureTargetGL::textureCopyCPU(source, bordered, rect, srcrect);
    auto back =
        GenImageData<unsigned char, 4>::create(bordered->texSize().x, bordered->texSize().y);
    bordered->getDataRGBA8(back);
    auto placed = GenImageData<unsigned char, 4>::create(rect.width(), rect.height());
    for (int y = 0; y < rect.height(); ++y)
        for (int x = 0; x < rect.width(); ++x)
            for (int c = 0; c < 4; ++c)
                placed->at(x, y, c) = back->at(rect.xmin() + x, rect.ymin() + y, c);
    EXPECT_EQ(differenceFromRect(*src, srcrect, *placed), 0.0);
}

TEST_F(RenderTargetGLTest, AMipmappedTargetGetsItsLevelsWhenTheRenderEnds) {
    auto target = _renderer->createTextureTarget(Vec2i(8, 8), PfRGBA8,
                                                 DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR));
    renderClear(*target, 0, 1, 0, 1);
    auto texture = dynamic_ptr_cast<TextureGL>(target->texture());
    ASSERT_TRUE(texture);
    unsigned char level1[4 * 4 * 4] = {};
    glwBindTexture(0, GL_TEXTURE_2D, texture->id());
    glGetTexImage(GL_TEXTURE_2D, 1, GL_RGBA, GL_UNSIGNED_BYTE, level1);
    EXPECT_EQ(level1[1], 255);
    EXPECT_EQ(level1[0], 0);
}

TEST_F(RenderTargetGLTest, FinishingLeavesTheFramebufferBoundUnlessAskedToUnbind) {
    auto target = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA8);
    GLint bound = -1;
    renderClear(*target, 0, 0, 0, 1);
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &bound);
    auto fbo = FramebufferObject::getBoundFBO(FBO_Bind_Draw);
    ASSERT_TRUE(fbo);
    EXPECT_EQ(GLuint(bound), fbo->id());  // the fast path: only attach and detach change
    EXPECT_FALSE(fbo->getAttachment());

    TextureTargetGL::unbindFBOOnFinish(true);
    renderClear(*target, 0, 0, 0, 1);
    TextureTargetGL::unbindFBOOnFinish(false);
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
    EXPECT_FALSE(FramebufferObject::getBoundFBO(FBO_Bind_Draw));
}

// One pooled object can be bound for drawing and for reading at once: a render leaves it bound for
// drawing, and a read-back of a texture of the same configuration binds it for reading. Ending
// either use asserts nothing and empties that binding.
TEST_F(RenderTargetGLTest, AnObjectBoundBothWaysIsReleasedCleanly) {
    auto drawn = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA8);
    auto read = makeTarget(*_renderer, Vec2i(8, 8), PfRGBA8);
    renderClear(*drawn, 0, 0, 1, 1);
    auto fbo = FramebufferObject::getBoundFBO(FBO_Bind_Draw);
    ASSERT_TRUE(fbo);
    auto pixel = GenImageData<unsigned char, 4>::create(1, 1);
    read->readBackRGBA(pixel, Recti(0, 0, 1, 1));
    ASSERT_EQ(FramebufferObject::getBoundFBO(FBO_Bind_Draw), fbo) << "another object was used";

    LogCapture log;
    _renderer->releaseCurrentTarget();
    EXPECT_FALSE(FramebufferObject::getBoundFBO(FBO_Bind_Draw));
    EXPECT_FALSE(FramebufferObject::getBoundFBO(FBO_Bind_Read));
    renderClear(*drawn, 1, 0, 0, 1);
    read->readBackRGBA(pixel, Recti(0, 0, 1, 1));
    FramebufferObject::releasePool();
    EXPECT_EQ(log.assertions(), 0u);
    GLint bound = -1;
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
}

// A pbuffer made current with the test context for the life of the scope, so that the context
// has a frame buffer of its own; the context goes back to no surface afterwards.
class PbufferScope {
public:
    PbufferScope(Vec2i size) {
        test::GLTestContext* gl = test::GLTestContext::obtain();
        _display = EGLDisplay(gl->display());
        _context = EGLContext(gl->context());
        const EGLint wanted[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE,
                                 EGL_OPENGL_BIT,   EGL_RED_SIZE,    8,
                                 EGL_GREEN_SIZE,   8,               EGL_BLUE_SIZE,
                                 8,                EGL_ALPHA_SIZE,  8,
                                 EGL_NONE};
        EGLConfig config = nullptr;
        EGLint count = 0;
        if (!eglChooseConfig(_display, wanted, &config, 1, &count) || count == 0) return;
        const EGLint attributes[] = {EGL_WIDTH, size.x, EGL_HEIGHT, size.y, EGL_NONE};
        _surface = eglCreatePbufferSurface(_display, config, attributes);
        if (_surface != EGL_NO_SURFACE && !eglMakeCurrent(_display, _surface, _surface, _context)) {
            eglDestroySurface(_display, _surface);
            _surface = EGL_NO_SURFACE;
        }
    }
    ~PbufferScope() {
        if (_surface == EGL_NO_SURFACE) return;
        eglMakeCurrent(_display, EGL_NO_SURFACE, EGL_NO_SURFACE, _context);
        eglDestroySurface(_display, _surface);
    }
    bool current() const { return _surface != EGL_NO_SURFACE; }

private:
    EGLDisplay _display = EGL_NO_DISPLAY;
    EGLContext _context = EGL_NO_CONTEXT;
    EGLSurface _surface = EGL_NO_SURFACE;
};

// The frame buffer target takes the size of the current surface, draws on framebuffer 0 even
// when a framebuffer object was bound, and its clipping lands where a texture target's does.
TEST_F(RenderTargetGLTest, TheFramebufferTargetDrawsOnTheCurrentSurface) {
    PbufferScope pbuffer(Vec2i(40, 30));
    if (!pbuffer.current()) QOR_GL_MISSING("no pbuffer for the headless context");
    const Recti clip(4, 6, 10, 7);
    // The same clear on a texture target first, which also leaves its framebuffer object bound.
    auto texture = makeTarget(*_renderer, Vec2i(40, 30), PfRGBA8);
    auto screen = _renderer->createFramebufferTarget();
    ASSERT_TRUE(screen);
    EXPECT_EQ(screen->size(), Vec2i(40, 30));
    for (RenderTarget* target : {static_cast<RenderTarget*>(texture.get()),
                                 static_cast<RenderTarget*>(screen.get())}) {
        SharedPtr<Drawer> drawer = target->beginRender();
        drawer->clear(0, 0, 1, 1);
        drawer->setClipping(clip, true);
        drawer->clear(1, 0, 0, 1);
        target->finishRender(drawer);
    }
    auto expected = GenImageData<unsigned char, 4>::create(40, 30);
    texture->readBackRGBA(expected, Recti(Vec2i(40, 30)));

    glwBindFramebuffer(0, FBO_Bind_Read);
    std::vector<unsigned char> rows(40 * 30 * 4);  // rows of 160 bytes: any pack alignment
    glReadPixels(0, 0, 40, 30, GL_RGBA, GL_UNSIGNED_BYTE, rows.data());
    int red = 0, mismatches = 0;
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) {
            // Both in GL's row order: row y of the read-back is row y of the frame buffer.
            const unsigned char* got = &rows[size_t(y * 40 + x) * 4];
            if (got[0] == 255 && got[2] == 0) ++red;
            for (int c = 0; c < 4; ++c) mismatches += got[c] != expected->at(x, y, c);
        }
    EXPECT_EQ(red, clip.width() * clip.height());
    EXPECT_EQ(mismatches, 0);
}

TEST_F(RenderTargetGLTest, TheSelfCheckDrawsAndReadsBack) {
    LogCapture log;
    EXPECT_TRUE(_renderer->selfCheck());
    EXPECT_EQ(log.assertions(), 0u);
}

}  // namespace
}  // namespace qor::gpu
