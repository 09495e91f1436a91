#include "imaging/ManagedMemoryAllocator.h"

#include "base/Log.h"
#include "base/memory/NewHandler.h"

namespace qor::imaging {

using namespace memory;

ManagedMemoryAllocator::ManagedMemoryAllocator()
    : _initializer(internal::MemoryManagerInitializer::instance()) {
    QOR_ASSERT(internal::MemoryManagerInitializer::instance());
}

void ManagedMemoryAllocator::printStatistics() {
    NmStatistic s;
    int status = nmGetStatistic(&s);
    if (status != NM_OK) {
        QOR_LOG(LogError, "Error printing statistics (%*)", status);
        return;
    }
    QOR_LOG(LogInfo, "Memory manager internal statistics:");
    QOR_LOG(LogInfo,
            "memory object count: %* cache file count: %* page size: %* memory limit: %* memory "
            "allocated: %* disc allocated: %* read operations: %* write operations: %* locked "
            "memory: %* (mb)",
            s.memoryObjectCount, s.cacheFileCount, s.pageSize, s.memoryLimit, s.memoryAllocated,
            s.discAllocated, s.readOperations, s.writeOperations,
            double(nmCountLocked()) * 1 / 1048576);
}

LockableMemoryHandle* ManagedMemoryAllocator::alloc(unsigned size) {
    auto* handle = new MemoryHandle;
    nmClearUnlocked(internal::s_clearLevel.load());
    int status = nmAlloc(size, 0, 0, &handle->_mManagerHandle, "qor::imaging::ManagedImageData");
    if (status == NM_OK) {
        internal::s_clearLevel = internal::s_relaxedClearLevel.load();
        handle->_size = size;
        return handle;
    }
    QOR_LOG(LogInfo, "Memory manager error: could not allocate the required space (%*)", status);
    printStatistics();
    delete handle;
    return nullptr;
}

void* ManagedMemoryAllocator::lock(LockableMemoryHandle* handle, bool readOnly) {
    QOR_ASSERT(dynamic_cast<MemoryHandle*>(handle) != 0);
    auto* memHandle = dynamic_cast<MemoryHandle*>(handle);
    if (!memHandle) return nullptr;
    QOR_ASSERT(memHandle->_mManagerHandle);
    void* address = nullptr;
    int status = nmLock(memHandle->_mManagerHandle, readOnly ? 1 : 2, &address);
    while (status != NM_OK) {
        QOR_LOG(LogError, "FAILED TO LOCK DATA: %*", toString(status));
        if (readOnly && status == NM_OBJECT_CLEARED) {
            QOR_LOG(
                LogError,
                "Memory manager could not lock the handle: the memory has never been written to.");
            return nullptr;
        }
        if (!NewHandler::callOurHandlers()) {
            QOR_LOG(LogError, "Memory manager could not lock the handle");
            printStatistics();
            return nullptr;
        }
        QOR_LOG(LogInfo, "ImageMemoryManager::lock: Called new handler");
        status = nmLock(memHandle->_mManagerHandle, readOnly ? 1 : 2, &address);
    }
    return address;
}

void ManagedMemoryAllocator::unlock(LockableMemoryHandle* handle) {
    QOR_ASSERT(dynamic_cast<MemoryHandle*>(handle) != 0);
    auto* memHandle = dynamic_cast<MemoryHandle*>(handle);
    if (!memHandle) return;
    QOR_ASSERT(memHandle->_mManagerHandle);
    int status = nmUnlock(memHandle->_mManagerHandle);
    if (status != NM_OK) {
        QOR_LOG(LogError, "Memory manager error: could not unlock image buffer: %* (error = %*)!",
                memHandle->_mManagerHandle, status);
        printStatistics();
        QOR_ASSERT(false);
    }
}

void ManagedMemoryAllocator::free(LockableMemoryHandle* handle) {
    QOR_ASSERT(handle);
    QOR_ASSERT(dynamic_cast<MemoryHandle*>(handle) != 0);
    auto* memHandle = dynamic_cast<MemoryHandle*>(handle);
    if (!memHandle) return;
    int status = nmFree(memHandle->_mManagerHandle);
    if (status != NM_OK) {
        QOR_LOG(LogError, "Memory manager error: could not free image buffer: %* (error = %*)!",
                memHandle->_mManagerHandle, status);
        printStatistics();
    }
    delete memHandle;
}

std::size_t ManagedMemoryAllocator::memoryFootprint(LockableMemoryHandle* handle) {
    QOR_ASSERT(dynamic_cast<MemoryHandle*>(handle) != 0);
    auto* memHandle = dynamic_cast<MemoryHandle*>(handle);
    if (!memHandle) return 0;
    int status = nmStatus(memHandle->_mManagerHandle);
    QOR_ASSERT(status != NM_OBJECT_CLEARED);
    if (status == NM_OBJECT_RESIDENT) return std::size_t(memHandle->_size) + 12;
    return 12;
}

}  // namespace qor::imaging
