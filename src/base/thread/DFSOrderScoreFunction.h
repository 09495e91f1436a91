#pragma once
// DFSOrderScoreFunction: the base order of the job system. A depth-first walk from each root,
// dependencies first, numbers the jobs 1, 2, 3 ... so that a root's whole subgraph is wanted before
// the next root's. Subclasses choose the order of the roots and call dfs() from their scoreJobs.
//
// Thread contract: stateless; as JobScoreFunction.

#include "base/thread/JobScoreFunction.h"

namespace qor::thread {

class DFSOrderScoreFunction : public JobScoreFunction {
public:
    DFSOrderScoreFunction() = default;
    ~DFSOrderScoreFunction() override;

    // For each pending job of `jobs` in set order that is not yet visited, calls dfs() with one
    // visited set and one counter starting at 0.
    void scoreJobs(const std::set<SharedPtr<DependentJob>>& jobs,
                   ScoredJobs& scored) const override;

    // Marks `job` visited, walks its pending, unvisited dependencies in set order the same way,
    // then gives the job ++score and pushes (score, job). Does nothing for a null, visited or
    // non-pending job. The walk keeps its own stack, so a deep chain does not exhaust the thread's
    // stack.
    void dfs(const SharedPtr<DependentJob>& job, ScoredJobs& scored,
             std::set<SharedPtr<DependentJob>>& visited, int& score) const;
};

}  // namespace qor::thread
