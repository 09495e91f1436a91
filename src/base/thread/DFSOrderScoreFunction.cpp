#include "base/thread/DFSOrderScoreFunction.h"

#include <vector>

namespace qor::thread {

DFSOrderScoreFunction::~DFSOrderScoreFunction() = default;

void DFSOrderScoreFunction::scoreJobs(const std::set<SharedPtr<DependentJob>>& jobs,
                                      ScoredJobs& scored) const {
    std::set<SharedPtr<DependentJob>> visited;
    int counter = 0;
    for (const SharedPtr<DependentJob>& job : jobs)
        if (job && job->isPending() && !visited.count(job)) dfs(job, scored, visited, counter);
}

void DFSOrderScoreFunction::dfs(const SharedPtr<DependentJob>& job, ScoredJobs& scored,
                                std::set<SharedPtr<DependentJob>>& visited, int& score) const {
    if (!job || !job->isPending() || !visited.insert(job).second) return;
    using DepIt = std::set<SharedPtr<DependentJob>>::const_iterator;
    struct Frame {
        const SharedPtr<DependentJob>* job;
        DepIt next;
    };
    std::vector<Frame> stack;
    stack.push_back({&job, job->dependencies().begin()});
    while (!stack.empty()) {
        Frame& top = stack.back();
        const auto& deps = (*top.job)->dependencies();
        if (top.next != deps.end()) {
            const SharedPtr<DependentJob>& dep = *top.next++;
            if (dep && dep->isPending() && visited.insert(dep).second)
                stack.push_back({&dep, dep->dependencies().begin()});
            continue;
        }
        scored.push({++score, *top.job});
        stack.pop_back();
    }
}

}  // namespace qor::thread
