#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "imaging/ImageMemoryManager.h"
#include "imaging/ManagedMemoryAllocator.h"
#include "imaging/MemoryManagerInitializer.h"
#include "imaging/SwitchedLockableMemoryAllocator.h"

using namespace qor;
using namespace qor::imaging;
using namespace qor::memory;

namespace {

NmStatistic stats() {
    NmStatistic s;
    EXPECT_EQ(nmGetStatistic(&s), NM_OK);
    return s;
}

// Each test starts with a fresh default stack over its own swap folder.
class ImageMemory : public ::testing::Test {
protected:
    void SetUp() override {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-imem-XXXXXX";
        ASSERT_TRUE(::mkdtemp(pattern.data()));
        _dir = pattern;
        ImageMemoryManager::initSwapDir(_dir.c_str());
        ImageMemoryManager::setPhysicalMemoryLimit(512);
    }
    void TearDown() override {
        ImageMemoryManager::release();
        nmRelease();
        std::error_code ec;
        std::filesystem::remove_all(_dir, ec);
    }
    std::string _dir;
};

TEST(ChooseAllocator, SendsBlocksThatFillTheir64KiBUnitsPoorlyToThePool) {
    ChooseAllocator choose;
    EXPECT_EQ(choose(65536), 1);
    EXPECT_EQ(choose(65535), 2);
    EXPECT_EQ(choose(1000), 2);
    EXPECT_EQ(choose(81920), 1) << "a ratio of exactly 0.2 stays with whole blocks";
    EXPECT_EQ(choose(81921), 2);
    EXPECT_EQ(choose(10 * 65536 + 100), 1);
}

TEST_F(ImageMemory, DefaultStackKeepsWholeBlocksAndPoolApartAndCountsFootprints) {
    LockableMemoryHandle* whole = ImageMemoryManager::alloc(65536);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(stats().memoryObjectCount, 1u);
    LockableMemoryHandle* small = ImageMemoryManager::alloc(1000);
    LockableMemoryHandle* small2 = ImageMemoryManager::alloc(1000);
    EXPECT_EQ(stats().memoryObjectCount, 2u) << "the two small blocks share one 4 MiB chunk";

    auto* p = static_cast<unsigned char*>(ImageMemoryManager::lock(whole, false));
    ASSERT_NE(p, nullptr);
    std::memset(p, 0xA5, 65536);
    auto* q = static_cast<unsigned char*>(ImageMemoryManager::lock(small, false));
    ASSERT_NE(q, nullptr);
    std::memset(q, 0x3C, 1000);
    EXPECT_EQ(ImageMemoryManager::memoryFootprint(whole), 65536u + 12);
    ImageMemoryManager::unlock(whole);
    ImageMemoryManager::unlock(small);

    ASSERT_EQ(nmClearUnlocked(0), NM_OK);
    EXPECT_EQ(ImageMemoryManager::memoryFootprint(whole), 12u) << "swapped out: the handle only";
    p = static_cast<unsigned char*>(ImageMemoryManager::lock(whole, true));
    q = static_cast<unsigned char*>(ImageMemoryManager::lock(small, true));
    ASSERT_TRUE(p && q);
    EXPECT_EQ(p[0], 0xA5);
    EXPECT_EQ(p[65535], 0xA5);
    EXPECT_EQ(q[999], 0x3C);
    ImageMemoryManager::unlock(whole);
    ImageMemoryManager::unlock(small);
    ImageMemoryManager::free(whole);
    ImageMemoryManager::free(small);
    ImageMemoryManager::free(small2);
    EXPECT_EQ(stats().memoryObjectCount, 0u);
}

TEST_F(ImageMemory, EveryAllocationFirstClearsToThePresentLevel) {
    LockableMemoryHandle* a = ImageMemoryManager::alloc(1 << 20);
    void* p = ImageMemoryManager::lock(a, false);
    ASSERT_NE(p, nullptr);
    ImageMemoryManager::unlock(a);
    // The level is 512 (then 480): a megabyte stays in memory.
    LockableMemoryHandle* b = ImageMemoryManager::alloc(1 << 20);
    EXPECT_EQ(ImageMemoryManager::memoryFootprint(a), (1u << 20) + 12) << "still resident";
    // At level 0 the next allocation swaps every unlocked block out.
    internal::s_clearLevel = 0;
    LockableMemoryHandle* c = ImageMemoryManager::alloc(1 << 20);
    EXPECT_EQ(stats().memoryAllocated, 0u);
    EXPECT_EQ(stats().writeOperations, 1u);
    EXPECT_EQ(internal::s_clearLevel.load(), 480u) << "a good allocation relaxes the level";
    for (auto* h : {a, b, c}) ImageMemoryManager::free(h);
}

TEST_F(ImageMemory, ReadLockOfANeverWrittenBlockFailsWithoutRunningHandlers) {
    LockableMemoryHandle* h = ImageMemoryManager::alloc(65536);
    ASSERT_NE(h, nullptr);
    const unsigned level = internal::s_clearLevel.load();
    LogCapture log;
    EXPECT_EQ(ImageMemoryManager::lock(h, true), nullptr);
    EXPECT_TRUE(log.contains("FAILED TO LOCK DATA: NM_OBJECT_CLEARED"));
    EXPECT_TRUE(log.contains(
        "Memory manager could not lock the handle: the memory has never been written to."));
    EXPECT_FALSE(log.contains("bad_alloc: nmClearUnlocked"));
    EXPECT_EQ(internal::s_clearLevel.load(), level);
    ImageMemoryManager::free(h);
}

TEST_F(ImageMemory, InitializerLowersTheClearLevelByAStepAndThrowsBelowIt) {
    ImageMemoryManager::setPhysicalMemoryLimit(64);
    auto initializer = internal::MemoryManagerInitializer::instance();
    ASSERT_TRUE(initializer);
    LogCapture log;
    EXPECT_TRUE(NewHandler::callOurHandlers());
    EXPECT_EQ(internal::s_clearLevel.load(), 32u);
    EXPECT_TRUE(log.contains("bad_alloc: nmClearUnlocked ( 64 ) called"));
    initializer->freeMemory();
    EXPECT_EQ(internal::s_clearLevel.load(), 0u);
    EXPECT_THROW(initializer->freeMemory(), std::bad_alloc);
    EXPECT_TRUE(log.contains("bad_alloc: nmClearUnlocked ( 1 ) called"));
    EXPECT_FALSE(NewHandler::callOurHandlers());

    LockableMemoryHandle* h = ImageMemoryManager::alloc(65536);
    EXPECT_EQ(internal::s_clearLevel.load(), 32u);
    ImageMemoryManager::free(h);
}

TEST_F(ImageMemory, FailedLockRunsTheHandlersUntilTheyGiveUp) {
    ImageMemoryManager::setPhysicalMemoryLimit(64);
    ImageMemoryManager::memoryAllocator();
    ManagedMemoryAllocator managed;
    auto* h = dynamic_cast<ManagedMemoryAllocator::MemoryHandle*>(managed.alloc(100));
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(nmFree(h->_mManagerHandle), NM_OK);  // the library no longer knows it
    EXPECT_EQ(internal::s_clearLevel.load(), 32u) << "the good allocation relaxed the level";

    LogCapture log;
    EXPECT_EQ(managed.lock(h, false), nullptr);
    EXPECT_EQ(log.count("FAILED TO LOCK DATA: NM_INVALID_HANDLE"), 2u);
    EXPECT_EQ(log.count("ImageMemoryManager::lock: Called new handler"), 1u) << "32, then give up";
    EXPECT_TRUE(log.contains("bad_alloc: nmClearUnlocked ( 1 ) called"));
    EXPECT_TRUE(log.contains("Memory manager could not lock the handle"));
    EXPECT_TRUE(log.contains("Memory manager internal statistics:"));
    EXPECT_TRUE(log.contains("memory object count: 0 cache file count: "));

    managed.unlock(h);
    EXPECT_TRUE(log.contains("Memory manager error: could not unlock image buffer: "));
    EXPECT_EQ(log.assertions("false"), 1u);
    managed.free(h);
    EXPECT_TRUE(log.contains("Memory manager error: could not free image buffer: "));
    EXPECT_EQ(log.assertions("false"), 1u) << "a failed free is only logged";
}

// An allocator on the process heap, to stand in for the default stack.
class HeapAllocator : public LockableMemoryAllocator {
public:
    struct H : LockableMemoryHandle {
        std::vector<char> data;
    };
    LockableMemoryHandle* alloc(unsigned size) override {
        ++allocs;
        auto* h = new H;
        h->data.resize(size);
        return h;
    }
    void free(LockableMemoryHandle* h) override { delete h; }
    void* lock(LockableMemoryHandle* h, bool) override { return static_cast<H*>(h)->data.data(); }
    void unlock(LockableMemoryHandle*) override {}
    std::size_t memoryFootprint(LockableMemoryHandle* h) override {
        return static_cast<H*>(h)->data.size();
    }
    int allocs = 0;
};

TEST_F(ImageMemory, AllocatorCanBeReplacedOnlyBeforeTheFirstAllocation) {
    auto heap = std::make_shared<HeapAllocator>();
    LogCapture log;
    ImageMemoryManager::setMemoryAllocator(heap);
    EXPECT_EQ(log.assertions(), 0u);
    LockableMemoryHandle* h = ImageMemoryManager::alloc(100);
    EXPECT_EQ(heap->allocs, 1);
    EXPECT_TRUE(internal::MemoryManagerInitializer::instance()) << "the initializer stays";
    ImageMemoryManager::setMemoryAllocator(std::make_shared<HeapAllocator>());
    EXPECT_EQ(log.assertions("!s_somethingWasAllocated && \"The allocator may only be set, if "
                             "nothing was allocated, yet.\""),
              1u);
    ImageMemoryManager::free(h);

    ImageMemoryManager::initSwapDir("");
    EXPECT_TRUE(log.contains("Could not set the Memory Manager swap path (NM_INVALID_ARGUMENT)!"));
}

TEST_F(ImageMemory, ReleaseShutsTheLibraryDownOnlyWhenNoBlockIsLeft) {
    LockableMemoryHandle* h = ImageMemoryManager::alloc(65536);
    std::memset(ImageMemoryManager::lock(h, false), 1, 65536);
    ImageMemoryManager::unlock(h);
    LogCapture log;
    ImageMemoryManager::release();
    EXPECT_TRUE(log.contains("Releasing ImageMemoryManager ressources"));
    EXPECT_TRUE(log.contains(
        "Unable to release MemoryManager as 1 objects (0.0625 MB, 0 MB on disk) are still held"));
    EXPECT_EQ(log.assertions("false"), 1u);
    EXPECT_EQ(log.assertions("s_memoryManager.unique() && \"No further references should be held "
                             "by now\""),
              1u);
    EXPECT_EQ(stats().memoryObjectCount, 1u) << "the library stays up";
    ImageMemoryManager::free(h);
    EXPECT_EQ(stats().memoryObjectCount, 0u) << "the last block took the old stack with it";

    // With nothing left, release ends in nmRelease: the swap file goes.
    ImageMemoryManager::initSwapDir(_dir.c_str());
    h = ImageMemoryManager::alloc(65536);
    std::memset(ImageMemoryManager::lock(h, false), 1, 65536);
    ImageMemoryManager::unlock(h);
    ASSERT_EQ(nmClearUnlocked(0), NM_OK);
    EXPECT_EQ(stats().cacheFileCount, 1u);
    ImageMemoryManager::free(h);
    log.clear();
    ImageMemoryManager::release();
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_EQ(stats().cacheFileCount, 0u);
    EXPECT_EQ(stats().writeOperations, 0u);
}

// Blocks that outlive release(), or a replacement of the allocator that came too late, stay with
// the stack that made them. They used to reach the new stack, whose pool took the old handle for
// one of its own and wrote through a chunk that the old pool had freed.
TEST_F(ImageMemory, BlocksThatOutliveTheirStackKeepWorkingOnIt) {
    // 1000 bytes go to the pool, 65536 to whole blocks: both kinds of handle.
    LockableMemoryHandle* small = ImageMemoryManager::alloc(1000);
    LockableMemoryHandle* large = ImageMemoryManager::alloc(65536);
    std::memset(ImageMemoryManager::lock(small, false), 7, 1000);
    ImageMemoryManager::unlock(small);
    std::memset(ImageMemoryManager::lock(large, false), 9, 65536);
    ImageMemoryManager::unlock(large);
    {
        LogCapture log;
        ImageMemoryManager::release();
        EXPECT_EQ(log.assertions("false"), 1u) << "the blocks still held are reported";
    }
    // A new stack, with a block of its own in a new pool chunk.
    LockableMemoryHandle* fresh = ImageMemoryManager::alloc(1000);
    std::memset(ImageMemoryManager::lock(fresh, false), 3, 1000);
    ImageMemoryManager::unlock(fresh);

    const auto* p = static_cast<const unsigned char*>(ImageMemoryManager::lock(small, true));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 7);
    EXPECT_EQ(p[999], 7);
    ImageMemoryManager::unlock(small);
    std::memset(ImageMemoryManager::lock(small, false), 5, 1000);
    ImageMemoryManager::unlock(small);
    EXPECT_GT(ImageMemoryManager::memoryFootprint(large), 65536u);
    p = static_cast<const unsigned char*>(ImageMemoryManager::lock(fresh, true));
    EXPECT_EQ(p[0], 3) << "writes to an old block land in the old stack";
    ImageMemoryManager::unlock(fresh);
    ImageMemoryManager::free(small);
    ImageMemoryManager::free(large);
    ImageMemoryManager::free(fresh);

    // The same after a replacement that came too late.
    LockableMemoryHandle* before = ImageMemoryManager::alloc(1000);
    std::memset(ImageMemoryManager::lock(before, false), 1, 1000);
    ImageMemoryManager::unlock(before);
    auto heap = std::make_shared<HeapAllocator>();
    {
        LogCapture log;
        ImageMemoryManager::setMemoryAllocator(heap);
        EXPECT_EQ(log.assertions(), 1u);
    }
    p = static_cast<const unsigned char*>(ImageMemoryManager::lock(before, true));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[500], 1);
    ImageMemoryManager::unlock(before);
    ImageMemoryManager::free(before);
    EXPECT_EQ(heap->allocs, 0) << "the old block never reached the new allocator";
}

// The level fell in three separate steps (read, test, subtract) while successful allocations on
// other threads stored the relaxed level in between: from 40 (a limit of 40 MB, relaxed 8) a fall
// computed from the old reading took it below zero, where it wrapped to about 4 * 10^9.
TEST_F(ImageMemory, ClearLevelNeverFallsBelowZeroUnderConcurrentAllocations) {
    ImageMemoryManager::setPhysicalMemoryLimit(40);
    auto initializer = internal::MemoryManagerInitializer::instance();
    ASSERT_TRUE(initializer);
    LogCapture log;  // each fall logs a line
    std::atomic<bool> stop{false};
    std::atomic<unsigned> highest{0};
    // Stands for allocations that succeed on another thread (each stores the relaxed level) and a
    // limit set again meanwhile (the level back at the limit).
    std::thread allocs([&] {
        while (!stop.load()) {
            internal::s_clearLevel.store(40);
            internal::s_clearLevel.store(internal::s_relaxedClearLevel.load());
        }
    });
    for (int i = 0; i < 20000; ++i) {
        try {
            initializer->freeMemory();
        } catch (const std::bad_alloc&) {
        }
        const unsigned level = internal::s_clearLevel.load();
        if (level > highest.load()) highest = level;
    }
    stop = true;
    allocs.join();
    EXPECT_LE(highest.load(), 40u);
}

}  // namespace
