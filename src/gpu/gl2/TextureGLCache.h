#pragma once
// TextureGLCache: the process-wide store that recycles GL texture names, since creating and
// deleting textures at tile rate is slow. A name is either used, owned by exactly one TextureGL,
// or free, waiting to be handed out again for the same target, size, format and mipmapping. At
// most 100 free textures and 256 MiB of them are kept; the oldest go first.
//
// TextureGLNewHandler is the cache's link in the NewHandler chain: on the GL thread it deletes the
// free textures; on any other thread it refuses at once with std::bad_alloc.
//
// Ownership: one cache at a time, made by the first TextureGL and held by a process-wide SharedPtr
// and by each TextureGL; freeCache() drops the process-wide reference once no texture is used.
// Thread contract: every GL call here runs on the GL thread (asserted through glw); the mutex
// guards the bookkeeping, which the handler reads from whichever thread runs the chain. The
// mutex is never held while GL allocates or while the handler chain runs.

#include <epoxy/gl.h>

#include <cstdint>
#include <list>
#include <unordered_map>

#include "base/memory/NewHandler.h"
#include "base/thread/Mutex.h"
#include "imaging/PixelFormat.h"
#include "math/GenVec.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::gpu {

using math::Vec2i;

class TextureGLCache;

class TextureGLNewHandler : public memory::NewHandler {
public:
    explicit TextureGLNewHandler(TextureGLCache* cache);
    ~TextureGLNewHandler() override;

    // On the GL thread: deletes the cache's free textures. Throws std::bad_alloc ("Invalid
    // thread!") on any other thread, and ("Could not free any more memory!") when there was
    // nothing to delete.
    void freeMemory() override;

private:
    TextureGLCache* _cache;
};

class TextureGLCache {
public:
    static constexpr std::uint64_t DefaultMaxCosts = 268435456;
    static constexpr std::size_t DefaultMaxTextures = 100;

    // The cache, or null when none exists. Any thread.
    static SharedPtr<TextureGLCache> instance();
    // The cache, created if none exists (reading Renderer::isTextureCacheEnabled() once).
    static SharedPtr<TextureGLCache> obtain();
    // Drops the process-wide reference when no texture is used; the cache then goes with the
    // last reference. GL thread.
    static void freeCache();

    // Deletes the free textures; asserts that none is used.
    ~TextureGLCache();
    TextureGLCache(const TextureGLCache&) = delete;
    TextureGLCache& operator=(const TextureGLCache&) = delete;

    // A texture name of `target` with level 0 allocated at `size` in `format`'s internal format:
    // a free one of the same kind, or a new one after room was made. Left bound on unit 0. GL
    // thread. Throws std::bad_alloc when the proxy test fails or GL stays out of memory after the
    // handler chain ran, and Exception ("Texture creation failed: OpenGL error ...") when the
    // allocation gives another GL error.
    GLuint allocTexture(GLenum target, const Vec2i& size, imaging::RawPixelFormat format,
                        bool mipmapped);
    // Gives a name back: kept for reuse, or deleted at once when the cache is off. GL thread.
    void releaseTexture(GLuint id);
    // Takes every free texture and logs "GL texture cache: free %*, used %*" in one locked step,
    // then deletes them. GL thread (asserted "glwIsGLThread()"; elsewhere nothing is done).
    void clearCache();
    // Deletes the free textures, outside the mutex; true if there were any. GL thread (asserted;
    // elsewhere it deletes nothing and returns false).
    bool releaseFreeTextures();

    // Changes the limits; the next allocation or release evicts down to them.
    void setLimits(std::uint64_t maxCosts, std::size_t maxTextures);
    bool enabled() const { return _enabled; }
    // The bytes counted against the limit: every texture that has been free at least once and is
    // not deleted, whether handed out again or not.
    std::uint64_t costs() const;
    std::size_t freeCount() const;
    std::size_t usedCount() const;
    // The cache's link in the NewHandler chain.
    TextureGLNewHandler& newHandler() { return _newHandler; }

    // The cost of a texture: width x height x bytes per pixel, times 13 / 10 when mipmapped.
    static std::uint64_t computeCost(int width, int height, imaging::RawPixelFormat format,
                                     bool mipmapped);

private:
    struct Entry {
        GLuint id = 0;
        GLenum target = 0;
        int width = 0;
        int height = 0;
        imaging::RawPixelFormat format = imaging::PfInvalid;
        bool mipmapped = false;
        bool counted = false;  // its cost is in _costs

        std::uint64_t cost() const { return computeCost(width, height, format, mipmapped); }
    };

    TextureGLCache();
    // Deletes the oldest free textures while the new cost does not fit or there are too many.
    void evictUnlocked(std::uint64_t newCost) QOR_REQUIRES(_mutex);
    void deleteTexture(GLuint id);
    // Deletes the textures taken off the free list and takes their costs off _costs.
    void deleteTaken(const std::list<Entry>& taken) QOR_EXCLUDES(_mutex);
    // glTexImage2D on GL_PROXY_TEXTURE_2D; false when the driver cannot make the texture.
    static bool proxyTest(const Vec2i& size, imaging::RawPixelFormat format);

    mutable thread::Mutex _mutex;  // guards _maxCosts, _costs, _maxTextures, the two tables
    std::uint64_t _maxCosts QOR_GUARDED_BY(_mutex) = DefaultMaxCosts;
    std::uint64_t _costs QOR_GUARDED_BY(_mutex) = 0;
    std::size_t _maxTextures QOR_GUARDED_BY(_mutex) = DefaultMaxTextures;
    std::list<Entry> _freeTextures QOR_GUARDED_BY(_mutex);  // oldest first
    std::unordered_map<GLuint, Entry> _usedTextures QOR_GUARDED_BY(_mutex);
    const bool _enabled;
    TextureGLNewHandler _newHandler;
};

}  // namespace qor::gpu
