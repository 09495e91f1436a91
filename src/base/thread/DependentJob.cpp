#include "base/thread/DependentJob.h"

#include <utility>

#include "base/Log.h"

namespace qor::thread {

namespace {

DependentJob::JobId nextJobId() {
    static std::atomic<DependentJob::JobId> counter{0};
    return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

FastString<char> creatorOf(const DependentJob& job) { return job.creatorName(); }

}  // namespace

const char* jobStateName(JobState state) {
    switch (state) {
        case JsPending:
            return "pending";
        case JsRunning:
            return "running";
        case JsFinished:
            return "finished";
        case JsFailed:
            return "failed";
        case JsCancelled:
            return "cancelled";
        case JsSkipped:
            return "skipped";
    }
    return "invalid";
}

DependentJob::DependentJob(FastString<char> label) : _id(nextJobId()), _label(std::move(label)) {}

DependentJob::DependentJob(const DependentJob& other)
    : _id(nextJobId()), _label(other._label), _creatorName(creatorOf(other)) {}

DependentJob::~DependentJob() = default;

unsigned int DependentJob::memoryConsumption() const { return 0; }

FastString<char> DependentJob::toString() const {
    return FastString<char>(formatLog("%* (jobId:%*)", _label, _id));
}

bool DependentJob::failed() const { return _threw.load(std::memory_order_acquire); }

void DependentJob::dropResults() {}

void DependentJob::setCreatorName(FastString<char> name) {
    ScopedLock<Mutex> lock(_mutex);
    _creatorName = std::move(name);
}

FastString<char> DependentJob::creatorName() const {
    ScopedLock<Mutex> lock(_mutex);
    return _creatorName;
}

void DependentJob::addDependency(const SharedPtr<DependentJob>& dependency) {
    QOR_ASSERT(dependency);
    QOR_ASSERT_TEXT(dependency.get() != this, "dependency.get() != this");
    QOR_ASSERT_TEXT(isPending(), "isPending()");
    if (!dependency || dependency.get() == this) return;
    _dependencies.insert(dependency);
}

std::exception_ptr DependentJob::exception() const {
    ScopedLock<Mutex> lock(_mutex);
    return _exception;
}

bool DependentJob::leavePending(JobState state) {
    JobState expected = JsPending;
    return _state.compare_exchange_strong(expected, state, std::memory_order_acq_rel);
}

void DependentJob::setException(std::exception_ptr e) {
    ScopedLock<Mutex> lock(_mutex);
    _threw.store(e != nullptr, std::memory_order_release);
    _exception = std::move(e);
}

}  // namespace qor::thread
