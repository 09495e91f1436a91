#include "gpu/gl2/TextureGL.h"

#include <vector>

#include "base/Log.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/gl2/GLCapabilities.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/RendererGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

using namespace imaging;

namespace {

// What a texture needs to know of the driver; a GL 2 driver's answers when no renderer is loaded.
struct DriverTraits {
    unsigned systemInfoBits = 0;
    bool nonPowerOfTwo = true;
    bool edgeClamp = true;
};

DriverTraits driverTraits() {
    DriverTraits traits;
    if (auto* gl = dynamic_cast<RendererGL*>(renderer().get())) {
        traits.systemInfoBits = gl->systemInfoBits();
        traits.nonPowerOfTwo = gl->supportsNonPowerOfTwo();
        traits.edgeClamp = gl->hasEdgeClamp();
    }
    return traits;
}

int roundUpToPowerOfTwo(int v) {
    int p = 1;
    while (p < v) p <<= 1;
    return p;
}

bool isPowerOfTwo(int v) { return v > 0 && (v & (v - 1)) == 0; }

}  // namespace

TextureGL::TextureGL(const Vec2i& size, RawPixelFormat format, const DrawParameters& drawParameters,
                     bool rectangle)
    : _size(size), _format(format), _drawParameters(drawParameters) {
    QOR_ASSERT_TEXT(_drawParameters.isValid(), "_drawParameters.isValid()");
    if (!_drawParameters.isValid()) _drawParameters = DrawParameters();
    if (rectangle && _drawParameters.isMipmapped()) {
        QOR_ASSERT_TEXT(false, "!rectangle || !_drawParameters.isMipmapped()");
        _drawParameters.mipmap = MM_OFF;
    }
    _target = rectangle ? GL_TEXTURE_RECTANGLE : GL_TEXTURE_2D;
    _cache = TextureGLCache::obtain();
    allocate();
}

TextureGL::~TextureGL() {
    if (_id) _cache->releaseTexture(_id);
}

void TextureGL::allocate() {
    const DriverTraits traits = driverTraits();
    _border = traits.edgeClamp ? 0 : 1;
    Vec2i wanted(std::max(_size.x + 2 * _border, 2), std::max(_size.y + 2 * _border, 2));
    if (!traits.nonPowerOfTwo && _target == GL_TEXTURE_2D)
        wanted = Vec2i(roundUpToPowerOfTwo(wanted.x), roundUpToPowerOfTwo(wanted.y));
    _texSize = wanted;

    _id = _cache->allocTexture(_target, _texSize, _format, _drawParameters.isMipmapped());
    glwBindTexture(0, _target, _id);
    if (traits.systemInfoBits & SibClearNewTextures) {
        std::vector<unsigned char> zeroes(std::size_t(_texSize.x) * _texSize.y * 4, 0);
        glTexSubImage2D(_target, 0, 0, 0, _texSize.x, _texSize.y, GL_RGBA, GL_UNSIGNED_BYTE,
                        zeroes.data());
        try {
            checkGLError(GLErrorCheck::Transfer);
        } catch (...) {
            _cache->releaseTexture(_id);
            _id = 0;
            throw;
        }
    }
    const GLint wrap = _border ? GL_CLAMP : GL_CLAMP_TO_EDGE;
    glTexParameteri(_target, GL_TEXTURE_WRAP_S, wrap);
    glTexParameteri(_target, GL_TEXTURE_WRAP_T, wrap);
    applyFilters();
    if (auto* gl = dynamic_cast<RendererGL*>(renderer().get())) gl->updateMemoryUsage();
}

void TextureGL::applyFilters() {
    const auto [minFilter, magFilter] = getInterpolationMode();
    glwBindTexture(0, _target, _id);
    glTexParameteri(_target, GL_TEXTURE_MIN_FILTER, GLint(minFilter));
    glTexParameteri(_target, GL_TEXTURE_MAG_FILTER, GLint(magFilter));
}

std::pair<GLenum, GLenum> TextureGL::getInterpolationMode() const {
    const bool linear = _drawParameters.min == IM_LINEAR;
    GLenum minFilter = GL_LINEAR;
    switch (_drawParameters.mipmap) {
        case MM_OFF:
            minFilter = linear ? GL_LINEAR : GL_NEAREST;
            break;
        case MM_LINEAR:
            minFilter = linear ? GL_LINEAR_MIPMAP_LINEAR : GL_LINEAR_MIPMAP_NEAREST;
            break;
        case MM_NEAREST:
            minFilter = linear ? GL_NEAREST_MIPMAP_LINEAR : GL_NEAREST_MIPMAP_NEAREST;
            break;
        default:
            QOR_ASSERT_TEXT(false, "0");
            minFilter = GL_LINEAR;
            break;
    }
    const GLenum magFilter = _drawParameters.mag == IM_LINEAR ? GL_LINEAR : GL_NEAREST;
    return {minFilter, magFilter};
}

bool TextureGL::compatibleDrawParameters(const DrawParameters& params) const {
    return params.isValid() && params.mipmap == _drawParameters.mipmap;
}

void TextureGL::setDrawParameters(const DrawParameters& params) {
    if (params == _drawParameters) return;
    QOR_ASSERT_TEXT(this->compatibleDrawParameters(params),
                    "this->compatibleDrawParameters(params)");
    if (!params.isValid()) return;
    // Only the filters change; mipmapping stays as the texture was made.
    _drawParameters.min = params.min;
    _drawParameters.mag = params.mag;
    applyFilters();
}

void TextureGL::updateMipmaps() {
    QOR_ASSERT_TEXT(_drawParameters.isMipmapped(), "_drawParameters.isMipmapped()");
    if (!_drawParameters.isMipmapped() || !_id) return;
    glwBindTexture(0, _target, _id);
    const int version = epoxy_gl_version();
    if (version >= 30 || epoxy_has_gl_extension("GL_ARB_framebuffer_object") ||
        epoxy_has_gl_extension("GL_EXT_framebuffer_object")) {
        glGenerateMipmap(_target);
    } else {
        QOR_LOG(LogError, "updateMipmaps: the driver has no glGenerateMipmap");
        QOR_ASSERT(false);
    }
    checkGLError(GLErrorCheck::Transfer);
}

bool TextureGL::resize(const Vec2i& size) {
    if (_id) {
        _cache->releaseTexture(_id);
        _id = 0;
    }
    _size = size;
    try {
        allocate();
    } catch (const std::bad_alloc& e) {
        QOR_LOG(LogError, "TextureGL::resize to (%*,%*) failed: %*", size.x, size.y, e.what());
        _id = 0;
        return false;
    }
    return true;
}

Rectf TextureGL::texCoords() const {
    const float x0 = float(_border), y0 = float(_border);
    const float x1 = float(_border + _size.x), y1 = float(_border + _size.y);
    if (_target == GL_TEXTURE_RECTANGLE) return Rectf(Vec2f(x0, y0), Vec2f(x1, y1));
    const float w = float(_texSize.x), h = float(_texSize.y);
    return Rectf(Vec2f(x0 / w, y0 / h), Vec2f(x1 / w, y1 / h));
}

void TextureGL::clearCache() {
    if (auto cache = TextureGLCache::instance()) cache->clearCache();
}

void TextureGL::freeCache() { TextureGLCache::freeCache(); }

std::uint64_t TextureGL::ComputeMemoryCost(const Vec2i& size, RawPixelFormat format,
                                           const DrawParameters& params) {
    return TextureGLCache::computeCost(size.x, size.y, format, params.isMipmapped());
}

bool TextureGL::isMemoryTooAligned(int channels, int rowLength, const void* pixels) {
    if (!(driverTraits().systemInfoBits & SibATI)) return false;
    const bool aligned64 = (reinterpret_cast<std::uintptr_t>(pixels) & 63) == 0;
    return aligned64 && channels == 3 && !isPowerOfTwo(rowLength);
}

}  // namespace qor::gpu
