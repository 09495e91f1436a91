#pragma once
// ResourceFSScopedLock: a path lock (FilesystemScopedLock) on the file or folder of one resource of
// a ResourceManager, held for the life of the object, that follows the resource when it is
// renamed.
//
// Taking the lock reads the resource's path, locks it, and checks that the resource still has
// that path; a rename in between makes it let go and lock the new path. While the lock is held,
// renames and removals of the resource by other threads wait (they take exclusive path locks);
// a rename by the holding thread itself moves this lock to the new path, so path() is always the
// resource's present path.
//
// Thread contract: as FilesystemScopedLock: one object is used by one thread, the one that took
// the lock. The object stays where it was made (it is registered with the manager by address), so
// it can be neither copied nor moved.

#include <string>

#include "base/ResourceID.h"
#include "base/filesystem/FilesystemScopedLock.h"

namespace qor {

class ResourceManager;

class ResourceFSScopedLock {
public:
    // Blocks until the resource's path is locked in `mode` (0 shared, any other value exclusive).
    // Throws ResourceDeletedException when the id is not, or no longer, a resource of the
    // manager, and ResourceException for a null manager.
    ResourceFSScopedLock(ResourceManager* manager, ResourceID id, int mode = 1);
    ~ResourceFSScopedLock();
    ResourceFSScopedLock(const ResourceFSScopedLock&) = delete;
    ResourceFSScopedLock& operator=(const ResourceFSScopedLock&) = delete;

    // The locked path: the resource's local path.
    const std::string& path() const { return _lock.path(); }
    ResourceID id() const { return _id; }
    int mode() const { return _lock.mode(); }
    ResourceManager* manager() const { return _manager; }

private:
    friend class ResourceManager;

    ResourceManager* _manager;
    ResourceID _id;
    // Replaced by ResourceManager::rename on the holding thread, with the manager's mutex held.
    FilesystemScopedLock _lock;
};

}  // namespace qor
