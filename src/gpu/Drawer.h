#pragma once
// Drawer: the painting interface of a render target, handed out by RenderTarget::beginRender and
// ended by finishRender. It takes rectangles, polygons, lines and images with a ShadingState.
// DrawerGL (gpu/gl2) carries the drawing out in OpenGL; BatchDrawer collects geometry in front of
// another drawer to cut the number of draw calls.
//
// Geometry: drawArray and drawIndices take parallel arrays: points (drawing coordinates), texture
// coordinates with 2 or 4 components (empty for none), colours (empty: the state's colour) and,
// for drawIndices, indices into them. The shapes are built on these two, once, here.
// Primitives: PrimTriangles, PrimLines, PrimLineStrip.
//
// Coordinates: drawing coordinates are those the target set with setOrtho; viewport and clipping
// rectangles are in pixels of the target.
//
// Ownership: held by SharedPtr; a target keeps its drawer for its whole life.
// Thread contract: GL thread only, between beginRender and finishRender.

#include <cstdint>
#include <vector>

#include "gpu/ShadingState.h"

namespace qor::gpu {

enum Primitive : int {
    PrimTriangles = 1,
    PrimLines = 2,
    PrimLineStrip = 3,
};

using Points = std::vector<Vec2f>;
using TexCoords2 = std::vector<Vec2f>;
using TexCoords4 = std::vector<Vec4f>;
using Colors = std::vector<Vec4f>;
using Indices = std::vector<std::uint32_t>;

class Drawer {
public:
    virtual ~Drawer();
    // Called by the target when drawing starts.
    virtual void begin() {}
    // Called when drawing ends; what was drawn is then in the target.
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

    virtual void drawArray(Primitive primitive, const Points& points, const TexCoords2& texCoords,
                           const Colors& colors, const ShadingState& state) = 0;
    virtual void drawArray(Primitive primitive, const Points& points, const TexCoords4& texCoords,
                           const Colors& colors, const ShadingState& state) = 0;
    virtual void drawIndices(Primitive primitive, const Points& points, const TexCoords2& texCoords,
                             const Colors& colors, const Indices& indices,
                             const ShadingState& state) = 0;
    virtual void drawIndices(Primitive primitive, const Points& points, const TexCoords4& texCoords,
                             const Colors& colors, const Indices& indices,
                             const ShadingState& state) = 0;

    // The shapes. A quad without texture coordinates is filled with the state's colour; with a
    // texture it shows `texRect` of it (texture coordinates), or the whole image of `texture`.
    virtual void drawQuad(const Rectf& rect, const ShadingState& state);
    virtual void drawQuad(const Rectf& rect, const Rectf& texRect, const ShadingState& state);
    virtual void drawQuad(const Rectf& rect, const SharedPtr<Texture>& texture,
                          const ShadingState& state);
    // Four corners in the order of the texture rectangle's (xmin, ymin), (xmax, ymin),
    // (xmax, ymax), (xmin, ymax).
    virtual void drawQuad(const Vec2f (&corners)[4], const Rectf& texRect,
                          const ShadingState& state);
    virtual void drawRectOutline(const Rectf& rect, const ShadingState& state);
    // A convex polygon, filled. `imgCoords` are texture coordinates of `texture` (needed only
    // with one); `pointColors` are per corner, or empty.
    virtual void drawPolygon(const Points& polygonCoords, const ShadingState& state);
    virtual void drawPolygon(const Points& polygonCoords, const TexCoords2& imgCoords,
                             const Colors& pointColors, const SharedPtr<Texture>& texture,
                             const ShadingState& state);
    // A polygon with 4-component texture coordinates (projective texturing).
    virtual void drawPolygon(const Points& points, const TexCoords4& imgCoords,
                             const Colors& pointColors, const ShadingState& state);
    virtual void drawPolygonOutline(const Points& points, const ShadingState& state);
    virtual void drawLine(const Vec2f& from, const Vec2f& to, const ShadingState& state);
    virtual void drawLineStrip(const Points& points, const ShadingState& state);

protected:
    Drawer() = default;
    Drawer(const Drawer&) = delete;
    Drawer& operator=(const Drawer&) = delete;
};

}  // namespace qor::gpu

// Declares the four draw operations in a drawer that implements them.
#define QOR_DRAWER_DRAW_OVERRIDES                                                               \
    void drawArray(::qor::gpu::Primitive primitive, const ::qor::gpu::Points& points,           \
                   const ::qor::gpu::TexCoords2& texCoords, const ::qor::gpu::Colors& colors,   \
                   const ::qor::gpu::ShadingState& state) override;                             \
    void drawArray(::qor::gpu::Primitive primitive, const ::qor::gpu::Points& points,           \
                   const ::qor::gpu::TexCoords4& texCoords, const ::qor::gpu::Colors& colors,   \
                   const ::qor::gpu::ShadingState& state) override;                             \
    void drawIndices(::qor::gpu::Primitive primitive, const ::qor::gpu::Points& points,         \
                     const ::qor::gpu::TexCoords2& texCoords, const ::qor::gpu::Colors& colors, \
                     const ::qor::gpu::Indices& indices, const ::qor::gpu::ShadingState& state) \
        override;                                                                               \
    void drawIndices(::qor::gpu::Primitive primitive, const ::qor::gpu::Points& points,         \
                     const ::qor::gpu::TexCoords4& texCoords, const ::qor::gpu::Colors& colors, \
                     const ::qor::gpu::Indices& indices, const ::qor::gpu::ShadingState& state) \
        override;
