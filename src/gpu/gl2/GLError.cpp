#include "gpu/gl2/GLError.h"

// After epoxy's gl.h (through GLError.h), whose guard keeps GLU from including GL/gl.h.
#include <GL/glu.h>

#include "base/Log.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/gl2/GLTestHooks.h"

namespace qor::gpu {

#ifdef QOR_TESTING
namespace {
struct SimulatedError {
    GLenum error = GL_NO_ERROR;
    int times = 0;
};
SimulatedError g_simulated[3];  // by GLErrorCheck; GL thread only
}  // namespace

namespace testing {
void simulateGLError(GLErrorCheck site, GLenum error, int times) {
    g_simulated[int(site)] = SimulatedError{error, times};
}
void clearSimulatedGLErrors() {
    for (SimulatedError& s : g_simulated) s = SimulatedError();
}
}  // namespace testing
#endif

const char* glErrorString(GLenum code) {
    return reinterpret_cast<const char*>(gluErrorString(code));
}

void reportGLError(GLenum err) {
    if (const char* text = glErrorString(err))
        QOR_LOG(LogError, "OpenGL error: %*(%*)", err, text);
    else
        QOR_LOG(LogError, "Unknown OpenGL error: %*", err);
}

GLenum takeGLError(GLErrorCheck site) {
    GLenum err = glGetError();
#ifdef QOR_TESTING
    SimulatedError& s = g_simulated[int(site)];
    if (s.times > 0) {
        --s.times;
        drainGLErrors();
        return s.error;
    }
#else
    (void)site;
#endif
    return err;
}

GLenum checkGLError(GLErrorCheck site) {
    const GLenum err = takeGLError(site);
    if (err == GL_NO_ERROR) return err;
    reportGLError(err);
    if (err == GL_OUT_OF_MEMORY) throw GPUBadAlloc("std::bad_alloc()");
    return err;
}

void drainGLErrors() {
    // A lost context reports an error for ever; a bounded loop cannot hang on it.
    for (int i = 0; i < 32 && glGetError() != GL_NO_ERROR; ++i) {
    }
}

}  // namespace qor::gpu
