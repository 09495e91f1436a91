#pragma once
// Mutex, ScopedLock and ConditionVariable.
//
// ScopedLock knows whether it holds its mutex, so code can open a lock around a slow call and close
// it again; locking twice logs the assertion "!_locked", unlocking twice "_locked".

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/Log.h"
#include "util/ThreadAnnotations.h"

namespace qor::thread {

class QOR_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() QOR_ACQUIRE() { _m.lock(); }
    void unlock() QOR_RELEASE() { _m.unlock(); }
    bool tryLock() QOR_TRY_ACQUIRE(true) { return _m.try_lock(); }
    // For std::lock_guard and friends.
    bool try_lock() QOR_TRY_ACQUIRE(true) { return _m.try_lock(); }

    std::mutex& native() { return _m; }

private:
    std::mutex _m;
};

// A Mutex that knows whether the calling thread holds it. For code that may be asked, from a
// thread that already holds the lock, to try to take it: tryLock on a held std::mutex by its own
// holder is undefined, so such code asks heldByCurrentThread first.
class QOR_CAPABILITY("mutex") OwnedMutex {
public:
    OwnedMutex() = default;
    OwnedMutex(const OwnedMutex&) = delete;
    OwnedMutex& operator=(const OwnedMutex&) = delete;

    void lock() QOR_ACQUIRE() {
        _m.lock();
        _owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    void unlock() QOR_RELEASE() {
        _owner.store(std::thread::id(), std::memory_order_relaxed);
        _m.unlock();
    }
    bool tryLock() QOR_TRY_ACQUIRE(true) {
        if (!_m.try_lock()) return false;
        _owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
        return true;
    }
    bool try_lock() QOR_TRY_ACQUIRE(true) { return tryLock(); }
    // Only the holder ever stores its own id, so a relaxed read answers exactly for this thread.
    bool heldByCurrentThread() const {
        return _owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

private:
    std::mutex _m;
    std::atomic<std::thread::id> _owner{};
};

class QOR_CAPABILITY("mutex") RecursiveMutex {
public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() QOR_ACQUIRE() { _m.lock(); }
    void unlock() QOR_RELEASE() { _m.unlock(); }
    bool tryLock() QOR_TRY_ACQUIRE(true) { return _m.try_lock(); }
    bool try_lock() QOR_TRY_ACQUIRE(true) { return _m.try_lock(); }

private:
    std::recursive_mutex _m;
};

// Holds a mutex for a scope and tracks whether it holds it. Not shared between threads.
template <class M = Mutex>
class QOR_SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(M& m) QOR_ACQUIRE(m) : _mutex(&m) {
        _mutex->lock();
        _locked = true;
    }
    // With lockNow false the lock starts open.
    ScopedLock(M& m, bool lockNow) QOR_ACQUIRE(m) : _mutex(&m) {
        if (lockNow) {
            _mutex->lock();
            _locked = true;
        }
    }
    ~ScopedLock() QOR_RELEASE() {
        if (_locked) _mutex->unlock();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    void lock() QOR_ACQUIRE() {
        QOR_ASSERT(!_locked);
        if (_locked) return;
        _mutex->lock();
        _locked = true;
    }
    void unlock() QOR_RELEASE() {
        QOR_ASSERT(_locked);
        if (!_locked) return;
        _locked = false;
        _mutex->unlock();
    }
    bool tryLock() QOR_TRY_ACQUIRE(true) {
        QOR_ASSERT(!_locked);
        if (_locked) return true;
        _locked = _mutex->tryLock();
        return _locked;
    }
    bool locked() const { return _locked; }
    M& mutex() const { return *_mutex; }

private:
    M* _mutex;
    bool _locked = false;
};

// Opens a held ScopedLock for a scope and closes it again at its end (callbacks, slow calls).
template <class M = Mutex>
class ScopedUnlock {
public:
    explicit ScopedUnlock(ScopedLock<M>& lock) : _lock(lock) { _lock.unlock(); }
    ~ScopedUnlock() { _lock.lock(); }
    ScopedUnlock(const ScopedUnlock&) = delete;
    ScopedUnlock& operator=(const ScopedUnlock&) = delete;

private:
    ScopedLock<M>& _lock;
};

// Waits on a Mutex held through a ScopedLock. Spurious wake-ups happen: wait in a loop on a
// condition.
class ConditionVariable {
public:
    void wait(ScopedLock<Mutex>& lock) {
        std::unique_lock<std::mutex> ul(lock.mutex().native(), std::adopt_lock);
        _cv.wait(ul);
        ul.release();
    }
    // Waits at most `seconds`. Returns false when the time ran out.
    bool timedWait(ScopedLock<Mutex>& lock, double seconds) {
        std::unique_lock<std::mutex> ul(lock.mutex().native(), std::adopt_lock);
        auto status = _cv.wait_for(ul, std::chrono::duration<double>(seconds));
        ul.release();
        return status == std::cv_status::no_timeout;
    }
    template <class Pred>
    void wait(ScopedLock<Mutex>& lock, Pred pred) {
        while (!pred()) wait(lock);
    }
    // Waits until pred holds or `seconds` passed; returns pred().
    template <class Pred>
    bool timedWait(ScopedLock<Mutex>& lock, double seconds, Pred pred) {
        auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        std::unique_lock<std::mutex> ul(lock.mutex().native(), std::adopt_lock);
        bool ok = _cv.wait_until(ul, end, pred);
        ul.release();
        return ok;
    }
    void notifyOne() { _cv.notify_one(); }
    void notifyAll() { _cv.notify_all(); }

private:
    std::condition_variable _cv;
};

}  // namespace qor::thread

namespace qor {
using thread::ConditionVariable;
using thread::Mutex;
using thread::OwnedMutex;
using thread::RecursiveMutex;
using thread::ScopedLock;
using thread::ScopedUnlock;
}  // namespace qor
