#pragma once
// ResourceID: names one resource of a ResourceManager by a 32-bit id (a hash of its name or an index)
// and the manager that issued it. InvalidResourceID has the id -1 and no manager.
//
// Comparison: ids of one manager compare by id. An id without a manager compares with any id by the
// id alone, which lets an id rebuilt from a stored number match the issued one. Comparing ids of two
// different managers is a fault: it logs an assertion and then orders by id, then by manager.
// The hash covers the id alone, so that ids that compare equal hash alike.
//
// Thread contract: a plain value; distinct objects may be used on any threads.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>

#include "base/Log.h"

namespace qor {

class ResourceManager;

class ResourceID {
public:
    // The invalid id.
    constexpr ResourceID() = default;
    constexpr ResourceID(int32_t id, ResourceManager* manager) : _id(id), _manager(manager) {}

    // The id: a hash or an index, depending on the manager.
    constexpr int32_t id() const { return _id; }
    constexpr int32_t index() const { return _id; }
    constexpr ResourceManager* manager() const { return _manager; }
    // False only for an id equal to InvalidResourceID (id -1 and no manager).
    constexpr bool isValid() const { return _id != -1 || _manager != nullptr; }

    friend bool operator==(const ResourceID& a, const ResourceID& b) {
        checkManagers(a, b);
        return a._id == b._id && (a._manager == b._manager || !a._manager || !b._manager);
    }
    friend bool operator<(const ResourceID& a, const ResourceID& b) {
        checkManagers(a, b);
        if (a._id != b._id) return a._id < b._id;
        if (!a._manager || !b._manager) return false;
        return std::less<ResourceManager*>()(a._manager, b._manager);
    }
    friend bool operator>(const ResourceID& a, const ResourceID& b) { return b < a; }
    friend bool operator<=(const ResourceID& a, const ResourceID& b) { return !(b < a); }
    friend bool operator>=(const ResourceID& a, const ResourceID& b) { return !(a < b); }

    // Writes "id@manager", or the id alone when there is no manager.
    friend std::ostream& operator<<(std::ostream& out, const ResourceID& r) {
        out << r._id;
        if (r._manager) out << '@' << static_cast<const void*>(r._manager);
        return out;
    }

private:
    static void checkManagers(const ResourceID& a, const ResourceID& b) {
        QOR_ASSERT(a._manager == b._manager || !a._manager || !b._manager);
    }

    int32_t _id = -1;
    ResourceManager* _manager = nullptr;
};

inline constexpr ResourceID InvalidResourceID{-1, nullptr};

}  // namespace qor

template <>
struct std::hash<qor::ResourceID> {
    size_t operator()(const qor::ResourceID& r) const noexcept {
        return std::hash<int32_t>()(r.id());
    }
};
