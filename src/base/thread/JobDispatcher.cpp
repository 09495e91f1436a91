#include "base/thread/JobDispatcher.h"
#include "base/thread/RunLogged.h"

#include <algorithm>
#include <exception>
#include <thread>

#include "base/Log.h"

namespace qor::thread {

JobDispatcher::JobDispatcher(unsigned workers, const char* name)
    : _pool(std::make_unique<ThreadPool>(workers, name)) {}

JobDispatcher::~JobDispatcher() {
    _pool.reset();  // runs the queued worker jobs, which may still queue GL jobs
    ScopedLock<Mutex> lock(_glMutex);
    QOR_ASSERT_MSG(_glQueue.empty(), "%* GL jobs never ran", _glQueue.size());
}

void JobDispatcher::runGuarded(Function0<void>& fn) {
    runLogged(fn, "JobDispatcher: job");
}

JobDispatcher::Ticket JobDispatcher::dispatch(Function0<void> fn, JobType type, int priority) {
    if (!isValidJobType(type)) {
        QOR_ASSERT_MSG(isValidJobType(type), "job type %*", int(type));
        type = JtWorker;
    }
    Ticket ticket;
    ticket.type = type;
    switch (type) {
        case JtTrivial:
            runGuarded(fn);
            return ticket;
        case JtWorker:
            ticket.id = _pool->post(std::move(fn), priority);
            return ticket;
        case JtGLThread:
            break;
    }
    {
        ScopedLock<Mutex> lock(_glMutex);
        ticket.id = _nextGLId++;
        _glQueue.emplace(GLKey{-priority, ticket.id}, std::move(fn));
        _glPriority.emplace(ticket.id, priority);
        ++_glWakes;
        _glWake.notifyAll();
    }
    _onGLJobsAvailable.emit();
    return ticket;
}

bool JobDispatcher::cancelDispatched(const Ticket& ticket) {
    if (ticket.id == 0) return false;
    if (ticket.type == JtWorker) return _pool->cancel(ticket.id);
    if (ticket.type != JtGLThread) return false;
    Function0<void> dropped;  // destroyed after the lock is released
    ScopedLock<Mutex> lock(_glMutex);
    auto it = _glPriority.find(ticket.id);
    if (it == _glPriority.end()) return false;
    auto queued = _glQueue.find(GLKey{-it->second, ticket.id});
    if (queued != _glQueue.end()) {
        dropped = std::move(queued->second);
        _glQueue.erase(queued);
    }
    _glPriority.erase(it);
    lock.unlock();
    return true;
}

void JobDispatcher::setGLThread() {
    ThreadId self = getThreadId();
    ThreadId before = _glThread.exchange(self, std::memory_order_acq_rel);
    if (before != InvalidThreadId && before != self)
        QOR_LOG(LogInfo, "JobDispatcher: GL thread changes from thread %* to thread %*", before,
                self);
}

unsigned JobDispatcher::processGLJobs() {
    ThreadId self = getThreadId();
    ThreadId expected = InvalidThreadId;
    _glThread.compare_exchange_strong(expected, self, std::memory_order_acq_rel);
    if (!isGLThread()) {
        QOR_ASSERT(isGLThread());
        return 0;
    }
    unsigned ran = 0;
    ScopedLock<Mutex> lock(_glMutex);
    while (!_glQueue.empty()) {
        auto first = _glQueue.begin();
        Function0<void> fn = std::move(first->second);
        _glPriority.erase(first->first.second);
        _glQueue.erase(first);
        lock.unlock();
        runGuarded(fn);
        fn = nullptr;
        ++ran;
        lock.lock();
    }
    return ran;
}

size_t JobDispatcher::pendingGLJobs() const {
    ScopedLock<Mutex> lock(_glMutex);
    return _glQueue.size();
}

void JobDispatcher::wakeGLThread() {
    ScopedLock<Mutex> lock(_glMutex);
    ++_glWakes;
    _glWake.notifyAll();
}

void JobDispatcher::pumpGLJobsUntil(const Function0<bool>& done) {
    if (!isGLThread()) {
        QOR_ASSERT(isGLThread());
        return;
    }
    for (;;) {
        std::uint64_t seen;
        {
            ScopedLock<Mutex> lock(_glMutex);
            seen = _glWakes;
        }
        processGLJobs();
        if (done()) return;
        // Sleep until something was queued or someone woke us after `seen` was read. The timed
        // wait is only a safety net against a waker that forgot wakeGLThread().
        ScopedLock<Mutex> lock(_glMutex);
        while (_glQueue.empty() && _glWakes == seen)
            if (!_glWake.timedWait(lock, 0.1)) break;
    }
}

SharedPtr<DispatchedJob> JobDispatcher::createJob(Function0<void> body, JobType target) {
    SharedPtr<DispatchedJob> job(new DispatchedJob(std::move(body), target));
    dispatch([this, job] { job->run(*this); }, target);
    return job;
}

bool JobDispatcher::waitForJob(const SharedPtr<DispatchedJob>& job) {
    QOR_ASSERT(job);
    if (!job) return false;
    if (isGLThread())
        pumpGLJobsUntil([&job] { return job->finished(); });
    else
        job->wait();
    return job->succeeded();
}

JobDispatcher& defaultJobDispatcher() {
    static JobDispatcher dispatcher(std::max(2u, std::thread::hardware_concurrency()), "qor-jobs");
    return dispatcher;
}

}  // namespace qor::thread
