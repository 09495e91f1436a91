#include "gpu/TextureOperator.h"

#include "base/Log.h"
#include "gpu/detail/BadAllocRetry.h"

namespace qor::gpu {

TextureOperator::TextureOperator(const SharedPtr<RenderTarget>& target, const Recti& rect)
    : _target(target), _subrect(rect) {
    QOR_ASSERT_TEXT(_target, "_target");
}

bool TextureOperator::resize(const Vec2i& size) {
    const bool whole = _target && _subrect.extents() == _target->size() &&
                       _subrect.mins == Vec2i(0, 0);
    QOR_ASSERT_TEXT(whole, "_subrect.extents() == _target->size() && _subrect.mins == Vec2i(0,0)");
    if (!whole || !_target->resize(size)) return false;
    _subrect = Recti(size);
    return true;
}

void TextureOperator::setRect(const Recti& rect) {
    const bool inside = _target && (rect & Recti(_target->size())) == rect;
    QOR_ASSERT_TEXT(inside, "(rect & Recti(_target->size())) == rect");
    if (inside) _subrect = rect;
}

void TextureOperator::set(const std::string& name, Value value) {
    for (NamedUniform& u : _uniforms) {
        if (u.name != name) continue;
        u.value = std::move(value);
        return;
    }
    _uniforms.push_back(NamedUniform{name, std::move(value)});
}

void TextureOperator::setUniform(const std::string& name, float value) { set(name, value); }
void TextureOperator::setUniform(const std::string& name, const Vec2f& value) { set(name, value); }
void TextureOperator::setUniform(const std::string& name, const Vec3f& value) { set(name, value); }
void TextureOperator::setUniform(const std::string& name, const SharedPtr<Texture>& value) {
    set(name, value);
}

SharedPtr<Drawer> TextureOperator::start() {
    QOR_ASSERT_TEXT(_target, "_target");
    return _target ? _target->beginRender() : nullptr;
}

void TextureOperator::applyUniforms() {
    for (const NamedUniform& u : _uniforms) {
        const int index = _shader->uniformIndex(u.name);
        if (index < 0) continue;
        std::visit([&](const auto& v) { _shader->setUniform(index, v); }, u.value);
    }
}

void TextureOperator::execute(const SharedPtr<Drawer>& drawer) {
    const bool ready = drawer && _shader;
    QOR_ASSERT_TEXT(ready, "drawer && _shader");
    if (!ready) return;
    ShadingState state;
    state.shader = _shader;
    const std::uint64_t bytes = std::uint64_t(width()) * std::uint64_t(height()) * 16;
    detail::runWithGPURetry(
        [&] {
            applyUniforms();
            drawer->drawQuad(Rectf(Vec2f(_subrect.mins), Vec2f(_subrect.maxs)), _texCoords,
                             state);
        },
        bytes, false);
}

void TextureOperator::finish(const SharedPtr<Drawer>& drawer) {
    QOR_ASSERT_TEXT(_target, "_target");
    if (_target) _target->finishRender(drawer);
}

}  // namespace qor::gpu
