#pragma once
// ScaledImageSource: another Image resampled by a factor, computed tile by tile from the input's
// tiles. Output pixel (x, y) covers the input rectangle [x / scale, (x + 1) / scale) by
// [y / scale, (y + 1) / scale), clipped to the input, and is the area-weighted mean of the input
// pixels under it: each input pixel weighs the area it shares with that rectangle. The sums are
// taken in double precision per channel, alpha like any other channel, and the mean goes into the
// input's format by the conversion rules (unsigned: rounded to nearest and clamped; half: rounded
// to nearest even; float: as is). A factor of 1 gives the input's pixels unchanged; factors above 1
// enlarge with the same rule (each output pixel the mean of the one or two input pixels it
// touches on each axis).
//
// The output is ceil(inputSize * scale) pixels on each axis, at least 1, so that output
// coordinates map to input coordinates by the factor exactly; the last column or row may cover
// less than a full 1 / scale of input. Every processor storage format is supported; the input's
// tiles are read in the input's format. The tile layout uses the CPU preferred tile size at the
// time of construction, from (0, 0).
//
// Job graph of one tile: the tile's cache or notify job depends on a TileScaleJob, which depends on
// the jobs of the input tiles under the tile's footprint, built through the input Image's
// computeJobsUnlocked inside the same full lock and with the same merger, so that neighbouring
// output tiles share the input work of one request.
//
// Ownership: holds the input Image strongly; a version change of the input reaches this source
// through the input source's dependee signal, which the source connects to at creation (weakly)
// and disconnects from when it dies.
// Thread contract: immutable after creation apart from the state of the ImageSource base; every
// member from any thread.

#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageSourceJobs.h"

namespace qor::imaging {

class ScaledImageSource : public ImageSource {
public:
    // Assembles one output tile by area averaging from the input tiles under it. Runs on a worker
    // (or on the GL thread when its inputs must be read back first). Two scale jobs are the same
    // work when source, version, output rectangle, factor and input rectangle agree.
    class TileScaleJob : public TileAssemblyJob {
    public:
        double scale = 1.0;
        // The input Image's rectangle in its source, whose tiles `layout`, `startTile` and
        // `tileGetters` describe.
        Recti inputRect;

        TileScaleJob();
        TileScaleJob(const TileScaleJob& other) = default;
        int compare(const thread::DependentJob& other) const override;
        thread::DependentJob* dup() const override { return new TileScaleJob(*this); }
        FastString<char> toString() const override;

    protected:
        // The output tile `rect`; throws std::bad_alloc when no memory is left, and Exception when
        // an input tile is missing.
        SharedPtr<const ImageTile> assemble() override;
    };

    // `input` resampled by `scale`. Throws Exception for a null or empty input, a factor that is
    // not a finite number above 0, an output larger than 2^30 pixels on a side, or a pixel format
    // without processor storage.
    static SharedPtr<ScaledImageSource> create(const SharedPtr<Image>& input, double scale);
    // Disconnects from the input source's dependee signal.
    ~ScaledImageSource() override;

    TileLayout tileLayout() const override { return _layout; }
    // The cached tile, or the tile's cache or notify job over its TileScaleJob, which depends on
    // the jobs of the input tiles. Needs the full lock.
    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override;
    // Appends the input's source.
    void insertDependencies(SourceList& out) const override;

    const SharedPtr<Image>& input() const { return _input; }
    double scale() const { return _scale; }
    // The input pixels (relative to the input Image) under the output rectangle `rect`; empty
    // when `rect` lies outside the output.
    Recti inputFootprint(const Recti& rect) const;
    // The output size for an input of `size` at `scale`: ceil(size * scale), at least 1, where a
    // product that exceeds an integer by less than 1e-6 counts as that integer.
    static GenVec<int, 2> scaledSize(GenVec<int, 2> size, double scale);

protected:
    ScaledImageSource(const SharedPtr<Image>& input, double scale, GenVec<int, 2> size);

private:
    const SharedPtr<Image> _input;
    const double _scale;
    const TileLayout _layout;
    ScopedConnection _dependeeConnection;  // to the input source's OnCollectDependees
};

}  // namespace qor::imaging
