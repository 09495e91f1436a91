#pragma once
// Runs functions at points of the steady clock by posting them to a thread pool.
//
// One thread, started on the first schedule(), sleeps until the earliest due entry and then posts
// it to the entry's pool at the entry's priority; the function itself runs on that pool (on the
// timer thread only when the pool has no workers). Entries due at the same time go in the order
// scheduled.
//
// Thread contract: every member may be called from any thread, including from a function that the
// timer posted. One mutex guards the entries; functions are posted with no lock held, so the timer
// never calls back into its caller under its own lock. The destructor drops entries not yet due
// and joins the thread.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <thread>
#include <unordered_map>
#include <utility>

#include "base/thread/Mutex.h"
#include "util/Function.h"

namespace qor::thread {

class ThreadPool;

class Timer {
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;
    using Id = std::uint64_t;

    explicit Timer(const char* name = "qor-timer");
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Posts fn to pool (defaultThreadPool() when null) at `priority` once `when` has come; a time
    // in the past posts it at once. Returns an id for cancel(), never 0. Does not block.
    Id schedule(TimePoint when, Function0<void> fn, int priority = 0, ThreadPool* pool = nullptr);
    // As schedule(), `seconds` from now.
    Id scheduleAfter(double seconds, Function0<void> fn, int priority = 0,
                     ThreadPool* pool = nullptr);
    // Removes an entry that has not been posted yet. True if it was removed; false if it was
    // posted already (it may be running or done) or the id is unknown. Does not block.
    bool cancel(Id id);
    // Entries waiting for their time.
    size_t pending() const;

private:
    struct Entry {
        Function0<void> fn;
        int priority = 0;
        ThreadPool* pool = nullptr;
    };
    using Key = std::pair<TimePoint, Id>;

    void loop();

    const char* _name;
    mutable Mutex _mutex;                              // guards everything below but _thread
    ConditionVariable _wake;                           // an earlier entry arrived, or stop
    std::map<Key, Entry> _entries QOR_GUARDED_BY(_mutex);
    std::unordered_map<Id, TimePoint> _timeOfEntry QOR_GUARDED_BY(_mutex);
    Id _nextId QOR_GUARDED_BY(_mutex) = 1;
    bool _stopping QOR_GUARDED_BY(_mutex) = false;
    bool _started QOR_GUARDED_BY(_mutex) = false;
    std::thread _thread;  // written once under _mutex, joined by the destructor
};

// The process-wide timer. Built on first use, after the default thread pool, so that it goes
// before the pool at exit.
Timer& defaultTimer();

}  // namespace qor::thread
