#pragma once
// Renderer: the one object through which the rest of the library asks the GPU for textures, render
// targets and shaders. RendererGL (gpu/gl2) is its implementation; loadRenderer() builds it for the
// GL context that is current on the calling thread, and renderer() hands it out.
//
// Process-wide settings (texture cache, read-back after upload) may only change while no renderer
// exists. The shader search paths are process-wide too and may change at any time.
//
// Ownership: the loaded renderer is held by a process-wide SharedPtr that unloadRenderer() drops;
// its GL objects must be gone by then, so callers drop their textures before unloading. Other
// threads may hold references for a moment; the renderer still ends on the GL thread, inside
// unloadRenderer(), which waits for them.
// Thread contract: loadRenderer, unloadRenderer, freeUnusedStorage and every virtual operation run
// on the GL thread (the thread of the GL context). renderer(), the static settings and the search
// paths may be used from any thread.

#include <cstdint>
#include <string>
#include <vector>

#include "imaging/DrawParameters.h"
#include "imaging/PixelFormat.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imaging {
class RawImageStorage;
}

namespace qor::gpu {

using imaging::DrawParameters;
using imaging::RawPixelFormat;
using math::Rectf;
using math::Recti;
using math::Vec2f;
using math::Vec2i;

class Texture;
class RenderTarget;
class TextureTarget;
class FramebufferTarget;
class Shader;

// The native handle of a GL context (an EGLContext here).
using GLContextType = void*;

// Memory figures of the graphics card, where the driver reports them (GL_ATI_meminfo).
struct GPUMemoryInfo {
    bool known = false;           // false: the driver has no memory query
    std::uint64_t freeBytes = 0;  // free texture memory in bytes, as last read
};

class Renderer {
public:
    // 1
    virtual ~Renderer();
    // 2: the GL context the renderer was built for.
    virtual GLContextType context() const = 0;
    // 3: called once a frame by the application; nothing to do for GL.
    virtual void beginFrame() {}
    // 4: names the GPU set-up: "RendererGL_" and the MD5 of the driver's version, renderer and
    // extension strings, for caches that must be dropped when the driver changes.
    virtual FastString<char> uniqueId() const = 0;
    // 5: whether textures of any size can be made without rounding to powers of two.
    virtual bool supportsNonPowerOfTwo() const = 0;
    // 6-9: render targets. The texture forms make the texture as createTexture does; throw
    // std::bad_alloc when the GPU has no room.
    virtual SharedPtr<FramebufferTarget> createFramebufferTarget() = 0;
    virtual SharedPtr<TextureTarget> createTextureTarget(const Vec2i& size,
                                                         RawPixelFormat format) = 0;
    virtual SharedPtr<TextureTarget> createTextureTarget(const Vec2i& size, RawPixelFormat format,
                                                         const DrawParameters& params) = 0;
    virtual SharedPtr<TextureTarget> createTextureTarget(
        const SharedPtr<imaging::RawImageStorage>& data, const DrawParameters& params) = 0;
    // 10-13: textures. The storage forms upload its pixels in the format chooseTextureFormat
    // gives. Throw std::bad_alloc when the GPU has no room.
    virtual SharedPtr<Texture> createTexture(const SharedPtr<imaging::RawImageStorage>& data,
                                             const DrawParameters& params) = 0;
    virtual SharedPtr<Texture> createTexture(const Vec2i& size, RawPixelFormat format,
                                             const DrawParameters& params) = 0;
    virtual SharedPtr<Texture> createTextureRect(
        const SharedPtr<imaging::RawImageStorage>& data) = 0;
    virtual SharedPtr<Texture> createTextureRect(const Vec2i& size, RawPixelFormat format) = 0;
    // 14: the format a texture asked for in `format` is really made in; may change drawParamsIn
    // (filtering, mipmapping) to what that format allows.
    virtual RawPixelFormat chooseTextureFormat(RawPixelFormat format,
                                               DrawParameters& drawParamsIn) const = 0;
    // 15: copies `source` into `destination` through a render target. False when it could not.
    virtual bool copyTexture(const SharedPtr<Texture>& source,
                             const SharedPtr<Texture>& destination) = 0;
    // 16: draws a test pattern into a target and checks it. False when it could not.
    virtual bool selfCheck() = 0;
    // 17
    virtual GPUMemoryInfo memoryInfo() const = 0;
    // 18-19: shader programs. The file form finds "vertexFile.glsl" and "fragmentFile.glsl"
    // through the search paths and throws Exception when it cannot build the program.
    virtual SharedPtr<Shader> createShader(const std::string& vertexFile,
                                           const std::string& fragmentFile,
                                           const std::string& defines) = 0;
    virtual SharedPtr<Shader> createShaderFromSource(const std::string& vertexSource,
                                                     const std::string& fragmentSource,
                                                     const std::string& name = "unnamed") = 0;
    // 20: frees at once what can be freed.
    virtual void collectGarbage() = 0;
    // 21: deletes the free textures kept for reuse.
    virtual void clearTextureCache() = 0;
    // 22: ends the use of the target bound for drawing, if any.
    virtual void releaseCurrentTarget() = 0;
    // 23: bytes a texture of that size, format and parameters costs.
    virtual std::uint64_t computeMemoryCost(const Vec2i& size, RawPixelFormat format,
                                            const DrawParameters& params) const = 0;
    // 24: true on the thread that may call GL.
    virtual bool isValidRenderThread() const = 0;
    // 25-27
    virtual unsigned systemInfoBits() const = 0;
    virtual unsigned textureCapabilities() const = 0;
    virtual bool isRenderable(RawPixelFormat format) const = 0;
    // 28: the largest texture the driver makes.
    virtual Vec2i maxTextureSize() const = 0;

    // The program of one file holding both stages, as createShader(name, name, defines).
    SharedPtr<Shader> createShader(const std::string& name, const std::string& defines) {
        return createShader(name, name, defines);
    }

    // Whether shader files are read in their enciphered form.
    void setUseEncodedShaders(bool on) { _useEncodedShaders = on; }
    bool useEncodedShaders() const { return _useEncodedShaders; }

    // Process-wide: whether texture ids are recycled through the texture cache. Only while no
    // renderer exists (asserts "!s_renderer"). Default on.
    static void enableTextureCache(bool on);
    static bool isTextureCacheEnabled();
    // Process-wide: whether each texture upload reads a pixel back, so that it has finished when
    // the call returns. Only while no renderer exists (asserts "!s_renderer"). Default off.
    static void enforceReadbackAfterTextureDataUpload(bool on);
    static bool isReadbackAfterTextureDataUploadEnforced();

    // Shader search paths, tried in order. A path must be shorter than 1000 bytes (asserted
    // "path.length() < 1000"; a longer one is not taken).
    static void setSearchPath(const std::string& path);
    static void setSearchPaths(const std::vector<std::string>& paths);
    static void addSearchPath(const std::string& path);
    // The first search path; empty when there is none.
    static std::string searchPath();
    static std::vector<std::string> searchPaths();

protected:
    Renderer() = default;
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

private:
    bool _useEncodedShaders = false;
};

// Builds the renderer for the GL context current on the calling thread, which becomes the GL
// thread. False when that fails ("Failed to load GL renderer: ..." is logged): the process then
// runs without GPU rendering and renderer() stays null. Never throws.
bool loadRenderer();
// Frees what the renderer holds (unused GPU storage, garbage, the texture cache) and ends it, on
// this thread: blocks until references that other threads still hold are gone. GL thread only.
void unloadRenderer();
// The loaded renderer, or null. Any thread.
SharedPtr<Renderer> renderer();
// Deletes the GPU storages that nobody uses any more. GL thread only.
void freeUnusedStorage();

}  // namespace qor::gpu
