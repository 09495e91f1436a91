#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include <thread>

#include "GLTestContext.h"
#include "base/Log.h"
#include "gpu/gl2/GLTestHooks.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {
namespace {

using testing::glwCallCount;

GLint glInt(GLenum name) {
    GLint v = -1;
    glGetIntegerv(name, &v);
    return v;
}

// Each test starts with a fresh shadow of the test context and leaves none behind.
class Glw : public ::testing::Test {
protected:
    void SetUp() override {
        QOR_REQUIRE_GL();
        glwNotifyCurrent(test::GLTestContext::obtain()->context());
        glwResetState();
    }
    void TearDown() override {
        if (test::GLTestContext::obtain()) glwShutdown();
    }

    // Calls `set` twice: the first must reach GL once or more, the second not at all.
    template <class F>
    void expectSecondCallDropped(const char* what, F set) {
        const auto before = glwCallCount();
        EXPECT_TRUE(set()) << what;
        const auto afterFirst = glwCallCount();
        EXPECT_GT(afterFirst, before) << what;
        EXPECT_FALSE(set()) << what;
        EXPECT_EQ(glwCallCount(), afterFirst) << what << ": a redundant change reached GL";
    }
};

TEST_F(Glw, RedundantStateChangesNeverReachGL) {
    expectSecondCallDropped("blend",
                            [] { return glwBlendMode(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA); });
    EXPECT_EQ(glInt(GL_BLEND_SRC_RGB), GL_SRC_ALPHA);
    EXPECT_EQ(glInt(GL_BLEND_DST_ALPHA), GL_ONE_MINUS_SRC_ALPHA);
    EXPECT_TRUE(glIsEnabled(GL_BLEND));

    expectSecondCallDropped("line width", [] { return glwLineWidth(3.0f); });
    GLfloat width = 0;
    glGetFloatv(GL_LINE_WIDTH, &width);
    EXPECT_EQ(width, 3.0f);

    expectSecondCallDropped("stipple", [] { return glwLineStipple(2, 0xF0F0); });
    EXPECT_EQ(glInt(GL_LINE_STIPPLE_PATTERN), 0xF0F0);
    EXPECT_EQ(glInt(GL_LINE_STIPPLE_REPEAT), 2);

    expectSecondCallDropped("active texture", [] { return glwActiveTexture(3); });
    EXPECT_EQ(glInt(GL_ACTIVE_TEXTURE), GL_TEXTURE0 + 3);

    GLuint tex = 0;
    glGenTextures(1, &tex);
    expectSecondCallDropped("bind", [&] { return glwBindTexture(2, GL_TEXTURE_2D, tex); });
    glActiveTexture(GL_TEXTURE2);
    EXPECT_EQ(glInt(GL_TEXTURE_BINDING_2D), GLint(tex));
    expectSecondCallDropped("unbind", [] { return glwUnbindTexture(2); });
    glActiveTexture(GL_TEXTURE2);
    EXPECT_EQ(glInt(GL_TEXTURE_BINDING_2D), 0);
    glwResetState();  // the direct glActiveTexture calls above bypassed the shadow

    expectSecondCallDropped("program", [] { return glwUseProgramObject(0); });
    expectSecondCallDropped("draw fbo", [] { return glwBindFramebuffer(0, FBO_Bind_Draw); });
    expectSecondCallDropped("read fbo", [] { return glwBindFramebuffer(0, FBO_Bind_Read); });

    expectSecondCallDropped("clear colour", [] { return glwClearColor(0.1f, 0.2f, 0.3f, 0.4f); });
    GLfloat clear[4] = {};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
    EXPECT_FLOAT_EQ(clear[2], 0.3f);

    expectSecondCallDropped("scissor on", [] { return glwEnableScissorTest(true); });
    EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST));
    expectSecondCallDropped("scissor", [] { return glwScissor(1, 2, 30, 40); });
    GLint box[4] = {};
    glGetIntegerv(GL_SCISSOR_BOX, box);
    EXPECT_EQ(box[3], 40);
    expectSecondCallDropped("viewport", [] { return glwViewport(0, 0, 64, 32); });
    glGetIntegerv(GL_VIEWPORT, box);
    EXPECT_EQ(box[2], 64);

    // Reset forgets every value: the same requests reach GL again, and the scissor test is off.
    glwResetState();
    EXPECT_FALSE(glIsEnabled(GL_SCISSOR_TEST));
    EXPECT_TRUE(glwBlendMode(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA));
    EXPECT_TRUE(glwViewport(0, 0, 64, 32));
    EXPECT_FALSE(glwEnableScissorTest(false));
    glDeleteTextures(1, &tex);
    glwNotifyTextureDeleted(tex);
}

TEST_F(Glw, BlendModeOneZeroDisablesBlending) {
    EXPECT_TRUE(glwBlendMode(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE));
    EXPECT_TRUE(glIsEnabled(GL_BLEND));
    EXPECT_EQ(glInt(GL_BLEND_SRC_ALPHA), GL_ONE);
    EXPECT_EQ(glInt(GL_BLEND_DST_RGB), GL_ONE_MINUS_SRC_ALPHA);
    EXPECT_TRUE(glwBlendMode(GL_ONE, GL_ZERO));
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    // Only the alpha pair differs: still a change.
    EXPECT_TRUE(glwBlendMode(GL_ONE, GL_ZERO, GL_ONE, GL_ONE));
    EXPECT_TRUE(glIsEnabled(GL_BLEND));
}

TEST_F(Glw, OnlyUnitZeroEnablesItsTarget) {
    GLuint tex[2] = {};
    glGenTextures(2, tex);
    EXPECT_TRUE(glwBindTexture(1, GL_TEXTURE_2D, tex[0]));
    glActiveTexture(GL_TEXTURE1);
    EXPECT_FALSE(glIsEnabled(GL_TEXTURE_2D));

    glwResetState();
    EXPECT_TRUE(glwBindTexture(0, GL_TEXTURE_2D, tex[0]));
    glActiveTexture(GL_TEXTURE0);
    EXPECT_TRUE(glIsEnabled(GL_TEXTURE_2D));

    // A change of target unbinds and disables the old one on unit 0.
    EXPECT_TRUE(glwBindTexture(0, GL_TEXTURE_RECTANGLE, tex[1]));
    EXPECT_FALSE(glIsEnabled(GL_TEXTURE_2D));
    EXPECT_TRUE(glIsEnabled(GL_TEXTURE_RECTANGLE));
    EXPECT_EQ(glInt(GL_TEXTURE_BINDING_2D), 0);
    EXPECT_EQ(glInt(GL_TEXTURE_BINDING_RECTANGLE), GLint(tex[1]));
    EXPECT_TRUE(glwUnbindTexture(0));
    EXPECT_FALSE(glIsEnabled(GL_TEXTURE_RECTANGLE));

    LogCapture log;
    EXPECT_FALSE(glwBindTexture(MAX_TEXUNITS, GL_TEXTURE_2D, tex[0]));
    EXPECT_EQ(log.assertions("unit < MAX_TEXUNITS"), 1u);
    glDeleteTextures(2, tex);
}

TEST_F(Glw, DeletedTextureNamesAreForgotten) {
    GLuint name = 0;
    glGenTextures(1, &name);
    EXPECT_TRUE(glwBindTexture(0, GL_TEXTURE_2D, name));
    glDeleteTextures(1, &name);
    glwNotifyTextureDeleted(name);
    // GL binds 0 where a deleted texture was bound, and so does the shadow.
    EXPECT_EQ(glInt(GL_TEXTURE_BINDING_2D), 0);
    EXPECT_EQ(glwBoundTexture(0, GL_TEXTURE_2D), 0u);
    // The name may come back for a new texture; binding it must then reach GL.
    EXPECT_TRUE(glwBindTexture(0, GL_TEXTURE_2D, name));
    EXPECT_EQ(glInt(GL_TEXTURE_BINDING_2D), GLint(name));
    glDeleteTextures(1, &name);
    glwNotifyTextureDeleted(name);
}

TEST_F(Glw, PushAndPopRestoreGLAndTheShadowTogether) {
    glwClearColor(0.25f, 0.25f, 0.25f, 1.0f);
    glwUseProgramObject(0);
    glwPushAttrib();
    EXPECT_TRUE(glwClearColor(0.75f, 0.5f, 0.25f, 1.0f));
    glwPopAttrib();
    GLfloat clear[4] = {};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
    EXPECT_FLOAT_EQ(clear[0], 0.25f);
    EXPECT_FALSE(glwClearColor(0.25f, 0.25f, 0.25f, 1.0f)) << "the shadow did not come back";
    EXPECT_TRUE(glwClearColor(0.75f, 0.5f, 0.25f, 1.0f));
    EXPECT_FALSE(glwUseProgramObject(0));
}

TEST_F(Glw, TheSixteenthPushWithoutPopAsserts) {
    LogCapture log;
    for (int i = 0; i < 15; ++i) glwPushAttrib();
    EXPECT_EQ(log.assertions(), 0u);
    glwPushAttrib();
    EXPECT_EQ(log.assertions("stack.size() < 15"), 1u);
    for (int i = 0; i < 15; ++i) glwPopAttrib();
    EXPECT_EQ(log.assertions("!stack.empty()"), 0u);
    glwPopAttrib();
    EXPECT_EQ(log.assertions("!stack.empty()"), 1u);
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << "GL's own stack got out of step";
}

TEST_F(Glw, EachContextKeepsItsOwnShadow) {
    GLContextType mine = test::GLTestContext::obtain()->context();
    int otherKey = 0;
    glwBlendMode(GL_SRC_ALPHA, GL_ONE);
    // Another context starts unknown, so the same request reaches GL there.
    glwNotifyCurrent(&otherKey);
    EXPECT_TRUE(glwBlendMode(GL_SRC_ALPHA, GL_ONE));
    EXPECT_TRUE(glwBlendMode(GL_ONE, GL_ZERO));
    // Selecting the first again does not reset it.
    glwNotifyCurrent(mine);
    EXPECT_FALSE(glwBlendMode(GL_SRC_ALPHA, GL_ONE));
}

TEST_F(Glw, ShutdownWithoutShadowsAsserts) {
    glwShutdown();
    LogCapture log;
    glwShutdown();
    EXPECT_EQ(log.assertions("_contextMap"), 1u);
    // Setters without a shadow refuse rather than guess.
    EXPECT_FALSE(glwLineWidth(2.0f));
    EXPECT_EQ(log.assertions("_ctx && _ctx->threadID == qor::thread::getThreadId()"), 1u);
    glwNotifyCurrent(test::GLTestContext::obtain()->context());
}

}  // namespace
}  // namespace qor::gpu
