#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "base/memory/GrowablePoolLockableMemory.h"
#include "base/memory/MemoryManager.h"
#include "base/memory/NewHandler.h"

using namespace qor::memory;

namespace {

constexpr std::uint64_t MB = 1048576;

bool fileExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::uint8_t pattern(std::uint64_t block, std::uint64_t i) {
    return static_cast<std::uint8_t>(block * 131 + i * 7 + (i >> 12));
}

void fill(void* p, std::uint64_t size, std::uint64_t block) {
    auto* b = static_cast<std::uint8_t*>(p);
    for (std::uint64_t i = 0; i < size; ++i) b[i] = pattern(block, i);
}

// Index of the first byte that differs from the pattern, or -1.
long long firstMismatch(const void* p, std::uint64_t size, std::uint64_t block) {
    auto* b = static_cast<const std::uint8_t*>(p);
    for (std::uint64_t i = 0; i < size; ++i)
        if (b[i] != pattern(block, i)) return static_cast<long long>(i);
    return -1;
}

NmStatistic stats() {
    NmStatistic s;
    EXPECT_EQ(nmGetStatistic(&s), NM_OK);
    return s;
}

// Every test starts the library afresh over its own swap folder and shuts it down at the end.
class MemoryManager : public ::testing::Test {
protected:
    void SetUp() override {
        nmRelease();
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-mem-XXXXXX";
        ASSERT_TRUE(::mkdtemp(pattern.data()));
        _dir = pattern;
        ASSERT_EQ(nmSetSwapPath(_dir.c_str()), NM_OK);
        nmSetPhysicalMemoryLimit(512);
    }
    void TearDown() override {
        nmRelease();
        std::error_code ec;
        std::filesystem::remove_all(_dir, ec);
    }

    NmHandle allocWritten(std::uint64_t size, std::uint64_t tag) {
        NmHandle h = 0;
        EXPECT_EQ(nmAlloc(size, 0, 0, &h, "test"), NM_OK);
        void* p = nullptr;
        EXPECT_EQ(nmLock(h, NM_LOCK_WRITE, &p), NM_OK);
        if (p) fill(p, size, tag);
        EXPECT_EQ(nmUnlock(h), NM_OK);
        return h;
    }

    std::string _dir;
};

class MemoryManagerThreads : public MemoryManager {};

TEST_F(MemoryManager, StatusesFollowTheLifeOfABlock) {
    NmHandle h = 0;
    ASSERT_EQ(nmAlloc(1000, 0, 0, &h, "test"), NM_OK);
    EXPECT_EQ(nmStatus(h), NM_OBJECT_CLEARED);
    EXPECT_EQ(toString(nmStatus(h)), "NM_OBJECT_CLEARED");

    void* p = reinterpret_cast<void*>(1);
    EXPECT_EQ(nmLock(h, NM_LOCK_READ, &p), NM_OBJECT_CLEARED);
    EXPECT_EQ(p, nullptr);
    ASSERT_EQ(nmLock(h, NM_LOCK_WRITE, &p), NM_OK);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(p)[999], 0) << "a first write lock gives zeroed memory";
    fill(p, 1000, 1);
    EXPECT_EQ(nmStatus(h), NM_OBJECT_RESIDENT);
    EXPECT_EQ(nmUnlock(h), NM_OK);

    EXPECT_EQ(nmClearUnlocked(0), NM_OK);
    EXPECT_EQ(nmStatus(h), NM_OBJECT_SWAPPED);
    ASSERT_EQ(nmLock(h, NM_LOCK_READ, &p), NM_OK);
    EXPECT_EQ(firstMismatch(p, 1000, 1), -1);
    EXPECT_EQ(nmStatus(h), NM_OBJECT_RESIDENT);
    EXPECT_EQ(nmUnlock(h), NM_OK);
    EXPECT_EQ(nmFree(h), NM_OK);
    EXPECT_EQ(nmStatus(h), NM_INVALID_HANDLE);

    EXPECT_EQ(nmAlloc(0, 0, 0, &h, "test"), NM_INVALID_ARGUMENT);
    EXPECT_EQ(toString(NM_OK), "NM_OK");
    EXPECT_EQ(toString(77), "NM_UNKNOWN(77)");
}

TEST_F(MemoryManager, KeepsLockCountsAndRefusesWrongUnlockAndFree) {
    NmHandle h = allocWritten(4096, 2);
    void* a = nullptr;
    void* b = nullptr;
    ASSERT_EQ(nmLock(h, NM_LOCK_READ, &a), NM_OK);
    ASSERT_EQ(nmLock(h, NM_LOCK_WRITE, &b), NM_OK);
    EXPECT_EQ(a, b);
    EXPECT_EQ(nmCountLocked(), 4096u) << "a block counts once however often it is locked";
    EXPECT_EQ(nmFree(h), NM_OBJECT_LOCKED);
    EXPECT_EQ(nmClearUnlocked(0), NM_OK);
    EXPECT_EQ(nmStatus(h), NM_OBJECT_RESIDENT) << "a locked block never goes to disk";
    EXPECT_EQ(nmUnlock(h), NM_OK);
    EXPECT_EQ(nmCountLocked(), 4096u);
    EXPECT_EQ(nmUnlock(h), NM_OK);
    EXPECT_EQ(nmCountLocked(), 0u);
    EXPECT_EQ(nmUnlock(h), NM_NOT_LOCKED);

    NmStatistic s = stats();
    EXPECT_EQ(s.memoryObjectCount, 1u);
    EXPECT_EQ(s.memoryAllocated, 4096u);
    EXPECT_EQ(s.memoryLimit, 512u);
    EXPECT_EQ(nmFree(h), NM_OK);
    EXPECT_EQ(nmFree(h), NM_INVALID_HANDLE);
    EXPECT_EQ(stats().memoryObjectCount, 0u);
    EXPECT_EQ(stats().memoryAllocated, 0u);
}

TEST_F(MemoryManager, ClearingSwapsOutLeastRecentlyUsedUnlockedBlocksOnly) {
    std::vector<NmHandle> h;
    for (int i = 0; i < 4; ++i) h.push_back(allocWritten(MB, i));
    void* p = nullptr;
    ASSERT_EQ(nmLock(h[3], NM_LOCK_WRITE, &p), NM_OK);
    // Use block 0 again: now 1 is the least recently used, then 2, then 0.
    ASSERT_EQ(nmLock(h[0], NM_LOCK_READ, &p), NM_OK);
    ASSERT_EQ(nmUnlock(h[0]), NM_OK);

    ASSERT_EQ(nmClearUnlocked(2), NM_OK);
    EXPECT_EQ(nmStatus(h[1]), NM_OBJECT_SWAPPED);
    EXPECT_EQ(nmStatus(h[2]), NM_OBJECT_SWAPPED);
    EXPECT_EQ(nmStatus(h[0]), NM_OBJECT_RESIDENT);
    EXPECT_EQ(nmStatus(h[3]), NM_OBJECT_RESIDENT);
    NmStatistic s = stats();
    EXPECT_EQ(s.memoryAllocated, 2 * MB);
    EXPECT_EQ(s.discAllocated, 2 * MB);
    EXPECT_EQ(s.writeOperations, 2u);
    EXPECT_EQ(s.cacheFileCount, 1u);

    ASSERT_EQ(nmClearUnlocked(0), NM_OK);
    EXPECT_EQ(nmStatus(h[0]), NM_OBJECT_SWAPPED);
    EXPECT_EQ(nmStatus(h[3]), NM_OBJECT_RESIDENT);

    // Read back and dropped again unchanged: no second write.
    ASSERT_EQ(nmLock(h[1], NM_LOCK_READ, &p), NM_OK);
    EXPECT_EQ(firstMismatch(p, MB, 1), -1);
    ASSERT_EQ(nmUnlock(h[1]), NM_OK);
    ASSERT_EQ(nmClearUnlocked(1), NM_OK);
    s = stats();
    EXPECT_EQ(s.writeOperations, 3u);
    EXPECT_EQ(s.droppedClean, 1u);
    EXPECT_EQ(s.readOperations, 1u);
    ASSERT_EQ(nmUnlock(h[3]), NM_OK);
    for (NmHandle x : h) EXPECT_EQ(nmFree(x), NM_OK);
    EXPECT_EQ(stats().discAllocated, 0u);
}

TEST_F(MemoryManager, EveryByteSurvivesSwappingThreeTimesTheLimit) {
    nmSetPhysicalMemoryLimit(1);
    const std::uint64_t size = 256 * 1024 + 123;  // not a multiple of the page size
    std::vector<NmHandle> h;
    for (std::uint64_t i = 0; i < 12; ++i) {
        h.push_back(allocWritten(size, i));
        EXPECT_LE(stats().memoryAllocated, MB + size);
    }
    NmStatistic s = stats();
    EXPECT_GE(s.writeOperations, 8u);
    EXPECT_GT(s.discAllocated, 2 * MB);

    // Back in reverse, then in a shuffled order, with writes in between so that slots move.
    for (std::uint64_t i = h.size(); i-- > 0;) {
        void* p = nullptr;
        ASSERT_EQ(nmLock(h[i], NM_LOCK_READ, &p), NM_OK);
        EXPECT_EQ(firstMismatch(p, size, i), -1) << "block " << i;
        ASSERT_EQ(nmUnlock(h[i]), NM_OK);
    }
    std::vector<std::uint64_t> order(h.size());
    for (std::uint64_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    for (std::uint64_t i : order) {
        void* p = nullptr;
        ASSERT_EQ(nmLock(h[i], NM_LOCK_WRITE, &p), NM_OK);
        ASSERT_EQ(firstMismatch(p, size, i), -1) << "block " << i;
        fill(p, size, i + 100);
        ASSERT_EQ(nmUnlock(h[i]), NM_OK);
    }
    EXPECT_EQ(nmFree(h[5]), NM_OK);  // its slot is reused by the next block
    h[5] = allocWritten(size, 105);
    for (std::uint64_t i = 0; i < h.size(); ++i) {
        void* p = nullptr;
        ASSERT_EQ(nmLock(h[i], NM_LOCK_READ, &p), NM_OK);
        EXPECT_EQ(firstMismatch(p, size, i + 100), -1) << "block " << i;
        ASSERT_EQ(nmUnlock(h[i]), NM_OK);
    }
    EXPECT_LE(stats().swapFileBytes, 13 * (size + 4096));
}

TEST_F(MemoryManager, BlocksOfEveryMemoryKindComeBackIntact) {
    // Heap, mapped, and mapped on huge-page boundaries; odd sizes end inside a page.
    const std::uint64_t sizes[] = {1000, 300 * 1024 + 1, 2 * MB + 4097, 5 * MB - 3};
    std::vector<NmHandle> h;
    for (std::uint64_t i = 0; i < 4; ++i) {
        NmHandle x = 0;
        ASSERT_EQ(nmAlloc(sizes[i], 0, 0, &x, "test"), NM_OK);
        void* p = nullptr;
        ASSERT_EQ(nmLock(x, NM_LOCK_WRITE, &p), NM_OK);
        auto* bytes = static_cast<unsigned char*>(p);
        EXPECT_EQ(bytes[0] | bytes[sizes[i] / 2] | bytes[sizes[i] - 1], 0) << "zeroed at first";
        fill(p, sizes[i], i);
        ASSERT_EQ(nmUnlock(x), NM_OK);
        h.push_back(x);
    }
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(nmClearUnlocked(0), NM_OK);
        for (std::uint64_t i = 0; i < 4; ++i) {
            EXPECT_EQ(nmStatus(h[i]), NM_OBJECT_SWAPPED);
            void* p = nullptr;
            ASSERT_EQ(nmLock(h[i], NM_LOCK_WRITE, &p), NM_OK);
            EXPECT_EQ(firstMismatch(p, sizes[i], i), -1) << "size " << sizes[i];
            ASSERT_EQ(nmUnlock(h[i]), NM_OK);
        }
    }
    for (NmHandle x : h) EXPECT_EQ(nmFree(x), NM_OK);

    // New blocks of the same sizes may get the freed memory back: zeroed all the same.
    for (std::uint64_t i = 0; i < 4; ++i) {
        NmHandle x = 0;
        ASSERT_EQ(nmAlloc(sizes[i], 0, 0, &x, "test"), NM_OK);
        void* p = nullptr;
        ASSERT_EQ(nmLock(x, NM_LOCK_WRITE, &p), NM_OK);
        const auto* bytes = static_cast<const unsigned char*>(p);
        EXPECT_EQ(std::count(bytes, bytes + sizes[i], 0), std::ptrdiff_t(sizes[i]))
            << "size " << sizes[i];
        ASSERT_EQ(nmUnlock(x), NM_OK);
        EXPECT_EQ(nmFree(x), NM_OK);
    }
}

// The swap file has no name, so a process leaves none behind however it ends: killed while blocks
// live only in the file, too. Named files that older versions left go at nmSetSwapPath.
TEST_F(MemoryManager, NoSwapFileIsLeftBehindAndOldOnesGoAtStart) {
    NmHandle h = allocWritten(10000, 1);
    ASSERT_EQ(nmClearUnlocked(0), NM_OK);
    EXPECT_EQ(stats().cacheFileCount, 1u);
    EXPECT_EQ(nmSetSwapPath(_dir.c_str()), NM_BUSY) << "a block lives only in the file";
    EXPECT_TRUE(std::filesystem::is_empty(_dir));
    void* p = nullptr;  // read back from the file that has no name
    ASSERT_EQ(nmLock(h, NM_LOCK_READ, &p), NM_OK);
    EXPECT_EQ(firstMismatch(p, 10000, 1), -1);
    ASSERT_EQ(nmUnlock(h), NM_OK);

    pid_t child = ::fork();
    if (child == 0) {
        NmHandle mine = allocWritten(10000, 2);
        if (nmClearUnlocked(0) != NM_OK || nmStatus(mine) != NM_OBJECT_SWAPPED) ::_exit(1);
        ::kill(::getpid(), SIGKILL);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the child swapped and was killed";
    EXPECT_TRUE(std::filesystem::is_empty(_dir));
    nmRelease();

    const std::string stale = _dir + "/qor-swap-" + std::to_string(child) + ".swp";
    const std::string other = _dir + "/qor-swap-notes.txt";
    std::ofstream(stale) << "old";
    std::ofstream(other) << "keep";
    ASSERT_EQ(nmSetSwapPath(_dir.c_str()), NM_OK);
    EXPECT_FALSE(fileExists(stale));
    EXPECT_TRUE(fileExists(other));
}

// A parent allocator on the process heap that counts its blocks.
class CountingHeap : public LockableMemoryAllocator {
public:
    struct H : LockableMemoryHandle {
        std::vector<char> data;
    };
    LockableMemoryHandle* alloc(unsigned size) override {
        ++live;
        auto* h = new H;
        h->data.resize(size);
        return h;
    }
    void free(LockableMemoryHandle* h) override {
        --live;
        delete h;
    }
    void* lock(LockableMemoryHandle* h, bool) override {
        ++locks;
        return static_cast<H*>(h)->data.data();
    }
    void unlock(LockableMemoryHandle*) override { --locks; }
    std::size_t memoryFootprint(LockableMemoryHandle* h) override {
        return static_cast<H*>(h)->data.size();
    }
    int live = 0;
    int locks = 0;
};

TEST(GrowablePoolLockableMemory, SuballocatesChunksAndGivesEmptyOnesBack) {
    auto heap = std::make_shared<CountingHeap>();
    GrowablePoolLockableMemory pool(heap, 65536, 0);
    std::vector<LockableMemoryHandle*> small;
    for (int i = 0; i < 20; ++i) small.push_back(pool.alloc(5000));
    EXPECT_EQ(pool.chunkCount(), 2u) << "13 blocks of 5000 bytes fit a chunk of 64 KiB";
    EXPECT_EQ(heap->live, 2);
    for (int i = 0; i < 20; ++i) {
        void* p = pool.lock(small[i], false);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
        std::memset(p, i, 5000);
        pool.unlock(small[i]);
    }
    for (int i = 0; i < 20; ++i) {
        auto* p = static_cast<unsigned char*>(pool.lock(small[i], true));
        EXPECT_EQ(p[0], i);
        EXPECT_EQ(p[4999], i) << "blocks do not overlap";
        pool.unlock(small[i]);
    }
    EXPECT_EQ(heap->locks, 0) << "every lock is passed through and undone";
    EXPECT_EQ(pool.memoryFootprint(small[0]), 5000u * 65536 / 65536);

    LockableMemoryHandle* big = pool.alloc(100000);
    EXPECT_EQ(heap->live, 3) << "a block above the chunk size has a parent block of its own";
    EXPECT_EQ(pool.memoryFootprint(big), 100000u);
    pool.free(big);

    // Free in a mixed order: ranges coalesce and a freed range is used again.
    for (int i = 0; i < 20; i += 2) pool.free(small[i]);
    LockableMemoryHandle* again = pool.alloc(9000);
    EXPECT_EQ(pool.chunkCount(), 2u);
    pool.free(again);
    for (int i = 1; i < 20; i += 2) pool.free(small[i]);
    EXPECT_EQ(pool.chunkCount(), 0u);
    EXPECT_EQ(heap->live, 0);
}

class TestHandler : public NewHandler {
public:
    TestHandler(bool helps, bool reg) : _helps(helps) {
        if (reg) registerHandler();
    }
    ~TestHandler() override { unregisterHandler(); }
    void freeMemory() override {
        ++calls;
        if (!_helps) throw std::bad_alloc();
    }
    int calls = 0;

private:
    bool _helps;
};

TEST(NewHandler, RunsTheChainAndTellsWhetherAnyHandlerHelped) {
    EXPECT_FALSE(NewHandler::callOurHandlers());
    TestHandler refuses(false, true);
    EXPECT_FALSE(NewHandler::callOurHandlers());
    EXPECT_EQ(refuses.calls, 1);
    {
        TestHandler helps(true, false);
        EXPECT_FALSE(helps.registered());
        helps.registerHandler();
        EXPECT_TRUE(NewHandler::callOurHandlers());
        EXPECT_EQ(helps.calls, 1);
        EXPECT_EQ(refuses.calls, 2) << "the chain goes on after a handler that cannot help";
    }
    EXPECT_FALSE(NewHandler::callOurHandlers()) << "a destroyed handler left the chain";
    refuses.unregisterHandler();
    EXPECT_FALSE(NewHandler::callOurHandlers());
    EXPECT_EQ(refuses.calls, 3);
}

// A handler whose members are set up in its constructor: the chain must not reach it before they
// are. With registration in the base constructor, a run of the chain on another thread called
// freeMemory of a half-built object (a pure virtual call, or members not yet set).
class SlowlyBuiltHandler : public NewHandler {
public:
    SlowlyBuiltHandler() {
        std::this_thread::sleep_for(std::chrono::microseconds(20));
        _ready = 0x600d;
        registerHandler();
    }
    ~SlowlyBuiltHandler() override {
        unregisterHandler();
        _ready = 0;
    }
    void freeMemory() override {
        if (_ready != 0x600d) ++halfBuilt;
        throw std::bad_alloc();
    }
    static std::atomic<int> halfBuilt;

private:
    int _ready = 0;
};
std::atomic<int> SlowlyBuiltHandler::halfBuilt{0};

TEST(NewHandlerThreads, TheChainNeverReachesAHandlerBeforeItsConstructorHasFinished) {
    std::atomic<bool> stop{false};
    std::thread runner([&] {
        while (!stop.load()) NewHandler::callOurHandlers();
    });
    for (int i = 0; i < 300; ++i) {
        SlowlyBuiltHandler handler;
        EXPECT_TRUE(handler.registered());
    }
    stop = true;
    runner.join();
    EXPECT_EQ(SlowlyBuiltHandler::halfBuilt.load(), 0);
}

TEST_F(MemoryManagerThreads, AllocLockWriteUnlockClearAtOnceKeepsContents) {
    nmSetPhysicalMemoryLimit(1);
    constexpr int kThreads = 4, kBlocks = 6, kRounds = 40;
    constexpr std::uint64_t kSize = 96 * 1024;
    std::atomic<int> failures{0};
    auto work = [&](int t) {
        std::mt19937 rng(t);
        std::vector<NmHandle> h(kBlocks, 0);
        std::vector<std::uint64_t> tag(kBlocks, 0);
        for (int r = 0; r < kRounds; ++r) {
            int i = static_cast<int>(rng() % kBlocks);
            void* p = nullptr;
            if (h[i] == 0) {
                if (nmAlloc(kSize, 0, 0, &h[i], "t") != NM_OK) ++failures;
            } else if (nmLock(h[i], NM_LOCK_READ, &p) != NM_OK ||
                       firstMismatch(p, kSize, tag[i]) != -1 || nmUnlock(h[i]) != NM_OK) {
                ++failures;
            }
            tag[i] = static_cast<std::uint64_t>(t * 1000 + r);
            if (nmLock(h[i], NM_LOCK_WRITE, &p) != NM_OK) {
                ++failures;
                continue;
            }
            fill(p, kSize, tag[i]);
            if (nmUnlock(h[i]) != NM_OK) ++failures;
            if (rng() % 4 == 0) nmClearUnlocked(static_cast<std::uint32_t>(rng() % 2));
            if (rng() % 8 == 0) {
                if (nmFree(h[i]) != NM_OK) ++failures;
                h[i] = 0;
            }
        }
        for (int i = 0; i < kBlocks; ++i) {
            if (!h[i]) continue;
            void* p = nullptr;
            if (nmLock(h[i], NM_LOCK_READ, &p) != NM_OK || firstMismatch(p, kSize, tag[i]) != -1)
                ++failures;
            else
                nmUnlock(h[i]);
            if (nmFree(h[i]) != NM_OK) ++failures;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(work, t);
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    NmStatistic s = stats();
    EXPECT_EQ(s.memoryObjectCount, 0u);
    EXPECT_EQ(s.memoryAllocated, 0u);
    EXPECT_EQ(s.discAllocated, 0u);
    EXPECT_EQ(s.lockedBytes, 0u);
    EXPECT_GT(s.writeOperations, 0u);
    EXPECT_GT(s.readOperations, 0u);
}

}  // namespace
