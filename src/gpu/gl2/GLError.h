#pragma once
// Reading and reporting GL errors, the one place where GL error codes turn into log lines and
// std::bad_alloc. GL thread only.

#include <epoxy/gl.h>

namespace qor::gpu {

// Where an error is read; test builds can make a site report an error GL did not raise.
enum class GLErrorCheck {
    TextureAllocation,
    Transfer,
    ShaderLink,
};

// The text GLU's gluErrorString gives for an error code ("invalid enumerant", "out of memory"
// ...); null for a code it does not know.
const char* glErrorString(GLenum code);

// Logs "OpenGL error: %*(%*)" with the code and its text, or "Unknown OpenGL error: %*".
void reportGLError(GLenum err);

// glGetError, for the check at `site`.
GLenum takeGLError(GLErrorCheck site);

// Reads the error at `site` and, if there is one, logs "OpenGL error: %*(%*)" with the code and
// its text, or "Unknown OpenGL error: %*". Throws GPUBadAlloc("std::bad_alloc()") for
// GL_OUT_OF_MEMORY. Returns the error otherwise (GL_NO_ERROR when none).
GLenum checkGLError(GLErrorCheck site);

// Empties GL's error flags, so that the next check sees only what follows.
void drainGLErrors();

}  // namespace qor::gpu
