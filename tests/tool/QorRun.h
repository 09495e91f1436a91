#pragma once
// Runs the qor program of this build (QOR_TOOL) as a user would and collects what it printed.

#include <sys/wait.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "CodecTestSupport.h"

namespace qor::imageio {

struct QorRun {
    int status = -1;
    std::string out;
    std::vector<std::string> errLines;
};

// Runs the qor program with `args` (which hold no single quotes) and collects what it printed.
inline QorRun runQor(const testing::TempFolder& folder, const std::vector<std::string>& args) {
    const std::string errPath = folder.path() + "/stderr.txt";
    std::string command = "'" QOR_TOOL "'";
    for (const std::string& arg : args) command += " '" + arg + "'";
    command += " 2>'" + errPath + "'";
    QorRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return run;
    char buffer[4096];
    for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        run.out.append(buffer, got);
    const int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    const testing::Bytes errBytes = testing::readFile(errPath);
    std::istringstream err(std::string(errBytes.begin(), errBytes.end()));
    for (std::string line; std::getline(err, line);) run.errLines.push_back(line);
    return run;
}

}  // namespace qor::imageio
