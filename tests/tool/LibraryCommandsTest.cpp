// qor library, ls, bag and stars, run as the program itself on a library made here.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "QorRun.h"
#include "base/filesystem/Path.h"

namespace qor::imageio {
namespace {

using namespace testing;
using Json = nlohmann::json;

// A small JPEG rated `stars` in its XMP.
Bytes ratedPhoto(int stars) {
    return withMetadata(makeJpeg(48, 32), [&](Exiv2::Image& image) {
        image.xmpData()["Xmp.xmp.Rating"] = stars;
        image.exifData()["Exif.Image.Make"] = "Canon";
    });
}

class QorLibrary : public ::testing::Test {
protected:
    QorLibrary() {
        std::filesystem::create_directory(folder.path() + "/card");
        a = folder.write("card/a.jpg", ratedPhoto(2));
        b = folder.write("card/b.jpg", ratedPhoto(4));
        library = folder.path() + "/Photos";
        // The recycle bin of this test: erased bags go to its own trash, not the user's.
        ::setenv("XDG_DATA_HOME", (folder.path() + "/xdg").c_str(), 1);
    }
    ~QorLibrary() override { ::unsetenv("XDG_DATA_HOME"); }

    QorRun qor(std::vector<std::string> args) {
        args.push_back("--library");
        args.push_back(library);
        return runQor(folder, args);
    }
    // The bags as `qor ls --json` gives them, by their place (folder or file) in the library.
    Json bags() {
        const QorRun run = qor({"ls", "--json"});
        EXPECT_EQ(run.status, 0) << (run.errLines.empty() ? "" : run.errLines[0]);
        Json byPlace = Json::object();
        for (const Json& bag : Json::parse(run.out)) byPlace[bag["place"].get<std::string>()] = bag;
        return byPlace;
    }
    std::vector<std::string> files(const std::string& bag) {
        const QorRun run = qor({"ls", bag, "--json"});
        EXPECT_EQ(run.status, 0);
        std::vector<std::string> out;
        for (const Json& image : Json::parse(run.out)) out.push_back(image["file"]);
        return out;
    }

    TempFolder folder;
    std::string a, b, library;
};

TEST_F(QorLibrary, ASessionOfBagsAndPicturesIsKeptOnDisk) {
    ASSERT_EQ(qor({"library", "init"}).status, 0);
    EXPECT_TRUE(filesystem::exists(library + "/library.xml"));

    const QorRun trip = qor({"bag", "create", "event", "Trip"});
    ASSERT_EQ(trip.status, 0);
    EXPECT_EQ(trip.out, library + "/Trip\n");
    EXPECT_EQ(qor({"bag", "create", "event", "Trip"}).out, library + "/Trip_1\n");
    ASSERT_EQ(qor({"bag", "create", "collection", "Best"}).status, 0);
    // Two events are named Trip: they are told apart by their folders.
    const QorRun twice = qor({"bag", "add", "Trip", a});
    EXPECT_EQ(twice.status, 1);
    ASSERT_EQ(twice.errLines.size(), 1u);
    EXPECT_NE(twice.errLines[0].find("(Trip, Trip_1)"), std::string::npos) << twice.errLines[0];

    ASSERT_EQ(qor({"bag", "rename", "Trip_1", "Later"}).status, 0);
    ASSERT_EQ(qor({"bag", "add", "Trip", a, b}).status, 0);
    EXPECT_TRUE(filesystem::exists(library + "/Trip/a.jpg"));
    EXPECT_TRUE(filesystem::exists(a));  // copied, not moved
    ASSERT_EQ(qor({"bag", "add", "Best", library + "/Trip/b.jpg"}).status, 0);

    Json all = bags();
    EXPECT_EQ(all["Trip"]["type"], "event");
    EXPECT_EQ(all["Trip"]["state"], "Regular");
    EXPECT_EQ(all["Trip"]["images"], 2);
    EXPECT_EQ(all["Later"]["name"], "Later");
    EXPECT_EQ(all["Later"]["images"], 0);
    EXPECT_EQ(all["Best.collection"]["type"], "collection");
    EXPECT_EQ(all["Best.collection"]["images"], 1);
    EXPECT_EQ(files("Trip"),
              (std::vector<std::string>{library + "/Trip/a.jpg", library + "/Trip/b.jpg"}));

    // Ratings come through the metadata cache.
    const QorRun stars = qor({"stars", "4", "--json"});
    ASSERT_EQ(stars.status, 0);
    EXPECT_EQ(Json::parse(stars.out), Json::array({library + "/Trip/b.jpg"}));

    // A picture moved into another event takes its file along; a renamed event its folder, and
    // the collection follows the picture's new path.
    ASSERT_EQ(qor({"bag", "move", "Later", library + "/Trip/a.jpg"}).status, 0);
    EXPECT_TRUE(filesystem::exists(library + "/Later/a.jpg"));
    EXPECT_FALSE(filesystem::exists(library + "/Trip/a.jpg"));
    ASSERT_EQ(qor({"bag", "rename", "Trip", "Holiday"}).status, 0);
    EXPECT_TRUE(filesystem::exists(library + "/Holiday/b.jpg"));
    EXPECT_EQ(files("Best"), std::vector<std::string>{library + "/Holiday/b.jpg"});

    // Erased: to the recycle bin, out of the library.
    ASSERT_EQ(qor({"bag", "erase", "Later"}).status, 0);
    EXPECT_FALSE(filesystem::exists(library + "/Later"));
    EXPECT_TRUE(filesystem::exists(folder.path() + "/xdg/Trash/files/Later/a.jpg"));
    all = bags();
    EXPECT_FALSE(all.contains("Later"));
    EXPECT_EQ(all["Holiday"]["images"], 1);
}

TEST_F(QorLibrary, FailuresGiveOneLineAndTheirStatus) {
    const QorRun none = qor({"ls"});
    EXPECT_EQ(none.status, 1);
    ASSERT_EQ(none.errLines.size(), 1u);
    EXPECT_NE(none.errLines[0].find("no library in"), std::string::npos);

    ASSERT_EQ(qor({"library", "init"}).status, 0);
    EXPECT_EQ(qor({"library", "init"}).status, 1);
    ASSERT_EQ(qor({"bag", "create", "collection", "Best"}).status, 0);
    const QorRun clash = qor({"bag", "create", "collection", "BEST"});
    EXPECT_EQ(clash.status, 1);
    ASSERT_EQ(clash.errLines.size(), 1u);
    EXPECT_NE(clash.errLines[0].find("qor::LibraryException::UniqueNameException"),
              std::string::npos);
    EXPECT_EQ(qor({"bag", "rm", "Nothing"}).status, 1);
    EXPECT_EQ(qor({"bag", "add", "Best", a}).status, 1);  // not a picture of the library

    // An event folder with a file that is none of its pictures is not erased.
    ASSERT_EQ(qor({"bag", "create", "event", "Trip"}).status, 0);
    folder.write("Photos/Trip/notes.txt", {'h', 'i'});
    const QorRun alien = qor({"bag", "erase", "Trip"});
    EXPECT_EQ(alien.status, 1);
    ASSERT_EQ(alien.errLines.size(), 1u);
    EXPECT_NE(alien.errLines[0].find("AlienFilesInTheLibraryBag"), std::string::npos);
    EXPECT_TRUE(filesystem::exists(library + "/Trip/notes.txt"));

    // A bag file that cannot be read leaves the bag listed as broken, and untouched.
    folder.write("Photos/Trip/.bag", {'<', 'b', 'a'});
    EXPECT_EQ(bags()["Trip"]["state"], "Broken");
    EXPECT_EQ(readFile(library + "/Trip/.bag"), (Bytes{'<', 'b', 'a'}));

    for (const std::vector<std::string>& bad : {std::vector<std::string>{"bag"},
                                                {"bag", "create", "event"},
                                                {"bag", "fly", "x"},
                                                {"stars", "6"},
                                                {"ls", "a", "b"},
                                                {"library", "open"}})
        EXPECT_EQ(qor(bad).status, 2) << bad[0];
}

}  // namespace
}  // namespace qor::imageio
