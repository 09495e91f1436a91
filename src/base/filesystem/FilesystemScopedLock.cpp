#include "base/filesystem/FilesystemScopedLock.h"

#include <unistd.h>

#include <chrono>
#include <map>
#include <thread>

#include "base/filesystem/Path.h"
#include "base/thread/Mutex.h"
#include "text/TextUtils.h"

namespace qor::filesystem {

namespace {

struct Holder {
    uint64_t id;
    int mode;
    std::thread::id owner;
};

// The table of held path locks, keyed by lock key. Waiters sleep on one condition variable and
// re-check after every release.
struct Registry {
    Mutex mutex;
    ConditionVariable released;
    std::multimap<std::string, Holder> held QOR_GUARDED_BY(mutex);
    uint64_t nextId QOR_GUARDED_BY(mutex) = 1;

    static bool blocks(const Holder& h, int mode, std::thread::id self) {
        return h.owner != self &&
               (mode != FilesystemScopedLock::Shared || h.mode != FilesystemScopedLock::Shared);
    }

    // True when a lock held exactly on `key` blocks the request.
    bool blockedAt(const std::string& key, int mode, std::thread::id self) QOR_REQUIRES(mutex) {
        auto [b, e] = held.equal_range(key);
        for (auto it = b; it != e; ++it)
            if (blocks(it->second, mode, self)) return true;
        return false;
    }

    // True when a lock on `key` in `mode` would conflict with a lock of another thread.
    bool conflicts(const std::string& key, int mode, std::thread::id self) QOR_REQUIRES(mutex) {
        // The path itself and each folder above it.
        if (blockedAt(key, mode, self)) return true;
        for (size_t pos = key.find('/', 1); pos != std::string::npos; pos = key.find('/', pos + 1))
            if (blockedAt(key.substr(0, pos), mode, self)) return true;
        if (key.size() > 1 && blockedAt("/", mode, self)) return true;
        // Everything below it: the keys that begin with key + "/".
        std::string prefix = key == "/" ? key : key + "/";
        for (auto it = held.lower_bound(prefix);
             it != held.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
            if (blocks(it->second, mode, self)) return true;
        }
        return false;
    }
};

Registry& registry() {
    // Never destroyed, so locks released from static destructors still find it.
    static Registry* r = new Registry;
    return *r;
}

// Returns the id of the granted lock, or 0 on time-out.
uint64_t acquire(const std::string& key, int mode, double timeoutSeconds) {
    Registry& r = registry();
    const auto self = std::this_thread::get_id();
    const bool forever = timeoutSeconds < 0;
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(forever ? 0.0 : timeoutSeconds));
    ScopedLock<Mutex> lock(r.mutex);
    while (r.conflicts(key, mode, self)) {
        if (forever) {
            r.released.wait(lock);
            continue;
        }
        double left =
            std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) return 0;
        r.released.timedWait(lock, left);
    }
    uint64_t id = r.nextId++;
    r.held.emplace(key, Holder{id, mode, self});
    return id;
}

}  // namespace

std::string FilesystemScopedLock::lockKey(std::string_view path) {
    std::string p = text::urlToLocalPath(path);
    if (p.empty()) throw FilesystemException("Cannot lock an empty path");
    if (p.front() != '/' && p.front() != '\\') {
        std::string cwd(4096, '\0');
        if (::getcwd(cwd.data(), cwd.size())) {
            cwd.resize(cwd.find('\0'));
            p = pathJoin(cwd, p);
        }
    }
    std::string key = normalizePathUnix(p);
    while (key.size() > 1 && key.back() == '/') key.pop_back();
    return key;
}

FilesystemScopedLock::FilesystemScopedLock(std::string_view path, int mode)
    : FilesystemScopedLock(path, mode, -1.0) {}

FilesystemScopedLock::FilesystemScopedLock(std::string_view path, int mode, double timeoutSeconds)
    : _path(lockKey(path)), _mode(mode == Shared ? Shared : Exclusive) {
    _id = acquire(_path, _mode, timeoutSeconds);
}

FilesystemScopedLock::FilesystemScopedLock(FilesystemScopedLock&& other) noexcept
    : _path(std::move(other._path)), _mode(other._mode), _id(other._id) {
    other._id = 0;
}

FilesystemScopedLock& FilesystemScopedLock::operator=(FilesystemScopedLock&& other) noexcept {
    if (this != &other) {
        release();
        _path = std::move(other._path);
        _mode = other._mode;
        _id = other._id;
        other._id = 0;
    }
    return *this;
}

FilesystemScopedLock FilesystemScopedLock::tryLock(std::string_view path, int mode,
                                                   double timeoutSeconds) {
    return FilesystemScopedLock(path, mode, timeoutSeconds < 0 ? 0.0 : timeoutSeconds);
}

void FilesystemScopedLock::release() {
    if (_id == 0) return;
    Registry& r = registry();
    {
        ScopedLock<Mutex> lock(r.mutex);
        auto [b, e] = r.held.equal_range(_path);
        bool found = false;
        for (auto it = b; it != e; ++it) {
            if (it->second.id == _id) {
                r.held.erase(it);
                found = true;
                break;
            }
        }
        QOR_ASSERT_TEXT(found, "lock registered");
    }
    _id = 0;
    r.released.notifyAll();
}

size_t FilesystemScopedLock::heldCount() {
    Registry& r = registry();
    ScopedLock<Mutex> lock(r.mutex);
    return r.held.size();
}

ScopedPtr<FilesystemScopedLock> aquirePathLock(std::string_view path, int mode,
                                               double timeoutSeconds) {
    auto lock = std::make_unique<FilesystemScopedLock>(path, mode, timeoutSeconds);
    if (!lock->held()) return nullptr;
    return lock;
}

}  // namespace qor::filesystem
