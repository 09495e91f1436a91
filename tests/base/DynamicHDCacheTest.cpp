#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../support/KillChild.h"
#include "../support/TempDir.h"
#include "FileTestHelpers.h"
#include "base/Log.h"
#include "base/cache/DynamicHDCache.h"

using namespace qor;
using qor::test::TempDir;

namespace {

// A blob whose every byte follows from its key and its length; the length is also in its first
// four bytes, so a torn or mixed-up blob never passes isBlobOf.
std::string blobFor(std::string_view key, size_t size) {
    std::string blob(size, '\0');
    uint64_t state = std::hash<std::string_view>{}(key) ^ (uint64_t(size) << 32);
    for (size_t i = 0; i < size; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        blob[i] = char(state >> 56);
    }
    const uint32_t length = uint32_t(size);
    std::memcpy(blob.data(), &length, std::min<size_t>(size, sizeof length));
    return blob;
}

bool isBlobOf(std::string_view key, const std::string& blob) {
    return blob == blobFor(key, blob.size());
}

bool putBlob(DynamicHDCache& cache, std::string_view key, size_t size) {
    const std::string blob = blobFor(key, size);
    return cache.put(key, blob.data(), blob.size());
}

// Whether `key` is stored with exactly the blob blobFor(key, size).
bool holds(DynamicHDCache& cache, std::string_view key, size_t size) {
    std::string out;
    return cache.get(key, out) && out == blobFor(key, size);
}

void rawSql(const std::string& path, const char* sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
}

std::string key(int i) { return "item" + std::to_string(i) + "\n64\n1000"; }

}  // namespace

// The limit holds after every put; the least recently used entries go first, a get counting as
// a use, and that order survives closing and reopening.
TEST(DynamicHDCache, EvictsLeastRecentlyUsedFirstAcrossReopening) {
    TempDir dir(nullptr, "qor-dhd");
    const std::string folder = dir / "cache";
    {
        DynamicHDCache cache(folder, 10000);
        for (int i = 0; i < 10; ++i) ASSERT_TRUE(putBlob(cache, key(i), 1000));
        EXPECT_EQ(cache.byteSize(), 10000u);
        EXPECT_TRUE(holds(cache, key(0), 1000));  // 0 is now the most recent
        ASSERT_TRUE(putBlob(cache, key(10), 1000));
        EXPECT_FALSE(cache.contains(key(1)));
        EXPECT_TRUE(cache.contains(key(0)));
        // Uses noted after the last put reach the file only when the object closes.
        EXPECT_TRUE(holds(cache, key(2), 1000));
        EXPECT_TRUE(holds(cache, key(3), 1000));
    }
    DynamicHDCache cache(folder, 10000);
    EXPECT_EQ(cache.count(), 10u);
    EXPECT_EQ(cache.byteSize(), 10000u);
    ASSERT_TRUE(putBlob(cache, key(11), 2500));
    EXPECT_LE(cache.byteSize(), 10000u);
    for (int gone : {4, 5, 6}) EXPECT_FALSE(cache.contains(key(gone))) << gone;
    for (int kept : {0, 2, 3, 7, 8, 9, 10, 11}) EXPECT_TRUE(cache.contains(key(kept))) << kept;
    for (int kept : {0, 2, 3, 7}) EXPECT_TRUE(holds(cache, key(kept), 1000)) << kept;

    // A lower limit evicts at once, in the same order.
    cache.setByteLimit(3000);
    EXPECT_LE(cache.byteSize(), 3000u);
    EXPECT_EQ(cache.byteLimit(), 3000u);
    EXPECT_TRUE(cache.contains(key(7)));
    EXPECT_FALSE(cache.contains(key(8)));
}

// Replacing keeps one entry with the new blob and the new size; a blob larger than the whole limit
// is refused and evicts nothing; empty keys and blobs are entries like others.
TEST(DynamicHDCache, ReplacesAndRefusesBlobsOverTheLimit) {
    TempDir dir(nullptr, "qor-dhd");
    DynamicHDCache cache(dir / "cache", 8000);
    ASSERT_TRUE(putBlob(cache, "a", 3000));
    ASSERT_TRUE(putBlob(cache, "b", 3000));
    ASSERT_TRUE(putBlob(cache, "a", 5000));  // replaces: 5000 + 3000 fit without eviction
    EXPECT_EQ(cache.count(), 2u);
    EXPECT_EQ(cache.byteSize(), 8000u);
    EXPECT_TRUE(holds(cache, "a", 5000));
    EXPECT_TRUE(holds(cache, "b", 3000));
    ASSERT_TRUE(putBlob(cache, "b", 6000));  // must evict "a", never itself
    EXPECT_EQ(cache.count(), 1u);
    EXPECT_TRUE(holds(cache, "b", 6000));

    {
        LogCapture log;
        EXPECT_FALSE(putBlob(cache, "big", 8001));
        EXPECT_EQ(log.entries().size(), 1u);
    }
    EXPECT_FALSE(cache.contains("big"));
    EXPECT_TRUE(holds(cache, "b", 6000));

    ASSERT_TRUE(cache.put("", "", 0));
    ASSERT_TRUE(cache.put("empty", nullptr, 0));
    std::string out = "stale";
    EXPECT_TRUE(cache.get("empty", out));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(cache.contains(""));
    EXPECT_TRUE(cache.remove("b"));
    EXPECT_FALSE(cache.remove("b"));
    EXPECT_EQ(cache.byteSize(), 0u);
    out = "untouched";
    EXPECT_FALSE(cache.get("b", out));
    EXPECT_EQ(out, "untouched");
    cache.clear();
    EXPECT_EQ(cache.count(), 0u);
}

// Prefix removal takes only keys that start with the prefix; renaming carries the blobs and their
// place in the order of use over, replaces what was under a new key, survives reopening, and
// works when the new prefix starts with the old one.
TEST(DynamicHDCache, RemovesAndRenamesByPrefix) {
    TempDir dir(nullptr, "qor-dhd");
    const std::string folder = dir / "cache";
    std::string out;
    {
        DynamicHDCache cache(folder, 100000);
        for (const char* k : {"p1\n64\n5", "p1\n256\n5", "p10\n64\n5", "p2\n64\n5", "p3\n64\n5"})
            ASSERT_TRUE(putBlob(cache, k, 1000));
        ASSERT_TRUE(putBlob(cache, "p2\n256\n5", 700));
        EXPECT_EQ(cache.removePrefix("p3\n"), 1u);
        EXPECT_EQ(cache.removePrefix("p9\n"), 0u);

        EXPECT_EQ(cache.renamePrefix("p1\n", "p2\n"), 2u);
        EXPECT_EQ(cache.count(), 3u);
        EXPECT_EQ(cache.byteSize(), 3000u);
        EXPECT_FALSE(cache.contains("p1\n64\n5"));
        EXPECT_TRUE(cache.contains("p10\n64\n5"));
        // The blob that was under "p1\n256\n5" now answers for "p2\n256\n5".
        ASSERT_TRUE(cache.get("p2\n256\n5", out));
        EXPECT_EQ(out, blobFor("p1\n256\n5", 1000));
    }
    DynamicHDCache cache(folder, 100000);
    EXPECT_EQ(cache.count(), 3u);
    ASSERT_TRUE(cache.get("p2\n64\n5", out));
    EXPECT_EQ(out, blobFor("p1\n64\n5", 1000));
    EXPECT_EQ(cache.renamePrefix("p", "pp"), 3u);
    ASSERT_TRUE(cache.get("pp10\n64\n5", out));
    EXPECT_EQ(out, blobFor("p10\n64\n5", 1000));
    EXPECT_TRUE(cache.contains("pp2\n64\n5"));
    EXPECT_EQ(cache.count(), 3u);

    // The renamed entries kept their age: the oldest still goes first.
    cache.setByteLimit(2000);
    EXPECT_FALSE(cache.contains("pp2\n256\n5"));  // put second, never used since
    EXPECT_TRUE(cache.contains("pp2\n64\n5"));    // used by the get above
}

// A file that is not a database, or a database of another version, is recreated empty with one
// log line; the cache then works as a new one.
TEST(DynamicHDCache, RecreatesADamagedStore) {
    TempDir dir(nullptr, "qor-dhd");
    const std::string folder = dir / "cache";
    const std::string db = folder + "/blobs.db";
    {
        DynamicHDCache cache(folder, 100000);
        ASSERT_TRUE(putBlob(cache, "a", 100));
    }
    test::writeText(db, std::string(8192, 'x'));
    {
        LogCapture log;
        DynamicHDCache cache(folder, 100000);
        EXPECT_EQ(log.count("recreated empty"), 1u);
        EXPECT_EQ(cache.count(), 0u);
        ASSERT_TRUE(putBlob(cache, "b", 100));
    }
    rawSql(db, "PRAGMA user_version=7");
    {
        LogCapture log;
        DynamicHDCache cache(folder, 100000);
        EXPECT_EQ(log.count("recreated empty"), 1u);
        EXPECT_FALSE(cache.contains("b"));
        ASSERT_TRUE(putBlob(cache, "c", 100));
    }
    LogCapture log;
    DynamicHDCache cache(folder, 100000);
    EXPECT_EQ(log.entries().size(), 0u);
    EXPECT_TRUE(holds(cache, "c", 100));
}

// A second process on the same folder is refused while the first holds it, and admitted after.
TEST(DynamicHDCache, RefusesASecondProcess) {
    TempDir dir(nullptr, "qor-dhd");
    const std::string folder = dir / "cache";
    auto openInChild = [&]() -> int {
        pid_t child = ::fork();
        if (child == 0) {
            int code = 0;
            try {
                LogCapture log;
                DynamicHDCache other(folder, 1000);
                code = 1;
            } catch (const DynamicHDCacheException& e) {
                code = std::strstr(e.what(), "in use by another process") ? 2 : 3;
            }
            ::_exit(code);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    {
        DynamicHDCache cache(folder, 1000);
        EXPECT_EQ(openInChild(), 2);
    }
    EXPECT_EQ(openInChild(), 1);
}

// The disk fills up (files may not grow: writes fail as on a full disk): put fails with one log
// line, every entry stays readable, and the cache grows no further. In a child process, which
// alone gets the file size limit.
TEST(DynamicHDCache, AFullDiskFailsPutsAndKeepsTheEntries) {
    TempDir dir(nullptr, "qor-dhd");
    const std::string folder = dir / "cache";
    {
        DynamicHDCache cache(folder, 1 << 20);
        for (int i = 0; i < 20; ++i) ASSERT_TRUE(putBlob(cache, key(i), 4000));
    }
    enum { Passed = 0, PutSucceeded, NotOneLogLine, EntryLost, Grew, Threw };
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int code = Passed;
        try {
            DynamicHDCache cache(folder, 1 << 20);
            struct rlimit limit {};
            ::getrlimit(RLIMIT_FSIZE, &limit);
            ::signal(SIGXFSZ, SIG_IGN);
            limit.rlim_cur = 32768;
            ::setrlimit(RLIMIT_FSIZE, &limit);
            const uint64_t before = cache.byteSize();
            {
                LogCapture log;
                if (putBlob(cache, "large", 200000))
                    code = PutSucceeded;
                else if (log.entries().size() != 1 || log.count("stops growing") != 1)
                    code = NotOneLogLine;
            }
            for (int i = 0; i < 20 && code == Passed; ++i)
                if (!holds(cache, key(i), 4000)) code = EntryLost;
            LogCapture quiet;
            for (int i = 0; i < 5 && code == Passed; ++i) {
                putBlob(cache, "small" + std::to_string(i), 3000);
                if (cache.byteSize() > before || cache.contains("large")) code = Grew;
            }
        } catch (const std::exception&) {
            code = Threw;
        }
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), Passed);
    DynamicHDCache cache(folder, 1 << 20);
    EXPECT_FALSE(cache.contains("large"));
    EXPECT_LE(cache.byteSize(), 20u * 4000);
}

namespace {

// The worker of the kill test, in a child process: puts blobs of random sizes under random keys,
// reads and removes some, and now and then removes a group, until it is killed.
[[noreturn]] void churnForever(const std::string& folder, uint64_t limit, unsigned seed) {
    try {
        LogCapture quiet;
        DynamicHDCache cache(folder, limit);
        std::mt19937 random(seed);
        std::string out;
        for (;;) {
            const int k = int(random() % 300);
            const std::string name = "g" + std::to_string(k % 10) + "\n" + std::to_string(k);
            const unsigned op = random() % 100;
            if (op < 70)
                putBlob(cache, name, 16 + random() % 40000);
            else if (op < 90)
                cache.get(name, out);
            else if (op < 99)
                cache.remove(name);
            else
                cache.removePrefix("g" + std::to_string(k % 10) + "\n");
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kill test worker: %s\n", e.what());
    }
    ::_exit(3);
}

}  // namespace

// Kills a writer at random moments, many times: each time, every entry that get returns is the
// blob put under its key, whole, and the entries are within the limit.
TEST(DynamicHDCache, AWriterKilledAtAnyMomentLeavesWholeEntries) {
    TempDir dir(nullptr, "qor-dhd");
    const std::string folder = dir / "cache";
    constexpr uint64_t limit = 600000;
    std::mt19937 random(std::random_device{}());
    int runs = 0, withEntries = 0;
    const auto start = std::chrono::steady_clock::now();
    while (runs < 30 || std::chrono::steady_clock::now() - start < std::chrono::seconds(6)) {
        if (runs >= 300) break;
        ++runs;
        const unsigned seed = unsigned(random());
        const int status = test::runAndKill(
            [&] { churnForever(folder, limit, seed); },
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 150000)(random)));
        ASSERT_TRUE(status != -1 && WIFSIGNALED(status))
            << "the writer stopped by itself, status " << status;

        LogCapture log;
        DynamicHDCache cache(folder, limit);
        ASSERT_EQ(log.count("recreated"), 0u) << "run " << runs;
        ASSERT_LE(cache.byteSize(), limit) << "run " << runs;
        uint64_t bytes = 0;
        size_t found = 0;
        std::string out;
        for (int k = 0; k < 300; ++k) {
            const std::string name = "g" + std::to_string(k % 10) + "\n" + std::to_string(k);
            if (!cache.get(name, out)) continue;
            ASSERT_TRUE(isBlobOf(name, out))
                << "a torn blob of " << out.size() << " bytes under " << k << ", run " << runs;
            bytes += out.size();
            ++found;
        }
        ASSERT_EQ(found, cache.count()) << "run " << runs;
        ASSERT_EQ(bytes, cache.byteSize()) << "run " << runs;
        ASSERT_EQ(log.entries().size(), 0u) << log.entries()[0].text;
        if (found > 0) ++withEntries;
    }
    EXPECT_GT(withEntries, runs / 4) << runs << " runs";
    std::printf("kill test: %d runs, %d with entries\n", runs, withEntries);
}

// Many threads put, read, remove and count at once: every hit is the blob of its key, and the
// totals agree with the entries at the end.
TEST(DynamicHDCacheThreads, ManyThreadsPutAndGetAtOnce) {
    TempDir dir(nullptr, "qor-dhd");
    DynamicHDCache cache(dir / "cache", 60000);
    std::atomic<int> torn{0}, overLimit{0}, hits{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(unsigned(t) * 7919u + 1u);
            std::string out;
            for (int i = 0; i < 300; ++i) {
                const std::string name = key(int(random() % 40));
                const unsigned op = random() % 10;
                if (op < 4) {
                    putBlob(cache, name, 100 + random() % 4000);
                    if (cache.byteSize() > cache.byteLimit()) ++overLimit;
                } else if (op < 8) {
                    if (cache.get(name, out)) {
                        ++hits;
                        if (!isBlobOf(name, out)) ++torn;
                    }
                } else if (op < 9) {
                    cache.remove(name);
                } else {
                    cache.contains(name);
                    cache.count();
                }
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(overLimit.load(), 0);
    EXPECT_GT(hits.load(), 0);
    uint64_t bytes = 0;
    std::string out;
    for (int k = 0; k < 40; ++k)
        if (cache.get(key(k), out)) bytes += out.size();
    EXPECT_EQ(bytes, cache.byteSize());
}
