#pragma once
// Texture: pixels held by the graphics card, made by the Renderer. TextureGL (gpu/gl2) is the
// OpenGL form.
//
// Upload: setData<Channels>(img[, rect]) writes the pixels of `img` into the texture, at the
// rectangle `rect` of the image area (the whole image area without one); the view must hold at
// least the rectangle's size. The element types are float, half, 16-bit and 8-bit unsigned
// (BGRA for 8-bit only); the texture converts them to its own format.
// Read-back: getData<Format>(dst) reads the whole allocated texture (texSize(), which may exceed
// size()) into `dst`, converting to the format the name gives.
// Failures: std::bad_alloc when the GPU runs out of memory; other GL errors are logged.
//
// Ownership: held by SharedPtr; the GL object goes back to the texture cache when the last
// reference dies. Thread contract: every operation runs on the GL thread.

#include "gpu/Renderer.h"
#include "imaging/GenImageData.h"
#include "math/GenRect.h"

namespace qor::gpu {

using imaging::GenImageData;
using imaging::half;

template <class T, int N>
using ImageDataIn = SharedPtr<const GenImageData<T, N>>;
template <class T, int N>
using ImageDataOut = SharedPtr<GenImageData<T, N>>;

// The upload families: X(Name, channels, element type), in slot order.
#define QOR_TEXTURE_UPLOADS(X) \
    X(RGB, 3, float)           \
    X(RGB, 3, half)            \
    X(RGB, 3, unsigned short)  \
    X(RGB, 3, unsigned char)   \
    X(RGBA, 4, float)          \
    X(RGBA, 4, half)           \
    X(RGBA, 4, unsigned short) \
    X(RGBA, 4, unsigned char)  \
    X(BGRA, 4, unsigned char)  \
    X(Lum, 1, float)           \
    X(Lum, 1, half)            \
    X(Lum, 1, unsigned short)  \
    X(Lum, 1, unsigned char)   \
    X(Red, 1, float)           \
    X(Red, 1, half)            \
    X(Red, 1, unsigned short)  \
    X(Red, 1, unsigned char)

// The read-backs: X(Name, format read into, channels, element type), in slot order.
#define QOR_TEXTURE_READBACKS(X)            \
    X(RGB8U, PfRGB8, 3, unsigned char)      \
    X(RGB16U, PfRGB16, 3, unsigned short)   \
    X(RGB16F, PfRGB16F, 3, half)            \
    X(RGB32F, PfRGB32F, 3, float)           \
    X(RGBA8, PfRGBA8, 4, unsigned char)     \
    X(BGRA8, PfBGRA8, 4, unsigned char)     \
    X(BGRA32F, PfInvalid, 4, float)         \
    X(RGBA16U, PfRGBA16, 4, unsigned short) \
    X(RGBA16F, PfRGBA16F, 4, half)          \
    X(RGBA32F, PfRGBA32F, 4, float)         \
    X(Red8, PfRed8, 1, unsigned char)       \
    X(Red16, PfRed16, 1, unsigned short)    \
    X(Red16F, PfRed16F, 1, half)            \
    X(Red32F, PfRed32F, 1, float)

class Texture {
public:
    virtual ~Texture();

    // Changes the filters. Mipmapping cannot change on a texture (asserted).
    virtual void setDrawParameters(const DrawParameters& params) = 0;
    virtual DrawParameters getDrawParameters() const = 0;
    // Builds the mipmap levels from level 0; asserts that the texture is mipmapped.
    virtual void updateMipmaps() = 0;
    // Whether setDrawParameters(params) can apply: only the filters may differ.
    virtual bool compatibleDrawParameters(const DrawParameters& params) const = 0;

#define QOR_TEXTURE_DECLARE_UPLOAD(Name, N, T)                                              \
    void setData##Name(const ImageDataIn<T, N>& img) { setData##Name(img, Recti(size())); } \
    virtual void setData##Name(const ImageDataIn<T, N>& img, const Recti& rect) = 0;
    QOR_TEXTURE_UPLOADS(QOR_TEXTURE_DECLARE_UPLOAD)
#undef QOR_TEXTURE_DECLARE_UPLOAD

    // Copies `rect` of the frame buffer being read to the same place of the texture; the
    // rectangle has the texture's size.
    virtual void setDataFromBackbuffer(const Recti& rect) = 0;

#define QOR_TEXTURE_DECLARE_READBACK(Name, F, N, T) \
    virtual void getData##Name(const ImageDataOut<T, N>& dst) const = 0;
    QOR_TEXTURE_READBACKS(QOR_TEXTURE_DECLARE_READBACK)
#undef QOR_TEXTURE_DECLARE_READBACK

    // The size of the image the texture holds.
    virtual Vec2i size() const = 0;
    // The texture coordinates of the image's corners: up to size / texSize for a 2D texture, up
    // to size in texels for a rectangle texture.
    virtual Rectf texCoords() const = 0;
    // The allocated size, at least size().
    virtual Vec2i texSize() const = 0;
    virtual RawPixelFormat pixelFormat() const = 0;

protected:
    Texture() = default;
    Texture(const Texture&) = delete;
    Texture& operator=(const Texture&) = delete;
};

// Uploads `srcrect` of the pixels of `storage` to `at` of `texture`'s image area, read from the
// storage in the texture's own format (converted there when it holds another). Formats without
// an upload (RGB32, RGBA32, the Lum family) are a logged assertion and upload nothing. GL thread;
// throws std::bad_alloc when the GPU or the processor runs out of memory.
void uploadStorage(imaging::RawImageStorage& storage, Texture& texture, const Recti& srcrect,
                   const Vec2i& at);
// The whole storage to the origin.
void uploadStorage(imaging::RawImageStorage& storage, Texture& texture);

}  // namespace qor::gpu
