// The fixed costs of the tile pipeline, apart from any pixel work:
//   BM_CacheHit_GetTiles   ImageSource::getTiles of one tile that the tile cache holds at the
//                          source's version: the synchronous road that ends in the cache.
//                          range(0): tiles on a side of the source (the tile array that getTiles
//                          fills has one entry per tile of the layout).
//   BM_CacheHit_Lookup     TileCache::getLifeTile alone, the lookup that road makes, with as many
//                          entries in the cache as the source has tiles.
//   BM_JobOverhead         getTiles of every tile of a source whose computeTileData only hands
//                          back a tile made beforehand: the request, the job graph, the merger,
//                          the executor and the delivery of each tile, per tile. range(0) = 1
//                          with caching (each iteration raises the version first, untimed, so
//                          that every tile is computed again and stored), 0 without (notify jobs);
//                          range(1): tiles on a side of the source, all of them asked for.
// Each reports items (tiles) per second; the time per tile is its inverse.

#include <benchmark/benchmark.h>

#include <algorithm>

#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/TileCache.h"

namespace {

using namespace qor;
using namespace qor::imaging;

constexpr int kTileSide = 8;  // pixels on a tile's side

// A source of `tiles` x `tiles` tiles whose computation returns the same prepared tile.
class TrivialSource : public ImageSource {
public:
    static SharedPtr<TrivialSource> create(int tiles) {
        auto* s = new TrivialSource(tiles);
        return std::static_pointer_cast<TrivialSource>(s->setupSelfRef());
    }
    TileLayout tileLayout() const override { return _layout; }

protected:
    explicit TrivialSource(int tiles)
        : ImageSource(GenVec<int, 2>(tiles * kTileSide, tiles * kTileSide), PfRGBA8),
          _layout(size(), GenVec<int, 2>(kTileSide, kTileSide), GenVec<int, 2>(0, 0), size()),
          _tile(makeTile()) {}
    SharedPtr<const ImageTile> computeTileData(unsigned, unsigned) override { return _tile; }

private:
    // A tile whose pixels have been written, so that it has a storage.
    static SharedPtr<const ImageTile> makeTile() {
        SharedPtr<ImageTile> tile = ImageTile::create(GenVec<int, 2>(kTileSide, kTileSide), PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int y = 0; y < kTileSide; ++y) std::fill_n(data->row(y), kTileSide * 4, 128);
        return tile;
    }

    TileLayout _layout;
    SharedPtr<const ImageTile> _tile;
};

ImageSource::TileSet allTiles(int tiles) {
    ImageSource::TileSet all;
    for (int y = 0; y < tiles; ++y)
        for (int x = 0; x < tiles; ++x) all.insert(GenVec<int, 2>(x, y));
    return all;
}

// A source whose every tile the cache holds at its current version.
SharedPtr<TrivialSource> cachedSource(int tiles) {
    TileCache::enable();
    auto source = TrivialSource::create(tiles);
    source->getTiles(allTiles(tiles), false, nullptr, {});
    return source;
}

void BM_CacheHit_GetTiles(benchmark::State& state) {
    const int tiles = int(state.range(0));
    auto source = cachedSource(tiles);
    const GenVec<int, 2> middle(tiles / 2, tiles / 2);
    const ImageSource::TileSet one{middle};
    ImageSource::TileArray out;
    for (auto _ : state) {
        source->getTiles(out, one, false, nullptr, {});
        benchmark::DoNotOptimize(out(middle.x, middle.y).get());
    }
    if (!out(middle.x, middle.y)) state.SkipWithError("the tile was not served");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CacheHit_GetTiles)->Arg(1)->Arg(16)->Arg(64);

void BM_CacheHit_Lookup(benchmark::State& state) {
    constexpr int kTiles = 64;
    auto source = cachedSource(kTiles);
    const Recti rect = source->getTileRect(kTiles / 2, kTiles / 2);
    const unsigned version = source->version();
    for (auto _ : state) {
        auto tile = TileCache::getLifeTile(source.get(), rect, version);
        benchmark::DoNotOptimize(tile.get());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CacheHit_Lookup);

void BM_JobOverhead(benchmark::State& state) {
    const bool caching = state.range(0) != 0;
    const int tiles = int(state.range(1));
    TileCache::enable();
    auto source = TrivialSource::create(tiles);
    source->enableCaching(caching);
    const ImageSource::TileSet all = allTiles(tiles);
    ImageSource::TileArray out;
    for (auto _ : state) {
        state.PauseTiming();
        source->incrementVersion();
        state.ResumeTiming();
        source->getTiles(out, all, false, nullptr, {});
    }
    for (int y = 0; y < tiles; ++y)
        for (int x = 0; x < tiles; ++x)
            if (!out(x, y)) {
                state.SkipWithError("a tile was not delivered");
                return;
            }
    state.SetItemsProcessed(state.iterations() * tiles * tiles);
}
BENCHMARK(BM_JobOverhead)
    ->ArgsProduct({{0, 1}, {16, 64}})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
