#include "base/thread/DelayedExecutor.h"

#include <algorithm>
#include <exception>

#include "base/thread/ThreadPool.h"

namespace qor::thread {

namespace {
// The executor state whose task runs on this thread, to catch stop() and runNow() from inside.
thread_local const void* tCurrentExecutor = nullptr;
}  // namespace

DelayedExecutor::DelayedExecutor(Function0<void> task, double delay, int priority,
                                 double maxDelay, ThreadPool* pool)
    : _state(std::make_shared<State>(std::move(task), std::max(0.0, delay), priority,
                                     std::max(0.0, maxDelay),
                                     pool ? pool : &defaultThreadPool())) {
    QOR_ASSERT(_state->task != nullptr);
}

DelayedExecutor::~DelayedExecutor() {
    stop();
    if (tCurrentExecutor == _state.get()) return;  // the task is still on the stack
    // No run can start any more: let the task's bound state go now, on this thread.
    Function0<void> task;
    ScopedLock<Mutex> lock(_state->mutex);
    task.swap(_state->task);
    lock.unlock();
}

void DelayedExecutor::trigger() {
    State& s = *_state;
    ScopedLock<Mutex> lock(s.mutex);
    if (s.stopped) {
        QOR_LOG(LogDebug, "DelayedExecutor: trigger after stop() ignored");
        return;
    }
    if (s.pendingToken != 0) {
        if (!s.timer.cancel(s.timerId)) return;  // handed to the pool already: it covers this
        --s.inFlight;
        s.pendingToken = 0;
        s.timerId = 0;
    }
    if (s.running) {
        s.rerun = true;
        return;
    }
    double wait = s.delay;
    if (s.maxDelay > 0.0) {
        Clock::time_point now = Clock::now();
        if (!s.streamStart) {
            s.streamStart = now;
        } else {
            double elapsed = std::chrono::duration<double>(now - *s.streamStart).count();
            if (elapsed < s.maxDelay) {
                wait = std::min(s.delay, s.maxDelay - elapsed);
            } else {
                s.streamStart.reset();
                wait = 0.0;
            }
        }
    }
    s.scheduleUnlocked(wait);
}

void DelayedExecutor::stop() {
    State& s = *_state;
    ScopedLock<Mutex> lock(s.mutex);
    s.stopped = true;
    s.rerun = false;
    if (s.pendingToken != 0) {
        if (s.timer.cancel(s.timerId)) --s.inFlight;
        s.pendingToken = 0;  // a run the pool has already finds itself stale
        s.timerId = 0;
    }
    if (tCurrentExecutor == &s) return;
    while (s.running || s.inFlight != 0) s.ended.wait(lock);
}

bool DelayedExecutor::runNow() {
    std::shared_ptr<State> keep = _state;  // the task may destroy this executor
    State& s = *keep;
    if (tCurrentExecutor == &s) {
        QOR_ASSERT_MSG(tCurrentExecutor != &s, "DelayedExecutor: runNow() from its own task");
        return false;
    }
    ScopedLock<Mutex> lock(s.mutex);
    while (s.running) s.ended.wait(lock);
    if (s.pendingToken == 0) return false;
    if (!s.timer.cancel(s.timerId)) {
        // The pool has it: wait until it has run.
        Token token = s.pendingToken;
        while (s.pendingToken == token || s.running) s.ended.wait(lock);
        return true;
    }
    --s.inFlight;
    s.pendingToken = 0;
    s.timerId = 0;
    s.running = true;
    s.streamStart.reset();
    lock.unlock();
    s.execute();
    lock.lock();
    s.finishRunUnlocked();
    return true;
}

bool DelayedExecutor::isPending() const {
    ScopedLock<Mutex> lock(_state->mutex);
    return _state->pendingToken != 0;
}

bool DelayedExecutor::isRunning() const {
    ScopedLock<Mutex> lock(_state->mutex);
    return _state->running;
}

void DelayedExecutor::State::scheduleUnlocked(double seconds) {
    Token token = nextToken++;
    pendingToken = token;
    ++inFlight;
    timerId = timer.scheduleAfter(
        seconds, [self = shared_from_this(), token] { self->runScheduled(token); }, priority,
        pool);
}

void DelayedExecutor::State::runScheduled(Token token) {
    ScopedLock<Mutex> lock(mutex);
    if (token != pendingToken) {  // cancelled by stop() after the timer handed it over
        --inFlight;
        ended.notifyAll();
        return;
    }
    pendingToken = 0;
    timerId = 0;
    running = true;
    streamStart.reset();
    lock.unlock();
    execute();
    lock.lock();
    --inFlight;
    finishRunUnlocked();
}

void DelayedExecutor::State::execute() {
    const void* outer = tCurrentExecutor;
    tCurrentExecutor = this;
    try {
        task();
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "DelayedExecutor: Task terminated with an uncaught exception: %*",
                e.what());
    } catch (...) {
        QOR_LOG(LogError, "DelayedExecutor: Task terminated with an unkonwn uncaught exception");
    }
    tCurrentExecutor = outer;
}

void DelayedExecutor::State::finishRunUnlocked() {
    running = false;
    if (rerun && !stopped) {
        rerun = false;
        scheduleUnlocked(0.0);
    }
    ended.notifyAll();
}

}  // namespace qor::thread
