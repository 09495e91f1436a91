#include "gpu/HeadlessContext.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <cstdlib>

namespace qor::gpu {

namespace {

EGLDisplay surfacelessDisplay() {
    if (epoxy_has_egl_extension(EGL_NO_DISPLAY, "EGL_MESA_platform_surfaceless"))
        return eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY,
                                        nullptr);
    // Without the client extension, Mesa still picks the platform named in the environment.
    setenv("EGL_PLATFORM", "surfaceless", 0);
    return eglGetDisplay(EGL_DEFAULT_DISPLAY);
}

}  // namespace

bool createHeadlessContext(HeadlessContext& out, std::string& why) {
    EGLDisplay display = surfacelessDisplay();
    EGLint major = 0, minor = 0;
    if (display == EGL_NO_DISPLAY || !eglInitialize(display, &major, &minor)) {
        // A driver that is there but refuses (no render node access): ask for software.
        setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
        display = surfacelessDisplay();
        if (display == EGL_NO_DISPLAY || !eglInitialize(display, &major, &minor)) {
            why = "eglInitialize failed (EGL error " + std::to_string(eglGetError()) + ")";
            return false;
        }
    }
    if (!epoxy_has_egl_extension(display, "EGL_KHR_surfaceless_context")) {
        why = "the EGL display has no EGL_KHR_surfaceless_context";
        return false;
    }
    if (!eglBindAPI(EGL_OPENGL_API)) {
        why = "eglBindAPI(EGL_OPENGL_API) failed";
        return false;
    }
    EGLConfig config = EGL_NO_CONFIG_KHR;
    if (!epoxy_has_egl_extension(display, "EGL_KHR_no_config_context")) {
        const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_NONE};
        EGLint count = 0;
        if (!eglChooseConfig(display, wanted, &config, 1, &count) || count == 0) {
            why = "no EGL config for desktop OpenGL";
            return false;
        }
    }
    const EGLint compatibility[] = {EGL_CONTEXT_MAJOR_VERSION,
                                    3,
                                    EGL_CONTEXT_MINOR_VERSION,
                                    0,
                                    EGL_CONTEXT_OPENGL_PROFILE_MASK,
                                    EGL_CONTEXT_OPENGL_COMPATIBILITY_PROFILE_BIT,
                                    EGL_NONE};
    EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, compatibility);
    if (context == EGL_NO_CONTEXT)
        context = eglCreateContext(display, config, EGL_NO_CONTEXT, nullptr);
    if (context == EGL_NO_CONTEXT) {
        why = "eglCreateContext failed (EGL error " + std::to_string(eglGetError()) + ")";
        return false;
    }
    if (!eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context)) {
        why = "eglMakeCurrent failed (EGL error " + std::to_string(eglGetError()) + ")";
        eglDestroyContext(display, context);
        return false;
    }
    out.display = display;
    out.context = context;
    return true;
}

}  // namespace qor::gpu
