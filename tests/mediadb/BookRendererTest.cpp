// Book previews: pages drawn by BookRenderer from a real thumbnail chain over PNG files, checked
// by rendering each SVG with rsvg-convert and reading pixels where the frames are.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../support/SvgRender.h"
#include "../support/TempDir.h"
#include "CodecTestSupport.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ImageCacheSource.h"
#include "mediadb/books/Book.h"
#include "mediadb/books/BookRenderer.h"

namespace qor::mediadb {
namespace {

using qor::test::RgbaPicture;

constexpr std::uint32_t kRed = 0xff0000, kGreen = 0x00ff00, kBlue = 0x0000ff;
constexpr std::uint32_t kPaper = 0xffffff;

// A book of one double page drawn on two 200 x 100 sides from solid PNG files.
class BookRendererTest : public ::testing::Test {
protected:
    BookRendererTest() {
        imageio::initSupportedItemsList();
        options.sideWidth = 200;
        options.sideHeight = 100;
        options.pictureSide = 64;
        page.left_page.bgcolor = "#ffffff";
        page.right_page.bgcolor = "#ffffff";
    }

    // A picture file of one colour, known to the chain.
    ResourceID solid(const std::string& name, std::uint32_t rgb) {
        const std::string path = dir / (name + ".png");
        const auto bytes = imageio::testing::pngOf(
            *imageio::testing::solidImage(40, 40, rgb >> 16 & 0xff, rgb >> 8 & 0xff, rgb & 0xff),
            false);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        return manager.add(manager.nameFromLocalPath(path), ResourceManager::AddOrFind);
    }
    // A frame in fractions of a side.
    static PictureFrame frame(ResourceID image, double x, double y, double w, double h,
                              int layer = 1) {
        PictureFrame f;
        f.image = image;
        f.position = BookVec2d{x, y};
        f.size = BookVec2d{w, h};
        f.layer = layer;
        return f;
    }
    // The page rendered by rsvg-convert.
    RgbaPicture render() {
        Book book;
        book.appendPage(page);
        BookRenderer renderer(&source, options);
        const std::string svg = dir / "page.svg";
        std::ofstream(svg) << renderer.renderSpread(book, BookRenderer::spreads(book).at(0));
        counts = renderer.counts();
        RgbaPicture picture = qor::test::renderSvgToPicture(svg);
        EXPECT_EQ(picture.width, 400);
        EXPECT_EQ(picture.height, 100);
        return picture;
    }

    qor::test::TempDir dir;
    ResourceManager manager;
    imagecache::ImageCacheSource source{&manager};
    BookRenderOptions options;
    Page page;
    BookRenderCounts counts;
};

TEST_F(BookRendererTest, PicturesLandWhereTheirFramesAreTurnedAndFaded) {
    // Left: a red frame in the top left quarter. Right: a blue bar 0.6 wide, 0.1 high, centred,
    // turned by 90 degrees to stand upright; a green frame at half alpha.
    page.left_page.pictures.push_back(frame(solid("red", kRed), 0.0, 0.0, 0.5, 0.5));
    PictureFrame bar = frame(solid("blue", kBlue), 0.2, 0.45, 0.6, 0.1);
    bar.rotation = 90;
    page.right_page.pictures.push_back(bar);
    PictureFrame faded = frame(solid("green", kGreen), 0.0, 0.8, 0.1, 0.2);
    faded.alpha = 0.5;
    page.right_page.pictures.push_back(faded);

    const RgbaPicture p = render();
    ASSERT_GT(p.width, 0);
    EXPECT_COLOR(p, 50, 25, kRed, 8);
    EXPECT_COLOR(p, 150, 75, kPaper, 8);  // outside the red frame
    // The bar's centre is (300, 50); upright it covers x 295..305 and y 10..90 in pixels.
    EXPECT_COLOR(p, 300, 50, kBlue, 8);
    EXPECT_COLOR(p, 300, 15, kBlue, 8);
    EXPECT_COLOR(p, 300, 85, kBlue, 8);
    EXPECT_COLOR(p, 250, 50, kPaper, 8);  // where the bar would lie unturned
    EXPECT_COLOR(p, 345, 50, kPaper, 8);
    // Half green over white.
    EXPECT_COLOR(p, 210, 90, 0x80ff80, 12);
    EXPECT_EQ(counts.pictures, 3u);
}

TEST_F(BookRendererTest, UpperLayersCoverLowerOnesWhateverTheListOrder) {
    // The green frame is listed first but lies above the red one; a text frame between them.
    page.left_page.pictures.push_back(frame(solid("green", kGreen), 0.25, 0.25, 0.5, 0.5, 3));
    page.left_page.pictures.push_back(frame(solid("red", kRed), 0.0, 0.0, 0.5, 0.5, 1));
    TextFrame text;
    text.layer = 2;
    text.position = BookVec2d{0.0, 0.0};
    text.size = BookVec2d{1.0, 1.0};
    text.bgcolor = "#0000ff";
    page.left_page.texts.push_back(text);

    const std::vector<StackedFrame> order = framesInStackingOrder(page.left_page);
    ASSERT_EQ(order.size(), 3u);
    EXPECT_EQ(elementOf(order[0]).layer, 1);
    EXPECT_EQ(elementOf(order[1]).layer, 2);
    EXPECT_EQ(elementOf(order[2]).layer, 3);

    const RgbaPicture p = render();
    ASSERT_GT(p.width, 0);
    EXPECT_COLOR(p, 10, 10, kBlue, 8);    // the text frame covers the red one
    EXPECT_COLOR(p, 100, 50, kGreen, 8);  // the green one covers both
    EXPECT_COLOR(p, 190, 90, kBlue, 8);
}

TEST_F(BookRendererTest, FaultyEmptyAndMissingFramesAreMarked) {
    // Left: a red picture marked faulty. Right: an empty frame and a frame whose file is gone.
    PictureFrame faulty = frame(solid("red", kRed), 0.1, 0.2, 0.8, 0.6);
    faulty.error = 2;
    page.left_page.pictures.push_back(faulty);
    page.left_page.pictures.push_back(frame(solid("blue", kBlue), 0.0, 0.0, 0.05, 0.1));
    page.right_page.pictures.push_back(frame(InvalidResourceID, 0.0, 0.0, 0.4, 0.8));
    const ResourceID gone = solid("gone", kGreen);
    page.right_page.pictures.push_back(frame(gone, 0.5, 0.0, 0.5, 1.0));
    std::filesystem::remove(manager.localPath(gone));

    const RgbaPicture p = render();
    ASSERT_GT(p.width, 0);
    EXPECT_COLOR(p, 60, 50, kRed, 8);   // the picture itself
    EXPECT_COLOR(p, 20, 50, kRed, 8);   // the red outline on the frame's left edge, over paper
    EXPECT_COLOR(p, 100, 21, kRed, 8);  // the outline's top edge
    // The sign in the top right corner: a red disc with a white "!".
    const RgbaPicture::Pixel sign = p.at(176, 25);
    EXPECT_EQ(sign.r, 255) << sign;
    // The empty frame is light grey, the missing picture's frame grey with a dark cross.
    EXPECT_COLOR(p, 240, 40, 0xe8e8e8, 8);
    EXPECT_COLOR(p, 350, 50, 0x555555, 40);  // the cross's centre
    EXPECT_COLOR(p, 350, 20, 0xe8e8e8, 8);   // beside the cross
    EXPECT_EQ(counts.pictures, 2u);
    EXPECT_EQ(counts.empty, 1u);
    EXPECT_EQ(counts.missing, 1u);
    EXPECT_EQ(counts.errors, 1u);
    EXPECT_EQ(counts.missingFiles, std::vector<std::string>{manager.localPath(gone)});
}

// How many dark pixels lie in the columns [x0, x1) and rows [y0, y1) of the picture.
int darkPixels(const RgbaPicture& p, int x0, int x1, int y0 = 0, int y1 = -1) {
    int n = 0;
    for (int y = y0; y < (y1 < 0 ? p.height : y1); ++y)
        for (int x = x0; x < x1; ++x)
            if (p.at(x, y).r < 100) ++n;
    return n;
}

// Black text filling a side, aligned by `alignment` ("Left,Top").
TextFrame blackText(const std::string& text, const std::string& alignment) {
    TextFrame frame;
    frame.text = text;
    frame.textcolor = "#000";
    frame.position = BookVec2d{0.0, 0.0};
    frame.size = BookVec2d{1.0, 1.0};
    frame.alignment = alignmentFromString(alignment);
    return frame;
}

TEST_F(BookRendererTest, TextFollowsItsAlignment) {
    page.left_page.texts.push_back(blackText("ab", "Left,Top"));
    page.right_page.texts.push_back(blackText("ab", "Right,Bottom"));

    const RgbaPicture p = render();
    ASSERT_GT(p.width, 0);
    EXPECT_GT(darkPixels(p, 0, 100), 50);
    EXPECT_EQ(darkPixels(p, 100, 199), 0);
    EXPECT_EQ(darkPixels(p, 201, 300), 0);
    EXPECT_GT(darkPixels(p, 300, 400), 50);
}

// Four words fill the 200 x 100 side larger on two lines than on one; a line end in the text
// breaks it there, so one short word stands in each half of the side.
TEST_F(BookRendererTest, TextBreaksIntoLinesThatFitItsFrame) {
    page.left_page.texts.push_back(blackText("aaaa bbbb cccc dddd", "Left,Top"));
    TextFrame broken = blackText("ab\ncd", "Left,Top");
    broken.textstyle = "serif, italic";
    page.right_page.texts.push_back(broken);

    const RgbaPicture p = render();
    ASSERT_GT(p.width, 0);
    EXPECT_GT(darkPixels(p, 0, 200, 0, 45), 200);
    EXPECT_GT(darkPixels(p, 0, 200, 55, 100), 200);
    EXPECT_EQ(darkPixels(p, 190, 200), 0);  // nothing overflows the side's padding
    EXPECT_GT(darkPixels(p, 200, 300, 0, 48), 100);
    EXPECT_GT(darkPixels(p, 200, 300, 52, 100), 100);
    EXPECT_EQ(darkPixels(p, 330, 400), 0);  // two letters a line, not four
}

TEST_F(BookRendererTest, ABookIsWrittenInBookOrderWithAnIndex) {
    Book book;
    Page cover;
    const ResourceID red = solid("red", kRed), gone = solid("gone", kGreen);
    std::filesystem::remove(dir / "gone.png");
    cover.right_page.pictures.push_back(frame(red, 0.0, 0.0, 1.0, 1.0));
    book.setCover(cover);
    book.appendPage(page);
    page.left_page.name = "1";
    page.right_page.name = "2";
    page.left_page.pictures.push_back(frame(gone, 0.0, 0.0, 1.0, 1.0));
    book.appendPage(page);
    // The cover's picture again, and the missing one again, on the last page.
    page.right_page.pictures.push_back(frame(red, 0.0, 0.0, 1.0, 1.0));
    book.appendPage(page);

    BookRenderer renderer(&source, options);
    const std::string out = dir / "out";
    ASSERT_TRUE(renderer.renderBook(book, out));
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(out))
        files.push_back(entry.path().filename().string());
    std::sort(files.begin(), files.end());
    // The dust jacket and the inside covers are unset and left out.
    const std::vector<std::string> expected = {
        "000-cover.svg", "001-page-001.svg", "002-page-002.svg", "003-page-003.svg", "index.html"};
    EXPECT_EQ(files, expected);
    std::ifstream in(out + "/index.html");
    const std::string html{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    size_t at = 0;
    for (size_t i = 0; i + 1 < expected.size(); ++i) {
        at = html.find("<img src=\"" + expected[i] + "\"", at);
        EXPECT_NE(at, std::string::npos) << expected[i] << " missing or out of order";
    }
    EXPECT_NE(html.find("Double page 2 (1 | 2)"), std::string::npos);

    const RgbaPicture coverPicture = qor::test::renderSvgToPicture(out + "/000-cover.svg");
    ASSERT_GT(coverPicture.width, 0);
    EXPECT_COLOR(coverPicture, 300, 50, kRed, 8);
    const RgbaPicture last = qor::test::renderSvgToPicture(out + "/003-page-003.svg");
    ASSERT_GT(last.width, 0);
    EXPECT_COLOR(last, 300, 50, kRed, 8);
    // The missing picture is marked on both pages and listed once.
    EXPECT_EQ(renderer.counts().pictures, 2u);
    EXPECT_EQ(renderer.counts().missing, 2u);
    EXPECT_EQ(renderer.counts().missingFiles, std::vector<std::string>{manager.localPath(gone)});
}

TEST_F(BookRendererTest, FramesInPixelsAreScaledOntoASide) {
    // The book's extent, 400 x 200 layout pixels, is scaled by a half onto a 200 x 100 side: this
    // frame holds the side's bottom right quarter.
    page.right_page.pictures.push_back(frame(solid("blue", kBlue), 200.0, 100.0, 200.0, 100.0));
    const RgbaPicture p = render();
    ASSERT_GT(p.width, 0);
    EXPECT_COLOR(p, 350, 75, kBlue, 8);
    EXPECT_COLOR(p, 250, 25, kPaper, 8);
    EXPECT_COLOR(p, 295, 75, kPaper, 8);
}

}  // namespace
}  // namespace qor::mediadb
