#include "imaging/TileScoreFunctions.h"

#include <algorithm>
#include <vector>

#include "imaging/ImageSource.h"
#include "imaging/ImageSourceJobs.h"

namespace qor::imaging {

using thread::DependentJob;
using JobPtr = SharedPtr<DependentJob>;

namespace {

// The centre of a notify job's tile; (0, 0) for any other job.
GenVec<int, 2> jobCenter(const JobPtr& job) {
    auto* notify = dynamic_cast<const TileNotifyJob*>(job.get());
    if (!notify || !notify->targetImage) return GenVec<int, 2>(0, 0);
    return notify->targetImage->tileLayout().getTileRect(notify->pos.x, notify->pos.y).center();
}

// Squared distance of a job from `center`, in integers.
long long distance(const JobPtr& job, const GenVec<int, 2>& center) {
    const GenVec<int, 2> d = jobCenter(job) - center;
    return (long long)d.x * d.x + (long long)d.y * d.y;
}

void sortByDistance(std::vector<JobPtr>& jobs, const GenVec<int, 2>& center) {
    std::vector<std::pair<long long, JobPtr>> keyed;
    keyed.reserve(jobs.size());
    for (const JobPtr& job : jobs) keyed.emplace_back(distance(job, center), job);
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (size_t i = 0; i < jobs.size(); ++i) jobs[i] = keyed[i].second;
}

std::vector<JobPtr> pendingJobs(const std::set<JobPtr>& jobs) {
    std::vector<JobPtr> out;
    for (const JobPtr& job : jobs)
        if (job && job->isPending()) out.push_back(job);
    return out;
}

}  // namespace

void DFSCenteredScoreFunction::scoreJobs(const std::set<JobPtr>& jobs, ScoredJobs& scored) const {
    std::vector<JobPtr> roots = pendingJobs(jobs);
    sortByDistance(roots, center);
    std::set<JobPtr> visited;
    int counter = 0;
    for (const JobPtr& job : roots) dfs(job, scored, visited, counter);
}

void LineOrderScoreFunction::scoreJobs(const std::set<JobPtr>& jobs, ScoredJobs& scored) const {
    std::vector<std::pair<int, JobPtr>> roots;
    for (const JobPtr& job : pendingJobs(jobs)) {
        auto* notify = dynamic_cast<const TileNotifyJob*>(job.get());
        roots.emplace_back(notify ? notify->pos.y : 0x7FFFFFFF, job);
    }
    std::sort(roots.begin(), roots.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::set<JobPtr> visited;
    int counter = 0;
    for (const auto& root : roots) dfs(root.second, scored, visited, counter);
}

void GeneralCenteredDFSScoreFunction::scoreJobs(const std::set<JobPtr>& jobs,
                                                ScoredJobs& scored) const {
    std::set<JobPtr> targets, visited;
    int counter = 0;
    for (const JobPtr& job : pendingJobs(jobs)) {
        if (visited.count(job)) continue;
        auto* notify = dynamic_cast<const TileNotifyJob*>(job.get());
        if (notify && notify->targetImage == source) {
            targets.insert(job);
        } else {
            dfs_to_target(job, scored, targets, visited, counter);
        }
    }
    std::vector<JobPtr> ordered(targets.begin(), targets.end());
    sortByDistance(ordered, center);
    for (const JobPtr& job : ordered) dfs(job, scored, visited, counter);
}

void GeneralCenteredDFSScoreFunction::dfs_to_target(const JobPtr& job, ScoredJobs& scored,
                                                    std::set<JobPtr>& targets,
                                                    std::set<JobPtr>& visited, int& score) const {
    visited.insert(job);
    ++score;
    scored.push(std::make_pair(score, job));
    for (const JobPtr& dep : job->dependencies()) {
        if (!dep || !dep->isPending() || visited.count(dep)) continue;
        auto* notify = dynamic_cast<const TileNotifyJob*>(dep.get());
        if (notify && notify->targetImage == source) {
            targets.insert(dep);
        } else {
            dfs_to_target(dep, scored, targets, visited, score);
        }
    }
}

}  // namespace qor::imaging
