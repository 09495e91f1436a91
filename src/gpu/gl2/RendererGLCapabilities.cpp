// RendererGL: the texture capability tests and their log.

#include "base/Log.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/RendererGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

namespace {

constexpr int TestSize = 1024;

}  // namespace

void RendererGL::computeTextureCapabilities() {
    _textureCapabilities = TcBase;
    if (!(_systemInfoBits & SibNoRGBA16)) {
        glTexImage2D(GL_PROXY_TEXTURE_2D, 0, GL_RGBA16, TestSize, TestSize, 0, GL_RGBA,
                     GL_UNSIGNED_SHORT, nullptr);
        GLint bits[4] = {0, 0, 0, 0};
        glGetTexLevelParameteriv(GL_PROXY_TEXTURE_2D, 0, GL_TEXTURE_RED_SIZE, &bits[0]);
        glGetTexLevelParameteriv(GL_PROXY_TEXTURE_2D, 0, GL_TEXTURE_GREEN_SIZE, &bits[1]);
        glGetTexLevelParameteriv(GL_PROXY_TEXTURE_2D, 0, GL_TEXTURE_BLUE_SIZE, &bits[2]);
        glGetTexLevelParameteriv(GL_PROXY_TEXTURE_2D, 0, GL_TEXTURE_ALPHA_SIZE, &bits[3]);
        drainGLErrors();
        if (bits[0] >= 16 && bits[1] >= 16 && bits[2] >= 16 && bits[3] >= 16)
            _textureCapabilities |= TcRGBA16Precision;
    }
    if (hasExtension("GL_ARB_texture_rg")) _textureCapabilities |= TcTextureRG;
}

void RendererGL::checkRenderTargetCapabilities() {
    if (!_hasFBO) {
        QOR_LOG(LogInfo, "no framebuffer objects: no texture format can be rendered into");
        return;
    }
    // checkFBOFloatTextureTarget
    if (checkFBOBind(GL_RGBA16F)) _textureCapabilities |= TcRenderRGBA16F;
    if (checkFBOBind(GL_RGBA32F)) _textureCapabilities |= TcRenderRGBA32F;
    if (checkFBOBind(GL_RGB16F)) _textureCapabilities |= TcRenderRGB16F;
    if (checkFBOBind(GL_RGB32F)) _textureCapabilities |= TcRenderRGB32F;
    // checkFBOIntegerTextureTarget
    if (_textureCapabilities & TcRGBA16Precision) {
        if (checkFBOBind(GL_RGBA16)) _textureCapabilities |= TcRenderRGBA16;
        if (checkFBOBind(GL_RGB16)) _textureCapabilities |= TcRenderRGB16;
    }
    // checkFBORedTextureTarget
    if (_textureCapabilities & TcTextureRG) {
        if (checkFBOBind(GL_R16F)) _textureCapabilities |= TcRenderR16F;
        if (checkFBOBind(GL_R32F)) _textureCapabilities |= TcRenderR32F;
        if (checkFBOBind(GL_R8)) _textureCapabilities |= TcRenderR8;
        if (checkFBOBind(GL_R16)) _textureCapabilities |= TcRenderR16;
    }
}

bool RendererGL::checkFBOBind(GLenum internalFormat) {
    drainGLErrors();
    glTexImage2D(GL_PROXY_TEXTURE_2D, 0, GLint(internalFormat), TestSize, TestSize, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, nullptr);
    GLint width = 0;
    glGetTexLevelParameteriv(GL_PROXY_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    drainGLErrors();
    if (width == 0) {
        QOR_LOG(LogWarning, "checkFBOBind: errror creating proxy texture (internal format = %*)",
                internalFormat);
        return false;
    }

    GLuint texture = 0;
    glGenTextures(1, &texture);
    QOR_ASSERT_TEXT(texture != 0, "texture != 0");
    glwBindTexture(0, GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), TestSize, TestSize, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, nullptr);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    // A texture is never bound for sampling while it is drawn into.
    glwUnbindTexture(0);

    GLuint fbo = 0;
    glGenFramebuffers(1, &fbo);
    QOR_ASSERT_TEXT(fbo != 0, "fbo != 0");
    const GLenum drawTarget = _hasReadDrawFramebuffer ? GL_DRAW_FRAMEBUFFER : GL_FRAMEBUFFER_EXT;
    glwBindFramebuffer(fbo, FBO_Bind_Draw);
    glFramebufferTexture2D(drawTarget, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    const GLenum status = glCheckFramebufferStatus(drawTarget);
    QOR_ASSERT_TEXT(
        status == GL_FRAMEBUFFER_COMPLETE_EXT || status == GL_FRAMEBUFFER_UNSUPPORTED_EXT,
        "status == GL_FRAMEBUFFER_COMPLETE_EXT || status == "
        "GL_FRAMEBUFFER_UNSUPPORTED_EXT");
    const bool ok = status == GL_FRAMEBUFFER_COMPLETE_EXT;

    glFramebufferTexture2D(drawTarget, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
    glwBindFramebuffer(0, FBO_Bind_Draw);
    glDeleteFramebuffers(1, &fbo);
    glDeleteTextures(1, &texture);
    glwNotifyTextureDeleted(texture);
    drainGLErrors();
    return ok;
}

void RendererGL::logSystemInfoBits() const {
    QOR_LOG(LogInfo, "***** System information bits ***");
    for (unsigned bit = 0; bit < 32; ++bit)
        QOR_LOG(LogInfo, "bit %* is %* ", bit, (_systemInfoBits >> bit) & 1 ? "ON" : "OFF");
    QOR_LOG(LogInfo, "***** Texture capabilities ***");
    for (unsigned bit = 0; bit < 32; ++bit)
        QOR_LOG(LogInfo, "bit %* is %* ", bit, (_textureCapabilities >> bit) & 1 ? "ON" : "OFF");
}

}  // namespace qor::gpu
