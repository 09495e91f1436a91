#include "base/Log.h"

#include "base/LogAudit.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>

#include "base/thread/ThreadId.h"

namespace qor {
namespace {

int initialLevel() {
    const char* env = std::getenv("QOR_LOG_LEVEL");
    if (env && *env) return std::atoi(env);
    return LogInfo;
}

struct LogState {
    std::mutex mutex;  // guards file, captures and the writes themselves
    FILE* file = nullptr;
    std::vector<LogCapture*> captures;
    std::atomic<int> threshold{initialLevel()};
    std::atomic<int> captureCount{0};
    std::atomic<bool> toStderr{true};
    std::atomic<size_t> uncapturedAssertions{0};
};

LogState& state() {
    static LogState* s = new LogState;  // never destroyed: logging works during static destruction
    return *s;
}

std::string timestamp() {
    using namespace std::chrono;
    auto now = system_clock::now();
    std::time_t t = system_clock::to_time_t(now);
    int ms = int(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[96];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    return buf;
}

// The innermost ThreadLogDiversion of this thread, or null.
thread_local ThreadLogDiversion* tDiversion = nullptr;

void emit(const char* file, int line, int level, const std::string& text, bool assertion,
          const char* condition) {
    if (!assertion && tDiversion && tDiversion->hold(file, line, level, text)) return;
    LogState& s = state();
    std::string_view path = logSourcePath(file);
    std::lock_guard<std::mutex> lock(s.mutex);
    bool silenced = false;
    if (assertion && s.captures.empty())
        s.uncapturedAssertions.fetch_add(1, std::memory_order_relaxed);
    for (LogCapture* c : s.captures) {
        LogCapture::Entry e;
        e.level = level;
        e.file = std::string(path);
        e.line = line;
        e.text = text;
        e.assertion = assertion;
        if (condition) e.condition = condition;
        c->record(std::move(e));
        silenced = silenced || c->silencing();
    }
    if (silenced || level < s.threshold.load(std::memory_order_relaxed)) return;
    std::string out = timestamp() + " [" + std::to_string(level) + "] T" +
                      std::to_string(thread::getThreadId()) + " " + std::string(path) + ":" +
                      std::to_string(line) + ": " + text + "\n";
    if (s.toStderr.load(std::memory_order_relaxed)) std::fwrite(out.data(), 1, out.size(), stderr);
    if (s.file) {
        std::fwrite(out.data(), 1, out.size(), s.file);
        std::fflush(s.file);
    }
}

}  // namespace

namespace detail {
bool logWanted(int level) {
    LogState& s = state();
    return level >= s.threshold.load(std::memory_order_relaxed) ||
           s.captureCount.load(std::memory_order_relaxed) > 0;
}
}  // namespace detail

std::string_view logSourcePath(const char* file) {
    if (!file) return "?";
    std::string_view p(file);
    size_t at = p.rfind("/src/");
    if (at != std::string_view::npos) return p.substr(at + 5);
    at = p.rfind("/tests/");
    if (at != std::string_view::npos) return p.substr(at + 1);
    return p;
}

void logLine(const char* file, int line, int level, const std::string& text) {
    emit(file, line, level, text, false, nullptr);
}

std::string stackTrace(int skip) {
    void* frames[64];
    int n = backtrace(frames, 64);
    char** symbols = backtrace_symbols(frames, n);
    std::string out;
    for (int i = skip; i < n; ++i) {
        std::string line = symbols ? symbols[i] : "?";
        // "module(mangled+0x12) [0x...]": demangle the part between '(' and '+'.
        size_t open = line.find('('), plus = line.find('+', open == std::string::npos ? 0 : open);
        if (open != std::string::npos && plus != std::string::npos && plus > open + 1) {
            std::string mangled = line.substr(open + 1, plus - open - 1);
            int status = 0;
            char* demangled = abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status);
            if (status == 0 && demangled) line = line.substr(0, open + 1) + demangled + line.substr(plus);
            std::free(demangled);
        }
        out += "    #" + std::to_string(i - skip) + " " + line;
        if (i + 1 < n) out += "\n";
    }
    std::free(symbols);
    return out;
}

void assertionFailed(const char* file, int line, const char* condition, const std::string& message) {
    std::string text = "assertion failed: " + std::string(logSourcePath(file)) + ":" +
                       std::to_string(line) + ": " + (condition ? condition : "");
    if (!message.empty()) text += ": " + message;
    text += "\n" + stackTrace(2);
    emit(file, line, LogError, text, true, condition);
}

size_t uncapturedAssertionCount() {
    return state().uncapturedAssertions.load(std::memory_order_relaxed);
}

void setLogLevel(int minimum) { state().threshold = minimum; }
int logLevel() { return state().threshold; }
void setLogToStderr(bool on) { state().toStderr = on; }

bool setLogFile(const std::string& path) {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.file) std::fclose(s.file);
    s.file = nullptr;
    if (path.empty()) return true;
    s.file = std::fopen(path.c_str(), "a");
    return s.file != nullptr;
}

LogCapture::LogCapture(bool silence) : _silence(silence) {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.captures.push_back(this);
    s.captureCount++;
}

LogCapture::~LogCapture() {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::erase(s.captures, this);
    s.captureCount--;
}

ThreadLogDiversion::ThreadLogDiversion() : _outer(tDiversion) { tDiversion = this; }

ThreadLogDiversion::~ThreadLogDiversion() {
    if (tDiversion == this) tDiversion = _outer;
}

bool ThreadLogDiversion::hold(const char* file, int line, int level, const std::string& text) {
    if (!_holding) return false;
    _held.push_back({file, line, level, text});
    return true;
}

std::string ThreadLogDiversion::firstLine(int minimumLevel) const {
    for (const Held& h : _held)
        if (h.level >= minimumLevel) return h.text;
    return {};
}

void ThreadLogDiversion::release() {
    _holding = false;
    if (tDiversion == this) tDiversion = _outer;
    std::vector<Held> held;
    held.swap(_held);
    for (const Held& h : held) logLine(h.file, h.line, h.level, h.text);
}

void LogCapture::record(Entry entry) { _entries.push_back(std::move(entry)); }

std::vector<LogCapture::Entry> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(state().mutex);
    return _entries;
}

size_t LogCapture::count(std::string_view needle) const {
    std::lock_guard<std::mutex> lock(state().mutex);
    size_t n = 0;
    for (const Entry& e : _entries)
        if (e.text.find(needle) != std::string::npos) ++n;
    return n;
}

size_t LogCapture::assertions() const {
    std::lock_guard<std::mutex> lock(state().mutex);
    size_t n = 0;
    for (const Entry& e : _entries) n += e.assertion;
    return n;
}

size_t LogCapture::assertions(std::string_view condition) const {
    std::lock_guard<std::mutex> lock(state().mutex);
    size_t n = 0;
    for (const Entry& e : _entries) n += e.assertion && e.condition == condition;
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(state().mutex);
    _entries.clear();
}

}  // namespace qor
