#pragma once
// ShaderGL: a linked GLSL program with its active uniforms, read once when it is made. Each
// sampler uniform gets a texture unit of its own (in the order the driver lists them), set in the
// program once; the texture setter binds the texture there.
//
// Programs are made by RendererGL::createShader: the source files are found through the
// renderer's search paths and assembled as
//     "\n#version 110\n" defines "\n" ["#define DEBUG 0\n"] "#define FRAGMENT_PROGRAM 0|1\n"
//     filters/common.glsl  the file
// so one file can hold both stages, told apart by FRAGMENT_PROGRAM. The DEBUG line is left out
// when the defines set "#define DEBUG " themselves.
//
// Ownership: owns the program and its two shader objects; deletes them when it goes (GL thread).
// Thread contract: GL thread only.

#include <epoxy/gl.h>

#include <map>
#include <string>
#include <vector>

#include "gpu/Shader.h"

namespace qor::gpu {

class ShaderGL : public Shader {
public:
    struct Uniform {
        enum Type { Float1, Float2, Float3, Float4, Int1, Int2, Int3, Int4, Texture2d };
        std::string name;
        int location = -1;
        Type type = Float1;
        // The value the program has; nothing is known until the first set.
        bool known = false;
        float floats[4] = {0, 0, 0, 0};
        int ints[4] = {0, 0, 0, 0};
        // Not owned: a program kept by the renderer must not keep textures alive.
        WeakSharedPtr<Texture> texture;
        unsigned unit = 0;  // Texture2d: the unit it samples
    };

    // Takes the linked program and its shaders, and reads the active uniforms.
    ShaderGL(std::string name, GLuint program, GLuint vertexShader, GLuint fragmentShader);
    // Asserts "glwIsGLThread()", and deletes the program and its shaders.
    ~ShaderGL() override;

    const std::string& name() const override { return _name; }
    int uniformIndex(const std::string& name) const override;
    void setUniform(int index, const SharedPtr<Texture>& texture) override;
    void setUniform(int index, const Vec4i& value) override;
    void setUniform(int index, const Vec3i& value) override;
    void setUniform(int index, const Vec2i& value) override;
    void setUniform(int index, int value) override;
    void setUniform(int index, const Vec4f& value) override;
    void setUniform(int index, const Vec3f& value) override;
    void setUniform(int index, const Vec2f& value) override;
    void setUniform(int index, float value) override;

    GLuint program() const { return _program; }
    const std::vector<Uniform>& uniforms() const { return _uniforms; }
    // Binds the textures set on the program's sampler uniforms to their units again (after a
    // drawer cleared the units); textures that have gone are skipped.
    void bindTextures() const;

private:
    void reflect();
    // The uniform at `index` if it exists and has `type` (asserted), else null.
    Uniform* checked(int index, Uniform::Type type, const char* typeCondition);
    // Sends `count` values (1 to 4) of T (float or int) unless the uniform holds them already.
    template <class T>
    void setValues(int index, Uniform::Type type, const char* typeCondition, const T* v, int count);

    std::string _name;
    GLuint _program = 0;
    GLuint _vertexShader = 0;
    GLuint _fragmentShader = 0;
    std::vector<Uniform> _uniforms;
    std::map<std::string, int> _indices;
};

}  // namespace qor::gpu
