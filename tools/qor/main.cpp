// qor: the command-line tool over libqor.
// Usage: qor [-v | -vv] [--log FILE] [--image-log DIR] <subcommand> [arguments]. Bad input gives
// one line on standard error and exit status 2.
//
// main parses the global options wherever they stand, answers --help for every subcommand from the
// table in Help.cpp, rejects options the table does not list for the subcommand, and sets up the
// library's log before the subcommand runs: the log stays off standard error unless -v or
// QOR_LOG_LEVEL asks for it, so that a subcommand prints only its results and one line per error.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Commands.h"
#include "base/Log.h"
#include "imaging/ImageLog.h"

namespace qor::tool {

int usageError(const std::string& message) {
    std::fprintf(stderr, "qor: %s\n", message.c_str());
    return 2;
}

bool parseCount(const std::string& text, unsigned long& value) {
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && ptr == end && !text.empty();
}

bool progressBarWanted() { return isatty(STDERR_FILENO) != 0; }

void drawProgressBar(unsigned long done, unsigned long total, const char* unit, bool final) {
    constexpr int kWidth = 40;
    const double fraction = total ? double(done) / double(total) : 1.0;
    const int filled = int(fraction * kWidth);
    std::fprintf(stderr, "\r[%s%s] %3d%% %lu/%lu %s%s", std::string(size_t(filled), '#').c_str(),
                 std::string(size_t(kWidth - filled), '.').c_str(), int(fraction * 100.0), done,
                 total, unit, final ? "\n" : "");
    std::fflush(stderr);
}

size_t runOnThreads(size_t total, const std::function<void(size_t)>& work,
                    const volatile std::sig_atomic_t& stop, const char* unit) {
    std::atomic<size_t> next{0}, done{0};
    const unsigned threadCount = std::clamp(std::thread::hardware_concurrency(), 1u, 8u);
    std::mutex mutex;
    std::condition_variable ended;   // a thread has run out of items
    unsigned running = threadCount;  // guarded by mutex
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < threadCount; ++t) {
        threads.emplace_back([&] {
            for (size_t i; !stop && (i = next++) < total; ++done) work(i);
            std::lock_guard<std::mutex> lock(mutex);
            --running;
            ended.notify_all();
        });
    }
    const bool bar = progressBarWanted();
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (size_t drawn = ~size_t(0); running > 0;) {
            ended.wait_for(lock, std::chrono::milliseconds(100));
            if (bar && done != drawn) drawProgressBar(drawn = done, total, unit, false);
        }
    }
    for (std::thread& t : threads) t.join();
    if (bar) drawProgressBar(done, total, unit, true);
    return done;
}

}  // namespace qor::tool

namespace {

using qor::tool::CommandInfo;
using qor::tool::usageError;

struct GlobalOptions {
    int verbosity = 0;    // the number of v's in -v, -vv, -vvv
    std::string logFile;  // --log
    std::string imageLog;  // --image-log: the folder the engine's pictures are dumped into
    bool help = false;    // -h, --help
};

// The number of v's of "-v", "-vv", ...; 0 for anything else.
int verbosityOf(const std::string& arg) {
    if (arg.size() < 2 || arg[0] != '-') return 0;
    return arg.find_first_not_of('v', 1) == std::string::npos ? int(arg.size() - 1) : 0;
}

// Where the library's log goes. Standard error only with -v or QOR_LOG_LEVEL (which the log
// reads itself); --log FILE adds the file. With neither, the level is raised past every line so
// that none is formatted. Returns 0, or 1 after one line when FILE cannot be opened.
int setUpLog(const GlobalOptions& options) {
    const char* env = std::getenv("QOR_LOG_LEVEL");
    const bool fromEnvironment = env && *env;
    if (options.verbosity > 0)
        qor::setLogLevel(std::max(int(qor::LogInfo) - (options.verbosity - 1), int(qor::LogTrace)));
    qor::setLogToStderr(options.verbosity > 0 || fromEnvironment);
    if (!options.logFile.empty() && !qor::setLogFile(options.logFile)) {
        std::fprintf(stderr, "qor: cannot open the log file '%s': %s\n", options.logFile.c_str(),
                     std::strerror(errno));
        return 1;
    }
    if (options.verbosity == 0 && !fromEnvironment && options.logFile.empty())
        qor::setLogLevel(qor::LogError + 1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    GlobalOptions global;
    const CommandInfo* command = nullptr;
    std::vector<std::string> args;  // the subcommand's own arguments
    std::string unknown;            // the first option the subcommand does not know
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        // An option's value is passed on as it stands, even when it looks like an option.
        if (const qor::tool::OptionInfo* option = command ? findOption(*command, arg) : nullptr;
            option && option->value) {
            args.push_back(arg);
            if (i + 1 < argc) args.push_back(argv[++i]);
            continue;
        }
        if (const int v = verbosityOf(arg)) {
            global.verbosity += v;
        } else if (arg == "--log" || arg.starts_with("--log=")) {
            if (arg == "--log" && i + 1 >= argc) return usageError("--log needs a file name");
            global.logFile = arg == "--log" ? argv[++i] : arg.substr(6);
            if (global.logFile.empty()) return usageError("--log needs a file name");
        } else if (arg == "--image-log" || arg.starts_with("--image-log=")) {
            if (arg == "--image-log" && i + 1 >= argc)
                return usageError("--image-log needs a folder");
            global.imageLog = arg == "--image-log" ? argv[++i] : arg.substr(12);
            if (global.imageLog.empty()) return usageError("--image-log needs a folder");
        } else if (arg == "-h" || arg == "--help") {
            global.help = true;
        } else if (!command) {
            if (arg == "--version") arg = "version";
            if (arg.starts_with("-"))
                return usageError("unknown option '" + arg + "' (try 'qor help')");
            command = qor::tool::findCommand(arg);
            if (!command) return usageError("unknown subcommand '" + arg + "' (try 'qor help')");
        } else {
            if (arg.size() > 1 && arg[0] == '-' && !findOption(*command, arg) && unknown.empty())
                unknown = arg;
            args.push_back(arg);
        }
    }
    if (global.help) {
        if (command)
            qor::tool::printCommandHelp(*command, stdout);
        else
            qor::tool::printOverview(stdout);
        return 0;
    }
    if (!command) return usageError("missing subcommand (try 'qor help')");
    if (!unknown.empty())
        return usageError(std::string(command->name) + ": unknown option '" + unknown +
                          "' (try 'qor " + command->name + " --help')");
    if (const int status = setUpLog(global)) return status;
    if (!global.imageLog.empty() && !qor::imaging::ImageLog::start(global.imageLog)) {
        std::fprintf(stderr, "qor: cannot dump pictures into '%s' (see the log with -v)\n",
                     global.imageLog.c_str());
        return 1;
    }
    const int status = command->run(args);
    qor::imaging::ImageLog::stop();
    return status;
}
