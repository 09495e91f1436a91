#pragma once
// Image: the light handle that callers hold on image data: a shared source and a rectangle of it.
// A sub-image shares its source; its tile (0, 0) is the source tile under its top-left pixel, so
// its first tiles may start at negative coordinates. Nothing is computed until tiles are asked for.
//
// Ownership: an Image exists only behind a SharedPtr and never changes after creation.
// Thread contract: immutable; every member may be called from any thread. The tile members block
// as ImageSource::getTiles does.

#include <set>
#include <vector>

#include "base/thread/DependentJobMerger.h"
#include "imaging/ImageSource.h"

namespace qor::imaging {

class Image {
public:
    using TileIndex = ImageSource::TileIndex;
    using TileSet = ImageSource::TileSet;
    using TileArray = ImageSource::TileArray;
    using VersionArray = ImageSource::VersionArray;
    using OnRequest = ImageSource::OnRequest;

    // The whole of `source`.
    static SharedPtr<Image> create(const SharedPtr<ImageSource>& source);
    // One tile, wrapped in a source of its own.
    static SharedPtr<Image> create(const SharedPtr<const ImageTile>& tile);

    GenVec<int, 2> size() const { return _subrect.size(); }
    int width() const { return _subrect.width(); }
    int height() const { return _subrect.height(); }
    unsigned int version() const { return _source->version(); }
    RawPixelFormat pixelFormat() const { return _source->pixelFormat(); }
    const SharedPtr<ImageSource>& source() const { return _source; }
    const Recti& subrect() const { return _subrect; }

    // The source's layout seen from this rectangle.
    TileLayout tileLayout() const;
    int tileRows() const;
    int tileColumns() const;
    bool isTiled() const;
    // The source tile that is tile (0, 0) here.
    TileIndex sourceStartTile() const;
    // Tile (x, y)'s rectangle relative to this image.
    Recti getTileRect(unsigned int x, unsigned int y) const;

    SharedPtr<const ImageTile> getTile(unsigned int x, unsigned int y, bool cachedOnly,
                                       unsigned int* version, const OnRequest& onRequest) const;
    void getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                  const OnRequest& onRequest) const;
    TileArray getTiles(const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                       const OnRequest& onRequest) const;
    // The whole image as one tile.
    SharedPtr<const ImageTile> getAsTile(const OnRequest& onRequest = OnRequest(),
                                         bool mirrored = false) const;
    // `rect` (relative to this image) as one tile; outside the source mirrored when asked.
    SharedPtr<const ImageTile> getRectAsTile(const Recti& rect, bool mirrored,
                                             const OnRequest& onRequest = OnRequest()) const;
    // A sub-image of one tile's rectangle (clipped to this image).
    SharedPtr<Image> getTileImage(unsigned int x, unsigned int y) const;
    // A sub-image; `rect` is relative to this image and must lie inside it (logged otherwise).
    SharedPtr<Image> getSubImage(const Recti& rect) const;
    // The same; `onRelease` runs when the sub-image dies (to free what it was carved from).
    SharedPtr<Image> getSubImage(const Recti& rect, const Function0<void>& onRelease) const;

    SharedPtr<RequestHandle> requestTiles(const TileSet& tiles,
                                          const SharedPtr<thread::JobScoreFunction>& score,
                                          const ImageSource::TileCallback& tileCallback,
                                          bool unused,
                                          const ImageSource::ProgressCallback& progress) const;
    ImageSource::TileGetter computeJobsUnlocked(unsigned int x, unsigned int y,
                                                ImageSource::JobSet& jobs,
                                                thread::DependentJobMerger& merger) const;
    void computeJobsV(std::vector<ImageSource::TileGetter>& out,
                      const std::vector<TileIndex>& tiles, ImageSource::JobSet& jobs,
                      thread::DependentJobMerger& merger, unsigned int version,
                      bool* outdated) const;
    void computeJobsUnlockedV(std::vector<ImageSource::TileGetter>& out,
                              const std::vector<TileIndex>& tiles, ImageSource::JobSet& jobs,
                              thread::DependentJobMerger& merger, unsigned int version,
                              bool* outdated) const;

    ~Image();
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

private:
    Image(const SharedPtr<ImageSource>& source, const Recti& subrect,
          Function0<void> onRelease = Function0<void>());
    std::vector<TileIndex> moved(const std::vector<TileIndex>& tiles) const;
    bool checkSubRect(const Recti& rect) const;

    const SharedPtr<ImageSource> _source;
    const Recti _subrect;
    const Function0<void> _onRelease;
};

}  // namespace qor::imaging
