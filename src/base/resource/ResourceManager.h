#pragma once
// ResourceManager: a table of resources, each a file or folder known by a ResourceName and handed
// out as a ResourceID that stays the same when the resource is renamed. Beside the name it keeps
// typed properties per resource, registered once by name, and signals renames and removals.
//
// Ids: by index (0, 1, 2, ... in the order of adding; an index is never given out again, so a
// stale id never names a newer resource) or by hash (a 32-bit hash of the stored name when the
// resource is added, the next free value on a collision; callers that store only the number
// rebuild the id with makeID).
//
// Files: rename and remove take exclusive path locks (FilesystemScopedLock) on the paths they
// change, so they wait until no other thread holds a ResourceFSScopedLock on the resource; a
// ResourceFSScopedLock taken by the renaming thread itself moves to the new path. A thread that
// holds path locks and renames or removes a resource takes part in the path lock order: two
// threads that each hold one resource's lock and rename the other's deadlock.
//
// Thread contract: every member may be called from any thread at once. One mutex, _mutex, guards
// the tables; it is a leaf: nothing else is locked, no file touched and no callback run while it
// is held, except the function given to modifyProperty. Lock order: path locks first, then
// _mutex. Signals are emitted on the thread that made the change, after the change can be seen
// and with no lock held; changes of one resource on several threads may reach slots in another
// order than they took effect, so a slot that needs the current name asks for it.
// The manager must outlive every ResourceFSScopedLock on it.

#include <any>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/ResourceID.h"
#include "base/resource/ResourceName.h"
#include "base/thread/Mutex.h"
#include "util/Signal.h"

namespace qor {

class ResourceFSScopedLock;

// A registered property of values of type T; valid only with the manager that registered it.
template <class T>
class ResourcePropertyKey {
public:
    ResourcePropertyKey() = default;
    bool isValid() const { return _index >= 0; }
    int index() const { return _index; }

private:
    friend class ResourceManager;
    explicit ResourcePropertyKey(int index) : _index(index) {}
    int _index = -1;
};

class ResourceManager {
public:
    enum IdKind { IdsByIndex = 0, IdsByHash = 1 };
    // Flags of add: with AddNew a name that is already known gives InvalidResourceID; with
    // AddOrFind it gives the id it has.
    enum AddFlags { AddNew = 0, AddOrFind = 1 };

    // A null handler takes the default ResourceNameHandler.
    explicit ResourceManager(SharedPtr<const ResourceNameHandler> handler = nullptr,
                             IdKind idKind = IdsByIndex);
    virtual ~ResourceManager();
    ResourceManager(const ResourceManager&) = delete;
    ResourceManager& operator=(const ResourceManager&) = delete;

    const SharedPtr<const ResourceNameHandler>& nameHandler() const { return _handler; }
    IdKind idKind() const { return _idKind; }

    // Names under this manager's handler. Throw ResourceException for empty text.
    ResourceName nameFromLocalPath(std::string_view path) const;
    ResourceName nameFromPersistentString(std::string_view text) const;

    // Adds one resource; see AddFlags. The empty name gives InvalidResourceID.
    ResourceID add(const ResourceName& name, int flags = AddNew);
    // Adds a batch under one lock; the result has one id per name, in order.
    std::vector<ResourceID> add(const std::vector<ResourceName>& names, int flags = AddNew);
    // Removes a resource and its properties; emits resourceDeleted with its last name. Blocks on
    // the exclusive path lock of its path. False (and a log line) when the id is unknown.
    bool remove(ResourceID id);
    // Gives a resource a new name; the id and the properties stay. Emits resourceRenamed.
    // Blocks on the exclusive path locks of the old and the new path. False (and a log line) when
    // the id is unknown or another resource has the new name; renaming to the present name does
    // nothing and returns true.
    bool rename(ResourceID id, const ResourceName& newName);

    // InvalidResourceID when the name is unknown.
    ResourceID find(const ResourceName& name) const;
    ResourceID findLocalPath(std::string_view path) const;
    bool contains(ResourceID id) const;
    // The present name. Throws ResourceDeletedException when the id is unknown.
    ResourceName name(ResourceID id) const;
    // The same without throwing: false when the id is unknown.
    bool tryGetName(ResourceID id, ResourceName& out) const;
    std::string localPath(ResourceID id) const { return name(id).localPath(); }
    std::string persistentString(ResourceID id) const { return name(id).persistentString(); }

    size_t size() const;
    // All ids, in no particular order.
    std::vector<ResourceID> ids() const;
    // The id of this manager with the given number, known or not (an id rebuilt from a stored
    // number).
    ResourceID makeID(int32_t number) { return ResourceID(number, this); }

    // Registers a property by name and gives its key; registering the same name with the same
    // type again gives the same key. Throws ResourceException when the name is registered with
    // another type.
    template <class T>
    ResourcePropertyKey<T> registerProperty(std::string_view name) {
        return ResourcePropertyKey<T>(registerPropertyIndex(name, typeid(T)));
    }
    // The key of a registered property. Throws ResourceException when the name is unknown or has
    // another type.
    template <class T>
    ResourcePropertyKey<T> propertyKey(std::string_view name) const {
        return ResourcePropertyKey<T>(findPropertyIndex(name, typeid(T)));
    }

    // Copies the value into `out`; false when the resource is unknown or the value is not set.
    // Throws ResourceException for a key that is not this manager's property of type T.
    template <class T>
    bool getProperty(ResourceID id, ResourcePropertyKey<T> key, T& out) const {
        ScopedLock lock(_mutex);
        const std::any* slot = findValue(id, key.index(), typeid(T));
        if (!slot || !slot->has_value()) return false;
        out = *std::any_cast<T>(slot);
        return true;
    }
    // The value, or `fallback` when the resource is unknown or the value is not set.
    template <class T>
    T property(ResourceID id, ResourcePropertyKey<T> key, T fallback = T()) const {
        getProperty(id, key, fallback);
        return fallback;
    }
    // Sets the value; false when the resource is unknown.
    template <class T>
    bool setProperty(ResourceID id, ResourcePropertyKey<T> key, T value) {
        ScopedLock lock(_mutex);
        std::any* slot = valueSlot(id, key.index(), typeid(T));
        if (!slot) return false;
        *slot = std::move(value);
        return true;
    }
    // Unsets the value; false when the resource is unknown.
    template <class T>
    bool clearProperty(ResourceID id, ResourcePropertyKey<T> key) {
        ScopedLock lock(_mutex);
        std::any* slot = valueSlot(id, key.index(), typeid(T));
        if (!slot) return false;
        slot->reset();
        return true;
    }
    // Read, change and write back a value in one step: calls fn(T&) on the value (a value that is
    // not set starts as T()) with the manager's mutex held, so fn must be short and must not call
    // the manager. False when the resource is unknown.
    template <class T, class Fn>
    bool modifyProperty(ResourceID id, ResourcePropertyKey<T> key, Fn&& fn) {
        ScopedLock lock(_mutex);
        std::any* slot = valueSlot(id, key.index(), typeid(T));
        if (!slot) return false;
        if (!slot->has_value()) *slot = T();
        fn(*std::any_cast<T>(slot));
        return true;
    }

    // After a rename, with the new name.
    Signal2<ResourceID, ResourceName> resourceRenamed;
    // After a removal, with the last name.
    Signal2<ResourceID, ResourceName> resourceDeleted;

private:
    friend class ResourceFSScopedLock;

    struct Entry {
        ResourceName name;
        std::vector<std::any> values;  // by property index; grown on first write
    };
    struct PropertyInfo {
        std::string name;
        std::type_index type;
    };

    ResourceID idOf(int32_t number) const {
        return ResourceID(number, const_cast<ResourceManager*>(this));
    }
    bool ownsID(ResourceID id) const;
    ResourceID addLocked(const ResourceName& name, int flags) QOR_REQUIRES(_mutex);
    int32_t newNumber(const ResourceName& name) QOR_REQUIRES(_mutex);
    const Entry* findEntry(ResourceID id) const QOR_REQUIRES(_mutex);
    Entry* findEntry(ResourceID id) QOR_REQUIRES(_mutex);

    int registerPropertyIndex(std::string_view name, const std::type_info& type);
    int findPropertyIndex(std::string_view name, const std::type_info& type) const;
    void checkProperty(int index, const std::type_info& type) const QOR_REQUIRES(_mutex);
    const std::any* findValue(ResourceID id, int index, const std::type_info& type) const
        QOR_REQUIRES(_mutex);
    std::any* valueSlot(ResourceID id, int index, const std::type_info& type)
        QOR_REQUIRES(_mutex);

    // For ResourceFSScopedLock: registration of the locks held on a resource, so that a rename
    // on the holding thread can move them.
    void registerLock(int32_t number, ResourceFSScopedLock* lock) QOR_REQUIRES(_mutex);
    void unregisterLock(int32_t number, ResourceFSScopedLock* lock);

    const SharedPtr<const ResourceNameHandler> _handler;
    const IdKind _idKind;

    mutable Mutex _mutex;  // guards everything below
    std::unordered_map<int32_t, Entry> _entries QOR_GUARDED_BY(_mutex);   // by id number
    std::unordered_map<std::string, int32_t> _byPath QOR_GUARDED_BY(_mutex);  // local path -> id
    int32_t _nextIndex QOR_GUARDED_BY(_mutex) = 0;
    std::vector<PropertyInfo> _properties QOR_GUARDED_BY(_mutex);
    std::unordered_multimap<int32_t, ResourceFSScopedLock*> _locks QOR_GUARDED_BY(_mutex);
};

}  // namespace qor
