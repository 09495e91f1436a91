// The one-thread rule of glw, seen from another thread. No GL context is needed: a wrong thread
// never reaches GL.

#include <gtest/gtest.h>

#include <thread>

#include "base/Log.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {
namespace {

TEST(GlwThreads, EverySetterOnAnotherThreadIsALoggedAssertion) {
    ASSERT_TRUE(glwIsGLThread()) << "the test thread is not the GL thread";
    LogCapture log;
    size_t changed = 0;
    bool isGL = true, correct = true;
    std::thread other([&] {
        isGL = glwIsGLThread();
        correct = glwCheckCorrectThread();
        changed += glwBlendMode(GL_ONE, GL_ONE);
        changed += glwLineWidth(2);
        changed += glwLineStipple(1, 0xFF);
        changed += glwActiveTexture(1);
        changed += glwBindTexture(0, GL_TEXTURE_2D, 5);
        changed += glwUnbindTexture(0);
        changed += glwUseProgramObject(0);
        changed += glwBindFramebuffer(0, FBO_Bind_Draw);
        changed += glwClearColor(1, 1, 1, 1);
        changed += glwEnableScissorTest(true);
        changed += glwScissor(0, 0, 1, 1);
        changed += glwViewport(0, 0, 1, 1);
        glwPushAttrib();
        glwPopAttrib();
        glwNotifyCurrent(nullptr);
        glwShutdown();
    });
    other.join();
    EXPECT_FALSE(isGL);
    EXPECT_FALSE(correct);
    EXPECT_EQ(changed, 0u);
    EXPECT_EQ(log.assertions("glwIsGLThread()"), 17u);
    EXPECT_EQ(log.assertions(), 17u);
    EXPECT_TRUE(glwIsGLThread());
}

}  // namespace
}  // namespace qor::gpu
