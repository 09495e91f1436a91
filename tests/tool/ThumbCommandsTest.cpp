// qor thumbs build and contact, and qor thumb --cache, run as the program itself on pictures made
// here.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "QorRun.h"
#include "base/filesystem/Path.h"

namespace qor::imageio {
namespace {

using namespace testing;

class QorThumbs : public ::testing::Test {
protected:
    QorThumbs() {
        std::filesystem::create_directories(folder.path() + "/pics/inner");
        folder.write("pics/a.jpg", makeJpeg(640, 480));
        folder.write("pics/inner/b.jpg", makeJpeg(200, 300));
        folder.write("pics/notes.txt", {'h', 'i'});
        cache = folder.path() + "/cache";
    }
    TempFolder folder;
    std::string cache;
};

// Built twice: the second run makes nothing; a broken picture is one line each time, counted as
// failed, never kept, and the exit status says a file failed.
TEST_F(QorThumbs, BuildTwiceAnswersTheSecondTimeFromTheCache) {
    QorRun first = runQor(folder, {"thumbs", "build", folder.path() + "/pics", "--cache", cache});
    EXPECT_EQ(first.status, 0) << first.out;
    EXPECT_NE(first.out.find(": 2 made, 0 from cache, 0 failed"), std::string::npos) << first.out;
    EXPECT_TRUE(first.errLines.empty());

    folder.write("pics/broken.jpg", {0xFF, 0xD8, 0xFF, 0xE0, 0x00});
    QorRun second = runQor(folder, {"thumbs", "build", folder.path() + "/pics", "--cache", cache});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.out.find("3 files in"), std::string::npos) << second.out;
    EXPECT_NE(second.out.find(": 0 made, 2 from cache, 1 failed"), std::string::npos) << second.out;
    ASSERT_EQ(second.errLines.size(), 1u);
    EXPECT_NE(second.errLines[0].find("broken.jpg"), std::string::npos);

    // The single-file form answers from the same cache.
    QorRun one = runQor(folder, {"thumb", folder.path() + "/pics/a.jpg", "--cache", cache, "-o",
                                 folder.path() + "/a-thumb.jpg"});
    EXPECT_EQ(one.status, 0);
    EXPECT_NE(one.out.find("256 x 192 (from the cache)"), std::string::npos) << one.out;
}

// The sheet against the layout it must have: cells of 100 with margins of 16 on grey 232, each
// thumbnail centred in its cell and upright. The pictures are solid halves, so every pixel of the
// sheet has a known colour: a 200 x 100 picture stored with its left half red and its right half
// green under EXIF orientation 6 (turn right to view) must show red on top, green below; a 60 x
// 120 blue one stays smaller than its cell. Taken twice through a disk cache, the second time from
// it, the sheet is the same.
TEST_F(QorThumbs, ContactSheetShowsEachPictureUprightInItsCell) {
    const std::string pics = folder.path() + "/sheet-pics";
    std::filesystem::create_directories(pics);
    const auto halves = [](int y, unsigned char* row, int width) {
        for (int x = 0; x < width; ++x) {
            unsigned char* p = row + 3 * x;
            p[0] = x < width / 2 ? 255 : 0, p[1] = x < width / 2 ? 0 : 255, p[2] = 0;
        }
        (void)y;
    };
    folder.write("sheet-pics/a-turned.jpg",
                 withMetadata(encodeJpeg(200, 100, 3, JCS_RGB, 95,
                                         [&](int y, unsigned char* row) { halves(y, row, 200); }),
                              [](Exiv2::Image& image) {
                                  image.exifData()["Exif.Image.Orientation"] = uint16_t(6);
                              }));
    folder.write("sheet-pics/b-blue.jpg", encodeJpeg(60, 120, 3, JCS_RGB, 95, [](int, unsigned char* row) {
                     for (int x = 0; x < 60; ++x) row[3 * x] = 0, row[3 * x + 1] = 0, row[3 * x + 2] = 255;
                 }));
    struct Expect {
        int x, y;
        int r, g, b;
    };
    // Cell 1 spans x 16..115, cell 2 x 132..231, both y 16..115. The turned picture is 50 x 100
    // upright, at x 41..90; the blue one 60 x 120 fits as 50 x 100, at x 157..206.
    const std::vector<Expect> expected = {
        {66, 30, 255, 0, 0},     {66, 100, 0, 255, 0},  // red on top, green below
        {30, 60, 232, 232, 232}, {100, 60, 232, 232, 232},  // ground left and right of it
        {181, 60, 0, 0, 255},    {145, 60, 232, 232, 232},  // blue, and the ground beside it
        {8, 8, 232, 232, 232},   {123, 60, 232, 232, 232},  // margins
    };
    const std::string cache = folder.path() + "/sheet-cache";
    for (int round = 0; round < 2; ++round) {
        const std::string sheet = folder.path() + "/sheet" + std::to_string(round) + ".jpg";
        QorRun run = runQor(folder, {"thumbs", "contact", pics, "-o", sheet, "--size", "100",
                                     "--columns", "2", "--cache", cache});
        ASSERT_EQ(run.status, 0) << run.out << (run.errLines.empty() ? "" : run.errLines[0]);
        EXPECT_NE(run.out.find("248 x 132, 2 of 2 pictures"), std::string::npos) << run.out;
        ImagePtr image;
        loadImage(FastString<char>(sheet), {0, 0}, ImageQualityBest, &image, nullptr);
        ASSERT_NE(image, nullptr);
        ASSERT_EQ(image->width(), 248);
        ASSERT_EQ(image->height(), 132);
        for (const Expect& e : expected) {
            const unsigned char* p = image->row(e.y) + 4 * e.x;
            EXPECT_NEAR(p[0], e.r, 24) << "round " << round << " at " << e.x << "," << e.y;
            EXPECT_NEAR(p[1], e.g, 24) << "round " << round << " at " << e.x << "," << e.y;
            EXPECT_NEAR(p[2], e.b, 24) << "round " << round << " at " << e.x << "," << e.y;
        }
    }
    EXPECT_TRUE(std::filesystem::exists(cache + "/thumbnails"));
}

TEST_F(QorThumbs, BadArgumentsExitWithTwo) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"thumbs"},
             {"thumbs", "frob", "pics"},
             {"thumbs", "build", "pics"},
             {"thumbs", "build", "--cache", "c"},
             {"thumbs", "build", "pics", "--cache", "c", "--size", "0"},
             {"thumbs", "contact", "pics"},
         }) {
        QorRun run = runQor(folder, args);
        EXPECT_EQ(run.status, 2) << args.size();
        EXPECT_EQ(run.errLines.size(), 1u);
    }
}

}  // namespace
}  // namespace qor::imageio
