#pragma once
// TextureOperator: runs a shader over a rectangle of a render target, the building block of GPU
// filters. Set the shader, its named uniforms and the texture coordinates, then
//     SharedPtr<Drawer> d = op.start(); op.execute(d); op.finish(d);
// which draws one quad over the rectangle with the shader bound and the uniforms set.
//
// Uniforms are kept by name and sent on each execute; a name the program does not have (a
// compiler may drop unused uniforms) is skipped.
//
// Ownership: shares the target, the shader and the textures of its uniforms while it lives.
// Thread contract: GL thread only, like the target it draws on.

#include <string>
#include <variant>
#include <vector>

#include "gpu/Drawer.h"
#include "gpu/RenderTarget.h"
#include "gpu/Shader.h"

namespace qor::gpu {

class TextureOperator {
public:
    // Draws on `rect` of `target` (pixels of the target). Texture coordinates default to the
    // unit square.
    TextureOperator(const SharedPtr<RenderTarget>& target, const Recti& rect);

    Vec2i size() const { return _subrect.extents(); }
    int width() const { return _subrect.width(); }
    int height() const { return _subrect.height(); }
    // Resizes the target; the rectangle must cover the whole target (asserted
    // "_subrect.extents() == _target->size() && _subrect.mins == Vec2i(0,0)") and follows it.
    // False when the target could not be resized.
    bool resize(const Vec2i& size);
    // Asserts "(rect & Recti(_target->size())) == rect".
    void setRect(const Recti& rect);
    const Recti& rect() const { return _subrect; }
    void setTexCoords(const Rectf& texCoords) { _texCoords = texCoords; }
    const Rectf& texCoords() const { return _texCoords; }
    void setShader(const SharedPtr<Shader>& shader) { _shader = shader; }
    const SharedPtr<Shader>& shader() const { return _shader; }
    const SharedPtr<RenderTarget>& target() const { return _target; }

    void setUniform(const std::string& name, float value);
    void setUniform(const std::string& name, const Vec2f& value);
    void setUniform(const std::string& name, const Vec3f& value);
    void setUniform(const std::string& name, const SharedPtr<Texture>& value);

    // Begins rendering on the target; throws RenderTargetException as beginRender does.
    SharedPtr<Drawer> start();
    // Sets the uniforms and draws the quad, retrying after std::bad_alloc with eviction of GPU
    // memory; throws std::bad_alloc "std::bad_alloc(): Can't get passed std::bad_alloc! crash is
    // iminent." after the tenth failure.
    void execute(const SharedPtr<Drawer>& drawer);
    // Ends the render begun by start.
    void finish(const SharedPtr<Drawer>& drawer);

private:
    using Value = std::variant<float, Vec2f, Vec3f, SharedPtr<Texture>>;
    struct NamedUniform {
        std::string name;
        Value value;
    };
    void set(const std::string& name, Value value);
    void applyUniforms();

    SharedPtr<RenderTarget> _target;
    Recti _subrect;
    SharedPtr<Shader> _shader;
    Rectf _texCoords{Vec2f(0, 0), Vec2f(1, 1)};
    std::vector<NamedUniform> _uniforms;
};

}  // namespace qor::gpu
