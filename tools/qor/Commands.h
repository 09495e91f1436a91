#pragma once
// The tool's subcommands, one function each. Each returns the process exit status.

#include <string>
#include <vector>

namespace qor::tool {

// Prints "qor: <message>" on standard error and returns 2.
int usageError(const std::string& message);

int runJobsDemo(const std::vector<std::string>& args);

}  // namespace qor::tool
