#pragma once

// Suballocates small blocks from chunks of its parent allocator. A block larger than a chunk gets
// a parent block of its own. Lock and unlock go through to the parent's lock of the chunk (locks
// nest there), so a chunk stays in memory while any of its blocks is locked; free returns the
// range and gives an empty chunk back to the parent.
//
// Ownership: holds its parent by shared pointer; owns its chunks. Thread safe: one mutex guards
// the chunk list and free ranges; parent calls (which may swap) run without it.

#include <atomic>
#include <cstdint>
#include <list>
#include <map>

#include "base/memory/LockableMemoryAllocator.h"
#include "base/thread/Mutex.h"
#include "util/SharedPtr.h"

namespace qor::memory {

class GrowablePoolLockableMemory : public StackedLockableMemoryAllocator {
public:
    // `poolType` 0 is first fit over 16-byte aligned ranges; other values are treated alike.
    GrowablePoolLockableMemory(const SharedPtr<LockableMemoryAllocator>& parent,
                               unsigned chunkSize = 4194304, int poolType = 0);
    ~GrowablePoolLockableMemory() override;

    LockableMemoryHandle* alloc(unsigned size) override;
    void free(LockableMemoryHandle* handle) override;
    void* lock(LockableMemoryHandle* handle, bool readOnly) override;
    void unlock(LockableMemoryHandle* handle) override;
    // The block's share of its chunk's footprint; the parent's footprint for a block of its own;
    // 0 while its chunk was never locked for writing.
    std::size_t memoryFootprint(LockableMemoryHandle* handle) override;

    unsigned chunkSize() const { return _chunkSize; }
    int poolType() const { return _poolType; }
    std::size_t chunkCount() const;

private:
    struct Chunk {
        LockableMemoryHandle* parentHandle = nullptr;
        std::map<std::uint32_t, std::uint32_t> freeRanges;  // offset -> size, coalesced
        std::uint32_t used = 0;
        std::atomic<bool> written{false};
    };
    struct Handle;

    bool carve(Chunk& chunk, std::uint32_t size, std::uint32_t* offset);

    SharedPtr<LockableMemoryAllocator> _parent;
    unsigned _chunkSize;
    int _poolType;
    mutable thread::Mutex _mutex;
    std::list<Chunk> _chunks;  // guarded by _mutex
};

}  // namespace qor::memory
