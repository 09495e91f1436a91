#pragma once

// An allocator that sends each allocation to one of two allocators, as a policy object chooses,
// and every later operation on that handle to the same one.
//
// Ownership: holds both allocators by shared pointer; handles it makes own the inner handle.
// Thread safe as far as the two allocators are.

#include "base/Log.h"
#include "imaging/LockableMemoryAllocator.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

// Whole blocks for sizes that fill their 64 KiB units well, the pool for the rest: returns 2 (the
// second allocator, the pool) when more than a fifth of the block would sit in a partly used
// 64 KiB unit, else 1. Blocks below 64 KiB always go to the pool.
struct ChooseAllocator {
    int operator()(unsigned size) const {
        if (size == 0) return 1;
        return double(size % 65536) / double(size) > 0.2 ? 2 : 1;
    }
};

template <class Choose>
class SwitchedLockableMemoryAllocator : public StackedLockableMemoryAllocator {
public:
    class MemoryHandle : public StackedMemoryHandle, public LockableMemoryHandle {
    public:
        int _pool = 0;  // 1 for the first allocator, 2 for the second
    };

    SwitchedLockableMemoryAllocator(const SharedPtr<LockableMemoryAllocator>& first,
                                    const SharedPtr<LockableMemoryAllocator>& second,
                                    Choose choose = Choose())
        : _first(first), _second(second), _choose(choose) {}

    LockableMemoryHandle* alloc(unsigned size) override {
        auto* handle = new MemoryHandle;
        handle->_pool = _choose(size) == 2 ? 2 : 1;
        handle->_innerHandle = allocatorOf(handle)->alloc(size);
        if (!handle->_innerHandle) {
            delete handle;
            return nullptr;
        }
        return handle;
    }
    void free(LockableMemoryHandle* handle) override {
        MemoryHandle* h = cast(handle);
        if (!h) return;
        allocatorOf(h)->free(h->_innerHandle);
        delete h;
    }
    void* lock(LockableMemoryHandle* handle, bool readOnly) override {
        MemoryHandle* h = cast(handle);
        return h ? allocatorOf(h)->lock(h->_innerHandle, readOnly) : nullptr;
    }
    void unlock(LockableMemoryHandle* handle) override {
        if (MemoryHandle* h = cast(handle)) allocatorOf(h)->unlock(h->_innerHandle);
    }
    std::size_t memoryFootprint(LockableMemoryHandle* handle) override {
        MemoryHandle* h = cast(handle);
        return h ? allocatorOf(h)->memoryFootprint(h->_innerHandle) : 0;
    }

    const SharedPtr<LockableMemoryAllocator>& first() const { return _first; }
    const SharedPtr<LockableMemoryAllocator>& second() const { return _second; }

private:
    static MemoryHandle* cast(LockableMemoryHandle* handle) {
        auto* h = dynamic_cast<MemoryHandle*>(handle);
        QOR_ASSERT(h);
        return h;
    }
    LockableMemoryAllocator* allocatorOf(const MemoryHandle* h) const {
        return h->_pool == 2 ? _second.get() : _first.get();
    }

    SharedPtr<LockableMemoryAllocator> _first;
    SharedPtr<LockableMemoryAllocator> _second;
    Choose _choose;
};

}  // namespace qor::imaging
