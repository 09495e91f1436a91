#pragma once
// A headless OpenGL context for the GPU tests: EGL on the surfaceless platform (Mesa's llvmpipe
// where there is no GPU), made once per process and current on the thread that first asks, which
// also becomes the job dispatcher's GL thread.
//
// Where EGL gives no context, every test that needs one fails with the reason, so that a CI
// machine that lost its GL driver does not pass by skipping. A run that means to go without GL
// says so with QOR_ALLOW_NO_GL=1 in the environment: those tests then skip.

#include <gtest/gtest.h>

#include <string>

namespace qor::gpu::test {

class GLTestContext {
public:
    // The process's context, current on the calling thread; null when none could be made
    // (failure() says why).
    static GLTestContext* obtain();
    static std::string failure();
    // Whether the environment allows GL tests to skip: QOR_ALLOW_NO_GL=1.
    static bool missingGLAllowed();

    void* context() const { return _context; }
    void* display() const { return _display; }

private:
    GLTestContext() = default;
    bool create(std::string& why);

    void* _display = nullptr;
    void* _context = nullptr;
};

}  // namespace qor::gpu::test

// Ends the test when a GL component it needs is missing: a failure, or a skip where
// QOR_ALLOW_NO_GL=1 allows it. `what` says what is missing.
#define QOR_GL_MISSING(what)                                                           \
    do {                                                                               \
        if (::qor::gpu::test::GLTestContext::missingGLAllowed())                       \
            GTEST_SKIP() << what << " (skipped: QOR_ALLOW_NO_GL=1)";                   \
        FAIL() << what << " (set QOR_ALLOW_NO_GL=1 to let the GL tests skip instead)"; \
    } while (0)

// Ends the test as QOR_GL_MISSING does when there is no headless GL context.
#define QOR_REQUIRE_GL()                                                                       \
    do {                                                                                       \
        if (!::qor::gpu::test::GLTestContext::obtain())                                        \
            QOR_GL_MISSING(                                                                    \
                "no headless OpenGL context: " << ::qor::gpu::test::GLTestContext::failure()); \
    } while (0)
