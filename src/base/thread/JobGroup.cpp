#include "base/thread/JobGroup.h"

#include <algorithm>
#include <string>
#include <unordered_set>

#include "base/Log.h"

namespace qor::thread {

JobGroup::JobGroup(const std::set<SharedPtr<DependentJob>>& jobs, FastString<char> name)
    : _name(std::move(name)) {
    std::unordered_set<const DependentJob*> seen;
    std::vector<const DependentJob*> stack;
    for (const SharedPtr<DependentJob>& job : jobs)
        if (job && seen.insert(job.get()).second) stack.push_back(job.get());
    while (!stack.empty()) {
        const DependentJob* job = stack.back();
        stack.pop_back();
        _ids.push_back(job->id());
        ++_labelCounts[job->label()];
        for (const SharedPtr<DependentJob>& dependency : job->dependencies())
            if (dependency && seen.insert(dependency.get()).second)
                stack.push_back(dependency.get());
    }
    std::sort(_ids.begin(), _ids.end());
}

bool JobGroup::contains(DependentJob::JobId id) const {
    return std::binary_search(_ids.begin(), _ids.end(), id);
}

FastString<char> JobGroup::toString() const {
    std::string text = formatLog("Job group '%*': %* jobs", _name, _ids.size());
    if (!_labelCounts.empty()) {
        text += " (";
        bool first = true;
        for (const auto& [label, count] : _labelCounts) {
            if (!first) text += ", ";
            first = false;
            text += formatLog("%* %*", label.empty() ? FastString<char>("?") : label, count);
        }
        text += ")";
    }
    return FastString<char>(std::move(text));
}

SharedPtr<JobGroup> createGroup(const std::set<SharedPtr<DependentJob>>& jobs,
                                const FastString<char>& name) {
    auto group = std::make_shared<JobGroup>(jobs, name);
    QOR_LOG(LogDebug, "%*", group->toString());
    return group;
}

}  // namespace qor::thread
