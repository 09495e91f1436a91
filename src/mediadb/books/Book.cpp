#include "mediadb/books/Book.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <optional>

#include "base/Log.h"
#include "base/xml/XmlDocument.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

// ---- The double pages ----

namespace {

// What a getter gives for a page number out of range (after its assertion).
const Page& emptyPage() {
    static const Page empty;
    return empty;
}

}  // namespace

const Page& Book::page(unsigned pageNr) const {
    QOR_ASSERT_TEXT(pageNr < _pages.size(), "pageNr < _pages.size()");
    return pageNr < _pages.size() ? _pages[pageNr] : emptyPage();
}

const Page& Book::lastPage() const {
    QOR_ASSERT_TEXT(!_pages.empty(), "!_pages.empty()");
    return _pages.empty() ? emptyPage() : _pages.back();
}

void Book::setPage(const Page& page, unsigned pageNr) {
    QOR_ASSERT_TEXT(pageNr < _pages.size(), "pageNr < _pages.size()");
    if (pageNr < _pages.size()) _pages[pageNr] = page;
}

void Book::insertPage(unsigned position, const Page& page) {
    QOR_ASSERT_TEXT(position <= _pages.size(), "position <= _pages.size()");
    if (position <= _pages.size()) _pages.insert(_pages.begin() + position, page);
}

void Book::removePage(unsigned position) {
    QOR_ASSERT_TEXT(position < _pages.size(), "position < _pages.size()");
    if (position >= _pages.size()) return;
    _pages.erase(_pages.begin() + position);
    if (_currentPageNr >= _pages.size())
        _currentPageNr = _pages.empty() ? 0 : static_cast<unsigned>(_pages.size() - 1);
}

void Book::removeAllPages() {
    _pages.clear();
    _currentPageNr = 0;
}

unsigned Book::currentPage() const {
    QOR_ASSERT_TEXT(_currentPageNr < _pages.size(), "_currentPageNr < _pages.size()");
    return _currentPageNr;
}

void Book::setCurrentPage(unsigned page) {
    QOR_ASSERT_TEXT(page < _pages.size(), "page < _pages.size()");
    if (page < _pages.size()) _currentPageNr = page;
}

// ---- Queries ----

template <class Fn>
void Book::forEachPage(Fn&& fn) const {
    fn(BpkCover, 0u, _cover);
    fn(BpkInsideFront, 0u, _insideFront);
    fn(BpkInsideBack, 0u, _insideBack);
    fn(BpkDustJacket, 0u, _dustJacket);
    for (size_t i = 0; i < _pages.size(); ++i) fn(BpkPage, static_cast<unsigned>(i), _pages[i]);
}

bool Book::imageUsed(ResourceID id) const {
    bool used = false;
    forEachPage([&](BookPageKind, unsigned, const Page& page) {
        for (const SubPage* side : {&page.left_page, &page.right_page})
            for (const PictureFrame& frame : side->pictures)
                if (frame.image == id) used = true;
    });
    return used;
}

std::vector<PictureFrame> Book::getPictures() const {
    std::vector<PictureFrame> pictures;
    forEachPage([&](BookPageKind kind, unsigned, const Page& page) {
        // An old check that can never hold (it reads the left side twice). A build with
        // assertions on logged it for every page; it stays a debug line only.
        if (kind == BpkPage &&
            !(page.left_page.type == LeftPage && page.left_page.type == RightPage))
            QOR_LOG(LogDebug, "it->left_page.type == LeftPage && it->left_page.type == RightPage");
        for (const SubPage* side : {&page.left_page, &page.right_page})
            pictures.insert(pictures.end(), side->pictures.begin(), side->pictures.end());
    });
    return pictures;
}

std::vector<ErrorListEntry> Book::getErrorList() const {
    std::vector<ErrorListEntry> errors;
    forEachPage([&](BookPageKind kind, unsigned pageNr, const Page& page) {
        auto note = [&](const PageElement& element, PageType side) {
            if (element.error != 0) errors.push_back({kind, pageNr, side, &element});
        };
        for (const SubPage* side : {&page.left_page, &page.right_page}) {
            PageType where = side == &page.left_page ? LeftPage : RightPage;
            for (const PictureFrame& frame : side->pictures) note(frame, where);
            for (const TextFrame& frame : side->texts) note(frame, where);
            for (const Decoration& frame : side->decorations) note(frame, where);
        }
    });
    return errors;
}

void Book::replaceImage(ResourceID oldId, ResourceID newId) {
    auto replaceIn = [&](Page& page) {
        for (SubPage* side : {&page.left_page, &page.right_page})
            for (PictureFrame& frame : side->pictures)
                if (frame.image.isValid() && frame.image == oldId) frame.image = newId;
    };
    for (Page* page : {&_cover, &_insideFront, &_insideBack, &_dustJacket}) replaceIn(*page);
    for (Page& page : _pages) replaceIn(page);
}

// ---- Attribute texts ----

namespace {

void logBadVector(std::string_view text) {
    QOR_LOG(LogWarning, "The value '%*' is not a valid vector; please check the XML files.", text);
}

// The two numbers of "x,y"; false (logged) when the text is not that.
bool splitVector(std::string_view text, double& x, double& y) {
    size_t comma = text.find(',');
    if (comma == std::string_view::npos || text.find(',', comma + 1) != std::string_view::npos ||
        !text::tryFrstrtod(text.substr(0, comma), x) ||
        !text::tryFrstrtod(text.substr(comma + 1), y)) {
        logBadVector(text);
        return false;
    }
    return true;
}

}  // namespace

BookVec2d bookVectorFromString(std::string_view text) {
    double x = 0.0, y = 0.0;
    if (!splitVector(text, x, y)) return {};
    return {x, y};
}

BookVec2i bookIntVectorFromString(std::string_view text) {
    double x = 0.0, y = 0.0;
    if (!splitVector(text, x, y)) return {};
    if (!std::isfinite(x) || !std::isfinite(y) || std::fabs(x) > 2e9 || std::fabs(y) > 2e9) {
        logBadVector(text);
        return {};
    }
    return {static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y))};
}

std::string bookVectorToString(const BookVec2d& v) {
    return text::dtostr(v.x) + "," + text::dtostr(v.y);
}

std::string bookVectorToString(const BookVec2i& v) {
    return std::to_string(v.x) + "," + std::to_string(v.y);
}

int alignmentFromString(std::string_view value) {
    constexpr int fallback = AlignLeft | AlignTop;
    std::vector<std::string_view> words;
    for (size_t start = 0;;) {
        size_t comma = value.find(',', start);
        words.push_back(text::trimView(value.substr(start, comma - start)));
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    if (words.size() > 2 || words[0].empty()) return fallback;
    int flags = 0;
    if (words[0] == "Left")
        flags = AlignLeft;
    else if (words[0] == "Right")
        flags = AlignRight;
    else if (words[0] == "Center")
        flags = AlignHCenter;
    std::string_view vertical = words.size() == 2 ? words[1] : "Top";
    if (vertical == "Top")
        flags |= AlignTop;
    else if (vertical == "Bottom")
        flags |= AlignBottom;
    else if (vertical == "Center")
        flags |= AlignVCenter;
    if ((flags & AlignHorizontalMask) == 0 || (flags & AlignVerticalMask) == 0) {
        QOR_LOG(LogWarning, "Unknown text alignment '%*'; the frame is aligned left and top",
                value);
        return fallback;
    }
    return flags;
}

std::string alignmentToString(int alignment) {
    // Indexed by the two bits of each direction; 0 (no word) writes as the default.
    static constexpr const char* horizontal[] = {"Left", "Left", "Right", "Center"};
    static constexpr const char* vertical[] = {"Top", "Top", "Bottom", "Center"};
    return std::string(horizontal[alignment & AlignHorizontalMask]) + "," +
           vertical[(alignment & AlignVerticalMask) >> 2];
}

// ---- Reading ----

namespace {

// The value of an attribute; nothing when it is missing or empty (empty values are skipped).
std::optional<std::string_view> value(const NodeIterator& node, std::string_view name) {
    std::string_view v = node.attribute(name);
    if (v.empty()) return std::nullopt;
    return v;
}

void logSkipped(const NodeIterator& node, std::string_view name, std::string_view v) {
    QOR_LOG(LogWarning, "Skipped the attribute '%*' of a book's '%*': '%*' cannot be read", name,
            node.name(), v);
}

void readString(const NodeIterator& node, std::string_view name, std::string& out) {
    if (auto v = value(node, name)) out = *v;
}

void readInt(const NodeIterator& node, std::string_view name, int& out) {
    auto v = value(node, name);
    if (v && !text::tryStrtoi(*v, out)) logSkipped(node, name, *v);
}

void readDouble(const NodeIterator& node, std::string_view name, double& out) {
    auto v = value(node, name);
    if (v && !text::tryFrstrtod(*v, out)) logSkipped(node, name, *v);
}

void readBool(const NodeIterator& node, std::string_view name, bool& out) {
    if (auto v = value(node, name)) out = *v == "yes" || *v == "true";
}

void readVector(const NodeIterator& node, std::string_view name, BookVec2d& out) {
    if (auto v = value(node, name)) out = bookVectorFromString(*v);
}

void readVector(const NodeIterator& node, std::string_view name, BookVec2i& out) {
    if (auto v = value(node, name)) out = bookIntVectorFromString(*v);
}

void readElement(const NodeIterator& node, PageElement& element) {
    readInt(node, "error", element.error);
    if (element.error < 0) element.error = 0;
    readInt(node, "layer", element.layer);
    readString(node, "bgcolor", element.bgcolor);
    readString(node, "framestyle", element.framestyle);
    readDouble(node, "rotation", element.rotation);
    readVector(node, "position", element.position);
    readVector(node, "size", element.size);
}

PictureFrame pictureFrameFromXML(const NodeIterator& node, const BookStringToId& stringToId) {
    PictureFrame frame;
    readElement(node, frame);
    NodeIterator picture = node.child("picture");
    readVector(picture, "size", frame.pictureSize);
    readDouble(picture, "rotation", frame.pictureRotation);
    readVector(picture, "offset", frame.pictureOffset);
    readDouble(picture, "alpha", frame.alpha);
    if (auto url = value(picture, "imageurl")) frame.image = stringToId(*url);
    return frame;
}

TextFrame textFrameFromXML(const NodeIterator& node) {
    TextFrame frame;
    readElement(node, frame);
    if (auto v = value(node, "alignment")) frame.alignment = alignmentFromString(*v);
    readString(node, "textstyle", frame.textstyle);
    readString(node, "textcolor", frame.textcolor);
    readString(node, "defaulttext", frame.defaulttext);
    frame.text = node.text();
    return frame;
}

Decoration decorationFromXML(const NodeIterator& node) {
    Decoration frame;
    readElement(node, frame);
    readString(node, "decoimage", frame.decoimage);
    readDouble(node, "alpha", frame.alpha);
    readDouble(node, "scalefactor", frame.scalefactor);
    return frame;
}

}  // namespace

SubPage subPageFromXML(const NodeIterator& node, const BookStringToId& stringToId) {
    QOR_ASSERT_TEXT(node.name() == "subpage", "node.name() == \"subpage\"");
    SubPage page;
    int type = PageTypeUnset;
    if (auto v = value(node, "type"); v && text::tryStrtoi(*v, type)) {
        page.type = static_cast<PageType>(type);
    } else {
        QOR_LOG(LogWarning, "Could not parse a page type.");
        page.type = PageTypeUnset;
    }
    const bool hasBackground = node.hasAttribute("bgcolor") || node.hasAttribute("bgimage") ||
                               node.hasAttribute("bgcolorR") || node.hasAttribute("bgimageR");
    if (!hasBackground) {
        QOR_ASSERT_TEXT(hasBackground, "a book page has a background");
        QOR_LOG(LogWarning,
                "A book page without a background was parsed. Please check .layout files.");
    }
    readString(node, "name", page.name);
    readString(node, "bgcolor", page.bgcolor);
    readString(node, "bgimage", page.bgimage);
    if (page.type == RightPage) {
        // A template gives right pages backgrounds of their own.
        readString(node, "bgimageR", page.bgimage);
        readString(node, "bgcolorR", page.bgcolor);
    }
    readDouble(node, "offset", page.offset);
    readBool(node, "flippable", page.flippable);

    for (NodeIterator child : node.children()) {
        std::string_view name = child.name();
        if (name == "pictureframe") {
            page.pictures.push_back(pictureFrameFromXML(child, stringToId));
        } else if (name == "description") {
            page.texts.push_back(textFrameFromXML(child));
        } else if (name == "decoration") {
            page.decorations.push_back(decorationFromXML(child));
        } else {
            QOR_ASSERT_MSG(name == "pictureframe", "unknown element '%*' in a book page", name);
        }
    }
    return page;
}

Page pageFromXML(const NodeIterator& node, const BookStringToId& stringToId) {
    Page page;
    bool haveLeft = false, haveRight = false;
    for (NodeIterator child : node.children("subpage")) {
        SubPage side = subPageFromXML(child, stringToId);
        if (side.type == LeftPage && !haveLeft) {
            page.left_page = std::move(side);
            haveLeft = true;
        } else if (side.type == RightPage && !haveRight) {
            page.right_page = std::move(side);
            haveRight = true;
        }
    }
    if (!haveLeft) throw BookException("no left page found. please check layout files.");
    if (!haveRight) throw BookException("no right page found. please check .layout files");
    return page;
}

void Book::fromXML(const NodeIterator& node, const BookStringToId& stringToId) {
    QOR_ASSERT_TEXT(static_cast<bool>(stringToId), "callback");
    *this = Book();
    const BookStringToId toId =
        stringToId ? stringToId : [](std::string_view) { return InvalidResourceID; };
    try {
        // A template names its theme `style`.
        readString(node, "style", _theme);
        readString(node, "theme", _theme);
        readString(node, "variant", _variant);
        if (auto v = value(node, "covertype"); v && !text::tryStrtoi(*v, _coverType))
            QOR_LOG(LogWarning, "error parsing a book: could not parse 'covertype'");
        int number = 0;
        if (auto v = value(node, "current_page")) {
            if (text::tryStrtoi(*v, number) && number >= 0)
                _currentPageNr = static_cast<unsigned>(number);
            else
                QOR_LOG(LogWarning, "error parsing a book: could not parse 'current_page'");
        }
        if (auto v = value(node, "current_view"); v && !text::tryStrtoi(*v, _currentViewState))
            QOR_LOG(LogWarning, "error parsing a book: could not parse 'current_state'");

        for (NodeIterator child : node.children()) {
            try {
                std::string_view name = child.name();
                if (name == "cover")
                    _cover = pageFromXML(child, toId);
                else if (name == "insidefront")
                    _insideFront = pageFromXML(child, toId);
                else if (name == "insideback")
                    _insideBack = pageFromXML(child, toId);
                else if (name == "dustjacket")
                    _dustJacket = pageFromXML(child, toId);
                else if (name == "page")
                    _pages.push_back(pageFromXML(child, toId));
                else
                    throw BookException("unknown element '" + std::string(name) + "'");
            } catch (const std::exception& e) {
                QOR_LOG(LogWarning, "error parsing a book: %*", e.what());
            }
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "error parsing a book component: %*", e.what());
    }
}

// ---- Writing ----

namespace {

void writeElement(NodeIterator& xml, const PageElement& element) {
    xml.appendAttribute("error", element.error)
        .appendAttribute("layer", element.layer)
        .appendAttribute("bgcolor", element.bgcolor)
        .appendAttribute("framestyle", element.framestyle)
        .appendAttribute("rotation", element.rotation)
        .appendAttribute("position", bookVectorToString(element.position))
        .appendAttribute("size", bookVectorToString(element.size));
}

void writeFrame(NodeIterator& node, const PictureFrame& frame, const BookIdToString& idToString) {
    NodeIterator xml = node.appendChild("pictureframe");
    writeElement(xml, frame);
    xml.appendChild("picture")
        .appendAttribute("size", bookVectorToString(frame.pictureSize))
        .appendAttribute("rotation", frame.pictureRotation)
        .appendAttribute("offset", bookVectorToString(frame.pictureOffset))
        .appendAttribute("alpha", frame.alpha)
        .appendAttribute("imageurl", frame.image.isValid() ? idToString(frame.image) : "");
}

void writeFrame(NodeIterator& node, const TextFrame& frame, const BookIdToString&) {
    NodeIterator xml = node.appendChild("description");
    writeElement(xml, frame);
    xml.appendAttribute("alignment", alignmentToString(frame.alignment))
        .appendAttribute("textstyle", frame.textstyle)
        .appendAttribute("textcolor", frame.textcolor)
        .appendAttribute("defaulttext", frame.defaulttext)
        .setText(frame.text);
}

void writeFrame(NodeIterator& node, const Decoration& frame, const BookIdToString&) {
    NodeIterator xml = node.appendChild("decoration");
    writeElement(xml, frame);
    xml.appendAttribute("decoimage", frame.decoimage)
        .appendAttribute("alpha", frame.alpha)
        .appendAttribute("scalefactor", frame.scalefactor);
}

}  // namespace

std::vector<StackedFrame> framesInStackingOrder(const SubPage& subPage) {
    std::vector<StackedFrame> out;
    out.reserve(subPage.texts.size() + subPage.pictures.size() + subPage.decorations.size());
    for (const TextFrame& frame : subPage.texts) out.emplace_back(&frame);
    for (const PictureFrame& frame : subPage.pictures) out.emplace_back(&frame);
    for (const Decoration& frame : subPage.decorations) out.emplace_back(&frame);
    // Stable: of equal layers, texts before pictures before decorations, each list in its order.
    std::stable_sort(out.begin(), out.end(), [](const StackedFrame& a, const StackedFrame& b) {
        return elementOf(a).layer < elementOf(b).layer;
    });
    return out;
}

const PageElement& elementOf(const StackedFrame& frame) {
    return *std::visit([](const auto* f) -> const PageElement* { return f; }, frame);
}

void subPageToXML(const SubPage& subPage, NodeIterator& node, const BookIdToString& idToString) {
    NodeIterator xml = node.appendChild("subpage");
    xml.appendAttribute("type", static_cast<int>(subPage.type))
        .appendAttribute("name", subPage.name)
        .appendAttribute("bgcolor", subPage.bgcolor)
        .appendAttribute("bgimage", subPage.bgimage)
        .appendAttribute("offset", subPage.offset)
        .appendAttribute("flippable", subPage.flippable ? "yes" : "no");
    // Document order is stacking order.
    for (const StackedFrame& frame : framesInStackingOrder(subPage))
        std::visit([&](const auto* f) { writeFrame(xml, *f, idToString); }, frame);
}

void Book::toXML(NodeIterator& node, const BookIdToString& idToString) const {
    node.appendAttribute("theme", _theme)
        .appendAttribute("variant", _variant)
        .appendAttribute("covertype", _coverType)
        .appendAttribute("current_view", _currentViewState)
        .appendAttribute("current_page", _currentPageNr);
    auto writePage = [&](const char* name, const Page& page) {
        NodeIterator xml = node.appendChild(name);
        subPageToXML(page.left_page, xml, idToString);
        subPageToXML(page.right_page, xml, idToString);
    };
    writePage("cover", _cover);
    writePage("insidefront", _insideFront);
    writePage("insideback", _insideBack);
    writePage("dustjacket", _dustJacket);
    for (const Page& page : _pages) writePage("page", page);
}

bool loadLayoutFile(std::string_view path, Book& book, const BookStringToId& stringToId) {
    book = Book();
    XmlDocumentRapid doc;
    if (!doc.load(path)) return false;
    NodeIterator root = doc.root();
    if (root.name() != "layout") {
        QOR_LOG(LogWarning, "The file '%*' is no book layout: its root is '%*', not 'layout'", path,
                root.name());
        return false;
    }
    const BookStringToId noPictures = [](std::string_view) { return InvalidResourceID; };
    book.fromXML(root, stringToId ? stringToId : noPictures);
    return true;
}

}  // namespace qor::mediadb
