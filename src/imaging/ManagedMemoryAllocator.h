#pragma once

// The adapter from the lockable allocator interface to the memory manager library: one library
// block per allocation. Before every allocation it clears unlocked blocks down to the present
// clear level, on the allocating thread; a lock that fails runs the NewHandler chain and tries
// again until it succeeds or the chain gives up.
//
// Ownership: holds the MemoryManagerInitializer, so that the library stays up while this lives.
// Thread safe: any operation on any thread (the library is).

#include "base/memory/MemoryManager.h"
#include "imaging/LockableMemoryAllocator.h"
#include "imaging/MemoryManagerInitializer.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ManagedMemoryAllocator : public LockableMemoryAllocator {
public:
    class MemoryHandle : public LockableMemoryHandle {
    public:
        memory::NmHandle _mManagerHandle = 0;
        unsigned _size = 0;  // set once the allocation has succeeded
    };

    // Asserts that the initializer exists.
    ManagedMemoryAllocator();

    // Null on failure (logged with the statistics). Blocks while it swaps out.
    LockableMemoryHandle* alloc(unsigned size) override;
    void free(LockableMemoryHandle* handle) override;
    // Null when a read lock finds a never written block, or when the handlers cannot help; may
    // throw std::bad_alloc from a handler. Blocks while it swaps in.
    void* lock(LockableMemoryHandle* handle, bool readOnly) override;
    void unlock(LockableMemoryHandle* handle) override;
    // size + 12 while resident, 12 otherwise.
    std::size_t memoryFootprint(LockableMemoryHandle* handle) override;

    // Logs the library's statistics.
    static void printStatistics();

private:
    SharedPtr<internal::MemoryManagerInitializer> _initializer;
};

}  // namespace qor::imaging
