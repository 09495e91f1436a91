#pragma once

// The memory of image pixels: process-wide free functions over one lockable allocator.
//
// The default allocator stack is built on the first call of any function but release and
// setMemoryAllocator: the MemoryManagerInitializer, a ManagedMemoryAllocator, a growable pool of
// 4 MiB chunks over it, and a switched allocator that sends each allocation to one of the two
// (ChooseAllocator). Settings (setMemoryAllocator, setPhysicalMemoryLimit, initSwapDir) belong
// before the first allocation.
//
// A block belongs to the stack that made it: lock, unlock, free and memoryFootprint go to that
// stack, which stays alive while the block does. So a block that outlives release() (or a
// replacement of the allocator) still works and is freed where it came from; release() reports it
// through its assertion, and the memory manager library shuts down when the last such block goes.
//
// Thread contract: every function may be called from any thread; the stack is built and replaced
// under a lock of its own. release() runs at shut-down, when no other thread uses image memory.

#include <cstddef>

#include "imaging/LockableMemoryAllocator.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imaging::ImageMemoryManager {

// A block of `size` bytes from the allocator, or null. May block (swap-out).
LockableMemoryHandle* alloc(unsigned size);
// The following take handles from alloc only (anything else is a logged assertion).
// The address until unlock, or null; may throw std::bad_alloc from a memory handler. May block.
void* lock(LockableMemoryHandle* handle, bool readOnly);
void unlock(LockableMemoryHandle* handle);
void free(LockableMemoryHandle* handle);
std::size_t memoryFootprint(LockableMemoryHandle* handle);

// Sets the limit, the clear level (to the limit) and the relaxed level (limit minus the step,
// unsigned and unguarded), then the library's own limit.
void setPhysicalMemoryLimit(unsigned megabytes);
// The swap directory of the library. Logs a failure and goes on.
void initSwapDir(const FastString<char>& path);
// Replaces the allocator stack; only before the first allocation (asserted).
void setMemoryAllocator(const SharedPtr<LockableMemoryAllocator>& allocator);
// The allocator that image code uses now (builds the default stack if there is none).
SharedPtr<LockableMemoryAllocator> memoryAllocator();

// Drops the stack and the initializer; the memory manager library shuts down if no block is left.
// Afterwards the next call builds a new stack, and setMemoryAllocator is allowed again.
void release();

// Kept for old callers: they do nothing.
void freeUnlocked();
void setFreePhysicalMemorySteps(unsigned steps);

}  // namespace qor::imaging::ImageMemoryManager
