#pragma once
// The render targets on OpenGL: TextureTargetGL draws into a texture through a pooled framebuffer
// object (FramebufferObject), or, on a driver without them, into the back buffer and then copies
// the result into the texture; FramebufferTargetGL draws on the context's own frame buffer.
//
// One flag for the whole process (s_rendering) says that some target is between beginRender and
// finishRender; it orders calls on the GL thread and guards nothing across threads.
//
// Ownership: targets are made by RendererGL and must be gone before it; a texture target shares
// its texture and keeps one DrawerGL for its whole life. Thread contract: GL thread only.

#include "gpu/RenderTarget.h"
#include "gpu/gl2/TextureGL.h"

namespace qor::gpu {

class DrawerGL;
class RendererGL;

class TextureTargetGL : public TextureTarget {
public:
    TextureTargetGL(RendererGL* renderer, const SharedPtr<TextureGL>& texture);
    // Ends a render left unfinished.
    ~TextureTargetGL() override;

    // Gives the texture a new size; false while rendering or when the GPU has no room.
    bool resize(const Vec2i& size) override;
    Vec2i size() const override { return _texture->size(); }
    // Binds the pooled framebuffer object, sets the viewport to the texture and the drawing
    // coordinates to readBackOffset() .. readBackOffset() + size(), depth -10000 to 10000.
    // Throws RenderTargetException "TextureTargetGL::beginRender() call during another render
    // operation!" while any target renders, and when the texture cannot be bound.
    SharedPtr<Drawer> beginRender() override;
    // Ends the drawer, detaches the texture (binding 0 when unbindFBOOnFinish is set) and builds
    // the mipmaps of a mipmapped texture.
    void finishRender(const SharedPtr<Drawer>& drawer) override;
    bool offscreenRenderSupport() const override;

    SharedPtr<Texture> texture() const override { return _texture; }
    void setDrawParameters(const DrawParameters& params) override;
    DrawParameters getDrawParameters() const override { return _drawParameters; }

#define QOR_TARGETGL_DECLARE_READBACK(Name, N, T) \
    void readBack##Name(const ImageDataOut<T, N>& data, const Recti& subrect) override;
    QOR_TARGET_READBACKS(QOR_TARGETGL_DECLARE_READBACK)
#undef QOR_TARGETGL_DECLARE_READBACK

    Vec2i readBackOffset() const override { return _readBackOffset; }
    void setReadBackOffset(const Vec2i& offset) override { _readBackOffset = offset; }

    void copyFromTexture(const SharedPtr<Texture>& source, const Recti& rect,
                         const Recti& srcrect) override;
    void copyToTexture(const SharedPtr<Texture>& destination, const Recti& rect,
                       const Recti& srcrect) override;

    // Copies `srcrect` of `source` to `rect` of `destination` through processor memory, in a
    // temporary chosen by the source's format (RGBA8, BGRA8, RGB8, RGB16, RGB16F, RGB32F, RGBA16,
    // RGBA16F, RGBA32F; other formats assert "false" and copy nothing). No scaling: the
    // rectangles must have the same size.
    static void textureCopyCPU(const SharedPtr<Texture>& source,
                               const SharedPtr<Texture>& destination, const Recti& rect,
                               const Recti& srcrect);
    // Whether finishRender binds framebuffer 0 after detaching. Default off.
    static void unbindFBOOnFinish(bool on);
    // Whether some target renders now.
    static bool isRenderingAny();

private:
    template <class T, int N>
    void readBackGeneric(const ImageDataOut<T, N>& data, const Recti& subrect,
                         std::uint32_t letters);
    // Draws `srcrect` of `source` into `rect` of `destination` through its framebuffer object,
    // when `destination`'s format can be rendered; the processor copy otherwise.
    void copyTexture(const SharedPtr<Texture>& source, const SharedPtr<Texture>& destination,
                     const Recti& rect, const Recti& srcrect);

    RendererGL* _renderer;
    SharedPtr<TextureGL> _texture;
    SharedPtr<DrawerGL> _drawer;
    bool _isRendering = false;
    DrawParameters _drawParameters;  // always _texture->getDrawParameters()
    Vec2i _readBackOffset;
};

class FramebufferTargetGL : public FramebufferTarget {
public:
    // Takes the size of the drawable current now, or of GL's viewport when there is none.
    explicit FramebufferTargetGL(RendererGL* renderer);
    ~FramebufferTargetGL() override;

    bool resize(const Vec2i& size) override;
    Vec2i size() const override { return _size; }
    // Binds framebuffer 0 for drawing; throws RenderTargetException during another render.
    SharedPtr<Drawer> beginRender() override;
    void finishRender(const SharedPtr<Drawer>& drawer) override;
    bool offscreenRenderSupport() const override { return false; }
    Vec2i drawableSize() const override;

private:
    RendererGL* _renderer;
    SharedPtr<DrawerGL> _drawer;
    Vec2i _size;
    bool _isRendering = false;
};

}  // namespace qor::gpu
