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

TEST_F(QorThumbs, ContactSheetHoldsAGridOfTheFolder) {
    const std::string sheet = folder.path() + "/sheet.jpg";
    QorRun run = runQor(folder, {"thumbs", "contact", folder.path() + "/pics", "-o", sheet,
                                 "--size", "100", "--columns", "1"});
    EXPECT_EQ(run.status, 0) << run.out;
    // One column of two cells of 100 with margins of 16.
    EXPECT_NE(run.out.find("132 x 248, 2 of 2 pictures"), std::string::npos) << run.out;
    ImagePtr image;
    loadImage(FastString<char>(sheet), {0, 0}, ImageQualityBest, &image, nullptr);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->width(), 132);
    EXPECT_EQ(image->height(), 248);
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
