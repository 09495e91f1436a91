#pragma once
// FilesystemScopedLock: an in-process reader/writer lock on a path, held for the life of the
// object.
//
// Locks are hierarchical: a lock on a folder covers everything below it. Two locks conflict when
// one path is the other or lies below it, and at least one of them is exclusive. So an exclusive
// lock on "/a" excludes every lock on "/a/b/c" and the other way round, shared locks never exclude
// each other, and siblings ("/a/b" and "/a/c") never conflict. Paths are compared after
// normalisation ("file:" URLs are turned into paths, "/a/b/../c" is "/a/c", a trailing separator
// is ignored, a relative path is taken from the current folder); they are not resolved through
// symbolic links, and the comparison is case-sensitive.
//
// Locks are reentrant per thread: a request never waits for a lock that the requesting thread
// acquired itself, so code holding a folder lock may call helpers that lock a file below it, in
// any mode. The owner is the thread that acquired the lock; moving the object to another thread
// moves the release but not the ownership.
//
// Lock order rules:
// - Between threads, take locks in one global order to avoid deadlock: parent paths before the
//   paths below them, and unrelated paths in byte order of their normalised text. One thread may
//   hold any number of non-overlapping locks; it deadlocks only with another thread that takes
//   overlapping paths in the opposite order.
// - An object's own mutex may be held while taking a path lock (a file source takes its mutex,
//   then the file lock), never the other way round: do not take another mutex while blocking on a
//   path lock that someone could release only after taking that mutex.
// - A path lock serialises file work only inside this process; other processes are not excluded.
//
// There is no fairness between waiters: a steady stream of shared locks can delay an exclusive
// waiter. Thread contract: acquire and release from any thread; one object is not shared between
// threads without outside synchronisation.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "util/SharedPtr.h"

namespace qor::filesystem {

class FilesystemScopedLock {
public:
    enum Mode { Shared = 0, Exclusive = 1 };

    // Holds nothing.
    FilesystemScopedLock() = default;
    // Blocks until the lock is granted. Mode 0 is shared (readers), 1 (or any other value)
    // exclusive (writers). Throws FilesystemException for an empty path.
    explicit FilesystemScopedLock(std::string_view path, int mode = Exclusive);
    // Waits at most timeoutSeconds (a negative value waits for ever); on time-out the object holds
    // nothing (held() is false).
    FilesystemScopedLock(std::string_view path, int mode, double timeoutSeconds);
    ~FilesystemScopedLock() { release(); }

    FilesystemScopedLock(FilesystemScopedLock&& other) noexcept;
    FilesystemScopedLock& operator=(FilesystemScopedLock&& other) noexcept;
    FilesystemScopedLock(const FilesystemScopedLock&) = delete;
    FilesystemScopedLock& operator=(const FilesystemScopedLock&) = delete;

    // The lock if it can be had within timeoutSeconds (0: without waiting); check held().
    static FilesystemScopedLock tryLock(std::string_view path, int mode,
                                        double timeoutSeconds = 0.0);

    // Gives the lock back and wakes the waiters; does nothing when nothing is held.
    void release();

    bool held() const { return _id != 0; }
    explicit operator bool() const { return held(); }
    // The normalised path locked (kept after release).
    const std::string& path() const { return _path; }
    int mode() const { return _mode; }

    // Number of path locks held in the process, for diagnostics and tests.
    static size_t heldCount();
    // The normalised form used to compare lock paths: absolute, no trailing separator.
    static std::string lockKey(std::string_view path);

private:
    std::string _path;
    int _mode = Exclusive;
    uint64_t _id = 0;  // 0 when nothing is held
};

// Takes a path lock and hands it out on the heap, so it can be passed on and released by whoever
// holds it last. Blocks up to timeoutSeconds (negative: for ever) and returns null on time-out.
// Throws FilesystemException for an empty path.
ScopedPtr<FilesystemScopedLock> aquirePathLock(std::string_view path, int mode = 1,
                                               double timeoutSeconds = -1.0);

}  // namespace qor::filesystem

namespace qor {
using filesystem::FilesystemScopedLock;
}  // namespace qor
