#pragma once
// DependentJobMerger: finds equal work while a job graph is built, so that two requests for the
// same result share one job. Two jobs are equal when compare() gives 0.
//
// Ownership: holds the jobs it has seen strongly until it is cleared or destroyed.
// Thread contract: not thread-safe; it is used by one thread at a time (under the lock of whoever
// builds the graph).

#include <cstddef>
#include <set>

#include "base/thread/DependentJob.h"

namespace qor::thread {

class DependentJobMerger {
public:
    DependentJobMerger() = default;
    DependentJobMerger(const DependentJobMerger&) = delete;
    DependentJobMerger& operator=(const DependentJobMerger&) = delete;

    // The known job equal to `job`, or null. A null `job` gives null.
    SharedPtr<DependentJob> find(const SharedPtr<DependentJob>& job) const;
    // The known job equal to `job` if there is one; otherwise records `job` and returns it.
    // A null `job` is a logged assertion and gives null.
    SharedPtr<DependentJob> merge(const SharedPtr<DependentJob>& job);

    size_t size() const { return _jobs.size(); }
    void clear() { _jobs.clear(); }

private:
    struct ByIdentity {
        bool operator()(const SharedPtr<DependentJob>& a, const SharedPtr<DependentJob>& b) const {
            return a->compare(*b) < 0;
        }
    };

    std::set<SharedPtr<DependentJob>, ByIdentity> _jobs;
};

}  // namespace qor::thread
