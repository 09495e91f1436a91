#pragma once
// Test sources and references for the derived sources: a source whose pixels are a function of
// their coordinates and of the source version, the direct area average that a scaled image must
// match, and a guard for the preferred tile size that the tests change.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <typeinfo>

#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/ImageTile.h"
#include "imaging/RawImageStorage.h"

namespace qor::imaging::proctest {

inline std::uint32_t mix(std::uint32_t h) {
    h ^= h >> 16;
    h *= 0x7feb352du;
    h ^= h >> 15;
    h *= 0x846ca68bu;
    h ^= h >> 16;
    return h;
}

// Channel `c` of pixel (x, y) at version `version` in the element scale of `format` (0 to the
// maximum for unsigned elements, multiples of 1/1024 in [0, 1) for float and half, which both
// hold them exactly). With `versionInAlpha`, channel 3 is the constant versionMark(version).
inline double proceduralValue(int x, int y, int c, unsigned version, RawPixelFormat format,
                              bool versionInAlpha) {
    if (versionInAlpha && c == 3) return double((version * 37u + 11u) & 255u);
    const std::uint32_t h =
        mix(std::uint32_t(x) * 0x9E3779B1u ^ mix(std::uint32_t(y) + 0x632BE5ABu * (c + 1)) ^
            (version + 1) * 0x85EBCA77u);
    if (isFloatFormat(format)) return double(h % 1024u) / 1024.0;
    const std::uint64_t top = (std::uint64_t(1) << getBitsPerChannel(format)) - 1;
    return double(h % (top + 1));
}

inline unsigned versionMark(unsigned version) { return (version * 37u + 11u) & 255u; }

// The area-weighted mean of `pixel` over what output pixel (ox, oy) of an image scaled by `scale`
// covers: [ox / scale, (ox + 1) / scale) by [oy / scale, (oy + 1) / scale), clipped to `inSize`.
inline double directAreaMean(const std::function<double(int, int)>& pixel, GenVec<int, 2> inSize,
                             double scale, int ox, int oy) {
    const double x0 = ox / scale, x1 = std::min((ox + 1) / scale, double(inSize.x));
    const double y0 = oy / scale, y1 = std::min((oy + 1) / scale, double(inSize.y));
    double sum = 0, area = 0;
    for (int iy = int(std::floor(y0)); iy < int(std::ceil(y1)); ++iy) {
        const double wy = std::min(iy + 1.0, y1) - std::max(double(iy), y0);
        for (int ix = int(std::floor(x0)); ix < int(std::ceil(x1)); ++ix) {
            const double wx = std::min(ix + 1.0, x1) - std::max(double(ix), x0);
            if (wx <= 0 || wy <= 0) continue;
            sum += wx * wy * pixel(ix, iy);
            area += wx * wy;
        }
    }
    return sum / area;
}

// Calls f(std::integral_constant<RawPixelFormat, F>) for the processor format `format`.
template <class Fn>
void withFormat(RawPixelFormat format, Fn&& f) {
    switch (format) {
#define QOR_PROCTEST_CASE(S, T, N)                          \
    case Pf##S:                                             \
        f(std::integral_constant<RawPixelFormat, Pf##S>()); \
        return;
        QOR_RAW_STORAGE_FORMATS(QOR_PROCTEST_CASE)
#undef QOR_PROCTEST_CASE
        default:
            FAIL() << "not a processor format: " << pixelFormatString(format).view();
    }
}

// A source whose tile pixels are proceduralValue(x, y, c, version). Its jobs compute a tile for the
// version that was current when the job graph was built (read under the full lock), so a tile
// always holds the pixels of the version it is cached and delivered under.
class ProceduralSource : public ImageSource {
public:
    static SharedPtr<ProceduralSource> create(GenVec<int, 2> size, GenVec<int, 2> tileSize,
                                              RawPixelFormat format, bool versionInAlpha = false) {
        auto* s = new ProceduralSource(size, tileSize, format, versionInAlpha);
        return std::static_pointer_cast<ProceduralSource>(s->setupSelfRef());
    }

    TileLayout tileLayout() const override { return _layout; }
    double value(int x, int y, int c, unsigned version) const {
        return proceduralValue(x, y, c, version, pixelFormat(), _versionInAlpha);
    }

    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override {
        static const FastString<char> name("ProceduralSource");
        const Recti rect = getTileRect(int(x), int(y));
        if (TileGetter cached = checkCachedTileUnlocked(jobs, merger, rect, name)) return cached;
        SharedPtr<TileNotifyJob> notifyJob;
        TileGetter existing = createNotifyJobUnlocked(jobs, merger, &notifyJob,
                                                      TileIndex(int(x), int(y)), rect, name);
        if (!notifyJob) return existing;
        if (onBuild) onBuild();
        auto job = std::make_shared<TileComputationJob>();
        job->targetImage = selfRef();
        job->version = version();
        job->pos = TileIndex(int(x), int(y));
        job->setCreatorName(typeid(*this).name());
        const unsigned v = job->version;
        ProceduralSource* self = this;
        job->computeTileFunction = [self, v](unsigned int cx, unsigned int cy) {
            return self->makeTile(int(cx), int(cy), v);
        };
        auto merged = std::static_pointer_cast<TileComputationJob>(merger.merge(job));
        return mergeWithNotifyJobUnlocked(jobs, merger, notifyJob, merged,
                                          [merged] { return merged->getResult(); });
    }

    // The tile (x, y) at `version`.
    SharedPtr<const ImageTile> makeTile(int x, int y, unsigned version) {
        ++computed;
        const Recti r = _layout.getTileRect(x, y);
        SharedPtr<ImageTile> tile = ImageTile::create(r.size(), pixelFormat());
        withFormat(pixelFormat(), [&](auto f) {
            constexpr RawPixelFormat F = decltype(f)::value;
            using View = RawImageDataOf<F>;
            using T = typename View::Element;
            SharedPtr<View> data = tile->getRawDataTarget<F>();
            for (int j = 0; j < r.height(); ++j)
                for (int i = 0; i < r.width(); ++i)
                    for (int c = 0; c < View::Channels; ++c)
                        data->at(i, j, c) = T(float(value(r.xmin() + i, r.ymin() + j, c, version)));
        });
        return tile;
    }

    std::atomic<int> computed{0};
    // Called whenever a computation job is built, under the full lock (a test hook).
    Function0<void> onBuild;

protected:
    ProceduralSource(GenVec<int, 2> size, GenVec<int, 2> tileSize, RawPixelFormat format,
                     bool versionInAlpha)
        : ImageSource(size, format),
          _layout(size, tileSize, GenVec<int, 2>(0, 0), size),
          _versionInAlpha(versionInAlpha) {}

    SharedPtr<const ImageTile> computeTileData(unsigned int x, unsigned int y) override {
        return makeTile(int(x), int(y), version());
    }

private:
    const TileLayout _layout;
    const bool _versionInAlpha;
};

// Sets the CPU preferred tile size for a test and puts it back afterwards.
class CpuTileSize {
public:
    explicit CpuTileSize(GenVec<int, 2> size) : _old(ImageSource::getCPUPreferredTileSize()) {
        ImageSource::setCPUPreferredTileSize(size);
    }
    ~CpuTileSize() { ImageSource::setCPUPreferredTileSize(_old); }

private:
    GenVec<int, 2> _old;
};

}  // namespace qor::imaging::proctest
