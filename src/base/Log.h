#pragma once
// Logging and logged assertions.
//
// logf(file, line, level, format, args...) writes one line; every "%*" in the format takes the next
// argument, written with operator<<. Levels are numbers: 0 trace, 1 debug, 2 info, 3 warning,
// 4 error. Lines go to standard error and, when set, to a log file. Thread-safe: one mutex guards the
// sinks, and a line is never interleaved with another.
//
// A logged assertion writes "assertion failed" with the source path, line, condition and optional
// message, and a stack trace; execution then goes on. It never stops the program.

#include <cstddef>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace qor {

enum LogLevel : int {
    LogTrace = 0,
    LogDebug = 1,
    LogInfo = 2,
    LogWarning = 3,
    LogError = 4,
};

namespace detail {

bool logWanted(int level);

inline void formatLogInto(std::ostringstream& out, std::string_view format) { out << format; }

template <class A, class... Rest>
void formatLogInto(std::ostringstream& out, std::string_view format, const A& first,
                   const Rest&... rest) {
    size_t at = format.find("%*");
    if (at == std::string_view::npos) {
        // More arguments than placeholders: append them so nothing is silently lost.
        out << format << ' ' << first;
        ((out << ' ' << rest), ...);
        return;
    }
    out << format.substr(0, at) << first;
    formatLogInto(out, format.substr(at + 2), rest...);
}

}  // namespace detail

// Replaces each "%*" of format by the next argument. Missing arguments leave "%*" in place.
template <class... Args>
std::string formatLog(std::string_view format, const Args&... args) {
    std::ostringstream out;
    detail::formatLogInto(out, format, args...);
    return out.str();
}

// Writes an already formatted line. Thread-safe.
void logLine(const char* file, int line, int level, const std::string& text);

template <class... Args>
void logf(const char* file, int line, int level, std::string_view format, const Args&... args) {
    if (!detail::logWanted(level)) return;
    logLine(file, line, level, formatLog(format, args...));
}

// The calling thread's stack, one frame a line, without the innermost `skip` frames.
std::string stackTrace(int skip = 1);

// As logf, followed by the stack trace of the calling thread.
template <class... Args>
void log_with_stacktrace(const char* file, int line, int level, std::string_view format,
                         const Args&... args) {
    if (!detail::logWanted(level)) return;
    logLine(file, line, level, formatLog(format, args...) + "\n" + stackTrace(2));
}

// Logs "assertion failed" with the path, line, condition, message and a stack trace. Returns.
void assertionFailed(const char* file, int line, const char* condition, const std::string& message);

// Lines below this level are dropped unless a LogCapture is alive. Default 2, or $QOR_LOG_LEVEL.
void setLogLevel(int minimum);
int logLevel();
// Also write every line to this file (appending); an empty path closes it. False if it can't open.
bool setLogFile(const std::string& path);
void setLogToStderr(bool on);

// The source path as logged: the part below "src/" (e.g. "imaging/ImageTile.cpp").
std::string_view logSourcePath(const char* file);

// Records every line logged, at any level and on any thread, while it lives. For tests. With
// `silence`, recorded lines are kept off standard error and the log file.
class LogCapture {
public:
    struct Entry {
        int level = 0;
        std::string file;
        int line = 0;
        std::string text;
        bool assertion = false;
        std::string condition;  // for an assertion
    };

    explicit LogCapture(bool silence = true);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Entry> entries() const;
    // Number of lines whose text contains `needle`.
    size_t count(std::string_view needle) const;
    bool contains(std::string_view needle) const { return count(needle) > 0; }
    // Number of failed assertions, or of those whose condition is exactly `condition`.
    size_t assertions() const;
    size_t assertions(std::string_view condition) const;
    void clear();

    // Called with the sinks' mutex held.
    void record(Entry entry);
    bool silencing() const { return _silence; }

private:
    bool _silence;
    std::vector<Entry> _entries;  // guarded by the log's sink mutex
};

// Holds back the lines the calling thread logs (assertions excepted) while it lives, from the
// sinks and from LogCapture alike, for a caller that reports the outcome of a piece of work in one
// line of its own: on failure it names the first held line as the cause (firstLine) and drops the
// rest; on success it lets them through (release). Lines of other threads are untouched. Nests:
// the innermost one holds. Not to be shared between threads.
class ThreadLogDiversion {
public:
    ThreadLogDiversion();
    // Drops what is held (release() first to keep it).
    ~ThreadLogDiversion();
    ThreadLogDiversion(const ThreadLogDiversion&) = delete;
    ThreadLogDiversion& operator=(const ThreadLogDiversion&) = delete;

    // The text of the first held line at `minimumLevel` or above; "" when none.
    std::string firstLine(int minimumLevel = LogWarning) const;
    // Logs the held lines as they would have been logged, and holds nothing further.
    void release();

    // Called by the log for each line of the owning thread; false once released.
    bool hold(const char* file, int line, int level, const std::string& text);

private:
    struct Held {
        const char* file;
        int line;
        int level;
        std::string text;
    };
    ThreadLogDiversion* _outer;
    bool _holding = true;
    std::vector<Held> _held;
};

}  // namespace qor

#define QOR_LOG(level, ...) ::qor::logf(__FILE__, __LINE__, (level), __VA_ARGS__)
#define QOR_LOG_STACK(level, ...) ::qor::log_with_stacktrace(__FILE__, __LINE__, (level), __VA_ARGS__)

// Logged assertions: on failure they log and go on.
#define QOR_ASSERT(cond)                                                      \
    do {                                                                      \
        if (!(cond)) ::qor::assertionFailed(__FILE__, __LINE__, #cond, {});   \
    } while (0)
// The same with the condition's text given, where the logged text must differ from the expression.
#define QOR_ASSERT_TEXT(cond, text)                                           \
    do {                                                                      \
        if (!(cond)) ::qor::assertionFailed(__FILE__, __LINE__, (text), {});  \
    } while (0)
// With a message formatted as logf formats.
#define QOR_ASSERT_MSG(cond, ...)                                                               \
    do {                                                                                        \
        if (!(cond))                                                                            \
            ::qor::assertionFailed(__FILE__, __LINE__, #cond, ::qor::formatLog(__VA_ARGS__));   \
    } while (0)
