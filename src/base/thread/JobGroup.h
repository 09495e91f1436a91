#pragma once
// JobGroup: a named record of the jobs of one graph, for diagnostics (which request built which
// jobs). createGroup() makes one and logs it at debug level. It keeps ids and labels only, never
// the jobs, so it does not keep a graph alive.
//
// Thread contract: immutable after construction; safe to read from any thread.

#include <cstddef>
#include <map>
#include <set>
#include <vector>

#include "base/thread/DependentJob.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::thread {

class JobGroup {
public:
    // Records `jobs` and every job reachable from them through dependencies.
    JobGroup(const std::set<SharedPtr<DependentJob>>& jobs, FastString<char> name);

    const FastString<char>& name() const { return _name; }
    // Ids of the recorded jobs, ascending.
    const std::vector<DependentJob::JobId>& jobIds() const { return _ids; }
    size_t size() const { return _ids.size(); }
    // Number of recorded jobs per label.
    const std::map<FastString<char>, size_t>& labelCounts() const { return _labelCounts; }
    bool contains(DependentJob::JobId id) const;
    // "Job group '<name>': <n> jobs (<label> <count>, ...)", labels in alphabetical order.
    FastString<char> toString() const;

private:
    FastString<char> _name;
    std::vector<DependentJob::JobId> _ids;
    std::map<FastString<char>, size_t> _labelCounts;
};

// Makes a JobGroup of `jobs` (and what they depend on) under `name` and logs its description at
// level 1. Call it on the thread that built the graph, before the graph runs.
SharedPtr<JobGroup> createGroup(const std::set<SharedPtr<DependentJob>>& jobs,
                                const FastString<char>& name);

}  // namespace qor::thread
