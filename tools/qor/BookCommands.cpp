// The photo book commands, on a library folder as the library commands:
//   qor book show BAG [--json]                         pages, frames and their pictures
//   qor book new NAME --layout FILE [--from BAG]       a book bag made from a .layout template
//   qor book render BAG -o OUT [--cache DIR] [--theme-dir DIR]
//                                                      one SVG per double page and index.html
// The drawing is the library's BookRenderer; these functions only find the book and report.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Commands.h"
#include "ItemText.h"
#include "LibrarySession.h"
#include "base/Log.h"
#include "base/cache/DynamicHDCache.h"
#include "base/filesystem/Path.h"
#include "imagecache/thumbnails/ImageCacheDHD.h"
#include "imagecache/thumbnails/ImageCachePreload.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/ImageCacheSource.h"
#include "imagecache/thumbnails/LargeImageCache.h"
#include "imageio/ImageIO.h"
#include "mediadb/books/BookBag.h"
#include "mediadb/books/BookRenderer.h"
#include "mediadb/library/Library.h"

namespace qor::tool {

namespace {

using mediadb::Bag;
using mediadb::Book;
using mediadb::BookBag;

struct BookOptions : LibraryOptions {
    std::string layout;    // new: --layout
    std::string from;      // new: --from
    std::string out;       // render: -o
    std::string cacheDir;  // render: --cache
    std::string themeDir;  // render: --theme-dir
};

// Fills `o` from the arguments; returns the exit status of a usage error, or 0.
int parseBookOptions(const std::vector<std::string>& args, BookOptions& o) {
    o.command = "book";
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        std::string* value = arg == "--library"     ? &o.dir
                             : arg == "--layout"    ? &o.layout
                             : arg == "--from"      ? &o.from
                             : arg == "-o"          ? &o.out
                             : arg == "--cache"     ? &o.cacheDir
                             : arg == "--theme-dir" ? &o.themeDir
                                                    : nullptr;
        if (value) {
            if (i + 1 >= args.size() || args[i + 1].empty())
                return usageError("book: " + arg + " needs a value");
            *value = args[++i];
        } else if (arg == "--json") {
            o.json = true;
        } else {
            o.args.push_back(arg);
        }
    }
    if (o.args.empty()) return usageError("book: give show, new or render");
    const std::string action = o.args[0];
    if (action != "show" && action != "new" && action != "render")
        return usageError("book: unknown action '" + action + "' (show, new or render)");
    o.command = "book " + action;
    if (o.args.size() != 2)
        return usageError("book " + action + ": give one " + (action == "new" ? "NAME" : "BAG"));
    if (action == "new" && o.layout.empty()) return usageError("book new: give --layout FILE");
    if (action != "new" && (!o.layout.empty() || !o.from.empty()))
        return usageError("book " + action + ": --layout and --from are for 'book new'");
    if (action == "render" && o.out.empty()) return usageError("book render: give -o OUT");
    if (action != "render" && (!o.out.empty() || !o.cacheDir.empty() || !o.themeDir.empty()))
        return usageError("book " + action + ": -o, --cache and --theme-dir are for 'book render'");
    if (o.json && action != "show") return usageError("book " + action + ": --json is for 'show'");
    return resolveLibraryDir(o);
}

// The book bag named `name`; null after one line when there is none or it is no book.
SharedPtr<const BookBag> findBook(const BookOptions& o, Session& s, const std::string& name) {
    const SharedPtr<const Bag> bag = s.findBag(o, name);
    if (!bag) return nullptr;
    SharedPtr<const BookBag> book = dynamic_ptr_cast<const BookBag>(bag);
    if (!book) failure(o, "'" + name + "' is a " + bag->bagType() + " bag, not a picturebook");
    return book;
}

// ---- show ----

const char* kindName(const mediadb::StackedFrame& frame) {
    if (std::holds_alternative<const mediadb::PictureFrame*>(frame)) return "picture";
    if (std::holds_alternative<const mediadb::TextFrame*>(frame)) return "text";
    return "decoration";
}

Json frameJson(const Session& s, const mediadb::StackedFrame& frame) {
    const mediadb::PageElement& e = mediadb::elementOf(frame);
    Json j = {{"kind", kindName(frame)},        {"position", {e.position[0], e.position[1]}},
              {"size", {e.size[0], e.size[1]}}, {"layer", e.layer},
              {"rotation", e.rotation},         {"error", e.error}};
    if (const auto* p = std::get_if<const mediadb::PictureFrame*>(&frame)) {
        const std::string path =
            (*p)->image.isValid() ? s.library->getImageResourceName((*p)->image).localPath() : "";
        j["image"] = path.empty() ? Json() : Json(path);
        j["missing"] = !path.empty() && !filesystem::exists(path);
        j["alpha"] = (*p)->alpha;
    } else if (const auto* t = std::get_if<const mediadb::TextFrame*>(&frame)) {
        j["text"] = (*t)->text;
        j["defaulttext"] = (*t)->defaulttext;
        j["alignment"] = mediadb::alignmentToString((*t)->alignment);
    } else {
        j["decoimage"] = std::get<const mediadb::Decoration*>(frame)->decoimage;
    }
    return j;
}

Json sideJson(const Session& s, const mediadb::SubPage& side) {
    Json frames = Json::array();
    for (const mediadb::StackedFrame& frame : mediadb::framesInStackingOrder(side))
        frames.push_back(frameJson(s, frame));
    return {{"name", side.name},
            {"bgcolor", side.bgcolor},
            {"bgimage", side.bgimage},
            {"frames", std::move(frames)}};
}

Json pageJson(const Session& s, const mediadb::Page& page) {
    return {{"left", sideJson(s, page.left_page)}, {"right", sideJson(s, page.right_page)}};
}

void printSide(const Session& s, const char* which, const mediadb::SubPage& side) {
    std::printf("  %s%s%s%s:\n", which, side.name.empty() ? "" : " '", side.name.c_str(),
                side.name.empty() ? "" : "'");
    for (const mediadb::StackedFrame& frame : mediadb::framesInStackingOrder(side)) {
        const Json j = frameJson(s, frame);
        const mediadb::PageElement& e = mediadb::elementOf(frame);
        std::string what;
        if (j.contains("image"))
            what = j["image"].is_null() ? "(empty)"
                                        : j["image"].get<std::string>() +
                                              (j["missing"].get<bool>() ? " (missing)" : "");
        else if (const auto* t = std::get_if<const mediadb::TextFrame*>(&frame))
            what = "\"" + ((*t)->text.empty() ? (*t)->defaulttext : (*t)->text) + "\"";
        else
            what = j["decoimage"].get<std::string>();
        std::printf("    %-10s layer %d at %s size %s rotation %g%s  %s\n", kindName(frame),
                    e.layer, mediadb::bookVectorToString(e.position).c_str(),
                    mediadb::bookVectorToString(e.size).c_str(), e.rotation,
                    e.error > 0 ? " ERROR" : "", what.c_str());
    }
}

int showBook(const BookOptions& o, Session& s, const BookBag& book) {
    const std::vector<mediadb::BookSpread> spreads = mediadb::BookRenderer::spreads(book);
    if (o.json) {
        Json pages = Json::array();
        for (const mediadb::Page& page : book.pages()) pages.push_back(pageJson(s, page));
        const Json j = {{"name", book.name()},
                        {"theme", book.theme()},
                        {"variant", book.variant()},
                        {"cover", pageJson(s, book.cover())},
                        {"insidefront", pageJson(s, book.insideFront())},
                        {"insideback", pageJson(s, book.insideBack())},
                        {"dustjacket", pageJson(s, book.dustJacket())},
                        {"pages", std::move(pages)},
                        {"images", book.images().size()}};
        std::printf("%s\n", j.dump(2).c_str());
        return 0;
    }
    std::printf("%s: theme '%s', variant '%s', %zu double pages, %zu images\n", book.name().c_str(),
                book.theme().c_str(), book.variant().c_str(), book.pages().size(),
                book.images().size());
    for (const mediadb::BookSpread& spread : spreads) {
        std::printf("%s\n", spread.title.c_str());
        printSide(s, "left", spread.page->left_page);
        printSide(s, "right", spread.page->right_page);
    }
    return 0;
}

// ---- new ----

// The pictures of a bag in its order; of a group (a family) only its first picture.
void picturesOf(const Bag::Node& node, std::list<ResourceID>& out) {
    for (const Bag::Node& child : node.children()) {
        if (!child.isGroup()) {
            out.push_back(child.item());
            continue;
        }
        std::list<ResourceID> group;
        picturesOf(child, group);
        if (!group.empty()) out.push_back(group.front());
    }
}

// Puts `pictures` into the empty picture frames of `page`, in order; returns how many it used.
size_t fillPage(mediadb::Page& page, std::list<ResourceID>::const_iterator& next,
                std::list<ResourceID>::const_iterator end) {
    size_t used = 0;
    for (mediadb::SubPage* side : {&page.left_page, &page.right_page})
        for (mediadb::PictureFrame& frame : side->pictures)
            if (!frame.image.isValid() && next != end) {
                frame.image = *next++;
                ++used;
            }
    return used;
}

int newBook(const BookOptions& o, Session& s) {
    Book book;
    {
        const LogCapture log(false);
        if (!mediadb::loadLayoutFile(o.layout, book))
            return failure(o, "cannot read the layout '" + o.layout +
                                  "': " + lastProblem(log, "not a book layout"));
    }
    std::list<ResourceID> pictures;
    if (!o.from.empty()) {
        const SharedPtr<const Bag> from = s.findBag(o, o.from);
        if (!from) return 1;
        picturesOf(*from->rootNode(), pictures);
    }
    auto next = pictures.cbegin();
    const size_t frames = book.getPictures().size();
    size_t filled = 0;
    using Getter = const mediadb::Page& (Book::*)() const;
    using Setter = void (Book::*)(const mediadb::Page&);
    const std::pair<Getter, Setter> covers[] = {{&Book::cover, &Book::setCover},
                                                {&Book::insideFront, &Book::setInsideFront},
                                                {&Book::insideBack, &Book::setInsideBack},
                                                {&Book::dustJacket, &Book::setDustJacket}};
    for (const auto& [get, set] : covers) {
        mediadb::Page page = (book.*get)();
        filled += fillPage(page, next, pictures.cend());
        (book.*set)(page);
    }
    for (unsigned i = 0; i < book.pages().size(); ++i) {
        mediadb::Page page = book.page(i);
        filled += fillPage(page, next, pictures.cend());
        book.setPage(page, i);
    }
    try {
        const ResourceID id = s.library->createBag(BookBag::bagTypeStatic(), o.args[1]);
        const SharedPtr<Bag> copy = s.library->modifyLockBag(id);
        auto* bag = dynamic_cast<BookBag*>(copy.get());
        if (!bag) return failure(o, "the library made no picturebook");
        static_cast<Book&>(*bag).copy(book);
        // Every picture enters the bag: those without a frame are kept as its remaining images.
        if (!pictures.empty()) bag->add(pictures);
        std::printf(
            "%s: %zu double pages, %zu of %zu picture frames filled, %zu pictures left "
            "over\n",
            s.library->getBagResourceName(id).localPath().c_str(), book.pages().size(), filled,
            frames, pictures.size() - filled);
        return 0;
    } catch (const mediadb::UniqueNameException& e) {
        return failure(o, std::string(e.what()) + " (a book named '" + o.args[1] +
                              "' in any capitals exists already)");
    } catch (const std::exception& e) {
        return failure(o, e.what());
    }
}

// ---- render ----

int renderBook(const BookOptions& o, Session& s, const BookBag& book) {
    imageio::initSupportedItemsList();
    const std::string cacheDir = o.cacheDir.empty()
                                     ? filesystem::pathJoin(s.library->path(), ".cache")
                                     : absolute(o.cacheDir);
    // The library's images through the thumbnail chain: previews in memory, in front of the disk
    // cache, in front of the files.
    imagecache::ImageCacheSource source(&s.images);
    std::unique_ptr<DynamicHDCache> store;
    try {
        store = std::make_unique<DynamicHDCache>(filesystem::pathJoin(cacheDir, "thumbnails"),
                                                 uint64_t(1) << 30);
    } catch (const std::exception& e) {
        return failure(o, "cannot open the cache in '" + cacheDir + "': " + e.what());
    }
    imagecache::ImageCacheDHD disk(&source, store.get());
    imagecache::ImageCacheRAM grid(&disk, uint64_t(64) << 20);
    imagecache::LargeImageCache previews(&grid, &disk);
    mediadb::BookRenderOptions options;
    options.pictureSide = imagecache::kScreenPreviewSide;
    options.themeDir = o.themeDir;
    const bool bar = progressBarWanted();
    {
        // The previews are made ahead on the thread pool into the disk cache, each once.
        std::vector<imagecache::ImageCachePreload::Item> items;
        std::set<int32_t> seen;
        for (const mediadb::PictureFrame& frame : book.getPictures())
            if (frame.image.isValid() && seen.insert(frame.image.id()).second)
                items.push_back({frame.image, imagecache::kScreenPreviewSide});
        imagecache::ImageCachePreload preload(&disk);
        preload.setList(items);
        for (size_t drawn = ~size_t(0);;) {
            const imagecache::ImageCachePreload::Progress p = preload.progress();
            if (bar && p.done != drawn) drawProgressBar(drawn = p.done, p.total, "pictures", false);
            if (p.done >= p.total) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (bar) drawProgressBar(items.size(), items.size(), "pictures", true);
    }
    mediadb::BookRenderer renderer(&previews, options);
    const LogCapture log(false);
    const bool written = renderer.renderBook(book, o.out, [&](size_t done, size_t total) {
        if (bar) drawProgressBar(done, total, "pages", done == total);
    });
    if (!written) return failure(o, lastProblem(log, "cannot write into '" + o.out + "'"));
    const mediadb::BookRenderCounts& c = renderer.counts();
    std::printf(
        "%s: %zu pages and index.html; %u pictures, %u empty frames, %u missing pictures, "
        "%u frames marked faulty\n",
        o.out.c_str(), mediadb::BookRenderer::spreads(book).size(), c.pictures, c.empty, c.missing,
        c.errors);
    int status = 0;
    for (const std::string& file : c.missingFiles)
        status = reportBad(o.command.c_str(), file, "missing or unreadable; its frame is marked");
    return status;
}

}  // namespace

int runBook(const std::vector<std::string>& args) {
    BookOptions o;
    if (const int status = parseBookOptions(args, o)) return status;
    Session s;
    if (!s.open(o, false)) return 1;
    if (o.args[0] == "new") return newBook(o, s);
    const SharedPtr<const BookBag> book = findBook(o, s, o.args[1]);
    if (!book) return 1;
    return o.args[0] == "show" ? showBook(o, s, *book) : renderBook(o, s, *book);
}

}  // namespace qor::tool
