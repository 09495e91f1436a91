#include "gpu/gl2/DrawerGL.h"

#include "base/Log.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/PixelStore.h"
#include "gpu/gl2/ShaderGL.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

namespace {

static_assert(sizeof(Vec2f) == 2 * sizeof(float) && sizeof(Vec4f) == 4 * sizeof(float),
              "vectors are handed to GL as arrays of floats");

struct BlendFactors {
    GLenum src, dst, srcAlpha, dstAlpha;
    bool constantAlpha;
};

// The factors of the blend modes 2 to 12 (see ShadingState.h); false for other values.
bool blendFactors(int mode, BlendFactors& f) {
    switch (mode) {
        case BlendReplace:
            f = {GL_ONE, GL_ZERO, GL_ONE, GL_ZERO, false};
            return true;
        case BlendAlpha:
            f = {GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE_MINUS_SRC_ALPHA, false};
            return true;
        case BlendPremultiplied:
            f = {GL_ONE, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE_MINUS_SRC_ALPHA, false};
            return true;
        case BlendAdd:
            f = {GL_ONE, GL_ONE, GL_ONE, GL_ONE, false};
            return true;
        case BlendMultiply:
            f = {GL_DST_COLOR, GL_ZERO, GL_ZERO, GL_ONE, false};
            return true;
        case BlendScreen:
            f = {GL_ONE, GL_ONE_MINUS_SRC_COLOR, GL_ONE, GL_ONE_MINUS_SRC_ALPHA, false};
            return true;
        case BlendConstantAlpha:
            f = {GL_CONSTANT_ALPHA, GL_ONE_MINUS_CONSTANT_ALPHA, GL_CONSTANT_ALPHA,
                 GL_ONE_MINUS_CONSTANT_ALPHA, true};
            return true;
        case BlendConstantAdd:
            f = {GL_CONSTANT_ALPHA, GL_ONE, GL_CONSTANT_ALPHA, GL_ONE, true};
            return true;
        case BlendDestinationAlpha:
            f = {GL_DST_ALPHA, GL_ONE_MINUS_DST_ALPHA, GL_ZERO, GL_ONE, false};
            return true;
        case BlendBehind:
            f = {GL_ONE_MINUS_DST_ALPHA, GL_ONE, GL_ONE_MINUS_DST_ALPHA, GL_ONE, false};
            return true;
        case BlendErase:
            f = {GL_ZERO, GL_ONE_MINUS_SRC_ALPHA, GL_ZERO, GL_ONE_MINUS_SRC_ALPHA, false};
            return true;
        default:
            return false;
    }
}

GLenum glPrimitive(Primitive primitive, bool& ok) {
    ok = true;
    switch (primitive) {
        case PrimTriangles:
            return GL_TRIANGLES;
        case PrimLines:
            return GL_LINES;
        case PrimLineStrip:
            return GL_LINE_STRIP;
    }
    ok = false;
    return GL_TRIANGLES;
}

}  // namespace

bool DrawerGL::applyShadingState(const ShadingState& s) {
    // Program.
    auto shader = dynamic_ptr_cast<ShaderGL>(s.shader);
    if (s.shader) {
        QOR_ASSERT_TEXT(shader, "util::dynamic_ptr_cast<ShaderGL>(s.shader())");
        if (!shader) return false;
    }
    glwUseProgramObject(shader ? shader->program() : 0);
    // Textures.
    for (unsigned unit = 1; unit < MAX_TEXUNITS; ++unit) glwUnbindTexture(unit);
    auto texture = dynamic_ptr_cast<TextureGL>(s.texture);
    if (s.texture) {
        QOR_ASSERT_TEXT(texture, "util::dynamic_ptr_cast<TextureGL>(s.texture())");
        if (!texture) return false;
        glwBindTexture(0, texture->target(), texture->id());
    } else {
        glwUnbindTexture(0);
    }
    if (shader) shader->bindTextures();
    // Colour and blending.
    glColor4f(s.color.x, s.color.y, s.color.z, s.color.w);
    BlendFactors f{};
    if (!blendFactors(s.blendMode, f)) {
        QOR_LOG(LogError, "DrawerGL: unknown blend mode %*", s.blendMode);
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    if (f.constantAlpha) {
        const bool hasBlendColor = epoxy_gl_version() >= 14 ||
                                   epoxy_has_gl_extension("GL_EXT_blend_color") ||
                                   epoxy_has_gl_extension("GL_ARB_imaging");
        QOR_ASSERT_TEXT(hasBlendColor, "false");
        if (!hasBlendColor) return false;
        glBlendColor(0, 0, 0, s.blendFactor);
    }
    glwBlendMode(f.src, f.dst, f.srcAlpha, f.dstAlpha);
    // Lines.
    glwLineWidth(s.lineWidth);
    glwLineStipple(s.lineStippleFactor, s.lineStipplePattern);
    if (s.lineStipplePattern == 0xFFFF)
        glDisable(GL_LINE_STIPPLE);
    else
        glEnable(GL_LINE_STIPPLE);
    return true;
}

void DrawerGL::draw(Primitive primitive, const Points& points, const float* texCoords,
                    std::size_t texCoordCount, int texComponents, const Colors& colors,
                    const Indices* indices, const ShadingState& state) {
    QOR_ASSERT_TEXT(_isRendering, "_isRendering");
    bool known = false;
    const GLenum mode = glPrimitive(primitive, known);
    QOR_ASSERT_TEXT(known, "0");
    const bool parallel = (texCoordCount == 0 || texCoordCount == points.size()) &&
                          (colors.empty() || colors.size() == points.size());
    QOR_ASSERT_TEXT(parallel, "texCoords and colors run in parallel with points");
    if (!_isRendering || !known || !parallel || points.empty()) return;
    if (!applyShadingState(state)) return;

    glEnableClientState(GL_VERTEX_ARRAY);
    glVertexPointer(2, GL_FLOAT, 0, points.data());
    if (texCoordCount) {
        glClientActiveTexture(GL_TEXTURE0);
        glEnableClientState(GL_TEXTURE_COORD_ARRAY);
        glTexCoordPointer(texComponents, GL_FLOAT, 0, texCoords);
    }
    if (!colors.empty()) {
        glEnableClientState(GL_COLOR_ARRAY);
        glColorPointer(4, GL_FLOAT, 0, colors.data());
    }
    if (indices)
        glDrawElements(mode, GLsizei(indices->size()), GL_UNSIGNED_INT, indices->data());
    else
        glDrawArrays(mode, 0, GLsizei(points.size()));
    glDisableClientState(GL_VERTEX_ARRAY);
    if (texCoordCount) glDisableClientState(GL_TEXTURE_COORD_ARRAY);
    if (!colors.empty()) glDisableClientState(GL_COLOR_ARRAY);
}

void DrawerGL::drawArray(Primitive primitive, const Points& points, const TexCoords2& texCoords,
                         const Colors& colors, const ShadingState& state) {
    draw(primitive, points, reinterpret_cast<const float*>(texCoords.data()), texCoords.size(), 2,
         colors, nullptr, state);
}

void DrawerGL::drawArray(Primitive primitive, const Points& points, const TexCoords4& texCoords,
                         const Colors& colors, const ShadingState& state) {
    draw(primitive, points, reinterpret_cast<const float*>(texCoords.data()), texCoords.size(), 4,
         colors, nullptr, state);
}

void DrawerGL::drawIndices(Primitive primitive, const Points& points, const TexCoords2& texCoords,
                           const Colors& colors, const Indices& indices,
                           const ShadingState& state) {
    draw(primitive, points, reinterpret_cast<const float*>(texCoords.data()), texCoords.size(), 2,
         colors, &indices, state);
}

void DrawerGL::drawIndices(Primitive primitive, const Points& points, const TexCoords4& texCoords,
                           const Colors& colors, const Indices& indices,
                           const ShadingState& state) {
    draw(primitive, points, reinterpret_cast<const float*>(texCoords.data()), texCoords.size(), 4,
         colors, &indices, state);
}

void DrawerGL::begin() {
    _isRendering = true;
    glwEnableScissorTest(false);
    glwBlendMode(GL_ONE, GL_ZERO, GL_ONE, GL_ZERO);
    glwUseProgramObject(0);
}

void DrawerGL::end() {
    // Ending twice (a wrapping drawer, then the target) is harmless.
    glwEnableScissorTest(false);
    _isRendering = false;
}

void DrawerGL::setClipping(const Recti& rect, bool enabled) {
    if (!enabled) {
        glwEnableScissorTest(false);
        return;
    }
    const bool ok = rect.xmin() >= 0 && rect.ymin() >= 0 && rect.width() >= 0 && rect.height() >= 0;
    QOR_ASSERT_TEXT(
        ok, "rect.xmin() >= 0 && rect.ymin() >= 0 && rect.width() >= 0 && rect.height() >= 0");
    if (!ok) return;
    glwEnableScissorTest(true);
    glwScissor(rect.xmin(), rect.ymin(), rect.width(), rect.height());
}

void DrawerGL::clear(float r, float g, float b, float a) {
    QOR_ASSERT_TEXT(_isRendering, "_isRendering");
    glwClearColor(r, g, b, a);
    glClear(GL_COLOR_BUFFER_BIT);
}

void DrawerGL::setViewport(const Recti& rect) {
    glwViewport(rect.xmin(), rect.ymin(), rect.width(), rect.height());
}

void DrawerGL::setOrtho(const Rectf& area, float zNear, float zFar) {
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glOrtho(area.xmin(), area.xmax(), area.ymin(), area.ymax(), zNear, zFar);
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
}

void DrawerGL::readPixels(const Recti& rect, const ImageDataOut<unsigned char, 4>& data) {
    QOR_ASSERT_TEXT(data, "imageData");
    if (!data) return;
    const bool fits = data->width() >= rect.width() && data->height() >= rect.height();
    QOR_ASSERT_TEXT(fits, "imageData->width()>=rect.width() && imageData->height()>=rect.height()");
    if (!fits) return;
    PixelStoreScope pack(PixelStoreScope::Pack, int(data->stride() / 4));
    glReadPixels(rect.xmin(), rect.ymin(), rect.width(), rect.height(), GL_RGBA, GL_UNSIGNED_BYTE,
                 data->data());
    checkGLError(GLErrorCheck::Transfer);
}

}  // namespace qor::gpu
