#include "mediadb/books/BookRenderer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "base/Log.h"
#include "base/diagnostics/CanvasSVG.h"
#include "base/filesystem/AtomicFileWriter.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ImageCache.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

using diagnostics::CanvasSVG;
using diagnostics::SvgAnchor;
using diagnostics::SvgBox;
using diagnostics::SvgColor;
using diagnostics::SvgFit;
using diagnostics::SvgFont;
using diagnostics::SvgPaint;
using diagnostics::SvgTransform;

namespace {

constexpr std::uint32_t kEmptyFill = 0xe8e8e8;
constexpr std::uint32_t kEmptyOutline = 0x999999;
constexpr std::uint32_t kMissingCross = 0x555555;
constexpr std::uint32_t kErrorRed = 0xff0000;

// "#rgb" or "#rrggbb"; `fallback` for anything else.
SvgColor parseColor(std::string_view text, SvgColor fallback) {
    if (text.size() != 4 && text.size() != 7) return fallback;
    if (text[0] != '#') return fallback;
    std::uint32_t value = 0;
    for (char c : text.substr(1)) {
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return fallback;
        value = value << 4 | std::uint32_t(digit);
    }
    if (text.size() == 4)
        value = (value >> 8 & 0xf) * 0x110000 + (value >> 4 & 0xf) * 0x1100 + (value & 0xf) * 0x11;
    return SvgColor::rgb(value);
}

// The distance between the baselines of two lines of text, in font sizes.
constexpr double kLineSpacing = 1.2;

// The characters of UTF-8 text (its code points).
size_t characters(std::string_view text) {
    return size_t(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

// The words of each paragraph of `text` ("\n" ends one); an empty paragraph has none.
std::vector<std::vector<std::string_view>> paragraphsOf(std::string_view text) {
    std::vector<std::vector<std::string_view>> out(1);
    size_t word = std::string_view::npos;
    for (size_t i = 0; i <= text.size(); ++i) {
        const bool end = i == text.size();
        const char c = end ? '\n' : text[i];
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            if (word != std::string_view::npos) out.back().push_back(text.substr(word, i - word));
            word = std::string_view::npos;
            if (c == '\n' && !end) out.emplace_back();
        } else if (word == std::string_view::npos) {
            word = i;
        }
    }
    return out;
}

// Text set in a frame: its lines and their font size.
struct TextBlock {
    std::vector<std::string> lines;
    double size = 1.0;
};

// The paragraphs' words broken into lines no wider than `width` at font size `size`, reckoning an
// average glyph of `glyph` sizes; a word wider than a line gets a line of its own.
std::vector<std::string> wrapped(const std::vector<std::vector<std::string_view>>& paragraphs,
                                 double width, double size, double glyph) {
    const double perCharacter = glyph * size;
    std::vector<std::string> lines;
    for (const auto& words : paragraphs) {
        std::string line;
        size_t used = 0;  // characters on the line
        for (const std::string_view word : words) {
            const size_t n = characters(word);
            if (used > 0 && double(used + 1 + n) * perCharacter > width) {
                lines.push_back(std::move(line));
                line.clear();
                used = 0;
            }
            if (used > 0) {
                line += ' ';
                ++used;
            }
            line += word;
            used += n;
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

// `text` broken into lines at the largest size (at most 0.6 of the height, for a single line) at
// which the lines fit the box; at size 1 when none does (the frame then cuts what overflows).
// Without font metrics, a glyph is reckoned 0.62 of the size wide, 0.7 in bold: a sans-serif
// font's average.
TextBlock fitText(std::string_view text, double width, double height, bool bold) {
    const auto paragraphs = paragraphsOf(text);
    const double glyph = bold ? 0.7 : 0.62;
    auto fits = [&](double size, std::vector<std::string>& lines) {
        lines = wrapped(paragraphs, width, size, glyph);
        double widest = 0.0;
        for (const std::string& line : lines) widest = std::max(widest, double(characters(line)));
        const double tall = size + double(lines.size() - 1) * size * kLineSpacing;
        return widest * glyph * size <= width && tall <= height;
    };
    TextBlock block;
    double low = 1.0, high = std::max(1.0, height * 0.6);
    if (!fits(low, block.lines)) return block;
    std::vector<std::string> lines;
    if (fits(high, lines)) {
        block.lines = std::move(lines);
        low = high;
    }
    for (int i = 0; i < 24 && high - low > 0.05; ++i) {
        const double mid = (low + high) / 2.0;
        if (fits(mid, lines)) {
            low = mid;
            block.lines = std::move(lines);
        } else {
            high = mid;
        }
    }
    block.size = low;
    return block;
}

// A text frame's `textstyle`: words (separated by blanks, commas or semicolons, in any case) that
// set the font. "title" and "bold" make it bold, "italic" italic; "serif", "sans" (or
// "sans-serif") and "monospace" (or "mono") choose the family. Other words are the application's
// own style names and change nothing here.
SvgFont fontOfStyle(std::string_view style) {
    SvgFont font;
    size_t start = 0;
    while (start <= style.size()) {
        size_t end = style.find_first_of(" ,;\t", start);
        if (end == std::string_view::npos) end = style.size();
        const std::string word = text::downcase(style.substr(start, end - start));
        if (word == "title" || word == "bold")
            font.bold = true;
        else if (word == "italic")
            font.italic = true;
        else if (word == "serif")
            font.family = "serif";
        else if (word == "sans" || word == "sans-serif")
            font.family = "sans-serif";
        else if (word == "mono" || word == "monospace")
            font.family = "monospace";
        start = end + 1;
    }
    return font;
}

bool sideIsEmpty(const SubPage& side) {
    return side.pictures.empty() && side.texts.empty() && side.decorations.empty() &&
           side.bgcolor.empty() && side.bgimage.empty();
}

std::string htmlEscaped(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// Writes `bytes` to `path` crash-safe; false after one log line.
bool writeFile(const std::string& path, std::string_view bytes) {
    try {
        filesystem::AtomicFileWriter writer(path, false);
        writer.write(bytes);
        writer.commit();
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "BookRenderer: cannot write '%*': %*", path, e.what());
    }
    return false;
}

}  // namespace

struct BookRenderer::Geometry {
    double frameX = 1.0, frameY = 1.0;      // layout units to pixels, frames
    double pictureX = 1.0, pictureY = 1.0;  // layout units to pixels, a picture in its frame
};

BookRenderer::BookRenderer(imagecache::ImageCache* images, BookRenderOptions options)
    : _images(images), _options(std::move(options)) {}

BookRenderer::~BookRenderer() = default;

std::vector<BookSpread> BookRenderer::spreads(const Book& book) {
    std::vector<BookSpread> out;
    auto add = [&](BookPageKind kind, unsigned pageNr, const Page& page, std::string slug,
                   std::string title) {
        if (kind != BpkPage && sideIsEmpty(page.left_page) && sideIsEmpty(page.right_page)) return;
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "%03zu-", out.size());
        out.push_back(BookSpread{kind, pageNr, prefix + slug + ".svg", std::move(title), &page});
    };
    add(BpkDustJacket, 0, book.dustJacket(), "dust-jacket", "Dust jacket");
    add(BpkCover, 0, book.cover(), "cover", "Cover");
    add(BpkInsideFront, 0, book.insideFront(), "inside-front", "Inside front cover");
    for (unsigned i = 0; i < book.pages().size(); ++i) {
        const Page& page = book.pages()[i];
        char slug[32];
        std::snprintf(slug, sizeof slug, "page-%03u", i + 1);
        std::string title = "Double page " + std::to_string(i + 1);
        if (!page.left_page.name.empty() || !page.right_page.name.empty())
            title += " (" + page.left_page.name + " | " + page.right_page.name + ")";
        add(BpkPage, i, page, slug, std::move(title));
    }
    add(BpkInsideBack, 0, book.insideBack(), "inside-back", "Inside back cover");
    return out;
}

BookRenderer::Geometry BookRenderer::geometryOf(const Book& book) const {
    double extentX = 0.0, extentY = 0.0;
    for (const BookSpread& spread : spreads(book)) {
        for (const SubPage* side : {&spread.page->left_page, &spread.page->right_page}) {
            for (const StackedFrame& frame : framesInStackingOrder(*side)) {
                const PageElement& e = elementOf(frame);
                extentX = std::max(extentX, e.position[0] + e.size[0]);
                extentY = std::max(extentY, e.position[1] + e.size[1]);
            }
        }
    }
    Geometry g;
    const double w = _options.sideWidth, h = _options.sideHeight;
    constexpr double kSlack = 1e-6;
    if (extentX <= 1.0 + kSlack && extentY <= 1.0 + kSlack) {
        g.frameX = w;
        g.frameY = h;
        g.pictureX = w / 1000.0;
        g.pictureY = h / 1000.0;
    } else {
        const double scale =
            std::min(extentX > 0.0 ? w / extentX : 1.0, extentY > 0.0 ? h / extentY : 1.0);
        g.frameX = g.frameY = g.pictureX = g.pictureY = scale;
    }
    return g;
}

std::string BookRenderer::renderSpread(const Book& book, const BookSpread& spread) {
    // Only the pictures of one double page are held: a book of many pages renders in the memory
    // of one.
    _encoded.clear();
    const Geometry g = geometryOf(book);
    CanvasSVG canvas(2.0 * _options.sideWidth, _options.sideHeight);
    canvas.setTitle(spread.title);
    drawSide(canvas, spread.page->left_page, 0.0, g);
    drawSide(canvas, spread.page->right_page, _options.sideWidth, g);
    // The fold between the sides.
    canvas.line({_options.sideWidth, 0.0}, {_options.sideWidth, _options.sideHeight},
                SvgPaint::outlined(SvgColor::rgb(0x000000, 0.25)));
    return canvas.toString();
}

bool BookRenderer::renderBook(const Book& book, const std::string& dir,
                              const std::function<void(size_t, size_t)>& progress) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        QOR_LOG(LogError, "BookRenderer: cannot make the folder '%*': %*", dir, ec.message());
        return false;
    }
    std::string title = book.theme().empty() ? std::string("Book") : book.theme();
    if (!book.variant().empty()) title += " (" + book.variant() + ")";
    std::string html = "<!DOCTYPE html>\n<html>\n<head>\n<meta charset=\"utf-8\">\n<title>" +
                       htmlEscaped(title) +
                       "</title>\n<style>\nbody { font-family: sans-serif; background: #777; "
                       "margin: 1em; }\nfigure { margin: 0 0 1.5em 0; }\nimg { display: block; "
                       "width: 100%; max-width: " +
                       std::to_string(int(2.0 * _options.sideWidth)) +
                       "px; box-shadow: 0 2px 8px #0008; background: #fff; }\nfigcaption { color: "
                       "#fff; margin-top: 0.3em; }\n</style>\n</head>\n<body>\n<h1 "
                       "style=\"color: #fff\">" +
                       htmlEscaped(title) + "</h1>\n";
    const std::vector<BookSpread> all = spreads(book);
    for (const BookSpread& spread : all) {
        if (progress) progress(size_t(&spread - all.data()), all.size());
        if (!writeFile(filesystem::pathJoin(dir, spread.fileName), renderSpread(book, spread)))
            return false;
        html += "<figure id=\"" + htmlEscaped(spread.fileName) + "\"><img src=\"" +
                htmlEscaped(spread.fileName) + "\" alt=\"" + htmlEscaped(spread.title) +
                "\"><figcaption>" + htmlEscaped(spread.title) + "</figcaption></figure>\n";
    }
    if (progress) progress(all.size(), all.size());
    html += "</body>\n</html>\n";
    return writeFile(filesystem::pathJoin(dir, "index.html"), html);
}

void BookRenderer::drawSide(CanvasSVG& canvas, const SubPage& side, double x0, const Geometry& g) {
    const SvgBox page{x0, 0.0, _options.sideWidth, _options.sideHeight};
    canvas.rect(page, SvgPaint::filled(parseColor(side.bgcolor, SvgColor::rgb(0xffffff))));
    if (!side.bgimage.empty()) {
        if (const std::string bytes = themeFile(side.bgimage); !bytes.empty()) {
            const CanvasSVG::Group clip = canvas.group(SvgTransform(), 1.0, page);
            canvas.embedImage(page, bytes, SvgFit::Slice);
        }
    }
    for (const StackedFrame& frame : framesInStackingOrder(side)) {
        const PageElement& e = elementOf(frame);
        const double w = e.size[0] * g.frameX, h = e.size[1] * g.frameY;
        const CanvasSVG::Group placed =
            canvas.group(SvgTransform()
                             .translate(x0 + e.position[0] * g.frameX, e.position[1] * g.frameY)
                             .rotate(e.rotation, w / 2.0, h / 2.0));
        if (const auto* picture = std::get_if<const PictureFrame*>(&frame))
            drawPicture(canvas, **picture, w, h, g);
        else if (const auto* text = std::get_if<const TextFrame*>(&frame))
            drawText(canvas, **text, w, h);
        else
            drawDecoration(canvas, *std::get<const Decoration*>(frame), w, h);
        if (e.error > 0) {
            ++_counts.errors;
            const SvgColor red = SvgColor::rgb(kErrorRed);
            canvas.rect({0.0, 0.0, w, h}, SvgPaint::outlined(red, 3.0));
            const double r = std::clamp(std::min(w, h) * 0.08, 6.0, 14.0);
            canvas.circle({w - r, r}, r, SvgPaint::filled(red));
            canvas.text({w - r, r * 1.5}, "!",
                        SvgFont{.size = r * 1.5,
                                .anchor = SvgAnchor::Middle,
                                .fill = SvgColor::rgb(0xffffff),
                                .bold = true});
        }
    }
}

void BookRenderer::drawPicture(CanvasSVG& canvas, const PictureFrame& frame, double w, double h,
                               const Geometry& g) {
    const SvgBox box{0.0, 0.0, w, h};
    const CanvasSVG::Group clip = canvas.group(SvgTransform(), 1.0, box);
    if (!frame.bgcolor.empty())
        canvas.rect(box, SvgPaint::filled(parseColor(frame.bgcolor, SvgColor::rgb(0xffffff))));
    const std::string* bytes = frame.image.isValid() ? &pictureBytes(frame.image) : nullptr;
    if (!bytes || bytes->empty()) {
        canvas.rect(box, SvgPaint::filled(SvgColor::rgb(kEmptyFill))
                             .withStroke(SvgColor::rgb(kEmptyOutline), 2.0)
                             .withDash({6.0, 4.0}));
        if (!bytes) {
            ++_counts.empty;
            return;
        }
        ++_counts.missing;
        const SvgPaint cross = SvgPaint::outlined(SvgColor::rgb(kMissingCross), 3.0);
        canvas.line({0.0, 0.0}, {w, h}, cross);
        canvas.line({w, 0.0}, {0.0, h}, cross);
        return;
    }
    ++_counts.pictures;
    SvgBox picture = box;
    if (frame.pictureSize[0] > 0 && frame.pictureSize[1] > 0)
        picture = SvgBox{frame.pictureOffset[0] * g.pictureX, frame.pictureOffset[1] * g.pictureY,
                         frame.pictureSize[0] * g.pictureX, frame.pictureSize[1] * g.pictureY};
    const CanvasSVG::Group turned =
        canvas.group(SvgTransform().rotate(frame.pictureRotation, picture.x + picture.width / 2.0,
                                           picture.y + picture.height / 2.0),
                     std::clamp(frame.alpha, 0.0, 1.0));
    canvas.embedImage(picture, *bytes, SvgFit::Slice);
}

void BookRenderer::drawText(CanvasSVG& canvas, const TextFrame& frame, double w, double h) {
    const CanvasSVG::Group clip = canvas.group(SvgTransform(), 1.0, SvgBox{0.0, 0.0, w, h});
    if (!frame.bgcolor.empty())
        canvas.rect({0.0, 0.0, w, h},
                    SvgPaint::filled(parseColor(frame.bgcolor, SvgColor::rgb(0xffffff))));
    const bool placeholder = frame.text.empty();
    const std::string& text = placeholder ? frame.defaulttext : frame.text;
    if (text.empty()) return;
    SvgFont font = fontOfStyle(frame.textstyle);
    SvgColor color = parseColor(frame.textcolor, SvgColor::rgb(0x000000));
    if (placeholder) color.alpha = 0.5;
    font.fill = color;
    font.italic = font.italic || placeholder;
    const double pad = std::min(w, h) * 0.05;
    const TextBlock block = fitText(text, w - 2.0 * pad, h - 2.0 * pad, font.bold);
    font.size = block.size;
    double x = pad;
    switch (frame.alignment & AlignHorizontalMask) {
        case AlignRight:
            x = w - pad;
            font.anchor = SvgAnchor::End;
            break;
        case AlignHCenter:
            x = w / 2.0;
            font.anchor = SvgAnchor::Middle;
            break;
        default:
            break;
    }
    const double lineHeight = block.size * kLineSpacing;
    const double height = lineHeight * double(block.lines.size() - 1) + block.size;
    double top = pad;  // of the first line's em box
    switch (frame.alignment & AlignVerticalMask) {
        case AlignBottom:
            top = h - pad - height;
            break;
        case AlignVCenter:
            top = (h - height) / 2.0;
            break;
        default:
            break;
    }
    // Each baseline lies 0.8 of the size below the top of its line's em box.
    for (size_t i = 0; i < block.lines.size(); ++i)
        canvas.text({x, top + double(i) * lineHeight + block.size * 0.8}, block.lines[i], font);
}

void BookRenderer::drawDecoration(CanvasSVG& canvas, const Decoration& frame, double w, double h) {
    const double s = frame.scalefactor > 0.0 ? frame.scalefactor : 1.0;
    const SvgBox box{w / 2.0 - w * s / 2.0, h / 2.0 - h * s / 2.0, w * s, h * s};
    if (const std::string bytes = themeFile(frame.decoimage); !bytes.empty()) {
        const CanvasSVG::Group faded =
            canvas.group(SvgTransform(), std::clamp(frame.alpha, 0.0, 1.0));
        canvas.embedImage(box, bytes, SvgFit::Meet);
        return;
    }
    canvas.rect(box, SvgPaint::outlined(SvgColor::rgb(kEmptyOutline), 1.0).withDash({3.0, 3.0}));
    canvas.text({box.x + box.width / 2.0, box.y + box.height / 2.0}, frame.decoimage,
                SvgFont{.size = std::clamp(box.height * 0.15, 6.0, 12.0),
                        .anchor = SvgAnchor::Middle,
                        .fill = SvgColor::rgb(kEmptyOutline)});
}

const std::string& BookRenderer::pictureBytes(ResourceID id) {
    static const std::string kNone;
    if (_missing.count(id.id())) return kNone;
    const auto [it, inserted] = _encoded.try_emplace(id.id());
    if (!inserted) return it->second;
    const imagecache::Thumbnail thumb = _images->get(id, _options.pictureSide);
    if (thumb.placeholder || !thumb.image) {
        const std::string path = _images->resourceManager().localPath(id);
        QOR_LOG(LogWarning,
                "BookRenderer: the picture '%*' is missing or unreadable; its frame is "
                "marked",
                path);
        _counts.missingFiles.push_back(path);
        _missing.insert(id.id());
        _encoded.erase(it);
        return kNone;
    }
    it->second = imagecache::encodeThumbnail(*thumb.image);
    return it->second;
}

std::string BookRenderer::themeFile(std::string_view name) const {
    if (_options.themeDir.empty() || name.empty()) return {};
    const std::string path = filesystem::pathJoin(_options.themeDir, std::string(name));
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace qor::mediadb
