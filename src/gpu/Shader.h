#pragma once
// Shader: a GPU program made by the Renderer, with its uniforms reached by index. uniformIndex
// finds a uniform once by name; the setters then take the index, compare with the value the
// program already has, and send only real changes.
//
// Ownership: held by SharedPtr; the renderer keeps every program made from files under its key,
// so a repeated request returns the same object. Thread contract: GL thread only.

#include <string>

#include "gpu/Texture.h"
#include "math/GenVec.h"

namespace qor::gpu {

using Vec3i = math::GenVec<int, 3>;
using Vec4i = math::GenVec<int, 4>;
using math::Vec3f;
using math::Vec4f;

class Shader {
public:
    virtual ~Shader();
    virtual const std::string& name() const = 0;
    // The index of the uniform `name` ("a[0]" and "a" name the same), or -1 when the program has
    // no such active uniform.
    virtual int uniformIndex(const std::string& name) const = 0;

    // Each setter asserts that the index is valid and that the uniform has the setter's type.
    // The texture form binds the texture to the unit the program samples it from.
    virtual void setUniform(int index, const SharedPtr<Texture>& texture) = 0;
    virtual void setUniform(int index, const Vec4i& value) = 0;
    virtual void setUniform(int index, const Vec3i& value) = 0;
    virtual void setUniform(int index, const Vec2i& value) = 0;
    virtual void setUniform(int index, int value) = 0;
    virtual void setUniform(int index, const Vec4f& value) = 0;
    virtual void setUniform(int index, const Vec3f& value) = 0;
    virtual void setUniform(int index, const Vec2f& value) = 0;
    virtual void setUniform(int index, float value) = 0;

protected:
    Shader() = default;
    Shader(const Shader&) = delete;
    Shader& operator=(const Shader&) = delete;
};

}  // namespace qor::gpu
