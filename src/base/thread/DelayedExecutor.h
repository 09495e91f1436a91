#pragma once
// A debouncer: runs a task some time after the last of a burst of triggers, with an optional upper
// bound on how long a stream of triggers can hold the task back.
//
// Each trigger():
// 1. cancels the pending run, unless the timer has handed it to the pool already: a run that is
//    due but has not started covers the trigger. When a run is active, it only sets a flag, and a
//    further run follows as soon as the active one ends; triggers during one run give one rerun.
// 2. with maxDelay 0, schedules the run `delay` seconds from now.
// 3. with maxDelay > 0 and the stopwatch under maxDelay: the first trigger of a stream starts the
//    stopwatch and schedules at `delay`; a later one schedules at `delay` too, but never later than
//    the rest of maxDelay, i.e. at min(delay, maxDelay - elapsed). So the usual debounce applies
//    inside a stream, and a stream of changes runs the task at the latest maxDelay seconds after
//    its first trigger.
// 4. with the stopwatch past maxDelay (the run came late), it resets the stopwatch and runs at
//    once, unless a run is active.
// The stopwatch is reset whenever a run starts, so the next trigger begins a new stream.
//
// Runs go through the process-wide timer and run on the pool (defaultThreadPool() unless another
// is given) at `priority`; with a pool of zero workers the task runs on the timer's thread. A task
// that ends with an exception is logged and the executor goes on.
//
// Ownership: the executor owns a copy of the task; it does not own the pool, which must outlive it.
//
// Thread contract: every member may be called from any thread, the task included (but see
// runNow() and stop()). One mutex guards the state; the task runs with no lock held, and never
// twice at the same time. The destructor stops.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "base/thread/Mutex.h"
#include "base/thread/Timer.h"
#include "util/Function.h"

namespace qor::thread {

class ThreadPool;

class DelayedExecutor {
public:
    // delay and maxDelay in seconds; maxDelay 0 means no upper bound.
    DelayedExecutor(Function0<void> task, double delay, int priority = 0, double maxDelay = 0.0,
                    ThreadPool* pool = nullptr);
    ~DelayedExecutor();
    DelayedExecutor(const DelayedExecutor&) = delete;
    DelayedExecutor& operator=(const DelayedExecutor&) = delete;

    // Schedules a run as described above. Does not block. After stop() it is ignored.
    void trigger();
    // Cancels the pending run, refuses further triggers and blocks until an active or due run has
    // ended. Called from the task itself it does not wait.
    void stop();
    // When a run is active, waits for its end first. Then, when a run is pending, runs the task at
    // once on the calling thread (or, when the pool has it already, waits for that run) and
    // returns true after it ran; false when nothing was pending. Called from the task itself it
    // logs an assertion and returns false.
    bool runNow();
    // runNow() for shut-down paths that do not care whether anything ran.
    void flush() { runNow(); }

    // A run is scheduled or due and has not started.
    bool isPending() const;
    // The task runs now.
    bool isRunning() const;

    double delay() const { return _state->delay; }
    double maxDelay() const { return _state->maxDelay; }

private:
    using Clock = std::chrono::steady_clock;
    using Token = std::uint64_t;

    // Shared with the runs handed to the timer, so that a late one finds the executor's state.
    struct State : std::enable_shared_from_this<State> {
        State(Function0<void> t, double d, int p, double m, ThreadPool* pl)
            : task(std::move(t)), delay(d), priority(p), maxDelay(m), pool(pl) {}

        Function0<void> task;  // cleared by the destructor once no run can start any more
        const double delay;
        const int priority;
        const double maxDelay;
        ThreadPool* const pool;
        Timer& timer = defaultTimer();

        Mutex mutex;              // guards the fields marked below
        ConditionVariable ended;  // a run ended, or a handed-over run found itself stale
        Token pendingToken QOR_GUARDED_BY(mutex) = 0;  // the pending run, 0 when none
        Token nextToken QOR_GUARDED_BY(mutex) = 1;
        Timer::Id timerId QOR_GUARDED_BY(mutex) = 0;  // the timer entry of the pending run
        // timer entries, not cancelled, whose run has not ended
        int inFlight QOR_GUARDED_BY(mutex) = 0;
        bool running QOR_GUARDED_BY(mutex) = false;
        bool rerun QOR_GUARDED_BY(mutex) = false;  // triggered while running
        bool stopped QOR_GUARDED_BY(mutex) = false;
        std::optional<Clock::time_point> streamStart QOR_GUARDED_BY(mutex);  // the stopwatch

        // Hands a run to the timer, `seconds` from now, as the pending one.
        void scheduleUnlocked(double seconds) QOR_REQUIRES(mutex);
        // The start of a run that the timer handed to the pool.
        void runScheduled(Token token) QOR_EXCLUDES(mutex);
        // Runs the task with no lock held and logs what it throws.
        void execute();
        // Ends a run and, when triggered meanwhile, schedules the next one at once.
        void finishRunUnlocked() QOR_REQUIRES(mutex);
    };

    std::shared_ptr<State> _state;
};

}  // namespace qor::thread
