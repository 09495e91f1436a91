#pragma once
// Shared ownership for the whole system: aliases of the standard smart pointers, plus the helpers
// callers use on them, and the self-reference pattern of objects that hand out references to
// themselves.

#include <memory>

#include "base/Log.h"

namespace qor {

template <class T>
using SharedPtr = std::shared_ptr<T>;
template <class T>
using WeakSharedPtr = std::weak_ptr<T>;
template <class T, class D = std::default_delete<T>>
using ScopedPtr = std::unique_ptr<T, D>;

template <class T, class U>
SharedPtr<T> dynamic_ptr_cast(const SharedPtr<U>& p) {
    return std::dynamic_pointer_cast<T>(p);
}
template <class T, class U>
SharedPtr<T> static_ptr_cast(const SharedPtr<U>& p) {
    return std::static_pointer_cast<T>(p);
}
template <class T, class U>
SharedPtr<T> const_ptr_cast(const SharedPtr<U>& p) {
    return std::const_pointer_cast<T>(p);
}

// True when p is the only strong owner of its object (and p is not null).
template <class T>
bool unique(const SharedPtr<T>& p) {
    return p && p.use_count() == 1;
}
template <class T>
long useCount(const SharedPtr<T>& p) {
    return p.use_count();
}
// A weak pointer is null when it never pointed anywhere or its object has gone.
template <class T>
bool isNull(const WeakSharedPtr<T>& p) {
    return p.expired();
}

// Base of objects created by a static create() that keep a weak reference to themselves in _selfRef.
// create() calls setupSelfRef once; a second call is a logged assertion "_selfRef.isNull()".
// Thread contract: setupSelfRef runs once, before the object is shared; selfRef() is then safe from
// any thread.
template <class T>
class SelfRef {
public:
    SharedPtr<T> selfRef() const { return _selfRef.lock(); }
    WeakSharedPtr<T> weakSelfRef() const { return _selfRef; }

protected:
    void setupSelfRef(const SharedPtr<T>& self) {
        QOR_ASSERT_TEXT(_selfRef.expired() && !_selfRefSet, "_selfRef.isNull()");
        _selfRef = self;
        _selfRefSet = true;
    }

    WeakSharedPtr<T> _selfRef;

private:
    bool _selfRefSet = false;
};

}  // namespace qor
