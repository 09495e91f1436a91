// RendererGL: building shader programs from files, and the table that keeps them.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>

#include "base/Exception.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/ShaderCipher.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/RendererGL.h"
#include "gpu/gl2/ShaderGL.h"
#include "gpu/gl2/glw.h"
#include "imaging/ImageStorageManager.h"

namespace qor::gpu {

namespace {

constexpr int MaxCompileAttempts = 10;
// What each retry after GL_OUT_OF_MEMORY evicts from the GPU storage area.
constexpr std::uint64_t DiscardPerRetry = 524288;

bool hasShaderObjects() {
    return epoxy_gl_version() >= 20 || epoxy_has_gl_extension("GL_ARB_shader_objects");
}

bool hasVertexShader() {
    return epoxy_gl_version() >= 20 || epoxy_has_gl_extension("GL_ARB_vertex_shader");
}

[[noreturn]] void fail(const std::string& text) {
    QOR_LOG(LogError, "%*", text);
    throw Exception(text);
}

// The whole file, read in binary.
std::string readWholeFile(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) fail(formatLog("Failed to open shader file '%*'", path));
    std::string text;
    bool ok = std::fseek(f, 0, SEEK_END) == 0;
    const long size = ok ? std::ftell(f) : -1;
    ok = ok && size >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
    if (ok) {
        text.resize(std::size_t(size));
        ok = std::fread(text.data(), 1, text.size(), f) == text.size();
    }
    std::fclose(f);
    if (!ok) fail(formatLog("Error reading from file '%*'", path));
    return text;
}

std::string infoLog(GLuint object, bool program) {
    GLint length = 0;
    if (program)
        glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length);
    else
        glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
    std::string text(std::size_t(std::max(length, 1)), '\0');
    GLsizei written = 0;
    if (program)
        glGetProgramInfoLog(object, GLsizei(text.size()), &written, text.data());
    else
        glGetShaderInfoLog(object, GLsizei(text.size()), &written, text.data());
    text.resize(std::size_t(written));
    return text;
}

GLuint compileStage(GLenum stage, const std::string& source, bool& ok) {
    const GLuint shader = glCreateShader(stage);
    const char* text = source.c_str();
    const GLint length = GLint(source.size());
    glShaderSource(shader, 1, &text, &length);
    glCompileShader(shader);
    GLint status = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &status);
    ok = status == GL_TRUE;
    return shader;
}

void deleteObjects(GLuint program, GLuint vertex, GLuint fragment) {
    if (program) glDeleteProgram(program);
    if (vertex) glDeleteShader(vertex);
    if (fragment) glDeleteShader(fragment);
}

}  // namespace

std::string RendererGL::readShaderFile(const std::string& name) const {
    const std::string fileName = useEncodedShaders() ? name : name + ".glsl";
    std::string found;
    for (const std::string& path : searchPaths()) {
        std::string candidate =
            path.empty() || path.back() == '/' ? path + fileName : path + "/" + fileName;
        if (filesystem::isFile(candidate)) {
            found = std::move(candidate);
            break;
        }
    }
    if (found.empty()) {
        const std::string text =
            formatLog("File does not exist in available search paths: %*", fileName);
        QOR_LOG(LogError, "%*", text);
        QOR_ASSERT_TEXT(false, "false");
        throw Exception(text);
    }
    std::string text = readWholeFile(found);
    if (!useEncodedShaders()) return text;
    std::optional<std::string> decoded = decodeShader(text);
    if (!decoded) fail(formatLog("Shader file '%*' is not encoded", found));
    return *decoded;
}

std::string RendererGL::assembleSource(const std::string& file, const std::string& defines,
                                       bool isFragment) const {
    const std::string common = readShaderFile("filters/common");
    const std::string body = readShaderFile(file);
    const char* debugLine =
        defines.find("#define DEBUG ") == std::string::npos ? "#define DEBUG 0\n" : "";
    std::string source = "\n#version 110\n";
    source += defines;
    source += "\n";
    source += debugLine;
    source += "#define FRAGMENT_PROGRAM ";
    source += isFragment ? "1" : "0";
    source += "\n";
    source += common;
    source += "\n";
    source += body;
    return source;
}

SharedPtr<Shader> RendererGL::createShader(const std::string& vertexFile,
                                           const std::string& fragmentFile,
                                           const std::string& defines) {
    const auto start = std::chrono::steady_clock::now();
    QOR_ASSERT_TEXT(hasShaderObjects(), "GLEW_ARB_shader_objects");
    QOR_ASSERT_TEXT(hasVertexShader(), "GLEW_ARB_vertex_shader");
    if (!hasShaderObjects() || !hasVertexShader()) fail("The driver has no shader objects");

    const std::string key = vertexFile + "$$$$" + fragmentFile + defines;
    auto it = _shaders.find(key);
    if (it != _shaders.end()) return it->second;

    const std::string name =
        vertexFile == fragmentFile ? vertexFile : vertexFile + "+" + fragmentFile;
    QOR_LOG(LogInfo, "Compiling shader %*", name);
    const std::string vertexSource = assembleSource(vertexFile, defines, false);
    const std::string fragmentSource = assembleSource(fragmentFile, defines, true);
    SharedPtr<ShaderGL> shader = compileShader(name, vertexSource, fragmentSource);
    _shaders[key] = shader;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    QOR_LOG(LogInfo, "Shader %* built in %* ms", name, ms);
    updateMemoryUsage();
    return shader;
}

SharedPtr<Shader> RendererGL::createShaderFromSource(const std::string& vertexSource,
                                                     const std::string& fragmentSource,
                                                     const std::string& name) {
    QOR_ASSERT_TEXT(hasShaderObjects(), "GLEW_ARB_shader_objects");
    QOR_ASSERT_TEXT(hasVertexShader(), "GLEW_ARB_vertex_shader");
    if (!hasShaderObjects() || !hasVertexShader()) fail("The driver has no shader objects");
    SharedPtr<Shader> shader = compileShader(name, vertexSource, fragmentSource);
    updateMemoryUsage();
    return shader;
}

SharedPtr<ShaderGL> RendererGL::compileShader(const std::string& name,
                                              const std::string& vertexSource,
                                              const std::string& fragmentSource) {
    for (int attempt = 1;; ++attempt) {
        drainGLErrors();
        bool vertexOk = false, fragmentOk = false;
        const GLuint vertex = compileStage(GL_VERTEX_SHADER, vertexSource, vertexOk);
        const GLuint fragment = compileStage(GL_FRAGMENT_SHADER, fragmentSource, fragmentOk);
        const GLuint program = glCreateProgram();
        glAttachShader(program, vertex);
        glAttachShader(program, fragment);
        glLinkProgram(program);
        GLint linked = 0;
        glGetProgramiv(program, GL_LINK_STATUS, &linked);

        const GLenum err = takeGLError(GLErrorCheck::ShaderLink);
        if (err == GL_OUT_OF_MEMORY) {
            QOR_LOG(LogError, "GL_OUT_OF_MEMORY while compiling shader '%*'.", name);
            deleteObjects(program, vertex, fragment);
            if (attempt >= MaxCompileAttempts) {
                QOR_LOG(LogError, "FAILED TO CREATE SHADER: %*", name);
                throw GPUBadAlloc("FAILED TO CREATE SHADER: " + name);
            }
            imaging::ImageStorageManager* manager = imaging::ImageStorageManager::instance();
            manager->setMemoryLimitToCurrentConsumption(imaging::SaGPU);
            manager->discard(imaging::SaGPU, DiscardPerRetry);
            clearTextureCache();
            continue;
        }
        if (!vertexOk || !fragmentOk || linked != GL_TRUE) {
            QOR_LOG(LogError, "Vertex program for '%*': \n%*", name + " vertex shader",
                    infoLog(vertex, false));
            QOR_LOG(LogError, "Fragment program for '%*': \n%*", name + " fragment shader",
                    infoLog(fragment, false));
            QOR_LOG(LogError, "Linker log for '%*': \n%*", name, infoLog(program, true));
            deleteObjects(program, vertex, fragment);
            throw Exception(formatLog("Shader '%*' did not compile or link", name));
        }
        if (err != GL_NO_ERROR) {
            const char* text = glErrorString(err);
            QOR_LOG(LogError, "OpenGL error '%*' after linking", text ? text : "unknown error");
            QOR_ASSERT_TEXT(false, "false");
        }
        return std::make_shared<ShaderGL>(name, program, vertex, fragment);
    }
}

}  // namespace qor::gpu
