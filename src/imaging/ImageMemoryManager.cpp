#include "imaging/ImageMemoryManager.h"

#include "base/Log.h"
#include "base/memory/GrowablePoolLockableMemory.h"
#include "base/memory/MemoryManager.h"
#include "base/thread/Mutex.h"
#include "imaging/ManagedMemoryAllocator.h"
#include "imaging/MemoryManagerInitializer.h"
#include "imaging/SwitchedLockableMemoryAllocator.h"

namespace qor::imaging::ImageMemoryManager {

namespace {

using internal::MemoryManagerInitializer;

struct Stack {
    thread::Mutex mutex;
    SharedPtr<LockableMemoryAllocator> s_memoryAllocator;  // guarded by mutex
    SharedPtr<MemoryManagerInitializer> s_memoryManager;   // guarded by mutex
    bool s_somethingWasAllocated = false;                  // guarded by mutex
};

Stack& stack() {
    static Stack* s = new Stack;
    return *s;
}

void ensureInitializerLocked(Stack& s) {
    if (!s.s_memoryManager) s.s_memoryManager = MemoryManagerInitializer::obtain();
}

// Builds the default stack where there is none; returns the allocator.
SharedPtr<LockableMemoryAllocator> ensure(bool markAllocated = false) {
    Stack& s = stack();
    thread::ScopedLock<thread::Mutex> lock(s.mutex);
    ensureInitializerLocked(s);
    if (!s.s_memoryAllocator) {
        auto managed = std::make_shared<ManagedMemoryAllocator>();
        auto pool = std::make_shared<memory::GrowablePoolLockableMemory>(managed, 4194304, 0);
        s.s_memoryAllocator =
            std::make_shared<SwitchedLockableMemoryAllocator<ChooseAllocator>>(managed, pool);
    }
    if (markAllocated) s.s_somethingWasAllocated = true;
    return s.s_memoryAllocator;
}

}  // namespace

LockableMemoryHandle* alloc(unsigned size) { return ensure(true)->alloc(size); }

void* lock(LockableMemoryHandle* handle, bool readOnly) { return ensure()->lock(handle, readOnly); }

void unlock(LockableMemoryHandle* handle) { ensure()->unlock(handle); }

void free(LockableMemoryHandle* handle) { ensure()->free(handle); }

std::size_t memoryFootprint(LockableMemoryHandle* handle) {
    return ensure()->memoryFootprint(handle);
}

void setPhysicalMemoryLimit(unsigned megabytes) {
    ensure();
    internal::s_physicalMemoryLimit = megabytes;
    internal::s_clearLevel = megabytes;
    internal::s_relaxedClearLevel = megabytes - internal::s_clearStep.load();
    memory::nmSetPhysicalMemoryLimit(megabytes);
}

void initSwapDir(const FastString<char>& path) {
    ensure();
    SharedPtr<MemoryManagerInitializer> initializer = MemoryManagerInitializer::instance();
    int status = initializer ? initializer->setSwapPath(path) : memory::NM_INVALID_ARGUMENT;
    if (status != memory::NM_OK)
        QOR_LOG(LogError, "Could not set the Memory Manager swap path (%*)!",
                memory::toString(status));
}

void setMemoryAllocator(const SharedPtr<LockableMemoryAllocator>& allocator) {
    Stack& s = stack();
    thread::ScopedLock<thread::Mutex> lock(s.mutex);
    QOR_ASSERT_TEXT(!s.s_somethingWasAllocated,
                    "!s_somethingWasAllocated && \"The allocator may only be set, if nothing was "
                    "allocated, yet.\"");
    s.s_memoryAllocator = allocator;
    ensureInitializerLocked(s);
}

SharedPtr<LockableMemoryAllocator> memoryAllocator() { return ensure(); }

void release() {
    QOR_LOG(LogInfo, "Releasing ImageMemoryManager ressources");
    Stack& s = stack();
    SharedPtr<LockableMemoryAllocator> allocator;
    SharedPtr<MemoryManagerInitializer> manager;
    {
        thread::ScopedLock<thread::Mutex> lock(s.mutex);
        allocator.swap(s.s_memoryAllocator);
        manager.swap(s.s_memoryManager);
        s.s_somethingWasAllocated = false;
    }
    // Without the lock: dropping the last references shuts the library down.
    allocator.reset();
    QOR_ASSERT_TEXT(!manager || unique(manager),
                    "s_memoryManager.unique() && \"No further references should be held by now\"");
    manager.reset();
}

void freeUnlocked() {}

void setFreePhysicalMemorySteps(unsigned) {}

}  // namespace qor::imaging::ImageMemoryManager
