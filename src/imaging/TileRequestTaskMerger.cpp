#include "imaging/TileRequestTaskMerger.h"

#include <exception>
#include <vector>

#include "base/Log.h"
#include "base/thread/JobGroup.h"
#include "imaging/ImageLog.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/ImageTile.h"

namespace qor::imaging {

using thread::DependentJob;

namespace {

ComputedTileInfo endRecord(ComputedTileInfo::Status status, const SharedPtr<ImageSource>& source) {
    ComputedTileInfo info;
    info.type = ComputedTileInfo::RequestEnded;
    info.status = status;
    info.source = source;
    info.pos = GenVec<int, 2>(-1, -1);
    return info;
}

// Calls a caller's callback; what it throws stays with it.
template <class F, class... A>
void callGuarded(const F& fn, A&&... args) {
    if (!fn) return;
    try {
        fn(std::forward<A>(args)...);
    } catch (const std::exception& e) {
        QOR_ASSERT_TEXT(false, "false");
        QOR_LOG(LogError, "tile callback threw an exception: %*", e.what());
    }
}

}  // namespace

// ---- Handle ----

TileRequestTaskMerger::Handle::Handle(const SharedPtr<Task>& task, const TileCallback& tileCallback,
                                      const ProgressCallback& progress)
    : _task(task), _tileCallback(tileCallback), _progressCallback(progress) {}

SharedPtr<TileRequestTaskMerger::Handle> TileRequestTaskMerger::Handle::create(
    const SharedPtr<Task>& task, const TileCallback& tileCallback,
    const ProgressCallback& progress) {
    SharedPtr<Handle> handle(new Handle(task, tileCallback, progress));
    QOR_ASSERT_TEXT(handle->_selfRef.expired(), "_selfRef.isNull()");
    handle->_selfRef = handle;
    return handle;
}

bool TileRequestTaskMerger::Handle::finished() const {
    SharedPtr<Task> task = _task.lock();
    return !task || task->finished();
}

void TileRequestTaskMerger::Handle::cancel() {
    SharedPtr<Task> task = _task.lock();
    if (!task || task->finished()) return;
    // A handle is withdrawn once: a second cancel (from the caller and from a termination at the
    // same time, say) would find it gone from its task.
    if (_cancelled.exchange(true, std::memory_order_acq_rel)) return;
    task->cancel(selfRef());
}

bool TileRequestTaskMerger::Handle::cancelled() const {
    return _cancelled.load(std::memory_order_acquire);
}

SharedPtr<ImageSource> TileRequestTaskMerger::Handle::source() const {
    SharedPtr<Task> task = _task.lock();
    return task ? task->source() : nullptr;
}

bool TileRequestTaskMerger::Handle::isSameRequest(const SharedPtr<ImageSource>& source,
                                                  const TileSet& tiles,
                                                  unsigned int version) const {
    SharedPtr<Task> task = _task.lock();
    return task && task->source() == source && task->tiles() == tiles &&
           task->version() == version;
}

// ---- Task ----

TileRequestTaskMerger::Task::Task(const SharedPtr<ImageSource>& source, const TileSet& tiles,
                                  unsigned int version,
                                  const SharedPtr<thread::JobScoreFunction>& score)
    : _source(source), _tiles(tiles), _version(version), _scoreFunction(score) {}

bool TileRequestTaskMerger::Task::finished() const {
    ScopedLock<Mutex> lock(_mutex);
    return _finished;
}

bool TileRequestTaskMerger::Task::cancelled() const {
    ScopedLock<Mutex> lock(_mutex);
    return _cancelled;
}

void TileRequestTaskMerger::Task::addHandle(const SharedPtr<Handle>& handle) {
    ScopedLock<Mutex> lock(_mutex);
    _taskHandles.insert(handle);
}

bool TileRequestTaskMerger::Task::join(const SharedPtr<Handle>& handle) {
    ScopedLock<Mutex> lock(_mutex);
    if (_cancelled || _finished) return false;
    _taskHandles.insert(handle);
    return true;
}

void TileRequestTaskMerger::Task::reportOutdated() {
    HandleSet handles;
    {
        ScopedLock<Mutex> lock(_mutex);
        _finished = true;
        handles = _taskHandles;
    }
    if (ImageLog::enabled(ImageLogRequestResults) && _source)
        ImageLog::requestEnded(this, *_source, _tiles, "outdated");
    const ComputedTileInfo record = endRecord(ComputedTileInfo::Outdated, _source);
    for (const SharedPtr<Handle>& handle : handles) callGuarded(handle->tileCallback(), record);
}

void TileRequestTaskMerger::Task::run(const SharedPtr<TileRequestTaskMerger>& merger,
                                      const SharedPtr<Task>& self) {
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_cancelled) {
            QOR_ASSERT_TEXT(_taskHandles.empty(), "_taskHandles.empty()");
            lock.unlock();
            merger->notifyTaskStart(self);
            merger->notifyTaskFinish(self);
            return;
        }
    }
    if (_version != _source->version()) {
        merger->notifyTaskStart(self);
        reportOutdated();
        merger->notifyTaskFinish(self);
        return;
    }
    bool ranJobs = false;
    ComputedTileInfo end = endRecord(ComputedTileInfo::Success, _source);
    end.pos = GenVec<int, 2>(-2, -2);
    std::vector<ComputedTileInfo> cachedRecords;
    bool outdated = false;
    merger->notifyTaskStart(self);
    try {
        const GenVec<int, 2> count = _source->tileLayout().tileCount;
        std::vector<GenVec<int, 2>> working;
        // One cache look-up for all tiles: asking tile by tile would build a layout-sized array
        // for each of them.
        ImageSource::TileSet inside;
        for (const GenVec<int, 2>& idx : _tiles)
            if (idx.x >= 0 && idx.y >= 0 && idx.x < count.x && idx.y < count.y) inside.insert(idx);
        ImageSource::TileArray cached;
        ImageSource::VersionArray cachedVersions;
        if (!inside.empty())
            _source->getTiles(cached, inside, true, &cachedVersions, ImageSource::OnRequest());
        for (const GenVec<int, 2>& idx : inside) {
            const bool present = idx.x < cached.columns() && idx.y < cached.rows();
            SharedPtr<const ImageTile> tile = present ? cached(idx.x, idx.y) : nullptr;
            const unsigned int cachedVersion = present ? cachedVersions(idx.x, idx.y) : 0;
            if (tile && cachedVersion == _version) {
                ComputedTileInfo info;
                info.type = ComputedTileInfo::TileReady;
                info.status = ComputedTileInfo::Success;
                info.source = _source;
                info.tile = tile;
                info.pos = idx;
                cachedRecords.push_back(info);
            } else {
                working.push_back(idx);
            }
        }
        if (!working.empty()) {
            std::vector<ImageSource::TileGetter> getters;
            ImageSource::JobSet jobs;
            thread::DependentJobMerger jobMerger;
            _source->computeJobsV(getters, working, jobs, jobMerger, _version, &outdated);
            if (!outdated) {
                thread::createGroup(jobs, "TileRequestTaskMerger");
                ImageSource::Debug_OnStartProcessingSource().emit(_source, jobs);
                // The final jobs of the request are the ones computeJobsV handed back.
                const ImageSource::JobSet finalJobs = jobs;
                ranJobs = !jobs.empty();
                _executor.process(_scoreFunction, jobs,
                                  [this, &finalJobs](const SharedPtr<DependentJob>& job) {
                                      jobFinished(job, finalJobs);
                                  });
                collectJoblessTiles(working, getters, cachedRecords);
            }
        }
    } catch (const ImagingException& e) {
        QOR_LOG(LogError, "ImagingException caught: %*", e.what());
        end.status = ComputedTileInfo::Error;
        end.errorType = e.type();
        end.errorMessage = e.what();
    } catch (const Exception& e) {
        QOR_LOG(LogError, "qor::Exception caught: %*", e.what());
        end.status = ComputedTileInfo::Error;
        end.errorType = ImagingException::TypeUnknown;
        end.errorMessage = e.what();
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "std::exception caught: %*", e.what());
        end.status = ComputedTileInfo::Error;
        end.errorType = ImagingException::TypeUnknown;
        end.errorMessage = e.what();
    } catch (...) {
        QOR_LOG(LogError, "Unknown exception caught!!");
        end.status = ComputedTileInfo::Error;
        end.errorType = ImagingException::TypeUnknown;
        end.errorMessage = "UNKNOWN ERROR";
    }
    if (outdated) {
        reportOutdated();
        merger->notifyTaskFinish(self);
        return;
    }

    HandleSet handles;
    {
        ScopedLock<Mutex> lock(_mutex);
        _finished = true;
        ++_delivering;
    }
    // Tiles found in the cache go through the same delivery as those of the jobs, progress
    // included. They come after every job: with jobs behind it the request is complete with each
    // of them; without, each is its share of the request.
    for (size_t i = 0; i < cachedRecords.size(); ++i) {
        const double progress = ranJobs ? 1.0 : double(i + 1) / double(cachedRecords.size());
        deliver({cachedRecords[i]}, progress, true);
    }
    // Before the end record: a caller that wakes on it finds the request's picture written.
    if (ImageLog::enabled(ImageLogRequestResults))
        ImageLog::requestEnded(this, *_source, _tiles,
                               end.status == ComputedTileInfo::Error
                                   ? "failed: " + std::string(end.errorMessage.view())
                                   : std::string("complete"));
    {
        ScopedLock<Mutex> lock(_mutex);
        handles = _taskHandles;
    }
    for (const SharedPtr<Handle>& handle : handles) {
        {
            // A handle cancelled during this delivery gets its cancelled record instead.
            ScopedLock<Mutex> lock(_mutex);
            if (!wantedUnlocked(handle)) continue;
        }
        callGuarded(handle->tileCallback(), end);
    }
    endDelivery();

    if (end.status == ComputedTileInfo::Error) {
        // The announcement follows the record's type, which for an end record is never the
        // rendering type: a failed request is always the source's exception.
        ImageSource::OnException().emit(ImagingException(
            end.errorType, std::string(end.errorMessage.view()), std::string(logSourcePath(__FILE__))));
    }
    {
        // The task keeps its handles until it ends; after that only the handles keep themselves.
        ScopedLock<Mutex> lock(_mutex);
        _taskHandles.clear();
        _cancelWhileDelivering.clear();
    }
    merger->notifyTaskFinish(self);
}

void TileRequestTaskMerger::Task::collectJoblessTiles(
    const std::vector<GenVec<int, 2>>& working, const std::vector<ImageSource::TileGetter>& getters,
    std::vector<ComputedTileInfo>& records) {
    // A tile that reached the cache between the look-up above and the full lock, or that a source
    // answers from memory, comes back as a getter with no job behind it: no job delivers it, so
    // it joins the tiles found in the cache. Tiles the jobs delivered are not sent twice.
    if (getters.size() != working.size()) return;
    TileSet delivered;
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_cancelled) return;
        delivered.swap(_deliveredTiles);
    }
    for (size_t i = 0; i < working.size(); ++i) {
        if (!getters[i] || delivered.count(working[i])) continue;
        SharedPtr<const ImageTile> tile = getters[i]();
        if (!tile) continue;
        ComputedTileInfo info;
        info.type = ComputedTileInfo::TileReady;
        info.status = ComputedTileInfo::Success;
        info.source = _source;
        info.tile = tile;
        info.pos = working[i];
        records.push_back(info);
    }
}

void TileRequestTaskMerger::Task::jobFinished(const SharedPtr<DependentJob>& job,
                                              const std::set<SharedPtr<DependentJob>>& finalJobs) {
    auto* isj = dynamic_cast<ImageSourceJob*>(job.get());
    if (!isj) {
        QOR_ASSERT_TEXT(dynamic_cast<TerminatorJob*>(job.get()),
                        "isj || dynamic_cast<TerminatorJob*>(job.get())");
        return;
    }
    if (isj->exceptionOccurred())
        throw ImagingException(isj->exceptionType(), std::string(isj->exceptionMessage().view()),
                               std::string(logSourcePath(__FILE__)));
    if (finalJobs.find(job) == finalJobs.end()) return;
    auto* finishInterface = dynamic_cast<TileFinishInterface*>(job.get());
    QOR_ASSERT_TEXT(finishInterface, "finishInterface");
    if (!finishInterface) return;
    unsigned int done = 0, running = 0, total = 0;
    _executor.progress(done, running, total);
    const double progress = total ? double(done + running) / double(total) : 1.0;
    std::vector<TileFinishInterface::TileInfo> tiles;
    finishInterface->getFinishedTiles(tiles);
    std::vector<ComputedTileInfo> records;
    for (const TileFinishInterface::TileInfo& info : tiles) {
        ComputedTileInfo record;
        record.type = ComputedTileInfo::TileReady;
        record.status = ComputedTileInfo::Success;
        record.source = info.source;
        record.tile = info.tile;
        record.pos = info.pos;
        records.push_back(record);
    }
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_cancelled) return;
        ++_delivering;
        for (const ComputedTileInfo& record : records)
            if (record.source == _source) _deliveredTiles.insert(record.pos);
    }
    deliver(records, progress, true);
    endDelivery();
}

void TileRequestTaskMerger::Task::endDelivery() {
    bool stopJobs = false;
    std::vector<SharedPtr<Handle>> removed;
    {
        ScopedLock<Mutex> lock(_mutex);
        // Jobs finish on several threads at once: the cancellations wait for the last delivery.
        // They are taken in the same locked step that ends it; a cancel arriving after the lock
        // is released finds no delivery and removes its handle itself.
        if (--_delivering > 0) return;
        takeDeferredCancelsUnlocked(removed, &stopJobs);
    }
    finishCancels(removed, stopJobs);
}

void TileRequestTaskMerger::Task::deliver(const std::vector<ComputedTileInfo>& records,
                                          double progress, bool withProgress) {
    for (const ComputedTileInfo& record : records) {
        if (ImageLog::enabled(ImageLogRequestResults) &&
            record.type == ComputedTileInfo::TileReady && record.source && record.tile)
            ImageLog::requestTile(this, *record.source, record.pos, record.tile);
        HandleSet handles;
        {
            ScopedLock<Mutex> lock(_mutex);
            handles = _taskHandles;
        }
        for (const SharedPtr<Handle>& handle : handles) {
            {
                ScopedLock<Mutex> lock(_mutex);
                if (!wantedUnlocked(handle)) continue;
            }
            callGuarded(handle->tileCallback(), record);
            {
                ScopedLock<Mutex> lock(_mutex);
                if (!wantedUnlocked(handle)) continue;
            }
            if (withProgress) callGuarded(handle->progressCallback(), progress);
        }
    }
}

bool TileRequestTaskMerger::Task::wantedUnlocked(const SharedPtr<Handle>& handle) const {
    return _taskHandles.count(handle) && !_cancelWhileDelivering.count(handle);
}

bool TileRequestTaskMerger::Task::removeHandleUnlocked(const SharedPtr<Handle>& handle,
                                                       bool* stopJobs) {
    auto it = _taskHandles.find(handle);
    QOR_ASSERT_TEXT(it != _taskHandles.end(), "_taskHandles.find(handle) != _taskHandles.end()");
    if (it == _taskHandles.end()) {
        QOR_ASSERT_MSG(false, "Apparently there is a race concerning the handles in a Task!");
        QOR_LOG(LogInfo,
                "TileRequestTaskMerger::Task::cancel canceling a handle that does not exist");
        return false;
    }
    _taskHandles.erase(it);
    if (_taskHandles.empty() && !_cancelled) {
        _cancelled = true;
        *stopJobs = true;
    }
    return true;
}

void TileRequestTaskMerger::Task::sendCancelled(const SharedPtr<Handle>& handle) {
    callGuarded(handle->tileCallback(), endRecord(ComputedTileInfo::Cancelled, _source));
}

void TileRequestTaskMerger::Task::cancel(const SharedPtr<Handle>& handle) {
    if (!handle) return;
    bool stopJobs = false;
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_delivering > 0) {
            if (_taskHandles.count(handle)) _cancelWhileDelivering.insert(handle);
            return;
        }
        if (_finished || _cancelled) return;
        if (!removeHandleUnlocked(handle, &stopJobs)) return;
    }
    if (stopJobs) _executor.cancel();
    sendCancelled(handle);
}

void TileRequestTaskMerger::Task::takeDeferredCancelsUnlocked(
    std::vector<SharedPtr<Handle>>& removed, bool* stopJobs) {
    HandleSet deferred;
    deferred.swap(_cancelWhileDelivering);
    for (const SharedPtr<Handle>& handle : deferred)
        if (removeHandleUnlocked(handle, stopJobs)) removed.push_back(handle);
}

void TileRequestTaskMerger::Task::finishCancels(const std::vector<SharedPtr<Handle>>& removed,
                                                bool stopJobs) {
    if (stopJobs) _executor.cancel();
    for (const SharedPtr<Handle>& handle : removed) sendCancelled(handle);
}

void TileRequestTaskMerger::Task::cancelAll() {
    HandleSet handles;
    {
        ScopedLock<Mutex> lock(_mutex);
        handles = _taskHandles;
    }
    for (const SharedPtr<Handle>& handle : handles) handle->cancel();
}

// ---- the merger ----

TileRequestTaskMerger::TileRequestTaskMerger() = default;

TileRequestTaskMerger::~TileRequestTaskMerger() = default;

SharedPtr<TileRequestTaskMerger> TileRequestTaskMerger::create() {
    SharedPtr<TileRequestTaskMerger> merger(new TileRequestTaskMerger());
    merger->setupSelfRef(merger);
    return merger;
}

void TileRequestTaskMerger::setupSelfRef(const SharedPtr<TileRequestTaskMerger>& self) {
    QOR_ASSERT_TEXT(_selfRef.expired(), "_selfRef.isNull()");
    _selfRef = self;
}

SharedPtr<TileRequestTaskMerger::Handle> TileRequestTaskMerger::execute(
    const SharedPtr<ImageSource>& source, const TileSet& tiles, unsigned int version,
    const SharedPtr<thread::JobScoreFunction>& score, const TileCallback& tileCallback,
    const ProgressCallback& progress) {
    ScopedLock<Mutex> lock(_mutex);
    for (const SharedPtr<Task>& task : _pendingTasks) {
        if (task->source() == source && task->tiles() == tiles && task->version() == version) {
            SharedPtr<Handle> handle = Handle::create(task, tileCallback, progress);
            // A waiting task whose callers have all cancelled will run for nobody: not joined.
            if (task->join(handle)) return handle;
        }
    }
    auto task = std::make_shared<Task>(source, tiles, version, score);
    SharedPtr<Handle> handle = Handle::create(task, tileCallback, progress);
    task->addHandle(handle);
    _pendingTasks.insert(task);
    SharedPtr<TileRequestTaskMerger> self = selfRef();
    lock.unlock();
    _sequentializer.addTask([self, task] {
        QOR_ASSERT_TEXT(bool(self) && bool(task), "(bool)merger && (bool)self");
        if (self && task) task->run(self, task);
    });
    return handle;
}

void TileRequestTaskMerger::notifyTaskStart(const SharedPtr<Task>& task) {
    ScopedLock<Mutex> lock(_mutex);
    QOR_ASSERT_TEXT(_startedTasks.find(task) == _startedTasks.end(),
                    "_startedTasks.find(task) == _startedTasks.end()");
    auto it = _pendingTasks.find(task);
    // A task that terminateAllTasks took out of the sets is in neither; it was marked under this
    // mutex before it left them.
    QOR_ASSERT_TEXT(it != _pendingTasks.end() || task->terminated(), "it != _pendingTasks.end()");
    if (it == _pendingTasks.end()) return;
    _pendingTasks.erase(it);
    _startedTasks.insert(task);
}

void TileRequestTaskMerger::notifyTaskFinish(const SharedPtr<Task>& task) {
    ScopedLock<Mutex> lock(_mutex);
    auto it = _startedTasks.find(task);
    QOR_ASSERT_TEXT(it != _startedTasks.end() || task->terminated(),
                    "_startedTasks.find(task) != _startedTasks.end()");
    if (it != _startedTasks.end()) _startedTasks.erase(it);
}

void TileRequestTaskMerger::terminateAllTasks() {
    std::set<SharedPtr<Task>> tasks;
    {
        ScopedLock<Mutex> lock(_mutex);
        tasks.insert(_pendingTasks.begin(), _pendingTasks.end());
        tasks.insert(_startedTasks.begin(), _startedTasks.end());
        for (const SharedPtr<Task>& task : tasks) task->markTerminated();
        _pendingTasks.clear();
        _startedTasks.clear();
    }
    for (const SharedPtr<Task>& task : tasks) task->cancelAll();
}

size_t TileRequestTaskMerger::pendingTaskCount() const {
    ScopedLock<Mutex> lock(_mutex);
    return _pendingTasks.size();
}

size_t TileRequestTaskMerger::startedTaskCount() const {
    ScopedLock<Mutex> lock(_mutex);
    return _startedTasks.size();
}

}  // namespace qor::imaging
