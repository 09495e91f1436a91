#pragma once
// Drawer: the painting interface of a render target, handed out by RenderTarget::beginRender and
// ended by finishRender. DrawerGL (gpu/gl2) carries the drawing out in OpenGL.
//
// Coordinates: drawing coordinates are those the target set with setOrtho; viewport and clipping
// rectangles are in pixels of the target.
//
// Ownership: held by SharedPtr; a target keeps its drawer for its whole life.
// Thread contract: GL thread only, between beginRender and finishRender.

#include "gpu/Texture.h"

namespace qor::gpu {

class Drawer {
public:
    virtual ~Drawer();
    // Called by the target when drawing starts.
    virtual void begin() {}
    // Called by the target when drawing ends; what was drawn is then in the target.
    virtual void end() = 0;
    // Limits drawing to `rect` (in pixels) when `enabled`; draws everywhere otherwise.
    virtual void setClipping(const Recti& rect, bool enabled) = 0;
    // Fills the target (inside the clipping rectangle, if set) with the colour.
    virtual void clear(float r, float g, float b, float a) = 0;
    virtual void setViewport(const Recti& rect) = 0;
    // The drawing coordinates: `area` fills the viewport; depth runs from zNear to zFar.
    virtual void setOrtho(const Rectf& area, float zNear, float zFar) = 0;
    // Reads `rect` of the target into the origin of `data`. Not every drawer can (asserts
    // "false").
    virtual void readPixels(const Recti& rect, const ImageDataOut<unsigned char, 4>& data);

protected:
    Drawer() = default;
    Drawer(const Drawer&) = delete;
    Drawer& operator=(const Drawer&) = delete;
};

}  // namespace qor::gpu
