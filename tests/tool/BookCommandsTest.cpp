// qor book new, show and render, run as the program itself on a library made here; the pages it
// renders are checked with rsvg-convert, their index with headless Chromium.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "../support/SvgRender.h"
#include "CodecTestSupport.h"
#include "QorRun.h"

namespace qor::imageio {
namespace {

using namespace testing;
using Json = nlohmann::json;

// One double page: the left side holds a text (layer 1), a decoration (layer 2) and a picture
// frame (layer 3) listed in another order; the right side one picture frame. Both frames fill
// their sides.
constexpr const char* kTemplate = R"(<?xml version="1.0"?>
<layout style="classic" variant="square" covertype="0" current_view="0" current_page="0">
  <page>
    <subpage type="0" name="1" bgcolor="#ffffff">
      <pictureframe layer="3" position="0,0" size="1,1"><picture imageurl=""/></pictureframe>
      <description layer="1" position="0,0" size="1,0.2" alignment="Left">Hello</description>
      <decoration layer="2" position="0.8,0.8" size="0.1,0.1" decoimage="corner.png"/>
    </subpage>
    <subpage type="1" name="2" bgcolor="#ffffff">
      <pictureframe layer="1" position="0,0" size="1,1"><picture imageurl=""/></pictureframe>
    </subpage>
  </page>
</layout>
)";

Bytes solidPng(unsigned char r, unsigned char g, unsigned char b) {
    return pngOf(*solidImage(64, 64, r, g, b), false);
}

class QorBook : public ::testing::Test {
protected:
    QorBook() {
        red = folder.write("red.png", solidPng(255, 0, 0));
        blue = folder.write("blue.png", solidPng(0, 0, 255));
        green = folder.write("green.png", solidPng(0, 255, 0));
        layout = folder.write("book.layout", Bytes(kTemplate, kTemplate + strlen(kTemplate)));
        library = folder.path() + "/Photos";
    }

    QorRun qor(std::vector<std::string> args) {
        args.push_back("--library");
        args.push_back(library);
        return runQor(folder, args);
    }
    // A library with an event Trip of red, blue and green, and the book Album made from it.
    void makeAlbum() {
        ASSERT_EQ(qor({"library", "init"}).status, 0);
        ASSERT_EQ(qor({"bag", "create", "event", "Trip"}).status, 0);
        ASSERT_EQ(qor({"bag", "add", "Trip", red, blue, green}).status, 0);
        const QorRun made = qor({"book", "new", "Album", "--layout", layout, "--from", "Trip"});
        ASSERT_EQ(made.status, 0) << (made.errLines.empty() ? "" : made.errLines[0]);
        EXPECT_NE(made.out.find("2 of 2 picture frames filled, 1 pictures left over"),
                  std::string::npos)
            << made.out;
    }
    std::vector<std::string> filesIn(const std::string& dir) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // The index as a browser shows it: the double page whole, the red side left of the blue.
    void expectIndexShowsThePage(const std::string& out) {
        const std::string shot = folder.path() + "/index.png";
        ASSERT_TRUE(qor::test::screenshotPage(out + "/index.html", shot, 1100, 700,
                                              folder.path() + "/browser"));
        const qor::test::RgbaPicture seen = qor::test::readPng(shot);
        ASSERT_EQ(seen.width, 1100);
        ASSERT_EQ(seen.height, 700);
        int reds = 0, blues = 0, redRight = 0, blueLeft = seen.width;
        for (int y = 0; y < seen.height; ++y) {
            for (int x = 0; x < seen.width; ++x) {
                if (qor::test::near(seen.at(x, y), 0xff0000)) {
                    ++reds;
                    redRight = std::max(redRight, x);
                } else if (qor::test::near(seen.at(x, y), 0x0000ff)) {
                    ++blues;
                    blueLeft = std::min(blueLeft, x);
                }
            }
        }
        // Each side is 500 x 500 at the page's width of 1000.
        EXPECT_GT(reds, 200000);
        EXPECT_GT(blues, 200000);
        EXPECT_LT(redRight, blueLeft);
    }

    TempFolder folder;
    std::string red, blue, green, layout, library;
};

TEST_F(QorBook, ShowListsTheFramesOfEachSideInStackingOrder) {
    makeAlbum();
    const QorRun show = qor({"book", "show", "Album", "--json"});
    ASSERT_EQ(show.status, 0) << (show.errLines.empty() ? "" : show.errLines[0]);
    const Json book = Json::parse(show.out);
    EXPECT_EQ(book["theme"], "classic");
    EXPECT_EQ(book["variant"], "square");
    ASSERT_EQ(book["pages"].size(), 1u);
    const Json& left = book["pages"][0]["left"]["frames"];
    ASSERT_EQ(left.size(), 3u);
    EXPECT_EQ(left[0]["kind"], "text");
    EXPECT_EQ(left[0]["text"], "Hello");
    EXPECT_EQ(left[1]["kind"], "decoration");
    EXPECT_EQ(left[2]["kind"], "picture");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(left[i]["layer"], i + 1);
    // The pictures go into the frames in the event's order; the third stays in the book.
    EXPECT_EQ(left[2]["image"], library + "/Trip/red.png");
    const Json& right = book["pages"][0]["right"]["frames"];
    ASSERT_EQ(right.size(), 1u);
    EXPECT_EQ(right[0]["image"], library + "/Trip/blue.png");
    EXPECT_EQ(book["images"], 3);
    EXPECT_EQ(book["cover"]["left"]["frames"].size(), 0u);
}

TEST_F(QorBook, ABadTemplateIsRefusedWithOneLine) {
    ASSERT_EQ(qor({"library", "init"}).status, 0);
    const std::string notXml = folder.write("broken.layout", Bytes{'<', 'l', 'a', 'y'});
    const std::string other = folder.write("other.layout", Bytes{'<', 'b', '/', '>'});
    for (const std::string& file : {notXml, other, folder.path() + "/none.layout"}) {
        const QorRun run = qor({"book", "new", "Album", "--layout", file});
        EXPECT_EQ(run.status, 1) << file;
        ASSERT_EQ(run.errLines.size(), 1u) << file;
        EXPECT_NE(run.errLines[0].find("qor: book new: cannot read the layout"), std::string::npos)
            << run.errLines[0];
    }
    EXPECT_EQ(qor({"ls"}).out, "");  // no bag was made
    EXPECT_EQ(qor({"book", "new", "Album"}).status, 2);
    EXPECT_EQ(qor({"book", "render", "Album"}).status, 2);
}

TEST_F(QorBook, RenderDrawsThePicturesAndMarksOneWhoseFileWasRemoved) {
    makeAlbum();
    const std::string out = folder.path() + "/pages";
    const QorRun render = qor({"book", "render", "Album", "-o", out});
    ASSERT_EQ(render.status, 0) << (render.errLines.empty() ? "" : render.errLines[0]);
    EXPECT_EQ(filesIn(out), (std::vector<std::string>{"000-page-001.svg", "index.html"}));
    const qor::test::RgbaPicture page = qor::test::renderSvgToPicture(out + "/000-page-001.svg");
    ASSERT_EQ(page.width, 1000);
    ASSERT_EQ(page.height, 500);
    EXPECT_COLOR(page, 250, 300, 0xff0000, 8);  // the picture covers the text and decoration
    EXPECT_COLOR(page, 750, 250, 0x0000ff, 8);
    expectIndexShowsThePage(out);

    // The blue picture's file goes; the disk cache still holds its preview from the first run.
    std::filesystem::remove(library + "/Trip/blue.png");
    const std::string again = folder.path() + "/again";
    const QorRun marked = qor({"book", "render", "Album", "-o", again});
    EXPECT_EQ(marked.status, 1);
    ASSERT_EQ(marked.errLines.size(), 1u);
    EXPECT_NE(marked.errLines[0].find(library + "/Trip/blue.png"), std::string::npos)
        << marked.errLines[0];
    const qor::test::RgbaPicture redrawn =
        qor::test::renderSvgToPicture(again + "/000-page-001.svg");
    ASSERT_EQ(redrawn.width, 1000);
    EXPECT_COLOR(redrawn, 250, 300, 0xff0000, 8);
    EXPECT_COLOR(redrawn, 750, 250, 0x555555, 40);  // the cross over the empty frame
    EXPECT_COLOR(redrawn, 750, 100, 0xe8e8e8, 8);
}

}  // namespace
}  // namespace qor::imageio
