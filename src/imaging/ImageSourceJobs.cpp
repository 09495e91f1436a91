#include "imaging/ImageSourceJobs.h"

#include <cstdint>
#include <new>
#include <typeinfo>

#include "base/Log.h"
#include "imaging/ImageLog.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/RawImageStorage.h"
#include "imaging/TileCache.h"

namespace qor::imaging {

namespace {

template <class T>
int compareValues(const T& a, const T& b) {
    return a < b ? -1 : (b < a ? 1 : 0);
}

int compareRects(const Recti& a, const Recti& b) {
    if (int c = compareValues(a.mins, b.mins)) return c;
    return compareValues(a.maxs, b.maxs);
}

const char* memName(bool gpu) { return gpu ? "GPU" : "CPU"; }

unsigned int tileMemory(const SharedPtr<const ImageTile>& tile) {
    return tile ? tile->memoryConsumption() : 0;
}

thread::Mutex gTextureQueryMutex;
Function1<bool, const ImageTile&> gHasTexture;  // guarded by gTextureQueryMutex

}  // namespace

// ---- ImageSourceJob ----

ImageSourceJob::ImageSourceJob(const ImageSourceJob& other)
    : DependentJob(other), targetImage(other.targetImage), version(other.version) {}

void ImageSourceJob::record(ImagingException::Type type, const char* message) {
    _exceptionOccurred = true;
    _exceptionType = type;
    _exceptionMessage = message;
}

void ImageSourceJob::performComputation() {
    try {
        compute();
    } catch (const ImagingException& e) {
        record(e.type(), e.what());
    } catch (const std::bad_alloc& e) {
        record(ImagingException::TypeOutOfMemory, e.what());
    } catch (const imageio::ImageLoaderException& e) {
        record(ImagingException::TypeIO, e.what());
    } catch (const gpu::RenderTargetException& e) {
        record(ImagingException::TypeRendering, e.what());
    } catch (const Exception& e) {
        record(ImagingException::TypeUnknown, e.what());
    } catch (const std::exception& e) {
        record(ImagingException::TypeUnknown, e.what());
    } catch (...) {
        QOR_ASSERT_TEXT(false, "false");
        record(ImagingException::TypeUnknown, "exception handling on the elipsis ...");
    }
    if (_exceptionOccurred)
        QOR_LOG(LogError,
                "ImageSourceJob::performComputation() exception occurred: type = '%*' message = "
                "'%*'.",
                ImagingException::typeWords(_exceptionType), _exceptionMessage);
}

void ImageSourceJob::dropResults() { clearDependencies(); }

int ImageSourceJob::compareBase(const thread::DependentJob& other) const {
    const std::type_info& mine = typeid(*this);
    const std::type_info& theirs = typeid(other);
    if (mine != theirs) return mine.before(theirs) ? -1 : 1;
    const auto& o = static_cast<const ImageSourceJob&>(other);
    const auto a = reinterpret_cast<std::uintptr_t>(targetImage.get());
    const auto b = reinterpret_cast<std::uintptr_t>(o.targetImage.get());
    if (a != b) return a < b ? -1 : 1;
    if (version != o.version) return version < o.version ? -1 : 1;
    return 0;
}

// ---- TileComputationJob ----

TileComputationJob::TileComputationJob() : ImageSourceJob("TComp") {}

TileComputationJob::TileComputationJob(const TileComputationJob& other)
    : ImageSourceJob(other),
      computeTileFunction(other.computeTileFunction),
      pos(other.pos),
      result(other.result) {}

int TileComputationJob::compare(const thread::DependentJob& other) const {
    if (int c = compareBase(other)) return c;
    return compareValues(pos, static_cast<const TileComputationJob&>(other).pos);
}

unsigned int TileComputationJob::memoryConsumption() const { return tileMemory(result); }

void TileComputationJob::dropResults() {
    ImageSourceJob::dropResults();
    result.reset();
}

FastString<char> TileComputationJob::toString() const {
    return formatLog("Compute tile data: (jobId:%*)((%*)%*,%*) (%*, %*)", id(), creatorName(),
                     static_cast<const void*>(targetImage.get()), version, pos.x, pos.y);
}

void TileComputationJob::compute() {
    QOR_ASSERT_TEXT(!result && computeTileFunction, "!result && computeTileFunction");
    if (computeTileFunction) result = computeTileFunction(unsigned(pos.x), unsigned(pos.y));
    QOR_ASSERT_TEXT(result && result->valid(), "result && result->valid()");
    if (!result || !result->valid())
        throw Exception("TileComputationJob::compute() invalid result tile!");
}

// ---- TileNotifyJob and TileCacheJob ----

TileNotifyJob::TileNotifyJob() : ImageSourceJob("TNotif") {}

TileNotifyJob::TileNotifyJob(const TileNotifyJob& other)
    : ImageSourceJob(other), pos(other.pos), inputTile(other.inputTile), _tile(other._tile) {}

int TileNotifyJob::compare(const thread::DependentJob& other) const {
    if (int c = compareBase(other)) return c;
    return compareValues(pos, static_cast<const TileNotifyJob&>(other).pos);
}

unsigned int TileNotifyJob::memoryConsumption() const { return tileMemory(_tile); }

void TileNotifyJob::dropResults() {
    ImageSourceJob::dropResults();
    inputTile = nullptr;
    _tile.reset();
}

FastString<char> TileNotifyJob::toString() const {
    return formatLog("Notify tile: (jobId:%*)((%*)%*,%*) (%*, %*)", id(), creatorName(),
                     static_cast<const void*>(targetImage.get()), version, pos.x, pos.y);
}

void TileNotifyJob::compute() {
    if (inputTile) _tile = inputTile();
    QOR_ASSERT_TEXT(_tile && _tile->valid(), "_tile && _tile->valid()");
    if (ImageLog::enabled(ImageLogSourceTiles) && targetImage && _tile)
        ImageLog::sourceTile(*targetImage, pos, version, _tile);
}

void TileNotifyJob::getFinishedTiles(std::vector<TileInfo>& out) {
    QOR_ASSERT_TEXT(_tile && _tile->valid(), "info.tile && info.tile->valid()");
    out.push_back(TileInfo{targetImage, _tile, pos});
}

TileCacheJob::TileCacheJob() : TileNotifyJob("TCache") {}

FastString<char> TileCacheJob::toString() const {
    return formatLog("Cache tile: (jobId:%*)((%*)%*,%*) (%*, %*, %*, %*)", id(), creatorName(),
                     static_cast<const void*>(targetImage.get()), version, rect.xmin(),
                     rect.ymin(), rect.width(), rect.height());
}

void TileCacheJob::compute() {
    if (inputTile) _tile = inputTile();
    QOR_ASSERT_TEXT(_tile && _tile->valid(), "tile && tile->valid()");
    if (!_tile || !_tile->valid()) throw Exception("TileCacheJob::compute() invalid input tile!");
    // A newer tile in the cache is never replaced by an older one. The input's own requests run
    // beside the cache jobs that a derived source builds for the same tiles, so the look-up and
    // the insertion are one step of the cache.
    TileCache::cacheLifeTileIfNewer(_tile, targetImage.get(), rect, version);
    if (ImageLog::enabled(ImageLogSourceTiles) && targetImage)
        ImageLog::sourceTile(*targetImage, pos, version, _tile);
}

// ---- GenericMemoryTransferJob ----

GenericMemoryTransferJob::GenericMemoryTransferJob() : ImageSourceJob("GMTrans") {}

void GenericMemoryTransferJob::setHasTextureQuery(Function1<bool, const ImageTile&> query) {
    ScopedLock<Mutex> lock(gTextureQueryMutex);
    gHasTexture = std::move(query);
}

bool GenericMemoryTransferJob::tileHasTexture(const ImageTile& tile) {
    Function1<bool, const ImageTile&> query;
    {
        ScopedLock<Mutex> lock(gTextureQueryMutex);
        query = gHasTexture;
    }
    return query && query(tile);
}

int GenericMemoryTransferJob::compareTransfer(const GenericMemoryTransferJob& o) const {
    if (_destIsGPU != o._destIsGPU) return _destIsGPU ? 1 : -1;
    if (sourceTiles.size() != o.sourceTiles.size())
        return sourceTiles.size() < o.sourceTiles.size() ? -1 : 1;
    auto itleft = sourceTiles.begin();
    auto itright = o.sourceTiles.begin();
    for (; itleft != sourceTiles.end(); ++itleft, ++itright) {
        if (int c = compareValues(itleft->first, itright->first)) return c;
        QOR_ASSERT_TEXT(itright->second && itleft->second, "itright->second && itleft->second");
    }
    return 0;
}

int GenericMemoryTransferJob::compare(const thread::DependentJob& other) const {
    if (int c = compareBase(other)) return c;
    return compareTransfer(static_cast<const GenericMemoryTransferJob&>(other));
}

GenericMemoryTransferJob::TransferType GenericMemoryTransferJob::getTransferType() const {
    bool allThere = true;
    for (auto it = sourceTiles.begin(); it != sourceTiles.end(); ++it) {
        QOR_ASSERT_TEXT(bool(it->second), "it->second");
        SharedPtr<const ImageTile> tile = it->second ? it->second() : nullptr;
        if (!tile) {
            allThere = false;
            continue;
        }
        const bool there =
            _destIsGPU ? tileHasTexture(*tile) : tile->hasData<RawImageStorage>();
        allThere = allThere && there;
    }
    if (allThere) return TransferNone;
    return _destIsGPU ? TransferToGPU : TransferToCPU;
}

thread::JobType GenericMemoryTransferJob::precondition() {
    switch (getTransferType()) {
        case TransferNone: return thread::JtTrivial;
        case TransferToCPU:
        case TransferToGPU: return thread::JtGLThread;
        default:
            QOR_ASSERT_TEXT(false, "false");
            return thread::JtTrivial;
    }
}

FastString<char> GenericMemoryTransferJob::toString() const {
    return formatLog("Generic memory transfer: (jobId:%*)((%*)%*,%*) (dest mem type %*)", id(),
                     creatorName(), static_cast<const void*>(targetImage.get()), version,
                     memName(_destIsGPU));
}

void GenericMemoryTransferJob::compute() {
    for (auto it = sourceTiles.begin(); it != sourceTiles.end(); ++it) {
        QOR_ASSERT_TEXT(bool(it->second), "it->second");
        if (!it->second) continue;
        SharedPtr<const ImageTile> tile = it->second();
        if (tile && transferFunction) transferFunction(tile);
        sourceTilesCopy[it->first] = tile;
    }
}

void GenericMemoryTransferJob::dropResults() {
    ImageSourceJob::dropResults();
    // The getters stay: they are this job's identity in compare().
    sourceTilesCopy.clear();
}

SharedPtr<const ImageTile> GenericMemoryTransferJob::getTile(const GenVec<int, 2>& pos) const {
    auto it = sourceTilesCopy.find(pos);
    QOR_ASSERT_TEXT(it != sourceTilesCopy.end(), "it != sourceTilesCopy.end()");
    return it == sourceTilesCopy.end() ? nullptr : it->second;
}

// ---- TileAssemblyJob ----

TileAssemblyJob::TileAssemblyJob() : GenericMemoryTransferJob("TAsmb") {}

int TileAssemblyJob::compare(const thread::DependentJob& other) const {
    if (int c = compareBase(other)) return c;
    const auto& o = static_cast<const TileAssemblyJob&>(other);
    if (int c = compareRects(rect, o.rect)) return c;
    if (_destIsGPU != o._destIsGPU) return _destIsGPU ? 1 : -1;
    return 0;
}

thread::JobType TileAssemblyJob::precondition() {
    sourceTiles.clear();
    for (int y = 0; y < tileGetters.rows(); ++y)
        for (int x = 0; x < tileGetters.columns(); ++x)
            sourceTiles[GenVec<int, 2>(startTile.x + x, startTile.y + y)] = tileGetters(x, y);
    _transferType = getTransferType();
    switch (_transferType) {
        case TransferToCPU:
        case TransferToGPU: return thread::JtGLThread;
        case TransferNone: return _destIsGPU ? thread::JtGLThread : thread::JtWorker;
        default:
            QOR_ASSERT_TEXT(false, "false");
            return thread::JtTrivial;
    }
}

unsigned int TileAssemblyJob::memoryConsumption() const { return tileMemory(result); }

void TileAssemblyJob::dropResults() {
    GenericMemoryTransferJob::dropResults();
    // An assembly is known by its rectangle: its getters may go, cached input tiles with them.
    sourceTiles.clear();
    tileGetters = container::Array2D<TileGetter>();
    result.reset();
}

FastString<char> TileAssemblyJob::toString() const {
    return formatLog(
        "Tile assembly: (jobId:%*)((%*)%*,%*) (%*, %*, %*, %*) (dest mem type %*)", id(),
        creatorName(), static_cast<const void*>(targetImage.get()), version, rect.xmin(),
        rect.ymin(), rect.width(), rect.height(), memName(_destIsGPU));
}

container::Array2D<SharedPtr<const ImageTile>> TileAssemblyJob::fetchTiles() const {
    container::Array2D<SharedPtr<const ImageTile>> tiles(tileGetters.columns(), tileGetters.rows());
    for (int y = 0; y < tileGetters.rows(); ++y)
        for (int x = 0; x < tileGetters.columns(); ++x)
            if (tileGetters(x, y)) tiles(x, y) = tileGetters(x, y)();
    return tiles;
}

SharedPtr<const ImageTile> TileAssemblyJob::assemble() {
    const DrawParameters params = targetImage ? targetImage->getDrawParameters() : DrawParameters();
    return ImageSource::createTileFromRegion(targetImage.get(), layout, format, params, rect,
                                             fetchTiles(), startTile);
}

void TileAssemblyJob::compute() {
    QOR_ASSERT_TEXT(!result, "!result");
    // Inputs in the wrong memory move first (on the GL thread, where precondition sent the job).
    if (_transferType != TransferNone) GenericMemoryTransferJob::compute();
    result = assemble();
    QOR_ASSERT_TEXT(result && result->valid(), "result && result->valid()");
    if (!result || !result->valid())
        throw Exception("TileAssemblyJob::compute() invalid result tile!");
    if (transferFunction) transferFunction(result);
}

// ---- TerminatorJob ----

TerminatorJob::TerminatorJob() : DependentJob("Term") {}

int TerminatorJob::compare(const thread::DependentJob& other) const {
    // The class comes first, as for every other job, so that the order stays antisymmetric in a
    // set that holds terminators beside image source jobs.
    const std::type_info& mine = typeid(*this);
    const std::type_info& theirs = typeid(other);
    if (mine != theirs) return mine.before(theirs) ? -1 : 1;
    const auto a = reinterpret_cast<std::uintptr_t>(this);
    const auto b = reinterpret_cast<std::uintptr_t>(&other);
    return a == b ? 0 : (a < b ? -1 : 1);
}

FastString<char> TerminatorJob::toString() const {
    return formatLog("Termimator Job (jobId:%*)(dummy job)", id());
}

}  // namespace qor::imaging
