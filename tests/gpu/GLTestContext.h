#pragma once
// A headless OpenGL context for the GPU tests: EGL on the surfaceless platform (Mesa's llvmpipe
// where there is no GPU), made once per process and current on the thread that first asks, which
// also becomes the job dispatcher's GL thread. Where EGL gives no context, tests skip with the
// reason.

#include <gtest/gtest.h>

#include <string>

namespace qor::gpu::test {

class GLTestContext {
public:
    // The process's context, current on the calling thread; null when none could be made
    // (failure() says why).
    static GLTestContext* obtain();
    static std::string failure();

    void* context() const { return _context; }
    void* display() const { return _display; }

private:
    GLTestContext() = default;
    bool create(std::string& why);

    void* _display = nullptr;
    void* _context = nullptr;
};

}  // namespace qor::gpu::test

// Skips the test when there is no headless GL context.
#define QOR_REQUIRE_GL()                                                \
    do {                                                                \
        if (!::qor::gpu::test::GLTestContext::obtain())                 \
            GTEST_SKIP() << "no headless OpenGL context: "              \
                         << ::qor::gpu::test::GLTestContext::failure(); \
    } while (0)
