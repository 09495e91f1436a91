#include "GLTestContext.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <cstdlib>

#include "base/thread/JobDispatcher.h"
#include "gpu/HeadlessContext.h"

namespace qor::gpu::test {

namespace {

std::string& failureText() {
    static std::string text;
    return text;
}

}  // namespace

bool GLTestContext::create(std::string& why) {
    HeadlessContext made;
    if (!createHeadlessContext(made, why)) return false;
    _display = made.display;
    _context = made.context;
    return true;
}

GLTestContext* GLTestContext::obtain() {
    static GLTestContext* made = [] {
        auto* c = new GLTestContext;
        std::string why;
        if (c->create(why)) return c;
        failureText() = why;
        delete c;
        return static_cast<GLTestContext*>(nullptr);
    }();
    if (!made) return nullptr;
    if (eglGetCurrentContext() != made->_context &&
        !eglMakeCurrent(made->_display, EGL_NO_SURFACE, EGL_NO_SURFACE, made->_context)) {
        failureText() = "eglMakeCurrent failed on this thread";
        return nullptr;
    }
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    if (!dispatcher.isGLThread()) dispatcher.setGLThread();
    return made;
}

std::string GLTestContext::failure() { return failureText(); }

bool GLTestContext::missingGLAllowed() {
    const char* allow = std::getenv("QOR_ALLOW_NO_GL");
    return allow && std::string(allow) == "1";
}

}  // namespace qor::gpu::test
