#include "imaging/ImageSource.h"

#include <algorithm>
#include <functional>
#include <typeinfo>
#include <unordered_map>
#include <unordered_set>

#include "base/Log.h"
#include "base/thread/DFSOrderScoreFunction.h"
#include "base/thread/JobDispatcher.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/ImageTile.h"
#include "imaging/TileCache.h"
#include "imaging/TileRequestTaskMerger.h"

namespace qor::imaging {

namespace {

Mutex gTileSizeMutex;
GenVec<int, 2> gCpuPrefTileSize(256, 256);    // guarded by gTileSizeMutex
GenVec<int, 2> gGpuPrefTileSize(1024, 1024);  // guarded by gTileSizeMutex
Function0<int> gMaxTextureSize;               // guarded by gTileSizeMutex

bool insideCount(const GenVec<int, 2>& idx, const GenVec<int, 2>& count) {
    return idx.x >= 0 && idx.y >= 0 && idx.x < count.x && idx.y < count.y;
}

}  // namespace

ImageSource::ImageSource(GenVec<int, 2> size, RawPixelFormat format, const DrawParameters& params)
    : _merger(TileRequestTaskMerger::create()),
      _size(size),
      _pixelFormat(format),
      _drawParameters(params) {}

ImageSource::~ImageSource() {
    TileCache::clearLifeTiles(this);
    _merger->terminateAllTasks();
}

SharedPtr<ImageSource> ImageSource::setupSelfRef() {
    SharedPtr<ImageSource> existing = _selfRef.lock();
    QOR_ASSERT_TEXT(!existing, "_selfRef.isNull()");
    if (existing) return existing;
    SharedPtr<ImageSource> self(this);
    _selfRef = self;
    return self;
}

unsigned int ImageSource::version() const { return _version.load(std::memory_order_acquire); }

bool ImageSource::isCaching() const {
    ScopedLock<Mutex> lock(_mutex);
    return _caching;
}

DrawParameters ImageSource::getDrawParameters() const {
    ScopedLock<Mutex> lock(_mutex);
    return _drawParameters;
}

void ImageSource::setDrawParameters(const DrawParameters& params) {
    QOR_ASSERT_TEXT(params.isValid(), "params.isValid()");
    ScopedLock<Mutex> lock(_mutex);
    _drawParameters = params;
}

GenVec<int, 2> ImageSource::getCPUPreferredTileSize() {
    ScopedLock<Mutex> lock(gTileSizeMutex);
    return gCpuPrefTileSize;
}

void ImageSource::setCPUPreferredTileSize(const GenVec<int, 2>& size) {
    ScopedLock<Mutex> lock(gTileSizeMutex);
    gCpuPrefTileSize = size;
}

GenVec<int, 2> ImageSource::getGPUPreferredTileSize() {
    GenVec<int, 2> size;
    Function0<int> query;
    {
        ScopedLock<Mutex> lock(gTileSizeMutex);
        size = gGpuPrefTileSize;
        query = gMaxTextureSize;
    }
    if (query) {
        const int largest = query();
        if (largest > 0) {
            size.x = std::min(size.x, largest);
            size.y = std::min(size.y, largest);
        }
    }
    return size;
}

void ImageSource::setGPUPreferredTileSize(const GenVec<int, 2>& size) {
    ScopedLock<Mutex> lock(gTileSizeMutex);
    gGpuPrefTileSize = size;
}

void ImageSource::setMaxTextureSizeQuery(Function0<int> query) {
    ScopedLock<Mutex> lock(gTileSizeMutex);
    gMaxTextureSize = std::move(query);
}

Recti ImageSource::getTileRect(int x, int y) const { return tileLayout().getTileRect(x, y); }

void ImageSource::insertDependencies(SourceList&) const {}

SharedPtr<const ImageTile> ImageSource::computeTileData(unsigned int, unsigned int) {
    QOR_ASSERT_TEXT(false, "computeTileData must be overridden by a source that computes tiles");
    return nullptr;
}

bool ImageSource::defaultCachingState() const { return true; }

Signal1<const ImagingException&>& ImageSource::OnException() {
    static auto* signal = new Signal1<const ImagingException&>();
    return *signal;
}

Signal2<const SharedPtr<ImageSource>&, const ImageSource::JobSet&>&
ImageSource::Debug_OnStartProcessingSource() {
    static auto* signal = new Signal2<const SharedPtr<ImageSource>&, const JobSet&>();
    return *signal;
}

// ---- locking and versions ----

namespace {

// The order in which executeFullLocked takes the mutexes of this source and everything below it:
// by height (the longest chain of dependencies below a source) from the highest down, and sources
// of equal height by address. A dependent is always higher than each of its dependencies, so every
// source is locked before its dependencies; and since height and address belong to the source and
// not to the walk, any two walks that meet lock their common sources in the same order, whatever
// their roots. A walk breadth by breadth has neither property once a source is reached along two
// paths of different length (a diamond of sources), or two siblings in different orders.
// `keep` holds the dependencies alive while their mutexes are in use.
std::vector<const ImageSource*> lockOrder(const ImageSource* root,
                                          std::vector<SharedPtr<ImageSource>>& keep) {
    std::unordered_map<const ImageSource*, int> height;
    // Depth first, each source once; a source's height is known once all its dependencies are.
    struct Frame {
        const ImageSource* source;
        std::vector<SharedPtr<ImageSource>> deps;
        size_t next = 0;
    };
    std::vector<Frame> stack;
    auto enter = [&](const ImageSource* source) {
        ImageSource::SourceList deps;
        source->insertDependencies(deps);
        height.emplace(source, -1);  // -1: on the stack
        stack.push_back(Frame{source, {deps.begin(), deps.end()}, 0});
    };
    enter(root);
    while (!stack.empty()) {
        Frame& top = stack.back();
        if (top.next < top.deps.size()) {
            SharedPtr<ImageSource> dep = top.deps[top.next++];
            if (!dep || height.count(dep.get())) continue;
            keep.push_back(dep);
            enter(dep.get());  // `top` is not used after this: the stack may have moved
            continue;
        }
        int h = 0;
        for (const SharedPtr<ImageSource>& dep : top.deps) {
            if (!dep) continue;
            const int dh = height[dep.get()];
            QOR_ASSERT_TEXT(dh >= 0, "the source graph has no cycles");
            h = std::max(h, dh + 1);
        }
        height[top.source] = h;
        stack.pop_back();
    }
    std::vector<const ImageSource*> order;
    order.reserve(height.size());
    for (const auto& entry : height) order.push_back(entry.first);
    std::sort(order.begin(), order.end(), [&](const ImageSource* a, const ImageSource* b) {
        const int ha = height[a], hb = height[b];
        if (ha != hb) return ha > hb;
        return std::less<const ImageSource*>()(a, b);
    });
    return order;
}

}  // namespace

void ImageSource::executeFullLocked(const Function0<void>& f) const QOR_NO_THREAD_SAFETY_ANALYSIS {
    // A source that changes its dependencies (a proxy pointed elsewhere) does so under its own
    // mutex: the order computed again with the locks held is stable, and when it differs from the
    // one that was locked, the locks are given back and the walk starts again.
    for (;;) {
        std::vector<SharedPtr<ImageSource>> keep;
        std::vector<const ImageSource*> order = lockOrder(this, keep);
        for (const ImageSource* source : order) source->_mutex.lock();
        struct Unlock {
            std::vector<const ImageSource*>& order;
            ~Unlock() {
                for (auto it = order.rbegin(); it != order.rend(); ++it) (*it)->_mutex.unlock();
            }
        } unlock{order};
        std::vector<SharedPtr<ImageSource>> keepAgain;
        if (lockOrder(this, keepAgain) != order) continue;
        f();
        return;
    }
}

void ImageSource::incrementVersionUnlocked() {
    _version.fetch_add(1, std::memory_order_acq_rel);
}

void ImageSource::incrementVersion() {
    // This source and everything that depends on it, each once, in the order of the walk.
    std::vector<SharedPtr<ImageSource>> walked;
    std::unordered_set<const ImageSource*> seen;
    SharedPtr<ImageSource> self = selfRef();
    if (!self) {
        // Not yet behind its SharedPtr (inside a constructor): only this source changes.
        ScopedLock<Mutex> lock(_mutex);
        incrementVersionUnlocked();
        return;
    }
    walked.push_back(self);
    seen.insert(this);
    for (size_t i = 0; i < walked.size(); ++i) {
        SourceList dependees;
        walked[i]->OnCollectDependees.emit(dependees);
        for (const SharedPtr<ImageSource>& d : dependees)
            if (d && seen.insert(d.get()).second) walked.push_back(d);
    }
    for (const SharedPtr<ImageSource>& source : walked) {
        ScopedLock<Mutex> lock(source->_mutex);
        source->incrementVersionUnlocked();
    }
    for (const SharedPtr<ImageSource>& source : walked) source->OnVersionChanged.emit();
}

void ImageSource::enableCaching(bool on) {
    executeFullLocked([this, on] { enableCachingUnlocked(on); });
}

void ImageSource::enableCachingUnlocked(bool on) QOR_NO_THREAD_SAFETY_ANALYSIS {
    const bool wanted = on ? defaultCachingState() : false;
    if (wanted == _caching) return;
    _caching = wanted;
    SourceList deps;
    insertDependencies(deps);
    for (const SharedPtr<ImageSource>& dep : deps)
        if (dep) dep->enableCachingUnlocked(on);
}

// ---- the synchronous road ----

namespace {

// What a synchronous request shares with its callback. Held by both, so a callback that arrives
// after the waiter has returned writes into memory that is still there.
struct SyncRequest {
    ImageSource::TileArray out;
    ImageSource::TileSet positions;
    bool finished = false;
    ErrorDescription error;
};

}  // namespace

void ImageSource::getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly,
                           VersionArray* versions, const OnRequest& onRequest) {
    const TileLayout layout = tileLayout();
    const unsigned int currentVersion = version();
    const GenVec<int, 2> count = layout.tileCount;
    out.assign(std::max(count.x, 0), std::max(count.y, 0), nullptr);
    if (versions) versions->assign(std::max(count.x, 0), std::max(count.y, 0), 0);

    auto request = std::make_shared<SyncRequest>();
    for (const TileIndex& idx : tiles) {
        if (!insideCount(idx, count)) {
            QOR_LOG_STACK(LogWarning,
                          "Requested tile(%*,%*) out of bounds(%*,%*). Continuing (possibly CPU / "
                          "GPU switch performed?)",
                          idx.x, idx.y, count.x, count.y);
            continue;
        }
        unsigned int cachedVersion = 0;
        SharedPtr<const ImageTile> tile =
            TileCache::getLifeTile(this, getTileRect(idx.x, idx.y), &cachedVersion);
        if (!tile || (!cachedOnly && cachedVersion != currentVersion)) {
            request->positions.insert(idx);
            continue;
        }
        out(idx.x, idx.y) = tile;
        if (versions) (*versions)(idx.x, idx.y) = cachedVersion;
    }
    if (cachedOnly || request->positions.empty()) return;

    request->out.assign(out.columns(), out.rows(), nullptr);
    // The fetched tiles are reported with the version they are requested at, which may be newer
    // than the one the cache was asked for. A change after this point ends the request as
    // outdated and leaves its tiles null.
    const unsigned int requestVersion = version();
    SharedPtr<RequestHandle> handle = requestTilesAtVersion(
        request->positions, requestVersion, std::make_shared<thread::DFSOrderScoreFunction>(),
        [this, request](const ComputedTileInfo& cti) {
            tileNotify(&request->out, &request->positions, &request->finished, &request->error,
                       cti);
        },
        ProgressCallback());
    if (onRequest) onRequest(handle);

    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    const bool onGLThread = dispatcher.isGLThread();
    {
        ScopedLock<Mutex> lock(_notifyMutex);
        ScopedConnection wake;
        if (onGLThread) {
            // The slot may still run on the queuing thread after it was disconnected and this
            // call has returned, so it holds the source only weakly.
            WeakSharedPtr<ImageSource> weak = _selfRef;
            wake = ScopedConnection(dispatcher.onGLJobsAvailable().connect([weak] {
                if (SharedPtr<ImageSource> self = weak.lock()) {
                    ScopedLock<Mutex> l(self->_notifyMutex);
                    self->_notifyCondition.notifyAll();
                }
            }));
            ScopedUnlock<Mutex> open(lock);
            dispatcher.processGLJobs();
        }
        // A handle whose task has gone without an end record (its merger was destroyed) also ends
        // the wait.
        while (!request->finished && !(handle->finished() && !handle->source())) {
            _notifyCondition.timedWait(lock, 0.1);
            if (onGLThread) {
                ScopedUnlock<Mutex> open(lock);
                dispatcher.processGLJobs();
            }
        }
    }
    ErrorDescription error;
    {
        ScopedLock<Mutex> lock(_notifyMutex);
        error = request->error;
        for (const TileIndex& idx : request->positions) {
            const SharedPtr<const ImageTile>& tile = request->out(idx.x, idx.y);
            if (!tile) continue;
            out(idx.x, idx.y) = tile;
            if (versions) (*versions)(idx.x, idx.y) = requestVersion;
        }
    }
    if (error.errorOccurred)
        throw ImagingException(error.type, std::string(error.message.view()), std::string(logSourcePath(__FILE__)));
}

void ImageSource::tileNotify(TileArray* out, const TileSet* resPos, bool* finished,
                             ErrorDescription* error, const ComputedTileInfo& cti) {
    if (cti.type == ComputedTileInfo::RequestEnded) {
        ScopedLock<Mutex> lock(_notifyMutex);
        *finished = true;
        if (cti.status == ComputedTileInfo::Error) {
            error->errorOccurred = true;
            error->type = cti.errorType;
            error->message = cti.errorMessage;
        }
        _notifyCondition.notifyAll();
        return;
    }
    QOR_ASSERT_TEXT(cti.status == ComputedTileInfo::Success, "ComputedTileInfo::Success == cti.status");
    if (cti.source.get() != this) return;
    const bool ok = cti.tile && cti.tile->valid() && resPos->find(cti.pos) != resPos->end();
    QOR_ASSERT_TEXT(ok, "cti.tile && cti.tile->valid() && resPos->find(cti.pos) != resPos->end()");
    ScopedLock<Mutex> lock(_notifyMutex);
    if (cti.pos.x >= 0 && cti.pos.y >= 0 && cti.pos.x < out->columns() && cti.pos.y < out->rows())
        (*out)(cti.pos.x, cti.pos.y) = cti.tile;
}

SharedPtr<const ImageTile> ImageSource::getTile(int x, int y, bool cachedOnly,
                                                unsigned int* version, const OnRequest& onRequest) {
    const GenVec<int, 2> count = tileLayout().tileCount;
    if (!insideCount(TileIndex(x, y), count)) return nullptr;
    TileArray out;
    VersionArray versions;
    getTiles(out, TileSet{TileIndex(x, y)}, cachedOnly, version ? &versions : nullptr, onRequest);
    const bool present = out.columns() > x && out.rows() > y;
    SharedPtr<const ImageTile> tile = present ? out(x, y) : nullptr;
    QOR_ASSERT_TEXT(present && (cachedOnly || tile),
                    "requested.size().x >= column && requested.size().y >= row && "
                    "(cachedOnly || requested(column, row))");
    if (version && present) *version = versions(x, y);
    return tile;
}

ImageSource::TileArray ImageSource::getTiles(const TileSet& tiles, bool cachedOnly,
                                             VersionArray* versions, const OnRequest& onRequest) {
    TileArray out;
    getTiles(out, tiles, cachedOnly, versions, onRequest);
    return out;
}

SharedPtr<RequestHandle> ImageSource::requestTiles(const TileSet& tiles,
                                                   const SharedPtr<thread::JobScoreFunction>& score,
                                                   const TileCallback& tileCallback, bool,
                                                   const ProgressCallback& progress) {
    return requestTilesAtVersion(tiles, version(), score, tileCallback, progress);
}

SharedPtr<RequestHandle> ImageSource::requestTilesAtVersion(
    const TileSet& tiles, unsigned int version, const SharedPtr<thread::JobScoreFunction>& score,
    const TileCallback& tileCallback, const ProgressCallback& progress) {
    return _merger->execute(selfRef(), tiles, version, score, tileCallback, progress);
}

void ImageSource::terminateAllTasks() { _merger->terminateAllTasks(); }

// ---- the job graph ----

void ImageSource::computeJobsV(std::vector<TileGetter>& out, const std::vector<TileIndex>& tiles,
                               JobSet& jobs, thread::DependentJobMerger& merger,
                               unsigned int version, bool* outOfDate) {
    executeFullLocked([&] { computeJobsUnlockedV(out, tiles, jobs, merger, version, outOfDate); });
}

void ImageSource::computeJobsUnlockedV(std::vector<TileGetter>& out,
                                       const std::vector<TileIndex>& tiles, JobSet& jobs,
                                       thread::DependentJobMerger& merger, unsigned int version,
                                       bool* outOfDate, bool clip) {
    QOR_ASSERT_TEXT(outOfDate != nullptr, "outOfDate != 0");
    if (version != _version.load(std::memory_order_relaxed)) {
        if (outOfDate) *outOfDate = true;
        return;
    }
    // Each getter stays at the position of its index, so that the caller can pair them; an index
    // that the clip drops keeps an empty getter.
    const GenVec<int, 2> count = clip ? tileLayout().tileCount : GenVec<int, 2>();
    out.assign(tiles.size(), TileGetter());
    for (size_t i = 0; i < tiles.size(); ++i) {
        const TileIndex& idx = tiles[i];
        if (clip && !insideCount(idx, count)) {
            QOR_ASSERT_TEXT(false, "false");
            QOR_LOG(LogDebug,
                    "Ignoring out of bounds tile (%*,%*) (most likely due to GPU/CPU switching)",
                    idx.x, idx.y);
            continue;
        }
        JobSet localJobs;
        out[i] = computeJobsUnlocked(unsigned(idx.x), unsigned(idx.y), localJobs, merger);
        jobs.insert(localJobs.begin(), localJobs.end());
    }
}

ImageSource::TileGetter ImageSource::computeJobsUnlocked(unsigned int x, unsigned int y,
                                                         JobSet& jobs,
                                                         thread::DependentJobMerger& merger) {
    static const FastString<char> name("ImageSource");
    const Recti rect = getTileRect(int(x), int(y));
    if (TileGetter cached = checkCachedTileUnlocked(jobs, merger, rect, name)) return cached;
    SharedPtr<TileNotifyJob> notifyJob;
    TileGetter existing =
        createNotifyJobUnlocked(jobs, merger, &notifyJob, TileIndex(int(x), int(y)), rect, name);
    if (!notifyJob) return existing;

    auto job = std::make_shared<TileComputationJob>();
    job->targetImage = selfRef();
    QOR_ASSERT_TEXT(job->targetImage, "job->targetImage");
    job->version = _version.load(std::memory_order_relaxed);
    job->pos = TileIndex(int(x), int(y));
    job->setCreatorName(typeid(*this).name());
    ImageSource* self = this;
    job->computeTileFunction = [self](unsigned int cx, unsigned int cy) {
        return self->computeTileData(cx, cy);
    };
    auto merged = std::static_pointer_cast<TileComputationJob>(merger.merge(job));
    return mergeWithNotifyJobUnlocked(jobs, merger, notifyJob, merged,
                                      [merged] { return merged->getResult(); });
}

ImageSource::TileGetter ImageSource::checkCachedTileUnlocked(JobSet&, thread::DependentJobMerger&,
                                                             const Recti& rect,
                                                             const FastString<char>&) {
    SharedPtr<const ImageTile> tile =
        TileCache::getLifeTile(this, rect, _version.load(std::memory_order_relaxed));
    if (!tile) return TileGetter();
    return [tile] { return tile; };
}

ImageSource::TileGetter ImageSource::createNotifyJobUnlocked(JobSet& jobs,
                                                             thread::DependentJobMerger& merger,
                                                             SharedPtr<TileNotifyJob>* notifyJob,
                                                             TileIndex pos, const Recti& rect,
                                                             const FastString<char>& name)
    QOR_NO_THREAD_SAFETY_ANALYSIS {
    SharedPtr<TileNotifyJob> job;
    if (_caching) {
        auto cacheJob = std::make_shared<TileCacheJob>();
        cacheJob->rect = rect;
        job = cacheJob;
    } else {
        job = std::make_shared<TileNotifyJob>();
    }
    job->setCreatorName(name);
    job->targetImage = selfRef();
    job->version = _version.load(std::memory_order_relaxed);
    job->pos = pos;
    if (SharedPtr<thread::DependentJob> found = merger.find(job)) {
        jobs.insert(found);
        *notifyJob = nullptr;
        auto existing = std::static_pointer_cast<TileNotifyJob>(found);
        return [existing] { return existing->getTile(); };
    }
    *notifyJob = job;
    return TileGetter();
}

ImageSource::TileGetter ImageSource::mergeWithNotifyJobUnlocked(
    JobSet& jobs, thread::DependentJobMerger& merger, const SharedPtr<TileNotifyJob>& notifyJob,
    const JobSet& dependencies, const TileGetter& resultGetter) {
    QOR_ASSERT_TEXT(notifyJob->dependencies().empty(), "notifyJob->dependencies.size() == 0");
    for (const JobPtr& dep : dependencies) notifyJob->addDependency(dep);
    notifyJob->inputTile = resultGetter;
    QOR_ASSERT_TEXT(!merger.find(notifyJob), "!existingJobs.find(*notifyJob)");
    auto merged = std::static_pointer_cast<TileNotifyJob>(merger.merge(notifyJob));
    jobs.insert(merged);
    return [merged] { return merged->getTile(); };
}

ImageSource::TileGetter ImageSource::mergeWithNotifyJobUnlocked(
    JobSet& jobs, thread::DependentJobMerger& merger, const SharedPtr<TileNotifyJob>& notifyJob,
    const JobPtr& dependency, const TileGetter& resultGetter) {
    return mergeWithNotifyJobUnlocked(jobs, merger, notifyJob, JobSet{dependency}, resultGetter);
}

}  // namespace qor::imaging
