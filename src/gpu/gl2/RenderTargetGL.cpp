#include "gpu/gl2/RenderTargetGL.h"

#include <epoxy/egl.h>

#include <cstring>

#include "base/Log.h"
#include "gpu/gl2/DrawerGL.h"
#include "gpu/gl2/FramebufferObject.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/PixelStore.h"
#include "gpu/gl2/RendererGL.h"

namespace qor::gpu {

using namespace imaging;

namespace {

// Process-wide, GL thread only.
bool s_rendering = false;
bool s_unbindFBOOnFinish = false;

constexpr float OrthoNear = -10000.0f;
constexpr float OrthoFar = 10000.0f;

constexpr std::uint32_t LettersRGB = PfChannelR | PfChannelG | PfChannelB;
constexpr std::uint32_t LettersRGBA = LettersRGB | PfChannelA;
constexpr std::uint32_t LettersBGRA = LettersRGBA | PfReversed;
constexpr std::uint32_t LettersRed = PfChannelR;

void throwDuringRender(const char* who) {
    const std::string text =
        formatLog("%*::beginRender() call during another render operation!", who);
    QOR_LOG(LogError, "%*", text);
    throw RenderTargetException(text);
}

SharedPtr<TextureGL> glTexture(const SharedPtr<Texture>& texture) {
    auto gl = dynamic_ptr_cast<TextureGL>(texture);
    QOR_ASSERT_TEXT(gl, "util::dynamic_ptr_cast<TextureGL>(texture)");
    return gl;
}

bool contains(const Vec2i& size, const Recti& rect) {
    return !rect.empty() && (Recti(size) & rect) == rect;
}

// Reads the whole texture into `dst` with the read-back of the element type and channels.
template <class T, int N>
void readWhole(const TextureGL& texture, const ImageDataOut<T, N>& dst, std::uint32_t letters) {
    if constexpr (N == 4) {
        if constexpr (std::is_same_v<T, float>) texture.getDataRGBA32F(dst);
        if constexpr (std::is_same_v<T, half>) texture.getDataRGBA16F(dst);
        if constexpr (std::is_same_v<T, unsigned short>) texture.getDataRGBA16U(dst);
        if constexpr (std::is_same_v<T, unsigned char>) {
            if (letters == LettersBGRA)
                texture.getDataBGRA8(dst);
            else
                texture.getDataRGBA8(dst);
        }
    } else if constexpr (N == 3) {
        if constexpr (std::is_same_v<T, float>) texture.getDataRGB32F(dst);
        if constexpr (std::is_same_v<T, half>) texture.getDataRGB16F(dst);
        if constexpr (std::is_same_v<T, unsigned short>) texture.getDataRGB16U(dst);
        if constexpr (std::is_same_v<T, unsigned char>) texture.getDataRGB8U(dst);
    } else {
        if constexpr (std::is_same_v<T, float>) texture.getDataRed32F(dst);
        if constexpr (std::is_same_v<T, half>) texture.getDataRed16F(dst);
        if constexpr (std::is_same_v<T, unsigned short>) texture.getDataRed16(dst);
        if constexpr (std::is_same_v<T, unsigned char>) texture.getDataRed8(dst);
    }
}

// A view of `rect` of `image`, sharing its memory; valid while `image` lives.
template <class T, int N>
ImageDataIn<T, N> viewOf(const ImageDataOut<T, N>& image, const Recti& rect) {
    return std::make_shared<const GenImageData<T, N>>(rect.width(), rect.height(), image->stride(),
                                                      &image->at(rect.xmin(), rect.ymin()));
}

// Binds a pooled framebuffer object and restores, when it ends, the draw binding that was there
// before (a render in progress keeps its target).
class FBOUse {
public:
    FBOUse(const SharedPtr<TextureGL>& texture, FBOBindType bind) {
        if (auto before = FramebufferObject::getBoundFBO(FBO_Bind_Draw))
            _drawBefore = before->getAttachment();
        _fbo = FramebufferObject::bindFBO(texture, bind);
        glwPushAttrib();
    }
    ~FBOUse() {
        glwPopAttrib();
        _fbo->detach();
        _fbo->unbind();
        if (_drawBefore) {
            try {
                FramebufferObject::bindFBO(_drawBefore, FBO_Bind_Draw);
            } catch (const std::exception& e) {
                QOR_LOG(LogError, "Could not bind the render target again: %*", e.what());
            }
        }
    }
    FBOUse(const FBOUse&) = delete;
    FBOUse& operator=(const FBOUse&) = delete;

private:
    SharedPtr<FramebufferObject> _fbo;
    SharedPtr<TextureGL> _drawBefore;
};

// Draws `srcrect` of `source` over `rect` of `destination` with nearest sampling, no program and
// no blending. Throws RenderTargetException when `destination` cannot be bound.
void drawTextureRect(const SharedPtr<TextureGL>& source, const SharedPtr<TextureGL>& destination,
                     const Recti& rect, const Recti& srcrect) {
    FBOUse use(destination, FBO_Bind_Draw);
    const Vec2i dstSize = destination->texSize();
    glwViewport(0, 0, dstSize.x, dstSize.y);
    glwEnableScissorTest(false);
    glwBlendMode(GL_ONE, GL_ZERO, GL_ONE, GL_ZERO);
    glwUseProgramObject(0);
    glMatrixMode(GL_PROJECTION);
    glPushMatrix();
    glLoadIdentity();
    glMatrixMode(GL_MODELVIEW);
    glPushMatrix();
    glLoadIdentity();

    const DrawParameters before = source->getDrawParameters();
    source->setDrawParameters(DrawParameters(before.mipmap, IM_NEAREST, IM_NEAREST));
    glwBindTexture(0, source->target(), source->id());
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_REPLACE);
    glColor4f(1, 1, 1, 1);

    // Texture coordinates: normalised for 2D textures, texels for rectangle textures.
    const Vec2i srcSize = source->texSize();
    const bool rectangle = source->target() == GL_TEXTURE_RECTANGLE;
    const float sx = rectangle ? 1.0f : 1.0f / float(srcSize.x);
    const float sy = rectangle ? 1.0f : 1.0f / float(srcSize.y);
    const float s0 = float(srcrect.xmin()) * sx, s1 = float(srcrect.xmax()) * sx;
    const float t0 = float(srcrect.ymin()) * sy, t1 = float(srcrect.ymax()) * sy;
    // Clip coordinates of the destination rectangle.
    const float x0 = 2.0f * float(rect.xmin()) / float(dstSize.x) - 1.0f;
    const float x1 = 2.0f * float(rect.xmax()) / float(dstSize.x) - 1.0f;
    const float y0 = 2.0f * float(rect.ymin()) / float(dstSize.y) - 1.0f;
    const float y1 = 2.0f * float(rect.ymax()) / float(dstSize.y) - 1.0f;
    glBegin(GL_QUADS);
    glTexCoord2f(s0, t0);
    glVertex2f(x0, y0);
    glTexCoord2f(s1, t0);
    glVertex2f(x1, y0);
    glTexCoord2f(s1, t1);
    glVertex2f(x1, y1);
    glTexCoord2f(s0, t1);
    glVertex2f(x0, y1);
    glEnd();

    glwUnbindTexture(0);
    source->setDrawParameters(before);
    glMatrixMode(GL_PROJECTION);
    glPopMatrix();
    glMatrixMode(GL_MODELVIEW);
    glPopMatrix();
    const GLenum err = checkGLError(GLErrorCheck::Transfer);
    if (err != GL_NO_ERROR)
        throw RenderTargetException(formatLog("Drawing a texture copy gave GL error %*", err));
}

// `rect` and `srcrect` are in allocated texels of their textures; setData* takes image
// coordinates and adds the destination's border itself.
template <class T, int N>
void copyThroughProcessor(const TextureGL& source, TextureGL& destination, const Recti& rect,
                          const Recti& srcrect, std::uint32_t letters) {
    auto temp = GenImageData<T, N>::create(source.texSize().x, source.texSize().y);
    readWhole<T, N>(source, temp, letters);
    const Recti target = rect + Vec2i(-destination.border(), -destination.border());
    auto view = viewOf<T, N>(temp, srcrect);
    if constexpr (N == 3) destination.setDataRGB(view, target);
    if constexpr (N == 4) {
        if (letters == LettersBGRA) {
            if constexpr (std::is_same_v<T, unsigned char>) destination.setDataBGRA(view, target);
        } else {
            destination.setDataRGBA(view, target);
        }
    }
}

}  // namespace

// --- TextureTargetGL ------------------------------------------------------------------------

TextureTargetGL::TextureTargetGL(RendererGL* renderer, const SharedPtr<TextureGL>& texture)
    : _renderer(renderer),
      _texture(texture),
      _drawer(std::make_shared<DrawerGL>()),
      _drawParameters(texture->getDrawParameters()) {}

TextureTargetGL::~TextureTargetGL() {
    if (!_isRendering) return;
    QOR_LOG(LogWarning, "TextureTargetGL destroyed while rendering: the render ends here");
    try {
        finishRender(_drawer);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Ending the render of a destroyed target failed: %*", e.what());
        s_rendering = false;
    }
}

bool TextureTargetGL::offscreenRenderSupport() const { return _renderer->hasFBO(); }

bool TextureTargetGL::resize(const Vec2i& size) {
    if (_isRendering) {
        QOR_LOG(LogError, "TextureTargetGL::resize during a render");
        return false;
    }
    return _texture->resize(size);
}

SharedPtr<Drawer> TextureTargetGL::beginRender() {
    const bool idle = !s_rendering && !_isRendering;
    QOR_ASSERT_TEXT(idle, "!s_rendering && !_isRendering");
    if (!idle) throwDuringRender("TextureTargetGL");

    const Vec2i size = _texture->size();
    if (offscreenRenderSupport()) {
        FramebufferObject::bindFBO(_texture, FBO_Bind_Draw);
        const int border = _texture->border();
        _drawer->setViewport(Recti(border, border, size.x, size.y));
    } else {
        // Drawn on the back buffer at its origin; finishRender copies it into the texture.
        glwBindFramebuffer(0, FBO_Bind_Draw);
        _drawer->setViewport(Recti(size));
    }
    const Vec2f origin(float(_readBackOffset.x), float(_readBackOffset.y));
    _drawer->setOrtho(Rectf(origin, origin + Vec2f(float(size.x), float(size.y))), OrthoNear,
                      OrthoFar);
    _drawer->begin();
    s_rendering = true;
    _isRendering = true;
    return _drawer;
}

void TextureTargetGL::finishRender(const SharedPtr<Drawer>& drawer) {
    const bool rendering = s_rendering && _isRendering;
    QOR_ASSERT_TEXT(rendering, "s_rendering && _isRendering");
    if (!_isRendering) return;
    if (drawer) drawer->end();
    if (offscreenRenderSupport()) {
        FramebufferObject::endUse(FBO_Bind_Draw, s_unbindFBOOnFinish);
    } else {
        _texture->setDataFromBackbuffer(Recti(_texture->size()));
    }
    s_rendering = false;
    _isRendering = false;
    if (_drawParameters.isMipmapped()) _texture->updateMipmaps();
}

void TextureTargetGL::setDrawParameters(const DrawParameters& params) {
    QOR_ASSERT_TEXT(_texture->compatibleDrawParameters(params),
                    "_texture->compatibleDrawParameters(params)");
    _texture->setDrawParameters(params);
    _drawParameters = _texture->getDrawParameters();
    QOR_ASSERT_TEXT(_drawParameters == _texture->getDrawParameters(),
                    "_drawParameters == _texture->getDrawParameters()");
}

template <class T, int N>
void TextureTargetGL::readBackGeneric(const ImageDataOut<T, N>& data, const Recti& subrect,
                                      std::uint32_t letters) {
    const TextureGL* src = _texture.get();
    QOR_ASSERT_TEXT(src, "src");
    QOR_ASSERT_TEXT(data, "data");
    if (!src || !data) return;
    const bool fits = data->width() >= subrect.width() && data->height() >= subrect.height();
    QOR_ASSERT_TEXT(fits, "data->width() >= subrect.width() && data->height() >= subrect.height()");
    const bool inside = contains(src->texSize(), subrect);
    QOR_ASSERT_TEXT(inside, "(Recti(texture->texSize()) & subrect) == subrect");
    if (!fits || !inside) return;

    const int rowLength = int(data->stride() / N);
    if (_renderer->isRenderable(src->pixelFormat()) &&
        !TextureGL::isMemoryTooAligned(N, rowLength, data->data())) {
        try {
            QOR_ASSERT_TEXT(!FramebufferObject::getBoundFBO(FBO_Bind_Read),
                            "!FramebufferObject::getBoundFBO(FBO_Bind_Read)");
            FBOUse use(_texture, FBO_Bind_Read);
            const RawPixelFormat transfer = transferFormat<T>(letters);
            PixelStoreScope pack(PixelStoreScope::Pack, rowLength);
            glReadPixels(subrect.xmin(), subrect.ymin(), subrect.width(), subrect.height(),
                         glPixelFormat(transfer), glPixelType(transfer), data->data());
            const GLenum err = checkGLError(GLErrorCheck::Transfer);
            if (err != GL_NO_ERROR)
                throw RenderTargetException(formatLog("glReadPixels gave GL error %*", err));
            return;
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Falling back to GPU -> CPU path. Failed reading back: %*.  ",
                    e.what());
        }
    }
    // The whole texture through processor memory, then the rectangle.
    auto temp = GenImageData<T, N>::create(src->texSize().x, src->texSize().y);
    readWhole<T, N>(*src, temp, letters);
    for (int y = 0; y < subrect.height(); ++y)
        std::memcpy(data->row(y), &temp->at(subrect.xmin(), subrect.ymin() + y),
                    std::size_t(subrect.width()) * N * sizeof(T));
}

#define QOR_TARGETGL_DEFINE_READBACK(Name, N, T)                                                 \
    void TextureTargetGL::readBack##Name(const ImageDataOut<T, N>& data, const Recti& subrect) { \
        readBackGeneric<T, N>(data, subrect, Letters##Name);                                     \
    }
QOR_TARGET_READBACKS(QOR_TARGETGL_DEFINE_READBACK)
#undef QOR_TARGETGL_DEFINE_READBACK

void TextureTargetGL::copyFromTexture(const SharedPtr<Texture>& source, const Recti& rect,
                                      const Recti& srcrect) {
    QOR_ASSERT_TEXT(contains(_texture->texSize(), rect),
                    "(Recti(this->texture()->texSize()) & rect) == rect");
    QOR_ASSERT_TEXT(source && contains(source->texSize(), srcrect),
                    "(Recti(source->texSize()) & srcrect) == srcrect");
    QOR_ASSERT_TEXT(source, "src");
    if (!source || !contains(_texture->texSize(), rect) || !contains(source->texSize(), srcrect))
        return;
    copyTexture(source, _texture, rect, srcrect);
}

void TextureTargetGL::copyToTexture(const SharedPtr<Texture>& destination, const Recti& rect,
                                    const Recti& srcrect) {
    const bool destinationOk = destination && contains(destination->texSize(), rect);
    QOR_ASSERT_TEXT(destinationOk, "(Recti(destination->texSize()) & rect) == rect");
    const bool sourceOk = contains(_texture->texSize(), srcrect);
    QOR_ASSERT_TEXT(sourceOk, "(Recti(_texture->texSize()) & srcrect) == srcrect");
    if (!destinationOk || !sourceOk) return;
    copyTexture(_texture, destination, rect, srcrect);
}

void TextureTargetGL::copyTexture(const SharedPtr<Texture>& source,
                                  const SharedPtr<Texture>& destination, const Recti& rect,
                                  const Recti& srcrect) {
    auto sourceGL = glTexture(source);
    auto destinationGL = glTexture(destination);
    if (!sourceGL || !destinationGL) return;
    if (_renderer->hasFBO() && _renderer->isRenderable(destination->pixelFormat())) {
        drawTextureRect(sourceGL, destinationGL, rect, srcrect);
        return;
    }
    textureCopyCPU(source, destination, rect, srcrect);
}

void TextureTargetGL::textureCopyCPU(const SharedPtr<Texture>& source,
                                     const SharedPtr<Texture>& destination, const Recti& rect,
                                     const Recti& srcrect) {
    auto sourceGL = glTexture(source);
    auto destinationGL = glTexture(destination);
    if (!sourceGL || !destinationGL) return;
    const bool sameSize = rect.size() == srcrect.size();
    QOR_ASSERT_TEXT(sameSize, "rect.size() == srcrect.size()");
    if (!sameSize) return;
    const TextureGL& src = *sourceGL;
    TextureGL& dst = *destinationGL;
    switch (src.pixelFormat()) {
        case PfRGBA8:
            copyThroughProcessor<unsigned char, 4>(src, dst, rect, srcrect, LettersRGBA);
            break;
        case PfBGRA8:
            copyThroughProcessor<unsigned char, 4>(src, dst, rect, srcrect, LettersBGRA);
            break;
        case PfRGB8:
            copyThroughProcessor<unsigned char, 3>(src, dst, rect, srcrect, LettersRGB);
            break;
        case PfRGB16:
            copyThroughProcessor<unsigned short, 3>(src, dst, rect, srcrect, LettersRGB);
            break;
        case PfRGB16F:
            copyThroughProcessor<half, 3>(src, dst, rect, srcrect, LettersRGB);
            break;
        case PfRGB32F:
            copyThroughProcessor<float, 3>(src, dst, rect, srcrect, LettersRGB);
            break;
        case PfRGBA16:
            copyThroughProcessor<unsigned short, 4>(src, dst, rect, srcrect, LettersRGBA);
            break;
        case PfRGBA16F:
            copyThroughProcessor<half, 4>(src, dst, rect, srcrect, LettersRGBA);
            break;
        case PfRGBA32F:
            copyThroughProcessor<float, 4>(src, dst, rect, srcrect, LettersRGBA);
            break;
        default:
            QOR_LOG(LogError, "textureCopyCPU: no copy path for %*",
                    pixelFormatString(src.pixelFormat()));
            QOR_ASSERT_TEXT(false, "false");
            break;
    }
}

void TextureTargetGL::unbindFBOOnFinish(bool on) { s_unbindFBOOnFinish = on; }

bool TextureTargetGL::isRenderingAny() { return s_rendering; }

// --- FramebufferTargetGL --------------------------------------------------------------------

FramebufferTargetGL::FramebufferTargetGL(RendererGL* renderer)
    : _renderer(renderer), _drawer(std::make_shared<DrawerGL>()), _size(drawableSize()) {
    if (_size.x == 0 || _size.y == 0) {
        GLint viewport[4] = {0, 0, 0, 0};
        glGetIntegerv(GL_VIEWPORT, viewport);
        _size = Vec2i(viewport[2], viewport[3]);
    }
}

FramebufferTargetGL::~FramebufferTargetGL() {
    if (_isRendering) {
        QOR_LOG(LogWarning, "FramebufferTargetGL destroyed while rendering: the render ends here");
        finishRender(_drawer);
    }
}

bool FramebufferTargetGL::resize(const Vec2i& size) {
    if (_isRendering) return false;
    _size = size;
    return true;
}

Vec2i FramebufferTargetGL::drawableSize() const {
    EGLDisplay display = eglGetCurrentDisplay();
    EGLSurface surface = eglGetCurrentSurface(EGL_DRAW);
    if (display == EGL_NO_DISPLAY || surface == EGL_NO_SURFACE) return Vec2i(0, 0);
    EGLint w = 0, h = 0;
    eglQuerySurface(display, surface, EGL_WIDTH, &w);
    eglQuerySurface(display, surface, EGL_HEIGHT, &h);
    return Vec2i(w, h);
}

SharedPtr<Drawer> FramebufferTargetGL::beginRender() {
    QOR_ASSERT_TEXT(!s_rendering, "!s_rendering");
    if (s_rendering) throwDuringRender("FramebufferTargetGL");
    FramebufferObject::endUse(FBO_Bind_Draw, true);
    if (_renderer->hasFBO()) glwBindFramebuffer(0, FBO_Bind_Draw);
    _drawer->setViewport(Recti(_size));
    _drawer->setOrtho(Rectf(Vec2f(0, 0), Vec2f(float(_size.x), float(_size.y))), OrthoNear,
                      OrthoFar);
    _drawer->begin();
    s_rendering = true;
    _isRendering = true;
    return _drawer;
}

void FramebufferTargetGL::finishRender(const SharedPtr<Drawer>& drawer) {
    QOR_ASSERT_TEXT(s_rendering, "s_rendering");
    if (!_isRendering) return;
    if (drawer) drawer->end();
    glFlush();
    s_rendering = false;
    _isRendering = false;
}

}  // namespace qor::gpu
