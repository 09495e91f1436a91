// The thumbnail chain, each figure beside its anchor in the same run:
//   RamHit:          get of a thumbnail the memory link holds, over 256 items in turn.
//   MutexMapHit:     the anchor: the same lookups in a std::map under a std::mutex, copying the
//                    shared pointer: the floor of a locked lookup.
//   DiskHit:         get of a 256 px thumbnail the disk link holds (the store's read and the
//                    JPEG decode), over 64 items in turn.
//   DecodeOnly:      the anchor: decodeThumbnail of the same bytes from memory: what the disk
//                    hit adds to it is the store.
//   Make:            the same thumbnails made from the 1600 x 1200 JPEG files: what a hit saves.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/cache/DynamicHDCache.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ImageCacheDHD.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/ImageCacheSource.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"
#include "imageio/ImageIO.h"

namespace {

using namespace qor;
using imagecache::kGridThumbnailSide;

constexpr int kFiles = 64;

// A folder of kFiles JPEGs of 1600 x 1200, made once for the whole run, and a chain over them.
struct Fixture {
    std::string folder;
    ResourceManager manager;
    std::vector<ResourceID> ids;
    std::unique_ptr<DynamicHDCache> store;
    std::unique_ptr<imagecache::ImageCacheSource> source;
    std::unique_ptr<imagecache::ImageCacheDHD> disk;

    Fixture() {
        const char* tmp = std::getenv("TMPDIR");
        folder = std::string(tmp && *tmp ? tmp : "/tmp") + "/qor-bench-imagecache";
        filesystem::removeAll(folder);
        filesystem::createDirectoryFromUrl(folder);
        for (int i = 0; i < kFiles; ++i) {
            imageio::ImagePtr image = imageio::Image4ub::create(1600, 1200);
            for (int y = 0; y < 1200; ++y) {
                unsigned char* row = image->data() + y * image->stride();
                for (int x = 0; x < 1600; ++x) {
                    row[x * 4] = (unsigned char)(x * 7 + i);
                    row[x * 4 + 1] = (unsigned char)(y * 3);
                    row[x * 4 + 2] = (unsigned char)((x ^ y) + i * 5);
                    row[x * 4 + 3] = 255;
                }
            }
            const std::string path = folder + "/p" + std::to_string(i) + ".jpg";
            imageio::saveJpeg(FastString<char>(path), image, 90);
            ids.push_back(manager.add(manager.nameFromLocalPath(path)));
        }
        store = std::make_unique<DynamicHDCache>(folder + "/cache", uint64_t(256) << 20);
        source = std::make_unique<imagecache::ImageCacheSource>(&manager);
        disk = std::make_unique<imagecache::ImageCacheDHD>(source.get(), store.get());
        for (ResourceID id : ids) disk->get(id, kGridThumbnailSide);
    }
    ~Fixture() {
        disk.reset();
        store.reset();
        filesystem::removeAll(folder);
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void RamHit(benchmark::State& state) {
    Fixture& f = fixture();
    imagecache::ImageCacheRAM ram(f.disk.get(), uint64_t(256) << 20);
    std::vector<ResourceID> ids;
    for (int i = 0; i < 256; ++i) {
        ids.push_back(f.ids[i % kFiles]);
        ram.get(ids.back(), kGridThumbnailSide + i / kFiles);  // 256 distinct entries
    }
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 255;
        benchmark::DoNotOptimize(ram.get(ids[k], kGridThumbnailSide + int(k / kFiles)));
    }
}
BENCHMARK(RamHit);

void MutexMapHit(benchmark::State& state) {
    std::mutex mutex;
    std::map<std::pair<int, int>, imageio::ConstImagePtr> map;
    imageio::ConstImagePtr image = imageio::Image4ub::create(256, 192);
    for (int i = 0; i < 256; ++i) map[{i % kFiles, kGridThumbnailSide + i / kFiles}] = image;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 255;
        std::lock_guard<std::mutex> lock(mutex);
        imageio::ConstImagePtr copy = map[{int(k % kFiles), kGridThumbnailSide + int(k / kFiles)}];
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(MutexMapHit);

void DiskHit(benchmark::State& state) {
    Fixture& f = fixture();
    size_t i = 0;
    for (auto _ : state) {
        imagecache::Thumbnail t = f.disk->get(f.ids[i++ % kFiles], kGridThumbnailSide);
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(DiskHit)->Unit(benchmark::kMicrosecond);

void DecodeOnly(benchmark::State& state) {
    Fixture& f = fixture();
    std::vector<std::string> blobs;
    for (ResourceID id : f.ids) {
        const std::string path = f.manager.localPath(id);
        std::string bytes;
        f.store->get(
            imagecache::ImageCacheDHD::key(f.manager.persistentString(id), kGridThumbnailSide,
                                           filesystem::lastWriteTime(path).microseconds()),
            bytes);
        blobs.push_back(std::move(bytes));
    }
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(imagecache::decodeThumbnail(blobs[i++ % kFiles]));
}
BENCHMARK(DecodeOnly)->Unit(benchmark::kMicrosecond);

void Make(benchmark::State& state) {
    Fixture& f = fixture();
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(f.source->get(f.ids[i++ % kFiles], kGridThumbnailSide));
}
BENCHMARK(Make)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
