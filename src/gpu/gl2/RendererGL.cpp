#include "gpu/gl2/RendererGL.h"

#include <epoxy/egl.h>

#include <algorithm>

#include "base/Exception.h"
#include "base/Log.h"
#include "base/Md5Stream.h"
#include "gpu/Drawer.h"
#include "gpu/detail/SystemQueries.h"
#include "gpu/gl2/FramebufferObject.h"
#include "gpu/gl2/RenderTargetGL.h"
#include "gpu/gl2/ShaderGL.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"
#include "imaging/RawImageStorage.h"

namespace qor::gpu {

using namespace imaging;

namespace {

std::string glString(GLenum name) {
    const GLubyte* s = glGetString(name);
    return s ? std::string(reinterpret_cast<const char*>(s)) : std::string();
}

// GL_EXTENSIONS as one space-separated string, also where only glGetStringi lists them (core
// profiles).
std::string extensionString() {
    std::string all = glString(GL_EXTENSIONS);
    if (!all.empty() || epoxy_gl_version() < 30) return all;
    GLint count = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &count);
    for (GLint i = 0; i < count; ++i) {
        const GLubyte* name = glGetStringi(GL_EXTENSIONS, GLuint(i));
        if (!name) continue;
        if (!all.empty()) all += ' ';
        all += reinterpret_cast<const char*>(name);
    }
    return all;
}

}  // namespace

RendererGL::RendererGL(GLContextType) {
    QOR_LOG(LogDebug, "Entering 'RendererGL::RendererGL(GLContextType ctx)'");
    _context = eglGetCurrentContext();
    QOR_ASSERT_TEXT(_context != 0, "_context != 0");
    if (!_context) throw Exception("RendererGL: no GL context is current on this thread");
    if (!glwCheckCorrectThread())
        throw Exception("RendererGL: GL is already used on another thread");
    glwNotifyCurrent(_context);

    // The counterpart of an entry point loader's initialisation: without a version string no GL
    // call can be trusted.
    if (epoxy_gl_version() == 0 || !glGetString(GL_VERSION)) {
        QOR_LOG(LogError, "initShaders: glewInit failed with %*", "no GL version from the context");
        QOR_ASSERT(false);
        throw Exception("RendererGL: the GL context reports no version");
    }

    _versionString = glString(GL_VERSION);
    _rendererString = glString(GL_RENDERER);
    _extensions = extensionString();
    QOR_LOG(LogInfo, "Initialized OpenGL-Renderer sucessfully:");
    QOR_LOG(LogInfo, "Vendor: %*", glString(GL_VENDOR));
    QOR_LOG(LogInfo, "Renderer: %*", _rendererString);
    QOR_LOG(LogInfo, "Version: %*", _versionString);
    QOR_LOG(LogInfo, "Extensions: %*", _extensions);

    if (hasExtension("GL_ARB_multisample")) {
        GLint sampleBuffers = 0;
        glGetIntegerv(GL_SAMPLE_BUFFERS, &sampleBuffers);
        QOR_LOG(LogInfo, "GL_MULTISAMPLE_ARB=%* GL_SAMPLE_BUFFERS_ARB=%*",
                int(glIsEnabled(GL_MULTISAMPLE)), sampleBuffers);
        glDisable(GL_MULTISAMPLE);
        glGetIntegerv(GL_SAMPLE_BUFFERS, &sampleBuffers);
        QOR_LOG(LogInfo, "GL_MULTISAMPLE_ARB=%* GL_SAMPLE_BUFFERS_ARB=%*",
                int(glIsEnabled(GL_MULTISAMPLE)), sampleBuffers);
    } else {
        QOR_LOG(LogInfo, "multisample extension not present");
    }

    detectVersion();
    detectVendor();
    QOR_LOG(LogDebug, "Calling 'checkExtensions'");
    checkExtensions();
    QOR_LOG(LogDebug, "Calling 'checkTextureSize'");
    checkTextureSize();

    const std::string os = detail::osVersion();
    SystemInfoInput in;
    in.version = GLVersion{_glMajor, _glMinor};
    in.vendor = _vendor;
    in.extensions = _extensions;
    in.multipleWindowsDefect = _hasMultipleWindowsDefect;
    in.osVersionNumber = detail::osVersionNumber();
    in.osVersion = os;
    _systemInfoBits = computeSystemInfoBits(in);
    computeTextureCapabilities();

    QOR_LOG(LogDebug, "Calling 'updateMemoryUsage'");
    updateMemoryUsage();
    checkRenderTargetCapabilities();
    QOR_LOG(LogDebug, "Leaving 'RendererGL::RendererGL(GLContextType ctx)'");
    logSystemInfoBits();
}

RendererGL::~RendererGL() {
    _shaders.clear();
    FramebufferObject::releasePool();
    QOR_LOG(LogInfo, "glwShutdown()");
    glwShutdown();
}

void RendererGL::detectVersion() {
    const GLVersion v = parseGLVersion(_versionString);
    _glMajor = v.major;
    _glMinor = v.minor;
    QOR_LOG(LogInfo, "Detected version major = %* minor = %*", _glMajor, _glMinor);
    const GLubyte* glsl = glGetString(GL_SHADING_LANGUAGE_VERSION);
    _glslVersion = glsl ? reinterpret_cast<const char*>(glsl) : "not supported";
    QOR_LOG(LogInfo, "GLSL version: %*", _glslVersion);
}

void RendererGL::detectVendor() {
    _vendor = gpu::detectVendor(glString(GL_VENDOR));
    QOR_LOG(LogInfo, "detected vendor identifier: %*", int(_vendor));
}

void RendererGL::checkExtensions() {
    _hasATIMeminfo = hasExtension("GL_ATI_meminfo");
    const bool arbFBO = hasExtension("GL_ARB_framebuffer_object");
    _hasNVXMeminfo = hasExtension("GL_NVX_gpu_memory_info");
    _hasDebugOutput = hasExtension("GL_ARB_debug_output");
    const GLVersion v{_glMajor, _glMinor};
    _hasReadDrawFramebuffer = arbFBO || v.atLeast(3, 0);
    _hasFBO = _hasReadDrawFramebuffer || hasExtension("GL_EXT_framebuffer_object");
    _hasNonPowerOfTwo = v.atLeast(2, 0) || hasExtension("GL_ARB_texture_non_power_of_two");
    _hasEdgeClamp = v.atLeast(1, 2) || hasExtension("GL_EXT_texture_edge_clamp") ||
                    hasExtension("GL_SGIS_texture_edge_clamp");
    QOR_LOG(LogInfo, "GL_ARB_framebuffer_object = %*", arbFBO);
    QOR_LOG(LogInfo, "GL_ARB_debug_output = %*", _hasDebugOutput);
    QOR_LOG(LogInfo, "GL_ATI_meminfo = %*", _hasATIMeminfo);
    QOR_LOG(LogInfo, "GL_NVX_gpu_memory_info = %*", _hasNVXMeminfo);
    _hasMultipleWindowsDefect = _vendor == VendorIntel;
    QOR_LOG(LogInfo, "has the multiple GL windows defect: %*", _hasMultipleWindowsDefect);
}

void RendererGL::checkTextureSize() {
    GLint mts = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &mts);
    QOR_ASSERT_TEXT(mts != 0, "mts != 0");
    _maxTextureSize = Vec2i(mts, mts);
}

FastString<char> RendererGL::uniqueId() const {
    Md5Stream md5;
    md5.update(_versionString);
    md5.update(_rendererString);
    md5.update(_extensions);
    return FastString<char>("RendererGL_" + md5.getDigest().toHex());
}

RawPixelFormat RendererGL::chooseTextureFormat(RawPixelFormat format,
                                               DrawParameters& drawParamsIn) const {
    return chooseTextureFormatFor(format, drawParamsIn, _systemInfoBits, _textureCapabilities);
}

bool RendererGL::isRenderable(RawPixelFormat format) const {
    return isRenderableFor(format, _textureCapabilities);
}

bool RendererGL::isValidRenderThread() const { return glwIsGLThread(); }

std::uint64_t RendererGL::computeMemoryCost(const Vec2i& size, RawPixelFormat format,
                                            const DrawParameters& params) const {
    return TextureGL::ComputeMemoryCost(size, format, params);
}

void RendererGL::updateMemoryUsage() {
    if (!_hasATIMeminfo) return;
    // The first of the values is the free memory of the texture pool, in kilobytes.
    GLint values[4] = {0, 0, 0, 0};
    glGetIntegerv(GL_TEXTURE_FREE_MEMORY_ATI, values);
    _memoryUsage = std::uint64_t(values[0]) << 10;
}

GPUMemoryInfo RendererGL::memoryInfo() const {
    // The figure updateMemoryUsage read last; GL is not asked here.
    GPUMemoryInfo info;
    info.known = _hasATIMeminfo;
    info.freeBytes = _memoryUsage;
    return info;
}

bool RendererGL::checkSize(const Vec2i& size) const {
    const bool ok = size.x <= _maxTextureSize.x && size.y <= _maxTextureSize.y;
    QOR_ASSERT_TEXT(ok, "size.x <= _maxTextureSize.x && size.y <= _maxTextureSize.y");
    return ok;
}

SharedPtr<TextureGL> RendererGL::makeTexture(const Vec2i& size, RawPixelFormat format,
                                             const DrawParameters& params, bool rectangle) {
    checkSize(size);
    auto texture = std::make_shared<TextureGL>(size, format, params, rectangle);
    updateMemoryUsage();
    return texture;
}

SharedPtr<Texture> RendererGL::createTexture(const Vec2i& size, RawPixelFormat format,
                                             const DrawParameters& params) {
    DrawParameters chosen = params;
    const RawPixelFormat real = chooseTextureFormat(format, chosen);
    return makeTexture(size, real, chosen, false);
}

SharedPtr<Texture> RendererGL::createTextureRect(const Vec2i& size, RawPixelFormat format) {
    DrawParameters chosen;
    const RawPixelFormat real = chooseTextureFormat(format, chosen);
    return makeTexture(size, real, chosen, true);
}

SharedPtr<Texture> RendererGL::createTexture(const SharedPtr<RawImageStorage>& data,
                                             const DrawParameters& params) {
    QOR_ASSERT_TEXT(data, "data");
    if (!data) return nullptr;
    DrawParameters chosen = params;
    const RawPixelFormat real = chooseTextureFormat(data->getCurrentPixelFormat(), chosen);
    auto texture = makeTexture(Vec2i(data->width(), data->height()), real, chosen, false);
    uploadStorage(*data, *texture);
    return texture;
}

SharedPtr<Texture> RendererGL::createTextureRect(const SharedPtr<RawImageStorage>& data) {
    QOR_ASSERT_TEXT(data, "data");
    if (!data) return nullptr;
    DrawParameters chosen;
    const RawPixelFormat real = chooseTextureFormat(data->getCurrentPixelFormat(), chosen);
    auto texture = makeTexture(Vec2i(data->width(), data->height()), real, chosen, true);
    uploadStorage(*data, *texture);
    return texture;
}

SharedPtr<FramebufferTarget> RendererGL::createFramebufferTarget() {
    auto target = std::make_shared<FramebufferTargetGL>(this);
    updateMemoryUsage();
    return target;
}

SharedPtr<TextureTarget> RendererGL::createTextureTarget(const Vec2i& size, RawPixelFormat format) {
    return createTextureTarget(size, format, DrawParameters());
}

SharedPtr<TextureTarget> RendererGL::createTextureTarget(const Vec2i& size, RawPixelFormat format,
                                                         const DrawParameters& params) {
    auto texture = dynamic_ptr_cast<TextureGL>(createTexture(size, format, params));
    return std::make_shared<TextureTargetGL>(this, texture);
}

SharedPtr<TextureTarget> RendererGL::createTextureTarget(const SharedPtr<RawImageStorage>& data,
                                                         const DrawParameters& params) {
    QOR_ASSERT_TEXT(data, "data");
    if (!data) return nullptr;
    auto texture = dynamic_ptr_cast<TextureGL>(createTexture(data, params));
    return std::make_shared<TextureTargetGL>(this, texture);
}

bool RendererGL::copyTexture(const SharedPtr<Texture>& source,
                             const SharedPtr<Texture>& destination) {
    auto destinationGL = dynamic_ptr_cast<TextureGL>(destination);
    QOR_ASSERT_TEXT(source && destinationGL, "source && destination");
    if (!source || !destinationGL) return false;
    const Vec2i size(std::min(source->size().x, destination->size().x),
                     std::min(source->size().y, destination->size().y));
    const Vec2i border(destinationGL->border(), destinationGL->border());
    try {
        TextureTargetGL target(this, destinationGL);
        target.copyFromTexture(source, Recti(size) + border, Recti(size) + border);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "copyTexture failed: %*", e.what());
        return false;
    }
    return true;
}

bool RendererGL::selfCheck() {
    // A 16 x 16 target cleared to a known colour, a rectangle cleared to another inside it, and
    // the pixels read back.
    constexpr int Size = 16;
    const unsigned char outside[4] = {64, 128, 192, 255}, inside[4] = {255, 0, 32, 255};
    try {
        auto target = createTextureTarget(Vec2i(Size, Size), PfRGBA8);
        SharedPtr<Drawer> drawer = target->beginRender();
        drawer->clear(outside[0] / 255.0f, outside[1] / 255.0f, outside[2] / 255.0f, 1.0f);
        drawer->setClipping(Recti(4, 4, 8, 8), true);
        drawer->clear(inside[0] / 255.0f, inside[1] / 255.0f, inside[2] / 255.0f, 1.0f);
        drawer->setClipping(Recti(), false);
        target->finishRender(drawer);
        auto pixels = GenImageData<unsigned char, 4>::create(Size, Size);
        target->readBackRGBA(pixels, Recti(Vec2i(Size, Size)));
        for (int y = 0; y < Size; ++y)
            for (int x = 0; x < Size; ++x) {
                const bool in = x >= 4 && x < 12 && y >= 4 && y < 12;
                const unsigned char* want = in ? inside : outside;
                for (int c = 0; c < 4; ++c)
                    if (pixels->at(x, y, c) != want[c]) {
                        QOR_LOG(LogError, "selfCheck: pixel (%*,%*) channel %* is %*, not %*", x, y,
                                c, int(pixels->at(x, y, c)), int(want[c]));
                        return false;
                    }
            }
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "selfCheck failed: %*", e.what());
        return false;
    }
    return true;
}

void RendererGL::collectGarbage() {
    // Nothing is held for deferred deletion yet: texture names go back to the cache at once.
    updateMemoryUsage();
}

void RendererGL::clearTextureCache() {
    TextureGL::clearCache();
    updateMemoryUsage();
}

void RendererGL::releaseCurrentTarget() {
    FramebufferObject::endUse(FBO_Bind_Draw, true);
    FramebufferObject::endUse(FBO_Bind_Read, true);
}

}  // namespace qor::gpu
