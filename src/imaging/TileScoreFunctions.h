#pragma once
// The orders in which a tile request runs its jobs. Each walks the job graph depth first from
// chosen roots (DFSOrderScoreFunction::dfs), so a root's whole subgraph is wanted before the next
// root's; they differ in the order of the roots:
//   DFSCenteredScoreFunction         tiles nearest a centre first (a view filling from the middle)
//   LineOrderScoreFunction           tiles by row, top first (a saver writing rows)
//   GeneralCenteredDFSScoreFunction  centred on the tiles of one source anywhere in the graph
//
// Thread contract: immutable after construction; scoreJobs runs on the request's thread.

#include <queue>
#include <set>

#include "base/thread/DFSOrderScoreFunction.h"
#include "math/GenVec.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ImageSource;

class DFSCenteredScoreFunction : public thread::DFSOrderScoreFunction {
public:
    explicit DFSCenteredScoreFunction(const GenVec<int, 2>& center) : center(center) {}
    void scoreJobs(const std::set<SharedPtr<thread::DependentJob>>& jobs,
                   ScoredJobs& scored) const override;

    GenVec<int, 2> center;
};

class LineOrderScoreFunction : public thread::DFSOrderScoreFunction {
public:
    LineOrderScoreFunction() = default;
    void scoreJobs(const std::set<SharedPtr<thread::DependentJob>>& jobs,
                   ScoredJobs& scored) const override;
};

class GeneralCenteredDFSScoreFunction : public thread::DFSOrderScoreFunction {
public:
    GeneralCenteredDFSScoreFunction(const SharedPtr<ImageSource>& source,
                                    const GenVec<int, 2>& center)
        : source(source), center(center) {}
    void scoreJobs(const std::set<SharedPtr<thread::DependentJob>>& jobs,
                   ScoredJobs& scored) const override;

    SharedPtr<ImageSource> source;
    GenVec<int, 2> center;

protected:
    // Scores `job` and, depth first, its pending dependencies on the way to the tiles of `source`,
    // which it collects into `targets` instead of scoring them.
    void dfs_to_target(const SharedPtr<thread::DependentJob>& job, ScoredJobs& scored,
                       std::set<SharedPtr<thread::DependentJob>>& targets,
                       std::set<SharedPtr<thread::DependentJob>>& visited, int& score) const;
};

}  // namespace qor::imaging
