// TextureGL: pixel transfers between processor memory and the texture.

#include <algorithm>
#include <cstring>

#include "base/Log.h"
#include "base/ScratchPad.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/PixelStore.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

using namespace imaging;

namespace {

// Reads back one pixel of the texture bound on unit 0, so that the upload before it has finished.
void forceUploadFinished(GLenum target, GLuint id) {
    char* scratch = globalScratchPad().getBuffer(16);
    PixelStoreScope pack(PixelStoreScope::Pack, 0);
    if (epoxy_gl_version() >= 45 || epoxy_has_gl_extension("GL_ARB_get_texture_sub_image")) {
        glGetTextureSubImage(id, 0, 0, 0, 0, 1, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, 16, scratch);
        return;
    }
    GLint w = 0, h = 0;
    glGetTexLevelParameteriv(target, 0, GL_TEXTURE_WIDTH, &w);
    glGetTexLevelParameteriv(target, 0, GL_TEXTURE_HEIGHT, &h);
    scratch = globalScratchPad().getBuffer(std::size_t(std::max(w, 1)) * std::max(h, 1) * 4);
    glGetTexImage(target, 0, GL_RGBA, GL_UNSIGNED_BYTE, scratch);
}

}  // namespace

template <class T, int N>
void TextureGL::upload(const ImageDataIn<T, N>& img, const Recti& rect, RawPixelFormat transfer) {
    QOR_ASSERT_TEXT(img, "img");
    if (!img || !_id) return;
    const bool inside = (Recti(_size) & rect) == rect && !rect.empty();
    QOR_ASSERT_TEXT(inside, "(Recti(size()) & rect) == rect");
    const bool fits = img->width() >= rect.width() && img->height() >= rect.height();
    QOR_ASSERT_TEXT(fits, "img->width() >= rect.width() && img->height() >= rect.height()");
    if (!inside || !fits) return;

    glwBindTexture(0, _target, _id);
    QOR_ASSERT_TEXT(img->stride() % N == 0, "img->stride() % C == 0");
    PixelStoreScope unpack(PixelStoreScope::Unpack, int(img->stride() / N));
    glTexSubImage2D(_target, 0, rect.xmin() + _border, rect.ymin() + _border, rect.width(),
                    rect.height(), glPixelFormat(transfer), glPixelType(transfer), img->data());
    if (Renderer::isReadbackAfterTextureDataUploadEnforced()) forceUploadFinished(_target, _id);
    checkGLError(GLErrorCheck::Transfer);
}

void TextureGL::readBackInto(void* pixels, int rowLength, GLenum glFormat, GLenum glType) const {
    glwBindTexture(0, _target, _id);
    PixelStoreScope pack(PixelStoreScope::Pack, rowLength);
    glGetTexImage(_target, 0, glFormat, glType, pixels);
    checkGLError(GLErrorCheck::Transfer);
}

template <class T, int N>
void TextureGL::readBack(const ImageDataOut<T, N>& dst, GLenum glFormat, GLenum glType) const {
    QOR_ASSERT_TEXT(dst, "dst");
    if (!dst || !_id) return;
    // glGetTexImage writes the whole allocated texture.
    const bool wide = dst->width() >= _texSize.x;
    const bool high = dst->height() >= _texSize.y;
    if (!wide)
        assertionFailed(__FILE__, __LINE__, "dst->width() >= tex->width() + 2 * tex->border()",
                        "Insufficient space allocated for destination image data!");
    if (!high)
        assertionFailed(__FILE__, __LINE__, "dst->height() >= tex->height() + 2 * tex->border()",
                        "Insufficient space allocated for destination image data!");
    QOR_ASSERT_TEXT(dst->stride() % N == 0, "dst->stride() % C == 0");
    const int rowLength = int(dst->stride() / N);

    if (wide && high && !isMemoryTooAligned(N, rowLength, dst->data())) {
        readBackInto(dst->data(), rowLength, glFormat, glType);
        return;
    }
    // Through a temporary of the texture's size; the part that fits is copied.
    auto temp = GenImageData<T, N>::create(_texSize.x, _texSize.y);
    readBackInto(temp->data(), int(temp->stride() / N), glFormat, glType);
    const int w = std::min(dst->width(), _texSize.x), h = std::min(dst->height(), _texSize.y);
    for (int y = 0; y < h; ++y)
        std::memcpy(dst->row(y), temp->row(y), std::size_t(w) * N * sizeof(T));
}

#define QOR_TEXTUREGL_DEFINE_UPLOAD(Name, N, T)                                      \
    void TextureGL::setData##Name(const ImageDataIn<T, N>& img, const Recti& rect) { \
        upload<T, N>(img, rect, transferFormat<T>(Letters##Name));                   \
    }

namespace {
constexpr std::uint32_t LettersRGB = PfChannelR | PfChannelG | PfChannelB;
constexpr std::uint32_t LettersRGBA = LettersRGB | PfChannelA;
constexpr std::uint32_t LettersBGRA = LettersRGBA | PfReversed;
constexpr std::uint32_t LettersLum = PfChannelL;
constexpr std::uint32_t LettersRed = PfChannelR;
}  // namespace

QOR_TEXTURE_UPLOADS(QOR_TEXTUREGL_DEFINE_UPLOAD)
#undef QOR_TEXTUREGL_DEFINE_UPLOAD

#define QOR_TEXTUREGL_DEFINE_READBACK(Name, F, N, T)                         \
    void TextureGL::getData##Name(const ImageDataOut<T, N>& dst) const {     \
        const RawPixelFormat format = F;                                     \
        if (format == PfInvalid)                                             \
            readBack<T, N>(dst, GL_BGRA, GL_FLOAT);                          \
        else                                                                 \
            readBack<T, N>(dst, glPixelFormat(format), glPixelType(format)); \
    }
QOR_TEXTURE_READBACKS(QOR_TEXTUREGL_DEFINE_READBACK)
#undef QOR_TEXTUREGL_DEFINE_READBACK

void TextureGL::setDataFromBackbuffer(const Recti& rect) {
    glwBindTexture(0, _target, _id);
    QOR_ASSERT_TEXT(size() == rect.size(), "size() == rect.size()");
    glCopyTexSubImage2D(_target, 0, _border, _border, rect.xmin(), rect.ymin(), rect.width(),
                        rect.height());
    checkGLError(GLErrorCheck::Transfer);
}

}  // namespace qor::gpu
