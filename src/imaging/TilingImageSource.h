#pragma once
// TilingImageSource: a leaf source over tiles that exist already: either prepared tiles handed to
// create, or one image cut into tiles of the GPU tile size (so that each tile can become one
// texture). It answers getTiles at once, with no request, no job and no cache: its tiles are its
// own and are never put into the tile cache.
//
// Thread contract: immutable after construction; every member from any thread.

#include "imaging/GenImageData.h"
#include "imaging/ImageSource.h"
#include "imaging/RawImageStorage.h"

namespace qor::imaging {

class TilingImageSource : public ImageSource {
public:
    // From prepared tiles, which must cut an image of `size` into tiles of `tileSize` from (0, 0):
    // full tiles everywhere but in the last row and column, which end at the image's edge. Null
    // after the logged assertion "0" when they do not.
    static SharedPtr<TilingImageSource> create(const GenVec<int, 2>& size,
                                               const GenVec<int, 2>& tileSize,
                                               const TileArray& tiles, RawPixelFormat format);
    // One image cut into tiles of getGPUPreferredTileSize(), in the format the name says. Null for
    // null data. Throws std::bad_alloc when the tiles cannot be allocated.
    static SharedPtr<TilingImageSource> createRGB(const SharedPtr<const GenImageData<unsigned char, 3>>& data);
    static SharedPtr<TilingImageSource> createRGB16(const SharedPtr<const GenImageData<unsigned short, 3>>& data);
    static SharedPtr<TilingImageSource> createRGBA(const SharedPtr<const GenImageData<unsigned char, 4>>& data);
    static SharedPtr<TilingImageSource> createRGBA16(const SharedPtr<const GenImageData<unsigned short, 4>>& data);
    static SharedPtr<TilingImageSource> createBGRA(const SharedPtr<const GenImageData<unsigned char, 4>>& data);
    static SharedPtr<TilingImageSource> createRGB32F(const SharedPtr<const GenImageData<float, 3>>& data);
    static SharedPtr<TilingImageSource> createRGBA32F(const SharedPtr<const GenImageData<float, 4>>& data);
    static SharedPtr<TilingImageSource> createRed32F(const SharedPtr<const GenImageData<float, 1>>& data);
    static SharedPtr<TilingImageSource> createLum32F(const SharedPtr<const GenImageData<float, 1>>& data);

    TileLayout tileLayout() const override { return _layout; }
    void getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                  const OnRequest& onRequest) override;
    using ImageSource::getTiles;

protected:
    TilingImageSource(GenVec<int, 2> size, RawPixelFormat format);
    // Logs "(int)column < _tiles.columns() && (int)row < _tiles.rows()" out of range (null then).
    SharedPtr<const ImageTile> computeTileData(unsigned int column, unsigned int row) override;
    bool defaultCachingState() const override { return false; }

private:
    template <RawPixelFormat F>
    static SharedPtr<TilingImageSource> cut(const SharedPtr<const RawImageDataOf<F>>& data);

    TileLayout _layout;
    TileArray _tiles;
};

}  // namespace qor::imaging
