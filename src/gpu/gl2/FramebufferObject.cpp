#include "gpu/gl2/FramebufferObject.h"

#include <tuple>

#include "base/Log.h"
#include "container/LRUTable.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/GLTestHooks.h"
#include "gpu/gl2/TextureGL.h"
#include "imaging/ImagingException.h"

namespace qor::gpu {

namespace {

// Allocated width and height, internal format, texture target: textures that agree on these can
// share a framebuffer object.
using FBOKey = std::tuple<int, int, GLenum, GLenum>;

// Process-wide, GL thread only.
container::LRUTable<FBOKey, SharedPtr<FramebufferObject>>* s_fboCache = nullptr;
SharedPtr<FramebufferObject> s_fboCurrent[2];  // by FBOBindType

#ifdef QOR_TESTING
int g_failingChecks = 0;
#endif

container::LRUTable<FBOKey, SharedPtr<FramebufferObject>>& fboCache() {
    if (!s_fboCache) s_fboCache = new container::LRUTable<FBOKey, SharedPtr<FramebufferObject>>;
    return *s_fboCache;
}

FBOKey keyOf(const TextureGL& texture) {
    return FBOKey(texture.texSize().x, texture.texSize().y, glInternalFormat(texture.pixelFormat()),
                  texture.target());
}

// Separate read and draw bindings (GL 3.0 or GL_ARB_framebuffer_object); otherwise one binding
// serves both.
GLenum bindingPoint(FBOBindType bind) {
    static const bool separate =
        epoxy_gl_version() >= 30 || epoxy_has_gl_extension("GL_ARB_framebuffer_object");
    if (!separate) return GL_FRAMEBUFFER_EXT;
    return bind == FBO_Bind_Read ? GL_READ_FRAMEBUFFER : GL_DRAW_FRAMEBUFFER;
}

GLenum checkStatus(GLenum point) {
    GLenum status = glCheckFramebufferStatus(point);
#ifdef QOR_TESTING
    if (g_failingChecks > 0) {
        --g_failingChecks;
        status = GL_FRAMEBUFFER_UNSUPPORTED;
    }
#endif
    return status;
}

}  // namespace

#ifdef QOR_TESTING
namespace testing {
void failFramebufferChecks(int times) { g_failingChecks = times; }
}  // namespace testing
#endif

FramebufferObject::FramebufferObject() {
    glGenFramebuffers(1, &_fbo);
    QOR_ASSERT_TEXT(_fbo != 0, "fbo != 0");
}

FramebufferObject::~FramebufferObject() {
    QOR_ASSERT_TEXT(_fbo, "_fbo");
    if (_fbo && glwCheckCorrectThread()) glDeleteFramebuffers(1, &_fbo);
}

SharedPtr<FramebufferObject> FramebufferObject::create() {
    SharedPtr<FramebufferObject> made(new FramebufferObject);
    made->setupSelfRef(made);
    return made;
}

void FramebufferObject::setupSelfRef(const SharedPtr<FramebufferObject>& self) {
    QOR_ASSERT_TEXT(_selfRef.expired(), "_selfRef.isNull()");
    _selfRef = self;
}

SharedPtr<FramebufferObject> FramebufferObject::getBoundFBO(FBOBindType bindType) {
    return s_fboCurrent[bindType == FBO_Bind_Read ? 1 : 0];
}

std::size_t FramebufferObject::poolSize() { return s_fboCache ? s_fboCache->size() : 0; }

SharedPtr<FramebufferObject> FramebufferObject::pooled(const Vec2i& texSize, GLenum internalFormat,
                                                       GLenum textureTarget) {
    if (!s_fboCache) return nullptr;
    const auto* found =
        s_fboCache->find(FBOKey(texSize.x, texSize.y, internalFormat, textureTarget));
    return found ? *found : nullptr;
}

SharedPtr<FramebufferObject> FramebufferObject::bindFBO(const SharedPtr<TextureGL>& texture,
                                                        FBOBindType bindType) {
    QOR_ASSERT_TEXT(texture, "texture");
    if (!texture) throw RenderTargetException("bindFBO: no texture");
    auto& cache = fboCache();
    const FBOKey key = keyOf(*texture);
    SharedPtr<FramebufferObject> fbo;
    if (SharedPtr<FramebufferObject>* hit = cache.get(key)) {
        fbo = *hit;
    } else {
        if (cache.size() >= MaxPooled) {
            auto oldentry = cache.popLeastRecent();
            QOR_ASSERT_TEXT(!oldentry->second->getAttachment(),
                            "!oldentry.second->getAttachment()");
            QOR_ASSERT_TEXT(getBoundFBO(FBO_Bind_Draw) != oldentry->second &&
                                getBoundFBO(FBO_Bind_Read) != oldentry->second,
                            "getBoundFBO(FBO_Bind_Draw) != oldentry.second && "
                            "getBoundFBO(FBO_Bind_Read) != oldentry.second");
            const bool fboOld = oldentry->second != nullptr;
            QOR_ASSERT_TEXT(fboOld, "fboOld");
            if (oldentry->second->getAttachment()) {
                // Still in use: end that use before the object goes.
                oldentry->second->detach();
                oldentry->second->unbind();
            }
        }
        fbo = create();
        cache.insert(key, fbo);
    }

    fbo->bind(bindType);
    if (!fbo->attach(texture)) {
        fbo->detach();
        fbo->unbind();
        const Vec2i size = texture->size();
        const std::string text =
            formatLog("Could not bind texture {%*@(%*,%*)}!",
                      imaging::pixelFormatString(texture->pixelFormat()), size.x, size.y);
        QOR_LOG(LogError, "%*", text);
        throw RenderTargetException(text);
    }
    return fbo;
}

void FramebufferObject::bind(FBOBindType bindType) {
    const bool ok = bindType == FBO_Bind_Draw || bindType == FBO_Bind_Read;
    QOR_ASSERT_TEXT(ok, "bind == FBO_Bind_Draw || bind == FBO_Bind_Read");
    if (!ok) bindType = FBO_Bind_Draw;
    _bind = bindType;
    glwBindFramebuffer(_fbo, bindType);
    s_fboCurrent[bindType] = selfRef();
    if (bindType == FBO_Bind_Read) glReadBuffer(GL_COLOR_ATTACHMENT0);
}

bool FramebufferObject::attach(const SharedPtr<TextureGL>& texture) {
    // A texture is never bound for sampling while it is drawn into.
    for (unsigned unit = 0; unit < MAX_TEXUNITS; ++unit) {
        const GLuint bound = glwBoundTexture(unit, texture->target());
        if (bound == texture->id() || bound == ~0u) glwUnbindTexture(unit);
    }
    _attachment = texture;
    const GLenum point = bindingPoint(_bind);
    glFramebufferTexture2D(point, GL_COLOR_ATTACHMENT0, texture->target(), texture->id(), 0);
    const GLenum status = checkStatus(point);
    if (status != GL_FRAMEBUFFER_COMPLETE) {
        QOR_LOG(LogError, "Check FBO status returned: %*", status);
        QOR_ASSERT_TEXT(false, "status == GL_FRAMEBUFFER_COMPLETE_EXT");
        return false;
    }
    return true;
}

void FramebufferObject::detach() {
    const bool ok = _fbo && s_fboCurrent[_bind] == selfRef();
    QOR_ASSERT_TEXT(ok, "_fbo && s_fboCurrent[_bind] == selfRef()");
    if (!_attachment) return;
    if (ok)
        glFramebufferTexture2D(bindingPoint(_bind), GL_COLOR_ATTACHMENT0, _attachment->target(), 0,
                               0);
    _attachment.reset();
}

void FramebufferObject::unbind() {
    if (s_fboCurrent[_bind] == selfRef()) s_fboCurrent[_bind].reset();
    glwBindFramebuffer(0, _bind);
}

void FramebufferObject::endUse(FBOBindType bindType, bool unbindToo) {
    SharedPtr<FramebufferObject> fbo = getBoundFBO(bindType);
    if (!fbo) return;
    // The object may be bound both ways; the binding that ends is the one asked for.
    fbo->_bind = bindType;
    fbo->detach();
    if (unbindToo) fbo->unbind();
}

void FramebufferObject::releasePool() {
    endUse(FBO_Bind_Draw, true);
    endUse(FBO_Bind_Read, true);
    if (!s_fboCache) return;
    delete s_fboCache;
    s_fboCache = nullptr;
}

}  // namespace qor::gpu
