#include "imageio/ImageSaver.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "base/Log.h"
#include "base/thread/JobDispatcher.h"
#include "imaging/ImageLog.h"
#include "imaging/TileScoreFunctions.h"

namespace qor::imageio {

using imaging::ComputedTileInfo;
using imaging::ImagingException;
using imaging::RawPixelFormat;
using thread::Mutex;

namespace {
const char* const kLostTilesMessage = "terminating tile callback without having computed all tiles";
}  // namespace

// Tile callbacks hold the gate, not the saver: the destructor closes it, and a callback that
// arrives later finds nobody. Lock order: the gate's mutex, then the saver's.
struct ImageSaver::CallbackGate {
    std::mutex mutex;
    ImageSaver* owner = nullptr;  // guarded by mutex
};

ImageSaver::ImageSaver(const SharedPtr<imaging::Image>& image, IImageSaver* saver)
    : _image(image), _saver(saver), _gate(std::make_shared<CallbackGate>()) {
    _gate->owner = this;
}

ImageSaver::ImageSaver(const SharedPtr<imaging::Image>& image) : ImageSaver(image, nullptr) {
    QOR_ASSERT_TEXT(false, "ImageSaver needs update of your code, please look at ImageSaver.cpp/.h");
}

ImageSaver::~ImageSaver() {
    wait();
    std::lock_guard<std::mutex> lock(_gate->mutex);
    _gate->owner = nullptr;
}

void ImageSaver::save(const String& path, RawPixelFormat format) {
    if (!_saver)
        QOR_ASSERT_TEXT(false, "ImageSaver needs update of your code, please look at ImageSaver.cpp/.h");
    saveImpl(path, format, _saver);
}

void ImageSaver::save(const String& path, RawPixelFormat format, IImageSaver& saver) {
    QOR_ASSERT_TEXT(_saver == nullptr, "_saver == 0");
    saveImpl(path, format, &saver);
}

void ImageSaver::save4ub(const String& path) { save(path, imaging::PfRGBA8); }
void ImageSaver::save4us(const String& path) { save(path, imaging::PfRGBA16); }
void ImageSaver::save3ub(const String& path, IImageSaver& saver) {
    save(path, imaging::PfRGB8, saver);
}
void ImageSaver::save3us(const String& path, IImageSaver& saver) {
    save(path, imaging::PfRGB16, saver);
}

void ImageSaver::cancel() {
    SharedPtr<imaging::RequestHandle> handle;
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_saveState != Running) return;
        _cancelled = true;
        _ok = false;
        handle = _handle;
        _condition.notifyAll();
    }
    if (handle) handle->cancel();
}

bool ImageSaver::finished() const {
    ScopedLock<Mutex> lock(_mutex);
    return _done;
}

ImageSaver::SaveStatus ImageSaver::status() const {
    ScopedLock<Mutex> lock(_mutex);
    return _saveState;
}

unsigned int ImageSaver::rowsWritten() const {
    ScopedLock<Mutex> lock(_mutex);
    return _rowsWritten;
}

void ImageSaver::wait() {
    ScopedLock<Mutex> lock(_mutex);
    while (!_done) waitStep(lock);
}

void ImageSaver::waitStep(ScopedLock<Mutex>& lock) {
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    if (!dispatcher.isGLThread()) {
        _condition.timedWait(lock, 0.1);
        return;
    }
    // The tiles may be waiting for GL jobs that only this thread runs.
    {
        ScopedUnlock<Mutex> open(lock);
        dispatcher.processGLJobs();
    }
    _condition.timedWait(lock, 0.01);
}

// ---- one save ----

void ImageSaver::saveImpl(const String& path, RawPixelFormat format, IImageSaver* saver) {
    if (!saver) {
        QOR_ASSERT_TEXT(false, "saver");
        ScopedLock<Mutex> lock(_mutex);
        _saveState = SaveFailed;
        throw ImageSaverException("ImageSaver::save() no saver object passed!");
    }
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_saveState == Running) {
            QOR_ASSERT_TEXT(false, "_saveState != Running");
            QOR_LOG(LogError, "Looks like ImageSaver is used multiple times!");
            throw ImageSaverException("ImageSaver::save() asynchronous call!");
        }
        initUnlocked();
        _saveState = Running;
        _done = false;
    }
    const auto started = std::chrono::steady_clock::now();
    // Each row loop starts the request first thing, so that a format without one computes no
    // tiles.
    bool knownFormat = true;
    switch (format) {
#define QOR_SAVER_CASE(F) \
    case imaging::F: rowLoop<imaging::F>(path, *saver); break;
        QOR_SAVER_CASE(PfRGB8)
        QOR_SAVER_CASE(PfRGB16)
        QOR_SAVER_CASE(PfRGB16F)
        QOR_SAVER_CASE(PfRGB32F)
        QOR_SAVER_CASE(PfRGBA8)
        QOR_SAVER_CASE(PfRGBA16)
        QOR_SAVER_CASE(PfRGBA16F)
        QOR_SAVER_CASE(PfRGBA32F)
#undef QOR_SAVER_CASE
        default: knownFormat = false;
    }
    if (!knownFormat) {
        // A format with no row loop is the caller's mistake: asserted, and the save ends failed
        // without an exception, as no tile or module has failed.
        QOR_ASSERT_TEXT(false, "false");
        ScopedLock<Mutex> lock(_mutex);
        _ok = false;
        _saveState = SaveFailed;
        ++_generation;
        _done = true;
        _condition.notifyAll();
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    imaging::ErrorDescription error;
    bool ok = false;
    bool lostTiles = false;
    SaveStatus state = SaveIdle;
    {
        ScopedLock<Mutex> lock(_mutex);
        error = _error;
        ok = _ok;
        lostTiles = _lostTiles;
        state = _saveState;
    }
    QOR_LOG(LogDebug, "Finished saving full image. status = %* time = %*", ok, seconds);
    if (!knownFormat) return;
    if (error.errorOccurred)
        throw ImagingException(error.type, std::string(error.message.view()),
                               std::string(logSourcePath(__FILE__)));
    if (lostTiles) throw ImageSaverException(kLostTilesMessage);
    // A request that ended because the image changed under it (Outdated) carries no error to
    // throw, but the file is not written: the caller hears of it here rather than only through
    // status().
    if (state == SaveFailed)
        throw ImageSaverException(
            "ImageSaver::save(): the image changed while it was being saved to " +
            std::string(path.view()));
}

void ImageSaver::initUnlocked() {
    _rowsWritten = 0;
    _handle = nullptr;
    _saveState = SaveIdle;
    _allTilesDone = false;
    _done = true;
    _ok = true;
    _cancelled = false;
    _error = imaging::ErrorDescription();
    _lostTiles = false;
    ++_generation;
    _imageRect = math::Recti(math::GenVec<int, 2>(0, 0), _image->size());
    _layout = _image->tileLayout();
    _lastRow = unsigned(std::max(_image->height() - 1, 0));
    _tilesPerRow = _layout.tileCount.x;
    const math::Recti first = _layout.getTileRect(0, 0);
    const math::Recti last = _layout.getTileRect(_layout.tileCount.x - 1, 0);
    _firstTileOffset = std::max(0, -first.xmin());
    _firstTileWidth = std::min(first.xmax(), _imageRect.xmax()) - std::max(first.xmin(), 0);
    _middleTileWidth = _layout.tileSize.x;
    _lastTileWidth = _imageRect.xmax() - std::max(last.xmin(), 0);
    _tileArray.assign(_layout.tileCount.x, _layout.tileCount.y, nullptr);
    _tileArrayRows.assign(size_t(std::max(_layout.tileCount.y, 0)), _layout.tileCount.x);
    _firstLine = 0;
    _lastLine = -1;
    _currentTileRow = -1;
}

void ImageSaver::startTask() {
    imaging::ImageSource::TileSet tiles;
    unsigned generation = 0;
    imaging::TileLayout layout;
    {
        ScopedLock<Mutex> lock(_mutex);
        generation = _generation;
        layout = _layout;
    }
    for (int x = 0; x < layout.tileCount.x; ++x)
        for (int y = 0; y < layout.tileCount.y; ++y) tiles.insert(math::GenVec<int, 2>(x, y));
    SharedPtr<CallbackGate> gate = _gate;
    SharedPtr<imaging::RequestHandle> handle = _image->requestTiles(
        tiles, std::make_shared<imaging::LineOrderScoreFunction>(),
        [gate, generation](const ComputedTileInfo& info) {
            std::lock_guard<std::mutex> lock(gate->mutex);
            if (gate->owner) gate->owner->tileNotify(generation, info);
        },
        true, {});
    ScopedLock<Mutex> lock(_mutex);
    _handle = handle;
}

void ImageSaver::tileNotify(unsigned generation, const ComputedTileInfo& cti) {
    ScopedLock<Mutex> lock(_mutex);
    if (generation != _generation) return;  // a late tile of an earlier save
    if (cti.type == ComputedTileInfo::TileReady) {
        QOR_ASSERT_TEXT(cti.status == ComputedTileInfo::Success && cti.source,
                        "ComputedTileInfo::Success == cti.status && cti.source");
        if (cti.source != _image->source()) return;
        QOR_ASSERT_TEXT(cti.tile && cti.tile->valid(), "cti.tile && cti.tile->valid()");
        const math::GenVec<int, 2> pos = cti.pos - _image->sourceStartTile();
        const bool rowOk = pos.y >= 0 && int(_tileArrayRows.size()) > pos.y &&
                           _tileArrayRows[size_t(pos.y)] > 0;
        QOR_ASSERT_TEXT(rowOk,
                        "(int) _tileArrayRows.size() > imgTilePos.y && _tileArrayRows[imgTilePos.y] > 0");
        const bool inside = pos.x >= 0 && pos.x < _tileArray.columns() && pos.y < _tileArray.rows();
        QOR_ASSERT_TEXT(inside,
                        "imgTilePos.x < (int) _tileArray.columns() && imgTilePos.y < (int) _tileArray.rows()");
        if (!rowOk || !inside || !cti.tile) return;
        QOR_ASSERT_TEXT(!_tileArray(pos.x, pos.y), "!_tileArray(imgTilePos.x, imgTilePos.y)");
        if (_tileArray(pos.x, pos.y)) return;
        _tileArray(pos.x, pos.y) = cti.tile;
        if (--_tileArrayRows[size_t(pos.y)] == 0) _condition.notifyAll();
        return;
    }
    if (cti.type == ComputedTileInfo::RequestEnded) {
        if (cti.status != ComputedTileInfo::Success) _ok = false;
        if (cti.status == ComputedTileInfo::Error) {
            _error.errorOccurred = true;
            _error.type = cti.errorType;
            _error.message = cti.errorMessage;
        } else if (cti.status == ComputedTileInfo::Cancelled) {
            _cancelled = true;
        } else if (cti.status != ComputedTileInfo::Success) {
            QOR_LOG(LogError, "ImageSaver: the image changed before its tiles were computed");
        }
        // A failed request frees its tiles at once; after a complete one the writer still
        // needs the rows it has not reached.
        if (!_ok) _tileArray.assign(_tileArray.columns(), _tileArray.rows(), nullptr);
        if (_ok) {
            const bool unfinished =
                std::any_of(_tileArrayRows.begin(), _tileArrayRows.end(), [](int n) { return n; });
            // Tiles of rows the writer has already passed are counted down to 0 as well.
            if (unfinished) {
                // Recorded, not thrown: the callback runs on a pipeline thread, and the saving
                // thread throws it once the request has ended (saveImpl).
                QOR_ASSERT_TEXT(false, "!(*it)");
                QOR_LOG(LogError, "%*", kLostTilesMessage);
                QOR_LOG(LogError,
                        "image size is (%*,%*) pixels. in tiles (%*,%*). tile size is (%*,%*).",
                        _imageRect.width(), _imageRect.height(), _layout.tileCount.x,
                        _layout.tileCount.y, _layout.tileSize.x, _layout.tileSize.y);
                for (size_t row = 0; row < _tileArrayRows.size(); ++row)
                    QOR_LOG(LogError, "row %* has %* unfinished tiles.", row, _tileArrayRows[row]);
                _ok = false;
                _lostTiles = true;
                _tileArray.assign(_tileArray.columns(), _tileArray.rows(), nullptr);
            } else {
                _allTilesDone = true;
            }
        }
    } else {
        _ok = false;
    }
    _condition.notifyAll();
}

void ImageSaver::endSave(bool exception) {
    SharedPtr<imaging::RequestHandle> handle;
    {
        ScopedLock<Mutex> lock(_mutex);
        if (exception) {
            _ok = false;
        } else {
            while (_ok && !_allTilesDone) waitStep(lock);
        }
        handle.swap(_handle);
        _saveState = _ok ? SaveFinished : _cancelled ? SaveCancelled : SaveFailed;
        if (exception) _cancelled = true;
    }
    // The request ends before the waiters learn that the save has: a late tile finds the
    // generation passed. A cancelled request still has jobs in flight; the save returns once
    // they have stopped, so that nothing of it runs or holds pixels afterwards.
    if (handle && !handle->finished()) {
        handle->cancel();
        thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
        while (!handle->finished()) {
            if (dispatcher.isGLThread()) dispatcher.processGLJobs();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    ScopedLock<Mutex> lock(_mutex);
    ++_generation;
    _done = true;
    _condition.notifyAll();
}

template <RawPixelFormat F>
void ImageSaver::rowLoop(const String& path, IImageSaver& saver) {
    using View = imaging::RawImageDataOf<F>;
    using Element = typename imaging::RawStorageFormat<F>::Element;
    constexpr int N = imaging::RawStorageFormat<F>::Channels;

    // Fields read here without the mutex (the layout, stretches, lines and current row) are
    // written only by initUnlocked and by this loop, both on the saving thread.
    int tilesPerRow = 0, width = 0, height = 0;
    {
        ScopedLock<Mutex> lock(_mutex);
        tilesPerRow = _tilesPerRow;
        width = _imageRect.width();
        height = _imageRect.height();
    }
    startTask();
    std::vector<SharedPtr<const View>> rowImages(size_t(std::max(tilesPerRow, 0)));
    std::vector<Element> buffer(size_t(width) * N);

    // With the image log on when the save starts, the lines of each tile row are kept as one band
    // (no more than the tiles of that row hold) and dumped once the band is complete.
    const bool logRows = imaging::ImageLog::enabled(imaging::ImageLogSaverRows);
    std::vector<Element> band;
    int bandFirst = 0, bandRows = 0;
    auto keepLine = [&] {
        band.insert(band.end(), buffer.begin(), buffer.end());
        ++bandRows;
    };
    auto dumpBand = [&] {
        if (bandRows > 0)
            imaging::ImageLog::saverRows(path.view(), bandFirst, F, width, bandRows, band.data(),
                                         size_t(width) * N * sizeof(Element));
        bandFirst += bandRows;
        bandRows = 0;
        band.clear();
    };

    auto advance = [&]() QOR_NO_THREAD_SAFETY_ANALYSIS {
        ScopedLock<Mutex> lock(_mutex);
        if (_currentTileRow >= 0)
            for (int x = 0; x < _tileArray.columns(); ++x) _tileArray(x, _currentTileRow) = nullptr;
        for (auto& image : rowImages) image = nullptr;
        ++_currentTileRow;
        const math::Recti rect = _layout.getTileRect(0, _currentTileRow);
        const int top = std::max(rect.ymin(), _imageRect.ymin());
        const int bottom = std::min(rect.ymax(), _imageRect.ymax());
        _firstLine = top - rect.ymin();
        _lastLine = bottom - rect.ymin() - 1;
        const int row = _currentTileRow;
        if (row >= int(_tileArrayRows.size())) {
            _ok = false;
            return;
        }
        while (_ok && _tileArrayRows[size_t(row)] > 0) waitStep(lock);
        if (!_ok) return;
        std::vector<SharedPtr<const imaging::ImageTile>> tiles(rowImages.size());
        for (size_t x = 0; x < tiles.size(); ++x) tiles[x] = _tileArray(int(x), row);
        for (size_t x = 0; x < tiles.size(); ++x) {
            {
                ScopedUnlock<Mutex> open(lock);
                if (tiles[x]) rowImages[x] = tiles[x]->template getRawData<F>();
            }
            if (!_ok) return;
            if (!rowImages[x]) {
                _ok = false;
                _error.errorOccurred = true;
                _error.type = ImagingException::TypeUnknown;
                _error.message = FastString<char>("ImageSaver: a tile could not be read");
                return;
            }
        }
    };

    auto rowFunction = [&]() QOR_NO_THREAD_SAFETY_ANALYSIS -> const void* {
        {
            ScopedLock<Mutex> lock(_mutex);
            if (_rowsWritten > _lastRow) return nullptr;
        }
        if (_lastLine < _firstLine) {
            if (logRows) dumpBand();
            advance();
        }
        {
            ScopedLock<Mutex> lock(_mutex);
            if (!_ok) return nullptr;
        }
        const int line = _firstLine;
        Element* out = buffer.data();
        auto copy = [&](size_t column, int fromX, int count) {
            const View& image = *rowImages[column];
            std::memcpy(out, image.row(line) + size_t(fromX) * N, size_t(count) * N * sizeof(Element));
            out += size_t(count) * N;
        };
        const int columns = int(rowImages.size());
        copy(0, _firstTileOffset, _firstTileWidth);
        for (int x = 1; x + 1 < columns; ++x) copy(size_t(x), 0, _middleTileWidth);
        if (columns > 1) copy(size_t(columns - 1), 0, _lastTileWidth);
        ++_firstLine;
        if (logRows) keepLine();
        ScopedLock<Mutex> lock(_mutex);
        ++_rowsWritten;
        return buffer.data();
    };

    ExportData<F> rows(typename ExportData<F>::RowFunction(rowFunction), math::GenVec<int, 2>(width, height));
    try {
        saver.saveRows(path, F, rows);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Failed to write image (url = %*): %*", path, e.what());
        endSave(true);
        throw;
    } catch (...) {
        QOR_LOG(LogError, "Failed to write image (url = %*): unknown exception", path);
        endSave(true);
        throw;
    }
    if (logRows) dumpBand();
    endSave(false);
}

}  // namespace qor::imageio
