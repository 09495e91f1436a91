// qor pipeline --size WxH --scale S [--cache-mb N] [--batch N] [--check] [--save FILE]: scales a
// generated image through the tile pipeline and reports the throughput.
//
// With --save, the scaled image is written to FILE (.jpg, .tif or .exr) through the image saver
// instead, which asks for every tile in line order and writes row by row: the report gives the
// wall time and the peak memory of the whole save. The tile cache limit is then 64 MB unless set:
// a save reads each tile once, and the pixel memory limit (twice the cache limit and a step) is
// what bounds the tiles computed ahead of the writer.
//
// The input is a procedural RGBA8 source whose pixel (x, y) is (x & 255, y & 255, (x + y) & 255,
// 255), cut into tiles of the CPU preferred size; a ScaledImageSource reduces it by the factor S
// (area averaging) and every tile of the scaled image is fetched through requests. The input's
// pixels are never held whole: tiles are asked for in batches of consecutive tiles in row order,
// at most two batches at a time (one running, one waiting), each batch small enough that the input
// tiles its job graph holds stay within half the tile cache limit (but at least two tiles, one for
// each worker). The cache itself holds at most its
// limit, so the peak memory is about one and a half times the limit whatever the image's size.
// --batch sets the tiles per request instead (the memory then grows with it: a request's job graph
// holds every tile it computed until the request ends).
//
// Output (standard output): the geometry, the tile count, the wall time, the tiles per second, the
// mean of every channel of the scaled image (the same figure `vips avg` gives of the same
// reduction) and the tile cache's statistics. A progress bar is redrawn on standard error when it
// is a terminal. Ctrl-C cancels the running requests and exits with status 130. With --check,
// sampled pixels of every tile are compared with a direct computation and any difference makes
// the exit status 1.
//
// Threads: the main thread submits batches, draws the progress bar and waits; tiles arrive on the
// job system's workers, which update the shared counters under `Progress::mutex`.

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Commands.h"
#include "SaveImage.h"
#include "base/memory/MemoryManager.h"
#include "base/thread/Mutex.h"
#include "imaging/Image.h"
#include "imaging/ImageMemoryManager.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/ScaledImageSource.h"
#include "imaging/TileCache.h"
#include "imaging/TileScoreFunctions.h"

namespace qor::tool {

namespace {

using imaging::ComputedTileInfo;
using imaging::ImageSource;
using imaging::ImageTile;
using imaging::RequestHandle;
using imaging::ScaledImageSource;
using imaging::TileLayout;
using math::GenVec;
using math::Recti;

constexpr unsigned long kMaxSide = 1ul << 20;
constexpr double kMaxScale = 16.0;

// Channel `c` of input pixel (x, y).
inline unsigned inputValue(int x, int y, int c) {
    switch (c) {
        case 0:
            return unsigned(x) & 255u;
        case 1:
            return unsigned(y) & 255u;
        case 2:
            return unsigned(x + y) & 255u;
        default:
            return 255u;
    }
}

// The generated input. Each tile is computed on a worker when a request needs it.
class PatternSource : public ImageSource {
public:
    static SharedPtr<PatternSource> create(GenVec<int, 2> size) {
        auto* source = new PatternSource(size);
        return std::static_pointer_cast<PatternSource>(source->setupSelfRef());
    }
    TileLayout tileLayout() const override { return _layout; }

protected:
    explicit PatternSource(GenVec<int, 2> size)
        : ImageSource(size, imaging::PfRGBA8),
          _layout(size, getCPUPreferredTileSize(), GenVec<int, 2>(0, 0), size) {}

    SharedPtr<const ImageTile> computeTileData(unsigned x, unsigned y) override {
        const Recti rect = _layout.getTileRect(int(x), int(y));
        SharedPtr<ImageTile> tile = ImageTile::create(rect.size(), imaging::PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < rect.height(); ++j) {
            const std::uint32_t yy = std::uint32_t(rect.ymin() + j);
            unsigned char* row = data->row(j);
            for (int i = 0; i < rect.width(); ++i) {
                const std::uint32_t xx = std::uint32_t(rect.xmin() + i);
                if constexpr (std::endian::native == std::endian::little) {
                    // One word per pixel, bytes R, G, B, A in memory: the loop vectorises.
                    const std::uint32_t word =
                        (xx & 255u) | (yy & 255u) << 8 | ((xx + yy) & 255u) << 16 | 0xff000000u;
                    std::memcpy(row + i * 4, &word, 4);
                } else {
                    for (int c = 0; c < 4; ++c)
                        row[i * 4 + c] = (unsigned char)inputValue(int(xx), int(yy), c);
                }
            }
        }
        return tile;
    }

private:
    TileLayout _layout;
};

// The input pixels under output pixel `o` along one axis, each with the length it shares with
// [o / scale, (o + 1) / scale) clipped to [0, n).
std::vector<std::pair<int, double>> axisCover(int o, double scale, int n) {
    const double from = o / scale, to = std::min((o + 1) / scale, double(n));
    std::vector<std::pair<int, double>> cover;
    for (int i = int(std::floor(from)); i < int(std::ceil(to)); ++i) {
        const double share = std::min(i + 1.0, to) - std::max(double(i), from);
        if (share > 0) cover.emplace_back(i, share);
    }
    return cover;
}

// The scaled pixel (ox, oy), channel c, computed directly: the area-weighted mean of the input
// pixels under it, rounded.
unsigned directScaled(int ox, int oy, int c, double scale, GenVec<int, 2> inSize) {
    double sum = 0, area = 0;
    for (const auto& [iy, wy] : axisCover(oy, scale, inSize.y))
        for (const auto& [ix, wx] : axisCover(ox, scale, inSize.x)) {
            sum += wx * wy * inputValue(ix, iy, c);
            area += wx * wy;
        }
    return area > 0 ? unsigned(std::min(255.0, sum / area + 0.5)) : 0u;
}

// Sampled pixels of `tile` (at `rect` of the scaled image) that differ from directScaled by more
// than 1: the pipeline sums rows before columns, so a mean that lies on .5 may round either way.
unsigned long sampleMismatches(const ImageTile& tile, const Recti& rect, double scale,
                               GenVec<int, 2> inSize) {
    auto data = tile.getDataRGBA8();
    if (!data) return 1;
    unsigned long bad = 0;
    const int w = rect.width(), h = rect.height();
    const int xs[] = {0, w / 3, w / 2, w - 1}, ys[] = {0, h / 4, (2 * h) / 3, h - 1};
    for (int j : ys)
        for (int i : xs) {
            const unsigned char* px = data->row(j) + i * 4;
            for (int c = 0; c < 4; ++c) {
                const int want =
                    int(directScaled(rect.xmin() + i, rect.ymin() + j, c, scale, inSize));
                if (std::abs(int(px[c]) - want) > 1) {
                    ++bad;
                    break;
                }
            }
        }
    return bad;
}

// The sum of every channel of every pixel of `tile`.
std::uint64_t channelSum(const ImageTile& tile) {
    auto data = tile.getDataRGBA8();
    if (!data) return 0;
    std::uint64_t sum = 0;
    for (int j = 0; j < tile.height(); ++j) {
        const unsigned char* row = data->row(j);
        std::uint32_t rowSum = 0;
        for (int i = 0; i < tile.width() * 4; ++i) rowSum += row[i];
        sum += rowSum;
    }
    return sum;
}

// What the requests have delivered so far; written by the workers, read by the main thread.
struct Progress {
    Mutex mutex;  // guards every field below
    ConditionVariable changed;
    unsigned long tiles = 0;
    unsigned long batchesEnded = 0;
    unsigned long bad = 0;
    std::uint64_t sum = 0;
    bool failed = false;
    std::string failure;
};

volatile std::sig_atomic_t g_interrupted = 0;
extern "C" void onInterrupt(int) { g_interrupted = 1; }

// Parses "WxH" into sides from 1 to kMaxSide.
bool parseSize(const std::string& text, unsigned long& w, unsigned long& h) {
    const size_t x = text.find('x');
    if (x == std::string::npos) return false;
    return parseCount(text.substr(0, x), w) && parseCount(text.substr(x + 1), h) && w >= 1 &&
           h >= 1 && w <= kMaxSide && h <= kMaxSide;
}

bool parseScale(const std::string& text, double& scale) {
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, scale);
    return ec == std::errc() && ptr == end && !text.empty() && std::isfinite(scale) && scale > 0 &&
           scale <= kMaxScale;
}

struct Options {
    unsigned long width = 0, height = 0;
    double scale = 0;
    unsigned long cacheMb = 0;  // 0: 256, or 64 with --save (a save reads each tile once)
    unsigned long batch = 0;    // tiles per request; 0: from the cache limit
    bool check = false;
    std::string save;  // write the scaled image here instead of fetching its tiles
};

// Fills `o` from the arguments; returns the exit status of a usage error, or 0.
int parseOptions(const std::vector<std::string>& args, Options& o) {
    bool haveSize = false, haveScale = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& option = args[i];
        if (option == "--check") {
            o.check = true;
            continue;
        }
        if (option != "--size" && option != "--scale" && option != "--cache-mb" &&
            option != "--batch" && option != "--save")
            return usageError("pipeline: unknown option '" + option + "'");
        if (i + 1 >= args.size()) return usageError("pipeline: " + option + " needs a value");
        const std::string& value = args[++i];
        if (option == "--save") {
            if (!savableExtension(value))
                return usageError(
                    "pipeline: --save needs a file name ending in .jpg, .tif or .exr");
            o.save = value;
        } else if (option == "--size") {
            if (!parseSize(value, o.width, o.height))
                return usageError("pipeline: --size must be WIDTHxHEIGHT, each from 1 to " +
                                  std::to_string(kMaxSide));
            haveSize = true;
        } else if (option == "--scale") {
            if (!parseScale(value, o.scale))
                return usageError("pipeline: --scale must be a number above 0 and at most 16");
            haveScale = true;
        } else if (option == "--batch") {
            if (!parseCount(value, o.batch) || o.batch < 1 || o.batch > (1ul << 32))
                return usageError("pipeline: --batch must be a number from 1 to 2^32");
        } else if (!parseCount(value, o.cacheMb) || o.cacheMb < 16 || o.cacheMb > 65536) {
            return usageError("pipeline: --cache-mb must be a number from 16 to 65536");
        }
    }
    if (o.cacheMb == 0) o.cacheMb = o.save.empty() ? 256 : 64;
    if (!haveSize) return usageError("pipeline: --size WIDTHxHEIGHT is required");
    if (!haveScale) return usageError("pipeline: --scale S is required");
    return 0;
}

// The bytes of input tiles that the job graph of one output tile holds until its request ends,
// plus the output tile itself.
unsigned long long bytesPerOutputTile(const ScaledImageSource& scaled) {
    const TileLayout in = scaled.input()->source()->tileLayout();
    const Recti foot = scaled.inputFootprint(scaled.tileLayout().getTileRect(0, 0));
    const auto tilesOn = [](int extent, int tile) { return (extent + tile - 2) / tile + 1; };
    const unsigned long long inputTiles = (unsigned long long)tilesOn(foot.width(), in.tileSize.x) *
                                          tilesOn(foot.height(), in.tileSize.y);
    const unsigned long long tileBytes = 4ull * in.tileSize.x * in.tileSize.y;
    const GenVec<int, 2> out = scaled.tileLayout().tileSize;
    return inputTiles * tileBytes + 4ull * out.x * out.y;
}

}  // namespace

int runPipelineDemo(const std::vector<std::string>& args) {
    Options o;
    if (int status = parseOptions(args, o)) return status;
    const GenVec<int, 2> inSize(int(o.width), int(o.height));
    const GenVec<int, 2> outSize = ScaledImageSource::scaledSize(inSize, o.scale);
    if ((unsigned long long)outSize.x * outSize.y > (1ull << 32))
        return usageError("pipeline: the scaled image would exceed 2^32 pixels");

    // Pixel memory stays resident up to twice the cache limit (the cache and the job graphs of
    // the batches) and the manager's step (it swaps down to the limit less one step once it has
    // allocated); only beyond that would tiles be written to the swap file.
    const unsigned long long limit = (unsigned long long)o.cacheMb << 20;
    imaging::ImageMemoryManager::setPhysicalMemoryLimit(unsigned(2 * o.cacheMb + 32));
    imaging::TileCache::setMemoryLimit(limit);
    imaging::TileCache::enable();

    auto input = PatternSource::create(inSize);
    auto scaled = ScaledImageSource::create(imaging::Image::create(input), o.scale);
    if (!o.save.empty()) {
        SaveOptions options;
        options.command = "pipeline";
        const auto begin = std::chrono::steady_clock::now();
        const int status = saveImage(imaging::Image::create(scaled), o.save, options);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        struct rusage usage {};
        getrusage(RUSAGE_SELF, &usage);
        memory::NmStatistic nm;
        memory::nmGetStatistic(&nm);
        if (status == 0)
            std::printf(
                "saved %s: %dx%d, wall %.3f s, %.1f Mpixel/s; swap-outs %llu; peak RSS %ld MB\n",
                o.save.c_str(), outSize.x, outSize.y, seconds,
                double(outSize.x) * outSize.y / seconds / 1e6,
                (unsigned long long)nm.writeOperations, usage.ru_maxrss / 1024);
        scaled.reset();
        input.reset();
        imaging::TileCache::clearCache();
        imaging::ImageMemoryManager::release();
        return status;
    }

    const TileLayout layout = scaled->tileLayout();
    const GenVec<int, 2> count = layout.tileCount;
    const unsigned long total = (unsigned long)count.x * (unsigned long)count.y;
    const unsigned long perBatch = (unsigned long)std::min<unsigned long long>(
        total, o.batch ? o.batch
                       : std::max<unsigned long long>(limit / 2 / bytesPerOutputTile(*scaled), 2));
    const unsigned long batches = (total + perBatch - 1) / perBatch;
    std::printf(
        "input %lux%lu RGBA8 in tiles of %dx%d, scaled by %g to %dx%d: %lu tiles in %lu "
        "batches of up to %lu tiles, tile cache limit %lu MB\n",
        o.width, o.height, input->tileLayout().tileSize.x, input->tileLayout().tileSize.y, o.scale,
        outSize.x, outSize.y, total, batches, perBatch, o.cacheMb);

    Progress progress;
    auto onTile = [&](const ComputedTileInfo& info) {
        if (info.type == ComputedTileInfo::RequestEnded) {
            ScopedLock<Mutex> lock(progress.mutex);
            ++progress.batchesEnded;
            if (info.status != ComputedTileInfo::Success && !progress.failed) {
                progress.failed = true;
                progress.failure = info.status == ComputedTileInfo::Cancelled ? "cancelled"
                                   : info.status == ComputedTileInfo::Outdated
                                       ? "outdated"
                                       : info.errorMessage.c_str();
            }
            progress.changed.notifyAll();
            return;
        }
        const Recti rect = layout.getTileRect(info.pos.x, info.pos.y);
        const std::uint64_t sum = channelSum(*info.tile);
        const unsigned long bad = o.check ? sampleMismatches(*info.tile, rect, o.scale, inSize) : 0;
        ScopedLock<Mutex> lock(progress.mutex);
        ++progress.tiles;
        progress.sum += sum;
        progress.bad += bad;
        progress.changed.notifyAll();
    };

    const bool bar = progressBarWanted();
    void (*previous)(int) = std::signal(SIGINT, onInterrupt);
    auto score = std::make_shared<imaging::LineOrderScoreFunction>();
    std::deque<SharedPtr<RequestHandle>> running;  // the batches not yet ended, oldest first
    unsigned long submitted = 0, drawn = ~0ul;
    bool interrupted = false;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        while (running.size() < 2 && submitted < batches) {
            ImageSource::TileSet tiles;
            for (unsigned long i = submitted * perBatch;
                 i < std::min(total, (submitted + 1) * perBatch); ++i)
                tiles.insert(
                    GenVec<int, 2>(int(i % unsigned(count.x)), int(i / unsigned(count.x))));
            running.push_back(scaled->requestTiles(tiles, score, onTile, true, {}));
            ++submitted;
        }
        unsigned long tiles = 0, ended = 0;
        bool failed = false;
        {
            ScopedLock<Mutex> lock(progress.mutex);
            progress.changed.timedWait(lock, 0.1);
            tiles = progress.tiles;
            ended = progress.batchesEnded;
            failed = progress.failed;
        }
        while (!running.empty() && running.front()->finished()) running.pop_front();
        if (bar && tiles != drawn) drawProgressBar(drawn = tiles, total, "tiles", false);
        interrupted = g_interrupted != 0;
        if (interrupted || failed) {
            for (const auto& handle : running) handle->cancel();
            break;
        }
        if (ended == batches) break;
    }
    {
        // Every batch submitted ends with one end record, the last call of its callback; after a
        // cancel that record still comes, so nothing touches `progress` once they are all in.
        ScopedLock<Mutex> lock(progress.mutex);
        progress.changed.wait(lock, [&] { return progress.batchesEnded == submitted; });
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::signal(SIGINT, previous);

    // Every worker is done with `progress` now (see above).
    const int status = [&] {
        if (bar) drawProgressBar(progress.tiles, total, "tiles", true);
        if (interrupted) {
            std::fprintf(stderr, "qor: pipeline: interrupted after %lu of %lu tiles\n",
                         progress.tiles, total);
            return 130;
        }
        if (progress.failed) {
            std::fprintf(stderr, "qor: pipeline: a request failed: %s\n", progress.failure.c_str());
            return 1;
        }
        imaging::TileCache::Statistics stats;
        imaging::TileCache::getStatistics(stats);
        memory::NmStatistic nm;
        memory::nmGetStatistic(&nm);
        struct rusage usage {};
        getrusage(RUSAGE_SELF, &usage);
        std::printf("tiles %lu, wall %.3f s, %.1f tiles/s, scaled image %dx%d, mean %.4f\n",
                    progress.tiles, seconds, double(progress.tiles) / seconds, outSize.x, outSize.y,
                    double(progress.sum) / (4.0 * double(outSize.x) * double(outSize.y)));
        std::printf(
            "tile cache: %zu entries, %llu of %llu bytes, %llu evictions; swap-outs %llu; "
            "peak RSS %ld MB\n",
            stats.entries, stats.bytes, stats.limit, stats.evictions,
            (unsigned long long)nm.writeOperations, usage.ru_maxrss / 1024);
        if (progress.tiles != total) {
            std::fprintf(stderr, "qor: pipeline: %lu of %lu tiles delivered\n", progress.tiles,
                         total);
            return 1;
        }
        if (!o.check) return 0;
        if (progress.bad) {
            std::fprintf(stderr,
                         "qor: pipeline: %lu sampled pixels differ from the direct computation\n",
                         progress.bad);
            return 1;
        }
        std::printf("check: %lu sampled pixels match\n", total * 16);
        return 0;
    }();

    // The pixel memory goes back, and the swap file with it if one was opened.
    running.clear();
    scaled.reset();
    input.reset();
    imaging::TileCache::clearCache();
    imaging::ImageMemoryManager::release();
    return status;
}

}  // namespace qor::tool
