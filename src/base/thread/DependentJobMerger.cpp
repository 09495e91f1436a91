#include "base/thread/DependentJobMerger.h"

#include "base/Log.h"

namespace qor::thread {

SharedPtr<DependentJob> DependentJobMerger::find(const SharedPtr<DependentJob>& job) const {
    if (!job) return nullptr;
    auto it = _jobs.find(job);
    return it == _jobs.end() ? nullptr : *it;
}

SharedPtr<DependentJob> DependentJobMerger::merge(const SharedPtr<DependentJob>& job) {
    QOR_ASSERT(job);
    if (!job) return nullptr;
    return *_jobs.insert(job).first;
}

}  // namespace qor::thread
