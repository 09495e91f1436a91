#pragma once
// LoaderImageSource: the tiled source that ImageLoader::getImageSource makes. It holds a copy of
// the loader (the path and what its header told, no open file) and computes each tile by reading
// its rectangle from the file, then runs the post-process function on it.
//
// A source smaller than the picture (8-bit only) reads, for each tile, the picture's pixels under
// it and scales them down to the tile. A JPEG shown as stored whose source is its picture reduced
// by 2, 4 or 8 (each side rounded up, see directReduction) is read in bands at that size by
// libjpeg's DCT scaling instead.
//
// With `bands` (formats that decode from the top, such as JPEG and PNG) a tile reads the whole
// band of its tile row, full width, and the last bands are kept, so that the other tiles of those
// rows are cut from them instead of decoding the file again. Two are kept at first (an output row
// of a scaled source may need tiles of two bands). A band decoded again, after the decoder went
// past it, means the tiles are asked for in an order that two bands do not serve (column by
// column, or a scaled source reaching over several bands): the number kept then grows to span
// that band and the furthest one decoded, within kKeptBandBytes. A band is let go once each of its
// tiles has been cut from it. A JPEG or PNG shown as stored reads its bands through one
// JpegBandReader or PngBandReader, which goes on from the previous band instead of decoding from
// the first line again; a PNG source in PfRGBA16 or PfRGBA32F reads 16-bit rows, so that the
// samples of a 16-bit file stay exact.
//
// Thread contract: tiles are computed on the pipeline's workers, several at once. _decodeMutex
// is held while a band is decoded, so that the tiles of one row wait for one decode instead of
// each starting their own; it guards the band readers. _bandMutex guards the kept bands and is held
// only to look them up or change them, so that tiles of a kept band are cut while the next band
// decodes. Lock order: _decodeMutex, then _bandMutex. Both nest inside no lock of the source
// graph (tile computations run with none held) and the file is read without a path lock: the
// caller of getImageSource chose to read the file unlocked.

#include <memory>
#include <vector>

#include "base/thread/Mutex.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/JpegBandReader.h"
#include "imageio/detail/PngBandReader.h"
#include "imaging/ImageSource.h"
#include "imaging/RawImageStorage.h"
#include "imaging/TileLayout.h"

namespace qor::imageio::detail {

// The largest of 2, 4 and 8 that `scale` allows (at most 1 / scale) by which a loader's source
// of the picture of `loader` reduced by it decodes the file at that size directly: a JPEG shown
// as stored that JpegBandReader reads. 1 when there is no such factor or file. Reads the file's
// header; the caller holds its lock. Throws std::bad_alloc only.
int directReduction(const ImageLoader& loader, double scale);
// The size of the picture of `loader` reduced by such a factor: each side divided, rounded up.
math::GenVec<int, 2> reducedSize(const ImageLoader& loader, int factor);

// What the file sources ask of a loader's source: one tile read on the calling thread, so that a
// tile job of theirs never waits for a job of another source on the same workers.
class LoaderSourceBase : public imaging::ImageSource {
public:
    // Reads tile (column, row) now. Throws as computeTileData.
    virtual SharedPtr<const imaging::ImageTile> readTileNow(unsigned int column,
                                                            unsigned int row) = 0;
    // Lines the source's band decoder decoded so far (for tests and measurements); 0 for a
    // source without one.
    virtual long long linesDecoded() { return 0; }

protected:
    using ImageSource::ImageSource;
};

template <imaging::RawPixelFormat F>
class LoaderImageSource : public LoaderSourceBase {
public:
    using Data = imaging::RawImageDataOf<F>;
    using Element = typename imaging::RawStorageFormat<F>::Element;

    static SharedPtr<imaging::ImageSource> create(const ImageLoader& loader, int imageType,
                                                  math::GenVec<int, 2> tileSize,
                                                  const ImageLoader::PostProcess& postProcess,
                                                  bool bands, math::GenVec<int, 2> size);

    imaging::TileLayout tileLayout() const override { return _layout; }
    SharedPtr<const imaging::ImageTile> readTileNow(unsigned int column,
                                                    unsigned int row) override {
        return computeTileData(column, row);
    }
    long long linesDecoded() override;

    // What the kept bands may hold together once their number has grown past two.
    static constexpr std::size_t kKeptBandBytes = std::size_t(128) << 20;

protected:
    LoaderImageSource(const ImageLoader& loader, int imageType, math::GenVec<int, 2> tileSize,
                      const ImageLoader::PostProcess& postProcess, bool bands,
                      math::GenVec<int, 2> size);
    // Throws ImageLoaderException when the file cannot be read (the pipeline fails the tile).
    SharedPtr<const imaging::ImageTile> computeTileData(unsigned int column,
                                                        unsigned int row) override;

private:
    // The DCT scale denominator at which the band reader decodes a source of `size`: 1 for the
    // stored size, 2, 4 or 8 for the reductions libjpeg makes, 0 for any other size or file.
    static int jpegDenominator(const ImageLoader& loader, bool bands, math::GenVec<int, 2> size);
    // How many bands of `width` x `bandHeight` kKeptBandBytes holds, and at least two.
    static std::size_t maxKeptBands(int width, int bandHeight);
    // Reads the pixels of `rect`, the tile's rectangle in tile row `row`, into `tile`.
    void readTile(imaging::ImageTile& tile, const math::Recti& rect, unsigned int row);
    SharedPtr<const Data> readReduced(const math::Recti& rect);
    // The band of tile row `row`, kept or decoded now; counts `column` as cut from it.
    SharedPtr<const Data> bandFor(unsigned int row, unsigned int column);
    // The kept band of `row` with `column` counted as cut; null when it is not kept.
    SharedPtr<const Data> keptBand(unsigned int row, unsigned int column) QOR_REQUIRES(_bandMutex);
    SharedPtr<const Data> decodeBand(const math::Recti& rect) QOR_REQUIRES(_decodeMutex);

    // A band kept for the tiles of its row not yet cut from it.
    struct KeptBand {
        int row = -1;
        SharedPtr<const Data> pixels;
        std::vector<bool> cut;  // per tile column: cut from this band already
        int uncut = 0;
    };

    const ImageLoader _loader;
    const int _imageType;
    const imaging::TileLayout _layout;
    const ImageLoader::PostProcess _postProcess;
    const bool _bands;
    // Above 1: the picture is read reduced by this factor, through _jpeg.
    const int _dctReduction;
    thread::Mutex _decodeMutex;
    // The sequential reader of a JPEG shown as stored, at its size or reduced; null for other
    // files.
    std::unique_ptr<JpegBandReader> _jpeg QOR_GUARDED_BY(_decodeMutex);
    // The sequential reader of a PNG shown as stored; null for other files.
    std::unique_ptr<PngBandReader> _png QOR_GUARDED_BY(_decodeMutex);
    // The furthest tile row decoded so far; -1 before the first.
    int _furthestRow QOR_GUARDED_BY(_decodeMutex) = -1;
    // The most bands kept: as many as kKeptBandBytes holds, and at least two.
    const std::size_t _maxKept;
    thread::Mutex _bandMutex;
    std::vector<KeptBand> _kept QOR_GUARDED_BY(_bandMutex);  // the newest first
    std::size_t _keepLimit QOR_GUARDED_BY(_bandMutex) = 2;
};

}  // namespace qor::imageio::detail
