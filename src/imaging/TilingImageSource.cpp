#include "imaging/TilingImageSource.h"

#include <cstring>

#include "base/Log.h"
#include "imaging/ImageTile.h"
#include "imaging/detail/LeafTiles.h"

namespace qor::imaging {

namespace {

// Whether `tiles` cut an image of `size` into tiles of `tileSize` from the origin.
bool tilesFitLayout(const GenVec<int, 2>& size, const GenVec<int, 2>& tileSize,
                    const ImageSource::TileArray& tiles) {
    if (tiles.empty() || tileSize.x <= 0 || tileSize.y <= 0) return false;
    const TileLayout layout(size, tileSize, GenVec<int, 2>(0, 0), size);
    if (layout.tileCount != GenVec<int, 2>(tiles.columns(), tiles.rows())) return false;
    const int lastX = tiles.columns() - 1, lastY = tiles.rows() - 1;
    for (int y = 0; y <= lastY; ++y) {
        for (int x = 0; x <= lastX; ++x) {
            const SharedPtr<const ImageTile>& tile = tiles(x, y);
            if (!tile) return false;
            const GenVec<int, 2> s = tile->size();
            if (x < lastX && y < lastY && s != tileSize) return false;
            if (y == lastY && x < lastX && s.x != tileSize.x) return false;
            if (x == lastX && y < lastY && s.y != tileSize.y) return false;
            if (x == lastX && s.x != tiles(lastX, 0)->size().x) return false;
            if (y == lastY && s.y != tiles(0, lastY)->size().y) return false;
        }
    }
    if (tiles(0, lastY)->size().y != size.y - lastY * tileSize.y) return false;
    if (tiles(lastX, 0)->size().x != size.x - lastX * tileSize.x) return false;
    return true;
}

}  // namespace

TilingImageSource::TilingImageSource(GenVec<int, 2> size, RawPixelFormat format)
    : ImageSource(size, format) {
    // Its tiles are its own: caching takes the default state, which is off.
    enableCaching(true);
}

SharedPtr<TilingImageSource> TilingImageSource::create(const GenVec<int, 2>& size,
                                                       const GenVec<int, 2>& tileSize,
                                                       const TileArray& tiles,
                                                       RawPixelFormat format) {
    if (!tilesFitLayout(size, tileSize, tiles)) {
        QOR_ASSERT_TEXT(false, "0");
        return nullptr;
    }
    auto* source = new TilingImageSource(size, format);
    auto self = std::static_pointer_cast<TilingImageSource>(source->setupSelfRef());
    source->_layout = TileLayout(size, tileSize, GenVec<int, 2>(0, 0), size);
    source->_tiles = tiles;
    return self;
}

template <RawPixelFormat F>
SharedPtr<TilingImageSource> TilingImageSource::cut(const SharedPtr<const RawImageDataOf<F>>& data) {
    if (!data) {
        QOR_ASSERT_TEXT(data, "data");
        return nullptr;
    }
    using T = typename RawStorageFormat<F>::Element;
    constexpr int N = RawStorageFormat<F>::Channels;
    const GenVec<int, 2> size(data->width(), data->height());
    const GenVec<int, 2> preferred = getGPUPreferredTileSize();
    auto* source = new TilingImageSource(size, F);
    auto self = std::static_pointer_cast<TilingImageSource>(source->setupSelfRef());
    if (size.x > preferred.x || size.y > preferred.y) {
        source->_layout = TileLayout(size, preferred, GenVec<int, 2>(0, 0), size);
        const GenVec<int, 2> count = source->_layout.tileCount;
        source->_tiles.assign(count.x, count.y);
        for (int y = 0; y < count.y; ++y) {
            for (int x = 0; x < count.x; ++x) {
                const Recti rect = source->_layout.getTileRect(x, y);
                SharedPtr<ImageTile> tile = ImageTile::createNonCached(rect.size(), F);
                SharedPtr<RawImageDataOf<F>> target = tile->getRawDataTarget<F>();
                for (int row = 0; row < rect.height(); ++row)
                    std::memcpy(target->row(row),
                                data->row(rect.ymin() + row) + std::size_t(rect.xmin()) * N,
                                std::size_t(rect.width()) * N * sizeof(T));
                source->_tiles(x, y) = tile;
            }
        }
    } else {
        source->_layout = TileLayout(size, size, GenVec<int, 2>(0, 0), size);
        SharedPtr<ImageTile> tile = ImageTile::createNonCached(size, F);
        tile->setRawData<F>(data);
        source->_tiles.assign(1, 1, tile);
    }
    return self;
}

SharedPtr<TilingImageSource> TilingImageSource::createRGB(
    const SharedPtr<const GenImageData<unsigned char, 3>>& data) {
    return cut<PfRGB8>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createRGB16(
    const SharedPtr<const GenImageData<unsigned short, 3>>& data) {
    return cut<PfRGB16>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createRGBA(
    const SharedPtr<const GenImageData<unsigned char, 4>>& data) {
    return cut<PfRGBA8>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createRGBA16(
    const SharedPtr<const GenImageData<unsigned short, 4>>& data) {
    return cut<PfRGBA16>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createBGRA(
    const SharedPtr<const GenImageData<unsigned char, 4>>& data) {
    return cut<PfBGRA8>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createRGB32F(
    const SharedPtr<const GenImageData<float, 3>>& data) {
    return cut<PfRGB32F>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createRGBA32F(
    const SharedPtr<const GenImageData<float, 4>>& data) {
    return cut<PfRGBA32F>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createRed32F(
    const SharedPtr<const GenImageData<float, 1>>& data) {
    return cut<PfRed32F>(data);
}
SharedPtr<TilingImageSource> TilingImageSource::createLum32F(
    const SharedPtr<const GenImageData<float, 1>>& data) {
    return cut<PfLum32F>(data);
}

void TilingImageSource::getTiles(TileArray& out, const TileSet& tiles, bool, VersionArray* versions,
                                 const OnRequest&) {
    detail::fillLeafTiles(out, versions, tiles, _layout.tileCount, version(),
                          [this](unsigned int x, unsigned int y) { return computeTileData(x, y); });
}

SharedPtr<const ImageTile> TilingImageSource::computeTileData(unsigned int column, unsigned int row) {
    const bool inside = int(column) < _tiles.columns() && int(row) < _tiles.rows();
    QOR_ASSERT_TEXT(inside, "(int)column < _tiles.columns() && (int)row < _tiles.rows()");
    return inside ? _tiles(column, row) : nullptr;
}

}  // namespace qor::imaging
