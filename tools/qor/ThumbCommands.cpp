// The thumbnail commands, on the thumbnail chain (the disk cache in CACHEDIR/thumbnails in front
// of the picture files):
//   qor thumbs build DIR... --cache CACHEDIR [--size N]
//                               a thumbnail of every picture below the folders, several files at
//                               once, with a progress bar and a summary (made, from the cache,
//                               failed); Ctrl-C stops after the files under way
//   qor thumbs contact DIR -o SHEET.jpg [--size N] [--columns N] [--cache CACHEDIR]
//                               a contact sheet of the folder's pictures: their thumbnails in a
//                               grid with margins, computed tile by tile through the tile
//                               pipeline and written as JPEG
//
// A picture that cannot be read gives one line on standard error and counts as failed; the others
// are still made, and the exit status is 1 (as every command that meets a bad file), 130 after
// Ctrl-C, 2 for bad usage.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "ItemText.h"
#include "ThumbChain.h"
#include "base/filesystem/Path.h"
#include "imagecache/thumbnails/ImageCachePreload.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"
#include "imageio/ImageIO.h"
#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"

namespace qor::tool {

namespace {

using math::GenVec;
using math::Recti;

volatile std::sig_atomic_t g_thumbsInterrupted = 0;
extern "C" void onThumbsInterrupt(int) { g_thumbsInterrupted = 1; }

constexpr unsigned long kMaxThumbSide = 2048;

struct ThumbsOptions {
    std::string action;  // build or contact
    std::string cacheDir;
    std::string out;
    std::vector<std::string> folders;
    int side = imagecache::kGridThumbnailSide;
    int columns = 6;
};

// Fills `o`; returns the exit status of a usage error, or 0.
int parseThumbsOptions(const std::vector<std::string>& args, ThumbsOptions& o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--cache" || arg == "-o" || arg == "--size" || arg == "--columns") {
            if (i + 1 >= args.size()) return usageError("thumbs: " + arg + " needs a value");
            const std::string& value = args[++i];
            unsigned long n = 0;
            if (arg == "--cache") {
                o.cacheDir = value;
            } else if (arg == "-o") {
                o.out = value;
            } else if (!parseCount(value, n) || n == 0 ||
                       n > (arg == "--size" ? kMaxThumbSide : 100)) {
                return usageError(arg == "--size" ? "thumbs: --size must be from 1 to 2048"
                                                  : "thumbs: --columns must be from 1 to 100");
            } else {
                (arg == "--size" ? o.side : o.columns) = int(n);
            }
        } else if (o.action.empty()) {
            o.action = arg;
        } else {
            o.folders.push_back(arg);
        }
    }
    if (o.action != "build" && o.action != "contact")
        return usageError(o.action.empty()
                              ? "thumbs: give build or contact"
                              : "thumbs: unknown action '" + o.action + "' (build or contact)");
    if (o.folders.empty()) return usageError("thumbs " + o.action + ": give one or more folders");
    if (o.action == "build" && o.cacheDir.empty())
        return usageError("thumbs build: --cache CACHEDIR is required");
    if (o.action == "contact") {
        if (o.out.empty()) return usageError("thumbs contact: -o SHEET.jpg is required");
        if (o.folders.size() != 1) return usageError("thumbs contact: give one folder");
    }
    return 0;
}

// The pictures below the folders; a folder that cannot be listed gives one line and status 1.
std::vector<std::string> picturesBelow(const char* command, const std::vector<std::string>& folders,
                                       int& status) {
    std::vector<std::string> files;
    for (const std::string& folder : folders) {
        if (!filesystem::isDirectory(folder)) {
            status = reportBad(command, folder, "not a folder");
            continue;
        }
        try {
            collectPictures(folder, files);
        } catch (const std::exception& e) {
            status = reportBad(command, folder, e.what());
        }
    }
    return files;
}

// ---- build ----

int runBuild(const ThumbsOptions& o) {
    g_thumbsInterrupted = 0;
    void (*previous)(int) = std::signal(SIGINT, onThumbsInterrupt);
    int status = 0;
    const std::vector<std::string> files = picturesBelow("thumbs build", o.folders, status);
    ThumbChain chain;
    if (!chain.open("thumbs build", o.cacheDir)) {
        std::signal(SIGINT, previous);
        return 1;
    }
    const std::vector<ResourceID> ids = chain.add(files);
    const size_t total = ids.size();
    std::vector<char> failed(total, 0);
    std::atomic<size_t> made{0}, cached{0};
    const auto start = std::chrono::steady_clock::now();
    const size_t done = runOnThreads(
        total,
        [&](size_t i) {
            if (chain.disk->contains(ids[i], o.side)) {
                ++cached;
            } else if (chain.disk->get(ids[i], o.side).placeholder) {
                failed[i] = 1;  // each item's flag is written by the one thread that makes it
            } else {
                ++made;
            }
        },
        g_thumbsInterrupted, "files");
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::signal(SIGINT, previous);
    size_t bad = 0;
    for (size_t i = 0; i < total; ++i) {
        if (!failed[i]) continue;
        ++bad;
        status = reportBad("thumbs build", files[i], chain.reasonFor(files[i]));
    }
    if (g_thumbsInterrupted) {
        std::fprintf(stderr, "qor: thumbs build: interrupted after %zu of %zu files\n", done,
                     total);
        return 130;
    }
    std::printf("%zu files in %.2f s: %zu made, %zu from cache, %zu failed\n", total, seconds,
                size_t(made), size_t(cached), bad);
    return status;
}

// ---- contact ----

// The sheet: cells of side x side with a margin around each, on a light grey ground; each
// thumbnail centred in its cell. Tiles are computed from the thumbnails on the pipeline's workers.
class ContactSheet : public imaging::ImageSource {
public:
    static constexpr int kMargin = 16;

    static SharedPtr<ContactSheet> create(std::vector<imageio::ConstImagePtr> thumbs, int side,
                                          int columns) {
        auto* sheet = new ContactSheet(std::move(thumbs), side, columns);
        return std::static_pointer_cast<ContactSheet>(sheet->setupSelfRef());
    }
    imaging::TileLayout tileLayout() const override { return _layout; }

    static GenVec<int, 2> sizeOf(size_t count, int side, int columns) {
        const int cols = std::max(1, std::min(columns, int(count)));
        const int rows = std::max(1, int((count + cols - 1) / cols));
        return {cols * (side + kMargin) + kMargin, rows * (side + kMargin) + kMargin};
    }

protected:
    ContactSheet(std::vector<imageio::ConstImagePtr> thumbs, int side, int columns)
        : ImageSource(sizeOf(thumbs.size(), side, columns), imaging::PfRGBA8),
          _thumbs(std::move(thumbs)),
          _side(side),
          _columns(std::max(1, std::min(columns, int(_thumbs.size())))),
          _layout(size(), GenVec<int, 2>(256, 256), GenVec<int, 2>(0, 0), size()) {}

    SharedPtr<const imaging::ImageTile> computeTileData(unsigned x, unsigned y) override {
        const Recti rect = _layout.getTileRect(int(x), int(y));
        SharedPtr<imaging::ImageTile> tile =
            imaging::ImageTile::create(rect.size(), imaging::PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < rect.height(); ++j) {
            unsigned char* row = data->row(j);
            std::memset(row, 232, size_t(rect.width()) * 4);
            const int py = rect.ymin() + j;
            for (int i = 0; i < rect.width(); ++i) {
                const int px = rect.xmin() + i;
                if (const unsigned char* p = thumbPixel(px, py)) std::memcpy(row + i * 4, p, 3);
                row[i * 4 + 3] = 255;
            }
        }
        return tile;
    }

private:
    // The pixel of a thumbnail at sheet position (x, y), or null on the ground.
    const unsigned char* thumbPixel(int x, int y) const {
        const int pitch = _side + kMargin;
        const int cx = (x - kMargin) / pitch, cy = (y - kMargin) / pitch;
        if (x < kMargin || y < kMargin || cx >= _columns) return nullptr;
        const size_t index = size_t(cy) * _columns + cx;
        if (index >= _thumbs.size() || !_thumbs[index]) return nullptr;
        const imageio::Image4ub& t = *_thumbs[index];
        const int tx = (x - kMargin) % pitch - (_side - t.width()) / 2;
        const int ty = (y - kMargin) % pitch - (_side - t.height()) / 2;
        if (tx < 0 || ty < 0 || tx >= t.width() || ty >= t.height()) return nullptr;
        return t.data() + size_t(ty) * t.stride() + size_t(tx) * 4;
    }

    std::vector<imageio::ConstImagePtr> _thumbs;
    int _side;
    int _columns;
    imaging::TileLayout _layout;
};

// The thumbnails come through a chain (the disk cache with --cache), made ahead on the thread
// pool by a preloader and then taken from its memory link in order.
int runContact(const ThumbsOptions& o) {
    int status = 0;
    const std::vector<std::string> files = picturesBelow("thumbs contact", o.folders, status);
    if (files.empty()) {
        std::fprintf(stderr, "qor: thumbs contact: no pictures in '%s'\n", o.folders[0].c_str());
        return 1;
    }
    ThumbChain chain;
    if (!o.cacheDir.empty() && !chain.open("thumbs contact", o.cacheDir)) return 1;
    // Room for every thumbnail of the sheet, which holds them all anyway.
    chain.addMemory(uint64_t(files.size()) * uint64_t(o.side) * uint64_t(o.side) * 4 +
                    (uint64_t(1) << 20));
    const std::vector<ResourceID> ids = chain.add(files);
    g_thumbsInterrupted = 0;
    void (*previous)(int) = std::signal(SIGINT, onThumbsInterrupt);
    {
        imagecache::ImageCachePreload preload(chain.front());
        std::vector<imagecache::ImageCachePreload::Item> items;
        for (ResourceID id : ids) items.push_back({id, o.side});
        preload.setList(items);
        const bool bar = progressBarWanted();
        for (size_t drawn = ~size_t(0);;) {
            const imagecache::ImageCachePreload::Progress p = preload.progress();
            if (bar && p.done != drawn) drawProgressBar(drawn = p.done, p.total, "files", false);
            if (p.done >= p.total || g_thumbsInterrupted) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        preload.cancel();
        if (bar) drawProgressBar(preload.progress().done, files.size(), "files", true);
    }
    std::signal(SIGINT, previous);
    if (g_thumbsInterrupted) {
        std::fprintf(stderr, "qor: thumbs contact: interrupted\n");
        return 130;
    }
    std::vector<imageio::ConstImagePtr> thumbs;
    for (size_t i = 0; i < files.size(); ++i) {
        imagecache::Thumbnail thumb = chain.front()->get(ids[i], o.side);
        if (!thumb.placeholder)
            thumbs.push_back(std::move(thumb.image));
        else
            status = reportBad("thumbs contact", files[i], chain.reasonFor(files[i]));
    }
    if (thumbs.empty()) return 1;
    const size_t placed = thumbs.size();
    auto sheet = ContactSheet::create(std::move(thumbs), o.side, o.columns);
    auto whole = imaging::Image::create(sheet)->getAsTile();
    auto pixels = whole ? whole->getDataRGBA8() : nullptr;
    if (!pixels || !imageio::saveJpeg(FastString<char>(o.out), pixels, 90)) {
        std::fprintf(stderr, "qor: thumbs contact: cannot write '%s'\n", o.out.c_str());
        return 1;
    }
    std::printf("%s: %d x %d, %zu of %zu pictures\n", o.out.c_str(), sheet->width(),
                sheet->height(), placed, files.size());
    return status;
}

}  // namespace

int runThumbs(const std::vector<std::string>& args) {
    ThumbsOptions o;
    if (const int usage = parseThumbsOptions(args, o)) return usage;
    imageio::initSupportedItemsList();
    return o.action == "build" ? runBuild(o) : runContact(o);
}

}  // namespace qor::tool
