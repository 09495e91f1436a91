#pragma once
// LibraryLock: a path lock (FilesystemScopedLock) shared by every mutable bag copy made under it,
// with functions to run after it has been released.
//
// A writer that changes bags takes one lock (on a bag's path, or on the library folder for a batch
// that touches several bags) and hands it to Library::modifyLockBag for each copy. Each copy
// commits when its last reference goes (Bag::writeunlock) and queues its update notice here with
// onReleased; the notices run when the last holder of the lock lets it go, on that thread, after
// the path lock is released, so that a listener may read the bag or lock it again without a
// deadlock.
//
// Thread contract: shared by pointer; onReleased may be called from any thread (a mutex guards the
// list). The functions run once, on the thread that drops the last reference, with no lock held.

#include <string>
#include <utility>
#include <vector>

#include "base/filesystem/FilesystemScopedLock.h"
#include "base/thread/Mutex.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::mediadb {

class LibraryLock {
public:
    // Blocks until `path` is locked in `mode` (0 shared, 1 exclusive). Throws FilesystemException
    // for an empty path.
    static SharedPtr<LibraryLock> acquire(const std::string& path, int mode = 1);
    // Takes over a lock that the caller holds already (may hold nothing).
    explicit LibraryLock(FilesystemScopedLock lock) : _lock(std::move(lock)) {}
    // Releases the path lock, then runs the queued functions in order; an exception of one is
    // logged and the others still run.
    ~LibraryLock();
    LibraryLock(const LibraryLock&) = delete;
    LibraryLock& operator=(const LibraryLock&) = delete;

    // The normalised locked path.
    const std::string& path() const { return _lock.path(); }
    bool held() const { return _lock.held(); }

    // Queues fn to run after the release.
    void onReleased(Function0<void> fn);

private:
    FilesystemScopedLock _lock;
    thread::Mutex _mutex;                                           // guards _released
    std::vector<Function0<void>> _released QOR_GUARDED_BY(_mutex);  // run by the destructor
};

using LibraryLockPtr = SharedPtr<LibraryLock>;

}  // namespace qor::mediadb
