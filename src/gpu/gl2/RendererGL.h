#pragma once
// RendererGL: the Renderer on OpenGL (2 and up, compatibility profile), with entry points and
// extension checks through libepoxy. It is built for the context current on the calling thread
// (eglGetCurrentContext), reads what the driver offers once (version, vendor, extensions, the
// system information bits), and tests which texture formats it can really render into.
//
// Ownership: made by loadRenderer() and held through renderer(); its destructor ends the glw
// shadows (glwShutdown). Thread contract: built, used and destroyed on the GL thread; the values
// read at construction do not change afterwards.

#include <epoxy/gl.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "gpu/Renderer.h"
#include "gpu/gl2/GLCapabilities.h"

namespace qor::gpu {

class ShaderGL;
class TextureGL;

class RendererGL : public Renderer {
public:
    // Takes the context current on this thread (`ctx` is not used). Throws Exception when there
    // is no current context or GL gives no version.
    explicit RendererGL(GLContextType ctx);
    ~RendererGL() override;

    GLContextType context() const override { return _context; }
    FastString<char> uniqueId() const override;
    bool supportsNonPowerOfTwo() const override { return _hasNonPowerOfTwo; }
    SharedPtr<FramebufferTarget> createFramebufferTarget() override;
    SharedPtr<TextureTarget> createTextureTarget(const Vec2i& size, RawPixelFormat format) override;
    SharedPtr<TextureTarget> createTextureTarget(const Vec2i& size, RawPixelFormat format,
                                                 const DrawParameters& params) override;
    SharedPtr<TextureTarget> createTextureTarget(const SharedPtr<imaging::RawImageStorage>& data,
                                                 const DrawParameters& params) override;
    SharedPtr<Texture> createTexture(const SharedPtr<imaging::RawImageStorage>& data,
                                     const DrawParameters& params) override;
    SharedPtr<Texture> createTexture(const Vec2i& size, RawPixelFormat format,
                                     const DrawParameters& params) override;
    SharedPtr<Texture> createTextureRect(const SharedPtr<imaging::RawImageStorage>& data) override;
    SharedPtr<Texture> createTextureRect(const Vec2i& size, RawPixelFormat format) override;
    // Falls back by the capability bits:
    //   RGB8, RGBA8, BGRA8 always kept
    //   RGBA16   kept with 0x2 and 0x80; else RGBA16F with 0x1 and 0x8; else RGBA8
    //   RGBA16F  kept with 0x1 and 0x8, else RGBA8;  RGBA32F kept with 0x1 and 0x10, else RGBA8
    //   RGB16    kept with 0x2 and 0x100; else RGB16F with 0x1 and 0x20; else RGB8
    //   RGB16F   kept with 0x1 and 0x20, else RGB8;  RGB32F kept with 0x1 and 0x40, else RGB8
    //   Red8     kept with 0x4 and 0x800 (never mipmapped), else RGB8
    //   Red16    kept with 0x4 and 0x1000 (never mipmapped); else RGBA16 with 0x2 and 0x80; else
    //   RGB8 Red16F   kept with 0x4 and 0x200; else RGB16F with 0x1 and 0x20; else RGB8 Red32F kept
    //   with 0x4 and 0x400; else RGB32F with 0x1 and 0x40; else RGB8 RGB32, RGBA32 never
    //   (asserted): RGB8, RGBA8 without mipmaps; anything else asserts, RGBA8
    // A float result on a driver without system bit 0x40 gets nearest filtering.
    RawPixelFormat chooseTextureFormat(RawPixelFormat format,
                                       DrawParameters& drawParamsIn) const override;
    bool copyTexture(const SharedPtr<Texture>& source,
                     const SharedPtr<Texture>& destination) override;
    bool selfCheck() override;
    GPUMemoryInfo memoryInfo() const override;
    using Renderer::createShader;
    // Returns the program kept under the key vertexFile "$$$$" fragmentFile defines, or builds
    // it from the files (see ShaderGL.h). Throws Exception when a file is missing or unreadable
    // or the program does not compile; after ten GL_OUT_OF_MEMORY attempts "FAILED TO CREATE
    // SHADER: " and the name.
    SharedPtr<Shader> createShader(const std::string& vertexFile, const std::string& fragmentFile,
                                   const std::string& defines) override;
    // Compiles the two sources as they are; not kept.
    SharedPtr<Shader> createShaderFromSource(const std::string& vertexSource,
                                             const std::string& fragmentSource,
                                             const std::string& name) override;
    void collectGarbage() override;
    void clearTextureCache() override;
    void releaseCurrentTarget() override;
    std::uint64_t computeMemoryCost(const Vec2i& size, RawPixelFormat format,
                                    const DrawParameters& params) const override;
    bool isValidRenderThread() const override;
    unsigned systemInfoBits() const override { return _systemInfoBits; }
    unsigned textureCapabilities() const override { return _textureCapabilities; }
    bool isRenderable(RawPixelFormat format) const override;
    Vec2i maxTextureSize() const override { return _maxTextureSize; }

    GLVendor vendor() const { return _vendor; }
    // GL_RENDERER and GL_VERSION as the driver gives them.
    const std::string& rendererString() const { return _rendererString; }
    const std::string& versionString() const { return _versionString; }
    int glMajor() const { return _glMajor; }
    int glMinor() const { return _glMinor; }
    const std::string& glslVersion() const { return _glslVersion; }
    const std::string& extensions() const { return _extensions; }
    bool hasExtension(std::string_view name) const { return hasGLExtension(_extensions, name); }
    bool hasFBO() const { return _hasFBO; }
    bool hasDebugOutput() const { return _hasDebugOutput; }
    bool hasMultipleWindowsDefect() const { return _hasMultipleWindowsDefect; }
    // Whether GL_CLAMP_TO_EDGE exists; without it textures keep a border texel.
    bool hasEdgeClamp() const { return _hasEdgeClamp; }
    // Free texture memory in bytes as last read; 0 when the driver does not report it.
    std::uint64_t memoryUsage() const { return _memoryUsage; }
    // Reads the free texture memory again where the driver reports it (GL_ATI_meminfo): at
    // construction, after each creating operation, collectGarbage and clearTextureCache.
    void updateMemoryUsage();
    // Logs both bit sets, one line a bit.
    void logSystemInfoBits() const;

    // The render test: makes a 1024 x 1024 texture in `internalFormat` and attaches it to a
    // framebuffer object. True when the framebuffer is complete.
    bool checkFBOBind(GLenum internalFormat);

private:
    void detectVersion();
    void detectVendor();
    void checkExtensions();
    void checkTextureSize();
    void computeTextureCapabilities();
    void checkRenderTargetCapabilities();
    // Compiles and links, retrying after GL_OUT_OF_MEMORY (see createShader).
    SharedPtr<ShaderGL> compileShader(const std::string& name, const std::string& vertexSource,
                                      const std::string& fragmentSource);
    // The source of a shader file as compiled: header, common part and the file.
    std::string assembleSource(const std::string& file, const std::string& defines,
                               bool isFragment) const;
    // Reads a file found through the search paths, decoded when encoded shaders are in use.
    std::string readShaderFile(const std::string& name) const;
    // Asserts "size.x <= _maxTextureSize.x && size.y <= _maxTextureSize.y".
    bool checkSize(const Vec2i& size) const;
    SharedPtr<TextureGL> makeTexture(const Vec2i& size, RawPixelFormat format,
                                     const DrawParameters& params, bool rectangle);

    GLContextType _context = nullptr;
    GLVendor _vendor = VendorUnknown;
    int _glMajor = 0;
    int _glMinor = 0;
    std::string _glslVersion;
    std::string _extensions;
    std::string _versionString;
    std::string _rendererString;
    bool _hasFBO = false;
    bool _hasReadDrawFramebuffer = false;
    bool _hasDebugOutput = false;
    bool _hasATIMeminfo = false;
    bool _hasNVXMeminfo = false;
    bool _hasMultipleWindowsDefect = false;
    bool _hasNonPowerOfTwo = false;
    bool _hasEdgeClamp = true;
    Vec2i _maxTextureSize;
    unsigned _systemInfoBits = 0;
    unsigned _textureCapabilities = 0;
    std::uint64_t _memoryUsage = 0;
    // Programs made from files, by key.
    std::map<std::string, SharedPtr<ShaderGL>> _shaders;
};

}  // namespace qor::gpu
