// CanvasSVG: every drawing is rendered by rsvg-convert and checked by its pixels.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "../support/SvgRender.h"
#include "../support/TempDir.h"
#include "FileTestHelpers.h"
#include "base/Log.h"
#include "base/diagnostics/CanvasSVG.h"
#include "base/xml/XmlDocument.h"

using namespace qor;
using namespace qor::diagnostics;
using qor::test::readText;
using qor::test::RgbaPicture;
using qor::test::TempDir;

namespace {

constexpr std::uint32_t kWhite = 0xffffff, kRed = 0xff0000, kGreen = 0x00ff00, kBlue = 0x0000ff;

// Saves the canvas into `dir` and renders it.
RgbaPicture render(const CanvasSVG& canvas, const TempDir& dir, const std::string& name) {
    const std::string path = dir / name;
    EXPECT_TRUE(canvas.save(path));
    return test::renderSvgToPicture(path);
}

void whiteBackground(CanvasSVG& canvas, double w, double h) {
    canvas.rect({0, 0, w, h}, SvgPaint::filled(SvgColor::rgb(kWhite)));
}

// A width x height RGBA picture in four quadrants: red, green / blue, white.
std::vector<std::uint8_t> quadrants(int width, int height) {
    std::vector<std::uint8_t> rgba(size_t(width) * size_t(height) * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool right = x >= width / 2, bottom = y >= height / 2;
            const std::uint32_t c = bottom ? (right ? kWhite : kBlue) : (right ? kGreen : kRed);
            std::uint8_t* p = &rgba[(size_t(y) * size_t(width) + size_t(x)) * 4];
            p[0] = std::uint8_t(c >> 16), p[1] = std::uint8_t(c >> 8), p[2] = std::uint8_t(c);
            p[3] = 255;
        }
    return rgba;
}

}  // namespace

TEST(CanvasSVG, ShapesAppearWhereTheyAreDrawn) {
    TempDir dir;
    CanvasSVG canvas(120, 80);
    whiteBackground(canvas, 120, 80);
    canvas.rect({10, 10, 30, 20}, SvgPaint::filled(SvgColor::rgb(kRed)));
    canvas.circle({90, 20}, 10, SvgPaint::filled(SvgColor::rgb(kBlue)));
    canvas.line({0, 50}, {120, 50}, SvgPaint::outlined(SvgColor::rgb(kGreen), 4));
    // A dashed line: 10 drawn, 10 left out.
    canvas.line({0, 70}, {120, 70}, SvgPaint::outlined(SvgColor::rgb(kBlue), 4).withDash({10, 10}));
    const std::vector<math::Vec2d> triangle{{60, 30}, {80, 30}, {70, 45}};
    canvas.polygon(triangle, SvgPaint::filled(SvgColor::rgb(kGreen)));
    // Half-transparent red fill over white.
    canvas.rect({100, 35, 15, 10}, SvgPaint::filled(SvgColor::rgb(kRed, 0.5)));

    const RgbaPicture picture = render(canvas, dir, "shapes.svg");
    ASSERT_EQ(picture.width, 120);
    ASSERT_EQ(picture.height, 80);
    EXPECT_COLOR(picture, 25, 20, kRed, 8);
    EXPECT_COLOR(picture, 45, 20, kWhite, 8) << "right of the red rectangle";
    EXPECT_COLOR(picture, 90, 20, kBlue, 8);
    EXPECT_COLOR(picture, 90, 33, kWhite, 8) << "below the circle";
    EXPECT_COLOR(picture, 60, 50, kGreen, 8);
    EXPECT_COLOR(picture, 5, 70, kBlue, 8) << "first dash";
    EXPECT_COLOR(picture, 15, 70, kWhite, 8) << "first gap";
    EXPECT_COLOR(picture, 25, 70, kBlue, 8) << "second dash";
    EXPECT_COLOR(picture, 70, 34, kGreen, 8) << "inside the triangle";
    EXPECT_COLOR(picture, 62, 43, kWhite, 8) << "beside the triangle's tip";
    EXPECT_COLOR(picture, 107, 40, 0xff8080, 3);
}

TEST(CanvasSVG, GroupsMoveTurnScaleFadeAndClip) {
    TempDir dir;
    CanvasSVG canvas(100, 100);
    whiteBackground(canvas, 100, 100);
    {
        // A 40 x 10 bar turned by 90 degrees about its own left end, then moved to (50, 10): it
        // stands upright from (50, 10) to (40, 50).
        CanvasSVG::Group turned = canvas.group(SvgTransform().translate(50, 10).rotate(90, 0, 0));
        canvas.rect({0, 0, 40, 10}, SvgPaint::filled(SvgColor::rgb(kRed)));
    }
    {
        // Scaled by 2 and faded to half: a blue square from (60, 60) to (80, 80), pale.
        CanvasSVG::Group scaled = canvas.group(SvgTransform().scale(2), 0.5);
        canvas.rect({30, 30, 10, 10}, SvgPaint::filled(SvgColor::rgb(kBlue)));
    }
    {
        // A green square of 30 clipped to the left half of itself, in the moved coordinates.
        CanvasSVG::Group clipped =
            canvas.group(SvgTransform().translate(5, 60), 1.0, SvgBox{0, 0, 15, 30});
        canvas.rect({0, 0, 30, 30}, SvgPaint::filled(SvgColor::rgb(kGreen)));
        // Groups nest: this one is still clipped and moved.
        CanvasSVG::Group inner = canvas.group(SvgTransform().translate(0, 20));
        canvas.rect({0, 0, 30, 5}, SvgPaint::filled(SvgColor::rgb(kRed)));
    }
    // Drawn after the groups ended: in canvas coordinates again.
    canvas.rect({90, 0, 10, 10}, SvgPaint::filled(SvgColor::rgb(kBlue)));

    const RgbaPicture picture = render(canvas, dir, "groups.svg");
    ASSERT_EQ(picture.width, 100);
    EXPECT_COLOR(picture, 45, 40, kRed, 8) << "the turned bar";
    EXPECT_COLOR(picture, 70, 15, kWhite, 8) << "where the bar lies unturned";
    EXPECT_COLOR(picture, 70, 70, 0x8080ff, 3);
    EXPECT_COLOR(picture, 35, 35, kWhite, 8) << "where the square lies unscaled";
    EXPECT_COLOR(picture, 10, 70, kGreen, 8);
    EXPECT_COLOR(picture, 28, 70, kWhite, 8) << "cut off by the clip";
    EXPECT_COLOR(picture, 10, 82, kRed, 8) << "nested group, moved twice";
    EXPECT_COLOR(picture, 28, 82, kWhite, 8) << "nested group, still clipped";
    EXPECT_COLOR(picture, 95, 5, kBlue, 8);
}

TEST(CanvasSVG, ImagesEmbeddedAndLinked) {
    TempDir dir;
    const std::string pngPath = dir / "quad.png";
    ASSERT_TRUE(test::writePng(pngPath, 8, 8, quadrants(8, 8)));
    const std::string pngBytes = readText(pngPath);

    CanvasSVG canvas(100, 50);
    whiteBackground(canvas, 100, 50);
    EXPECT_TRUE(canvas.embedImage({0, 0, 40, 40}, pngBytes));
    canvas.image({50, 0, 40, 40}, "quad.png");
    {
        // A picture wider than its frame, offset inside it and faded, as a book frame draws it.
        CanvasSVG::Group frame =
            canvas.group(SvgTransform().translate(0, 40), 0.5, SvgBox{0, 0, 10, 10});
        canvas.embedImage({-10, 0, 40, 20}, pngBytes);
    }
    {
        LogCapture log;
        EXPECT_FALSE(canvas.embedImage({0, 0, 10, 10}, "GIF89a not a png"));
        EXPECT_EQ(log.count("neither PNG nor JPEG"), 1u);
    }

    const RgbaPicture picture = render(canvas, dir, "images.svg");
    ASSERT_EQ(picture.width, 100);
    ASSERT_EQ(picture.height, 50);
    // The middle of each quadrant; the edges between them may be blended by the scaling.
    for (int left : {0, 50}) {
        SCOPED_TRACE(left ? "linked" : "embedded");
        EXPECT_COLOR(picture, left + 10, 10, kRed, 8);
        EXPECT_COLOR(picture, left + 30, 10, kGreen, 8);
        EXPECT_COLOR(picture, left + 10, 30, kBlue, 8);
        EXPECT_COLOR(picture, left + 30, 30, kWhite, 8);
    }
    // The offset picture shows the right half of its red quadrant at x 0 to 10, faded to half.
    EXPECT_COLOR(picture, 5, 44, 0xff8080, 3);
    EXPECT_COLOR(picture, 15, 44, kWhite, 8) << "outside the frame's clip";
}

TEST(CanvasSVG, TextIsEscapedAndDrawn) {
    TempDir dir;
    const std::string tricky = "<&> \"quoted\" 'it's' ]]> \x01 end";
    CanvasSVG canvas(400, 40);
    whiteBackground(canvas, 400, 40);
    canvas.setTitle("title <&>");
    canvas.text(
        {200, 30}, tricky,
        SvgFont{.size = 20, .anchor = SvgAnchor::Middle, .fill = SvgColor::rgb(0), .bold = true});

    // The text reads back as it was given, less the control character XML cannot hold.
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.loadFromString(canvas.toString()));
    EXPECT_EQ(doc.root().name(), "svg");
    EXPECT_EQ(doc.root().child("title").text(), "title <&>");
    const NodeIterator text = doc.root().child("text");
    EXPECT_EQ(text.text(), "<&> \"quoted\" 'it's' ]]>  end");
    EXPECT_EQ(text.attribute("text-anchor"), "middle");

    // The renderer accepts the file and draws dark glyphs across the middle, none at the edges.
    const RgbaPicture picture = render(canvas, dir, "text.svg");
    ASSERT_EQ(picture.width, 400);
    int darkLeft = 0, darkRight = 0, darkEdge = 0;
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 400; ++x) {
            const bool dark = picture.at(x, y).r < 100;
            if (!dark) continue;
            if (x < 10 || x >= 390) ++darkEdge;
            (x < 200 ? darkLeft : darkRight)++;
        }
    EXPECT_GT(darkLeft, 20);
    EXPECT_GT(darkRight, 20);
    EXPECT_EQ(darkEdge, 0);
}

TEST(CanvasSVG, SavesWholeFilesAndRefusesBadInput) {
    TempDir dir;
    LogCapture log;
    CanvasSVG canvas(0, -5);  // taken as 1 x 1
    EXPECT_EQ(log.count("is not positive"), 1u);
    {
        log.clear();
        canvas.rect({0, 0, std::nan(""), 1}, SvgPaint::filled(SvgColor::rgb(kRed)));
        const std::vector<math::Vec2d> bad{{0, 0}, {std::numeric_limits<double>::infinity(), 0}};
        canvas.polyline(bad, SvgPaint::outlined(SvgColor::rgb(kRed)));
        EXPECT_EQ(log.count("not a number is left out"), 2u);
    }
    EXPECT_EQ(canvas.toString().find("<rect"), std::string::npos);
    EXPECT_EQ(canvas.toString().find("<polyline"), std::string::npos);

    const std::string path = dir / "out.svg";
    test::writeText(path, "old");
    ASSERT_TRUE(canvas.save(path));
    EXPECT_EQ(readText(path), canvas.toString());
    EXPECT_EQ(test::listNames(dir.path()), std::vector<std::string>{"out.svg"});
    {
        log.clear();
        EXPECT_FALSE(canvas.save(dir / "missing/out.svg"));
        EXPECT_EQ(log.entries().size(), 1u);
    }
    const RgbaPicture picture = test::renderSvgToPicture(path);
    EXPECT_EQ(picture.width, 1);
    EXPECT_EQ(picture.height, 1);
}
