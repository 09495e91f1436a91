#pragma once
// Book: a photo book. A cover, the inner sides of the front and back cover, a dust jacket and a
// list of double pages; each double page (Page) has a left and a right side (SubPage), and each
// side holds picture frames, text frames and decorations placed on it.
//
// The same XML serves a book kept in the .bag file of a BookBag and the ".layout" template files
// the application supplies. The root of a book is a `layout` element:
//
//   <layout theme=".." variant=".." covertype="0" current_view="0" current_page="0">
//     <cover> <subpage ../> <subpage ../> </cover>        left side, then right side
//     <insidefront>..</insidefront> <insideback>..</insideback> <dustjacket>..</dustjacket>
//     <page>..</page> ...                                  one per double page
//   </layout>
//   <subpage type="0" name=".." bgcolor=".." bgimage=".." offset="0" flippable="no">
//     frames in stacking order (lowest layer first):
//     <pictureframe error="0" layer="1" bgcolor=".." framestyle=".." rotation="0"
//                   position="x,y" size="w,h">
//       <picture size="w,h" rotation="0" offset="x,y" alpha="1" imageurl="persistent string"/>
//     </pictureframe>
//     <description (frame attributes) alignment="Left,Top" textstyle=".." textcolor=".."
//                  defaulttext="..">the text</description>
//     <decoration (frame attributes) decoimage=".." alpha="1" scalefactor="1"/>
//   </subpage>
//
// The reader accepts more than the writer writes: `style` on `layout` (the theme of a template
// that has no `theme`), `bgimageR` and `bgcolorR` on a right side (a template's backgrounds for
// right pages), "true" as well as "yes" for `flippable`; attributes with an empty value are
// skipped. Reading is forgiving for single attributes (logged, the field keeps its default) and
// strict for double pages that lack a side (BookException).
//
// Images are ResourceIDs; the book knows nothing of the library. Writing and reading take two
// callbacks that turn an id into the text stored in `imageurl` and back (BookBag supplies them).
//
// Thread contract: a plain value; a Book is used by one thread at a time, and const members may
// be called from several threads at once.

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/ResourceID.h"
#include "math/GenVec.h"
#include "mediadb/library/LibraryExceptions.h"
#include "util/Function.h"

namespace qor {
class NodeIterator;
}

namespace qor::mediadb {

using BookVec2d = math::GenVec<double, 2>;
using BookVec2i = math::GenVec<int, 2>;

// The application's kinds of cover and of book view; stored as integers and not interpreted here.
using CoverType = int;
using BookViewState = int;

// Id -> the text stored in `imageurl` ("" for InvalidResourceID), and back.
using BookIdToString = Function1<std::string, ResourceID>;
using BookStringToId = Function1<ResourceID, std::string_view>;

// A book page that cannot be read as a whole (a double page without a left or right side).
class BookException : public CloneableException<BookException, LibraryException> {
public:
    using CloneableException::CloneableException;
};

// Alignment of a text frame: the two low bits are horizontal, the next two vertical.
enum TextAlignment : int {
    AlignLeft = 1,
    AlignRight = 2,
    AlignHCenter = 3,
    AlignTop = 4,
    AlignBottom = 8,
    AlignVCenter = 12,
    AlignHorizontalMask = 3,
    AlignVerticalMask = 12,
};

// What every frame on a page has. Positions and sizes are in the page's units.
struct PageElement {
    virtual ~PageElement() = default;

    BookVec2d position;
    BookVec2d size;
    int layer = 0;  // stacking order, lowest at the bottom
    double rotation = 0.0;
    std::string bgcolor;
    std::string framestyle;
    int error = 0;  // 0: fine; higher: the application marked the frame as faulty
};

// A frame showing one picture.
struct PictureFrame : PageElement {
    BookVec2d pictureOffset;  // of the picture within the frame
    BookVec2i pictureSize;
    ResourceID image;  // InvalidResourceID: an empty frame
    double alpha = 1.0;
    double pictureRotation = 0.0;
    bool flippable = false;  // not stored in the XML
};

// A frame of text.
struct TextFrame : PageElement {
    int alignment = AlignLeft | AlignTop;  // TextAlignment flags
    std::string textstyle;
    std::string textcolor;
    std::string defaulttext;  // shown while `text` is empty
    std::string text;
};

// An ornament drawn from an image of the theme.
struct Decoration : PageElement {
    std::string decoimage;
    double alpha = 1.0;
    double scalefactor = 1.0;
};

enum PageType : int {
    LeftPage = 0,
    RightPage = 1,
    PageTypeUnset = 4,
};

// One side of a double page.
struct SubPage {
    SubPage() = default;
    explicit SubPage(PageType pageType) : type(pageType) {}

    std::vector<PictureFrame> pictures;
    std::vector<TextFrame> texts;
    std::vector<Decoration> decorations;
    PageType type = PageTypeUnset;
    std::string name;
    std::string bgcolor;
    std::string bgimage;
    bool flippable = false;
    double offset = 0.0;
};

// A double page. Its sides are typed from the start: a side without its type is not read back,
// and a book's covers are often never set.
struct Page {
    SubPage left_page{LeftPage};
    SubPage right_page{RightPage};
};

// Where a frame lies in a book.
enum BookPageKind : int {
    BpkCover,
    BpkInsideFront,
    BpkInsideBack,
    BpkDustJacket,
    BpkPage,  // a double page of pages(); pageNr tells which
};

// A frame with `error` set, and its page.
struct ErrorListEntry {
    BookPageKind kind = BpkPage;
    unsigned pageNr = 0;  // for BpkPage: the index in pages(); 0 otherwise
    PageType side = PageTypeUnset;
    const PageElement* element = nullptr;  // points into the book; valid while it is unchanged
};

class Book {
public:
    Book() = default;
    virtual ~Book() = default;
    Book(const Book&) = default;
    Book& operator=(const Book&) = default;

    void setCoverType(CoverType type) { _coverType = type; }
    CoverType coverType() const { return _coverType; }
    void setCurrentViewState(BookViewState state) { _currentViewState = state; }
    BookViewState currentViewState() const { return _currentViewState; }
    const std::string& theme() const { return _theme; }
    void setTheme(const std::string& theme) { _theme = theme; }
    const std::string& variant() const { return _variant; }
    void setVariant(const std::string& variant) { _variant = variant; }

    const Page& cover() const { return _cover; }
    void setCover(const Page& page) { _cover = page; }
    const Page& insideFront() const { return _insideFront; }
    void setInsideFront(const Page& page) { _insideFront = page; }
    const Page& insideBack() const { return _insideBack; }
    void setInsideBack(const Page& page) { _insideBack = page; }
    const Page& dustJacket() const { return _dustJacket; }
    void setDustJacket(const Page& page) { _dustJacket = page; }

    // ---- The double pages ----
    // A page number out of range is a logged assertion; the call then changes nothing (a getter
    // gives an empty page).

    const std::vector<Page>& pages() const { return _pages; }
    const Page& page(unsigned pageNr) const;
    // The last page; the book must have one.
    const Page& lastPage() const;
    void setPage(const Page& page, unsigned pageNr);
    void appendPage(const Page& page) { _pages.push_back(page); }
    // Inserts before `position`; position == pages().size() appends.
    void insertPage(unsigned position, const Page& page);
    // Removes a page; the current page number stays within the book.
    void removePage(unsigned position);
    void removeAllPages();
    // The number of the page the user looks at.
    unsigned currentPage() const;
    void setCurrentPage(unsigned page);

    // ---- Queries ----

    // Whether any picture frame of the book shows the image.
    bool imageUsed(ResourceID id) const;
    // Every picture frame: cover, inside front, inside back, dust jacket, then the pages, left
    // side before right side, each side's frames in their order.
    std::vector<PictureFrame> getPictures() const;
    // The frames with `error` set, in the order of getPictures, all three kinds.
    std::vector<ErrorListEntry> getErrorList() const;

    // Every picture frame showing `oldId` shows `newId` instead.
    void replaceImage(ResourceID oldId, ResourceID newId);

    // Takes over the whole book of `other`.
    void copy(const Book& other) { *this = other; }

    // Sets the attributes of `node` (the `layout` element) and appends the book's pages to it.
    // `idToString` gives each picture's `imageurl`.
    void toXML(NodeIterator& node, const BookIdToString& idToString) const;
    // Replaces the book by the one in `node` (a `layout` element). Never throws: an attribute that
    // cannot be read is logged and skipped, a part that cannot be read is logged and left out.
    void fromXML(const NodeIterator& node, const BookStringToId& stringToId);

private:
    // Calls fn(kind, pageNr, page) for the covers, then each double page.
    template <class Fn>
    void forEachPage(Fn&& fn) const;

    CoverType _coverType = 0;
    std::string _theme;
    std::string _variant;
    Page _cover;
    Page _insideFront;
    Page _insideBack;
    Page _dustJacket;
    std::vector<Page> _pages;
    unsigned _currentPageNr = 0;
    BookViewState _currentViewState = 0;
};

// A frame of a side, of any of the three kinds.
using StackedFrame = std::variant<const TextFrame*, const PictureFrame*, const Decoration*>;
// The frames of a side from the bottom up, by layer (a list need not be sorted); of equal layers
// texts come first, then pictures, then decorations, each list in its own order. The pointers
// point into `subPage`.
std::vector<StackedFrame> framesInStackingOrder(const SubPage& subPage);
const PageElement& elementOf(const StackedFrame& frame);

// Appends a `subpage` element for `subPage` to `node`, its frames in stacking order.
void subPageToXML(const SubPage& subPage, NodeIterator& node, const BookIdToString& idToString);
// Reads a `subpage` element. Forgiving: what cannot be read is logged and left at its default.
SubPage subPageFromXML(const NodeIterator& node, const BookStringToId& stringToId);
// Reads a double page (cover, page ...): its first left and first right `subpage`. Throws
// BookException when a side is missing.
Page pageFromXML(const NodeIterator& node, const BookStringToId& stringToId);

// Reads a ".layout" template file (root element `layout`) into `book`, which it replaces. A
// template's frames normally show no pictures; an `imageurl` goes through `stringToId` when one is
// given and gives InvalidResourceID otherwise. Never throws: false, with one log line, when the
// file cannot be read or is no layout; the book is then empty. Blocks on the file.
bool loadLayoutFile(std::string_view path, Book& book, const BookStringToId& stringToId = {});

// Vector text "x,y". Text that is not two numbers logs "The value '%*' is not a valid vector;
// please check the XML files." and gives zero. The int form rounds.
BookVec2d bookVectorFromString(std::string_view text);
BookVec2i bookIntVectorFromString(std::string_view text);
std::string bookVectorToString(const BookVec2d& v);
std::string bookVectorToString(const BookVec2i& v);

// Alignment text: the horizontal word ("Left", "Right", "Center"), a comma and the vertical word
// ("Top", "Bottom", "Center"). Reading: a missing second word means "Top"; no word or more than two
// give AlignLeft | AlignTop.
int alignmentFromString(std::string_view text);
std::string alignmentToString(int alignment);

}  // namespace qor::mediadb
