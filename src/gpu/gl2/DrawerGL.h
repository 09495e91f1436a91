#pragma once
// DrawerGL: the Drawer on OpenGL's compatibility profile, drawing into whatever framebuffer the
// render target bound, with client-side vertex arrays. State changes go through the glw shadow.
//
// Applying a ShadingState before each draw: the program (or none); texture units 1 to 15
// unbound, so that stale units are never sampled; the state's texture on unit 0 (or none), then
// the textures the program's own sampler uniforms hold; the colour; the blend mode (see
// ShadingState.h); line width and stipple.
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
    // Each asserts "_isRendering", and that the arrays run in parallel.
    QOR_DRAWER_DRAW_OVERRIDES

    // Sets GL up for `state`; false when the state cannot be drawn (asserted).
    static bool applyShadingState(const ShadingState& state);

    bool isRendering() const { return _isRendering; }

private:
    // The one draw behind the four forms; `indices` null for an array draw.
    void draw(Primitive primitive, const Points& points, const float* texCoords,
              std::size_t texCoordCount, int texComponents, const Colors& colors,
              const Indices* indices, const ShadingState& state);

    bool _isRendering = false;
};

}  // namespace qor::gpu
