#include "gpu/Renderer.h"

#include <atomic>
#include <chrono>
#include <exception>

#include "base/Log.h"
#include "base/thread/JobDispatcher.h"
#include "base/thread/Mutex.h"
#include "gpu/TextureImageStorage.h"
#include "gpu/gl2/RendererGL.h"
#include "gpu/gl2/TextureGL.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageStorageManager.h"

namespace qor::gpu {

namespace {

std::atomic<bool> s_textureCacheEnabled{true};
std::atomic<bool> s_readbackAfterUpload{false};

Mutex& rendererMutex() {
    static auto* m = new Mutex;
    return *m;
}

// The loaded renderer. Changed on the GL thread, read from any.
SharedPtr<Renderer>& s_rendererSlot() {
    static auto* r = new SharedPtr<Renderer>;
    return *r;
}

// Whether loadRenderer set the GPU area's limit, which unloadRenderer then takes back.
bool s_gpuLimitSet = false;  // GL thread only

Mutex& searchPathMutex() {
    static auto* m = new Mutex;
    return *m;
}

std::vector<std::string>& searchPathList() {
    static auto* paths = new std::vector<std::string>;  // guarded by searchPathMutex()
    return *paths;
}

bool acceptablePath(const std::string& path) {
    const bool ok = path.length() < 1000;
    QOR_ASSERT_TEXT(ok, "path.length() < 1000");
    return ok;
}

bool rendererExists() { return bool(renderer()); }

// Where the loaded renderer goes when its last reference does. Workers take references for a
// moment (a storage's deleter asks renderer() whether it runs on the GL thread), so the last one
// may go on a worker, where the renderer must not end: its destructor calls GL, empties the
// framebuffer-object pool and shuts glw down, all of which belong to the GL thread. The deleter
// therefore never deletes; it hands the renderer over, and unloadRenderer, on the GL thread,
// waits for it and deletes it there.
struct RendererHandover {
    Mutex mutex;
    ConditionVariable arrived;                        // notified when `ended` is set
    Renderer* ended QOR_GUARDED_BY(mutex) = nullptr;  // the renderer whose references are gone
};

RendererHandover& handover() {
    static auto* h = new RendererHandover;
    return *h;
}

// The deleter of the loaded renderer; runs on whichever thread drops the last reference.
void handOver(Renderer* r) {
    RendererHandover& h = handover();
    ScopedLock<Mutex> lock(h.mutex);
    QOR_ASSERT_TEXT(!h.ended, "!h.ended");
    h.ended = r;
    h.arrived.notifyAll();
}

// GL thread: drops `r`, the unloaded renderer, and deletes it here once every other reference
// has gone. Blocks meanwhile, running the GL jobs of the default dispatcher in case a thread
// holding a reference waits for one.
void endOnGLThread(SharedPtr<Renderer> r) {
    const WeakSharedPtr<Renderer> watch = r;
    r.reset();
    RendererHandover& h = handover();
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    const auto start = std::chrono::steady_clock::now();
    bool reported = false;
    ScopedLock<Mutex> lock(h.mutex);
    while (!h.ended) {
        if (h.arrived.timedWait(lock, 0.1)) continue;
        {
            ScopedUnlock<Mutex> unlocked(lock);
            if (dispatcher.isGLThread()) dispatcher.processGLJobs();
        }
        if (!reported && std::chrono::steady_clock::now() - start > std::chrono::seconds(1)) {
            QOR_LOG(LogWarning, "unloadRenderer: waiting for %* references to the renderer",
                    watch.use_count());
            reported = true;
        }
    }
    Renderer* ended = h.ended;
    h.ended = nullptr;
    lock.unlock();
    delete ended;
}

// Tells the image layer what the renderer can do: the largest texture for the GPU tile size, and
// the free graphics memory as the limit of the GPU storage area where the driver reports it and
// the application set none.
void connectImageLayer(Renderer& r) {
    const int largest = r.maxTextureSize().x;
    imaging::ImageSource::setMaxTextureSizeQuery([largest] { return largest; });
    const GPUMemoryInfo memory = r.memoryInfo();
    imaging::ImageStorageManager* manager = imaging::ImageStorageManager::instance();
    if (memory.known && memory.freeBytes > 0 &&
        manager->memoryLimit(imaging::SaGPU) == imaging::ImageStorageManager::NoLimit) {
        manager->setMemoryLimit(imaging::SaGPU, memory.freeBytes);
        s_gpuLimitSet = true;
        QOR_LOG(LogInfo, "GPU storage limit set to the free texture memory: %* bytes",
                memory.freeBytes);
    }
}

void disconnectImageLayer() {
    imaging::ImageSource::setMaxTextureSizeQuery(Function0<int>());
    if (s_gpuLimitSet) {
        imaging::ImageStorageManager::instance()->setMemoryLimit(
            imaging::SaGPU, imaging::ImageStorageManager::NoLimit);
        s_gpuLimitSet = false;
    }
}

}  // namespace

Renderer::~Renderer() = default;

void Renderer::enableTextureCache(bool on) {
    QOR_LOG(LogInfo, "Renderer::enableTextureCache(%*)", on);
    QOR_ASSERT_TEXT(!rendererExists(), "!s_renderer");
    s_textureCacheEnabled = on;
}

bool Renderer::isTextureCacheEnabled() { return s_textureCacheEnabled; }

void Renderer::enforceReadbackAfterTextureDataUpload(bool on) {
    QOR_LOG(LogInfo, "Renderer::enforceReadbackAfterTextureDataUpload(%*)", on);
    QOR_ASSERT_TEXT(!rendererExists(), "!s_renderer");
    s_readbackAfterUpload = on;
}

bool Renderer::isReadbackAfterTextureDataUploadEnforced() { return s_readbackAfterUpload; }

void Renderer::setSearchPath(const std::string& path) {
    ScopedLock<Mutex> lock(searchPathMutex());
    searchPathList().clear();
    if (acceptablePath(path)) searchPathList().push_back(path);
}

void Renderer::setSearchPaths(const std::vector<std::string>& paths) {
    ScopedLock<Mutex> lock(searchPathMutex());
    searchPathList().clear();
    for (const std::string& path : paths)
        if (acceptablePath(path)) searchPathList().push_back(path);
}

void Renderer::addSearchPath(const std::string& path) {
    ScopedLock<Mutex> lock(searchPathMutex());
    if (acceptablePath(path)) searchPathList().push_back(path);
}

std::string Renderer::searchPath() {
    ScopedLock<Mutex> lock(searchPathMutex());
    return searchPathList().empty() ? std::string() : searchPathList().front();
}

std::vector<std::string> Renderer::searchPaths() {
    ScopedLock<Mutex> lock(searchPathMutex());
    return searchPathList();
}

bool loadRenderer() {
    SharedPtr<Renderer> existing = renderer();
    QOR_ASSERT_TEXT(!existing, "!s_renderer");
    if (existing) return true;
    SharedPtr<Renderer> made;
    try {
        made = SharedPtr<Renderer>(new RendererGL(nullptr), handOver);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Failed to load GL renderer: %*", e.what());
        return false;
    }
    {
        ScopedLock<Mutex> lock(rendererMutex());
        s_rendererSlot() = made;
    }
    QOR_LOG(LogInfo, "Calling 'qor::gpu::loadRenderer():registerTextureImageFormat'");
    registerTextureImageFormat();
    connectImageLayer(*made);
    return true;
}

void unloadRenderer() {
    SharedPtr<Renderer> r = renderer();
    if (!r || !r->isValidRenderThread()) {
        QOR_ASSERT_TEXT(!r, "glwIsGLThread()");
        return;
    }
    freeUnusedStorage();
    r->collectGarbage();
    r->releaseCurrentTarget();
    r->clearTextureCache();
    TextureGL::freeCache();
    disconnectImageLayer();
    {
        ScopedLock<Mutex> lock(rendererMutex());
        s_rendererSlot().reset();
    }
    endOnGLThread(std::move(r));
}

SharedPtr<Renderer> renderer() {
    ScopedLock<Mutex> lock(rendererMutex());
    return s_rendererSlot();
}

void freeUnusedStorage() {
    TextureStorageCollector::instance()->collect();
}

}  // namespace qor::gpu
