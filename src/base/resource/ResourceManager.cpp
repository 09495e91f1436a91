#include "base/resource/ResourceManager.h"

#include <algorithm>
#include <limits>

#include "base/Log.h"
#include "base/resource/ResourceFSScopedLock.h"

namespace qor {

namespace {

// FNV-1a over the stored name: stable across runs, so a stored hash id names the same resource
// again when the names are added in the same way.
int32_t nameHash(std::string_view text) {
    uint32_t h = 2166136261u;
    for (unsigned char c : text) {
        h ^= c;
        h *= 16777619u;
    }
    return static_cast<int32_t>(h);
}

// Path locks of a change: both paths exclusive, in byte order of their text, which puts a folder
// before the paths below it as the path lock order asks.
struct ChangeLocks {
    FilesystemScopedLock first;
    FilesystemScopedLock second;

    ChangeLocks(const std::string& a, const std::string& b) {
        const std::string& low = std::min(a, b);
        const std::string& high = std::max(a, b);
        first = FilesystemScopedLock(low, FilesystemScopedLock::Exclusive);
        if (high != low) second = FilesystemScopedLock(high, FilesystemScopedLock::Exclusive);
    }
};

}  // namespace

ResourceManager::ResourceManager(SharedPtr<const ResourceNameHandler> handler, IdKind idKind)
    : _handler(handler ? std::move(handler) : std::make_shared<const ResourceNameHandler>()),
      _idKind(idKind) {}

ResourceManager::~ResourceManager() {
    ScopedLock lock(_mutex);
    QOR_ASSERT_TEXT(_locks.empty(), "no ResourceFSScopedLock outlives its manager");
}

ResourceName ResourceManager::nameFromLocalPath(std::string_view path) const {
    return ResourceName::fromLocalPath(_handler, path);
}

ResourceName ResourceManager::nameFromPersistentString(std::string_view text) const {
    return ResourceName::fromPersistentString(_handler, text);
}

bool ResourceManager::ownsID(ResourceID id) const {
    if (id.manager() == this) return true;
    if (id.manager()) {
        QOR_ASSERT_TEXT(false, "id.manager() == this");
        return false;
    }
    return id.id() != -1;
}

int32_t ResourceManager::newNumber(const ResourceName& name) {
    if (_idKind == IdsByIndex) {
        QOR_ASSERT(_nextIndex < std::numeric_limits<int32_t>::max());
        return _nextIndex++;
    }
    int32_t n = nameHash(name.persistentString());
    // -1 is the invalid id; a taken value moves on to the next free one.
    while (n == -1 || _entries.contains(n)) n = static_cast<int32_t>(static_cast<uint32_t>(n) + 1);
    return n;
}

ResourceID ResourceManager::addLocked(const ResourceName& name, int flags) {
    if (name.empty()) {
        QOR_LOG(LogWarning, "ResourceManager: cannot add a resource with an empty name");
        return InvalidResourceID;
    }
    auto known = _byPath.find(name.localPath());
    if (known != _byPath.end()) {
        if (flags & AddOrFind) return ResourceID(known->second, this);
        QOR_LOG(LogInfo, "ResourceManager: '%*' is already a resource", name.localPath());
        return InvalidResourceID;
    }
    const int32_t number = newNumber(name);
    _entries.emplace(number, Entry{name, {}});
    _byPath.emplace(name.localPath(), number);
    return ResourceID(number, this);
}

ResourceID ResourceManager::add(const ResourceName& name, int flags) {
    ScopedLock lock(_mutex);
    return addLocked(name, flags);
}

std::vector<ResourceID> ResourceManager::add(const std::vector<ResourceName>& names, int flags) {
    std::vector<ResourceID> ids;
    ids.reserve(names.size());
    ScopedLock lock(_mutex);
    // One growth of the tables instead of a rehash at every doubling (a library's start adds
    // a hundred thousand names in one batch).
    _entries.reserve(_entries.size() + names.size());
    _byPath.reserve(_byPath.size() + names.size());
    for (const ResourceName& name : names) ids.push_back(addLocked(name, flags));
    return ids;
}

const ResourceManager::Entry* ResourceManager::findEntry(ResourceID id) const {
    if (!ownsID(id)) return nullptr;
    auto it = _entries.find(id.id());
    return it == _entries.end() ? nullptr : &it->second;
}

ResourceManager::Entry* ResourceManager::findEntry(ResourceID id) {
    if (!ownsID(id)) return nullptr;
    auto it = _entries.find(id.id());
    return it == _entries.end() ? nullptr : &it->second;
}

bool ResourceManager::remove(ResourceID id) {
    ResourceName last;
    for (;;) {
        std::string path;
        {
            ScopedLock lock(_mutex);
            const Entry* entry = findEntry(id);
            if (!entry) break;
            path = entry->name.localPath();
        }
        FilesystemScopedLock fileLock(path, FilesystemScopedLock::Exclusive);
        ScopedLock lock(_mutex);
        auto it = _entries.find(id.id());
        if (it == _entries.end() || !ownsID(id)) break;
        // Renamed while this thread waited for the path: lock the new one.
        if (it->second.name.localPath() != path) continue;
        last = std::move(it->second.name);
        _byPath.erase(path);
        _entries.erase(it);
        break;
    }
    if (last.empty()) {
        QOR_LOG(LogWarning, "ResourceManager::remove: %* is not a resource", id);
        return false;
    }
    resourceDeleted.emit(ResourceID(id.id(), this), last);
    return true;
}

bool ResourceManager::rename(ResourceID id, const ResourceName& newName) {
    if (newName.empty()) {
        QOR_LOG(LogWarning, "ResourceManager::rename: empty new name for %*", id);
        return false;
    }
    const std::string& newPath = newName.localPath();
    for (;;) {
        std::string oldPath;
        {
            ScopedLock lock(_mutex);
            const Entry* entry = findEntry(id);
            if (!entry) {
                QOR_LOG(LogWarning, "ResourceManager::rename: %* is not a resource", id);
                return false;
            }
            if (entry->name.localPath() == newPath) return true;
            if (_byPath.contains(newPath)) break;
            oldPath = entry->name.localPath();
        }
        {
            ChangeLocks fileLocks(oldPath, newPath);
            ScopedLock lock(_mutex);
            Entry* entry = findEntry(id);
            if (!entry) {
                QOR_LOG(LogWarning, "ResourceManager::rename: %* was removed meanwhile", id);
                return false;
            }
            // Renamed while this thread waited for the paths: lock the present one.
            if (entry->name.localPath() != oldPath) continue;
            if (_byPath.contains(newPath)) break;
            _byPath.erase(oldPath);
            _byPath.emplace(newPath, id.id());
            entry->name = newName;
            // Every path lock on the old path that is still held belongs to this thread, which
            // holds the old path exclusively; so its locks on the resource move without waiting.
            auto [first, end] = _locks.equal_range(id.id());
            for (auto it = first; it != end; ++it) {
                FilesystemScopedLock& held = it->second->_lock;
                held = FilesystemScopedLock(newPath, held.mode());
            }
        }
        resourceRenamed.emit(ResourceID(id.id(), this), newName);
        return true;
    }
    QOR_LOG(LogWarning, "ResourceManager::rename: '%*' is another resource's name", newPath);
    return false;
}

ResourceID ResourceManager::find(const ResourceName& name) const {
    return findLocalPath(name.localPath());
}

ResourceID ResourceManager::findLocalPath(std::string_view path) const {
    if (path.empty()) return InvalidResourceID;
    const std::string key = _handler->canonicalPath(path);
    ScopedLock lock(_mutex);
    auto it = _byPath.find(key);
    return it == _byPath.end() ? InvalidResourceID : idOf(it->second);
}

bool ResourceManager::contains(ResourceID id) const {
    ScopedLock lock(_mutex);
    return findEntry(id) != nullptr;
}

bool ResourceManager::tryGetName(ResourceID id, ResourceName& out) const {
    ScopedLock lock(_mutex);
    const Entry* entry = findEntry(id);
    if (!entry) return false;
    out = entry->name;
    return true;
}

ResourceName ResourceManager::name(ResourceID id) const {
    ResourceName result;
    if (!tryGetName(id, result)) {
        QOR_LOG(LogInfo, "ResourceManager: %* is not a resource", id);
        throw ResourceDeletedException(formatLog("Resource %* is not known (deleted?)", id));
    }
    return result;
}

size_t ResourceManager::size() const {
    ScopedLock lock(_mutex);
    return _entries.size();
}

std::vector<ResourceID> ResourceManager::ids() const {
    ScopedLock lock(_mutex);
    std::vector<ResourceID> result;
    result.reserve(_entries.size());
    for (const auto& [number, entry] : _entries) result.push_back(idOf(number));
    return result;
}

int ResourceManager::registerPropertyIndex(std::string_view name, const std::type_info& type) {
    ScopedLock lock(_mutex);
    for (size_t i = 0; i < _properties.size(); ++i) {
        if (_properties[i].name != name) continue;
        if (_properties[i].type == std::type_index(type)) return static_cast<int>(i);
        QOR_LOG(LogError, "ResourceManager: property '%*' is registered with another type", name);
        throw ResourceException(
            formatLog("Resource property '%*' is registered with another type", name));
    }
    _properties.push_back(PropertyInfo{std::string(name), std::type_index(type)});
    return static_cast<int>(_properties.size() - 1);
}

int ResourceManager::findPropertyIndex(std::string_view name, const std::type_info& type) const {
    ScopedLock lock(_mutex);
    for (size_t i = 0; i < _properties.size(); ++i) {
        if (_properties[i].name != name) continue;
        checkProperty(static_cast<int>(i), type);
        return static_cast<int>(i);
    }
    QOR_LOG(LogError, "ResourceManager: no property '%*'", name);
    throw ResourceException(formatLog("No resource property '%*'", name));
}

void ResourceManager::checkProperty(int index, const std::type_info& type) const {
    if (index >= 0 && static_cast<size_t>(index) < _properties.size() &&
        _properties[index].type == std::type_index(type))
        return;
    QOR_LOG(LogError, "ResourceManager: property key %* is not a property of this type here",
            index);
    throw ResourceException(
        formatLog("Resource property key %* does not name a property of type %* of this manager",
                  index, type.name()));
}

const std::any* ResourceManager::findValue(ResourceID id, int index,
                                           const std::type_info& type) const {
    checkProperty(index, type);
    const Entry* entry = findEntry(id);
    if (!entry || static_cast<size_t>(index) >= entry->values.size()) return nullptr;
    return &entry->values[index];
}

std::any* ResourceManager::valueSlot(ResourceID id, int index, const std::type_info& type) {
    checkProperty(index, type);
    Entry* entry = findEntry(id);
    if (!entry) return nullptr;
    if (static_cast<size_t>(index) >= entry->values.size()) entry->values.resize(_properties.size());
    return &entry->values[index];
}

void ResourceManager::registerLock(int32_t number, ResourceFSScopedLock* lock) {
    _locks.emplace(number, lock);
}

void ResourceManager::unregisterLock(int32_t number, ResourceFSScopedLock* lock) {
    ScopedLock guard(_mutex);
    auto [first, end] = _locks.equal_range(number);
    for (auto it = first; it != end; ++it) {
        if (it->second == lock) {
            _locks.erase(it);
            return;
        }
    }
    QOR_ASSERT_TEXT(false, "registered ResourceFSScopedLock");
}

}  // namespace qor
