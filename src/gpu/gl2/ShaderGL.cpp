#include "gpu/gl2/ShaderGL.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

#include "base/Log.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

namespace {

struct TypeInfo {
    ShaderGL::Uniform::Type type;
    bool known;
};

TypeInfo mapType(GLenum glType) {
    using U = ShaderGL::Uniform;
    switch (glType) {
        case GL_FLOAT:
            return {U::Float1, true};
        case GL_FLOAT_VEC2:
            return {U::Float2, true};
        case GL_FLOAT_VEC3:
            return {U::Float3, true};
        case GL_FLOAT_VEC4:
            return {U::Float4, true};
        case GL_INT:
        case GL_BOOL:
            return {U::Int1, true};
        case GL_INT_VEC2:
        case GL_BOOL_VEC2:
            return {U::Int2, true};
        case GL_INT_VEC3:
        case GL_BOOL_VEC3:
            return {U::Int3, true};
        case GL_INT_VEC4:
        case GL_BOOL_VEC4:
            return {U::Int4, true};
        case GL_SAMPLER_2D:
        case GL_SAMPLER_2D_RECT:
            return {U::Texture2d, true};
        default:
            return {U::Float1, false};
    }
}

}  // namespace

ShaderGL::ShaderGL(std::string name, GLuint program, GLuint vertexShader, GLuint fragmentShader)
    : _name(std::move(name)),
      _program(program),
      _vertexShader(vertexShader),
      _fragmentShader(fragmentShader) {
    reflect();
}

ShaderGL::~ShaderGL() {
    if (!glwCheckCorrectThread()) return;
    // A program in use is deleted when it is no longer current; unbinding keeps the shadow true.
    glwUseProgramObject(0);
    if (_program) glDeleteProgram(_program);
    if (_vertexShader) glDeleteShader(_vertexShader);
    if (_fragmentShader) glDeleteShader(_fragmentShader);
}

void ShaderGL::reflect() {
    glwUseProgramObject(_program);
    GLint count = 0, maxLength = 0;
    glGetProgramiv(_program, GL_ACTIVE_UNIFORMS, &count);
    glGetProgramiv(_program, GL_ACTIVE_UNIFORM_MAX_LENGTH, &maxLength);
    std::vector<char> buffer(std::size_t(std::max(maxLength, 1)) + 1, 0);
    unsigned nextUnit = 0;
    for (GLint i = 0; i < count; ++i) {
        GLsizei length = 0;
        GLint size = 0;
        GLenum glType = 0;
        glGetActiveUniform(_program, GLuint(i), GLsizei(buffer.size()), &length, &size, &glType,
                           buffer.data());
        std::string name(buffer.data(), std::size_t(length));
        QOR_ASSERT_TEXT(size > 0, "size > 0");
        // The driver's own state (gl_ModelViewProjectionMatrix ...) is set by GL, not by us.
        if (name.rfind("gl_", 0) == 0 || size <= 0) continue;
        if (name.find('.') != std::string::npos) {
            QOR_LOG(LogError, "Found a struct identifier, this is currently not tested");
            QOR_ASSERT_TEXT(false, "false");
            continue;
        }
        const TypeInfo type = mapType(glType);
        if (!type.known) {
            QOR_LOG(LogError, "Shader '%*': uniform '%*' has a type this layer cannot set (%*)",
                    _name, name, glType);
            continue;
        }
        if (name.size() > 3 && name.compare(name.size() - 3, 3, "[0]") == 0)
            name.resize(name.size() - 3);
        for (GLint element = 0; element < size; ++element) {
            Uniform uniform;
            uniform.name = size > 1 ? formatLog("%*[%*]", name, element) : name;
            uniform.type = type.type;
            uniform.location = glGetUniformLocation(_program, uniform.name.c_str());
            QOR_ASSERT_TEXT(uniform.location != -1, "location != -1");
            if (uniform.type == Uniform::Texture2d) {
                uniform.unit = nextUnit++;
                QOR_ASSERT_TEXT(uniform.unit < MAX_TEXUNITS, "unit < MAX_TEXUNITS");
                glUniform1i(uniform.location, GLint(uniform.unit));
            }
            // The first element also answers to the array's own name.
            if (size > 1 && element == 0) _indices[name] = int(_uniforms.size());
            _indices[uniform.name] = int(_uniforms.size());
            _uniforms.push_back(std::move(uniform));
        }
    }
}

int ShaderGL::uniformIndex(const std::string& name) const {
    const std::size_t at = name.find("[0]");
    auto it = _indices.find(at == std::string::npos ? name : name.substr(0, at));
    if (it == _indices.end() && at != std::string::npos) it = _indices.find(name);
    return it == _indices.end() ? -1 : it->second;
}

ShaderGL::Uniform* ShaderGL::checked(int index, Uniform::Type type, const char* typeCondition) {
    const bool valid = index >= 0 && (size_t)index < _uniforms.size();
    QOR_ASSERT_TEXT(valid, "(size_t) idx < _uniforms.size()");
    if (!valid) return nullptr;
    Uniform& uniform = _uniforms[std::size_t(index)];
    QOR_ASSERT_TEXT(uniform.type == type, typeCondition);
    QOR_ASSERT_TEXT(uniform.location != -1, "uniform.location != -1");
    if (uniform.type != type || uniform.location == -1) return nullptr;
    return &uniform;
}

template <class T>
void ShaderGL::setValues(int index, Uniform::Type type, const char* typeCondition, const T* v,
                         int count) {
    Uniform* u = checked(index, type, typeCondition);
    if (!u) return;
    T* held = nullptr;
    if constexpr (std::is_same_v<T, float>)
        held = u->floats;
    else
        held = u->ints;
    if (u->known && std::equal(v, v + count, held)) return;
    std::copy(v, v + count, held);
    u->known = true;
    glwUseProgramObject(_program);
    using Upload = void (*)(GLint, GLsizei, const T*);
    // GL's entry points by count; the copies call through libepoxy's dispatch like the names.
    static const std::array<Upload, 4> uploads = [] {
        if constexpr (std::is_same_v<T, float>)
            return std::array<Upload, 4>{epoxy_glUniform1fv, epoxy_glUniform2fv, epoxy_glUniform3fv,
                                         epoxy_glUniform4fv};
        else
            return std::array<Upload, 4>{epoxy_glUniform1iv, epoxy_glUniform2iv, epoxy_glUniform3iv,
                                         epoxy_glUniform4iv};
    }();
    uploads[count - 1](u->location, 1, v);
}

void ShaderGL::setUniform(int index, const SharedPtr<Texture>& texture) {
    Uniform* u = checked(index, Uniform::Texture2d, "uniform.type == Uniform::Texture2d");
    if (!u) return;
    u->texture = texture;
    u->known = true;
    // The unit is set in the program once; the binding goes through the glw shadow, which
    // drops it when the unit already holds the texture.
    if (auto gl = dynamic_ptr_cast<TextureGL>(texture))
        glwBindTexture(u->unit, gl->target(), gl->id());
    else
        glwUnbindTexture(u->unit);
}

void ShaderGL::bindTextures() const {
    for (const Uniform& u : _uniforms) {
        if (u.type != Uniform::Texture2d) continue;
        if (auto gl = dynamic_ptr_cast<TextureGL>(u.texture.lock()))
            glwBindTexture(u.unit, gl->target(), gl->id());
    }
}

void ShaderGL::setUniform(int index, const Vec4i& value) {
    const int v[4] = {value.x, value.y, value.z, value.w};
    setValues<int>(index, Uniform::Int4, "uniform.type == Uniform::Int4", v, 4);
}

void ShaderGL::setUniform(int index, const Vec3i& value) {
    const int v[3] = {value.x, value.y, value.z};
    setValues<int>(index, Uniform::Int3, "uniform.type == Uniform::Int3", v, 3);
}

void ShaderGL::setUniform(int index, const Vec2i& value) {
    const int v[2] = {value.x, value.y};
    setValues<int>(index, Uniform::Int2, "uniform.type == Uniform::Int2", v, 2);
}

void ShaderGL::setUniform(int index, int value) {
    setValues<int>(index, Uniform::Int1, "uniform.type == Uniform::Int1", &value, 1);
}

void ShaderGL::setUniform(int index, const Vec4f& value) {
    const float v[4] = {value.x, value.y, value.z, value.w};
    setValues<float>(index, Uniform::Float4, "uniform.type == Uniform::Float4", v, 4);
}

void ShaderGL::setUniform(int index, const Vec3f& value) {
    const float v[3] = {value.x, value.y, value.z};
    setValues<float>(index, Uniform::Float3, "uniform.type == Uniform::Float3", v, 3);
}

void ShaderGL::setUniform(int index, const Vec2f& value) {
    const float v[2] = {value.x, value.y};
    setValues<float>(index, Uniform::Float2, "uniform.type == Uniform::Float2", v, 2);
}

void ShaderGL::setUniform(int index, float value) {
    setValues<float>(index, Uniform::Float1, "uniform.type == Uniform::Float1", &value, 1);
}

}  // namespace qor::gpu
