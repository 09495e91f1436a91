#pragma once
// DrawerGL: the Drawer on OpenGL's compatibility profile, drawing into whatever framebuffer the
// render target bound. State changes go through the glw shadow.
//
// Ownership: made and kept by a render target. Thread contract: GL thread only.

#include "gpu/Drawer.h"

namespace qor::gpu {

class DrawerGL : public Drawer {
public:
    DrawerGL() = default;

    // Starts a render: blending off, no clipping, no program.
    void begin() override;
    void end() override;
    void setClipping(const Recti& rect, bool enabled) override;
    void clear(float r, float g, float b, float a) override;
    void setViewport(const Recti& rect) override;
    void setOrtho(const Rectf& area, float zNear, float zFar) override;
    // Asserts "imageData->width()>=rect.width() && imageData->height()>=rect.height()".
    void readPixels(const Recti& rect, const ImageDataOut<unsigned char, 4>& data) override;

    bool isRendering() const { return _isRendering; }

private:
    bool _isRendering = false;
};

}  // namespace qor::gpu
