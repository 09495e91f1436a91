// DynamicHDCache (blobs in one SQLite database) beside the other way to store them: one file a
// blob in a sharded folder tree (256 folders by a byte of the key's hash), written to a temporary
// and renamed, with the index (key, file, size, last use) in a SQLite table in write-ahead mode,
// one transaction a put, as a crash-safe file store needs it. The peer keeps the index in memory
// as the cache does, so a hit reads no index.
//   Put:     a new blob under a new key, the cache under its limit (no eviction); 1000 puts.
//   PutEvict: the same into a full cache: each put evicts the least recently used entry.
//   GetHit:  a 20 KB blob of 2000 read back by key, in random order (warm: in the page cache).
//   Open:    opening a store of 5000 entries of 20 KB (index read into memory), then closing.
// Arg: blob size in KB. The stores live under $TMPDIR (or /tmp) and are removed at the end.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/cache/DynamicHDCache.h"

namespace {

namespace fs = std::filesystem;

std::string benchFolder(const char* name) {
    const char* tmp = std::getenv("TMPDIR");
    fs::path p =
        fs::path(tmp && *tmp ? tmp : "/tmp") / ("qor-dhd-bench-" + std::to_string(::getpid()));
    p /= name;
    fs::remove_all(p);
    fs::create_directories(p);
    return p.string();
}

std::string blob(size_t size, int seed) {
    std::string b(size, '\0');
    std::mt19937 random{unsigned(seed)};
    for (char& c : b) c = char(random());
    return b;
}

std::string keyOf(int i) {
    return "/photos/2024/IMG_" + std::to_string(i) + ".JPG\n256\n1700000000";
}

// The file store of the comparison.
class FileStore {
public:
    FileStore(std::string folder, uint64_t limit) : _folder(std::move(folder)), _limit(limit) {
        check(sqlite3_open((_folder + "/index.db").c_str(), &_db), "open");
        exec(
            "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
            "CREATE TABLE IF NOT EXISTS entries(key BLOB PRIMARY KEY, file INTEGER, size INTEGER,"
            " used INTEGER)");
        sqlite3_stmt* s = prepare("SELECT key, file, size, used FROM entries");
        while (sqlite3_step(s) == SQLITE_ROW) {
            Entry e{sqlite3_column_int64(s, 1), uint64_t(sqlite3_column_int64(s, 2)),
                    uint64_t(sqlite3_column_int64(s, 3))};
            std::string key(static_cast<const char*>(sqlite3_column_blob(s, 0)),
                            size_t(sqlite3_column_bytes(s, 0)));
            _tick = std::max(_tick, e.used);
            _next = std::max(_next, e.file + 1);
            _bytes += e.size;
            _byUse[e.used] = key;
            _entries.emplace(std::move(key), e);
        }
        sqlite3_finalize(s);
        _put = prepare("INSERT OR REPLACE INTO entries(key, file, size, used) VALUES(?1,?2,?3,?4)");
        _del = prepare("DELETE FROM entries WHERE key = ?1");
        for (int i = 0; i < 256; ++i) fs::create_directories(shard(i));
    }
    ~FileStore() {
        sqlite3_finalize(_put);
        sqlite3_finalize(_del);
        sqlite3_close(_db);
    }

    bool put(const std::string& key, const std::string& data) {
        const int64_t file = _next++;
        const std::string path = pathOf(file), temp = path + ".tmp";
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || ::write(fd, data.data(), data.size()) != ssize_t(data.size())) return false;
        ::close(fd);
        if (::rename(temp.c_str(), path.c_str()) != 0) return false;
        std::vector<std::string> victims;
        uint64_t total = _bytes + data.size();
        for (auto it = _byUse.begin(); it != _byUse.end() && total > _limit; ++it) {
            victims.push_back(it->second);
            total -= _entries[it->second].size;
        }
        exec("BEGIN");
        for (const std::string& v : victims) {
            sqlite3_bind_blob(_del, 1, v.data(), int(v.size()), SQLITE_STATIC);
            sqlite3_step(_del);
            sqlite3_reset(_del);
        }
        const uint64_t used = ++_tick;
        sqlite3_bind_blob(_put, 1, key.data(), int(key.size()), SQLITE_STATIC);
        sqlite3_bind_int64(_put, 2, file);
        sqlite3_bind_int64(_put, 3, int64_t(data.size()));
        sqlite3_bind_int64(_put, 4, int64_t(used));
        sqlite3_step(_put);
        sqlite3_reset(_put);
        exec("COMMIT");
        // The files of evicted entries go once the index no longer names them.
        for (const std::string& v : victims) {
            Entry& e = _entries[v];
            ::unlink(pathOf(e.file).c_str());
            _bytes -= e.size;
            _byUse.erase(e.used);
            _entries.erase(v);
        }
        _entries[key] = Entry{file, data.size(), used};
        _byUse[used] = key;
        _bytes += data.size();
        return true;
    }
    bool get(const std::string& key, std::string& out) {
        auto it = _entries.find(key);
        if (it == _entries.end()) return false;
        int fd = ::open(pathOf(it->second.file).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return false;
        out.resize(it->second.size);
        const bool ok = ::read(fd, out.data(), out.size()) == ssize_t(out.size());
        ::close(fd);
        _byUse.erase(it->second.used);
        it->second.used = ++_tick;
        _byUse[it->second.used] = key;
        return ok;
    }
    size_t count() const { return _entries.size(); }

private:
    struct Entry {
        int64_t file;
        uint64_t size;
        uint64_t used;
    };
    std::string shard(int i) const {
        char name[8];
        std::snprintf(name, sizeof name, "/%02x", i);
        return _folder + name;
    }
    std::string pathOf(int64_t file) const {
        return shard(int(std::hash<int64_t>{}(file)&0xff)) + "/" + std::to_string(file);
    }
    void check(int rc, const char* what) {
        if (rc != SQLITE_OK) throw std::runtime_error(std::string("file store: ") + what);
    }
    void exec(const char* sql) { check(sqlite3_exec(_db, sql, nullptr, nullptr, nullptr), sql); }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* s = nullptr;
        check(sqlite3_prepare_v2(_db, sql, -1, &s, nullptr), sql);
        return s;
    }

    std::string _folder;
    uint64_t _limit;
    sqlite3* _db = nullptr;
    sqlite3_stmt* _put = nullptr;
    sqlite3_stmt* _del = nullptr;
    std::map<std::string, Entry> _entries;
    std::map<uint64_t, std::string> _byUse;
    uint64_t _tick = 0, _bytes = 0;
    int64_t _next = 1;
};

constexpr uint64_t kHuge = uint64_t(1) << 40;
constexpr int kStored = 2000;
constexpr int kOpenEntries = 5000;

// A fresh folder for one case, removed at its end.
struct BenchFolder {
    std::string path;
    explicit BenchFolder(const char* name) : path(benchFolder(name)) {}
    ~BenchFolder() { fs::remove_all(path); }
};

size_t blobSize(const benchmark::State& state) { return size_t(state.range(0)) * 1024; }

// Puts entries first .. last - 1: one blob for all, or a blob of its own each.
template <class Store>
void fill(Store& store, int first, int last, size_t size, bool distinct) {
    const std::string shared = blob(size, 3);
    for (int i = first; i < last; ++i) store.put(keyOf(i), distinct ? blob(size, i) : shared);
}

template <class Store>
void runPut(benchmark::State& state, const char* name, bool full) {
    const size_t size = blobSize(state);
    BenchFolder folder(name);
    Store store(folder.path, full ? uint64_t(kStored) * size : kHuge);
    const std::string data = blob(size, 1);
    int i = full ? kStored : 0;
    if (full) fill(store, 0, kStored, size, false);
    for (auto _ : state) {
        if (!store.put(keyOf(i++), data)) state.SkipWithError("put failed");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}

template <class Store>
void runGet(benchmark::State& state, const char* name) {
    const size_t size = blobSize(state);
    BenchFolder folder(name);
    Store store(folder.path, kHuge);
    fill(store, 0, kStored, size, true);
    std::vector<std::string> keys;
    std::mt19937 random(7);
    for (int i = 0; i < 4096; ++i) keys.push_back(keyOf(int(random() % kStored)));
    std::string out;
    size_t n = 0;
    for (auto _ : state) {
        if (!store.get(keys[n++ & 4095], out)) state.SkipWithError("miss");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}

template <class Store>
void runOpen(benchmark::State& state, const char* name) {
    BenchFolder folder(name);
    {
        Store store(folder.path, kHuge);
        fill(store, 0, kOpenEntries, blobSize(state), false);
    }
    for (auto _ : state) {
        Store store(folder.path, kHuge);
        if (store.count() != size_t(kOpenEntries)) state.SkipWithError("entries lost");
    }
}

struct CacheStore : qor::DynamicHDCache {
    using DynamicHDCache::DynamicHDCache;
    bool put(const std::string& key, const std::string& data) {
        return DynamicHDCache::put(key, data.data(), data.size());
    }
    using DynamicHDCache::get;
};

void BM_Put_Cache(benchmark::State& s) { runPut<CacheStore>(s, "put-cache", false); }
void BM_Put_Files(benchmark::State& s) { runPut<FileStore>(s, "put-files", false); }
void BM_PutEvict_Cache(benchmark::State& s) { runPut<CacheStore>(s, "evict-cache", true); }
void BM_PutEvict_Files(benchmark::State& s) { runPut<FileStore>(s, "evict-files", true); }
void BM_GetHit_Cache(benchmark::State& s) { runGet<CacheStore>(s, "get-cache"); }
void BM_GetHit_Files(benchmark::State& s) { runGet<FileStore>(s, "get-files"); }
void BM_Open_Cache(benchmark::State& s) { runOpen<CacheStore>(s, "open-cache"); }
void BM_Open_Files(benchmark::State& s) { runOpen<FileStore>(s, "open-files"); }

BENCHMARK(BM_Put_Cache)->Arg(5)->Arg(20)->Arg(200)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Put_Files)->Arg(5)->Arg(20)->Arg(200)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PutEvict_Cache)->Arg(20)->Iterations(2000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PutEvict_Files)->Arg(20)->Iterations(2000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetHit_Cache)->Arg(5)->Arg(20)->Arg(200)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetHit_Files)->Arg(5)->Arg(20)->Arg(200)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Open_Cache)->Arg(20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Open_Files)->Arg(20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
