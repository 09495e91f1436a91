// The metadata cache, each figure beside its anchor in the same run:
//   CachedGet:        get of a cached value (MetadataCacheRDB in front of the file reader, every
//                     item loaded), over 256 items in turn; counts allocations (a counting
//                     operator new) and read system calls (/proc/self/io) in the timed loop.
//   MutexMapGet:      the anchor: the same lookups in a std::unordered_map under a std::mutex.
//   FileGet:          the same value from the file reader alone: what the cache saves.
//   Flush500:         500 changed items (a new rating each) written by the cache's flush: 31
//                     setFields calls and one commit, on the worker; the sets are timed too.
//   ResourceDBWrite500: the anchor: the same 31 setFields calls and commit straight on a
//                     ResourceDB of the same layout, the floor of a flush.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/filesystem/Path.h"
#include "base/resource/ResourceDB.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imageio/ImageIO.h"

// Every allocation of the process, counted.
namespace {
std::atomic<uint64_t> g_allocations{0};
}  // namespace

// g++ takes the replaced operators' free for a mismatch with operator new.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace qor;
using imagecache::FileMetadataCache;
using imagecache::MetadataCacheRDB;
using imageio::MetadataField;
using Vec2i = imageio::Vec2i;

constexpr int kItems = 256;
constexpr int kFlushItems = 500;

// Read system calls of this process so far.
uint64_t readCalls() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value)
        if (key == "syscr:") return value;
    return 0;
}

// A folder of small JPEGs and the chain over them, made once.
struct Fixture {
    Fixture() {
        char pattern[] = "/tmp/qor-cache-bench-XXXXXX";
        folder = ::mkdtemp(pattern);
        imageio::initSupportedItemsList();
        const imageio::ImagePtr image = imageio::Image4ub::create(64, 48);
        std::memset(image->data(), 128, size_t(image->stride()) * 48);
        for (int i = 0; i < kFlushItems; ++i) {
            const std::string path = folder + "/p" + std::to_string(i) + ".jpg";
            imageio::saveJpeg(FastString<char>(path), image, 80);
            ids.push_back(manager.add(manager.nameFromLocalPath(path)));
        }
        cache = std::make_unique<MetadataCacheRDB>(&files, FastString<char>(folder + "/cache"),
                                                   nullptr, 0);
        for (ResourceID id : ids) cache->cacheImage(id);
        cache->waitForFlush();
    }
    ~Fixture() {
        cache.reset();
        filesystem::removeAll(folder);
    }

    std::string folder;
    ResourceManager manager;
    FileMetadataCache files{&manager};
    std::unique_ptr<MetadataCacheRDB> cache;
    std::vector<ResourceID> ids;
};

Fixture& fixture() {
    static Fixture* f = new Fixture;  // kept to the end: the benchmarks share it
    return *f;
}

void CachedGet(benchmark::State& state) {
    Fixture& f = fixture();
    Vec2i size;
    // Counted on a loop of its own: the timed loop's pauses are the framework's.
    constexpr int kCounted = 1 << 20;
    const uint64_t reads = readCalls();  // reading the count allocates: before the snapshot
    const uint64_t allocations = g_allocations.load();
    for (int n = 0; n < kCounted; ++n) {
        f.cache->get(f.ids[size_t(n & (kItems - 1))], MetadataField::Imagesize, size);
        benchmark::DoNotOptimize(size);
    }
    const uint64_t allocated = g_allocations.load() - allocations;
    const uint64_t read = readCalls() - reads - 1;  // less the count's own read
    int i = 0;
    for (auto _ : state) {
        f.cache->get(f.ids[size_t(i)], MetadataField::Imagesize, size);
        benchmark::DoNotOptimize(size);
        i = (i + 1) & (kItems - 1);
    }
    state.counters["allocs/get"] = double(allocated) / kCounted;
    state.counters["reads/get"] = double(read) / kCounted;
}
BENCHMARK(CachedGet);

void MutexMapGet(benchmark::State& state) {
    Fixture& f = fixture();
    std::mutex mutex;
    std::unordered_map<int32_t, Vec2i> sizes;
    for (int i = 0; i < kItems; ++i) sizes[f.ids[size_t(i)].index()] = Vec2i(64, 48);
    Vec2i size;
    int i = 0;
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            auto it = sizes.find(f.ids[size_t(i)].index());
            if (it != sizes.end()) size = it->second;
        }
        benchmark::DoNotOptimize(size);
        i = (i + 1) & (kItems - 1);
    }
}
BENCHMARK(MutexMapGet);

void FileGet(benchmark::State& state) {
    Fixture& f = fixture();
    Vec2i size;
    int i = 0;
    for (auto _ : state) {
        f.files.get(f.ids[size_t(i)], MetadataField::Imagesize, size);
        benchmark::DoNotOptimize(size);
        i = (i + 1) & (kItems - 1);
    }
}
BENCHMARK(FileGet);

void Flush500(benchmark::State& state) {
    Fixture& f = fixture();
    int rating = 0;
    for (auto _ : state) {
        ++rating;
        for (ResourceID id : f.ids) f.cache->set(id, MetadataField::Rating, rating % 6);
        f.cache->flush(false);
        f.cache->waitForFlush();
    }
}
BENCHMARK(Flush500)->Unit(benchmark::kMillisecond)->UseRealTime();

void ResourceDBWrite500(benchmark::State& state) {
    Fixture& f = fixture();
    ResourceDB db(f.folder + "/anchor");
    std::vector<ResourceDB::DBFieldDesc> fields;
    {
        ResourceDB cacheDb(f.cache->databasePath());
        cacheDb.open(true);
        fields = cacheDb.getFieldList();
    }
    db.create(MetadataCacheRDB::DatabaseCapacity, fields);
    std::vector<ResourceDB::RecordIndex> records;
    for (int i = 0; i < kFlushItems; ++i) records.push_back(db.addRecord("p" + std::to_string(i)));
    db.flush();
    std::vector<std::vector<uint8_t>> values(fields.size());
    for (size_t k = 0; k < fields.size(); ++k)
        values[k].assign(kFlushItems * ResourceDB::fieldSize(fields[k].type), 1);
    for (auto _ : state) {
        for (size_t k = 0; k < fields.size(); ++k) {
            values[k][0]++;
            db.setFields(int(k), records, values[k].data());
        }
        db.flush();
    }
}
BENCHMARK(ResourceDBWrite500)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
