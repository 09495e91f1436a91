#include "gpu/gl2/glw.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <map>
#include <vector>

#include "base/Log.h"
#include "base/thread/ThreadId.h"
#include "gpu/gl2/GLTestHooks.h"

namespace qor::gpu {

namespace {

constexpr GLuint Unknown = 0xFFFFFFFFu;
constexpr float UnknownFloat = std::numeric_limits<float>::quiet_NaN();

#ifdef QOR_TESTING
std::uint64_t g_glwCalls = 0;  // GL thread only
#define GLW(call) (++g_glwCalls, call)
#else
#define GLW(call) call
#endif

struct TextureUnit {
    GLenum target = Unknown;
    GLuint id = Unknown;
};

// The shadow of the state glw sets. Unknown values never compare equal to a request.
struct AttribState {
    int activeTexture = -1;
    TextureUnit units[MAX_TEXUNITS];
    GLuint program = Unknown;
    GLuint fbo[2] = {Unknown, Unknown};  // by FBOBindType
    GLenum blend[4] = {Unknown, Unknown, Unknown, Unknown};
    float lineWidth = UnknownFloat;
    int stippleFactor = -1;
    int stipplePattern = -1;
    float clearColor[4] = {UnknownFloat, UnknownFloat, UnknownFloat, UnknownFloat};
    int scissorEnabled = -1;
    bool scissorKnown = false;
    int scissor[4] = {0, 0, 0, 0};
    bool viewportKnown = false;
    int viewport[4] = {0, 0, 0, 0};
};

// What the context's driver offers, read once when its shadow is made.
struct ContextFeatures {
    bool activeTexture = false;        // glActiveTexture (GL 1.3 or GL_ARB_multitexture)
    bool blendFuncSeparate = false;    // glBlendFuncSeparate (GL 1.4 or GL_EXT_blend_func_separate)
    bool program = false;              // glUseProgram (GL 2.0)
    bool programARB = false;           // glUseProgramObjectARB (GL_ARB_shader_objects)
    bool framebuffer = false;          // framebuffer objects, core, ARB or EXT
    bool readDrawFramebuffer = false;  // separate read and draw bindings (GL 3.0, ARB)
};

struct ContextState {
    thread::ThreadId threadID = thread::InvalidThreadId;
    ContextFeatures features;
    std::vector<AttribState> stack;  // saved states, oldest first
    AttribState live;
    AttribState* current = &live;  // the top: the state GL has now
};

std::atomic<thread::ThreadId> s_glThread{thread::InvalidThreadId};
// GL thread only, like everything below.
std::map<GLContextType, ContextState*>* _contextMap = nullptr;
ContextState* _ctx = nullptr;

thread::ThreadId glThread() {
    thread::ThreadId expected = thread::InvalidThreadId;
    const thread::ThreadId self = thread::getThreadId();
    if (s_glThread.compare_exchange_strong(expected, self, std::memory_order_acq_rel)) return self;
    return expected;
}

// The gate of every setter: the GL thread with a shadow of its own.
bool setterAllowed() {
    if (!glwIsGLThread()) {
        QOR_ASSERT_TEXT(false, "glwIsGLThread()");
        return false;
    }
    const bool own = _ctx && _ctx->threadID == thread::getThreadId();
    QOR_ASSERT_TEXT(own, "_ctx && _ctx->threadID == qor::thread::getThreadId()");
    return own;
}

AttribState& state() { return *_ctx->current; }

ContextFeatures readFeatures() {
    ContextFeatures f;
    const int version = epoxy_gl_version();
    f.activeTexture = version >= 13 || epoxy_has_gl_extension("GL_ARB_multitexture");
    f.blendFuncSeparate = version >= 14 || epoxy_has_gl_extension("GL_EXT_blend_func_separate");
    f.program = version >= 20;
    f.programARB = epoxy_has_gl_extension("GL_ARB_shader_objects");
    f.readDrawFramebuffer = version >= 30 || epoxy_has_gl_extension("GL_ARB_framebuffer_object");
    f.framebuffer = f.readDrawFramebuffer || epoxy_has_gl_extension("GL_EXT_framebuffer_object");
    return f;
}

bool isTextureTarget(GLenum target) { return target != Unknown && target != 0; }

// Stores a rectangle into the shadow; false when the shadow already held it.
bool storeRect(bool& known, int (&stored)[4], int x, int y, int width, int height) {
    const int wanted[4] = {x, y, width, height};
    if (known && std::equal(wanted, wanted + 4, stored)) return false;
    known = true;
    std::copy(wanted, wanted + 4, stored);
    return true;
}

}  // namespace

void glwNotifyCurrent(GLContextType context) {
    if (!glwIsGLThread()) {
        QOR_ASSERT_TEXT(false, "glwIsGLThread()");
        return;
    }
    if (!_contextMap) _contextMap = new std::map<GLContextType, ContextState*>;
    auto it = _contextMap->find(context);
    if (it != _contextMap->end()) {
        _ctx = it->second;
        return;
    }
    auto* created = new ContextState;
    created->threadID = thread::getThreadId();
    created->features = readFeatures();
    (*_contextMap)[context] = created;
    _ctx = created;
    glwResetState();
}

void glwResetState() {
    if (!setterAllowed()) return;
    *_ctx->current = AttribState();
    GLW(glDisable(GL_SCISSOR_TEST));
    state().scissorEnabled = 0;
}

void glwSyncState() {}

bool glwIsGLThread() { return glThread() == thread::getThreadId(); }

bool glwCheckCorrectThread() {
    const bool ok = glwIsGLThread();
    QOR_ASSERT_TEXT(ok, "glwIsGLThread()");
    return ok;
}

bool glwBlendMode(GLenum src, GLenum dst) { return glwBlendMode(src, dst, src, dst); }

bool glwBlendMode(GLenum src, GLenum dst, GLenum srcAlpha, GLenum dstAlpha) {
    if (!setterAllowed()) return false;
    GLenum* blend = state().blend;
    if (blend[0] == src && blend[1] == dst && blend[2] == srcAlpha && blend[3] == dstAlpha)
        return false;
    blend[0] = src;
    blend[1] = dst;
    blend[2] = srcAlpha;
    blend[3] = dstAlpha;
    if (src == GL_ONE && dst == GL_ZERO && srcAlpha == GL_ONE && dstAlpha == GL_ZERO) {
        GLW(glDisable(GL_BLEND));
        return true;
    }
    if (_ctx->features.blendFuncSeparate) {
        GLW(glBlendFuncSeparate(src, dst, srcAlpha, dstAlpha));
    } else if (src == srcAlpha && dst == dstAlpha) {
        GLW(glBlendFunc(src, dst));
    } else {
        QOR_ASSERT_TEXT(false, "GLEW_EXT_blend_func_separate");
        GLW(glBlendFunc(src, dst));
    }
    GLW(glEnable(GL_BLEND));
    return true;
}

bool glwLineWidth(float width) {
    if (!setterAllowed()) return false;
    if (state().lineWidth == width) return false;
    state().lineWidth = width;
    GLW(glLineWidth(width));
    return true;
}

bool glwLineStipple(int factor, unsigned short pattern) {
    if (!setterAllowed()) return false;
    if (state().stippleFactor == factor && state().stipplePattern == int(pattern)) return false;
    state().stippleFactor = factor;
    state().stipplePattern = pattern;
    GLW(glLineStipple(factor, pattern));
    return true;
}

bool glwActiveTexture(unsigned unit) {
    if (!setterAllowed()) return false;
    if (!_ctx->features.activeTexture) {
        QOR_ASSERT_TEXT(unit == 0, "unit == 0");
        return false;
    }
    QOR_ASSERT_TEXT(unit < MAX_TEXUNITS, "unit < MAX_TEXUNITS");
    QOR_ASSERT_TEXT(_ctx->features.activeTexture, "glActiveTextureARB");
    if (unit >= MAX_TEXUNITS) return false;
    if (state().activeTexture == int(unit)) return false;
    state().activeTexture = int(unit);
    GLW(glActiveTexture(GL_TEXTURE0 + unit));
    return true;
}

bool glwBindTexture(unsigned unit, GLenum target, GLuint id) {
    if (!setterAllowed()) return false;
    QOR_ASSERT_TEXT(unit < MAX_TEXUNITS, "unit < MAX_TEXUNITS");
    if (unit >= MAX_TEXUNITS) return false;
    TextureUnit& u = state().units[unit];
    if (u.target == target && u.id == id) return false;
    glwActiveTexture(unit);
    if (u.target != target && isTextureTarget(u.target)) {
        GLW(glBindTexture(u.target, 0));
        if (unit == 0) GLW(glDisable(u.target));
    }
    u.target = target;
    u.id = id;
    GLW(glBindTexture(target, id));
    if (unit == 0) GLW(glEnable(target));
    return true;
}

bool glwUnbindTexture(unsigned unit) {
    if (!setterAllowed()) return false;
    QOR_ASSERT_TEXT(unit < MAX_TEXUNITS, "unit < MAX_TEXUNITS");
    if (unit >= MAX_TEXUNITS) return false;
    TextureUnit& u = state().units[unit];
    if (u.id == 0 && isTextureTarget(u.target)) return false;
    glwActiveTexture(unit);
    if (isTextureTarget(u.target)) {
        GLW(glBindTexture(u.target, 0));
        if (unit == 0) GLW(glDisable(u.target));
    } else {
        // Unknown target: clear the two this layer binds.
        GLW(glBindTexture(GL_TEXTURE_2D, 0));
        GLW(glBindTexture(GL_TEXTURE_RECTANGLE, 0));
        if (unit == 0) {
            GLW(glDisable(GL_TEXTURE_2D));
            GLW(glDisable(GL_TEXTURE_RECTANGLE));
        }
        u.target = GL_TEXTURE_2D;
    }
    u.id = 0;
    return true;
}

bool glwUseProgramObject(GLuint program) {
    if (!setterAllowed()) return false;
    const ContextFeatures& f = _ctx->features;
    if (!f.program && !f.programARB) {
        QOR_ASSERT_TEXT(program == 0, "prg == 0");
        return false;
    }
    if (state().program == program) return false;
    state().program = program;
    if (f.program)
        GLW(glUseProgram(program));
    else
        GLW(glUseProgramObjectARB(program));
    return true;
}

bool glwBindFramebuffer(GLuint fbo, FBOBindType bindType) {
    if (!setterAllowed()) return false;
    if (bindType != FBO_Bind_Draw && bindType != FBO_Bind_Read) {
        QOR_ASSERT_TEXT(false, "bindtype == FBO_Bind_Draw || bindtype == FBO_Bind_Read");
        QOR_ASSERT_TEXT(false, "0");
        return false;
    }
    const ContextFeatures& f = _ctx->features;
    if (!f.framebuffer) {
        QOR_ASSERT_TEXT(fbo == 0, "fbo == 0");
        return false;
    }
    AttribState& s = state();
    if (s.fbo[bindType] == fbo) return false;
    if (f.readDrawFramebuffer) {
        s.fbo[bindType] = fbo;
        GLW(glBindFramebuffer(bindType == FBO_Bind_Draw ? GL_DRAW_FRAMEBUFFER : GL_READ_FRAMEBUFFER,
                              fbo));
    } else {
        // One binding serves both.
        s.fbo[FBO_Bind_Draw] = s.fbo[FBO_Bind_Read] = fbo;
        GLW(glBindFramebufferEXT(GL_FRAMEBUFFER_EXT, fbo));
    }
    return true;
}

bool glwClearColor(float r, float g, float b, float a) {
    if (!setterAllowed()) return false;
    float* c = state().clearColor;
    if (c[0] == r && c[1] == g && c[2] == b && c[3] == a) return false;
    c[0] = r;
    c[1] = g;
    c[2] = b;
    c[3] = a;
    GLW(glClearColor(r, g, b, a));
    return true;
}

bool glwEnableScissorTest(bool enable) {
    if (!setterAllowed()) return false;
    if (state().scissorEnabled == int(enable)) return false;
    state().scissorEnabled = int(enable);
    if (enable)
        GLW(glEnable(GL_SCISSOR_TEST));
    else
        GLW(glDisable(GL_SCISSOR_TEST));
    return true;
}

bool glwScissor(int x, int y, int width, int height) {
    if (!setterAllowed()) return false;
    AttribState& s = state();
    if (!storeRect(s.scissorKnown, s.scissor, x, y, width, height)) return false;
    GLW(glScissor(x, y, width, height));
    return true;
}

bool glwViewport(int x, int y, int width, int height) {
    if (!setterAllowed()) return false;
    AttribState& s = state();
    if (!storeRect(s.viewportKnown, s.viewport, x, y, width, height)) return false;
    GLW(glViewport(x, y, width, height));
    return true;
}

void glwPushAttrib() {
    if (!setterAllowed()) return;
    std::vector<AttribState>& stack = _ctx->stack;
    QOR_ASSERT_TEXT(stack.size() < MAX_ATTRIB_STACK, "stack.size() < 15");
    if (stack.size() >= MAX_ATTRIB_STACK) return;
    GLW(glPushAttrib(0xFFFFF));
    stack.push_back(*_ctx->current);
}

void glwPopAttrib() {
    if (!setterAllowed()) return;
    std::vector<AttribState>& stack = _ctx->stack;
    QOR_ASSERT_TEXT(!stack.empty(), "!stack.empty()");
    if (stack.empty()) return;
    GLW(glPopAttrib());
    AttribState restored = stack.back();
    stack.pop_back();
    // The attribute stack does not hold these bindings: they keep their present values.
    restored.program = _ctx->current->program;
    restored.fbo[0] = _ctx->current->fbo[0];
    restored.fbo[1] = _ctx->current->fbo[1];
    *_ctx->current = restored;
}

void glwShutdown() {
    if (!glwIsGLThread()) {
        QOR_ASSERT_TEXT(false, "glwIsGLThread()");
        return;
    }
    QOR_ASSERT_TEXT(_contextMap, "_contextMap");
    if (!_contextMap) return;
    for (auto& entry : *_contextMap) delete entry.second;
    delete _contextMap;
    _contextMap = nullptr;
    _ctx = nullptr;
}

void glwNotifyTextureDeleted(GLuint id) {
    // Without shadows (after glwShutdown) there is nothing to forget.
    if (!glwCheckCorrectThread() || id == 0 || !_contextMap) return;
    // Only the current context's bindings revert; the others are unknown from here on.
    for (auto& entry : *_contextMap) {
        ContextState* cs = entry.second;
        std::vector<AttribState*> states;
        states.push_back(cs->current);
        for (AttribState& saved : cs->stack) states.push_back(&saved);
        for (AttribState* s : states) {
            for (TextureUnit& u : s->units) {
                if (u.id != id) continue;
                u.id = cs == _ctx && s == cs->current ? 0 : Unknown;
            }
        }
    }
}

GLuint glwBoundTexture(unsigned unit, GLenum target) {
    if (!glwIsGLThread() || !_ctx || unit >= MAX_TEXUNITS) return Unknown;
    const TextureUnit& u = _ctx->current->units[unit];
    return u.target == target ? u.id : Unknown;
}

#ifdef QOR_TESTING
namespace testing {
std::uint64_t glwCallCount() { return g_glwCalls; }
}  // namespace testing
#endif

}  // namespace qor::gpu
