#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "GPUTestSupport.h"
#include "gpu/Drawer.h"
#include "gpu/RenderTarget.h"
#include "gpu/ShaderCipher.h"
#include "gpu/gl2/ShaderGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {
namespace {

namespace fs = std::filesystem;
using namespace imaging;

// One file, both stages. The colour is a uniform scaled by SCALE; the other uniforms add to its
// alpha, so that none is optimised away. With DEBUG set, a uniform exists that the DEBUG 0 build
// leaves out.
constexpr const char* TintShader = R"(
uniform vec4 tint;
uniform float weights[3];
uniform ivec2 steps;
#if DEBUG
uniform float debugOnly;
#endif
#if FRAGMENT_PROGRAM
void main() {
    float w = weights[0] + weights[1] + weights[2] + float(steps.x + steps.y);
#if DEBUG
    w += debugOnly;
#endif
    gl_FragColor = clampColor(tint * SCALE + vec4(0.0, 0.0, 0.0, w));
}
#else
void main() { passThrough(); }
#endif
)";

class ShaderGLTest : public test::RendererTest {
protected:
    void SetUp() override {
        test::RendererTest::SetUp();
        if (!_renderer) return;
        _dir = fs::temp_directory_path() / ("qor-shaders-" + std::to_string(::getpid()));
        fs::create_directories(_dir / "tests");
        write("tests/tint.glsl", TintShader);
        _paths.emplace(std::vector<std::string>{_dir.string(), QOR_SHADER_DIR});
    }
    void TearDown() override {
        if (_renderer) {
            _renderer->setUseEncodedShaders(false);
            _paths.reset();
            fs::remove_all(_dir);
        }
        test::RendererTest::TearDown();
    }
    void write(const std::string& name, const std::string& text) {
        std::ofstream(_dir / name, std::ios::binary | std::ios::trunc) << text;
    }

    fs::path _dir;
    std::optional<test::SearchPathsScope> _paths;
};

float uniformValue(const ShaderGL& shader, const char* name) {
    float v[4] = {0, 0, 0, 0};
    glGetUniformfv(shader.program(), glGetUniformLocation(shader.program(), name), v);
    return v[0];
}

TEST_F(ShaderGLTest, ProgramsAreKeptByFilesAndDefines) {
    LogCapture log;
    auto a = _renderer->createShader("tests/tint", "#define SCALE 1.0\n");
    auto b = _renderer->createShader("tests/tint", "#define SCALE 0.5\n");
    ASSERT_TRUE(a && b);
    EXPECT_NE(a, b);
    EXPECT_NE(dynamic_ptr_cast<ShaderGL>(a)->program(), dynamic_ptr_cast<ShaderGL>(b)->program());
    EXPECT_EQ(log.count("Compiling shader tests/tint"), 2u);

    // A repeated request needs no file: the program is kept under its key.
    fs::remove(_dir / "tests/tint.glsl");
    EXPECT_EQ(_renderer->createShader("tests/tint", "#define SCALE 1.0\n"), a);
    EXPECT_EQ(log.count("Compiling shader"), 2u);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST_F(ShaderGLTest, TheShaderDrawsWithItsDefinesAndUniforms) {
    auto shader =
        dynamic_ptr_cast<ShaderGL>(_renderer->createShader("tests/tint", "#define SCALE 0.5\n"));
    ASSERT_TRUE(shader);
    shader->setUniform(shader->uniformIndex("tint"), Vec4f(1.0f, 0.5f, 0.25f, 2.0f));
    auto target = _renderer->createTextureTarget(Vec2i(4, 4), PfRGBA32F);
    SharedPtr<Drawer> drawer = target->beginRender();
    drawer->clear(0, 0, 0, 0);
    glwUseProgramObject(shader->program());
    glBegin(GL_QUADS);
    glVertex2f(0, 0);
    glVertex2f(4, 0);
    glVertex2f(4, 4);
    glVertex2f(0, 4);
    glEnd();
    glwUseProgramObject(0);
    target->finishRender(drawer);
    auto pixel = GenImageData<float, 4>::create(1, 1);
    target->readBackRGBA(pixel, Recti(1, 2, 1, 1));
    // SCALE 0.5 halves the tint; clampColor keeps alpha at 1.
    EXPECT_FLOAT_EQ(pixel->at(0, 0, 0), 0.5f);
    EXPECT_FLOAT_EQ(pixel->at(0, 0, 1), 0.25f);
    EXPECT_FLOAT_EQ(pixel->at(0, 0, 2), 0.125f);
    EXPECT_FLOAT_EQ(pixel->at(0, 0, 3), 1.0f);
}

TEST_F(ShaderGLTest, ReflectsUniformsAndArrays) {
    auto shader =
        dynamic_ptr_cast<ShaderGL>(_renderer->createShader("tests/tint", "#define SCALE 1.0\n"));
    ASSERT_TRUE(shader);
    EXPECT_GE(shader->uniformIndex("tint"), 0);
    EXPECT_EQ(shader->uniformIndex("weights[0]"), shader->uniformIndex("weights"));
    EXPECT_GE(shader->uniformIndex("weights[2]"), 0);
    EXPECT_NE(shader->uniformIndex("weights[2]"), shader->uniformIndex("weights"));
    EXPECT_EQ(shader->uniformIndex("nothing"), -1);
    // DEBUG is 0 unless the defines set it.
    EXPECT_EQ(shader->uniformIndex("debugOnly"), -1);
    auto debug = _renderer->createShader("tests/tint", "#define SCALE 1.0\n#define DEBUG 1\n");
    EXPECT_GE(debug->uniformIndex("debugOnly"), 0);
    for (const ShaderGL::Uniform& u : shader->uniforms()) EXPECT_NE(u.location, -1) << u.name;
}

TEST_F(ShaderGLTest, ASetterSendsOnlyChanges) {
    auto shader =
        dynamic_ptr_cast<ShaderGL>(_renderer->createShader("tests/tint", "#define SCALE 1.0\n"));
    ASSERT_TRUE(shader);
    const int w1 = shader->uniformIndex("weights[1]");
    shader->setUniform(w1, 0.5f);
    EXPECT_FLOAT_EQ(uniformValue(*shader, "weights[1]"), 0.5f);
    // Changed behind the shader's back: the same value again is not sent, a new one is.
    glUniform1f(glGetUniformLocation(shader->program(), "weights[1]"), 0.25f);
    shader->setUniform(w1, 0.5f);
    EXPECT_FLOAT_EQ(uniformValue(*shader, "weights[1]"), 0.25f);
    shader->setUniform(w1, 0.75f);
    EXPECT_FLOAT_EQ(uniformValue(*shader, "weights[1]"), 0.75f);

    LogCapture log;
    shader->setUniform(w1, Vec2f(1, 2));
    shader->setUniform(shader->uniformIndex("steps"), 3);
    shader->setUniform(99, 1.0f);
    EXPECT_EQ(log.assertions("uniform.type == Uniform::Float2"), 1u);
    EXPECT_EQ(log.assertions("uniform.type == Uniform::Int1"), 1u);
    EXPECT_EQ(log.assertions("(size_t) idx < _uniforms.size()"), 1u);
    EXPECT_FLOAT_EQ(uniformValue(*shader, "weights[1]"), 0.75f);
}

TEST_F(ShaderGLTest, MissingAndBrokenFilesThrowWithTheirMessages) {
    LogCapture log;
    EXPECT_THROW(_renderer->createShader("tests/absent", ""), Exception);
    EXPECT_TRUE(log.contains("File does not exist in available search paths: tests/absent.glsl"));
    EXPECT_EQ(log.assertions("false"), 1u);

    write("tests/broken.glsl",
          "#if FRAGMENT_PROGRAM\nvoid main() { gl_FragColor = nope; }\n"
          "#else\nvoid main() { passThrough(); }\n#endif\n");
    EXPECT_THROW(_renderer->createShader("tests/broken", ""), Exception);
    EXPECT_TRUE(log.contains("Fragment program for 'tests/broken fragment shader': \n"));
    EXPECT_TRUE(log.contains("Linker log for 'tests/broken': \n"));

    // Without the common part no shader can be built.
    Renderer::setSearchPaths({_dir.string()});
    EXPECT_THROW(_renderer->createShader("tests/tint", "#define SCALE 1.0\n"), Exception);
    EXPECT_TRUE(log.contains("File does not exist in available search paths: filters/common.glsl"));
}

TEST_F(ShaderGLTest, OutOfMemoryRetriesTenTimesInAll) {
    LogCapture log;
    testing::simulateGLError(GLErrorCheck::ShaderLink, GL_OUT_OF_MEMORY, 2);
    EXPECT_TRUE(_renderer->createShader("tests/tint", "#define SCALE 1.0\n"));
    EXPECT_EQ(log.count("GL_OUT_OF_MEMORY while compiling shader 'tests/tint'."), 2u);

    log.clear();
    testing::simulateGLError(GLErrorCheck::ShaderLink, GL_OUT_OF_MEMORY, 10);
    EXPECT_THROW(_renderer->createShader("tests/tint", "#define SCALE 2.0\n"), std::bad_alloc);
    EXPECT_EQ(log.count("GL_OUT_OF_MEMORY while compiling shader 'tests/tint'."), 10u);
    EXPECT_EQ(log.count("FAILED TO CREATE SHADER: tests/tint"), 1u);
}

TEST_F(ShaderGLTest, EncodedShadersAreReadThroughTheCipher) {
    const std::string source = "uniform vec4 tint; // \xc3\xa9 and bytes 0..255 survive\n";
    auto encoded = encodeShader(source);
    EXPECT_EQ(encoded.substr(0, 4), "QSE1");
    EXPECT_EQ(encoded.find("uniform"), std::string::npos);
    EXPECT_EQ(decodeShader(encoded), source);
    EXPECT_FALSE(decodeShader(source));

    // An encoded folder: the common part and the filter, without their endings.
    fs::create_directories(_dir / "enc/filters");
    fs::create_directories(_dir / "enc/tests");
    std::ifstream commonFile(fs::path(QOR_SHADER_DIR) / "filters/common.glsl", std::ios::binary);
    std::string common((std::istreambuf_iterator<char>(commonFile)),
                       std::istreambuf_iterator<char>());
    write("enc/filters/common", encodeShader(common));
    write("enc/tests/tint", encodeShader(TintShader));
    Renderer::setSearchPaths({(_dir / "enc").string()});
    _renderer->setUseEncodedShaders(true);
    EXPECT_TRUE(_renderer->createShader("tests/tint", "#define SCALE 3.0\n"));

    LogCapture log;
    write("enc/tests/plain", TintShader);
    EXPECT_THROW(_renderer->createShader("tests/plain", ""), Exception);
    EXPECT_TRUE(log.contains("is not encoded"));
}

}  // namespace
}  // namespace qor::gpu
