#pragma once
// ImageSaver: writes an Image of any size to a file while it is being computed, never holding the
// whole picture. It asks the tile pipeline for every tile in line order (top rows first) and the
// format's module pulls one scanline at a time; a tile row is dropped as soon as its lines are
// written, so peak memory is a few tile rows whatever the size of the picture.
//
// States: SaveIdle after construction, Running during a save, then SaveFinished, SaveCancelled
// (cancel() or a cancelled request: no exception) or SaveFailed (an error, thrown on by save).
// A saver can be used again after a save has ended, never by two saves at once.
//
// Threads: save() runs the module on the calling thread and blocks until the file is complete.
// The pipeline's workers deliver tiles through tileNotify. wait(), status(), finished() and
// cancel() may be called from any thread. _mutex guards every field below it; it is never held
// while a tile is converted or the module runs, and tile callbacks take it last (it nests inside
// no lock of the pipeline). On the GL thread the waits keep running GL jobs, so the tiles they
// wait for can be made there.

#include <memory>

#include "base/thread/Mutex.h"
#include "container/Array2D.h"
#include "imageio/IImageSaver.h"
#include "imageio/savers/SaveModule.h"
#include "imaging/ComputedTileInfo.h"
#include "imaging/Image.h"
#include "imaging/ImageTile.h"
#include "imaging/TileLayout.h"
#include "math/GenRect.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imageio {

class ImageSaver {
public:
    using String = FastString<char>;
    enum SaveStatus { SaveIdle = 0, Running = 1, SaveFinished = 2, SaveCancelled = 3, SaveFailed = 4 };

    // `saver` is not owned and must outlive every save through this object.
    ImageSaver(const SharedPtr<imaging::Image>& image, IImageSaver* saver);
    // Older form without a saver object: saves through it fail.
    explicit ImageSaver(const SharedPtr<imaging::Image>& image);
    // Waits for a running save to end.
    ~ImageSaver();
    ImageSaver(const ImageSaver&) = delete;
    ImageSaver& operator=(const ImageSaver&) = delete;

    // Writes the image to `path` in `format` through the saver given at construction (or asserts
    // and fails without one). Blocks until the file is complete, cancelled or failed. Throws
    // ImageSaverException (no saver, a second save at the same time, tiles lost at the end of the
    // request, the image changed, module errors) or ImagingException with the code and text of a
    // failed tile. A format with no row loop logs the assertion "false" and ends SaveFailed
    // without an exception.
    void save(const String& path, imaging::RawPixelFormat format);
    void save(const String& path, imaging::RawPixelFormat format, IImageSaver& saver);
    void save4ub(const String& path);
    void save4us(const String& path);
    void save3ub(const String& path, IImageSaver& saver);
    void save3us(const String& path, IImageSaver& saver);

    // Stops a running save: the module sees the end of the rows, the partial file is removed and
    // the state becomes SaveCancelled. Nothing happens when no save runs.
    void cancel();
    bool finished() const;
    SaveStatus status() const;
    // Blocks until no save runs.
    void wait();

    // Lines handed to the module by the running or last save (for progress).
    unsigned int rowsWritten() const;

private:
    struct CallbackGate;
    template <imaging::RawPixelFormat F>
    friend class SaverRowLoop;

    void saveImpl(const String& path, imaging::RawPixelFormat format, IImageSaver* saver);
    void initUnlocked() QOR_REQUIRES(_mutex);
    void startTask();
    void tileNotify(unsigned generation, const imaging::ComputedTileInfo& info);
    template <imaging::RawPixelFormat F>
    void rowLoop(const String& path, IImageSaver& saver);
    // Sets the end state, ends the request and wakes the waiters.
    void endSave(bool exception);
    // Waits on the condition for 0.1 seconds, running GL jobs when called on the GL thread.
    void waitStep(ScopedLock<thread::Mutex>& lock) QOR_REQUIRES(_mutex);

    mutable thread::Mutex _mutex;
    mutable thread::ConditionVariable _condition;
    bool _ok QOR_GUARDED_BY(_mutex) = true;
    bool _cancelled QOR_GUARDED_BY(_mutex) = false;
    const SharedPtr<imaging::Image> _image;
    IImageSaver* const _saver;
    SharedPtr<imaging::RequestHandle> _handle QOR_GUARDED_BY(_mutex);
    unsigned int _rowsWritten QOR_GUARDED_BY(_mutex) = 0;
    unsigned int _lastRow QOR_GUARDED_BY(_mutex) = 0;
    int _tilesPerRow QOR_GUARDED_BY(_mutex) = 0;
    math::Recti _imageRect QOR_GUARDED_BY(_mutex);
    imaging::TileLayout _layout QOR_GUARDED_BY(_mutex);
    // Visible stretches of a line: first tile from its column offset, middle and last tiles.
    // These and the line fields below are written under the mutex on the saving thread and read
    // there without it.
    int _firstTileOffset = 0;
    int _firstTileWidth = 0;
    int _middleTileWidth = 0;
    int _lastTileWidth = 0;
    container::Array2D<SharedPtr<const imaging::ImageTile>> _tileArray QOR_GUARDED_BY(_mutex);
    std::vector<int> _tileArrayRows QOR_GUARDED_BY(_mutex);  // unfinished tiles of each row
    bool _allTilesDone QOR_GUARDED_BY(_mutex) = false;
    bool _done QOR_GUARDED_BY(_mutex) = true;
    int _firstLine = 0;  // lines of the current tile row still to write, inside its tiles
    int _lastLine = -1;
    int _currentTileRow = -1;
    SaveStatus _saveState QOR_GUARDED_BY(_mutex) = SaveIdle;
    imaging::ErrorDescription _error QOR_GUARDED_BY(_mutex);
    // The request ended without delivering every tile; save() throws ImageSaverException.
    bool _lostTiles QOR_GUARDED_BY(_mutex) = false;
    // Tiles of an earlier save that arrive late are told apart by the save's number.
    unsigned _generation QOR_GUARDED_BY(_mutex) = 0;
    // Lets tile callbacks that outlive this object find it gone.
    SharedPtr<CallbackGate> _gate;
};

}  // namespace qor::imageio
