#include "imaging/ImageLog.h"

#include <cxxabi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <tuple>
#include <typeinfo>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/diagnostics/CanvasSVG.h"
#include "base/filesystem/AtomicFileWriter.h"
#include "base/filesystem/Path.h"
#include "base/thread/JobDispatcher.h"
#include "base/thread/Mutex.h"
#include "base/xml/XmlDocument.h"
#include "imaging/ImageDataConversion.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/RawImageStorage.h"
#include "imaging/TileLayout.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

namespace detail {
std::atomic<unsigned> gImageLogKinds{0};
}  // namespace detail

namespace {

using Clock = std::chrono::steady_clock;
using diagnostics::CanvasSVG;
using diagnostics::SvgAnchor;
using diagnostics::SvgBox;
using diagnostics::SvgColor;
using diagnostics::SvgFont;
using diagnostics::SvgPaint;
using math::GenVec;

// One line of the index.
struct Entry {
    std::string file;  // relative to the folder; empty when no picture was written
    std::string kind;
    std::string what;
    int width = 0;
    int height = 0;
    std::string format;
    double seconds = 0.0;  // since the start of the log
};

struct SourceRecord {
    unsigned number = 0;
    TileLayout layout;
};

struct RequestRecord {
    unsigned number = 0;
    std::set<GenVec<int, 2>> delivered;
};

// A picture converted for the writer, and the format it came from.
struct Converted {
    std::vector<std::uint8_t> bytes;
    ImageLogPicture picture;
    RawPixelFormat format = PfInvalid;
};

struct State {
    Mutex mutex;  // guards every field below; held while a file is written
    SharedPtr<ImageLogWriter> writer QOR_GUARDED_BY(mutex);
    std::string folder QOR_GUARDED_BY(mutex);  // empty while off
    unsigned kinds QOR_GUARDED_BY(mutex) = 0;
    size_t fileLimit QOR_GUARDED_BY(mutex) = 0;
    size_t files QOR_GUARDED_BY(mutex) = 0;  // written so far, the index included
    std::vector<Entry> entries QOR_GUARDED_BY(mutex);
    // Sources by address, with the layout their number was given for: an address used again by a
    // source of another layout gets a number of its own.
    std::map<const ImageSource*, SourceRecord> sources QOR_GUARDED_BY(mutex);
    std::map<const void*, RequestRecord> requests QOR_GUARDED_BY(mutex);
    unsigned requestCount QOR_GUARDED_BY(mutex) = 0;
    unsigned session QOR_GUARDED_BY(mutex) = 0;  // counts the starts: a late dump of an
                                                 // earlier log is dropped
    Clock::time_point started QOR_GUARDED_BY(mutex);
    Clock::time_point indexWritten QOR_GUARDED_BY(mutex);
    std::string startedText QOR_GUARDED_BY(mutex);
    bool exitHookInstalled QOR_GUARDED_BY(mutex) = false;
};

// Lives to the end of the process: hooks on worker threads may run during exit.
State& state() {
    static State* s = new State;
    return *s;
}

constexpr const char* kIndexName = "index.html";

std::string sourceTypeName(const ImageSource& source) {
    const char* mangled = typeid(source).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    std::string name = status == 0 && demangled ? demangled.get() : mangled;
    const size_t colon = name.rfind("::");
    return colon == std::string::npos ? name : name.substr(colon + 2);
}

std::string formatName(RawPixelFormat format) {
    return std::string(pixelFormatString(format).view());
}

// Converts width x height pixels of `format`, `stride` components a row apart, to RGBA of 8 bits
// (8-bit unsigned formats) or 16 bits (the others).
bool convertPixels(RawPixelFormat format, int width, int height, const void* pixels,
                   unsigned stride, Converted& out) {
    if (!pixels || width <= 0 || height <= 0 || !isStorageFormat(format)) return false;
    const bool eightBits = getBitsPerChannel(format) == 8 && !isFloatFormat(format);
    const RawPixelFormat target = eightBits ? PfRGBA8 : PfRGBA16;
    const size_t rowBytes = size_t(width) * 4 * (eightBits ? 1 : 2);
    out.bytes.resize(rowBytes * size_t(height));
    ImageDataFeature dst(width, height, unsigned(width) * 4, target);
    const ImageDataFeature src(width, height, stride, format);
    if (!ImageDataConversion::convert(dst, out.bytes.data(), src, pixels)) return false;
    out.picture = ImageLogPicture{width, height, eightBits ? 8 : 16, out.bytes.data(), rowBytes};
    out.format = format;
    return true;
}

// The pixels of `tile`: its processor copy, or on the GL thread a copy read back from the graphics
// card. False when only the card holds them and this is not the GL thread.
bool convertTile(const ImageTile& tile, Converted& out) {
    SharedPtr<RawImageStorage> raw;
    if (tile.hasData<RawImageStorage>())
        raw = tile.getData<RawImageStorage>();
    else if (thread::defaultJobDispatcher().isGLThread())
        raw = tile.readBackCopy();
    if (!raw) return false;
    switch (raw->getCurrentPixelFormat()) {
#define QOR_IMAGE_LOG_CONVERT(S, T, N)                                                   \
    case Pf##S: {                                                                        \
        SharedPtr<const RawImageDataOf<Pf##S>> view = raw->getData<Pf##S>();             \
        return view && convertPixels(Pf##S, view->width(), view->height(), view->row(0), \
                                     view->stride(), out);                               \
    }
        QOR_RAW_STORAGE_FORMATS(QOR_IMAGE_LOG_CONVERT)
#undef QOR_IMAGE_LOG_CONVERT
        default:
            return false;
    }
}

// ---- pictures of layouts ----

// The bounds of every tile and of the image, in image coordinates.
Recti layoutBounds(const TileLayout& layout) {
    Recti bounds(GenVec<int, 2>(0, 0), layout.imageSize);
    for (int y = 0; y < layout.tileCount.y; ++y)
        for (int x = 0; x < layout.tileCount.x; ++x) {
            const Recti r = layout.getTileRect(x, y);
            bounds.mins.x = std::min(bounds.mins.x, r.mins.x);
            bounds.mins.y = std::min(bounds.mins.y, r.mins.y);
            bounds.maxs.x = std::max(bounds.maxs.x, r.maxs.x);
            bounds.maxs.y = std::max(bounds.maxs.y, r.maxs.y);
        }
    return bounds;
}

// `layout` drawn at most 640 pixels wide or high: the image in grey, every tile outlined with its
// index, the tiles in `marks` filled with their colour, `caption` above.
std::string layoutSvg(const TileLayout& layout, const std::string& caption,
                      const std::map<GenVec<int, 2>, SvgColor>& marks, GenVec<int, 2>* size) {
    constexpr double kLongSide = 640.0, kMargin = 10.0, kTop = 34.0;
    const Recti bounds = layoutBounds(layout);
    const double bw = std::max(bounds.width(), 1), bh = std::max(bounds.height(), 1);
    const double scale = kLongSide / std::max(bw, bh);
    const double width = bw * scale + 2 * kMargin, height = bh * scale + kTop + kMargin;
    *size = GenVec<int, 2>(int(width + 0.5), int(height + 0.5));
    auto box = [&](const Recti& r) {
        return SvgBox{kMargin + (r.xmin() - bounds.xmin()) * scale,
                      kTop + (r.ymin() - bounds.ymin()) * scale, r.width() * scale,
                      r.height() * scale};
    };

    CanvasSVG canvas(width, height);
    canvas.setTitle(caption);
    canvas.rect({0, 0, width, height}, SvgPaint::filled(SvgColor::rgb(0xffffff)));
    canvas.text({kMargin, 22}, caption, SvgFont{.size = 14});
    canvas.rect(box(Recti(GenVec<int, 2>(0, 0), layout.imageSize)),
                SvgPaint::filled(SvgColor::rgb(0xdddddd)));
    for (const auto& [pos, color] : marks) {
        if (pos.x < 0 || pos.y < 0 || pos.x >= layout.tileCount.x || pos.y >= layout.tileCount.y)
            continue;
        canvas.rect(box(layout.getTileRect(pos.x, pos.y)), SvgPaint::filled(color));
    }
    const double tileSide = std::min(layout.tileSize.x, layout.tileSize.y) * scale;
    for (int y = 0; y < layout.tileCount.y; ++y)
        for (int x = 0; x < layout.tileCount.x; ++x) {
            const SvgBox b = box(layout.getTileRect(x, y));
            canvas.rect(b, SvgPaint::outlined(SvgColor::rgb(0x3060c0), 1));
            if (tileSide >= 28)
                canvas.text({b.x + b.width / 2, b.y + b.height / 2 + 4},
                            std::to_string(x) + "," + std::to_string(y),
                            SvgFont{.size = std::min(12.0, tileSide / 3),
                                    .anchor = SvgAnchor::Middle,
                                    .fill = SvgColor::rgb(0x3060c0)});
        }
    // The image's own edge over the tiles, dashed.
    canvas.rect(box(Recti(GenVec<int, 2>(0, 0), layout.imageSize)),
                SvgPaint::outlined(SvgColor::rgb(0x000000), 1.5).withDash({6, 3}));
    return canvas.toString();
}

// ---- the state's operations; every one needs the mutex ----

void writeIndex(State& s) QOR_REQUIRES(s.mutex);

// Turns the log off; the index is written first when `withIndex`.
void turnOff(State& s, bool withIndex) QOR_REQUIRES(s.mutex) {
    detail::gImageLogKinds.store(0, std::memory_order_relaxed);
    if (withIndex && !s.folder.empty()) {
        try {
            writeIndex(s);
        } catch (const std::exception&) {
            // The line that turned the log off has been logged already.
        }
    }
    s.kinds = 0;
    s.folder.clear();
    s.entries.clear();
    s.sources.clear();
    s.requests.clear();
}

// Writes `bytes` into the folder as `name`. Throws FilesystemException.
void writeFile(State& s, const std::string& name, std::string_view bytes) QOR_REQUIRES(s.mutex) {
    filesystem::writeFileAtomically(filesystem::pathJoin(s.folder, name), bytes, false);
}

// Reserves one more file; at the limit the log ends with one line (one file stays for the index).
bool reserveFile(State& s) QOR_REQUIRES(s.mutex) {
    if (s.files + 1 < s.fileLimit) {
        ++s.files;
        return true;
    }
    QOR_LOG(LogWarning, "Image log: the limit of %* files is reached in '%*'; the log stops here",
            s.fileLimit, s.folder);
    turnOff(s, true);
    return false;
}

void writeFailed(State& s, const std::string& name, const char* reason) QOR_REQUIRES(s.mutex) {
    QOR_LOG(LogError, "Image log: cannot write '%*' in '%*' (%*); the log is turned off", name,
            s.folder, reason);
    turnOff(s, true);
}

double secondsSinceStart(const State& s) QOR_REQUIRES(s.mutex) {
    return std::chrono::duration<double>(Clock::now() - s.started).count();
}

// The next file name: a running number keeps the files in the order they were written.
std::string fileName(const State& s, std::string_view stem, std::string_view extension)
    QOR_REQUIRES(s.mutex) {
    char number[16];
    std::snprintf(number, sizeof number, "%05zu-", s.files);
    return number + std::string(stem) + "." + std::string(extension);
}

void maybeWriteIndex(State& s) QOR_REQUIRES(s.mutex) {
    if (Clock::now() - s.indexWritten < std::chrono::seconds(1)) return;
    try {
        writeIndex(s);
    } catch (const std::exception& e) {
        writeFailed(s, kIndexName, e.what());
    }
}

// Writes an SVG and lists it. False when the log ended.
bool addSvg(State& s, const std::string& stem, const std::string& svg, const char* kind,
            const std::string& what, GenVec<int, 2> size) QOR_REQUIRES(s.mutex) {
    if (!reserveFile(s)) return false;
    const std::string name = fileName(s, stem, "svg");
    try {
        writeFile(s, name, svg);
    } catch (const std::exception& e) {
        writeFailed(s, name, e.what());
        return false;
    }
    s.entries.push_back(Entry{name, kind, what, size.x, size.y, "SVG", secondsSinceStart(s)});
    return true;
}

// Writes a picture (or lists its absence) and lists it. False when the log ended.
bool addPicture(State& s, const std::string& stem, const Converted* picture, const char* kind,
                const std::string& what, GenVec<int, 2> size, RawPixelFormat format)
    QOR_REQUIRES(s.mutex) {
    Entry entry{"", kind, what, size.x, size.y, formatName(format), 0.0};
    if (picture) {
        if (!s.writer) {
            QOR_LOG(LogError, "Image log: no picture writer is installed; the log is turned off");
            turnOff(s, true);
            return false;
        }
        if (!reserveFile(s)) return false;
        entry.file = fileName(s, stem, s.writer->extension());
        try {
            s.writer->write(filesystem::pathJoin(s.folder, entry.file), picture->picture);
        } catch (const std::exception& e) {
            writeFailed(s, entry.file, e.what());
            return false;
        }
    } else {
        entry.what += " (held by the graphics card only: not dumped)";
    }
    entry.seconds = secondsSinceStart(s);
    s.entries.push_back(std::move(entry));
    maybeWriteIndex(s);
    return true;
}

// The number of `source`, given on first sight with a picture of its layout. 0 when the log ended.
unsigned sourceNumber(State& s, const ImageSource& source) QOR_REQUIRES(s.mutex) {
    const TileLayout layout = source.tileLayout();
    auto it = s.sources.find(&source);
    if (it != s.sources.end() && it->second.layout == layout) return it->second.number;
    const unsigned number = unsigned(s.sources.size()) + 1;
    s.sources[&source] = SourceRecord{number, layout};
    const std::string caption =
        sourceTypeName(source) + " #" + std::to_string(number) + ": " +
        std::to_string(layout.imageSize.x) + " x " + std::to_string(layout.imageSize.y) + " " +
        formatName(source.pixelFormat()) + ", tiles of " + std::to_string(layout.tileSize.x) +
        " x " + std::to_string(layout.tileSize.y);
    GenVec<int, 2> size;
    const std::string svg = layoutSvg(layout, caption, {}, &size);
    if (!addSvg(s, "source" + std::to_string(number) + "-layout", svg, "tile layout", caption,
                size))
        return 0;
    return number;
}

std::string sourceLabel(const State& s, const ImageSource& source, unsigned number)
    QOR_REQUIRES(s.mutex) {
    return sourceTypeName(source) + " #" + std::to_string(number);
}

std::string position(GenVec<int, 2> pos) {
    return "(" + std::to_string(pos.x) + ", " + std::to_string(pos.y) + ")";
}

// ---- the index ----

void cell(NodeIterator& row, std::string_view text) { row.appendChild("td").setText(text); }

void writeIndex(State& s) QOR_REQUIRES(s.mutex) {
    XmlDocumentRapid doc;
    NodeIterator html = doc.create("html");
    html.appendAttribute("lang", "en");
    NodeIterator head = html.appendChild("head");
    head.appendChild("meta").appendAttribute("charset", "utf-8");
    head.appendChild("title").setText("Image log");
    head.appendChild("style").setText(
        "body{font-family:sans-serif;font-size:13px;margin:16px}"
        "table{border-collapse:collapse}"
        "td,th{border:1px solid #ccc;padding:3px 6px;text-align:left;vertical-align:middle}"
        "th{background:#eee}"
        "img{max-width:160px;max-height:120px;background:"
        "repeating-conic-gradient(#ddd 0 25%,#fff 0 50%) 0 0/12px 12px}");
    NodeIterator body = html.appendChild("body");
    body.appendChild("h1").setText("Image log");
    body.appendChild("p").setText(
        "Started " + s.startedText + "; " + std::to_string(s.entries.size()) + " entries, " +
        std::to_string(s.files + 1) + " files of at most " + std::to_string(s.fileLimit) + ".");
    NodeIterator table = body.appendChild("table");
    NodeIterator header = table.appendChild("tr");
    for (const char* title : {"#", "time", "kind", "what", "size", "format", "file", "picture"})
        header.appendChild("th").setText(title);
    size_t index = 0;
    for (const Entry& e : s.entries) {
        NodeIterator row = table.appendChild("tr");
        cell(row, std::to_string(++index));
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%.3f s", e.seconds);
        cell(row, seconds);
        cell(row, e.kind);
        cell(row, e.what);
        cell(row, std::to_string(e.width) + " x " + std::to_string(e.height));
        cell(row, e.format);
        if (e.file.empty()) {
            cell(row, "none");
            cell(row, "-");
            continue;
        }
        row.appendChild("td").appendChild("a").appendAttribute("href", e.file).setText(e.file);
        row.appendChild("td")
            .appendChild("a")
            .appendAttribute("href", e.file)
            .appendChild("img")
            .appendAttribute("src", e.file)
            .appendAttribute("alt", e.file);
    }
    writeFile(s, kIndexName, "<!DOCTYPE html>\n" + doc.toString(XmlIndent | XmlNoDeclaration));
    s.indexWritten = Clock::now();
}

void stopAtExit() { ImageLog::stop(); }

std::string wallClockText() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace

// ---- switching ----

bool ImageLog::start(std::string_view folder, unsigned kinds, size_t fileLimit) {
    stop();
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    if (!s.writer) {
        QOR_LOG(LogError, "Image log: no picture writer is installed; '%*' is not used", folder);
        return false;
    }
    try {
        if (folder.empty()) throw filesystem::FilesystemException("no folder named");
        filesystem::createDirectoryFromUrl(folder);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Image log: cannot make the folder '%*': %*", folder, e.what());
        return false;
    }
    s.folder = std::string(folder);
    s.kinds = kinds & ImageLogEverything;
    s.fileLimit = std::max<size_t>(fileLimit, 2);
    s.files = 0;
    s.requestCount = 0;
    ++s.session;
    s.started = s.indexWritten = Clock::now();
    s.startedText = wallClockText();
    if (!s.exitHookInstalled) {
        s.exitHookInstalled = true;
        std::atexit(stopAtExit);
    }
    try {
        writeIndex(s);
    } catch (const std::exception& e) {
        writeFailed(s, kIndexName, e.what());
        return false;
    }
    QOR_LOG(LogInfo, "Image log: dumping pictures into '%*' (at most %* files)", s.folder,
            s.fileLimit);
    detail::gImageLogKinds.store(s.kinds, std::memory_order_relaxed);
    return true;
}

bool ImageLog::startFromEnvironment() {
    const char* folder = std::getenv(kEnvironmentVariable);
    if (!folder || !*folder) return false;
    return start(folder);
}

void ImageLog::stop() {
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    if (s.folder.empty()) return;
    detail::gImageLogKinds.store(0, std::memory_order_relaxed);
    try {
        writeIndex(s);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Image log: cannot write '%*' in '%*' (%*)", kIndexName, s.folder,
                e.what());
    }
    turnOff(s, false);
}

std::string ImageLog::folder() {
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    return s.folder;
}

void ImageLog::setWriter(SharedPtr<ImageLogWriter> writer) {
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    s.writer = std::move(writer);
}

bool ImageLog::hasWriter() {
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    return s.writer != nullptr;
}

// ---- hooks ----

namespace {

std::string tileStem(std::string_view owner, unsigned number, GenVec<int, 2> pos) {
    return std::string(owner) + std::to_string(number) + "-tile-" + std::to_string(pos.x) + "-" +
           std::to_string(pos.y);
}

// Lists `tile` of `source` as `label` when `kind` is dumped. `name(state, sourceNumber)` gives the
// file's stem and the description; it runs with the log's mutex held.
template <class Name>
void logTile(unsigned kind, const char* label, const ImageSource& source,
             const SharedPtr<const ImageTile>& tile, Name name) {
    // The pixels are read before the log's lock is taken: the tile's own lock comes first.
    Converted converted;
    const bool havePixels = convertTile(*tile, converted);
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    // Only the card holds the tile, and this is not the GL thread: the GL thread reads it back
    // when it next runs its jobs. Waiting for that here could wait for ever, for the GL thread
    // may be waiting for this one.
    const bool onTheCard = !havePixels && !dispatcher.isGLThread() && dispatcher.hasGLThread() &&
                           !tile->hasData<RawImageStorage>() && tile->valid();
    State& s = state();
    std::string stem, what;
    unsigned session = 0;
    {
        ScopedLock<Mutex> lock(s.mutex);
        if (!(s.kinds & kind)) return;
        const unsigned number = sourceNumber(s, source);
        if (!number) return;
        std::tie(stem, what) = name(s, number);
        if (!onTheCard) {
            addPicture(s, stem, havePixels ? &converted : nullptr, label, what, tile->size(),
                       tile->pixelFormat());
            return;
        }
        session = s.session;
    }
    // Ahead of the engine's GL jobs, so that the tile is let go soon.
    dispatcher.dispatch(
        [tile, kind, label, stem = std::move(stem), what = std::move(what), session] {
            Converted read;
            const bool have = convertTile(*tile, read);
            State& st = state();
            ScopedLock<Mutex> lock(st.mutex);
            if (!(st.kinds & kind) || st.session != session) return;  // stopped meanwhile
            addPicture(st, stem, have ? &read : nullptr, label, what, tile->size(),
                       tile->pixelFormat());
        },
        thread::JtGLThread, 1000);
}

}  // namespace

void ImageLog::sourceTile(const ImageSource& source, GenVec<int, 2> pos, unsigned int version,
                          const SharedPtr<const ImageTile>& tile) {
    if (!tile) return;
    logTile(ImageLogSourceTiles, "source tile", source, tile,
            [&](State& s, unsigned number) QOR_NO_THREAD_SAFETY_ANALYSIS {
                return std::pair(tileStem("source", number, pos),
                                 sourceLabel(s, source, number) + ", tile " + position(pos) +
                                     ", version " + std::to_string(version));
            });
}

void ImageLog::requestTile(const void* request, const ImageSource& source, GenVec<int, 2> pos,
                           const SharedPtr<const ImageTile>& tile) {
    if (!tile) return;
    logTile(ImageLogRequestResults, "request tile", source, tile,
            [&](State& s, unsigned number) QOR_NO_THREAD_SAFETY_ANALYSIS {
                RequestRecord& record = s.requests[request];
                if (!record.number) record.number = ++s.requestCount;
                record.delivered.insert(pos);
                return std::pair(tileStem("request", record.number, pos),
                                 "request #" + std::to_string(record.number) + " of " +
                                     sourceLabel(s, source, number) + ", tile " + position(pos));
            });
}

void ImageLog::requestEnded(const void* request, const ImageSource& source,
                            const std::set<GenVec<int, 2>>& tiles, std::string_view outcome) {
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    if (!(s.kinds & ImageLogRequestResults)) return;
    const unsigned number = sourceNumber(s, source);
    if (!number) return;
    RequestRecord record = s.requests[request];
    s.requests.erase(request);
    if (!record.number) record.number = ++s.requestCount;
    std::map<GenVec<int, 2>, SvgColor> marks;
    for (const GenVec<int, 2>& pos : tiles)
        marks[pos] = record.delivered.count(pos) ? SvgColor::rgb(0x40c040, 0.6)
                                                 : SvgColor::rgb(0xe04040, 0.6);
    const std::string caption =
        "request #" + std::to_string(record.number) + " of " + sourceLabel(s, source, number) +
        ": " + std::to_string(tiles.size()) + " tiles asked, " +
        std::to_string(record.delivered.size()) + " handed out (green), " + std::string(outcome);
    GenVec<int, 2> size;
    const std::string svg = layoutSvg(source.tileLayout(), caption, marks, &size);
    if (addSvg(s, "request" + std::to_string(record.number), svg, "request", caption, size))
        maybeWriteIndex(s);
}

void ImageLog::saverRows(std::string_view target, int firstRow, RawPixelFormat format, int width,
                         int height, const void* pixels, size_t byteStride) {
    const unsigned sampleBytes = getBytesPerChannel(format);
    if (!sampleBytes) return;
    Converted converted;
    const bool havePixels =
        convertPixels(format, width, height, pixels, unsigned(byteStride / sampleBytes), converted);
    State& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    if (!(s.kinds & ImageLogSaverRows) || !havePixels) return;
    const std::string rows = std::to_string(firstRow) + "-" + std::to_string(firstRow + height - 1);
    addPicture(s, "saver-rows-" + rows, &converted, "saver rows",
               "rows " + rows + " of '" + std::string(target) + "'", GenVec<int, 2>(width, height),
               format);
}

}  // namespace qor::imaging
