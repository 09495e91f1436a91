#include "imageio/detail/LoaderImageSource.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <string>
#include <type_traits>

#include "imageio/ImageScaling.h"
#include "imageio/detail/LoaderPixels.h"
#include "imaging/ImageTile.h"
#include "imaging/ImagingException.h"

namespace qor::imageio::detail {

template <imaging::RawPixelFormat F>
SharedPtr<imaging::ImageSource> LoaderImageSource<F>::create(
    const ImageLoader& loader, int imageType, math::GenVec<int, 2> tileSize,
    const ImageLoader::PostProcess& postProcess, bool bands, math::GenVec<int, 2> size) {
    auto* source = new LoaderImageSource(loader, imageType, tileSize, postProcess, bands, size);
    return source->setupSelfRef();
}

namespace {

// The stored size reduced by `denominator` as libjpeg's DCT scaling reduces it.
math::GenVec<int, 2> reducedBy(math::GenVec<int, 2> stored, int denominator) {
    return math::GenVec<int, 2>((stored.x + denominator - 1) / denominator,
                                (stored.y + denominator - 1) / denominator);
}

constexpr int kDctDenominators[] = {8, 4, 2};

}  // namespace

int directReduction(const ImageLoader& loader, double scale) {
    if (loader.format() != ImageLoader::FormatJpeg || loader.orientation() != 1 || !(scale > 0))
        return 1;
    for (int denominator : kDctDenominators) {
        // 1e-9: a factor such as 0.5 given as a quotient still allows its own denominator.
        if (denominator * scale > 1.0 + 1e-9) continue;
        return JpegBandReader::readsFile(std::string(loader.path().view())) ? denominator : 1;
    }
    return 1;
}

math::GenVec<int, 2> reducedSize(const ImageLoader& loader, int factor) {
    return factor > 1 ? reducedBy(loader.storedSize(), factor) : loader.size();
}

template <imaging::RawPixelFormat F>
int LoaderImageSource<F>::jpegDenominator(const ImageLoader& loader, bool bands,
                                          math::GenVec<int, 2> size) {
    if (!bands || loader.format() != ImageLoader::FormatJpeg || loader.orientation() != 1) return 0;
    if (size == loader.storedSize()) return 1;
    for (int denominator : kDctDenominators)
        if (size == reducedBy(loader.storedSize(), denominator)) return denominator;
    return 0;
}

template <imaging::RawPixelFormat F>
std::size_t LoaderImageSource<F>::maxKeptBands(int width, int bandHeight) {
    const std::size_t bandBytes = std::size_t(std::max(width, 1)) *
                                  std::size_t(std::max(bandHeight, 1)) * 4 * sizeof(Element);
    return std::max<std::size_t>(2, kKeptBandBytes / bandBytes);
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
      _bands(bands),
      _dctReduction(jpegDenominator(loader, bands, size)),
      _maxKept(maxKeptBands(size.x, tileSize.y)) {
    // Bands of a JPEG or PNG read as stored come from one decoder that goes on from band to band;
    // a JPEG's decoder may reduce it on the way.
    const std::string path(loader.path().view());
    if (_dctReduction > 0) {
        const ImageQuality quality =
            imageType == ImageLoader::ImageTypeFull ? ImageQualityBest : ImageQualityFast;
        _jpeg = std::make_unique<JpegBandReader>(path, quality, _dctReduction);
    } else if (bands && loader.orientation() == 1 && size == loader.size() &&
               loader.format() == ImageLoader::FormatPng) {
        _png = std::make_unique<PngBandReader>(path);
    }
}

namespace {

// The band that `read` gives from `reader`, or null when it throws anything but std::bad_alloc:
// the loader's own read, which the caller falls back to, reports the file's trouble.
template <class Reader, class Read>
auto bandOrNull(Reader& reader, Read read) -> decltype(read(reader)) {
    try {
        return read(reader);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return nullptr;
    }
}

// `band` with Element samples: itself when it has them already.
template <class Element, class T>
SharedPtr<const imaging::GenImageData<Element, 4>> withElements(
    const SharedPtr<imaging::GenImageData<T, 4>>& band) {
    if constexpr (std::is_same_v<Element, T>)
        return band;
    else
        return convertImage<Element>(*band);
}

}  // namespace

template <imaging::RawPixelFormat F>
void LoaderImageSource<F>::readTile(imaging::ImageTile& tile, const math::Recti& rect,
                                    unsigned int row) {
    const bool areaReduced = _layout.imageSize != _loader.size() && _dctReduction <= 1;
    if (areaReduced || !_bands) {
        tile.setRawData<F>(areaReduced ? readReduced(rect)
                                       : _loader.template read<Element>(_imageType, rect));
        return;
    }
    // Cut straight into the tile's own storage: no buffer of the tile's size in between.
    const unsigned int column = unsigned(rect.mins.x / _layout.tileSize.x);
    const SharedPtr<const Data> band = bandFor(row, column);
    const SharedPtr<Data> out = tile.getRawDataTarget<F>();
    if (!out) throw std::bad_alloc();
    const int bandTop = _layout.getTileRect(0, int(row)).mins.y;
    for (int y = 0; y < rect.height(); ++y)
        std::copy_n(band->row(rect.mins.y - bandTop + y) + size_t(rect.mins.x) * 4,
                    size_t(rect.width()) * 4, out->row(y));
}

template <imaging::RawPixelFormat F>
long long LoaderImageSource<F>::linesDecoded() {
    ScopedLock<thread::Mutex> lock(_decodeMutex);
    if (_jpeg) return _jpeg->linesDecoded();
    if (_png) return _png->linesDecoded();
    return 0;
}

template <imaging::RawPixelFormat F>
auto LoaderImageSource<F>::keptBand(unsigned int row, unsigned int column)
    -> SharedPtr<const Data> {
    for (auto it = _kept.begin(); it != _kept.end(); ++it) {
        if (it->row != int(row)) continue;
        SharedPtr<const Data> pixels = it->pixels;
        if (column < it->cut.size() && !it->cut[column]) {
            it->cut[column] = true;
            if (--it->uncut == 0) _kept.erase(it);  // every tile has its pixels now
        }
        return pixels;
    }
    return nullptr;
}

template <imaging::RawPixelFormat F>
auto LoaderImageSource<F>::bandFor(unsigned int row, unsigned int column) -> SharedPtr<const Data> {
    {
        ScopedLock<thread::Mutex> lock(_bandMutex);
        if (SharedPtr<const Data> band = keptBand(row, column)) return band;
    }
    ScopedLock<thread::Mutex> decodeLock(_decodeMutex);
    {
        // Another tile of the row may have decoded it while this one waited.
        ScopedLock<thread::Mutex> lock(_bandMutex);
        if (SharedPtr<const Data> band = keptBand(row, column)) return band;
    }
    const math::Recti rowRect = _layout.getTileRect(0, int(row));
    SharedPtr<const Data> band =
        decodeBand(math::Recti(0, rowRect.mins.y, _layout.imageSize.x, rowRect.height()));
    // A row at or above the furthest one decoded is read a second time (from the top, for the
    // sequential readers): keep enough bands to span the two from now on.
    const int furthest = _furthestRow;
    _furthestRow = std::max(_furthestRow, int(row));
    ScopedLock<thread::Mutex> lock(_bandMutex);
    if (int(row) <= furthest)
        _keepLimit = std::min(_maxKept, std::max(_keepLimit, std::size_t(furthest - int(row)) + 2));
    KeptBand kept;
    kept.row = int(row);
    kept.pixels = band;
    kept.cut.assign(size_t(std::max(_layout.tileCount.x, 1)), false);
    kept.uncut = int(kept.cut.size());
    kept.cut[std::min(size_t(column), kept.cut.size() - 1)] = true;
    if (--kept.uncut > 0) {
        _kept.insert(_kept.begin(), std::move(kept));
        if (_kept.size() > _keepLimit) _kept.resize(_keepLimit);
    }
    return band;
}

template <imaging::RawPixelFormat F>
auto LoaderImageSource<F>::decodeBand(const math::Recti& rect) -> SharedPtr<const Data> {
    const int top = rect.mins.y, height = rect.height();
    // A band of another width than the header told (a decoder that disagrees with the metadata
    // reader about the picture) is not cut: the loader's read reports the file.
    const auto fits = [&](const auto& band) {
        return band && band->width() == rect.width() && band->height() == height;
    };
    if (_jpeg) {
        if (ImagePtr band = bandOrNull(
                *_jpeg, [&](JpegBandReader& reader) { return reader.read(top, height); });
            fits(band))
            return withElements<Element>(band);
    }
    if (_png) {
        // 8-bit sources take 8-bit rows; the others 16-bit rows, exact for 16-bit files.
        using Row = std::conditional_t<std::is_same_v<Element, unsigned char>, unsigned char,
                                       unsigned short>;
        if (auto band = bandOrNull(
                *_png, [&](PngBandReader& reader) { return reader.read<Row>(top, height); });
            fits(band))
            return withElements<Element>(band);
    }
    if (_dctReduction > 1) return readReduced(rect);  // a file the band reader no longer reads
    return _loader.template read<Element>(_imageType, rect);
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
            math::GenVec<int, 2>(int(std::floor(rect.mins.x * sx)),
                                 int(std::floor(rect.mins.y * sy))),
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
    SharedPtr<imaging::ImageTile> tile =
        imaging::ImageTile::create(rect.size(), F, getDrawParameters());
    readTile(*tile, rect, row);
    if (_postProcess) _postProcess(tile);
    return tile;
}

template class LoaderImageSource<imaging::PfRGBA8>;
template class LoaderImageSource<imaging::PfRGBA16>;
template class LoaderImageSource<imaging::PfRGBA32F>;

}  // namespace qor::imageio::detail
