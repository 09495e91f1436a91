#include "base/memory/MemoryManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <sstream>
#include <unordered_map>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/PosixIO.h"
#include "base/thread/Mutex.h"

namespace qor::memory {

namespace {

constexpr std::uint64_t kMegabyte = 1048576;
constexpr std::uint64_t kPageSize = 4096;
constexpr const char* kFilePrefix = "qor-swap-";
constexpr const char* kFileSuffix = ".swp";

enum class State {
    Cleared,     // never written, no memory
    Filling,     // first write lock is taking memory
    Resident,    // memory holds the content
    WritingOut,  // being written to the swap file
    Swapped,     // content only in the swap file
    ReadingIn,   // being read back
};

struct Block {
    NmHandle id = 0;
    std::uint64_t size = 0;
    State state = State::Cleared;
    int lockCount = 0;
    bool dirty = true;  // memory differs from the slot (or there is no slot)
    bool inLru = false;
    void* memory = nullptr;
    std::int64_t slotOffset = -1;
    std::uint64_t slotSize = 0;
    std::list<Block*>::iterator lruPos;
};

// Blocks from this size on are mapped on their own, so that a free gives the pages back to the
// system. From 2 MiB on the mapping is aligned to 2 MiB and asks for transparent huge pages: the
// kernel then faults a block in per 2 MiB instead of per 4 KiB page, which is what makes a
// swap-in (fresh memory, then a read into it) cost little more than the read. Smaller mapped
// blocks that are about to be read are populated in the mmap call.
constexpr std::uint64_t kMapThreshold = 256 * 1024;
constexpr std::uint64_t kHugePage = 2 * 1024 * 1024;

std::uint64_t mappedLength(std::uint64_t size) {
    return (size + kPageSize - 1) / kPageSize * kPageSize;
}

// Freed mappings kept for the next block of the same size, so that a stream of equal tiles does
// not map, fault in and unmap its pages for every tile. Bounded per size and in total; a mapping
// past the bounds is unmapped at once. Kept mappings are not resident blocks: they do not count
// against the physical memory limit, which they can exceed by at most kMaxKeptBytes.
constexpr std::size_t kMaxKeptPerSize = 32;
constexpr std::uint64_t kMaxKeptBytes = 32 * 1024 * 1024;

class MappingCache {
public:
    // A kept mapping for a block of `size` bytes, or null.
    void* take(std::uint64_t size) {
        thread::ScopedLock<thread::Mutex> lock(_mutex);
        auto it = _kept.find(keyOf(size));
        if (it == _kept.end() || it->second.empty()) return nullptr;
        void* p = it->second.back();
        it->second.pop_back();
        _bytes -= mappedLength(size);
        return p;
    }
    // Keeps the mapping of a freed block of `size` bytes; false when the bounds are reached.
    bool keep(void* p, std::uint64_t size) {
        thread::ScopedLock<thread::Mutex> lock(_mutex);
        const std::uint64_t length = mappedLength(size);
        std::vector<void*>& list = _kept[keyOf(size)];
        if (list.size() >= kMaxKeptPerSize || _bytes + length > kMaxKeptBytes) return false;
        list.push_back(p);
        _bytes += length;
        return true;
    }
    // Hands every kept mapping back to the system.
    void clear() {
        std::unordered_map<std::uint64_t, std::vector<void*>> kept;
        {
            thread::ScopedLock<thread::Mutex> lock(_mutex);
            kept.swap(_kept);
            _bytes = 0;
        }
        for (auto& [key, list] : kept)
            for (void* p : list) ::munmap(p, key & ~std::uint64_t(1));
    }

private:
    // The mapped length, with the low bit set for huge-page mappings (aligned differently).
    static std::uint64_t keyOf(std::uint64_t size) {
        return mappedLength(size) | (size >= kHugePage ? 1 : 0);
    }

    thread::Mutex _mutex;  // a leaf lock: guards _kept and _bytes, nothing is called under it
    std::unordered_map<std::uint64_t, std::vector<void*>> _kept;  // key -> mappings
    std::uint64_t _bytes = 0;                                     // total length kept
};

MappingCache& mappingCache() {
    static MappingCache* cache = new MappingCache;
    return *cache;
}

// Memory for a block: zeroed; `forRead` when a read will fill all of it at once.
void* allocBlockMemory(std::uint64_t size, bool forRead) {
    if (size < kMapThreshold) return forRead ? std::malloc(size) : std::calloc(1, size);
    const std::uint64_t length = mappedLength(size);
    if (void* kept = mappingCache().take(size)) {
        // Already faulted in: clearing it costs less than fresh pages do.
        if (!forRead) std::memset(kept, 0, size);
        return kept;
    }
    if (size < kHugePage) {
        int flags = MAP_PRIVATE | MAP_ANONYMOUS | (forRead ? MAP_POPULATE : 0);
        void* p = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, flags, -1, 0);
        return p == MAP_FAILED ? nullptr : p;
    }
    void* raw = ::mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    auto start = reinterpret_cast<std::uintptr_t>(raw);
    auto aligned = (start + kHugePage - 1) & ~std::uintptr_t(kHugePage - 1);
    if (aligned > start) ::munmap(raw, aligned - start);
    std::uintptr_t end = start + length + kHugePage;
    if (end > aligned + length)
        ::munmap(reinterpret_cast<void*>(aligned + length), end - aligned - length);
    ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
    return reinterpret_cast<void*>(aligned);
}

void freeBlockMemory(void* p, std::uint64_t size) {
    if (!p) return;
    if (size < kMapThreshold)
        std::free(p);
    else if (!mappingCache().keep(p, size))
        ::munmap(p, mappedLength(size));
}

bool inTransfer(State s) {
    return s == State::Filling || s == State::WritingOut || s == State::ReadingIn;
}

std::string fileNameFor(long pid) { return kFilePrefix + std::to_string(pid) + kFileSuffix; }

std::string defaultSwapDir() {
    const char* tmp = std::getenv("TMPDIR");
    return (tmp && *tmp) ? tmp : "/tmp";
}

// Removes swap files under `dir` whose owner no longer holds them: the pid does not run, or the
// file's flock is free (the pid was reused by another program).
void removeStaleFiles(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    const std::string prefix = kFilePrefix, suffix = kFileSuffix;
    const long self = static_cast<long>(::getpid());
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name.size() <= prefix.size() + suffix.size() ||
            name.compare(0, prefix.size(), prefix) != 0 ||
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        std::string digits =
            name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
        if (digits.find_first_not_of("0123456789") != std::string::npos) continue;
        long pid = std::strtol(digits.c_str(), nullptr, 10);
        if (pid == self) continue;
        std::string path = dir + "/" + name;
        bool stale = ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
        int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) continue;
        if (stale || ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            ::unlink(path.c_str());
            QOR_LOG(1, "Removed stale swap file %*", path);
        }
        ::close(fd);
    }
    ::closedir(d);
}

// The library's state. Never destroyed, so that calls from other static destructors stay safe; the
// swap file, which has no name, goes with the process.
class Manager {
public:
    thread::Mutex _mutex;
    thread::ConditionVariable _changed;                            // a transfer ended
    std::unordered_map<NmHandle, std::unique_ptr<Block>> _blocks;  // guarded by _mutex
    std::list<Block*> _lru;       // unlocked resident blocks, least recent first; guarded by _mutex
    NmHandle _nextId = 1;         // guarded by _mutex
    std::uint64_t _resident = 0;  // guarded by _mutex
    std::uint64_t _outgoing = 0;  // bytes picked for write-out, not yet freed; guarded
    std::uint64_t _locked = 0;    // guarded by _mutex
    std::uint64_t _swapped = 0;   // guarded by _mutex
    std::uint32_t _limitMb = 512;                              // guarded by _mutex
    int _transfers = 0;                                        // guarded by _mutex
    std::string _swapDir;                                      // guarded by _mutex
    int _fd = -1;                                              // guarded by _mutex
    std::uint64_t _fileEnd = 0;                                // guarded by _mutex
    std::multimap<std::uint64_t, std::uint64_t> _freeSlots;    // size -> offset; guarded by _mutex
    std::uint64_t _reads = 0, _writes = 0, _droppedClean = 0;  // guarded by _mutex

    Block* find(NmHandle h) {
        auto it = _blocks.find(h);
        return it == _blocks.end() ? nullptr : it->second.get();
    }

    // Waits until the block is out of transfer; returns it, or null if it went away meanwhile.
    Block* findSettled(thread::ScopedLock<thread::Mutex>& lock, NmHandle h) {
        for (;;) {
            Block* b = find(h);
            if (!b || !inTransfer(b->state)) return b;
            _changed.wait(lock);
        }
    }

    void lruRemove(Block* b) {
        if (!b->inLru) return;
        _lru.erase(b->lruPos);
        b->inLru = false;
    }
    void lruPushBack(Block* b) {
        b->lruPos = _lru.insert(_lru.end(), b);
        b->inLru = true;
    }

    bool ensureFile() {
        if (_fd >= 0) return true;
        if (_swapDir.empty()) _swapDir = defaultSwapDir();
        std::error_code ec;
        std::filesystem::create_directories(_swapDir, ec);
        // The file has no name: it goes with the process however the process ends (one that is
        // killed cannot remove a named file, and named files of killed processes piled up).
        _fd = ::open(_swapDir.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600);
        if (_fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
            // A file system without unnamed files: a named one, unlinked at once.
            const std::string path = _swapDir + "/" + fileNameFor(static_cast<long>(::getpid()));
            _fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (_fd >= 0) ::unlink(path.c_str());
        }
        if (_fd < 0) {
            QOR_LOG(4, "Cannot open a swap file in %*: %*", _swapDir, std::strerror(errno));
            return false;
        }
        _fileEnd = 0;
        return true;
    }

    void allocSlot(Block* b) {
        std::uint64_t need = (b->size + kPageSize - 1) / kPageSize * kPageSize;
        auto it = _freeSlots.lower_bound(need);
        if (it != _freeSlots.end()) {
            std::uint64_t extent = it->first, offset = it->second;
            _freeSlots.erase(it);
            if (extent > need) _freeSlots.emplace(extent - need, offset + need);
            b->slotOffset = static_cast<std::int64_t>(offset);
        } else {
            b->slotOffset = static_cast<std::int64_t>(_fileEnd);
            _fileEnd += need;
        }
        b->slotSize = need;
    }

    void releaseSlot(Block* b) {
        if (b->slotOffset < 0) return;
        _freeSlots.emplace(b->slotSize, static_cast<std::uint64_t>(b->slotOffset));
        b->slotOffset = -1;
        b->slotSize = 0;
    }

    // Swaps out unlocked resident blocks, least recently used first, until the resident total
    // (less what other threads are already writing out) is at or below `target`. Releases the
    // lock during the writes.
    int clearTo(thread::ScopedLock<thread::Mutex>& lock, std::uint64_t target) {
        std::vector<Block*> victims;
        while (_resident - _outgoing > target && !_lru.empty()) {
            Block* b = _lru.front();
            lruRemove(b);
            if (b->dirty && b->slotOffset < 0) {
                if (!ensureFile()) {
                    lruPushBack(b);
                    break;
                }
                allocSlot(b);
            }
            b->state = State::WritingOut;
            _outgoing += b->size;
            victims.push_back(b);
        }
        if (victims.empty()) return _resident > target && !_lru.empty() ? NM_IO_ERROR : NM_OK;
        const int fd = _fd;
        ++_transfers;
        std::vector<char> ok(victims.size(), 0);
        {
            thread::ScopedUnlock<thread::Mutex> unlocked(lock);
            for (size_t i = 0; i < victims.size(); ++i) {
                Block* b = victims[i];
                ok[i] =
                    !b->dirty || filesystem::pwriteFull(fd, b->memory, b->size,
                                                        static_cast<std::uint64_t>(b->slotOffset));
                if (ok[i]) {
                    freeBlockMemory(b->memory, b->size);
                } else {
                    QOR_LOG(4, "Cannot write swap file: %*", std::strerror(errno));
                }
            }
        }
        --_transfers;
        int status = NM_OK;
        for (size_t i = 0; i < victims.size(); ++i) {
            Block* b = victims[i];
            _outgoing -= b->size;
            if (ok[i]) {
                (b->dirty ? _writes : _droppedClean) += 1;
                b->memory = nullptr;
                b->dirty = false;
                b->state = State::Swapped;
                _resident -= b->size;
                _swapped += b->size;
            } else {
                b->state = State::Resident;
                b->lruPos = _lru.insert(_lru.begin(), b);
                b->inLru = true;
                status = NM_IO_ERROR;
            }
        }
        _changed.notifyAll();
        return status;
    }

    // Room for `size` more resident bytes under the limit.
    void makeRoom(thread::ScopedLock<thread::Mutex>& lock, std::uint64_t size) {
        std::uint64_t limit = std::uint64_t(_limitMb) * kMegabyte;
        clearTo(lock, limit > size ? limit - size : 0);
    }

    int lockBlock(NmHandle h, int mode, void** address) {
        if (!address || (mode != NM_LOCK_READ && mode != NM_LOCK_WRITE)) return NM_INVALID_ARGUMENT;
        *address = nullptr;
        thread::ScopedLock<thread::Mutex> lock(_mutex);
        Block* b = findSettled(lock, h);
        if (!b) return NM_INVALID_HANDLE;
        if (b->state == State::Resident) {
            if (b->lockCount++ == 0) {
                lruRemove(b);
                _locked += b->size;
            }
            if (mode == NM_LOCK_WRITE) b->dirty = true;
            *address = b->memory;
            return NM_OK;
        }
        if (b->state == State::Cleared && mode == NM_LOCK_READ) return NM_OBJECT_CLEARED;
        // Cleared (write) or Swapped: take memory, then fill it.
        const bool swapped = b->state == State::Swapped;
        const std::uint64_t size = b->size;
        b->state = swapped ? State::ReadingIn : State::Filling;
        makeRoom(lock, size);
        _resident += size;
        if (swapped) _swapped -= size;
        const int fd = _fd;
        const std::uint64_t offset = static_cast<std::uint64_t>(b->slotOffset);
        ++_transfers;
        void* mem = nullptr;
        bool ok = false;
        {
            thread::ScopedUnlock<thread::Mutex> unlocked(lock);
            mem = allocBlockMemory(size, swapped);
            ok = mem && (!swapped || filesystem::preadFull(fd, mem, size, offset) ==
                                         static_cast<ssize_t>(size));
            if (mem && !ok) {
                QOR_LOG(4, "Cannot read swap file: %*", std::strerror(errno));
                freeBlockMemory(mem, size);
            }
        }
        --_transfers;
        _changed.notifyAll();
        if (!ok) {
            b->state = swapped ? State::Swapped : State::Cleared;
            _resident -= size;
            if (swapped) _swapped += size;
            return mem ? NM_IO_ERROR : NM_OUT_OF_MEMORY;
        }
        if (swapped) ++_reads;
        b->memory = mem;
        b->state = State::Resident;
        b->dirty = !swapped || mode == NM_LOCK_WRITE;
        b->lockCount = 1;
        _locked += size;
        *address = mem;
        return NM_OK;
    }
};

Manager& manager() {
    static Manager* m = new Manager;
    return *m;
}

}  // namespace

int nmAlloc(std::uint64_t size, int flags, int reserved, NmHandle* handle, const char* /*name*/) {
    if (!handle) return NM_INVALID_ARGUMENT;
    *handle = 0;
    if (size == 0 || flags != 0 || reserved != 0) return NM_INVALID_ARGUMENT;
    if (size > (std::uint64_t(1) << 47)) return NM_OUT_OF_MEMORY;
    auto block = std::make_unique<Block>();
    block->size = size;
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    block->id = m._nextId++;
    *handle = block->id;
    m._blocks.emplace(block->id, std::move(block));
    return NM_OK;
}

int nmLock(NmHandle handle, int mode, void** address) {
    return manager().lockBlock(handle, mode, address);
}

int nmUnlock(NmHandle handle) {
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    Block* b = m.find(handle);
    if (!b) return NM_INVALID_HANDLE;
    if (b->state != State::Resident || b->lockCount == 0) return NM_NOT_LOCKED;
    if (--b->lockCount == 0) {
        m._locked -= b->size;
        m.lruPushBack(b);
    }
    return NM_OK;
}

int nmFree(NmHandle handle) {
    Manager& m = manager();
    std::unique_ptr<Block> gone;
    {
        thread::ScopedLock<thread::Mutex> lock(m._mutex);
        Block* b = m.findSettled(lock, handle);
        if (!b) return NM_INVALID_HANDLE;
        if (b->lockCount > 0) return NM_OBJECT_LOCKED;
        m.lruRemove(b);
        if (b->memory) m._resident -= b->size;
        if (b->state == State::Swapped) m._swapped -= b->size;
        m.releaseSlot(b);
        auto it = m._blocks.find(handle);
        gone = std::move(it->second);
        m._blocks.erase(it);
    }
    freeBlockMemory(gone->memory, gone->size);
    return NM_OK;
}

int nmClearUnlocked(std::uint32_t megabytes) {
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    return m.clearTo(lock, std::uint64_t(megabytes) * kMegabyte);
}

int nmSetSwapPath(const char* path) {
    if (!path || !*path) return NM_INVALID_ARGUMENT;
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    if (m._swapped > 0 || m._transfers > 0) return NM_BUSY;
    std::string dir = path;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (!std::filesystem::is_directory(dir, ec)) return NM_INVALID_ARGUMENT;
    if (m._fd >= 0 && dir != m._swapDir) {
        // No block lives only on disk: forget the slots and start a new file under the new path.
        for (auto& [id, b] : m._blocks) {
            b->slotOffset = -1;
            b->slotSize = 0;
            b->dirty = true;
        }
        m._freeSlots.clear();
        ::close(m._fd);
        m._fd = -1;
        m._fileEnd = 0;
    }
    m._swapDir = dir;
    removeStaleFiles(dir);
    return NM_OK;
}

int nmSetPhysicalMemoryLimit(std::uint32_t megabytes) {
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    m._limitMb = megabytes;
    return NM_OK;
}

int nmStatus(NmHandle handle) {
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    Block* b = m.find(handle);
    if (!b) return NM_INVALID_HANDLE;
    switch (b->state) {
        case State::Cleared:
        case State::Filling:
            return NM_OBJECT_CLEARED;
        case State::Swapped:
        case State::ReadingIn:
            return NM_OBJECT_SWAPPED;
        default:
            return NM_OBJECT_RESIDENT;
    }
}

int nmGetStatistic(NmStatistic* s) {
    if (!s) return NM_INVALID_ARGUMENT;
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    s->memoryObjectCount = static_cast<std::uint32_t>(m._blocks.size());
    s->cacheFileCount = m._fd >= 0 ? 1 : 0;
    s->pageSize = static_cast<std::uint32_t>(kPageSize);
    s->memoryLimit = m._limitMb;
    s->memoryAllocated = m._resident;
    s->discAllocated = m._swapped;
    s->readOperations = m._reads;
    s->writeOperations = m._writes;
    s->lockedBytes = m._locked;
    s->swapFileBytes = m._fileEnd;
    s->droppedClean = m._droppedClean;
    return NM_OK;
}

std::uint64_t nmCountLocked() {
    Manager& m = manager();
    thread::ScopedLock<thread::Mutex> lock(m._mutex);
    return m._locked;
}

int nmRelease() {
    Manager& m = manager();
    std::vector<std::pair<void*, std::uint64_t>> memory;
    {
        thread::ScopedLock<thread::Mutex> lock(m._mutex);
        QOR_ASSERT(m._transfers == 0);
        for (auto& [id, b] : m._blocks)
            if (b->memory && !inTransfer(b->state)) memory.emplace_back(b->memory, b->size);
        m._blocks.clear();
        m._lru.clear();
        m._freeSlots.clear();
        if (m._fd >= 0) {
            ::close(m._fd);
            m._fd = -1;
        }
        m._fileEnd = 0;
        m._resident = m._outgoing = m._locked = m._swapped = 0;
        m._reads = m._writes = m._droppedClean = 0;
    }
    for (auto& [p, size] : memory) freeBlockMemory(p, size);
    mappingCache().clear();
    return NM_OK;
}

std::string toString(int status) {
    switch (status) {
        case NM_OK:
            return "NM_OK";
        case NM_INVALID_HANDLE:
            return "NM_INVALID_HANDLE";
        case NM_OUT_OF_MEMORY:
            return "NM_OUT_OF_MEMORY";
        case NM_IO_ERROR:
            return "NM_IO_ERROR";
        case NM_NOT_LOCKED:
            return "NM_NOT_LOCKED";
        case NM_OBJECT_CLEARED:
            return "NM_OBJECT_CLEARED";
        case NM_OBJECT_LOCKED:
            return "NM_OBJECT_LOCKED";
        case NM_OBJECT_SWAPPED:
            return "NM_OBJECT_SWAPPED";
        case NM_OBJECT_RESIDENT:
            return "NM_OBJECT_RESIDENT";
        case NM_INVALID_ARGUMENT:
            return "NM_INVALID_ARGUMENT";
        case NM_BUSY:
            return "NM_BUSY";
        default:
            return "NM_UNKNOWN(" + std::to_string(status) + ")";
    }
}

std::string toString(const NmStatistic& s) {
    std::ostringstream out;
    out << "objects " << s.memoryObjectCount << ", files " << s.cacheFileCount << ", page "
        << s.pageSize << ", limit " << s.memoryLimit << " MB, resident " << s.memoryAllocated
        << ", on disk " << s.discAllocated << ", reads " << s.readOperations << ", writes "
        << s.writeOperations << ", locked " << s.lockedBytes << ", file " << s.swapFileBytes
        << ", dropped clean " << s.droppedClean;
    return out.str();
}

void* allocLargeBuffer(std::uint64_t size) {
    if (size == 0) return nullptr;
    return allocBlockMemory(size, true);
}

void freeLargeBuffer(void* p, std::uint64_t size) { freeBlockMemory(p, size); }

}  // namespace qor::memory
