#include "base/thread/DispatchedJob.h"

#include <utility>

#include "base/Log.h"
#include "base/thread/JobDispatcher.h"

namespace qor::thread {

namespace {

std::string describe(const std::exception_ptr& e) {
    try {
        std::rethrow_exception(e);
    } catch (const std::exception& ex) {
        return ex.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

DispatchedJob::DispatchedJob(Function0<void> body, JobType target)
    : _target(target), _body(std::move(body)) {}

bool DispatchedJob::finished() const {
    ScopedLock<Mutex> lock(_mutex);
    return _finished;
}

bool DispatchedJob::succeeded() const {
    ScopedLock<Mutex> lock(_mutex);
    return _finished && !_exception;
}

std::exception_ptr DispatchedJob::exception() const {
    ScopedLock<Mutex> lock(_mutex);
    return _exception;
}

void DispatchedJob::rethrowIfFailed() const {
    std::exception_ptr e = exception();
    if (e) std::rethrow_exception(e);
}

void DispatchedJob::run(JobDispatcher& dispatcher) {
    std::exception_ptr thrown;
    try {
        if (_body) _body();
    } catch (...) {
        thrown = std::current_exception();
    }
    _body = nullptr;  // release bound state on the thread that ran it
    if (thrown)
        QOR_LOG(LogError, "dispatched %* job threw: %*", jobTypeName(_target), describe(thrown));
    {
        ScopedLock<Mutex> lock(_mutex);
        _exception = thrown;
        _finished = true;
        _ran.notifyAll();
    }
    dispatcher.wakeGLThread();
}

void DispatchedJob::wait() const {
    ScopedLock<Mutex> lock(_mutex);
    _ran.wait(lock, [this]() QOR_NO_THREAD_SAFETY_ANALYSIS { return _finished; });
}

}  // namespace qor::thread
