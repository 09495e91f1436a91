#include "gpu/gl2/TextureGLCache.h"

#include <vector>

#include "base/Exception.h"
#include "base/Log.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/Renderer.h"
#include "gpu/detail/SystemQueries.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/GLTestHooks.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

using namespace imaging;

namespace {

thread::Mutex& singletonMutex() {
    static auto* m = new thread::Mutex;
    return *m;
}

SharedPtr<TextureGLCache>& singleton() {
    static auto* s = new SharedPtr<TextureGLCache>;
    return *s;
}

#ifdef QOR_TESTING
int g_failingProbes = 0;  // GL thread only
#endif

// The address-space probe before an allocation of `bytes`.
bool addressSpaceFor(std::size_t bytes) {
#ifdef QOR_TESTING
    if (g_failingProbes > 0) {
        --g_failingProbes;
        return false;
    }
#endif
    return detail::probeAddressSpace(bytes);
}

}  // namespace

#ifdef QOR_TESTING
namespace testing {
void failAddressSpaceProbes(int times) { g_failingProbes = times; }
}  // namespace testing
#endif

// ---- TextureGLNewHandler ----

TextureGLNewHandler::TextureGLNewHandler(TextureGLCache* cache) : _cache(cache) {
    registerHandler();  // last: the chain may call freeMemory at once, on any thread
}

TextureGLNewHandler::~TextureGLNewHandler() { unregisterHandler(); }

void TextureGLNewHandler::freeMemory() {
    if (!glwIsGLThread() || !_cache) {
        QOR_LOG(LogError, "std::bad_alloc(): Invalid thread!");
        throw GPUBadAlloc("std::bad_alloc(): Invalid thread!");
    }
    if (!_cache->releaseFreeTextures()) {
        QOR_LOG(LogError, "std::bad_alloc(): Could not free any more memory!");
        throw GPUBadAlloc("std::bad_alloc(): Could not free any more memory!");
    }
}

// ---- TextureGLCache ----

SharedPtr<TextureGLCache> TextureGLCache::instance() {
    ScopedLock<Mutex> lock(singletonMutex());
    return singleton();
}

SharedPtr<TextureGLCache> TextureGLCache::obtain() {
    ScopedLock<Mutex> lock(singletonMutex());
    if (!singleton()) singleton().reset(new TextureGLCache);
    return singleton();
}

void TextureGLCache::freeCache() {
    SharedPtr<TextureGLCache> dropped;
    {
        ScopedLock<Mutex> lock(singletonMutex());
        if (!singleton()) return;
        if (singleton()->usedCount() != 0) {
            QOR_LOG(LogWarning, "GL texture cache kept: %* textures are still used",
                    singleton()->usedCount());
            return;
        }
        dropped.swap(singleton());
    }
    // The cache, if this was its last reference, is deleted here, outside the singleton's lock.
}

TextureGLCache::TextureGLCache() : _enabled(Renderer::isTextureCacheEnabled()), _newHandler(this) {}

TextureGLCache::~TextureGLCache() {
    _newHandler.unregisterHandler();
    {
        ScopedLock<Mutex> lock(_mutex);
        QOR_ASSERT_TEXT(_usedTextures.empty(), "_usedTextures.empty()");
    }
    releaseFreeTextures();
}

std::uint64_t TextureGLCache::computeCost(int width, int height, RawPixelFormat format,
                                          bool mipmapped) {
    if (format == PfInvalid || width <= 0 || height <= 0) return 0;
    const std::uint64_t plain =
        std::uint64_t(getBytesPerPixel(format)) * std::uint64_t(width) * std::uint64_t(height);
    return mipmapped ? plain * 13 / 10 : plain;
}

void TextureGLCache::setLimits(std::uint64_t maxCosts, std::size_t maxTextures) {
    ScopedLock<Mutex> lock(_mutex);
    _maxCosts = maxCosts;
    _maxTextures = maxTextures;
}

std::uint64_t TextureGLCache::costs() const {
    ScopedLock<Mutex> lock(_mutex);
    return _costs;
}

std::size_t TextureGLCache::freeCount() const {
    ScopedLock<Mutex> lock(_mutex);
    return _freeTextures.size();
}

std::size_t TextureGLCache::usedCount() const {
    ScopedLock<Mutex> lock(_mutex);
    return _usedTextures.size();
}

void TextureGLCache::deleteTexture(GLuint id) {
    glDeleteTextures(1, &id);
    glwNotifyTextureDeleted(id);
}

void TextureGLCache::evictUnlocked(std::uint64_t newCost) {
    while ((!_freeTextures.empty() && _costs + newCost > _maxCosts) ||
           _freeTextures.size() > _maxTextures) {
        const Entry oldest = _freeTextures.front();
        _freeTextures.pop_front();
        deleteTexture(oldest.id);
        if (oldest.counted) _costs -= oldest.cost();
    }
}

bool TextureGLCache::proxyTest(const Vec2i& size, RawPixelFormat format) {
    GLint testWidth = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &testWidth);
    QOR_ASSERT_TEXT((testWidth >= size.x) && (testWidth >= size.y),
                    "(test_width >= size.x) && (test_width >= size.y)");
    glTexImage2D(GL_PROXY_TEXTURE_2D, 0, GLint(glInternalFormat(format)), size.x, size.y, 0,
                 glPixelFormat(format), glPixelType(format), nullptr);
    testWidth = 0;
    glGetTexLevelParameteriv(GL_PROXY_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &testWidth);
    // An impossible size leaves an error behind on some drivers; it is answered here.
    drainGLErrors();
    QOR_ASSERT_TEXT(testWidth != 0, "test_width != 0");
    return testWidth != 0;
}

GLuint TextureGLCache::allocTexture(GLenum target, const Vec2i& size, RawPixelFormat format,
                                    bool mipmapped) {
    glwCheckCorrectThread();
    const std::uint64_t cost = computeCost(size.x, size.y, format, mipmapped);
    {
        ScopedLock<Mutex> lock(_mutex);
        QOR_ASSERT_TEXT(size.x && size.y, "size.x && size.y");
        if (_enabled) {
            for (auto it = _freeTextures.begin(); it != _freeTextures.end(); ++it) {
                if (it->target != target || it->width != size.x || it->height != size.y ||
                    it->format != format || it->mipmapped != mipmapped)
                    continue;
                // A hit keeps its cost counted: the total runs ahead of what is free, and eviction
                // starts somewhat before the limit.
                const Entry hit = *it;
                _freeTextures.erase(it);
                _usedTextures[hit.id] = hit;
                glwBindTexture(0, target, hit.id);
                return hit.id;
            }
        }
        evictUnlocked(cost);
    }

    if (!proxyTest(size, format)) {
        QOR_LOG(LogError, "std::bad_alloc(): Proxy texture test failed (requested size (%*,%*))!",
                size.x, size.y);
        throw GPUBadAlloc("std::bad_alloc(): Proxy texture test failed");
    }

    GLuint id = 0;
    glGenTextures(1, &id);
    QOR_ASSERT_TEXT(id != 0, "id != 0");
    glwBindTexture(0, target, id);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    GLenum err = glGetError();
    QOR_ASSERT_TEXT(err == 0, "err == 0");
    if (err != GL_NO_ERROR) drainGLErrors();

    // The driver keeps a copy of the texture in the process: make sure there is room for it.
    if (!addressSpaceFor(std::size_t(cost / 2 * 3))) {
        QOR_LOG(LogInfo, "Calling new handler");
        if (!memory::NewHandler::callOurHandlers())
            QOR_LOG(LogWarning,
                    "New handler was unable to free enough memory. Will try to allocate the "
                    "texture anyway.");
    }

    const GLint internalFormat = GLint(glInternalFormat(format));
    const GLenum pixelFormat = glPixelFormat(format);
    const GLenum pixelType = glPixelType(format);
    glTexImage2D(target, 0, internalFormat, size.x, size.y, 0, pixelFormat, pixelType, nullptr);
    err = takeGLError(GLErrorCheck::TextureAllocation);
    if (err == GL_OUT_OF_MEMORY) {
        glwUnbindTexture(0);
        memory::NewHandler::callOurHandlers();
        glwBindTexture(0, target, id);
        QOR_LOG(LogWarning, "Called new handler after GL_OUT_OF_MEMORY");
        glTexImage2D(target, 0, internalFormat, size.x, size.y, 0, pixelFormat, pixelType, nullptr);
        err = takeGLError(GLErrorCheck::TextureAllocation);
    }
    if (err != GL_NO_ERROR) {
        const bool outOfMemory = err == GL_OUT_OF_MEMORY;
        if (outOfMemory)
            QOR_LOG(LogError,
                    "std::bad_alloc(): Texture creation failed due to GL_OUT_OF_MEMORY error!");
        else
            reportGLError(err);
        glwUnbindTexture(0);
        deleteTexture(id);
        QOR_ASSERT_TEXT(!err, "!err");
        if (outOfMemory)
            throw GPUBadAlloc(
                "std::bad_alloc(): Texture creation failed due to GL_OUT_OF_MEMORY error!");
        // Any other error is no shortage: freeing memory cannot help, so it is not a bad_alloc
        // that the callers' retry loops would answer by evicting.
        const char* text = glErrorString(err);
        throw Exception(formatLog("Texture creation failed: OpenGL error %*(%*)", err,
                                  text ? text : "unknown"));
    }

    ScopedLock<Mutex> lock(_mutex);
    Entry entry;
    entry.id = id;
    entry.target = target;
    entry.width = size.x;
    entry.height = size.y;
    entry.format = format;
    entry.mipmapped = mipmapped;
    _usedTextures[id] = entry;
    return id;
}

void TextureGLCache::releaseTexture(GLuint id) {
    glwCheckCorrectThread();
    ScopedLock<Mutex> lock(_mutex);
    auto it = _usedTextures.find(id);
    QOR_ASSERT_TEXT(it != _usedTextures.end(), "it != _usedTextures.end()");
    if (it == _usedTextures.end()) return;
    QOR_ASSERT_TEXT(it->second.id == id, "it->second.id == id");
    Entry entry = it->second;
    _usedTextures.erase(it);
    if (!_enabled) {
        if (entry.counted) _costs -= entry.cost();
        deleteTexture(id);
        return;
    }
    if (!entry.counted) {
        entry.counted = true;
        _costs += entry.cost();
    }
    _freeTextures.push_back(entry);
    evictUnlocked(0);
}

void TextureGLCache::deleteTaken(const std::list<Entry>& taken) {
    std::uint64_t freed = 0;
    for (const Entry& e : taken) {
        deleteTexture(e.id);
        if (e.counted) freed += e.cost();
    }
    ScopedLock<Mutex> lock(_mutex);
    _costs -= freed;
}

bool TextureGLCache::releaseFreeTextures() {
    if (!glwCheckCorrectThread()) return false;
    std::list<Entry> taken;
    {
        ScopedLock<Mutex> lock(_mutex);
        taken.swap(_freeTextures);
    }
    if (taken.empty()) return false;
    deleteTaken(taken);
    return true;
}

void TextureGLCache::clearCache() {
    if (!glwCheckCorrectThread()) return;
    std::list<Entry> taken;
    {
        // One step: what is logged is what is taken.
        ScopedLock<Mutex> lock(_mutex);
        taken.swap(_freeTextures);
        QOR_LOG(LogInfo, "GL texture cache: free %*, used %*", taken.size(), _usedTextures.size());
    }
    deleteTaken(taken);
}

}  // namespace qor::gpu
