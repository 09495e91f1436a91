#pragma once

// Swappable lockable memory blocks ("nm" functions).
//
// A block is allocated by size and named by a handle. It has an address only while it is locked.
// Blocks live in process memory; when the resident total passes the physical memory limit, or when
// nmClearUnlocked asks for it, unlocked blocks are written to the process's swap file, least
// recently used first, and their memory is freed. Locking a swapped block reads it back.
//
// Storage: one swap file per process under the swap path, made when the first block is written
// out. It has no name (O_TMPFILE; where the file system has none, "qor-swap-<pid>.swp" unlinked at
// once), so it goes with the process however the process ends. A block keeps its slot in the file
// from its first swap-out to nmFree, so a block that was only read since it came back is dropped
// again without a write. Freed slots are reused (best fit, no coalescing). The file is closed at
// nmRelease. Named files that older versions left ("qor-swap-<pid>.swp" of a process that no
// longer runs, or whose flock is free) are removed by nmSetSwapPath.
//
// Memory: small blocks come from the heap; blocks from 256 KiB on are mapped on their own (from
// 2 MiB on with transparent huge pages), so that a swap-out gives their pages back to the system.
// A few freed mappings of each size (32 MiB at most in all, not counted against the limit) are
// kept for the next block of that size instead of being unmapped; nmRelease gives them back.
//
// Thread contract: every function may be called from any thread. One mutex guards the table of
// blocks; it is never held during file I/O or while block memory is allocated or freed. The kept
// mappings have a leaf mutex of their own. A thread
// that locks or frees a block which another thread is writing out or reading in waits until that
// transfer ends. nmRelease and nmSetSwapPath must not run while other threads use blocks.

#include <cstdint>
#include <string>

namespace qor::memory {

// Opaque handle of a block; 0 is never a valid handle.
using NmHandle = std::uint64_t;

// Status codes. 0 is success; nmStatus reports the state of a block with the three state values.
enum NmStatus : int {
    NM_OK = 0,
    NM_INVALID_HANDLE = 1,    // no such block
    NM_OUT_OF_MEMORY = 2,     // the block's memory could not be allocated
    NM_IO_ERROR = 3,          // the swap file could not be opened, written or read
    NM_NOT_LOCKED = 4,        // unlock of a block that is not locked
    NM_OBJECT_CLEARED = 5,    // state: never written, no content yet (a read lock fails with it)
    NM_OBJECT_LOCKED = 6,     // free of a block that is still locked
    NM_OBJECT_SWAPPED = 7,    // state: content lives in the swap file only
    NM_OBJECT_RESIDENT = 8,   // state: content lives in process memory
    NM_INVALID_ARGUMENT = 9,  // bad size, mode or path
    NM_BUSY = 10,             // swap path change while blocks are swapped out or in transfer
};

enum NmLockMode : int {
    NM_LOCK_READ = 1,
    NM_LOCK_WRITE = 2,
};

// Counters of the library. The first eight fields are in the order the statistics are printed.
struct NmStatistic {
    std::uint32_t memoryObjectCount = 0;  // live blocks
    std::uint32_t cacheFileCount = 0;     // open swap files (0 or 1)
    std::uint32_t pageSize = 0;           // granularity of swap slots, bytes
    std::uint32_t memoryLimit = 0;        // physical memory limit, megabytes
    std::uint64_t memoryAllocated = 0;    // bytes of block memory resident in the process
    std::uint64_t discAllocated = 0;      // bytes of blocks whose content lives only on disk
    std::uint64_t readOperations = 0;     // swap-ins
    std::uint64_t writeOperations = 0;    // swap-outs that wrote to the file
    std::uint64_t lockedBytes = 0;        // bytes of blocks locked now
    std::uint64_t swapFileBytes = 0;      // size of the swap file, slack and free slots included
    std::uint64_t droppedClean = 0;       // swap-outs that needed no write (unchanged since read)
};

// Allocates a block of `size` bytes in the NM_OBJECT_CLEARED state; memory is taken at the first
// write lock. `flags` and `reserved` must be 0. `name` is the caller's tag; it is not stored.
// Returns NM_INVALID_ARGUMENT for a size of 0. Does not block on I/O.
int nmAlloc(std::uint64_t size, int flags, int reserved, NmHandle* handle, const char* name);

// Locks a block (locks nest) and stores its address in `*address`. Mode NM_LOCK_READ or
// NM_LOCK_WRITE. A read lock of a never written block fails with NM_OBJECT_CLEARED; a write lock
// gives it zeroed memory. A swapped block is read back; to make room, unlocked blocks are swapped
// out first until the resident total plus this block fits the limit. Blocks during that I/O.
// Returns NM_OUT_OF_MEMORY when the memory cannot be had, NM_IO_ERROR when the read fails.
int nmLock(NmHandle handle, int mode, void** address);

// Ends one lock. The block becomes the most recently used when its last lock goes.
int nmUnlock(NmHandle handle);

// Destroys an unlocked block and releases its swap slot. NM_OBJECT_LOCKED if it is locked.
int nmFree(NmHandle handle);

// Swaps out unlocked resident blocks, least recently used first, until the resident total is at
// or below `megabytes`. Locked blocks stay. Blocks during the writes. Returns NM_IO_ERROR if a
// write failed (that block stays resident), else NM_OK.
int nmClearUnlocked(std::uint32_t megabytes);

// Directory of the swap file. Removes the swap files of processes that no longer run. The file
// itself is created at the first swap-out. NM_BUSY while blocks are swapped out.
int nmSetSwapPath(const char* path);

// Level in megabytes above which unlocked blocks go to disk. Default 512.
int nmSetPhysicalMemoryLimit(std::uint32_t megabytes);

// State of a block: NM_OBJECT_CLEARED, NM_OBJECT_SWAPPED or NM_OBJECT_RESIDENT (also while it is
// locked or in transfer), or NM_INVALID_HANDLE.
int nmStatus(NmHandle handle);

int nmGetStatistic(NmStatistic* statistic);

// Bytes of the blocks that are locked now.
std::uint64_t nmCountLocked();

// Shuts the library down: frees every block, closes and removes the swap file and resets the
// counters. The library starts again on the next call. Returns NM_OK.
int nmRelease();

// Text of a status ("NM_OK", "NM_OBJECT_CLEARED", ...); unknown values give "NM_UNKNOWN(<n>)".
std::string toString(int status);
// One line with every field of the record.
std::string toString(const NmStatistic& statistic);

// Memory for a large buffer outside the blocks (a decoded band, a whole picture): from 256 KiB on
// the blocks' own kind of mapping (transparent huge pages from 2 MiB, freed mappings of the same
// size reused), page-aligned; below 256 KiB heap memory with malloc's alignment. Uninitialised
// where memory is reused. Not counted against the physical memory limit. Null when there is no
// memory. Any thread.
void* allocLargeBuffer(std::uint64_t size);
// Gives back what allocLargeBuffer(size) gave; `size` must be the same.
void freeLargeBuffer(void* p, std::uint64_t size);

}  // namespace qor::memory
