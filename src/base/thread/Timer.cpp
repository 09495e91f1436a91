#include "base/thread/Timer.h"

#include "base/thread/ThreadId.h"
#include "base/thread/ThreadPool.h"

namespace qor::thread {

Timer::Timer(const char* name) : _name(name) {}

Timer::~Timer() {
    {
        ScopedLock<Mutex> lock(_mutex);
        _stopping = true;
        _wake.notifyAll();
    }
    if (_thread.joinable()) _thread.join();
}

Timer::Id Timer::schedule(TimePoint when, Function0<void> fn, int priority, ThreadPool* pool) {
    QOR_ASSERT(fn != nullptr);
    ScopedLock<Mutex> lock(_mutex);
    QOR_ASSERT_MSG(!_stopping, "function scheduled on timer %* while it shuts down", _name);
    Id id = _nextId++;
    bool first = _entries.empty() || Key{when, id} < _entries.begin()->first;
    _entries.emplace(Key{when, id}, Entry{std::move(fn), priority, pool});
    _timeOfEntry.emplace(id, when);
    if (!_started) {
        _started = true;
        _thread = std::thread([this] { loop(); });
    } else if (first) {
        _wake.notifyAll();
    }
    return id;
}

Timer::Id Timer::scheduleAfter(double seconds, Function0<void> fn, int priority,
                               ThreadPool* pool) {
    auto when = Clock::now() +
                std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    return schedule(when, std::move(fn), priority, pool);
}

bool Timer::cancel(Id id) {
    ScopedLock<Mutex> lock(_mutex);
    auto it = _timeOfEntry.find(id);
    if (it == _timeOfEntry.end()) return false;
    _entries.erase(Key{it->second, id});
    _timeOfEntry.erase(it);
    return true;
}

size_t Timer::pending() const {
    ScopedLock<Mutex> lock(_mutex);
    return _entries.size();
}

void Timer::loop() {
    setThreadName(_name);
    ScopedLock<Mutex> lock(_mutex);
    while (!_stopping) {
        if (_entries.empty()) {
            _wake.wait(lock);
            continue;
        }
        auto first = _entries.begin();
        TimePoint now = Clock::now();
        if (first->first.first > now) {
            _wake.timedWait(lock, std::chrono::duration<double>(first->first.first - now).count());
            continue;
        }
        Entry entry = std::move(first->second);
        _timeOfEntry.erase(first->first.second);
        _entries.erase(first);
        lock.unlock();
        ThreadPool& pool = entry.pool ? *entry.pool : defaultThreadPool();
        pool.post(std::move(entry.fn), entry.priority);
        entry.fn = nullptr;
        lock.lock();
    }
}

Timer& defaultTimer() {
    defaultThreadPool();
    static Timer timer("qor-timer");
    return timer;
}

}  // namespace qor::thread
