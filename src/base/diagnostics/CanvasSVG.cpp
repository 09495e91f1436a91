#include "base/diagnostics/CanvasSVG.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "base/Log.h"
#include "text/TextUtils.h"

namespace qor::diagnostics {

namespace {

// Nine significant digits: exact for pixel positions, and 0.1 + 0.2 prints as 0.3.
std::string number(double value) {
    char buffer[32];
    const auto [end, ec] =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 9);
    return ec == std::errc() ? std::string(buffer, end) : std::string("0");
}

std::string colorText(const SvgColor& color) {
    if (color.none) return "none";
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "#%02x%02x%02x", color.r, color.g, color.b);
    return buffer;
}

double clampUnit(double value) {
    return std::isfinite(value) ? std::min(std::max(value, 0.0), 1.0) : 1.0;
}

// The text without the characters XML 1.0 cannot hold: C0 controls other than tab, line feed and
// carriage return.
std::string xmlSafe(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 && c != '\t' && c != '\n' && c != '\r') continue;
        out.push_back(c);
    }
    return out;
}

const char* fitText(SvgFit fit) {
    switch (fit) {
        case SvgFit::Meet:
            return "xMidYMid meet";
        case SvgFit::Slice:
            return "xMidYMid slice";
        case SvgFit::Stretch:
            break;
    }
    return "none";
}

// The MIME type of an embedded picture by its signature; null when it is neither PNG nor JPEG.
const char* imageMimeType(std::string_view bytes) {
    if (bytes.starts_with(std::string_view("\x89PNG\r\n\x1a\n", 8))) return "image/png";
    if (bytes.starts_with(std::string_view("\xff\xd8\xff", 3))) return "image/jpeg";
    return nullptr;
}

}  // namespace

// ---- SvgTransform ----

SvgTransform& SvgTransform::translate(double x, double y) {
    if (!_text.empty()) _text += ' ';
    _text += "translate(" + number(x) + ' ' + number(y) + ')';
    return *this;
}

SvgTransform& SvgTransform::rotate(double degrees, double cx, double cy) {
    if (!_text.empty()) _text += ' ';
    _text += "rotate(" + number(degrees);
    if (cx != 0.0 || cy != 0.0) _text += ' ' + number(cx) + ' ' + number(cy);
    _text += ')';
    return *this;
}

SvgTransform& SvgTransform::scale(double sx, double sy) {
    if (!_text.empty()) _text += ' ';
    _text += "scale(" + number(sx) + ' ' + number(sy) + ')';
    return *this;
}

// ---- CanvasSVG ----

CanvasSVG::Group::~Group() {
    if (_canvas) _canvas->endGroup();
}

CanvasSVG::CanvasSVG(double width, double height) {
    if (!(width > 0.0 && std::isfinite(width)) || !(height > 0.0 && std::isfinite(height))) {
        QOR_LOG(LogWarning, "CanvasSVG: size %* x %* is not positive; 1 x 1 is used instead", width,
                height);
        width = height = 1.0;
    }
    _root = _doc.create("svg");
    _root.appendAttribute("xmlns", "http://www.w3.org/2000/svg")
        .appendAttribute("xmlns:xlink", "http://www.w3.org/1999/xlink")
        .appendAttribute("version", "1.1")
        .appendAttribute("width", number(width))
        .appendAttribute("height", number(height))
        .appendAttribute("viewBox", "0 0 " + number(width) + ' ' + number(height));
}

CanvasSVG::~CanvasSVG() = default;

void CanvasSVG::setViewBox(const SvgBox& box) {
    if (!finite("view box", {box.x, box.y, box.width, box.height})) return;
    _root.setAttribute("viewBox", number(box.x) + ' ' + number(box.y) + ' ' + number(box.width) +
                                      ' ' + number(box.height));
}

void CanvasSVG::setTitle(std::string_view title) {
    NodeIterator node = _root.child("title");
    if (!node) node = _root.appendChild("title");
    node.setText(xmlSafe(title));
}

bool CanvasSVG::finite(std::string_view what, std::initializer_list<double> values) const {
    for (double v : values) {
        if (std::isfinite(v)) continue;
        QOR_LOG(LogWarning, "CanvasSVG: a %* with a coordinate that is not a number is left out",
                what);
        return false;
    }
    return true;
}

NodeIterator CanvasSVG::append(std::string_view name) {
    return (_groups.empty() ? _root : _groups.back()).appendChild(name);
}

void CanvasSVG::paintAttributes(NodeIterator& node, const SvgPaint& paint) const {
    node.appendAttribute("fill", colorText(paint.fill));
    if (!paint.fill.none && paint.fill.alpha < 1.0)
        node.appendAttribute("fill-opacity", number(clampUnit(paint.fill.alpha)));
    if (paint.stroke.none) return;
    node.appendAttribute("stroke", colorText(paint.stroke))
        .appendAttribute("stroke-width",
                         number(std::isfinite(paint.strokeWidth) ? paint.strokeWidth : 1.0));
    if (paint.stroke.alpha < 1.0)
        node.appendAttribute("stroke-opacity", number(clampUnit(paint.stroke.alpha)));
    std::string dash;
    for (double d : paint.dash) {
        if (!std::isfinite(d) || d < 0.0) continue;
        if (!dash.empty()) dash += ' ';
        dash += number(d);
    }
    if (!dash.empty()) node.appendAttribute("stroke-dasharray", dash);
}

void CanvasSVG::rect(const SvgBox& box, const SvgPaint& paint, double cornerRadius) {
    if (!finite("rectangle", {box.x, box.y, box.width, box.height, cornerRadius})) return;
    NodeIterator node = append("rect");
    node.appendAttribute("x", number(box.x))
        .appendAttribute("y", number(box.y))
        .appendAttribute("width", number(std::max(box.width, 0.0)))
        .appendAttribute("height", number(std::max(box.height, 0.0)));
    if (cornerRadius > 0.0)
        node.appendAttribute("rx", number(cornerRadius))
            .appendAttribute("ry", number(cornerRadius));
    paintAttributes(node, paint);
}

void CanvasSVG::line(math::Vec2d from, math::Vec2d to, const SvgPaint& paint) {
    if (!finite("line", {from.x, from.y, to.x, to.y})) return;
    NodeIterator node = append("line");
    node.appendAttribute("x1", number(from.x))
        .appendAttribute("y1", number(from.y))
        .appendAttribute("x2", number(to.x))
        .appendAttribute("y2", number(to.y));
    paintAttributes(node, paint);
}

void CanvasSVG::points(std::string_view element, std::span<const math::Vec2d> points,
                       const SvgPaint& paint) {
    std::string text;
    for (const math::Vec2d& p : points) {
        if (!finite(element, {p.x, p.y})) return;
        if (!text.empty()) text += ' ';
        text += number(p.x) + ',' + number(p.y);
    }
    NodeIterator node = append(element);
    node.appendAttribute("points", text);
    paintAttributes(node, paint);
}

void CanvasSVG::polyline(std::span<const math::Vec2d> pts, const SvgPaint& paint) {
    points("polyline", pts, paint);
}

void CanvasSVG::polygon(std::span<const math::Vec2d> pts, const SvgPaint& paint) {
    points("polygon", pts, paint);
}

void CanvasSVG::circle(math::Vec2d centre, double radius, const SvgPaint& paint) {
    if (!finite("circle", {centre.x, centre.y, radius})) return;
    NodeIterator node = append("circle");
    node.appendAttribute("cx", number(centre.x))
        .appendAttribute("cy", number(centre.y))
        .appendAttribute("r", number(std::max(radius, 0.0)));
    paintAttributes(node, paint);
}

void CanvasSVG::text(math::Vec2d at, std::string_view text, const SvgFont& font) {
    if (!finite("text", {at.x, at.y, font.size})) return;
    static constexpr const char* kAnchors[] = {"start", "middle", "end"};
    NodeIterator node = append("text");
    node.appendAttribute("x", number(at.x))
        .appendAttribute("y", number(at.y))
        .appendAttribute("font-family", font.family)
        .appendAttribute("font-size", number(font.size))
        .appendAttribute("text-anchor", kAnchors[int(font.anchor)])
        .appendAttribute("fill", colorText(font.fill))
        .appendAttribute("xml:space", "preserve");
    if (!font.fill.none && font.fill.alpha < 1.0)
        node.appendAttribute("fill-opacity", number(clampUnit(font.fill.alpha)));
    if (font.bold) node.appendAttribute("font-weight", "bold");
    if (font.italic) node.appendAttribute("font-style", "italic");
    node.setText(xmlSafe(text));
}

void CanvasSVG::image(const SvgBox& box, std::string_view href, SvgFit fit) {
    if (!finite("image", {box.x, box.y, box.width, box.height})) return;
    append("image")
        .appendAttribute("x", number(box.x))
        .appendAttribute("y", number(box.y))
        .appendAttribute("width", number(std::max(box.width, 0.0)))
        .appendAttribute("height", number(std::max(box.height, 0.0)))
        .appendAttribute("preserveAspectRatio", fitText(fit))
        .appendAttribute("xlink:href", xmlSafe(href));
}

bool CanvasSVG::embedImage(const SvgBox& box, std::string_view bytes, SvgFit fit) {
    const char* type = imageMimeType(bytes);
    if (!type) {
        QOR_LOG(LogWarning, "CanvasSVG: an embedded image of %* bytes is neither PNG nor JPEG",
                bytes.size());
        return false;
    }
    image(box, std::string("data:") + type + ";base64," + text::base64Encode(bytes), fit);
    return true;
}

NodeIterator CanvasSVG::openGroup(const SvgTransform& transform, double opacity) {
    NodeIterator node = append("g");
    if (!transform.empty()) node.appendAttribute("transform", transform.text());
    if (opacity < 1.0) node.appendAttribute("opacity", number(clampUnit(opacity)));
    _groups.push_back(node);
    return node;
}

CanvasSVG::Group CanvasSVG::group(const SvgTransform& transform, double opacity) {
    openGroup(transform, opacity);
    return Group(this);
}

CanvasSVG::Group CanvasSVG::group(const SvgTransform& transform, double opacity,
                                  const SvgBox& clip) {
    NodeIterator node = openGroup(transform, opacity);
    if (!finite("clip box", {clip.x, clip.y, clip.width, clip.height})) return Group(this);
    // The clip path lives inside the group it cuts, so that it is read in the group's own
    // coordinates (its transform included) and travels with it.
    const std::string id = "clip" + std::to_string(++_clipCount);
    NodeIterator path = node.appendChild("clipPath");
    path.appendAttribute("id", id);
    path.appendChild("rect")
        .appendAttribute("x", number(clip.x))
        .appendAttribute("y", number(clip.y))
        .appendAttribute("width", number(std::max(clip.width, 0.0)))
        .appendAttribute("height", number(std::max(clip.height, 0.0)));
    node.appendAttribute("clip-path", "url(#" + id + ")");
    return Group(this);
}

void CanvasSVG::endGroup() {
    QOR_ASSERT_TEXT(!_groups.empty(), "!_groups.empty()");
    if (!_groups.empty()) _groups.pop_back();
}

std::string CanvasSVG::toString() const { return _doc.toString(XmlIndent); }

bool CanvasSVG::save(std::string_view path) const { return _doc.save(path, XmlIndent, XmlAtomic); }

}  // namespace qor::diagnostics
