#include "imaging/ScaledImageSource.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "base/Exception.h"
#include "base/Log.h"
#include "imaging/ImageTile.h"
#include "imaging/detail/DependeeLink.h"
#include "math/IntegerMath.h"

namespace qor::imaging {

namespace {

constexpr int kMaxSide = 1 << 30;

// Calls f(input, weight) for every input pixel that output pixel `out` covers along one axis:
// [out / scale, (out + 1) / scale) clipped to [0, inSize). A cover too thin to give any weight
// takes the nearest pixel whole.
template <class F>
void forEachTap(int out, double scale, int inSize, F&& f) {
    const double a = double(out) / scale;
    const double b = std::min(double(out + 1) / scale, double(inSize));
    const int i0 = std::clamp(int(std::floor(a)), 0, inSize - 1);
    const int i1 = std::clamp(int(std::ceil(b)) - 1, i0, inSize - 1);
    bool any = false;
    for (int i = i0; i <= i1; ++i) {
        const double w = std::min(i + 1.0, b) - std::max(double(i), a);
        if (w <= 0) continue;
        f(i, w);
        any = true;
    }
    if (!any) f(i0, 1.0);
}

// The input pixels [first, last] under output pixels [outStart, outEnd) along one axis.
void axisFootprint(int outStart, int outEnd, double scale, int inSize, int& first, int& last) {
    first = inSize;
    last = -1;
    forEachTap(outStart, scale, inSize, [&](int i, double) { first = std::min(first, i); });
    forEachTap(outEnd - 1, scale, inSize, [&](int i, double) { last = std::max(last, i); });
}

// One input pixel's share of an output pixel along one axis, located in the input tiles: `tile` is
// the tile column (or row) relative to the job's start tile, `local` the pixel inside that tile.
struct Tap {
    int tile;
    int local;
    double weight;
};

// The taps of the output pixels [outStart, outEnd) along one axis.
struct AxisMap {
    std::vector<size_t> begin;  // the taps of output i are taps[begin[i]] .. taps[begin[i + 1] - 1]
    std::vector<Tap> taps;
    std::vector<double> total;  // the sum of the weights of output i
    std::vector<int> maxLocal;  // per tile, the largest local coordinate read
};

// `inOffset` places input pixel 0 in source coordinates; `origin`, `tileSize` and `startTile` are
// the axis of the source layout and the job's first tile.
AxisMap mapAxis(int outStart, int outEnd, double scale, int inSize, int inOffset, int origin,
                int tileSize, int startTile, int tileCount) {
    AxisMap map;
    map.maxLocal.assign(size_t(std::max(tileCount, 0)), -1);
    map.begin.reserve(size_t(outEnd - outStart) + 1);
    map.total.reserve(size_t(outEnd - outStart));
    for (int out = outStart; out < outEnd; ++out) {
        map.begin.push_back(map.taps.size());
        double total = 0;
        forEachTap(out, scale, inSize, [&](int i, double w) {
            const int c = i + inOffset - origin;
            const int global = floor_div(c, tileSize);
            Tap tap{global - startTile, c - global * tileSize, w};
            if (tap.tile >= 0 && tap.tile < tileCount)
                map.maxLocal[size_t(tap.tile)] =
                    std::max(map.maxLocal[size_t(tap.tile)], tap.local);
            map.taps.push_back(tap);
            total += w;
        });
        map.total.push_back(total);
    }
    map.begin.push_back(map.taps.size());
    return map;
}

// The mean `m` (in the element's own scale) as an element, by the conversion rules.
template <class T>
T toElement(double m) {
    if constexpr (std::is_same_v<T, float>) {
        return float(m);
    } else if constexpr (std::is_same_v<T, half>) {
        return half(float(m));
    } else {
        constexpr double top = double(std::numeric_limits<T>::max());
        if (!(m > 0)) return T(0);
        const double r = m + 0.5;
        return r >= top ? std::numeric_limits<T>::max() : T(r);
    }
}

// True when every tap weighs exactly 1: each output pixel covers whole input pixels only, as for
// every integer reduction factor (halving included).
bool unitWeights(const AxisMap& map) {
    return std::all_of(map.taps.begin(), map.taps.end(), [](const Tap& t) { return t.weight == 1.0; });
}

// A stretch of x taps that read consecutive pixels of one tile: taps [tap, tap + count) read
// local columns [local, local + count) of tile column `tile`.
struct TapRun {
    int tile;
    int local;
    size_t tap;
    size_t count;
};

std::vector<TapRun> tapRuns(const AxisMap& xs) {
    std::vector<TapRun> runs;
    for (size_t t = 0; t < xs.taps.size(); ++t) {
        const Tap& tap = xs.taps[t];
        if (!runs.empty()) {
            TapRun& last = runs.back();
            if (last.tile == tap.tile && last.local + int(last.count) == tap.local) {
                ++last.count;
                continue;
            }
        }
        runs.push_back(TapRun{tap.tile, tap.local, t, 1});
    }
    return runs;
}

// The output rows of an unsigned format under unit weights, summed in integers of type A: the sums
// are the same whole numbers that the double path adds up, and floor(sum / area + 1/2) is taken
// exactly, so the pixels equal the double path's bit for bit. Columns first: each input row under
// an output row is added, run by run, into one sum per x tap (contiguous, so the compiler
// vectorises it); then each output pixel adds up its taps' sums.
template <class A, class T, int N, class View>
void sumUnitTaps(const AxisMap& xs, const AxisMap& ys,
                 const container::Array2D<SharedPtr<const View>>& views, View& dst, int width,
                 int height) {
    const std::vector<TapRun> runs = tapRuns(xs);
    std::vector<A> columns(xs.taps.size() * N);
    for (int oy = 0; oy < height; ++oy) {
        std::fill(columns.begin(), columns.end(), A(0));
        for (size_t yt = ys.begin[size_t(oy)]; yt < ys.begin[size_t(oy) + 1]; ++yt) {
            const Tap& ty = ys.taps[yt];
            for (const TapRun& run : runs) {
                const T* src = views(uint32_t(run.tile), uint32_t(ty.tile))->row(ty.local) +
                               size_t(run.local) * N;
                A* sum = columns.data() + run.tap * N;
                const size_t n = run.count * N;
                for (size_t k = 0; k < n; ++k) sum[k] += A(src[k]);
            }
        }
        T* out = dst.row(oy);
        const A tapsY = A(ys.begin[size_t(oy) + 1] - ys.begin[size_t(oy)]);
        for (int ox = 0; ox < width; ++ox) {
            A acc[N] = {};
            for (size_t xt = xs.begin[size_t(ox)]; xt < xs.begin[size_t(ox) + 1]; ++xt)
                for (int c = 0; c < N; ++c) acc[c] += columns[xt * N + c];
            const A area = A(xs.begin[size_t(ox) + 1] - xs.begin[size_t(ox)]) * tapsY;
            for (int c = 0; c < N; ++c) out[size_t(ox) * N + c] = T((2 * acc[c] + area) / (2 * area));
        }
    }
}

// The most taps of one output pixel along an axis.
size_t maxTaps(const AxisMap& map) {
    size_t most = 0;
    for (size_t i = 0; i + 1 < map.begin.size(); ++i) most = std::max(most, map.begin[i + 1] - map.begin[i]);
    return most;
}

// The geometry of one output tile: the output rectangle and where its input lies.
struct ScaleGeometry {
    Recti rect;  // output pixels
    double scale;
    Recti inputRect;  // the input Image in its source
    TileLayout layout;
    GenVec<int, 2> startTile;
};

template <RawPixelFormat F>
SharedPtr<const ImageTile> scaleTile(const ScaleGeometry& g,
                                     const container::Array2D<SharedPtr<const ImageTile>>& tiles,
                                     const DrawParameters& params) {
    using View = RawImageDataOf<F>;
    using T = typename View::Element;
    constexpr int N = View::Channels;

    const AxisMap xs =
        mapAxis(g.rect.xmin(), g.rect.xmax(), g.scale, g.inputRect.width(), g.inputRect.xmin(),
                g.layout.origin.x, g.layout.tileSize.x, g.startTile.x, tiles.columns());
    const AxisMap ys =
        mapAxis(g.rect.ymin(), g.rect.ymax(), g.scale, g.inputRect.height(), g.inputRect.ymin(),
                g.layout.origin.y, g.layout.tileSize.y, g.startTile.y, tiles.rows());
    const auto outside = [](const AxisMap& map, int count) {
        return std::any_of(map.taps.begin(), map.taps.end(),
                           [count](const Tap& t) { return t.tile < 0 || t.tile >= count; });
    };
    if (outside(xs, tiles.columns()) || outside(ys, tiles.rows()))
        throw Exception(formatLog("TileScaleJob: the input tiles from (%*,%*) do not cover (%*)",
                                  g.startTile.x, g.startTile.y, g.rect));

    // The input pixels in the input's format; each tile must reach as far as it is read.
    container::Array2D<SharedPtr<const View>> views(uint32_t(tiles.columns()),
                                                    uint32_t(tiles.rows()));
    for (int ty = 0; ty < tiles.rows(); ++ty) {
        for (int tx = 0; tx < tiles.columns(); ++tx) {
            const int needX = xs.maxLocal[size_t(tx)], needY = ys.maxLocal[size_t(ty)];
            if (needX < 0 || needY < 0) continue;
            const SharedPtr<const ImageTile>& tile = tiles(uint32_t(tx), uint32_t(ty));
            SharedPtr<const View> view = tile ? tile->getRawData<F>() : nullptr;
            if (!view || view->width() <= needX || view->height() <= needY)
                throw Exception(formatLog("TileScaleJob: input tile (%*,%*) is missing or short",
                                          g.startTile.x + tx, g.startTile.y + ty));
            views(uint32_t(tx), uint32_t(ty)) = view;
        }
    }

    const int width = g.rect.width(), height = g.rect.height();
    SharedPtr<ImageTile> result = ImageTile::create(g.rect.size(), F, params);
    SharedPtr<View> dst = result->getRawDataTarget<F>();
    if (!dst) throw Exception("TileScaleJob: no processor storage for the result");

    if constexpr (std::is_unsigned_v<T>) {
        // 2 * sum + area must fit the integer: 32 bits while the largest sum stays below 2^31,
        // else 64 bits below 2^62; beyond that the double path below.
        const double largest =
            double(std::numeric_limits<T>::max()) * double(maxTaps(xs)) * double(maxTaps(ys));
        if (largest < 0x1p62 && unitWeights(xs) && unitWeights(ys)) {
            if (largest < 0x1p31)
                sumUnitTaps<std::uint32_t, T, N>(xs, ys, views, *dst, width, height);
            else
                sumUnitTaps<std::uint64_t, T, N>(xs, ys, views, *dst, width, height);
            dst.reset();
            return result;
        }
    }

    std::vector<double> acc(size_t(width) * N);
    std::vector<const T*> rows(size_t(tiles.columns()), nullptr);
    for (int oy = 0; oy < height; ++oy) {
        std::fill(acc.begin(), acc.end(), 0.0);
        for (size_t yt = ys.begin[size_t(oy)]; yt < ys.begin[size_t(oy) + 1]; ++yt) {
            const Tap& ty = ys.taps[yt];
            for (int tx = 0; tx < tiles.columns(); ++tx) {
                const SharedPtr<const View>& view = views(uint32_t(tx), uint32_t(ty.tile));
                rows[size_t(tx)] = view ? view->row(ty.local) : nullptr;
            }
            // Horizontal sums of this input row, weighed by its share of the output row.
            for (int ox = 0; ox < width; ++ox) {
                double h[N] = {};
                for (size_t xt = xs.begin[size_t(ox)]; xt < xs.begin[size_t(ox) + 1]; ++xt) {
                    const Tap& tx = xs.taps[xt];
                    const T* px = rows[size_t(tx.tile)] + size_t(tx.local) * N;
                    for (int c = 0; c < N; ++c) h[c] += tx.weight * double(px[c]);
                }
                double* a = &acc[size_t(ox) * N];
                for (int c = 0; c < N; ++c) a[c] += ty.weight * h[c];
            }
        }
        T* out = dst->row(oy);
        for (int ox = 0; ox < width; ++ox) {
            const double area = xs.total[size_t(ox)] * ys.total[size_t(oy)];
            for (int c = 0; c < N; ++c)
                out[size_t(ox) * N + c] = toElement<T>(acc[size_t(ox) * N + c] / area);
        }
    }
    dst.reset();
    return result;
}

SharedPtr<const ImageTile> scaleTileInFormat(
    RawPixelFormat format, const ScaleGeometry& g,
    const container::Array2D<SharedPtr<const ImageTile>>& tiles, const DrawParameters& params) {
    switch (format) {
#define QOR_SCALE_CASE(S, T, N) \
    case Pf##S:                 \
        return scaleTile<Pf##S>(g, tiles, params);
        QOR_RAW_STORAGE_FORMATS(QOR_SCALE_CASE)
#undef QOR_SCALE_CASE
        default:
            break;
    }
    throw Exception(
        formatLog("TileScaleJob: no processor storage for format %*", pixelFormatString(format)));
}

}  // namespace

// ---- TileScaleJob ----

ScaledImageSource::TileScaleJob::TileScaleJob() : TileAssemblyJob("TScale") {}

int ScaledImageSource::TileScaleJob::compare(const thread::DependentJob& other) const {
    if (int c = TileAssemblyJob::compare(other)) return c;
    const auto& o = static_cast<const TileScaleJob&>(other);
    if (scale != o.scale) return scale < o.scale ? -1 : 1;
    if (inputRect.mins != o.inputRect.mins) return inputRect.mins < o.inputRect.mins ? -1 : 1;
    if (inputRect.maxs != o.inputRect.maxs) return inputRect.maxs < o.inputRect.maxs ? -1 : 1;
    return 0;
}

FastString<char> ScaledImageSource::TileScaleJob::toString() const {
    return formatLog("Tile scale: (jobId:%*)((%*)%*,%*) (%*, %*, %*, %*) (scale %*)", id(),
                     creatorName(), static_cast<const void*>(targetImage.get()), version,
                     rect.xmin(), rect.ymin(), rect.width(), rect.height(), scale);
}

SharedPtr<const ImageTile> ScaledImageSource::TileScaleJob::assemble() {
    const DrawParameters params = targetImage ? targetImage->getDrawParameters() : DrawParameters();
    const ScaleGeometry geometry{rect, scale, inputRect, layout, startTile};
    return scaleTileInFormat(format, geometry, fetchTiles(), params);
}

// ---- ScaledImageSource ----

GenVec<int, 2> ScaledImageSource::scaledSize(GenVec<int, 2> size, double scale) {
    GenVec<int, 2> out;
    for (int axis = 0; axis < 2; ++axis) {
        const double side = std::ceil(double(size[axis]) * scale - 1e-6);
        out[axis] = side < 1 ? 1 : (side > kMaxSide ? kMaxSide : int(side));
    }
    return out;
}

SharedPtr<ScaledImageSource> ScaledImageSource::create(const SharedPtr<Image>& input,
                                                       double scale) {
    if (!input || !input->source()) throw Exception("ScaledImageSource: no input image");
    if (input->width() <= 0 || input->height() <= 0)
        throw Exception(formatLog("ScaledImageSource: the input image is empty (%*x%*)",
                                  input->width(), input->height()));
    if (!std::isfinite(scale) || !(scale > 0))
        throw Exception(
            formatLog("ScaledImageSource: the scale must be a finite number above 0, "
                      "not %*",
                      scale));
    if (double(std::max(input->width(), input->height())) * scale > double(kMaxSide))
        throw Exception(formatLog("ScaledImageSource: %*x%* scaled by %* exceeds %* pixels a side",
                                  input->width(), input->height(), scale, kMaxSide));
    if (!isStorageFormat(input->pixelFormat()))
        throw Exception(formatLog("ScaledImageSource: format %* has no processor storage",
                                  pixelFormatString(input->pixelFormat())));
    auto* s = new ScaledImageSource(input, scale, scaledSize(input->size(), scale));
    auto self = std::static_pointer_cast<ScaledImageSource>(s->setupSelfRef());
    self->_dependeeConnection = detail::linkDependee(*input->source(), self);
    return self;
}

ScaledImageSource::ScaledImageSource(const SharedPtr<Image>& input, double scale,
                                     GenVec<int, 2> size)
    : ImageSource(size, input->pixelFormat(), input->source()->getDrawParameters()),
      _input(input),
      _scale(scale),
      _layout(size, getCPUPreferredTileSize(), GenVec<int, 2>(0, 0), size) {}

ScaledImageSource::~ScaledImageSource() { _dependeeConnection.disconnect(); }

void ScaledImageSource::insertDependencies(SourceList& out) const {
    out.push_back(_input->source());
}

Recti ScaledImageSource::inputFootprint(const Recti& rect) const {
    const Recti clipped = rect & Recti(size());
    if (clipped.empty()) return Recti();
    int x0, x1, y0, y1;
    axisFootprint(clipped.xmin(), clipped.xmax(), _scale, _input->width(), x0, x1);
    axisFootprint(clipped.ymin(), clipped.ymax(), _scale, _input->height(), y0, y1);
    return Recti(GenVec<int, 2>(x0, y0), GenVec<int, 2>(x1 + 1, y1 + 1));
}

ImageSource::TileGetter ScaledImageSource::computeJobsUnlocked(
    unsigned int x, unsigned int y, JobSet& jobs,
    thread::DependentJobMerger& merger) QOR_NO_THREAD_SAFETY_ANALYSIS {
    static const FastString<char> name("ScaledImageSource");
    const TileIndex pos{int(x), int(y)};
    const Recti rect = _layout.getTileRect(pos.x, pos.y);
    if (TileGetter cached = checkCachedTileUnlocked(jobs, merger, rect, name)) return cached;
    SharedPtr<TileNotifyJob> notifyJob;
    TileGetter existing = createNotifyJobUnlocked(jobs, merger, &notifyJob, pos, rect, name);
    if (!notifyJob) return existing;

    auto job = std::make_shared<TileScaleJob>();
    job->targetImage = selfRef();
    QOR_ASSERT_TEXT(job->targetImage, "job->targetImage");
    job->version = versionUnlocked();
    job->setCreatorName(typeid(*this).name());
    job->rect = rect;
    job->scale = _scale;
    job->inputRect = _input->subrect();
    job->format = pixelFormat();
    job->layout = _input->source()->tileLayout();

    // The input tiles under the footprint, in tile indices of the input's source.
    const Recti footprint = inputFootprint(rect) + _input->subrect().mins;
    const TileLayout& layout = job->layout;
    const GenVec<int, 2> first = floor_div(footprint.mins - layout.origin, layout.tileSize);
    const GenVec<int, 2> last =
        floor_div(footprint.maxs - GenVec<int, 2>(1, 1) - layout.origin, layout.tileSize);
    const TileIndex imageStart = _input->sourceStartTile();
    job->startTile = first;
    job->tileGetters.assign(uint32_t(last.x - first.x + 1), uint32_t(last.y - first.y + 1));
    JobSet inputJobs;
    for (int ty = first.y; ty <= last.y; ++ty) {
        for (int tx = first.x; tx <= last.x; ++tx) {
            JobSet local;
            job->tileGetters(uint32_t(tx - first.x), uint32_t(ty - first.y)) =
                _input->computeJobsUnlocked(unsigned(tx - imageStart.x),
                                            unsigned(ty - imageStart.y), local, merger);
            inputJobs.insert(local.begin(), local.end());
        }
    }
    auto merged = std::static_pointer_cast<TileScaleJob>(merger.merge(job));
    if (merged == job)
        for (const JobPtr& dependency : inputJobs) job->addDependency(dependency);
    return mergeWithNotifyJobUnlocked(jobs, merger, notifyJob, JobPtr(merged),
                                      [merged] { return merged->getResult(); });
}

}  // namespace qor::imaging
