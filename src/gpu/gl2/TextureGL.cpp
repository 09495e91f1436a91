#include "gpu/gl2/TextureGL.h"

#include <algorithm>
#include <vector>

#include "base/Log.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/gl2/GLCapabilities.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/GLTestHooks.h"
#include "gpu/gl2/PixelStore.h"
#include "gpu/gl2/RendererGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

using namespace imaging;

namespace {

// What a texture needs to know of the driver; a GL 2 driver's answers when no renderer is loaded.
struct DriverTraits {
    unsigned systemInfoBits = 0;
    unsigned textureCapabilities = ~0u;
    bool nonPowerOfTwo = true;
    bool edgeClamp = true;
    bool framebufferObjects = true;
};

#ifdef QOR_TESTING
bool g_forceBorderTexels = false;  // GL thread only
#endif

DriverTraits driverTraits() {
    DriverTraits traits;
    if (auto* gl = dynamic_cast<RendererGL*>(renderer().get())) {
        traits.systemInfoBits = gl->systemInfoBits();
        traits.textureCapabilities = gl->textureCapabilities();
        traits.framebufferObjects = gl->hasFBO();
        traits.nonPowerOfTwo = gl->supportsNonPowerOfTwo();
        traits.edgeClamp = gl->hasEdgeClamp();
    }
#ifdef QOR_TESTING
    if (g_forceBorderTexels) traits.edgeClamp = false;
#endif
    return traits;
}

int roundUpToPowerOfTwo(int v) {
    int p = 1;
    while (p < v) p <<= 1;
    return p;
}

bool isPowerOfTwo(int v) { return v > 0 && (v & (v - 1)) == 0; }

}  // namespace

#ifdef QOR_TESTING
namespace testing {
void forceBorderTexels(bool on) { g_forceBorderTexels = on; }
}  // namespace testing
#endif

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
    // glGenerateMipmap renders the levels: it is taken for the formats the driver renders into
    // (and filters, for floats); for the others it fails or is left undone on some drivers.
    const DriverTraits traits = driverTraits();
    const bool byDriver =
        traits.framebufferObjects &&
        mipmapsByDriverFor(_format, traits.systemInfoBits, traits.textureCapabilities);
    if (!byDriver) {
        buildMipmapsOnProcessor();
        return;
    }
    glwBindTexture(0, _target, _id);
    glGenerateMipmap(_target);
    checkGLError(GLErrorCheck::Transfer);
}

void TextureGL::buildMipmapsOnProcessor() {
    if (!_id) return;
    glwBindTexture(0, _target, _id);
    const GLenum format = glPixelFormat(_format);
    const GLint internalFormat = GLint(glInternalFormat(_format));
    const int channels = int(getChannelCount(_format));
    int w = _texSize.x, h = _texSize.y;
    std::vector<float> level(std::size_t(w) * h * channels);
    {
        PixelStoreScope pack(PixelStoreScope::Pack, 0);
        glGetTexImage(_target, 0, format, GL_FLOAT, level.data());
    }
    checkGLError(GLErrorCheck::Transfer);
    PixelStoreScope unpack(PixelStoreScope::Unpack, 0);
    // Each level is the 2 x 2 mean of the one above; an odd last row or column is taken twice.
    for (int index = 1; w > 1 || h > 1; ++index) {
        const int nw = std::max(w / 2, 1), nh = std::max(h / 2, 1);
        std::vector<float> next(std::size_t(nw) * nh * channels);
        auto at = [&](int x, int y, int c) {
            return level[(std::size_t(y) * w + x) * channels + c];
        };
        for (int y = 0; y < nh; ++y) {
            const int y0 = std::min(2 * y, h - 1), y1 = std::min(2 * y + 1, h - 1);
            for (int x = 0; x < nw; ++x) {
                const int x0 = std::min(2 * x, w - 1), x1 = std::min(2 * x + 1, w - 1);
                for (int c = 0; c < channels; ++c)
                    next[(std::size_t(y) * nw + x) * channels + c] =
                        0.25f * (at(x0, y0, c) + at(x1, y0, c) + at(x0, y1, c) + at(x1, y1, c));
            }
        }
        glTexImage2D(_target, index, internalFormat, nw, nh, 0, format, GL_FLOAT, next.data());
        checkGLError(GLErrorCheck::Transfer);
        level.swap(next);
        w = nw;
        h = nh;
    }
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
