#include "Commands.h"

namespace qor::tool {

int runJobsDemo(const std::vector<std::string>& args) {
    return usageError("jobs: not available yet");
}

}  // namespace qor::tool
