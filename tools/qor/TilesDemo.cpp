// qor tiles [--width N] [--height N] [--tile N] [--save FILE.jpg]: computes a generated image
// through the tile pipeline and checks every pixel against a direct computation.
//
// The image is a procedural source whose pixels are a function of their coordinates and of the
// source's version. The run asks for every tile asynchronously, centre first, with a progress bar;
// then changes the version and asks again (the cached tiles of the old version must not come
// back); then reads a region that reaches past the top-left corner as one tile, mirrored. Any pixel
// that differs from the direct computation makes the exit status 1.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "base/thread/Mutex.h"
#include "imageio/ImageIO.h"
#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/TileCache.h"
#include "imaging/TileScoreFunctions.h"

namespace qor::tool {

namespace {

using imaging::ComputedTileInfo;
using imaging::ImageSource;
using imaging::ImageTile;
using imaging::TileLayout;
using math::GenVec;
using math::Recti;

constexpr unsigned long kMaxSide = 65536;

// The pixel of (x, y) at a version, channel by channel.
unsigned char pixel(int x, int y, unsigned version, int channel) {
    switch (channel) {
        case 0:
            return (unsigned char)(x * 3 + y);
        case 1:
            return (unsigned char)((x ^ y) + version * 17);
        case 2:
            return (unsigned char)(y * 5 + (x >> 4));
        default:
            return 255;
    }
}

class Procedural : public ImageSource {
public:
    static SharedPtr<Procedural> create(GenVec<int, 2> size, GenVec<int, 2> tile) {
        auto* source = new Procedural(size, tile);
        return std::static_pointer_cast<Procedural>(source->setupSelfRef());
    }
    TileLayout tileLayout() const override { return _layout; }
    unsigned long computed() const { return _computed.load(); }

protected:
    Procedural(GenVec<int, 2> size, GenVec<int, 2> tile)
        : ImageSource(size, imaging::PfRGBA8), _layout(size, tile, GenVec<int, 2>(0, 0), size) {}

    SharedPtr<const ImageTile> computeTileData(unsigned x, unsigned y) override {
        ++_computed;
        const Recti rect = _layout.getTileRect(int(x), int(y));
        const unsigned v = version();
        SharedPtr<ImageTile> tile = ImageTile::create(rect.size(), imaging::PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < rect.height(); ++j) {
            unsigned char* row = data->row(j);
            for (int i = 0; i < rect.width(); ++i)
                for (int c = 0; c < 4; ++c)
                    row[i * 4 + c] = pixel(rect.xmin() + i, rect.ymin() + j, v, c);
        }
        return tile;
    }

private:
    TileLayout _layout;
    std::atomic<unsigned long> _computed{0};
};

// Pixels of `tile` that differ from the direct computation of `rect` (image coordinates, with the
// image mirrored beyond its edges) at `version`.
unsigned long mismatches(const ImageTile& tile, const Recti& rect, GenVec<int, 2> size,
                         unsigned version) {
    auto mirror = [](int v, int n) {
        const int period = 2 * n;
        int m = ((v % period) + period) % period;
        return m < n ? m : period - 1 - m;
    };
    auto data = tile.getDataRGBA8();
    unsigned long bad = 0;
    for (int j = 0; j < rect.height(); ++j) {
        const unsigned char* row = data->row(j);
        for (int i = 0; i < rect.width(); ++i) {
            const int x = mirror(rect.xmin() + i, size.x), y = mirror(rect.ymin() + j, size.y);
            for (int c = 0; c < 4; ++c)
                if (row[i * 4 + c] != pixel(x, y, version, c)) {
                    ++bad;
                    break;
                }
        }
    }
    return bad;
}

struct Round {
    unsigned long tiles = 0;
    unsigned long bad = 0;
    bool error = false;
    double seconds = 0;
};

// Asks for every tile at once and checks each as it arrives, with a progress bar on standard error
// when it is a terminal. Tiles arrive on the workers; `mutex` guards `round`, `done` and the bar.
Round requestAll(const SharedPtr<Procedural>& source) {
    const TileLayout layout = source->tileLayout();
    ImageSource::TileSet all;
    layout.tiles(all);
    const unsigned long total = all.size();
    const unsigned version = source->version();
    const bool bar = progressBarWanted();
    Round round;
    Mutex mutex;
    ConditionVariable ended;
    bool done = false;
    unsigned long drawnPercent = 0;
    const auto start = std::chrono::steady_clock::now();
    auto callback = [&](const ComputedTileInfo& info) {
        ScopedLock<Mutex> lock(mutex);
        if (info.type == ComputedTileInfo::RequestEnded) {
            if (bar) drawProgressBar(round.tiles, total, "tiles", true);
            round.error = info.status != ComputedTileInfo::Success;
            if (round.error)
                std::fprintf(stderr, "qor: tiles: the request ended with status %d: %s\n",
                             int(info.status), info.errorMessage.c_str());
            done = true;
            ended.notifyAll();
            return;
        }
        ++round.tiles;
        round.bad += mismatches(*info.tile, layout.getTileRect(info.pos.x, info.pos.y),
                                source->size(), version);
        if (bar && round.tiles * 100 / total > drawnPercent) {
            drawnPercent = round.tiles * 100 / total;
            drawProgressBar(round.tiles, total, "tiles", false);
        }
    };
    const GenVec<int, 2> center(source->width() / 2, source->height() / 2);
    auto handle = source->requestTiles(
        all, std::make_shared<imaging::DFSCenteredScoreFunction>(center), callback, true, {});
    {
        ScopedLock<Mutex> lock(mutex);
        while (!done) ended.wait(lock);
    }
    round.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    (void)handle;
    return round;
}

}  // namespace

int runTilesDemo(const std::vector<std::string>& args) {
    unsigned long width = 1500, height = 1000, tile = 256;
    std::string savePath;
    for (size_t i = 0; i < args.size(); i += 2) {
        const std::string& option = args[i];
        if (option == "--save") {
            if (i + 1 >= args.size()) return usageError("tiles: --save needs a file name");
            savePath = args[i + 1];
            continue;
        }
        unsigned long* target = option == "--width"    ? &width
                                : option == "--height" ? &height
                                : option == "--tile"   ? &tile
                                                       : nullptr;
        if (!target) return usageError("tiles: unknown option '" + option + "'");
        if (i + 1 >= args.size()) return usageError("tiles: " + option + " needs a value");
        if (!parseCount(args[i + 1], *target) || *target == 0 || *target > kMaxSide)
            return usageError("tiles: " + option + " must be a number from 1 to " +
                              std::to_string(kMaxSide));
    }
    imaging::TileCache::enable();
    auto source = Procedural::create(GenVec<int, 2>(int(width), int(height)),
                                     GenVec<int, 2>(int(tile), int(tile)));
    const GenVec<int, 2> count = source->tileLayout().tileCount;
    std::printf("image %lux%lu in %dx%d tiles of %lu\n", width, height, count.x, count.y, tile);

    unsigned long bad = 0;
    bool failed = false;
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) {
            source->incrementVersion();
            std::printf("version %u: every tile again\n", source->version());
        }
        const unsigned long before = source->computed();
        Round round = requestAll(source);
        std::printf("  %lu tiles, %lu computed, %.3f s, %lu wrong pixels\n", round.tiles,
                    source->computed() - before, round.seconds, round.bad);
        bad += round.bad;
        failed = failed || round.error || round.tiles != (unsigned long)(count.x) * count.y;
    }

    const int margin = int(std::min<unsigned long>(tile, std::min(width, height))) / 2 + 1;
    const Recti corner(-margin, -margin, 2 * margin, 2 * margin);
    auto region = imaging::Image::create(source)->getRectAsTile(corner, true);
    const unsigned long regionBad =
        region ? mismatches(*region, corner, source->size(), source->version()) : 1;
    std::printf("mirrored region %dx%d at (%d, %d): %lu wrong pixels\n", corner.width(),
                corner.height(), corner.xmin(), corner.ymin(), regionBad);
    bad += regionBad;

    imaging::TileCache::Statistics stats;
    imaging::TileCache::getStatistics(stats);
    std::printf("tile cache: %llu entries, %llu bytes\n", (unsigned long long)stats.entries,
                (unsigned long long)stats.bytes);
    if (!savePath.empty()) {
        // The whole image as one tile, through the same assembly, written as JPEG.
        auto whole = imaging::Image::create(source)->getAsTile();
        auto pixels = whole ? whole->getDataRGBA8() : nullptr;
        if (!pixels || !imageio::saveJpeg(FastString<char>(savePath), pixels, 92)) {
            std::fprintf(stderr, "qor: tiles: cannot write '%s'\n", savePath.c_str());
            return 1;
        }
        std::printf("saved %s\n", savePath.c_str());
    }
    if (bad || failed) {
        std::fprintf(stderr,
                     "qor: tiles: the pipeline's pixels differ from the direct computation\n");
        return 1;
    }
    std::printf("all pixels match\n");
    return 0;
}

}  // namespace qor::tool
