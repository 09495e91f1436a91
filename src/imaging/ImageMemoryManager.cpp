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

// What alloc hands out: the allocator's handle together with the allocator that made it. Every
// later call on the block goes to that allocator, which the handle keeps alive: a block that
// outlives release(), or a setMemoryAllocator that came too late, keeps working on the stack it
// came from instead of reaching into a new stack that never made it.
struct OwnedHandle final : LockableMemoryHandle {
    OwnedHandle(LockableMemoryHandle* h, SharedPtr<LockableMemoryAllocator> a)
        : inner(h), owner(std::move(a)) {}
    LockableMemoryHandle* const inner;
    const SharedPtr<LockableMemoryAllocator> owner;
};

OwnedHandle* owned(LockableMemoryHandle* handle) {
    auto* h = dynamic_cast<OwnedHandle*>(handle);
    QOR_ASSERT_TEXT(h, "a handle made by ImageMemoryManager::alloc");
    return h;
}

}  // namespace

LockableMemoryHandle* alloc(unsigned size) {
    SharedPtr<LockableMemoryAllocator> allocator = ensure(true);
    LockableMemoryHandle* inner = allocator->alloc(size);
    if (!inner) return nullptr;
    return new OwnedHandle(inner, std::move(allocator));
}

void* lock(LockableMemoryHandle* handle, bool readOnly) {
    OwnedHandle* h = owned(handle);
    return h ? h->owner->lock(h->inner, readOnly) : nullptr;
}

void unlock(LockableMemoryHandle* handle) {
    if (OwnedHandle* h = owned(handle)) h->owner->unlock(h->inner);
}

void free(LockableMemoryHandle* handle) {
    if (!handle) return;
    OwnedHandle* h = owned(handle);
    if (!h) return;
    h->owner->free(h->inner);
    delete h;
}

std::size_t memoryFootprint(LockableMemoryHandle* handle) {
    OwnedHandle* h = owned(handle);
    return h ? h->owner->memoryFootprint(h->inner) : 0;
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
    const bool last = !manager || unique(manager);
    QOR_ASSERT_TEXT(last,
                    "s_memoryManager.unique() && \"No further references should be held by now\"");
    // Blocks still alive hold their stack, and with it the initializer: the library stays up
    // until the last of them is freed, and says now what it still holds.
    if (!last) MemoryManagerInitializer::checkNothingHeld();
    manager.reset();
}

void freeUnlocked() {}

void setFreePhysicalMemorySteps(unsigned) {}

}  // namespace qor::imaging::ImageMemoryManager
