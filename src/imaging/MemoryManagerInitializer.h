#pragma once

// Owner of the memory manager library's set-up, and this library's link in the NewHandler chain.
//
// There is one at a time, a process-wide weak singleton: obtain() creates it when none is alive.
// Its constructor joins the NewHandler chain and hands the physical memory limit to the library;
// when the last reference goes, the library is shut down if no block is left.
// Thread contract: the singleton is guarded by its own lock; freeMemory runs on any thread (the
// chain serialises it); the process-wide levels below are atomics.

#include <atomic>

#include "base/memory/NewHandler.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imaging::internal {

// Process-wide values, in whole megabytes.
extern std::atomic<unsigned> s_physicalMemoryLimit;  // the limit last given; 512
extern std::atomic<unsigned> s_clearStep;            // fall of the clear level under pressure; 32
extern std::atomic<unsigned> s_clearLevel;           // level of nmClearUnlocked at the next alloc
extern std::atomic<unsigned> s_relaxedClearLevel;    // limit minus step, after a good alloc

class MemoryManagerInitializer : public memory::NewHandler {
public:
    // The living initializer, or null. Does not create one.
    static SharedPtr<MemoryManagerInitializer> instance();
    // The living initializer, created if there is none.
    static SharedPtr<MemoryManagerInitializer> obtain();

    // Shuts the library down (nmRelease) when checkNothingHeld() says no block is left.
    ~MemoryManagerInitializer() override;

    // True when the library holds no block; otherwise logs how many it holds, with their sizes in
    // memory and on disk, asserts, and gives false.
    static bool checkNothingHeld();

    // Clears to the present level (at least 1 MB) and lowers the level by one step. Throws
    // std::bad_alloc when the level is already below one step. Any thread.
    void freeMemory() override;

    // nmSetSwapPath; returns its status.
    int setSwapPath(const FastString<char>& path);

private:
    MemoryManagerInitializer();
};

}  // namespace qor::imaging::internal
