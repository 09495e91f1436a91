#pragma once
// ShadingState: how a shape is painted: program, texture, colour, blending and line style. A
// plain value; drawers compare states to find where one batch of geometry must end.
//
// Blend modes (the factors DrawerGL gives glwBlendMode, colour then alpha):
//   BlendReplace        2   ONE, ZERO                       (blending off)
//   BlendAlpha          3   SRC_ALPHA, ONE_MINUS_SRC_ALPHA  alpha: ONE, ONE_MINUS_SRC_ALPHA
//   BlendPremultiplied  4   ONE, ONE_MINUS_SRC_ALPHA
//   BlendAdd            5   ONE, ONE
//   BlendMultiply       6   DST_COLOR, ZERO                 alpha: ZERO, ONE
//   BlendScreen         7   ONE, ONE_MINUS_SRC_COLOR        alpha: ONE, ONE_MINUS_SRC_ALPHA
//   BlendConstantAlpha  8   CONSTANT_ALPHA, ONE_MINUS_CONSTANT_ALPHA, with blendFactor
//   BlendConstantAdd    9   CONSTANT_ALPHA, ONE, with blendFactor
//   BlendDestinationAlpha 10 DST_ALPHA, ONE_MINUS_DST_ALPHA  alpha: ZERO, ONE
//   BlendBehind         11  ONE_MINUS_DST_ALPHA, ONE        (paints under what is there)
//   BlendErase          12  ZERO, ONE_MINUS_SRC_ALPHA       (removes by the source's alpha)
// Other values are refused by the drawers (asserted).
//
// Thread contract: a value; distinct objects may be used on any threads.

#include "gpu/Shader.h"

namespace qor::gpu {

enum BlendMode : int {
    BlendReplace = 2,
    BlendAlpha = 3,
    BlendPremultiplied = 4,
    BlendAdd = 5,
    BlendMultiply = 6,
    BlendScreen = 7,
    BlendConstantAlpha = 8,
    BlendConstantAdd = 9,
    BlendDestinationAlpha = 10,
    BlendBehind = 11,
    BlendErase = 12,
};

struct ShadingState {
    SharedPtr<Shader> shader;    // null: fixed-function drawing
    SharedPtr<Texture> texture;  // null: untextured; sampled on unit 0
    Vec4f color{1, 1, 1, 1};     // multiplies the texture, or is the colour of untextured shapes
    int blendMode = BlendReplace;
    float blendFactor = 1.0f;  // the constant alpha of BlendConstantAlpha and BlendConstantAdd
    float lineWidth = 1.0f;
    int lineStippleFactor = 1;
    unsigned short lineStipplePattern = 0xFFFF;  // 0xFFFF: solid lines

    ShadingState() = default;
    explicit ShadingState(const Vec4f& color_, int blendMode_ = BlendReplace)
        : color(color_), blendMode(blendMode_) {}

    friend bool operator==(const ShadingState& a, const ShadingState& b) {
        return a.shader == b.shader && a.texture == b.texture && a.color == b.color &&
               a.blendMode == b.blendMode && a.blendFactor == b.blendFactor &&
               a.lineWidth == b.lineWidth && a.lineStippleFactor == b.lineStippleFactor &&
               a.lineStipplePattern == b.lineStipplePattern;
    }
    friend bool operator!=(const ShadingState& a, const ShadingState& b) { return !(a == b); }
};

}  // namespace qor::gpu
