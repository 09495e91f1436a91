#pragma once
// TextureGL: the OpenGL form of Texture. Its GL name comes from the texture cache and goes back
// there when the texture dies.
//
// The allocated size (texSize) is at least 2 in each axis, and rounded up to powers of two where
// the driver needs them; the image sits at the origin of it (at (1, 1) when the driver has no
// edge clamping and a border texel is kept around the image).
//
// Ownership: held by SharedPtr, usually through the Renderer; each texture also holds the cache.
// Thread contract: every operation runs on the GL thread (glw asserts it).

#include <epoxy/gl.h>

#include <utility>

#include "gpu/Texture.h"
#include "gpu/gl2/TextureGLCache.h"

namespace qor::gpu {

class TextureGL : public Texture {
public:
    // A texture of `size` in `format` (a format of the GL table), 2D or rectangle. Asserts
    // "_drawParameters.isValid()". Throws std::bad_alloc when the GPU has no room.
    TextureGL(const Vec2i& size, RawPixelFormat format, const DrawParameters& drawParameters,
              bool rectangle);
    // Gives the GL name back to the cache.
    ~TextureGL() override;

    void setDrawParameters(const DrawParameters& params) override;
    DrawParameters getDrawParameters() const override { return _drawParameters; }
    // Builds the levels below level 0: by the driver for a format it renders into (and filters,
    // for floats), by buildMipmapsOnProcessor otherwise. Asserts "_drawParameters.isMipmapped()".
    void updateMipmaps() override;
    // Builds the levels on the processor: level 0 read back as floats, each level below the 2 x 2
    // mean of the one above, uploaded in the texture's format. Throws std::bad_alloc on
    // GL_OUT_OF_MEMORY.
    void buildMipmapsOnProcessor();
    bool compatibleDrawParameters(const DrawParameters& params) const override;

    using Texture::setDataBGRA;
    using Texture::setDataLum;
    using Texture::setDataRed;
    using Texture::setDataRGB;
    using Texture::setDataRGBA;
#define QOR_TEXTUREGL_DECLARE_UPLOAD(Name, N, T) \
    void setData##Name(const ImageDataIn<T, N>& img, const Recti& rect) override;
    QOR_TEXTURE_UPLOADS(QOR_TEXTUREGL_DECLARE_UPLOAD)
#undef QOR_TEXTUREGL_DECLARE_UPLOAD

    void setDataFromBackbuffer(const Recti& rect) override;

#define QOR_TEXTUREGL_DECLARE_READBACK(Name, F, N, T) \
    void getData##Name(const ImageDataOut<T, N>& dst) const override;
    QOR_TEXTURE_READBACKS(QOR_TEXTUREGL_DECLARE_READBACK)
#undef QOR_TEXTUREGL_DECLARE_READBACK

    Vec2i size() const override { return _size; }
    Rectf texCoords() const override;
    Vec2i texSize() const override { return _texSize; }
    RawPixelFormat pixelFormat() const override { return _format; }

    GLuint id() const { return _id; }
    GLenum target() const { return _target; }
    int border() const { return _border; }

    // Gives the GL name back and takes one of the new size (same format and parameters). False
    // when the GPU had no room; the texture then has no GL name until a resize succeeds.
    bool resize(const Vec2i& size);
    // The minification and magnification filters the draw parameters ask for.
    std::pair<GLenum, GLenum> getInterpolationMode() const;

    // Deletes the free textures of the cache. GL thread.
    static void clearCache();
    // Drops the cache when no texture is used. GL thread.
    static void freeCache();
    // Bytes a texture of that size, format and parameters costs in the cache's account.
    static std::uint64_t ComputeMemoryCost(const Vec2i& size, RawPixelFormat format,
                                           const DrawParameters& params);
    // Whether a read-back into `pixels` must go through a temporary: an ATI driver, 3 channels, a
    // 64-byte aligned destination and a row length that is not a power of two.
    static bool isMemoryTooAligned(int channels, int rowLength, const void* pixels);

private:
    // Allocates the GL name for _texSize and sets wrapping and filters. Throws std::bad_alloc.
    void allocate();
    void applyFilters();
    template <class T, int N>
    void upload(const ImageDataIn<T, N>& img, const Recti& rect, RawPixelFormat transfer);
    template <class T, int N>
    void readBack(const ImageDataOut<T, N>& dst, GLenum glFormat, GLenum glType) const;
    void readBackInto(void* pixels, int rowLength, GLenum glFormat, GLenum glType) const;

    SharedPtr<TextureGLCache> _cache;
    GLuint _id = 0;
    Vec2i _size;
    Vec2i _texSize;
    GLenum _target = GL_TEXTURE_2D;
    RawPixelFormat _format;
    DrawParameters _drawParameters;
    int _border = 0;
};

}  // namespace qor::gpu
