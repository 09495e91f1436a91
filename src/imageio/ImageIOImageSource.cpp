// ImageIOImageSource and ResourceImageIOImageSource: sizes at creation, the two roads of tile
// computation, and the file locks of the two ends.

#include "imageio/ImageIOImageSource.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>

#include "base/Log.h"
#include "base/resource/ResourceManager.h"
#include "imageio/ImageLoader.h"
#include "imageio/ImageScaling.h"
#include "imageio/detail/LoaderImageSource.h"
#include "imaging/ColorTransform.h"
#include "imaging/ImageTile.h"
#include "imaging/ImagingException.h"
#include "imaging/ScaledImageSource.h"
#include "imaging/TileCache.h"

namespace qor::imageio {

using imaging::ColorProfile;
using imaging::ColorTransform;
using imaging::ImageSource;
using imaging::ImageTile;
using imaging::RawPixelFormat;
using Vec2i = math::GenVec<int, 2>;

namespace {

imaging::TileLayout layoutFor(const ImageIOImageSourceBase::ConstructionParam& param) {
    if (param.underlyingSource) return param.underlyingSource->tileLayout();
    const Vec2i tile =
        param.tileSize != Vec2i(0, 0) ? param.tileSize : ImageSource::getGPUPreferredTileSize();
    return imaging::TileLayout(param.size, tile, Vec2i(0, 0), param.size);
}

// The colour conversion of each tile from the file's profile to the common one, in the tiles'
// own format; empty when there is nothing to convert.
// The transform is built for `format`, not for 8-bit RGBA always: the loader's source delivers
// its tiles in the source's format, which may be 16-bit or float, and a transform made for 8-bit
// samples cannot convert those (their 8-bit view is null, so the picture would silently stay in
// the file's colour space, or be misread). For an 8-bit RGBA source the two are the same.
ImageLoader::PostProcess colourPostProcess(const SharedPtr<ColorProfile>& imageProfile,
                                           const SharedPtr<ColorProfile>& commonProfile,
                                           RawPixelFormat format) {
    if (!imageProfile || !commonProfile) return {};
    const SharedPtr<ColorTransform> transform =
        ColorTransform::create(imageProfile, commonProfile, 0.0, -1, format);
    if (transform->isIdentity()) return {};
    return [transform, format](const SharedPtr<ImageTile>& tile) {
        switch (format) {
            case imaging::PfRGBA8:
                if (auto d = tile->getRawDataTarget<imaging::PfRGBA8>()) transform->apply(*d);
                break;
            case imaging::PfRGBA16:
                if (auto d = tile->getRawDataTarget<imaging::PfRGBA16>()) transform->apply(*d);
                break;
            case imaging::PfRGBA32F:
                if (auto d = tile->getRawDataTarget<imaging::PfRGBA32F>()) transform->apply(*d);
                break;
            default:
                break;
        }
    };
}

// `wanted` clamped side by side to [0, trueSize], and trueSize scaled uniformly to fit inside
// that, each side rounded and at least 1. (0, 0) when a clamped side is 0, which includes every
// side of an unknown true size (0, 0): such a size fails the construction.
Vec2i clampAndFit(Vec2i wanted, Vec2i trueSize) {
    const Vec2i clamped(std::clamp(wanted.x, 0, std::max(trueSize.x, 0)),
                        std::clamp(wanted.y, 0, std::max(trueSize.y, 0)));
    if (clamped.x == 0 || clamped.y == 0) return Vec2i(0, 0);
    const double scale = std::min(double(clamped.x) / trueSize.x, double(clamped.y) / trueSize.y);
    return Vec2i(std::max(1, int(std::lround(trueSize.x * scale))),
                 std::max(1, int(std::lround(trueSize.y * scale))));
}

bool vanished(const FastString<char>& path) {
    std::error_code ec;
    return !std::filesystem::exists(std::string(path.view()), ec);
}

}  // namespace

// ---------------------------------------------------------------- base

ImageIOImageSourceBase::ImageIOImageSourceBase(const ConstructionParam& param,
                                               const String& knownPath)
    : ImageSource(param.size, param.format),
      _param(param),
      _lastPath(knownPath),
      _layout(layoutFor(param)),
      _regionRead(param.regionRead),
      _imageType(param.imageType),
      _commonProfile(param.commonProfile) {
    QOR_ASSERT_TEXT(param.size != Vec2i(0, 0), "param.size != Vec2i(0,0)");
}

ImageIOImageSourceBase::~ImageIOImageSourceBase() = default;

Vec2i ImageIOImageSourceBase::readSize(const String& path) {
    try {
        ImageLoader loader(path, false);
        // Not only orientations 6 and 8 stand across: 5 and 7 are the same quarter turns with a
        // mirror. The loader shows all four upright with the sides exchanged, and the layout made
        // from this size must equal that of the loader's source (checked when it is made), so
        // the size is exchanged for the four alike.
        return ImageLoader::orientedSize(loader.getMetadata()->size(), loader.orientation());
    } catch (const ResourceDeletedException&) {
        QOR_LOG(LogError, "Couldn't get size for image. Item deleted in  '%*'", path);
    } catch (const ImageLoaderException& e) {
        if (vanished(path)) {
            QOR_LOG(LogError, "Couldn't get size for image. Item deleted in  '%*'", path);
        } else {
            QOR_LOG(LogError, "unknown uncaught exception '%*'", e.what());
            QOR_ASSERT_TEXT(false, "false");
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "unknown uncaught exception '%*'", e.what());
        QOR_ASSERT_TEXT(false, "false");
    }
    return Vec2i(0, 0);
}

SharedPtr<ColorProfile> ImageIOImageSourceBase::getCommonProfile() const { return _commonProfile; }

SharedPtr<ColorProfile> ImageIOImageSourceBase::getImageProfile() const {
    ScopedLock<thread::Mutex> lock(_mutex);
    return _param.imageProfile;
}

SharedPtr<ImageSource> ImageIOImageSourceBase::getUnderlyingSource() const {
    ScopedLock<thread::Mutex> lock(_mutex);
    return _param.underlyingSource;
}

void ImageIOImageSourceBase::getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly,
                                      VersionArray* versions, const OnRequest& onRequest) {
    if (SharedPtr<ImageSource> underlying = getUnderlyingSource()) {
        underlying->getTiles(out, tiles, cachedOnly, versions, onRequest);
        return;
    }
    ImageSource::getTiles(out, tiles, cachedOnly, versions, onRequest);
}

SharedPtr<const ImageTile> ImageIOImageSourceBase::computeTileData(unsigned int column,
                                                                   unsigned int row) {
    return _regionRead ? computeRegion(column, row) : computeThroughUnderlying(column, row);
}

void ImageIOImageSourceBase::withLockedFile(const char* failure,
                                            const Function1<void, const String&>& read) {
    // A lock that fails gives no path: the line then names the last one known.
    String path = _lastPath;
    bool locked = false;
    try {
        path = lockFile();
        _lastPath = path;
        locked = true;
        read(path);
        locked = false;
        unlockFile();
    } catch (const std::exception& e) {
        if (locked) unlockFile();
        QOR_ASSERT_TEXT(false, "false");
        QOR_LOG(LogError, failure, path, e.what());
        throw;
    }
}

SharedPtr<ImageSource> ImageIOImageSourceBase::makeUnderlyingSource() {
    ScopedLock<thread::Mutex> lock(_mutex);
    if (!_param.underlyingSource) {
        // The file is read under _mutex; the lambda works on copies of the guarded fields, which
        // are written back after it, so that the lock analysis sees every access under the lock.
        SharedPtr<ColorProfile> profile = _param.imageProfile;
        const imaging::RawPixelFormat format = _param.format;
        SharedPtr<ImageSource> source;
        withLockedFile("ImageIOImageSource: failed to read file '%*': %*", [&](const String& path) {
            ImageLoader loader(path, false);
            if (!profile) profile = loader.getColorProfile();
            const ImageLoader::PostProcess post =
                colourPostProcess(profile, _commonProfile, format);
            source = loader.getImageSource(format, ImageLoader::ImageTypeFull, _layout.tileSize,
                                           post, _layout.imageSize);
            if (!source) throw std::bad_alloc();
            QOR_ASSERT_TEXT(_layout == source->tileLayout(),
                            "_layout == _underlyingSource->tileLayout()");
        });
        _param.imageProfile = profile;
        _param.underlyingSource = source;
    }
    return _param.underlyingSource;
}

SharedPtr<const ImageTile> ImageIOImageSourceBase::computeThroughUnderlying(unsigned int column,
                                                                            unsigned int row) {
    const SharedPtr<ImageSource> underlying = makeUnderlyingSource();
    // The tile is read without the mutex, so that the workers read tiles side by side and the
    // pipeline's calls on this source (version, draw parameters) do not wait for a decode. A
    // loader's source reads the tile here, on this job's worker; any other source is asked for
    // it (and may wait for jobs of its own).
    if (auto* reader = dynamic_cast<detail::LoaderSourceBase*>(underlying.get()))
        return reader->readTileNow(column, row);
    return underlying->getTile(int(column), int(row), false, nullptr, {});
}

SharedPtr<const ImageTile> ImageIOImageSourceBase::computeRegion(unsigned int column,
                                                                 unsigned int row) {
    QOR_ASSERT_TEXT(column < (size_t)_layout.tileCount.x, "column < (size_t) _layout.tileCount.x");
    QOR_ASSERT_TEXT(row < (size_t)_layout.tileCount.y, "row < (size_t) _layout.tileCount.y");
    const math::Recti rect = _layout.getTileRect(int(column), int(row));
    unsigned int atVersion = version();
    if (SharedPtr<const ImageTile> alive = imaging::TileCache::getLifeTile(this, rect, atVersion))
        return alive;

    ImagePtr tiledata;
    SharedPtr<ColorProfile> imageProfile;
    {
        ScopedLock<thread::Mutex> lock(_mutex);
        imageProfile = _param.imageProfile;  // as above: the lambda works on a copy
        withLockedFile(
            "ImageIOImageSource: failed to read image data for '%*': %*", [&](const String& path) {
                ImageLoader loader(path, false);
                if (!imageProfile) imageProfile = loader.getColorProfile();
                if (loader.size() == _layout.imageSize) {
                    tiledata = loader.getImage4ub(_imageType, rect);
                } else {
                    // A resource source smaller than its file: the pixels under the tile, reduced.
                    const Vec2i full = loader.size();
                    const double sx = double(full.x) / _layout.imageSize.x;
                    const double sy = double(full.y) / _layout.imageSize.y;
                    const math::Recti under(
                        Vec2i(int(rect.mins.x * sx), int(rect.mins.y * sy)),
                        Vec2i(std::min(full.x, int(std::ceil(rect.maxs.x * sx))),
                              std::min(full.y, int(std::ceil(rect.maxs.y * sy)))));
                    tiledata = scaleTrilinear_destructive(loader.getImage4ub(_imageType, under),
                                                          rect.width(), rect.height(), ScaleExact);
                }
            });
        _param.imageProfile = imageProfile;
    }
    // The colour work runs without the mutex, so that several tiles convert side by side.
    if (tiledata && _commonProfile && imageProfile) {
        const SharedPtr<ColorTransform> transform =
            ColorTransform::create(imageProfile, _commonProfile, 0.0, -1, imaging::PfRGBA8);
        transform->apply(*tiledata, math::Recti(0, 0, tiledata->width(), tiledata->height()));
    }
    QOR_ASSERT_TEXT(tiledata, "tiledata");
    if (!tiledata) {
        tiledata = Image4ub::create(rect.width(), rect.height());
        for (int y = 0; y < tiledata->height(); ++y)
            std::fill_n(tiledata->row(y), size_t(tiledata->width()) * 4, 0);
    }
    SharedPtr<ImageTile> tile =
        ImageTile::create(rect.size(), imaging::PfRGBA8, getDrawParameters());
    tile->setDataRGBA8(tiledata);

    // Another thread may have read the same tile meanwhile: the first one cached is the one all
    // of them hand out.
    SharedPtr<const ImageTile> ret = tile;
    if (!imaging::TileCache::cacheLifeTileIfNewer(tile, this, rect, atVersion)) {
        if (SharedPtr<const ImageTile> first = imaging::TileCache::getLifeTile(this, rect, atVersion))
            ret = first;
    }
    QOR_ASSERT_TEXT(ret && ret->valid(), "ret && ret->valid()");
    return ret;
}

// ---------------------------------------------------------------- file path

ImageIOImageSource::ImageIOImageSource(const String& path, const ConstructionParam& param)
    : ImageIOImageSourceBase(param, path), _path(path) {}

SharedPtr<ImageSource> ImageIOImageSource::create(const String& path, ConstructionParam param) {
    if (param.size == Vec2i(0, 0)) param.size = readSizeLocked(path);
    return createSized(path, param);
}

SharedPtr<ImageSource> ImageIOImageSource::create(const String& path, RawPixelFormat format,
                                                  SharedPtr<ColorProfile> profile,
                                                  bool regionRead) {
    ConstructionParam param;
    param.size = readSizeLocked(path);
    param.format = format;
    param.commonProfile = std::move(profile);
    param.regionRead = regionRead;
    param.imageType = ImageLoader::ImageTypeFull;
    // Not through the long form: that would read the size of a file that gave none once more.
    return createSized(path, param);
}

SharedPtr<imaging::Image> ImageIOImageSource::createScaled(const String& path,
                                                           ConstructionParam param, double scale) {
    Vec2i full(0, 0);
    int reduction = 1;
    try {
        filesystem::FilesystemScopedLock lock(path.view(),
                                              filesystem::FilesystemScopedLock::Shared);
        const ImageLoader loader(path, false);
        full = loader.size();
        // A region read or a given underlying source has no band decoder to reduce with.
        if (!param.regionRead && !param.underlyingSource)
            reduction = detail::directReduction(loader, scale);
        param.size = detail::reducedSize(loader, reduction);
    } catch (const ImageLoaderException& e) {
        QOR_LOG(LogError, "ImageIOImageSource: failed to read file '%*': %*", path, e.what());
        return nullptr;
    }
    const SharedPtr<ImageSource> source = createSized(path, param);
    if (!source) return nullptr;
    SharedPtr<imaging::Image> image = imaging::Image::create(source);
    const double rest = scale * reduction;  // what the decoder leaves to do
    if (std::abs(rest - 1.0) < 1e-9) return image;
    const Vec2i wanted = imaging::ScaledImageSource::scaledSize(full, scale);
    image = imaging::Image::create(imaging::ScaledImageSource::create(image, rest));
    // A last reduced pixel that covers less than d pixels of the file can add one pixel.
    if (image->size() != wanted) image = image->getSubImage(math::Recti(Vec2i(0, 0), wanted));
    return image;
}

Vec2i ImageIOImageSource::readSizeLocked(const String& path) {
    filesystem::FilesystemScopedLock lock(path.view(), filesystem::FilesystemScopedLock::Shared);
    return readSize(path);
}

SharedPtr<ImageSource> ImageIOImageSource::createSized(const String& path,
                                                       const ConstructionParam& param) {
    if (param.size == Vec2i(0, 0)) {
        QOR_ASSERT_TEXT(false, "param.size != Vec2i(0,0)");
        return nullptr;
    }
    return (new ImageIOImageSource(path, param))->setupSelfRef();
}

ImageIOImageSource::String ImageIOImageSource::lockFile() {
    QOR_ASSERT_TEXT(!_fsLock, "!_fsLock");
    _fsLock = std::make_unique<filesystem::FilesystemScopedLock>(
        _path.view(), filesystem::FilesystemScopedLock::Shared);
    return _path;
}

void ImageIOImageSource::unlockFile() {
    QOR_ASSERT_TEXT(_fsLock, "_fsLock");
    _fsLock.reset();
}

// ---------------------------------------------------------------- resource

ResourceImageIOImageSource::ResourceImageIOImageSource(ResourceManager* manager, ResourceID id,
                                                       const ConstructionParam& param,
                                                       const String& knownPath)
    : ImageIOImageSourceBase(param, knownPath), _manager(manager), _id(id) {}

SharedPtr<ImageSource> ResourceImageIOImageSource::create(ResourceManager* manager, ResourceID id,
                                                          ConstructionParam param) {
    Vec2i trueSize(0, 0);
    String path;
    try {
        ResourceFSScopedLock lock(manager, id, 0);
        path = String(lock.path());
        trueSize = readSize(path);
    } catch (const ResourceDeletedException& e) {
        QOR_LOG(LogError, "Couldn't get size for image. Item deleted in  '%*'", e.what());
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "unknown uncaught exception '%*'", e.what());
        QOR_ASSERT_TEXT(false, "false");
    }
    param.size = param.size == Vec2i(0, 0) ? trueSize : clampAndFit(param.size, trueSize);
    if (param.size == Vec2i(0, 0)) {
        QOR_ASSERT_TEXT(false, "param.size != Vec2i(0,0)");
        return nullptr;
    }
    return (new ResourceImageIOImageSource(manager, id, param, path))->setupSelfRef();
}

SharedPtr<ImageSource> ResourceImageIOImageSource::create(ResourceManager* manager, ResourceID id,
                                                          RawPixelFormat format,
                                                          SharedPtr<ColorProfile> profile,
                                                          bool regionRead, int imageType) {
    return create(manager, id, format, std::move(profile), nullptr, nullptr, regionRead, imageType);
}

SharedPtr<ImageSource> ResourceImageIOImageSource::create(ResourceManager* manager, ResourceID id,
                                                          RawPixelFormat format,
                                                          SharedPtr<ColorProfile> commonProfile,
                                                          SharedPtr<ColorProfile> imageProfile,
                                                          SharedPtr<ImageSource> underlyingSource,
                                                          bool regionRead, int imageType) {
    ConstructionParam param;
    param.format = format;
    param.commonProfile = std::move(commonProfile);
    param.imageProfile = std::move(imageProfile);
    param.underlyingSource = std::move(underlyingSource);
    param.regionRead = regionRead;
    param.imageType = imageType;
    return create(manager, id, param);
}

ResourceImageIOImageSource::String ResourceImageIOImageSource::lockFile() {
    QOR_ASSERT_TEXT(!_fileLock, "!_fileLock");
    _fileLock = std::make_unique<ResourceFSScopedLock>(_manager, _id, 0);
    return String(_fileLock->path());
}

void ResourceImageIOImageSource::unlockFile() {
    QOR_ASSERT_TEXT(_fileLock, "_fileLock");
    _fileLock.reset();
}

}  // namespace qor::imageio
