#include "gpu/Drawer.h"

#include "base/Log.h"

namespace qor::gpu {

namespace {

// The two triangles of a quad of corners 0..3 in order.
const Indices QuadIndices = {0, 1, 2, 0, 2, 3};

// The triangles of a convex polygon, as a fan around its first corner.
Indices fanIndices(std::size_t corners) {
    Indices indices;
    for (std::size_t i = 1; i + 1 < corners; ++i) {
        indices.push_back(0);
        indices.push_back(std::uint32_t(i));
        indices.push_back(std::uint32_t(i + 1));
    }
    return indices;
}

Points cornersOf(const Rectf& r) {
    return {Vec2f(r.xmin(), r.ymin()), Vec2f(r.xmax(), r.ymin()), Vec2f(r.xmax(), r.ymax()),
            Vec2f(r.xmin(), r.ymax())};
}

}  // namespace

Drawer::~Drawer() = default;

void Drawer::readPixels(const Recti&, const ImageDataOut<unsigned char, 4>&) {
    QOR_ASSERT_TEXT(false, "false");
}

void Drawer::drawQuad(const Rectf& rect, const ShadingState& state) {
    drawIndices(PrimTriangles, cornersOf(rect), TexCoords2(), Colors(), QuadIndices, state);
}

void Drawer::drawQuad(const Rectf& rect, const Rectf& texRect, const ShadingState& state) {
    drawIndices(PrimTriangles, cornersOf(rect), cornersOf(texRect), Colors(), QuadIndices, state);
}

void Drawer::drawQuad(const Rectf& rect, const SharedPtr<Texture>& texture,
                      const ShadingState& state) {
    QOR_ASSERT_TEXT(texture, "texture");
    if (!texture) return;
    ShadingState textured = state;
    textured.texture = texture;
    drawQuad(rect, texture->texCoords(), textured);
}

void Drawer::drawQuad(const Vec2f (&corners)[4], const Rectf& texRect, const ShadingState& state) {
    const Points points(corners, corners + 4);
    drawIndices(PrimTriangles, points, cornersOf(texRect), Colors(), QuadIndices, state);
}

void Drawer::drawRectOutline(const Rectf& rect, const ShadingState& state) {
    Points points = cornersOf(rect);
    points.push_back(points.front());
    drawArray(PrimLineStrip, points, TexCoords2(), Colors(), state);
}

void Drawer::drawPolygon(const Points& polygonCoords, const ShadingState& state) {
    if (polygonCoords.size() < 3) return;
    drawIndices(PrimTriangles, polygonCoords, TexCoords2(), Colors(),
                fanIndices(polygonCoords.size()), state);
}

void Drawer::drawPolygon(const Points& polygonCoords, const TexCoords2& imgCoords,
                         const Colors& pointColors, const SharedPtr<Texture>& texture,
                         const ShadingState& state) {
    const bool coordsOk = !texture || polygonCoords.size() == imgCoords.size();
    QOR_ASSERT_TEXT(coordsOk, "!tex || polygonCoords.size() == imgCoords.size()");
    const bool colorsOk = pointColors.empty() || polygonCoords.size() == pointColors.size();
    QOR_ASSERT_TEXT(colorsOk, "pointColors.empty() || polygonCoords.size() == pointColors.size()");
    if (!coordsOk || !colorsOk || polygonCoords.size() < 3) return;
    ShadingState s = state;
    if (texture) s.texture = texture;
    drawIndices(PrimTriangles, polygonCoords, texture ? imgCoords : TexCoords2(), pointColors,
                fanIndices(polygonCoords.size()), s);
}

void Drawer::drawPolygon(const Points& points, const TexCoords4& imgCoords,
                         const Colors& pointColors, const ShadingState& state) {
    const bool coordsOk = points.size() == imgCoords.size();
    QOR_ASSERT_TEXT(coordsOk, "points.size() == imgCoords.size()");
    const bool colorsOk = pointColors.empty() || points.size() == pointColors.size();
    QOR_ASSERT_TEXT(colorsOk, "pointColors.empty() || points.size() == pointColors.size()");
    if (!coordsOk || !colorsOk || points.size() < 3) return;
    drawIndices(PrimTriangles, points, imgCoords, pointColors, fanIndices(points.size()), state);
}

void Drawer::drawPolygonOutline(const Points& points, const ShadingState& state) {
    if (points.size() < 2) return;
    Points closed = points;
    closed.push_back(points.front());
    drawArray(PrimLineStrip, closed, TexCoords2(), Colors(), state);
}

void Drawer::drawLine(const Vec2f& from, const Vec2f& to, const ShadingState& state) {
    drawArray(PrimLines, Points{from, to}, TexCoords2(), Colors(), state);
}

void Drawer::drawLineStrip(const Points& points, const ShadingState& state) {
    if (points.size() < 2) return;
    drawArray(PrimLineStrip, points, TexCoords2(), Colors(), state);
}

}  // namespace qor::gpu
