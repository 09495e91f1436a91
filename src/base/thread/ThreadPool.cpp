#include "base/thread/ThreadPool.h"
#include "base/thread/RunLogged.h"

#include <algorithm>
#include <exception>

#include "base/thread/ThreadId.h"

namespace qor::thread {

ThreadPool::ThreadPool(unsigned workers, const char* name) : _name(name) {
    _workerIds.resize(workers);
    ScopedLock<Mutex> lock(_mutex);  // workers wait for the id table to be complete
    for (unsigned i = 0; i < workers; ++i) {
        _workers.emplace_back([this, i] { workerLoop(i); });
        _workerIds[i] = _workers.back().get_id();
    }
}

ThreadPool::~ThreadPool() {
    {
        ScopedLock<Mutex> lock(_mutex);
        _stopping = true;
        _wake.notifyAll();
    }
    for (std::thread& t : _workers) t.join();
}

ThreadPool::TaskId ThreadPool::post(Function0<void> fn, int priority) {
    if (_workers.empty()) {
        TaskId id;
        {
            ScopedLock<Mutex> lock(_mutex);
            id = _nextId++;
            ++_running;
        }
        runTask(fn);
        ScopedLock<Mutex> lock(_mutex);
        if (--_running == 0) _idle.notifyAll();
        return id;
    }
    ScopedLock<Mutex> lock(_mutex);
    QOR_ASSERT_MSG(!_stopping, "task posted to pool %* while it shuts down", _name);
    TaskId id = _nextId++;
    _queue.emplace(Key{-priority, id}, std::move(fn));
    _priorityOfTask.emplace(id, priority);
    _wake.notifyOne();
    return id;
}

bool ThreadPool::cancel(TaskId id) {
    ScopedLock<Mutex> lock(_mutex);
    auto it = _priorityOfTask.find(id);
    if (it == _priorityOfTask.end()) return false;
    _queue.erase(Key{-it->second, id});
    _priorityOfTask.erase(it);
    if (_queue.empty() && _running == 0) _idle.notifyAll();
    return true;
}

size_t ThreadPool::pending() const {
    ScopedLock<Mutex> lock(_mutex);
    return _queue.size();
}

size_t ThreadPool::running() const {
    ScopedLock<Mutex> lock(_mutex);
    return _running;
}

bool ThreadPool::isWorkerThread() const {
    auto self = std::this_thread::get_id();
    return std::find(_workerIds.begin(), _workerIds.end(), self) != _workerIds.end();
}

void ThreadPool::waitIdle() {
    ScopedLock<Mutex> lock(_mutex);
    _idle.wait(lock, [this] { return _queue.empty() && _running == 0; });
}

void ThreadPool::runTask(Function0<void>& fn) {
    runLogged(fn, "ThreadPool: task");
}

void ThreadPool::workerLoop(unsigned index) {
    setThreadName(_name);
    ScopedLock<Mutex> lock(_mutex);
    for (;;) {
        _wake.wait(lock, [this] { return _stopping || !_queue.empty(); });
        if (_queue.empty()) return;  // stopping, and everything queued has run
        auto first = _queue.begin();
        Function0<void> fn = std::move(first->second);
        _priorityOfTask.erase(first->first.second);
        _queue.erase(first);
        ++_running;
        lock.unlock();
        runTask(fn);
        fn = nullptr;  // release bound state before taking the lock again
        lock.lock();
        if (--_running == 0 && _queue.empty()) _idle.notifyAll();
    }
}

ThreadPool& defaultThreadPool() {
    static ThreadPool pool(std::max(2u, std::thread::hardware_concurrency()), "qor-default");
    return pool;
}

}  // namespace qor::thread
