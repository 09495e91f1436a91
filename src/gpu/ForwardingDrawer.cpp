#include "gpu/ForwardingDrawer.h"

namespace qor::gpu {

void ForwardingDrawer::begin() {
    if (_drawer) _drawer->begin();
}

void ForwardingDrawer::end() {
    beforeForward();
    if (_drawer) _drawer->end();
}

void ForwardingDrawer::setClipping(const Recti& rect, bool enabled) {
    beforeForward();
    if (_drawer) _drawer->setClipping(rect, enabled);
}

void ForwardingDrawer::clear(float r, float g, float b, float a) {
    beforeForward();
    if (_drawer) _drawer->clear(r, g, b, a);
}

void ForwardingDrawer::setViewport(const Recti& rect) {
    beforeForward();
    if (_drawer) _drawer->setViewport(rect);
}

void ForwardingDrawer::setOrtho(const Rectf& area, float zNear, float zFar) {
    beforeForward();
    if (_drawer) _drawer->setOrtho(area, zNear, zFar);
}

void ForwardingDrawer::readPixels(const Recti& rect, const ImageDataOut<unsigned char, 4>& data) {
    beforeForward();
    if (_drawer) _drawer->readPixels(rect, data);
}

void ForwardingDrawer::drawArray(Primitive primitive, const Points& points,
                                 const TexCoords2& texCoords, const Colors& colors,
                                 const ShadingState& state) {
    if (_drawer) _drawer->drawArray(primitive, points, texCoords, colors, state);
}

void ForwardingDrawer::drawArray(Primitive primitive, const Points& points,
                                 const TexCoords4& texCoords, const Colors& colors,
                                 const ShadingState& state) {
    if (_drawer) _drawer->drawArray(primitive, points, texCoords, colors, state);
}

void ForwardingDrawer::drawIndices(Primitive primitive, const Points& points,
                                   const TexCoords2& texCoords, const Colors& colors,
                                   const Indices& indices, const ShadingState& state) {
    if (_drawer) _drawer->drawIndices(primitive, points, texCoords, colors, indices, state);
}

void ForwardingDrawer::drawIndices(Primitive primitive, const Points& points,
                                   const TexCoords4& texCoords, const Colors& colors,
                                   const Indices& indices, const ShadingState& state) {
    if (_drawer) _drawer->drawIndices(primitive, points, texCoords, colors, indices, state);
}

}  // namespace qor::gpu
