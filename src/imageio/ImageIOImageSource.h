#pragma once
// ImageIOImageSource: the ImageSource of a picture in a file. It knows the picture's size and tile
// layout from its creation, opens the file only when a tile is wanted and lets go of it when that
// read is done, so that any number of such sources can exist without an open handle.
// ResourceImageIOImageSource does the same for a resource of a ResourceManager, whose file may be
// renamed or removed meanwhile. Both are thin ends of ImageIOImageSourceBase, which holds the
// logic; the ends differ only in how they lock the file and find its path (lockFile, unlockFile).
//
// Two roads of tile computation: with `regionRead` false the first tile makes one underlying
// source (ImageLoader::getImageSource) that serves every tile from then on; with it true every
// tile is read from the file by itself and registered in the tile cache, where a second thread
// that read the same tile meanwhile finds it.
//
// Tiles are delivered in `commonProfile`'s colours when both it and the file's own profile are
// known.
//
// Thread contract: tile jobs may come in at once on any threads. The source's _mutex (the
// ImageSource mutex) guards _param.underlyingSource, _param.imageProfile, _lastPath and the file
// lock of the ends, which are therefore present only between lockFile and unlockFile of one call
// under it.
// Lock order: the source's mutex first, then the file lock. Tiles of the underlying source are
// read without the mutex (that source serialises its own reads), so that workers read side by side.

#include "base/ResourceID.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/resource/ResourceFSScopedLock.h"
#include "imaging/ColorProfile.h"
#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/PixelFormat.h"
#include "imaging/TileLayout.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor {
class ResourceManager;
}

namespace qor::imageio {

class ImageIOImageSourceBase : public imaging::ImageSource {
public:
    using String = FastString<char>;

    struct ConstructionParam {
        // Picture size; (0, 0) when building means "read it from the file" in create.
        math::GenVec<int, 2> size{0, 0};
        // Tile size of the layout; (0, 0) takes ImageSource::getGPUPreferredTileSize().
        math::GenVec<int, 2> tileSize{0, 0};
        imaging::RawPixelFormat format = imaging::PfRGBA8;
        // Working colour space of the tiles; may be null.
        SharedPtr<imaging::ColorProfile> commonProfile;
        // The file's own profile; null: asked of the file when it is opened.
        SharedPtr<imaging::ColorProfile> imageProfile;
        // A source that already delivers the pixels; may be null.
        SharedPtr<imaging::ImageSource> underlyingSource;
        // True: every tile is read by itself. False: the first tile makes one underlying source.
        bool regionRead = false;
        // The ImageLoader image type of region reads; the underlying source reads ImageTypeFull.
        int imageType = 2;
    };

    ~ImageIOImageSourceBase() override;

    imaging::TileLayout tileLayout() const override { return _layout; }
    // Forwarded whole to the underlying source when there is one.
    void getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                  const OnRequest& onRequest) override;
    using ImageSource::getTiles;

    SharedPtr<imaging::ColorProfile> getCommonProfile() const;
    SharedPtr<imaging::ColorProfile> getImageProfile() const;
    SharedPtr<imaging::ImageSource> getUnderlyingSource() const;

    // The size of the picture at `path` (whose lock the caller holds) by its metadata, with width
    // and height exchanged for orientation 6 or 8 (and 5 and 7) of the file. (0, 0) when the file
    // cannot be read; logs "Couldn't get size for image. Item deleted in  '%*'" when it is gone.
    static math::GenVec<int, 2> readSize(const String& path);

protected:
    // `knownPath` is the file's path as far as it is known at construction: a failure to lock
    // the file names it (or the path of the last lock) in its log line.
    ImageIOImageSourceBase(const ConstructionParam& param, const String& knownPath);

    // Reads the file's tiles; throws ImageLoaderException (the pipeline fails the tile),
    // std::bad_alloc.
    SharedPtr<const imaging::ImageTile> computeTileData(unsigned int column,
                                                        unsigned int row) override;

    // Locks the file in shared mode and returns its present path; unlockFile lets it go. Called
    // in pairs, under _mutex.
    virtual String lockFile() = 0;
    virtual void unlockFile() = 0;

private:
    // The underlying source, made from the file on the first call (under _mutex, with the file
    // locked). Throws as computeTileData.
    SharedPtr<imaging::ImageSource> makeUnderlyingSource();
    // Runs `read` with the file locked and its path; on a failure the file is unlocked, the line
    // `failure` (path, reason) logged and the exception thrown on. Called under _mutex.
    void withLockedFile(const char* failure, const Function1<void, const String&>& read)
        QOR_REQUIRES(_mutex);
    SharedPtr<const imaging::ImageTile> computeThroughUnderlying(unsigned int column,
                                                                 unsigned int row);
    SharedPtr<const imaging::ImageTile> computeRegion(unsigned int column, unsigned int row);

    ConstructionParam _param QOR_GUARDED_BY(_mutex);
    String _lastPath QOR_GUARDED_BY(_mutex);  // the path of the last lock, for failure lines
    const imaging::TileLayout _layout;
    const bool _regionRead;
    const int _imageType;
    const SharedPtr<imaging::ColorProfile> _commonProfile;
};

class ImageIOImageSource : public ImageIOImageSourceBase {
public:
    // A size of (0, 0) is read from the file first; construction fails (null, after the logged
    // assertion "param.size != Vec2i(0,0)") when it cannot be.
    static SharedPtr<imaging::ImageSource> create(const String& path, ConstructionParam param);
    static SharedPtr<imaging::ImageSource> create(const String& path,
                                                  imaging::RawPixelFormat format,
                                                  SharedPtr<imaging::ColorProfile> profile,
                                                  bool regionRead = false);
    // The picture at `path` resampled by `scale` as ScaledImageSource resamples it:
    // ceil(size * scale) pixels a side, each the area mean of the pixels under it. Where the file
    // decodes a reduction of itself directly (a JPEG shown as stored, by 1/2, 1/4 or 1/8: see
    // detail::directReduction), the file source is made at that size, the decoder does those
    // first halvings and a ScaledImageSource only the rest; its pixels then differ from the full
    // road's by what DCT scaling differs from area means (the low frequencies of each block
    // against a box filter: a few levels, more at sharp edges). `param` gives all but the size,
    // which is the file's. Null (logged) when the file cannot be read; throws Exception for a
    // scale that ScaledImageSource refuses.
    static SharedPtr<imaging::Image> createScaled(const String& path, ConstructionParam param,
                                                  double scale);
    const String& path() const { return _path; }

protected:
    ImageIOImageSource(const String& path, const ConstructionParam& param);
    String lockFile() override;
    void unlockFile() override;

private:
    // The size by readSize under a shared lock of `path`.
    static math::GenVec<int, 2> readSizeLocked(const String& path);
    // The source of `param`, whose size is known; null (after the logged assertion) when it is
    // (0, 0).
    static SharedPtr<imaging::ImageSource> createSized(const String& path,
                                                       const ConstructionParam& param);

    const String _path;
    ScopedPtr<filesystem::FilesystemScopedLock> _fsLock;  // guarded by _mutex
};

class ResourceImageIOImageSource : public ImageIOImageSourceBase {
public:
    // The file's true size is read under the resource's lock. A given size is clamped to it side
    // by side and the true size fitted inside the result, so that the source is never larger
    // than its file and keeps its proportions; (0, 0) takes the true size. Construction fails
    // (null, after the logged assertion "param.size != Vec2i(0,0)") when the true size cannot be
    // read or a given side is 0 or less.
    static SharedPtr<imaging::ImageSource> create(ResourceManager* manager, ResourceID id,
                                                  ConstructionParam param);
    static SharedPtr<imaging::ImageSource> create(ResourceManager* manager, ResourceID id,
                                                  imaging::RawPixelFormat format,
                                                  SharedPtr<imaging::ColorProfile> profile,
                                                  bool regionRead, int imageType);
    static SharedPtr<imaging::ImageSource> create(ResourceManager* manager, ResourceID id,
                                                  imaging::RawPixelFormat format,
                                                  SharedPtr<imaging::ColorProfile> commonProfile,
                                                  SharedPtr<imaging::ColorProfile> imageProfile,
                                                  SharedPtr<imaging::ImageSource> underlyingSource,
                                                  bool regionRead, int imageType);

protected:
    ResourceImageIOImageSource(ResourceManager* manager, ResourceID id,
                               const ConstructionParam& param, const String& knownPath);
    String lockFile() override;
    void unlockFile() override;

private:
    ResourceManager* const _manager;
    const ResourceID _id;
    ScopedPtr<ResourceFSScopedLock> _fileLock;  // guarded by _mutex
};

}  // namespace qor::imageio
