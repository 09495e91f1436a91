#pragma once
// RenderTarget: what a Drawer draws on. FramebufferTarget is the visible frame buffer of the
// context; TextureTarget draws into a texture (through a pooled framebuffer object in the GL
// form) and reads its pixels back to the processor.
//
// Drawing: beginRender() returns the drawer, set up so that drawing coordinates run from 0 to
// size() (shifted by the read-back offset on a texture target); finishRender(drawer) ends it. At
// most one target in the process renders at a time: beginRender during another render throws
// RenderTargetException (declared in imaging/ImagingException.h).
//
// Read-back: readBack<Channels>(data, subrect) writes the texture rectangle `subrect` to the
// origin of `data`, converted to the element type of `data`. It goes through the GPU where the
// format can be rendered and falls back to reading the whole texture on any failure there.
//
// Ownership: held by SharedPtr, made by the Renderer; a texture target shares its texture.
// Thread contract: every operation runs on the GL thread.

#include "gpu/Texture.h"
#include "imaging/ImagingException.h"

namespace qor::gpu {

class Drawer;

class RenderTarget {
public:
    virtual ~RenderTarget();
    // Changes the size. False when it could not (out of GPU memory, or while rendering).
    virtual bool resize(const Vec2i& size) = 0;
    virtual Vec2i size() const = 0;
    // Starts drawing; throws RenderTargetException during another render or when the target
    // cannot be bound.
    virtual SharedPtr<Drawer> beginRender() = 0;
    // Ends the drawing begun by beginRender, with the drawer it returned.
    virtual void finishRender(const SharedPtr<Drawer>& drawer) = 0;
    // Whether drawing goes straight into the target (framebuffer objects), rather than through
    // the back buffer and a copy.
    virtual bool offscreenRenderSupport() const = 0;

protected:
    RenderTarget() = default;
    RenderTarget(const RenderTarget&) = delete;
    RenderTarget& operator=(const RenderTarget&) = delete;
};

class FramebufferTarget : public RenderTarget {
public:
    // The size of the surface the context draws on now; (0, 0) for a context without one.
    virtual Vec2i drawableSize() const = 0;
};

// The read-back overloads: X(Name, channels, element type), in slot order.
#define QOR_TARGET_READBACKS(X) \
    X(RGBA, 4, float)           \
    X(RGBA, 4, half)            \
    X(RGBA, 4, unsigned short)  \
    X(RGBA, 4, unsigned char)   \
    X(BGRA, 4, unsigned char)   \
    X(RGB, 3, float)            \
    X(RGB, 3, half)             \
    X(RGB, 3, unsigned short)   \
    X(RGB, 3, unsigned char)    \
    X(Red, 1, float)            \
    X(Red, 1, half)             \
    X(Red, 1, unsigned short)   \
    X(Red, 1, unsigned char)

class TextureTarget : public RenderTarget {
public:
    virtual SharedPtr<Texture> texture() const = 0;
    // Changes the filters of the texture; mipmapping cannot change (asserted).
    virtual void setDrawParameters(const DrawParameters& params) = 0;
    virtual DrawParameters getDrawParameters() const = 0;

#define QOR_TARGET_DECLARE_READBACK(Name, N, T) \
    virtual void readBack##Name(const ImageDataOut<T, N>& data, const Recti& subrect) = 0;
    QOR_TARGET_READBACKS(QOR_TARGET_DECLARE_READBACK)
#undef QOR_TARGET_DECLARE_READBACK

    // The drawing coordinates of the texture's origin: with offset o, the texture shows the area
    // from o to o + size() of what is drawn.
    virtual Vec2i readBackOffset() const = 0;
    virtual void setReadBackOffset(const Vec2i& offset) = 0;

    // Copies the rectangle `srcrect` of `source` into `rect` of this target's texture, scaled
    // when the sizes differ (scaling needs the GPU path). Both rectangles are in texels of the
    // allocated sizes.
    virtual void copyFromTexture(const SharedPtr<Texture>& source, const Recti& rect,
                                 const Recti& srcrect) = 0;
    // The mirror: `srcrect` of this target's texture into `rect` of `destination`.
    virtual void copyToTexture(const SharedPtr<Texture>& destination, const Recti& rect,
                               const Recti& srcrect) = 0;
};

}  // namespace qor::gpu
