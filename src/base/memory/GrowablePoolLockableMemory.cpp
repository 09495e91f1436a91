#include "base/memory/GrowablePoolLockableMemory.h"

#include <vector>

#include "base/Log.h"

namespace qor::memory {

namespace {
constexpr std::uint32_t kAlign = 16;
}

struct GrowablePoolLockableMemory::Handle : LockableMemoryHandle, StackedMemoryHandle {
    Chunk* chunk = nullptr;  // null for a block of its own (then _innerHandle is that block)
    std::uint32_t offset = 0;
    std::uint32_t size = 0;
};

GrowablePoolLockableMemory::GrowablePoolLockableMemory(
    const SharedPtr<LockableMemoryAllocator>& parent, unsigned chunkSize, int poolType)
    : _parent(parent), _chunkSize(chunkSize / kAlign * kAlign), _poolType(poolType) {
    QOR_ASSERT(_parent);
    QOR_ASSERT(_chunkSize >= kAlign);
}

GrowablePoolLockableMemory::~GrowablePoolLockableMemory() {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    QOR_ASSERT_MSG(_chunks.empty(), "%* chunks still in use", _chunks.size());
    for (Chunk& c : _chunks) _parent->free(c.parentHandle);
}

std::size_t GrowablePoolLockableMemory::chunkCount() const {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    return _chunks.size();
}

bool GrowablePoolLockableMemory::carve(Chunk& chunk, std::uint32_t size, std::uint32_t* offset) {
    for (auto it = chunk.freeRanges.begin(); it != chunk.freeRanges.end(); ++it) {
        if (it->second < size) continue;
        *offset = it->first;
        std::uint32_t rest = it->second - size;
        chunk.freeRanges.erase(it);
        if (rest > 0) chunk.freeRanges.emplace(*offset + size, rest);
        chunk.used += size;
        return true;
    }
    return false;
}

LockableMemoryHandle* GrowablePoolLockableMemory::alloc(unsigned size) {
    if (size == 0) size = 1;
    if (size > _chunkSize) {
        LockableMemoryHandle* inner = _parent->alloc(size);
        if (!inner) return nullptr;
        auto* h = new Handle;
        h->_innerHandle = inner;
        h->size = size;
        return h;
    }
    const std::uint32_t rounded = (size + kAlign - 1) / kAlign * kAlign;
    auto* h = new Handle;
    h->size = size;
    {
        thread::ScopedLock<thread::Mutex> lock(_mutex);
        for (Chunk& c : _chunks) {
            if (c.used + rounded <= _chunkSize && carve(c, rounded, &h->offset)) {
                h->chunk = &c;
                h->_innerHandle = c.parentHandle;
                return h;
            }
        }
    }
    // A new chunk, taken from the parent without our lock (it may swap).
    LockableMemoryHandle* inner = _parent->alloc(_chunkSize);
    if (!inner) {
        delete h;
        return nullptr;
    }
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    Chunk& c = _chunks.emplace_back();
    c.parentHandle = inner;
    c.freeRanges.emplace(0, _chunkSize);
    carve(c, rounded, &h->offset);
    h->chunk = &c;
    h->_innerHandle = inner;
    return h;
}

void GrowablePoolLockableMemory::free(LockableMemoryHandle* handle) {
    auto* h = dynamic_cast<Handle*>(handle);
    QOR_ASSERT(h);
    if (!h) return;
    LockableMemoryHandle* release = nullptr;
    if (!h->chunk) {
        release = h->_innerHandle;
    } else {
        thread::ScopedLock<thread::Mutex> lock(_mutex);
        Chunk* c = h->chunk;
        std::uint32_t offset = h->offset;
        std::uint32_t size = (h->size + kAlign - 1) / kAlign * kAlign;
        c->used -= size;
        auto next = c->freeRanges.lower_bound(offset);
        if (next != c->freeRanges.end() && next->first == offset + size) {
            size += next->second;
            next = c->freeRanges.erase(next);
        }
        if (next != c->freeRanges.begin()) {
            auto prev = std::prev(next);
            if (prev->first + prev->second == offset) {
                offset = prev->first;
                size += prev->second;
                c->freeRanges.erase(prev);
            }
        }
        c->freeRanges.emplace(offset, size);
        if (c->used == 0) {
            release = c->parentHandle;
            for (auto it = _chunks.begin(); it != _chunks.end(); ++it) {
                if (&*it == c) {
                    _chunks.erase(it);
                    break;
                }
            }
        }
    }
    if (release) _parent->free(release);
    delete h;
}

void* GrowablePoolLockableMemory::lock(LockableMemoryHandle* handle, bool readOnly) {
    auto* h = dynamic_cast<Handle*>(handle);
    QOR_ASSERT(h);
    if (!h) return nullptr;
    void* base = _parent->lock(h->_innerHandle, readOnly);
    if (!base) return nullptr;
    if (h->chunk && !readOnly) h->chunk->written = true;
    return static_cast<char*>(base) + h->offset;
}

void GrowablePoolLockableMemory::unlock(LockableMemoryHandle* handle) {
    auto* h = dynamic_cast<Handle*>(handle);
    QOR_ASSERT(h);
    if (h) _parent->unlock(h->_innerHandle);
}

std::size_t GrowablePoolLockableMemory::memoryFootprint(LockableMemoryHandle* handle) {
    auto* h = dynamic_cast<Handle*>(handle);
    QOR_ASSERT(h);
    if (!h) return 0;
    if (!h->chunk) return _parent->memoryFootprint(h->_innerHandle);
    if (!h->chunk->written) return 0;
    std::size_t chunkFootprint = _parent->memoryFootprint(h->_innerHandle);
    return static_cast<std::size_t>(double(chunkFootprint) * h->size / _chunkSize);
}

}  // namespace qor::memory
