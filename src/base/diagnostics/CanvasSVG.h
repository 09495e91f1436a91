#pragma once
// CanvasSVG: a small drawing surface that writes an SVG 1.1 document. It draws rectangles, lines,
// polylines, polygons, circles, text and images (linked by a reference, or embedded as data: URIs)
// into nested groups that move, turn, scale, fade and clip what they hold. Diagnostics draw tile
// layouts with it; book previews draw pages (frames at positions with rotations, stacked in the
// order they are drawn, pictures with an offset, a size and an alpha, aligned text).
//
//     CanvasSVG canvas(200, 100);
//     canvas.rect({0, 0, 200, 100}, SvgPaint::filled(SvgColor::rgb(0xffffff)));
//     {
//         CanvasSVG::Group frame = canvas.group(SvgTransform().translate(50, 20).rotate(10, 40,
//         30),
//                                               0.8, SvgBox{0, 0, 80, 60});
//         canvas.embedImage({-10, -10, 100, 80}, pngBytes);
//     }
//     canvas.text({100, 95}, "caption <1>", SvgFont{.size = 10, .anchor = SvgAnchor::Middle});
//     canvas.save("page.svg");
//
// Coordinates are user units, one to a pixel unless a view box maps them otherwise; y points down.
// Text and attribute values go through the XML library, which escapes them; characters that XML
// 1.0 cannot hold (controls other than tab, line feed and carriage return) are left out. A shape
// with a coordinate that is not a finite number is not drawn and logs one line.
//
// Thread contract: a canvas is used by one thread at a time; distinct canvases are independent.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/xml/XmlDocument.h"
#include "math/GenVec.h"

namespace qor::diagnostics {

// An sRGB colour with an opacity, or no paint at all.
struct SvgColor {
    std::uint8_t r = 0, g = 0, b = 0;
    double alpha = 1.0;  // 0 transparent to 1 opaque
    bool none = false;   // paints nothing (fill="none")

    // 0xRRGGBB.
    static constexpr SvgColor rgb(std::uint32_t hex, double alpha = 1.0) {
        return SvgColor{std::uint8_t(hex >> 16), std::uint8_t(hex >> 8), std::uint8_t(hex), alpha,
                        false};
    }
    static constexpr SvgColor noPaint() { return SvgColor{0, 0, 0, 1.0, true}; }
};

// How a shape is filled and outlined. By default nothing is painted.
struct SvgPaint {
    SvgColor fill = SvgColor::noPaint();
    SvgColor stroke = SvgColor::noPaint();
    double strokeWidth = 1.0;
    std::vector<double> dash;  // lengths of dashes and gaps in turn; empty: a solid line

    static SvgPaint filled(SvgColor color) { return SvgPaint().withFill(color); }
    static SvgPaint outlined(SvgColor color, double width = 1.0) {
        return SvgPaint().withStroke(color, width);
    }
    SvgPaint& withFill(SvgColor color) {
        fill = color;
        return *this;
    }
    SvgPaint& withStroke(SvgColor color, double width = 1.0) {
        stroke = color;
        strokeWidth = width;
        return *this;
    }
    SvgPaint& withDash(std::vector<double> lengths) {
        dash = std::move(lengths);
        return *this;
    }
};

// Where a text's anchor point lies on its line.
enum class SvgAnchor { Start, Middle, End };

struct SvgFont {
    double size = 12.0;
    SvgAnchor anchor = SvgAnchor::Start;
    SvgColor fill = SvgColor::rgb(0x000000);
    std::string family = "sans-serif";
    bool bold = false;
    bool italic = false;
};

// A rectangle: corner and extents.
struct SvgBox {
    double x = 0, y = 0, width = 0, height = 0;
};

// How an image fills its box: stretched to it, wholly inside it (centred), or covering it (centred,
// cut at the box's edges).
enum class SvgFit { Stretch, Meet, Slice };

// A chain of transformations as SVG's transform attribute writes it. The one named first acts
// last: translate(50, 20).rotate(10) turns the content about the origin, then moves it.
class SvgTransform {
public:
    SvgTransform& translate(double x, double y);
    // Turns by `degrees` clockwise (y points down) about (cx, cy).
    SvgTransform& rotate(double degrees, double cx = 0.0, double cy = 0.0);
    SvgTransform& scale(double sx, double sy);
    SvgTransform& scale(double s) { return scale(s, s); }

    bool empty() const { return _text.empty(); }
    const std::string& text() const { return _text; }

private:
    std::string _text;
};

class CanvasSVG {
public:
    // A group opened by CanvasSVG::group; it ends when this object goes. Groups end in the reverse
    // order of their opening (as scopes do).
    class Group {
    public:
        Group(Group&& other) noexcept : _canvas(other._canvas) { other._canvas = nullptr; }
        Group& operator=(Group&&) = delete;
        ~Group();

    private:
        friend class CanvasSVG;
        explicit Group(CanvasSVG* canvas) : _canvas(canvas) {}
        CanvasSVG* _canvas;
    };

    // A canvas of width x height pixels whose view box is the same, (0, 0) at the top left. The
    // sizes must be positive; others are taken as 1 after one log line.
    CanvasSVG(double width, double height);
    ~CanvasSVG();
    CanvasSVG(const CanvasSVG&) = delete;
    CanvasSVG& operator=(const CanvasSVG&) = delete;

    // Maps the user rectangle `box` onto the canvas (centred, proportions kept).
    void setViewBox(const SvgBox& box);
    // The document's title (a <title> element): shown by viewers, read by tests.
    void setTitle(std::string_view title);

    void rect(const SvgBox& box, const SvgPaint& paint, double cornerRadius = 0.0);
    void line(math::Vec2d from, math::Vec2d to, const SvgPaint& paint);
    // An open chain of segments, and a closed one.
    void polyline(std::span<const math::Vec2d> points, const SvgPaint& paint);
    void polygon(std::span<const math::Vec2d> points, const SvgPaint& paint);
    void circle(math::Vec2d centre, double radius, const SvgPaint& paint);
    // One line of text whose baseline passes through `at`; white space is kept as given.
    void text(math::Vec2d at, std::string_view text, const SvgFont& font);
    // An image linked by `href`: a URL, or a path relative to the SVG file. The reference is
    // written as given.
    void image(const SvgBox& box, std::string_view href, SvgFit fit = SvgFit::Stretch);
    // An image embedded as a data: URI of base64 text. `bytes` are a PNG or JPEG file, told apart
    // by their signature; other bytes draw nothing and log one line (false).
    bool embedImage(const SvgBox& box, std::string_view bytes, SvgFit fit = SvgFit::Stretch);

    // Opens a group: what is drawn until the Group goes is transformed by `transform`, composed
    // with `opacity` as one layer, and, with a clip box, cut to that box in the group's own
    // (transformed) coordinates.
    [[nodiscard]] Group group(const SvgTransform& transform, double opacity = 1.0);
    [[nodiscard]] Group group(const SvgTransform& transform, double opacity, const SvgBox& clip);

    // The document as UTF-8 text, with the XML declaration.
    std::string toString() const;
    // Replaces the file at `path` crash-safe (AtomicFileWriter): a reader finds the old file or the
    // new one. False with one log line when it cannot be written. Blocks on the file.
    bool save(std::string_view path) const;

private:
    NodeIterator openGroup(const SvgTransform& transform, double opacity);
    void endGroup();
    NodeIterator append(std::string_view name);
    // False, with one log line naming `what`, when any value is not finite.
    bool finite(std::string_view what, std::initializer_list<double> values) const;
    void paintAttributes(NodeIterator& node, const SvgPaint& paint) const;
    void points(std::string_view element, std::span<const math::Vec2d> points,
                const SvgPaint& paint);

    XmlDocumentRapid _doc;
    NodeIterator _root;
    std::vector<NodeIterator> _groups;  // the open groups, innermost last
    int _clipCount = 0;                 // clip paths made so far, for their ids
};

}  // namespace qor::diagnostics
