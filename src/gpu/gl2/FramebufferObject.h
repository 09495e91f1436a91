#pragma once
// FramebufferObject: a GL framebuffer object from the process's pool. Changing framebuffer
// objects is costly and some drivers fail with many of them, so texture targets share a pool of
// at most 15, one per texture configuration (allocated size, internal format and texture target):
// any texture of a configuration can be attached to its object. A 16th configuration deletes the
// least recently used object.
//
// The way to use one: bindFBO(texture, bindType) finds or makes the object, binds it and attaches
// the texture (throwing RenderTargetException when the framebuffer is not complete); detach() and
// unbind() end the use.
//
// Ownership: the pool owns the objects (SharedPtr); s_fboCurrent holds the one bound for drawing
// and for reading. The pool lives until releasePool(), which the renderer calls when it goes.
// Thread contract: GL thread only; the pool and the bindings are plain process-wide values that
// only the GL thread touches.

#include <epoxy/gl.h>

#include "gpu/gl2/glw.h"
#include "util/SharedPtr.h"

namespace qor::gpu {

class TextureGL;

class FramebufferObject {
public:
    // The most objects the pool keeps.
    static constexpr std::size_t MaxPooled = 15;

    // Deletes the GL object (asserts "_fbo").
    ~FramebufferObject();
    FramebufferObject(const FramebufferObject&) = delete;
    FramebufferObject& operator=(const FramebufferObject&) = delete;

    // The pooled object for `texture`'s configuration, bound as `bindType` with `texture`
    // attached. Throws RenderTargetException "Could not bind texture {%*@(%*,%*)}!" when the
    // framebuffer is not complete; nothing is attached or bound then.
    static SharedPtr<FramebufferObject> bindFBO(const SharedPtr<TextureGL>& texture,
                                                FBOBindType bindType);
    // The object bound now as `bindType`, or null.
    static SharedPtr<FramebufferObject> getBoundFBO(FBOBindType bindType);
    // Ends the use of the object bound as `bindType`, if any: detaches its texture and, with
    // `unbindToo`, binds 0 there. One object can be bound for drawing and for reading at once (a
    // render leaves it bound for drawing, a read-back of a texture of the same configuration
    // binds it for reading); this ends the `bindType` binding whichever came last.
    static void endUse(FBOBindType bindType, bool unbindToo);
    // Deletes every pooled object (detaching and unbinding them first).
    static void releasePool();
    // Pooled objects now.
    static std::size_t poolSize();
    // The pooled object of a configuration, or null; does not count as a use.
    static SharedPtr<FramebufferObject> pooled(const Vec2i& texSize, GLenum internalFormat,
                                               GLenum textureTarget);

    // Takes the texture off the colour attachment. Asserts "_fbo && s_fboCurrent[_bind] ==
    // selfRef()".
    void detach();
    // Binds 0 where this object was bound, and forgets it as the bound one.
    void unbind();

    GLuint id() const { return _fbo; }
    FBOBindType bindType() const { return _bind; }
    const SharedPtr<TextureGL>& getAttachment() const { return _attachment; }

private:
    FramebufferObject();
    static SharedPtr<FramebufferObject> create();
    SharedPtr<FramebufferObject> selfRef() const { return _selfRef.lock(); }
    void setupSelfRef(const SharedPtr<FramebufferObject>& self);
    void bind(FBOBindType bindType);
    // Attaches the texture and checks completeness; false when the framebuffer is not complete.
    bool attach(const SharedPtr<TextureGL>& texture);

    GLuint _fbo = 0;
    FBOBindType _bind = FBO_Bind_Draw;
    SharedPtr<TextureGL> _attachment;
    WeakSharedPtr<FramebufferObject> _selfRef;
};

}  // namespace qor::gpu
