#include "base/resource/ResourceFSScopedLock.h"

#include "base/Log.h"
#include "base/resource/ResourceManager.h"

namespace qor {

ResourceFSScopedLock::ResourceFSScopedLock(ResourceManager* manager, ResourceID id, int mode)
    : _manager(manager), _id(id) {
    if (!manager) {
        QOR_LOG(LogError, "ResourceFSScopedLock: no manager for %*", id);
        throw ResourceException("ResourceFSScopedLock needs a resource manager");
    }
    _id = ResourceID(id.id(), manager);
    auto deleted = [&] {
        QOR_LOG(LogInfo, "ResourceFSScopedLock: %* is not a resource (deleted?)", id);
        return ResourceDeletedException(formatLog("Resource %* was deleted", id));
    };
    for (;;) {
        std::string path;
        {
            ScopedLock lock(manager->_mutex);
            const ResourceManager::Entry* entry = manager->findEntry(id);
            if (!entry) throw deleted();
            path = entry->name.localPath();
        }
        FilesystemScopedLock fileLock(path, mode);
        ScopedLock lock(manager->_mutex);
        const ResourceManager::Entry* entry = manager->findEntry(id);
        if (!entry) throw deleted();
        // Renamed while this thread waited for the path: lock the present one.
        if (entry->name.localPath() != path) continue;
        _lock = std::move(fileLock);
        manager->registerLock(id.id(), this);
        return;
    }
}

ResourceFSScopedLock::~ResourceFSScopedLock() { _manager->unregisterLock(_id.id(), this); }

}  // namespace qor
