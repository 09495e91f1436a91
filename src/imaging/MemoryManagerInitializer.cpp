#include "imaging/MemoryManagerInitializer.h"

#include <algorithm>
#include <new>

#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "base/thread/Mutex.h"

namespace qor::imaging::internal {

std::atomic<unsigned> s_physicalMemoryLimit{512};
std::atomic<unsigned> s_clearStep{32};
std::atomic<unsigned> s_clearLevel{0};
std::atomic<unsigned> s_relaxedClearLevel{0};

namespace {

thread::Mutex& singletonMutex() {
    static thread::Mutex* m = new thread::Mutex;
    return *m;
}

WeakSharedPtr<MemoryManagerInitializer>& singleton() {
    static auto* w = new WeakSharedPtr<MemoryManagerInitializer>;
    return *w;
}

}  // namespace

SharedPtr<MemoryManagerInitializer> MemoryManagerInitializer::instance() {
    thread::ScopedLock<thread::Mutex> lock(singletonMutex());
    return singleton().lock();
}

SharedPtr<MemoryManagerInitializer> MemoryManagerInitializer::obtain() {
    thread::ScopedLock<thread::Mutex> lock(singletonMutex());
    SharedPtr<MemoryManagerInitializer> p = singleton().lock();
    if (!p) {
        p.reset(new MemoryManagerInitializer);
        singleton() = p;
    }
    return p;
}

MemoryManagerInitializer::MemoryManagerInitializer() {
    memory::nmSetPhysicalMemoryLimit(s_physicalMemoryLimit.load());
    registerHandler();  // last: the chain may call freeMemory at once, on any thread
}

MemoryManagerInitializer::~MemoryManagerInitializer() {
    // Leave the chain first, so that no run of it reaches a half-destroyed handler.
    unregisterHandler();
    if (checkNothingHeld()) memory::nmRelease();
}

bool MemoryManagerInitializer::checkNothingHeld() {
    memory::NmStatistic stats;
    if (memory::nmGetStatistic(&stats) != memory::NM_OK) return false;
    if (stats.memoryObjectCount == 0) return true;
    QOR_LOG(LogError,
            "Unable to release MemoryManager as %* objects (%* MB, %* MB on disk) are still held",
            stats.memoryObjectCount, double(stats.memoryAllocated) * 1 / 1048576,
            double(stats.discAllocated) * 1 / 1048576);
    QOR_ASSERT(false);
    return false;
}

void MemoryManagerInitializer::freeMemory() {
    const unsigned level = std::max(s_clearLevel.load(), 1u);
    memory::nmClearUnlocked(level);
    QOR_LOG(LogInfo, "bad_alloc: nmClearUnlocked ( %* ) called", level);
    // The test and the fall are one atomic step: a successful allocation on another thread may
    // store the relaxed level at any moment, and a fall computed from an older reading could
    // take the level below zero, where it wraps to a level at which nothing is ever cleared.
    const unsigned step = s_clearStep.load();
    unsigned current = s_clearLevel.load();
    do {
        if (current < step) throw std::bad_alloc();
    } while (!s_clearLevel.compare_exchange_weak(current, current - step));
}

int MemoryManagerInitializer::setSwapPath(const FastString<char>& path) {
    return memory::nmSetSwapPath(path.c_str());
}

}  // namespace qor::imaging::internal
