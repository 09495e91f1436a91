#pragma once
// glw: a thin layer of free functions over OpenGL that shadows the state drawers change for every
// batch (blending, lines, texture units, program, framebuffers, clear colour, scissor, viewport),
// so that a change to the value GL already holds costs only a compare. Each setter returns true
// when it really called GL.
//
// One shadow (ContextState) per GL context, selected by glwNotifyCurrent; each holds a stack of up
// to 15 saved states for glwPushAttrib / glwPopAttrib.
//
// Thread contract: GL is called on one thread only. The first call of any glw function records
// the calling thread as the GL thread of the process; from then on each setter called on another
// thread logs the assertion "glwIsGLThread()" and returns false without touching GL or the shadow.
// A context's shadow belongs to the thread that made it current ("_ctx && _ctx->threadID ==
// qor::thread::getThreadId()"). Nothing here takes a lock: the thread rule is the whole
// synchronisation.

#include <epoxy/gl.h>

#include <cstddef>
#include <cstdint>

#include "gpu/Renderer.h"

namespace qor::gpu {

enum FBOBindType : int {
    FBO_Bind_Draw = 0,
    FBO_Bind_Read = 1,
};

constexpr unsigned MAX_TEXUNITS = 16;
// Saved states a context can hold.
constexpr std::size_t MAX_ATTRIB_STACK = 15;

// Selects the shadow of `context`, creating it (all values unknown, then glwResetState) the first
// time. An existing shadow is selected as it is, not reset.
void glwNotifyCurrent(GLContextType context);
// Marks every value unknown and disables GL_SCISSOR_TEST.
void glwResetState();
// Nothing to do: the shadow is written through.
void glwSyncState();
// True on the GL thread (recording the caller as the GL thread if none is recorded yet).
bool glwIsGLThread();
// Asserts "glwIsGLThread()"; returns whether the calling thread is the GL thread.
bool glwCheckCorrectThread();

bool glwBlendMode(GLenum src, GLenum dst);
// GL_ONE, GL_ZERO, GL_ONE, GL_ZERO disables blending; any other combination enables it.
bool glwBlendMode(GLenum src, GLenum dst, GLenum srcAlpha, GLenum dstAlpha);
bool glwLineWidth(float width);
bool glwLineStipple(int factor, unsigned short pattern);
bool glwActiveTexture(unsigned unit);
// Binds `id` to `target` on `unit`. Changing the target unbinds the old one (and on unit 0
// disables it); on unit 0 the target is enabled for fixed-function texturing.
bool glwBindTexture(unsigned unit, GLenum target, GLuint id);
bool glwUnbindTexture(unsigned unit);
bool glwUseProgramObject(GLuint program);
bool glwBindFramebuffer(GLuint fbo, FBOBindType bindType);
bool glwClearColor(float r, float g, float b, float a);
bool glwEnableScissorTest(bool enable);
bool glwScissor(int x, int y, int width, int height);
bool glwViewport(int x, int y, int width, int height);
// glPushAttrib of every server attribute group, and a copy of the shadow onto the stack; asserts
// "stack.size() < 15" (and does nothing) when the stack is full.
void glwPushAttrib();
// glPopAttrib, and the saved shadow back; asserts "!stack.empty()". Program and framebuffer
// bindings, which GL does not restore, stay as they are.
void glwPopAttrib();
// Deletes every context's shadow. Asserts "_contextMap" when there are none.
void glwShutdown();

// Tells the shadow that texture `id` was deleted: GL then binds 0 where it was bound.
void glwNotifyTextureDeleted(GLuint id);
// The id bound on `unit` for `target` as the shadow knows it; ~0u when unknown.
GLuint glwBoundTexture(unsigned unit, GLenum target);

}  // namespace qor::gpu
