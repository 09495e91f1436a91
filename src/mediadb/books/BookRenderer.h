#pragma once
// BookRenderer: draws a book's double pages as SVG, one self-contained file each, and an index.html
// that shows them in book order. Pictures come from a thumbnail chain (an ImageCache whose
// resource manager names the book's image ids, usually the library's ImageManager) at the size
// `pictureSide` asks, and are embedded as data: URIs of their JPEG or PNG bytes.
//
// Geometry. A double page is two sides of sideWidth x sideHeight pixels, the left one first. Frame
// positions and sizes are in the layout's units: when every frame of the book lies within the unit
// square (positions and sizes are fractions of a side, as templates write them), x values are
// fractions of the side's width and y values of its height, and a picture's size and offset in
// its frame are in thousandths of the side; otherwise the units are the layout's own pixels, scaled
// uniformly so that the book's largest extent fits a side, and pictures use the same units. A
// frame turns by its rotation (degrees, clockwise) about its centre; a picture turns about the
// centre of its own box, is scaled to cover that box (cut at its edges, proportions kept), faded
// by its alpha and cut at the frame's edges. A picture without a size fills its frame. Frames are
// drawn in stacking order (framesInStackingOrder), so an upper layer covers a lower one.
//
// Marks. A picture frame without an image is drawn empty (light grey, dashed outline). A frame
// whose picture file is missing or cannot be read is drawn empty with a dark grey cross over it.
// A frame with `error` set gets a red outline and a red disc with a "!" at its top right corner.
// Text frames show their text (or their default text, faded and italic) aligned by their flags,
// broken into lines at blanks and at line ends, at the largest size at which the lines fit the
// frame; the words of `textstyle` may make it bold ("title", "bold") or italic and choose a serif,
// sans-serif or monospace family. A frame's `framestyle` and a side's `flippable` and `offset` are
// the application's editing properties and are not drawn.
// Side backgrounds (`bgimage`) and decorations (`decoimage`) are PNG or JPEG files looked up in
// `themeDir`; a decoration without its file is drawn as a dashed box with the file's name.
//
// Thread contract: a renderer is used by one thread at a time; it blocks on the thumbnail chain
// and on the files it writes. Distinct renderers over one (thread-safe) chain are independent.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/ResourceID.h"
#include "mediadb/books/Book.h"

namespace qor::diagnostics {
class CanvasSVG;
}

namespace qor::imagecache {
class ImageCache;
}

namespace qor::mediadb {

struct BookRenderOptions {
    double sideWidth = 500.0;   // pixels of one side of a double page
    double sideHeight = 500.0;  // pixels of one side of a double page
    int pictureSide = 2048;     // the size class asked of the thumbnail chain
    std::string themeDir;       // where background and decoration images lie; "" for none
};

// One double page of a book, in book order: dust jacket, cover, inside front cover, the pages,
// inside back cover. A cover, jacket or inside cover whose sides are both empty (no frames, no
// background) is left out: books often never set them.
struct BookSpread {
    BookPageKind kind = BpkPage;
    unsigned pageNr = 0;         // for BpkPage, the index in Book::pages()
    std::string fileName;        // "003-page-001.svg": the names sort in book order
    std::string title;           // "Double page 1 (1 | 2)"
    const Page* page = nullptr;  // points into the book
};

// What a rendering drew, counted over every page drawn so far.
struct BookRenderCounts {
    unsigned pictures = 0;                  // pictures drawn
    unsigned empty = 0;                     // picture frames without an image
    unsigned missing = 0;                   // picture frames whose picture could not be had
    unsigned errors = 0;                    // frames with `error` set
    std::vector<std::string> missingFiles;  // the files of the missing pictures, each once
};

class BookRenderer {
public:
    // `images` is not owned and must outlive the renderer.
    explicit BookRenderer(imagecache::ImageCache* images, BookRenderOptions options = {});
    ~BookRenderer();

    // The double pages of `book` that a rendering draws, in book order.
    static std::vector<BookSpread> spreads(const Book& book);

    // Draws one double page of `book` onto a canvas of 2 * sideWidth x sideHeight and returns the
    // SVG document.
    std::string renderSpread(const Book& book, const BookSpread& spread);

    // Writes the SVG of every spread and index.html into `dir` (made when missing), calling
    // `progress` (when set) after each spread with the number done and the total. False, with one
    // log line, when a file cannot be written; the files written before stay.
    bool renderBook(const Book& book, const std::string& dir,
                    const std::function<void(size_t, size_t)>& progress = {});

    const BookRenderCounts& counts() const { return _counts; }

private:
    struct Geometry;

    Geometry geometryOf(const Book& book) const;
    void drawSide(diagnostics::CanvasSVG& canvas, const SubPage& side, double x0,
                  const Geometry& g);
    void drawPicture(diagnostics::CanvasSVG& canvas, const PictureFrame& frame, double w, double h,
                     const Geometry& g);
    void drawText(diagnostics::CanvasSVG& canvas, const TextFrame& frame, double w, double h);
    void drawDecoration(diagnostics::CanvasSVG& canvas, const Decoration& frame, double w,
                        double h);
    // The embedded bytes of an image (JPEG or PNG); empty when it cannot be had.
    const std::string& pictureBytes(ResourceID id);
    // The bytes of a theme file; empty when there is none.
    std::string themeFile(std::string_view name) const;

    imagecache::ImageCache* const _images;  // not owned
    const BookRenderOptions _options;
    // pictureBytes of the double page being drawn, by id; the pictures found missing so far
    std::unordered_map<int32_t, std::string> _encoded;
    std::unordered_set<int32_t> _missing;
    BookRenderCounts _counts;
};

}  // namespace qor::mediadb
