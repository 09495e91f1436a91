#pragma once
// JobScoreFunction: decides the order in which an executor starts the ready jobs of a graph.
//
// scoreJobs pushes (score, job) pairs into `scored`; a lower score means wanted earlier. The
// executor scores a graph once, before it runs it, so the order is fixed for the run; a job becomes
// eligible only when its dependencies have finished, whatever its score. Jobs of the graph that get
// no score start after all scored ones. If a job is pushed more than once its lowest score counts.
//
// Thread contract: scoreJobs is const and is called on the thread that calls process(); an
// implementation must not change the jobs.

#include <queue>
#include <set>
#include <utility>

#include "base/thread/DependentJob.h"

namespace qor::thread {

class JobScoreFunction {
public:
    using ScoredJobs = std::priority_queue<std::pair<int, SharedPtr<DependentJob>>>;

    virtual ~JobScoreFunction();

    virtual void scoreJobs(const std::set<SharedPtr<DependentJob>>& jobs,
                           ScoredJobs& scored) const = 0;
};

}  // namespace qor::thread
