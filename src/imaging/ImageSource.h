#pragma once
// ImageSource: a node of the demand-driven image graph. It knows its size, pixel format and tile
// layout, and turns a request for tiles into a graph of jobs: by default, for each tile missing
// from the tile cache, a computation job (computeTileData) followed by a cache or notify job.
// Derived sources either override computeTileData (sources with their own pixels), build their
// own jobs over their inputs (derived sources), or answer getTiles directly (leaf sources that
// hold their tiles).
//
// Ownership: a source exists behind the SharedPtr made by its static create (setupSelfRef). Jobs
// hold their source strongly, so a source outlives its running requests. Each source owns its
// request merger.
//
// Thread contract: every public member may be called from any thread. _mutex guards the version,
// the caching flag and the draw parameters; the members ending in Unlocked need the full lock of
// the source and its dependencies (executeFullLocked), which is taken from dependent to
// dependency, breadth first. _notifyMutex guards only the wait of getTiles and nests inside
// nothing. Tile callbacks run with no lock held.

#include <atomic>
#include <list>
#include <set>
#include <vector>

#include "base/thread/DependentJob.h"
#include "base/thread/DependentJobMerger.h"
#include "base/thread/JobScoreFunction.h"
#include "base/thread/Mutex.h"
#include "container/Array2D.h"
#include "imaging/ComputedTileInfo.h"
#include "imaging/DrawParameters.h"
#include "imaging/PixelFormat.h"
#include "imaging/TileLayout.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/Function.h"
#include "util/SharedPtr.h"
#include "util/Signal.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

class ImageTile;
class TileNotifyJob;
class TileRequestTaskMerger;

class ImageSource {
public:
    using TileIndex = GenVec<int, 2>;
    using TileSet = std::set<TileIndex>;
    using TileArray = container::Array2D<SharedPtr<const ImageTile>>;
    using VersionArray = container::Array2D<unsigned int>;
    using TileGetter = Function0<SharedPtr<const ImageTile>>;
    using JobPtr = SharedPtr<thread::DependentJob>;
    using JobSet = std::set<JobPtr>;
    using OnRequest = Function1<void, SharedPtr<RequestHandle>>;
    using TileCallback = Function1<void, const ComputedTileInfo&>;
    using ProgressCallback = Function1<void, double>;
    using SourceList = std::list<SharedPtr<ImageSource>>;

    // Emitted after the version changed, with no lock held.
    Signal0 OnVersionChanged;
    // Sources that read this one connect here when they are built; emitting it collects every
    // direct dependent into the list.
    Signal1<SourceList&> OnCollectDependees;

    // Removes the source's tiles from the tile cache.
    virtual ~ImageSource();
    ImageSource(const ImageSource&) = delete;
    ImageSource& operator=(const ImageSource&) = delete;

    virtual TileLayout tileLayout() const = 0;
    // The synchronous road: fills `out` (resized to the layout's tile count) with the tiles of
    // `tiles`, from the cache or by a request, and blocks until the request has ended. With
    // `cachedOnly` it only looks into the cache and never blocks. On the GL thread it runs GL jobs
    // while it waits. `onRequest` receives the handle of the request, to cancel it; cancelled tiles
    // stay null. Throws ImagingException with the type of the failed job.
    virtual void getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly,
                          VersionArray* versions, const OnRequest& onRequest);
    virtual Recti getTileRect(int x, int y) const;
    // Any rectangle as one tile, assembled from the tiles under it; outside the image the image is
    // mirrored when `mirrored` is set. Null when the request was cancelled. Blocks; throws as
    // getTiles.
    virtual SharedPtr<const ImageTile> createTileFromRegion(const Recti& rect, bool mirrored,
                                                            const OnRequest& onRequest);
    // Builds the jobs of tile (x, y) into `jobs`, merging equal work through `merger`, and returns
    // the getter of the finished tile. Needs the full lock (executeFullLocked).
    virtual TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                           thread::DependentJobMerger& merger);
    // Appends the sources this one reads. A leaf appends nothing.
    virtual void insertDependencies(SourceList& out) const;
    // Puts the source behind its SharedPtr; every create calls it once. A second call logs
    // "_selfRef.isNull()" and returns the existing reference.
    virtual SharedPtr<ImageSource> setupSelfRef();

    GenVec<int, 2> size() const { return _size; }
    int width() const { return _size.x; }
    int height() const { return _size.y; }
    unsigned int version() const;
    RawPixelFormat pixelFormat() const { return _pixelFormat; }
    bool isCaching() const;
    DrawParameters getDrawParameters() const;
    // Logs "params.isValid()" for bad parameters, and stores them.
    void setDrawParameters(const DrawParameters& params);

    static GenVec<int, 2> getCPUPreferredTileSize();
    static void setCPUPreferredTileSize(const GenVec<int, 2>& size);
    // The GPU tile size, no larger than the largest texture of the renderer, if there is one.
    static GenVec<int, 2> getGPUPreferredTileSize();
    static void setGPUPreferredTileSize(const GenVec<int, 2>& size);
    // How the GPU layer tells the largest texture side it can make (null: no renderer).
    static void setMaxTextureSizeQuery(Function0<int> query);

    SharedPtr<ImageSource> selfRef() const { return _selfRef.lock(); }

    // Caching of this source and its dependencies; a source whose defaultCachingState is false
    // never caches.
    void enableCaching(bool on);
    void enableCachingUnlocked(bool on);
    // Raises the version of this source and of everything that depends on it, then emits
    // OnVersionChanged on each. Tiles of older versions are no longer served.
    void incrementVersion();
    void incrementVersionUnlocked();
    // Calls `f` with the full lock: this source and all its dependencies locked, breadth first.
    void executeFullLocked(const Function0<void>& f) const;

    // One tile; null outside the layout. Blocks as getTiles.
    SharedPtr<const ImageTile> getTile(int x, int y, bool cachedOnly, unsigned int* version,
                                       const OnRequest& onRequest);
    TileArray getTiles(const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                       const OnRequest& onRequest);
    // Starts an asynchronous request. `tileCallback` receives each tile and then one end record,
    // on a worker thread; `progress` a fraction after each tile. The bool is ignored.
    SharedPtr<RequestHandle> requestTiles(const TileSet& tiles,
                                          const SharedPtr<thread::JobScoreFunction>& score,
                                          const TileCallback& tileCallback, bool unused,
                                          const ProgressCallback& progress);
    // Cancels every request of this source, pending or running.
    void terminateAllTasks();

    // The job graph of several tiles, with the full lock taken here. `outOfDate` is set, and
    // nothing built, when `version` is not the source's version.
    void computeJobsV(std::vector<TileGetter>& out, const std::vector<TileIndex>& tiles,
                      JobSet& jobs, thread::DependentJobMerger& merger, unsigned int version,
                      bool* outOfDate);
    // The same under a full lock already held. `out` gets one getter per index, at the index's
    // position; with `clip`, an index outside the layout gets an empty getter and a logged
    // assertion, and builds no job.
    void computeJobsUnlockedV(std::vector<TileGetter>& out, const std::vector<TileIndex>& tiles,
                              JobSet& jobs, thread::DependentJobMerger& merger,
                              unsigned int version, bool* outOfDate, bool clip = true);
    // A getter of the cached tile of `rect` at the current version, or an empty getter.
    TileGetter checkCachedTileUnlocked(JobSet& jobs, thread::DependentJobMerger& merger,
                                       const Recti& rect, const FastString<char>& name);
    // Makes the last job of a tile (cache job when caching, else notify job). If an equal job is
    // known to `merger`, it goes into `jobs`, *notifyJob stays null and its getter is returned;
    // otherwise *notifyJob is the new job and the getter is empty.
    TileGetter createNotifyJobUnlocked(JobSet& jobs, thread::DependentJobMerger& merger,
                                       SharedPtr<TileNotifyJob>* notifyJob, TileIndex pos,
                                       const Recti& rect, const FastString<char>& name);
    // Makes `notifyJob` depend on `dependencies`, reading its tile through `resultGetter`, merges
    // it, adds it to `jobs` and returns the getter of its tile.
    TileGetter mergeWithNotifyJobUnlocked(JobSet& jobs, thread::DependentJobMerger& merger,
                                          const SharedPtr<TileNotifyJob>& notifyJob,
                                          const JobSet& dependencies,
                                          const TileGetter& resultGetter);
    TileGetter mergeWithNotifyJobUnlocked(JobSet& jobs, thread::DependentJobMerger& merger,
                                          const SharedPtr<TileNotifyJob>& notifyJob,
                                          const JobPtr& dependency,
                                          const TileGetter& resultGetter);
    // The callback of getTiles: stores tiles into `out` and records the end of the request.
    void tileNotify(TileArray* out, const TileSet* resPos, bool* finished, ErrorDescription* error,
                    const ComputedTileInfo& cti);
    void logMemoryUsageFullLocked(bool) {}

    // The assembly step: `rect` of `source` (of `layout` and `format`) as one new tile, from
    // `tiles`, whose entry (0, 0) is the source tile `startTile`. Outside the image the image is
    // mirrored. A rectangle equal to one tile gives that tile itself.
    static SharedPtr<const ImageTile> createTileFromRegion(const ImageSource* source,
                                                           const TileLayout& layout,
                                                           RawPixelFormat format,
                                                           const DrawParameters& params,
                                                           const Recti& rect,
                                                           const TileArray& tiles,
                                                           TileIndex startTile);
    // Maps `rect` (inside or wholly outside an image of size `imageSize`) into the image by the
    // border mode (0 mirror; others unsupported) and tells whether it came out mirrored.
    static Recti mapBorderRect(const Recti& rect, GenVec<int, 2> imageSize, int mode,
                               bool* hflip, bool* vflip);

    // Emitted when a request ends in an error, after its delivery.
    static Signal1<const ImagingException&>& OnException();
    // Emitted before a request's jobs run, with the source and the jobs.
    static Signal2<const SharedPtr<ImageSource>&, const JobSet&>& Debug_OnStartProcessingSource();

protected:
    ImageSource(GenVec<int, 2> size, RawPixelFormat format,
                const DrawParameters& params = DrawParameters());

    // The pixels of tile (x, y), for sources that use the default job graph; runs in a job on a
    // worker. The base logs an assertion and returns null.
    virtual SharedPtr<const ImageTile> computeTileData(unsigned int x, unsigned int y);
    virtual bool defaultCachingState() const;

    unsigned int versionUnlocked() const QOR_REQUIRES(_mutex) {
        return _version.load(std::memory_order_relaxed);
    }
    bool cachingUnlocked() const QOR_REQUIRES(_mutex) { return _caching; }

    mutable thread::Mutex _mutex;  // guards _caching, _version, _drawParameters

private:
    friend class TileComputationJob;

    // requestTiles for a given version; a version that has passed ends the request as outdated.
    SharedPtr<RequestHandle> requestTilesAtVersion(const TileSet& tiles, unsigned int version,
                                                   const SharedPtr<thread::JobScoreFunction>& score,
                                                   const TileCallback& tileCallback,
                                                   const ProgressCallback& progress);

    // Copies `rect` (inside the image) out of `tiles` into `dst` at `offset`, mirrored as asked.
    static void assemblePiece(const TileLayout& layout, const Recti& rect, const TileArray& tiles,
                              TileIndex startTile, const SharedPtr<ImageTile>& dst, Vec2i offset,
                              bool hflip, bool vflip);

    mutable thread::Mutex _notifyMutex;  // guards only the wait of getTiles
    thread::ConditionVariable _notifyCondition;
    SharedPtr<TileRequestTaskMerger> _merger;
    bool _caching QOR_GUARDED_BY(_mutex) = true;
    // Changed only under _mutex; read without it where a stale value only makes a request outdated.
    std::atomic<unsigned int> _version{0};
    const GenVec<int, 2> _size;
    WeakSharedPtr<ImageSource> _selfRef;
    const RawPixelFormat _pixelFormat;
    DrawParameters _drawParameters QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::imaging
