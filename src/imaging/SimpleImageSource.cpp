#include "imaging/SimpleImageSource.h"

#include "base/Log.h"
#include "imaging/ImageTile.h"

namespace qor::imaging {

SimpleImageSource::SimpleImageSource(const SharedPtr<const ImageTile>& tile)
    : ImageSource(tile->size(), tile->pixelFormat(), tile->getDrawParameters()),
      _tile(tile),
      _layout(tile->size(), tile->size(), GenVec<int, 2>(0, 0), tile->size()) {}

SimpleImageSource::SimpleImageSource(GenVec<int, 2> size, RawPixelFormat format)
    : ImageSource(size, format), _layout(size, size, GenVec<int, 2>(0, 0), size) {
    const bool known = format == PfRGB8 || format == PfRGB16 || format == PfRGBA8 ||
                       format == PfRGBA16 || format == PfRed32F || format == PfLum32F;
    QOR_ASSERT_TEXT(known, "false");
}

SharedPtr<SimpleImageSource> SimpleImageSource::create(const SharedPtr<const ImageTile>& tile) {
    if (!tile) {
        QOR_ASSERT_TEXT(tile, "tile");
        return nullptr;
    }
    auto* source = new SimpleImageSource(tile);
    return std::static_pointer_cast<SimpleImageSource>(source->setupSelfRef());
}

template <RawPixelFormat F, class T, int N>
SharedPtr<SimpleImageSource> SimpleImageSource::fromData(const SharedPtr<GenImageData<T, N>>& data) {
    if (!data) {
        QOR_ASSERT_TEXT(data, "data");
        return nullptr;
    }
    const GenVec<int, 2> size(data->width(), data->height());
    auto* source = new SimpleImageSource(size, F);
    auto self = std::static_pointer_cast<SimpleImageSource>(source->setupSelfRef());
    SharedPtr<ImageTile> tile = ImageTile::create(size, F);
    tile->setRawData<F>(data);
    source->_tile = tile;
    return self;
}

SharedPtr<SimpleImageSource> SimpleImageSource::create(
    const SharedPtr<GenImageData<unsigned char, 3>>& data) {
    return fromData<PfRGB8>(data);
}
SharedPtr<SimpleImageSource> SimpleImageSource::create(
    const SharedPtr<GenImageData<unsigned short, 3>>& data) {
    return fromData<PfRGB16>(data);
}
SharedPtr<SimpleImageSource> SimpleImageSource::create(
    const SharedPtr<GenImageData<unsigned char, 4>>& data) {
    return fromData<PfRGBA8>(data);
}
SharedPtr<SimpleImageSource> SimpleImageSource::create(
    const SharedPtr<GenImageData<unsigned short, 4>>& data) {
    return fromData<PfRGBA16>(data);
}
SharedPtr<SimpleImageSource> SimpleImageSource::createRed32F(
    const SharedPtr<GenImageData<float, 1>>& data) {
    return fromData<PfRed32F>(data);
}
SharedPtr<SimpleImageSource> SimpleImageSource::createLum32F(
    const SharedPtr<GenImageData<float, 1>>& data) {
    return fromData<PfLum32F>(data);
}

void SimpleImageSource::getTiles(TileArray& out, const TileSet& tiles, bool, VersionArray* versions,
                                 const OnRequest&) {
    const GenVec<int, 2> count = _layout.tileCount;
    out.assign(std::max(count.x, 0), std::max(count.y, 0), nullptr);
    if (versions) versions->assign(std::max(count.x, 0), std::max(count.y, 0), 0);
    for (const TileIndex& idx : tiles) {
        if (idx.x < 0 || idx.y < 0 || idx.x >= out.columns() || idx.y >= out.rows()) continue;
        out(idx.x, idx.y) = computeTileData(unsigned(idx.x), unsigned(idx.y));
        if (versions) (*versions)(idx.x, idx.y) = version();
    }
}

SharedPtr<const ImageTile> SimpleImageSource::computeTileData(unsigned int row, unsigned int column) {
    QOR_ASSERT_TEXT(row == 0 && column == 0, "row == 0 && column == 0");
    return _tile;
}

}  // namespace qor::imaging
