#pragma once

// The allocator interface of all image memory: blocks named by a handle, with an address only
// while locked.
//
// LockableMemoryHandle is the abstract handle; handles are deleted through it, by the allocator
// that made them. LockableMemoryAllocator is the abstract allocator. Implementations are thread
// safe: any operation may be called from any thread, each handle by one thread at a time for
// free.

#include <cstddef>

namespace qor::memory {

class LockableMemoryHandle {
public:
    virtual ~LockableMemoryHandle() = default;
};

class LockableMemoryAllocator {
public:
    virtual ~LockableMemoryAllocator() = default;
    // A block of `size` bytes, or null on failure. May block (swap-out of other blocks).
    virtual LockableMemoryHandle* alloc(unsigned size) = 0;
    // Destroys the block and deletes the handle.
    virtual void free(LockableMemoryHandle* handle) = 0;
    // The block's address until the matching unlock, or null. A read-only lock of a block never
    // written may fail. May block (swap-in).
    virtual void* lock(LockableMemoryHandle* handle, bool readOnly) = 0;
    virtual void unlock(LockableMemoryHandle* handle) = 0;
    // Bytes that the block counts against memory now.
    virtual std::size_t memoryFootprint(LockableMemoryHandle* handle) = 0;
};

// Base of the handles of allocators that stand on other allocators: the handle of the allocator
// below.
struct StackedMemoryHandle {
    LockableMemoryHandle* _innerHandle = nullptr;
};

// Base of allocators that stand on other allocators.
class StackedLockableMemoryAllocator : public LockableMemoryAllocator {};

}  // namespace qor::memory
