#pragma once
// ImageLog: a diagnostic switch that makes the engine dump chosen pictures into a folder while it
// works: a source's tiles as they are computed, the tiles a request hands out, the bands of rows a
// saver writes. Beside them it writes an index.html that links every picture with its name, size,
// pixel format and time, and SVG pictures (CanvasSVG) of each source's tile layout and of the
// tiles each request touched.
//
// Switching: off by default. QOR_IMAGE_LOG=FOLDER in the environment turns it on when libqor is
// loaded (the imageio layer installs its PNG writer, then calls startFromEnvironment); start() and
// stop() turn it on and off from code. While it is off, each hook costs the caller one relaxed
// atomic load (enabled()); nothing else runs.
//
// Files: pictures are written by an ImageLogWriter; the imageio layer installs the one that
// writes PNG (this layer writes no image format itself). A picture is converted to RGBA of 8 bits
// (8-bit formats) or 16 bits (the others; float samples clamped to 0..1) on the calling thread,
// one picture at a time per thread, so memory stays bounded by the tiles in flight. A tile held
// only by the graphics card is read back on the GL thread: at once when its hook runs there,
// otherwise by a GL job that the hook queues (ahead of the engine's), which holds the tile until
// the GL thread runs it; a log stopped meanwhile drops it. Without a GL thread such a tile is
// listed in the index without a picture. The number of files is bounded (fileLimit): the log stops at the limit,
// with one line. A failed write logs one line and turns the log off. Dumping only reads the
// pictures; it never changes what the engine computes.
// The index is rewritten at most once a second while the log runs, at the limit, and by stop();
// start() makes the process's exit call stop(), so the index is complete after a run that was
// switched on by the environment.
//
// Thread contract: every member may be called from any thread. One mutex guards the log's state
// and is held while a file is written, so files are written one at a time; it nests inside no lock
// of the engine (the hooks are called with no source, request or saver lock held) and the tile
// locks are taken only before it.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "imaging/PixelFormat.h"
#include "imaging/RgbaRows.h"
#include "math/GenVec.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ImageSource;
class ImageTile;

// The pixels handed to an ImageLogWriter.
using ImageLogPicture = RgbaRows;

// Writes the pictures of the log as files.
class ImageLogWriter {
public:
    virtual ~ImageLogWriter() = default;
    // The extension of the files it writes, without the dot.
    virtual const char* extension() const = 0;
    // Writes `picture` to `path`, replacing any file there. Throws std::exception with the
    // reason when it cannot. Called with the log's mutex held, on the thread that logs.
    virtual void write(const std::string& path, const ImageLogPicture& picture) = 0;
};

// What the log dumps; start() takes a set of them.
enum ImageLogKind : unsigned {
    ImageLogSourceTiles = 1,     // each tile a source computes, as it is computed
    ImageLogRequestResults = 2,  // each tile a request hands out, and an SVG of its tiles
    ImageLogSaverRows = 4,       // each band of rows a saver writes
    ImageLogEverything = 7,
};

namespace detail {
// The kinds being dumped; 0 while the log is off.
extern std::atomic<unsigned> gImageLogKinds;
}  // namespace detail

class ImageLog {
public:
    static constexpr size_t kDefaultFileLimit = 2000;
    // The environment variable that names the folder of a log started with the library.
    static constexpr const char* kEnvironmentVariable = "QOR_IMAGE_LOG";

    // Whether pictures of `kind` are dumped: one relaxed atomic load, for the hot paths.
    static bool enabled(unsigned kind) {
        return (detail::gImageLogKinds.load(std::memory_order_relaxed) & kind) != 0;
    }

    // Turns the log on into `folder` (made when missing), for the kinds in `kinds`, writing at most
    // `fileLimit` files (pictures, SVGs and the index). A log already running is stopped first.
    // Files of an earlier log in the folder are replaced where names meet, never removed. False,
    // with one log line, when the folder cannot be made or no writer is installed.
    static bool start(std::string_view folder, unsigned kinds = ImageLogEverything,
                      size_t fileLimit = kDefaultFileLimit);
    // start(getenv(QOR_IMAGE_LOG)) when that variable names a folder; false when it is unset or
    // empty, or start fails.
    static bool startFromEnvironment();
    // Writes the index and turns the log off. Hooks running on other threads finish their file
    // first. Nothing happens when the log is off.
    static void stop();
    // The folder of the running log; empty while it is off.
    static std::string folder();
    // Installs the writer of the pictures (null: none). The imageio layer installs its PNG writer.
    static void setWriter(SharedPtr<ImageLogWriter> writer);
    static bool hasWriter();

    // ---- hooks; callers check enabled() first ----

    // A tile that `source` has just computed at tile position `pos` and `version`.
    static void sourceTile(const ImageSource& source, math::GenVec<int, 2> pos,
                           unsigned int version, const SharedPtr<const ImageTile>& tile);
    // A tile handed out by the request `request` (any pointer that names it while it runs).
    static void requestTile(const void* request, const ImageSource& source,
                            math::GenVec<int, 2> pos, const SharedPtr<const ImageTile>& tile);
    // The end of a request for `tiles` of `source`: draws the tiles it touched, those handed out
    // and those not, and forgets the request.
    static void requestEnded(const void* request, const ImageSource& source,
                             const std::set<math::GenVec<int, 2>>& tiles, std::string_view outcome);
    // Rows [firstRow, firstRow + height) of a picture `width` wide that a saver writes to `target`,
    // in `format` (a processor storage format), `byteStride` bytes apart.
    static void saverRows(std::string_view target, int firstRow, RawPixelFormat format, int width,
                          int height, const void* pixels, size_t byteStride);
};

}  // namespace qor::imaging
