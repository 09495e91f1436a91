#pragma once
// Runs the qor program of this build (QOR_TOOL) as a user would and collects what it printed.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "CodecTestSupport.h"

extern char** environ;

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

// Starts the qor program with `args` (without the program) in the background, its standard
// output and error into the files `out` and `err`; the process id, or -1 when it did not start.
inline pid_t startQor(const std::vector<std::string>& args, const std::string& out,
                      const std::string& err) {
    std::vector<std::string> all = {QOR_TOOL};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : all) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, QOR_TOOL, &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

}  // namespace qor::imageio
