#pragma once
// The tool's subcommands, one function each, and the table that names them with their help.
// Each function returns the process exit status: 0 done, 1 a file failed, 2 bad usage, 130
// interrupted. main.cpp parses the global options (-v, --log, --help) and checks every option
// against the table before a subcommand runs, so a subcommand sees only its own arguments.

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qor::tool {

// Prints "qor: <message>" on standard error and returns 2.
int usageError(const std::string& message);

// Parses a whole decimal number; false for anything else.
bool parseCount(const std::string& text, unsigned long& value);

// Redraws a one-line progress bar on standard error ("[####....]  42% 21/50 <unit>"); `final`
// ends the line. Callers draw it only when standard error is a terminal (progressBarWanted).
void drawProgressBar(unsigned long done, unsigned long total, const char* unit, bool final);
bool progressBarWanted();

// Runs work(i) for every i below `total` on up to eight threads at once (files read in parallel),
// drawing the progress bar on the calling thread when it is wanted, until all are done or `stop`
// (a signal handler's flag) is set: the items under way then finish, no new one starts. Returns
// how many items were done. `work` runs on the worker threads and must be thread-safe.
size_t runOnThreads(size_t total, const std::function<void(size_t)>& work,
                    const volatile std::sig_atomic_t& stop, const char* unit);

using CommandFunction = int (*)(const std::vector<std::string>& args);

// One option of a subcommand, as its help shows it and as main.cpp recognises it.
struct OptionInfo {
    const char* name;   // "--size", "-o"
    const char* value;  // the placeholder of its value ("WxH"); nullptr for a switch
    const char* text;   // what it does, with its range and default
};

// A subcommand: one line for the list, and its help page.
struct CommandInfo {
    const char* name;
    const char* summary;      // one line in 'qor help'
    const char* synopsis;     // the arguments after "qor <name>"
    const char* description;  // what it does and prints, wrapped when shown
    std::span<const OptionInfo> options;
    const char* example;  // one command line
    CommandFunction run;
};

// Every subcommand, in the order 'qor help' lists them.
std::span<const CommandInfo> commands();
const CommandInfo* findCommand(std::string_view name);
const OptionInfo* findOption(const CommandInfo& command, std::string_view name);

// The list of subcommands with the global options, as 'qor help' prints it.
void printOverview(std::FILE* out);
// One subcommand's page, as 'qor help <name>' and 'qor <name> --help' print it.
void printCommandHelp(const CommandInfo& command, std::FILE* out);

int runHelp(const std::vector<std::string>& args);
int runVersion(const std::vector<std::string>& args);
int runJobsDemo(const std::vector<std::string>& args);
int runTilesDemo(const std::vector<std::string>& args);
int runPipelineDemo(const std::vector<std::string>& args);
int runInfo(const std::vector<std::string>& args);
int runThumb(const std::vector<std::string>& args);
int runThumbs(const std::vector<std::string>& args);
int runChecksum(const std::vector<std::string>& args);
int runExport(const std::vector<std::string>& args);
int runGpuInfo(const std::vector<std::string>& args);
int runCache(const std::vector<std::string>& args);
int runLibrary(const std::vector<std::string>& args);
int runLs(const std::vector<std::string>& args);
int runBag(const std::vector<std::string>& args);
int runStars(const std::vector<std::string>& args);
int runImport(const std::vector<std::string>& args);
int runBook(const std::vector<std::string>& args);

}  // namespace qor::tool
