#pragma once
// LoaderImageSource: the tiled source that ImageLoader::getImageSource makes. It holds a copy of
// the loader (the path and what its header told, no open file) and computes each tile by reading
// its rectangle from the file, then runs the post-process function on it.
//
// A source smaller than the picture (8-bit only) reads, for each tile, the picture's pixels under
// it and scales them down to the tile.
//
// With `bands` (formats that decode from the top, such as JPEG and PNG) a tile reads the whole
// band of its tile row, full width, and the last band is kept, so that the other tiles of that row
// are cut from it instead of decoding the file again.
//
// Thread contract: tiles are computed on the pipeline's workers, several at once. _bandMutex
// guards the kept band; it is held while a band is read, so that the tiles of one row wait for
// one read instead of each starting their own. It nests inside no lock of the source graph (tile
// computations run with none held) and the file is read without a path lock: the caller of
// getImageSource chose to read the file unlocked.

#include "base/thread/Mutex.h"
#include "imageio/ImageLoader.h"
#include "imaging/ImageSource.h"
#include "imaging/RawImageStorage.h"
#include "imaging/TileLayout.h"

namespace qor::imageio::detail {

// What the file sources ask of a loader's source: one tile read on the calling thread, so that a
// tile job of theirs never waits for a job of another source on the same workers.
class LoaderSourceBase : public imaging::ImageSource {
public:
    // Reads tile (column, row) now. Throws as computeTileData.
    virtual SharedPtr<const imaging::ImageTile> readTileNow(unsigned int column,
                                                            unsigned int row) = 0;

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

protected:
    LoaderImageSource(const ImageLoader& loader, int imageType, math::GenVec<int, 2> tileSize,
                      const ImageLoader::PostProcess& postProcess, bool bands,
                      math::GenVec<int, 2> size);
    // Throws ImageLoaderException when the file cannot be read (the pipeline fails the tile).
    SharedPtr<const imaging::ImageTile> computeTileData(unsigned int column,
                                                        unsigned int row) override;

private:
    SharedPtr<const Data> readTile(const math::Recti& rect, unsigned int row);
    SharedPtr<const Data> readReduced(const math::Recti& rect);

    const ImageLoader _loader;
    const int _imageType;
    const imaging::TileLayout _layout;
    const ImageLoader::PostProcess _postProcess;
    const bool _bands;
    thread::Mutex _bandMutex;
    int _bandRow QOR_GUARDED_BY(_bandMutex) = -1;  // tile row of _band; -1 for none
    SharedPtr<const Data> _band QOR_GUARDED_BY(_bandMutex);
};

}  // namespace qor::imageio::detail
