#include "base/thread/SynchronousCompositeJobDispatcher.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/Log.h"
#include "base/thread/RunLogged.h"
#include "base/thread/ThreadId.h"

namespace qor::thread {

SynchronousCompositeJobDispatcher::SynchronousCompositeJobDispatcher(const char* threadName)
    : _name(threadName ? threadName : "qor-jobs") {
    _thread = std::thread([this] {
        _threadId.store(std::this_thread::get_id(), std::memory_order_release);
        setThreadName(_name.c_str());
        loop();
    });
}

SynchronousCompositeJobDispatcher::~SynchronousCompositeJobDispatcher() { shutdown(); }

bool SynchronousCompositeJobDispatcher::isDispatcherThread() const {
    return _threadId.load(std::memory_order_acquire) == std::this_thread::get_id();
}

void SynchronousCompositeJobDispatcher::setFinishedCallback(FinishedCallback callback) {
    ScopedLock lock(_mutex);
    _callback = std::move(callback);
}

SharedPtr<CompositeJob> SynchronousCompositeJobDispatcher::addJob(
    const SharedPtr<CompositeJob>& job) {
    if (!job) {
        QOR_ASSERT_TEXT(false, "job != nullptr");
        return nullptr;
    }
    ScopedLock lock(_mutex);
    if (_stopping) {
        lock.unlock();
        QOR_LOG(LogWarning, "%*: job refused after shutdown", _name);
        return nullptr;
    }
    if (job->status() != CompositeJob::CjQueued) {
        lock.unlock();
        QOR_LOG(LogWarning, "%*: job refused, it has run or was cancelled already", _name);
        return nullptr;
    }
    // A job whose work has ended is no longer the same work: the new one runs after it.
    auto same = [&](const SharedPtr<CompositeJob>& other) {
        return other && (other == job || (!other->workEnded() && !job->workEnded() &&
                                          (other->isSameJob(job) || job->isSameJob(other))));
    };
    if (same(_running)) return _running;
    for (const auto& queued : _queue)
        if (same(queued)) return queued;
    _queue.push_back(job);
    _wakeCondition.notifyOne();
    return job;
}

void SynchronousCompositeJobDispatcher::dropQueued(std::vector<SharedPtr<CompositeJob>>& dropped) {
    for (auto& job : _queue) {
        job->setCancelled();
        job->setStatus(CompositeJob::CjCancelled);
        dropped.push_back(std::move(job));
    }
    _queue.clear();
    _finishing += dropped.size();
}

void SynchronousCompositeJobDispatcher::finishDropped(
    const std::vector<SharedPtr<CompositeJob>>& dropped) {
    if (dropped.empty()) return;
    for (const auto& job : dropped) finish(job);
    ScopedLock lock(_mutex);
    _finishing -= dropped.size();
    _idleCondition.notifyAll();
}

void SynchronousCompositeJobDispatcher::cancelJob(const SharedPtr<CompositeJob>& job) {
    if (!job) return;
    job->setCancelled();
    std::vector<SharedPtr<CompositeJob>> dropped;
    {
        ScopedLock lock(_mutex);
        auto it = std::find(_queue.begin(), _queue.end(), job);
        if (it != _queue.end()) {
            job->setStatus(CompositeJob::CjCancelled);
            dropped.push_back(std::move(*it));
            _queue.erase(it);
            ++_finishing;
        }
    }
    finishDropped(dropped);
}

void SynchronousCompositeJobDispatcher::cancelAll() {
    std::vector<SharedPtr<CompositeJob>> dropped;
    {
        ScopedLock lock(_mutex);
        if (_running) _running->setCancelled();
        dropQueued(dropped);
    }
    finishDropped(dropped);
}

bool SynchronousCompositeJobDispatcher::idle() const {
    return _queue.empty() && !_running && _finishing == 0;
}

void SynchronousCompositeJobDispatcher::waitIdle() {
    if (isDispatcherThread()) {
        QOR_ASSERT_TEXT(false, "waitIdle is not called on the dispatcher's thread");
        return;
    }
    ScopedLock lock(_mutex);
    _idleCondition.wait(lock, [&]() QOR_NO_THREAD_SAFETY_ANALYSIS { return idle(); });
}

void SynchronousCompositeJobDispatcher::shutdown() {
    if (isDispatcherThread()) {
        QOR_ASSERT_TEXT(false, "shutdown is not called on the dispatcher's thread");
        return;
    }
    {
        ScopedLock lock(_mutex);
        if (_joined) return;
        _stopping = true;
        _joined = true;
    }
    cancelAll();
    {
        ScopedLock lock(_mutex);
        _wakeCondition.notifyAll();
    }
    if (_thread.joinable()) _thread.join();
    // Callbacks of jobs that other threads dropped may still run; the callback's owner may go
    // away once shutdown returns.
    ScopedLock lock(_mutex);
    _idleCondition.wait(lock, [&]() QOR_NO_THREAD_SAFETY_ANALYSIS { return _finishing == 0; });
}

size_t SynchronousCompositeJobDispatcher::jobCount() const {
    ScopedLock lock(_mutex);
    return _queue.size() + (_running ? 1 : 0) + _finishing;
}

void SynchronousCompositeJobDispatcher::runJob(CompositeJob& job) {
    job.setStatus(CompositeJob::CjRunning);
    std::string failure;
    try {
        job.run();
    } catch (const std::exception& e) {
        failure = e.what();
        if (failure.empty()) failure = "unknown failure";
    } catch (...) {
        failure = "unknown exception";
    }
    if (failure.empty()) {
        job.setStatus(CompositeJob::CjFinished);
        return;
    }
    job.setFailure(failure);
    job.setStatus(CompositeJob::CjFailed);
    QOR_LOG(LogError, "%*: job failed with an exception: %*", _name, failure);
}

void SynchronousCompositeJobDispatcher::finish(const SharedPtr<CompositeJob>& job) {
    FinishedCallback callback;
    {
        ScopedLock lock(_mutex);
        callback = _callback;
    }
    if (callback) runLogged([&] { callback(job); }, "SynchronousCompositeJobDispatcher: callback");
}

void SynchronousCompositeJobDispatcher::loop() {
    for (;;) {
        SharedPtr<CompositeJob> job;
        bool dropped = false;  // cancelled before its turn: not run
        {
            ScopedLock lock(_mutex);
            while (_queue.empty() && !_stopping) _wakeCondition.wait(lock);
            if (_queue.empty()) return;  // stopping, and nothing left to end
            job = std::move(_queue.front());
            _queue.pop_front();
            dropped = job->isCancelled();
            if (dropped) {
                job->setStatus(CompositeJob::CjCancelled);
                ++_finishing;
            } else {
                _running = job;
            }
        }
        if (!dropped) {
            runJob(*job);
            // From here an equal job may be queued again; the callback runs after.
            ScopedLock lock(_mutex);
            _running.reset();
            ++_finishing;
        }
        finish(job);
        job.reset();  // may destroy the job: no lock held
        ScopedLock lock(_mutex);
        --_finishing;
        _idleCondition.notifyAll();
    }
}

}  // namespace qor::thread
