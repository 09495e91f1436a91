#include "imaging/Image.h"

#include "base/Log.h"
#include "imaging/ImageTile.h"
#include "imaging/SimpleImageSource.h"

namespace qor::imaging {

Image::Image(const SharedPtr<ImageSource>& source, const Recti& subrect, Function0<void> onRelease)
    : _source(source), _subrect(subrect), _onRelease(std::move(onRelease)) {}

Image::~Image() {
    if (_onRelease) _onRelease();
}

SharedPtr<Image> Image::create(const SharedPtr<ImageSource>& source) {
    QOR_ASSERT_TEXT(source, "source");
    const Recti all = source ? Recti(source->size()) : Recti();
    return SharedPtr<Image>(new Image(source, all));
}

SharedPtr<Image> Image::create(const SharedPtr<const ImageTile>& tile) {
    return create(SimpleImageSource::create(tile));
}

TileLayout Image::tileLayout() const {
    const TileLayout source = _source->tileLayout();
    TileLayout layout(_subrect.size(), source.tileSize, source.origin - _subrect.mins,
                      source.sourceSize);
    const GenVec<int, 2> uncut = layout.origin;
    layout.cutNegativeTiles();
    // The far edge of the tile rectangles is origin + sourceSize: cutting moves the origin, so the
    // size shrinks by as much, and the last tiles still end where the source ends.
    layout.sourceSize -= layout.origin - uncut;
    return layout;
}

int Image::tileRows() const { return tileLayout().tileCount.y; }
int Image::tileColumns() const { return tileLayout().tileCount.x; }

bool Image::isTiled() const {
    const GenVec<int, 2> count = tileLayout().tileCount;
    return count.x * count.y > 1;
}

Image::TileIndex Image::sourceStartTile() const {
    const TileLayout source = _source->tileLayout();
    const GenVec<int, 2> rel = _subrect.mins - source.origin;
    return TileIndex(source.tileSize.x ? rel.x / source.tileSize.x : 0,
                     source.tileSize.y ? rel.y / source.tileSize.y : 0);
}

Recti Image::getTileRect(unsigned int x, unsigned int y) const {
    return tileLayout().getTileRect(int(x), int(y));
}

std::vector<Image::TileIndex> Image::moved(const std::vector<TileIndex>& tiles) const {
    const TileIndex start = sourceStartTile();
    std::vector<TileIndex> out;
    out.reserve(tiles.size());
    for (const TileIndex& idx : tiles) out.push_back(idx + start);
    return out;
}

SharedPtr<const ImageTile> Image::getTile(unsigned int x, unsigned int y, bool cachedOnly,
                                          unsigned int* version,
                                          const OnRequest& onRequest) const {
    const TileIndex start = sourceStartTile();
    return _source->getTile(int(x) + start.x, int(y) + start.y, cachedOnly, version, onRequest);
}

void Image::getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                     const OnRequest& onRequest) const {
    const TileIndex start = sourceStartTile();
    if (start == TileIndex(0, 0)) {
        _source->getTiles(out, tiles, cachedOnly, versions, onRequest);
        return;
    }
    TileSet sourceTiles;
    for (const TileIndex& idx : tiles) sourceTiles.insert(idx + start);
    TileArray sourceOut;
    VersionArray sourceVersions;
    _source->getTiles(sourceOut, sourceTiles, cachedOnly, versions ? &sourceVersions : nullptr,
                      onRequest);
    const GenVec<int, 2> count = tileLayout().tileCount;
    out.assign(std::max(count.x, 0), std::max(count.y, 0), nullptr);
    if (versions) versions->assign(std::max(count.x, 0), std::max(count.y, 0), 0);
    for (const TileIndex& idx : tiles) {
        const TileIndex s = idx + start;
        if (idx.x < 0 || idx.y < 0 || idx.x >= out.columns() || idx.y >= out.rows()) continue;
        if (s.x < 0 || s.y < 0 || s.x >= sourceOut.columns() || s.y >= sourceOut.rows()) continue;
        out(idx.x, idx.y) = sourceOut(s.x, s.y);
        if (versions) (*versions)(idx.x, idx.y) = sourceVersions(s.x, s.y);
    }
}

Image::TileArray Image::getTiles(const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                                 const OnRequest& onRequest) const {
    TileArray out;
    getTiles(out, tiles, cachedOnly, versions, onRequest);
    return out;
}

SharedPtr<const ImageTile> Image::getAsTile(const OnRequest& onRequest, bool mirrored) const {
    return getRectAsTile(Recti(size()), mirrored, onRequest);
}

SharedPtr<const ImageTile> Image::getRectAsTile(const Recti& rect, bool mirrored,
                                                const OnRequest& onRequest) const {
    return _source->createTileFromRegion(rect + _subrect.mins, mirrored, onRequest);
}

SharedPtr<Image> Image::getTileImage(unsigned int x, unsigned int y) const {
    const Recti rect = getTileRect(x, y) & Recti(size());
    return getSubImage(rect);
}

bool Image::checkSubRect(const Recti& rect) const {
    QOR_ASSERT_TEXT(rect.xmin() >= 0, "rect.xmin() >= 0");
    QOR_ASSERT_TEXT(rect.xmax() <= _subrect.width(), "rect.xmax() <= _subrect.width()");
    QOR_ASSERT_TEXT(rect.ymin() >= 0, "rect.ymin() >= 0");
    QOR_ASSERT_TEXT(rect.ymax() <= _subrect.height(), "rect.ymax() <= _subrect.height()");
    return true;
}

SharedPtr<Image> Image::getSubImage(const Recti& rect) const {
    checkSubRect(rect);
    return SharedPtr<Image>(new Image(_source, rect + _subrect.mins));
}

SharedPtr<Image> Image::getSubImage(const Recti& rect, const Function0<void>& onRelease) const {
    checkSubRect(rect);
    return SharedPtr<Image>(new Image(_source, rect + _subrect.mins, onRelease));
}

SharedPtr<RequestHandle> Image::requestTiles(const TileSet& tiles,
                                             const SharedPtr<thread::JobScoreFunction>& score,
                                             const ImageSource::TileCallback& tileCallback,
                                             bool unused,
                                             const ImageSource::ProgressCallback& progress) const {
    const TileIndex start = sourceStartTile();
    TileSet sourceTiles;
    for (const TileIndex& idx : tiles) sourceTiles.insert(idx + start);
    return _source->requestTiles(sourceTiles, score, tileCallback, unused, progress);
}

ImageSource::TileGetter Image::computeJobsUnlocked(unsigned int x, unsigned int y,
                                                   ImageSource::JobSet& jobs,
                                                   thread::DependentJobMerger& merger) const {
    const TileIndex start = sourceStartTile();
    return _source->computeJobsUnlocked(unsigned(int(x) + start.x), unsigned(int(y) + start.y),
                                        jobs, merger);
}

void Image::computeJobsV(std::vector<ImageSource::TileGetter>& out,
                         const std::vector<TileIndex>& tiles, ImageSource::JobSet& jobs,
                         thread::DependentJobMerger& merger, unsigned int version,
                         bool* outdated) const {
    QOR_ASSERT_TEXT(outdated != nullptr, "outdated != 0");
    _source->computeJobsV(out, moved(tiles), jobs, merger, version, outdated);
}

void Image::computeJobsUnlockedV(std::vector<ImageSource::TileGetter>& out,
                                 const std::vector<TileIndex>& tiles, ImageSource::JobSet& jobs,
                                 thread::DependentJobMerger& merger, unsigned int version,
                                 bool* outdated) const {
    QOR_ASSERT_TEXT(outdated != nullptr, "outdated != 0");
    _source->computeJobsUnlockedV(out, moved(tiles), jobs, merger, version, outdated);
}

}  // namespace qor::imaging
