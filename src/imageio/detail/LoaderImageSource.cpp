#include "imageio/detail/LoaderImageSource.h"

#include <algorithm>
#include <cmath>

#include "imageio/ImageScaling.h"
#include "imaging/ImagingException.h"
#include "imaging/ImageTile.h"

namespace qor::imageio::detail {

template <imaging::RawPixelFormat F>
SharedPtr<imaging::ImageSource> LoaderImageSource<F>::create(
    const ImageLoader& loader, int imageType, math::GenVec<int, 2> tileSize,
    const ImageLoader::PostProcess& postProcess, bool bands, math::GenVec<int, 2> size) {
    auto* source = new LoaderImageSource(loader, imageType, tileSize, postProcess, bands, size);
    return source->setupSelfRef();
}

template <imaging::RawPixelFormat F>
LoaderImageSource<F>::LoaderImageSource(const ImageLoader& loader, int imageType,
                                        math::GenVec<int, 2> tileSize,
                                        const ImageLoader::PostProcess& postProcess, bool bands,
                                        math::GenVec<int, 2> size)
    : LoaderSourceBase(size, F),
      _loader(loader),
      _imageType(imageType),
      _layout(size, tileSize, math::GenVec<int, 2>(0, 0), size),
      _postProcess(postProcess),
      _bands(bands) {}

template <imaging::RawPixelFormat F>
auto LoaderImageSource<F>::readTile(const math::Recti& rect, unsigned int row)
    -> SharedPtr<const Data> {
    if (_layout.imageSize != _loader.size()) return readReduced(rect);
    if (!_bands) return _loader.template read<Element>(_imageType, rect);
    SharedPtr<const Data> band;
    int bandTop = 0;
    {
        ScopedLock<thread::Mutex> lock(_bandMutex);
        const math::Recti rowRect = _layout.getTileRect(0, int(row));
        bandTop = rowRect.mins.y;
        if (_bandRow != int(row) || !_band) {
            _band.reset();  // let the old band go before the new one is read
            _band = _loader.template read<Element>(
                _imageType, math::Recti(0, rowRect.mins.y, _layout.imageSize.x, rowRect.height()));
            _bandRow = int(row);
        }
        band = _band;
    }
    auto out = Data::create(rect.width(), rect.height());
    for (int y = 0; y < rect.height(); ++y)
        std::copy_n(band->row(rect.mins.y - bandTop + y) + size_t(rect.mins.x) * 4,
                    size_t(rect.width()) * 4, out->row(y));
    return out;
}

template <imaging::RawPixelFormat F>
auto LoaderImageSource<F>::readReduced(const math::Recti& rect) -> SharedPtr<const Data> {
    if constexpr (F != imaging::PfRGBA8) {
        throw ImageLoaderException("reduced sources are 8-bit RGBA only");
    } else {
        const math::GenVec<int, 2> full = _loader.size();
        const double sx = double(full.x) / _layout.imageSize.x;
        const double sy = double(full.y) / _layout.imageSize.y;
        const math::Recti under(
            math::GenVec<int, 2>(int(std::floor(rect.mins.x * sx)), int(std::floor(rect.mins.y * sy))),
            math::GenVec<int, 2>(std::min(full.x, int(std::ceil(rect.maxs.x * sx))),
                                 std::min(full.y, int(std::ceil(rect.maxs.y * sy)))));
        return scaleTrilinear_destructive(_loader.read<unsigned char>(_imageType, under),
                                          rect.width(), rect.height(), ScaleExact);
    }
}

template <imaging::RawPixelFormat F>
SharedPtr<const imaging::ImageTile> LoaderImageSource<F>::computeTileData(unsigned int column,
                                                                           unsigned int row) {
    const math::Recti rect = _layout.getTileRect(int(column), int(row));
    SharedPtr<const Data> data = readTile(rect, row);
    SharedPtr<imaging::ImageTile> tile =
        imaging::ImageTile::create(rect.size(), F, getDrawParameters());
    tile->setRawData<F>(data);
    if (_postProcess) _postProcess(tile);
    return tile;
}

template class LoaderImageSource<imaging::PfRGBA8>;
template class LoaderImageSource<imaging::PfRGBA16>;
template class LoaderImageSource<imaging::PfRGBA32F>;

}  // namespace qor::imageio::detail
