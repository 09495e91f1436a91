// Imports in a process of their own (tests/mediadb_child): one whose disk fills up under a
// picture (a file size limit), and one killed (SIGKILL) at random moments many times. The library
// must load after each, every picture it lists must be whole, and no picture file in it partial.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "../support/KillChild.h"
#include "CacheTestSupport.h"
#include "ImportTestSupport.h"
#include "LibraryTestSupport.h"
#include "base/Log.h"
#include "mediadb/bags/StandardBagTypes.h"

namespace qor::mediadb::testing {
namespace {

// The library loaded anew, as the application finds it.
struct LoadedLibrary {
    explicit LoadedLibrary(const std::string& path) : library(&images, &connector, path) {
        registerStandardBagTypes(library);
        library.load();
    }
    ImageManager images;
    RecordingConnector connector;
    Library library;
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

TEST(ImportCrash, AFullDiskListsThePictureAndLeavesNoPartOfIt) {
    test::TempDir dir;
    ASSERT_TRUE(dir.ok());
    writeFile(dir / "in/a.jpg", cameraJpeg("", 1));
    writeFile(dir / "in/big.jpg", cameraJpeg("", 2) + std::string(300000, '\0'));
    writeFile(dir / "in/c.jpg", cameraJpeg("", 3));
    const pid_t child = startChild(
        {"import", dir / "lib/", dir / "in", dir / "report", "fsize=" + std::to_string(65536)});
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitChild(child), 0);
    EXPECT_EQ(lines(readFile(dir / "report")), std::vector<std::string>{dir / "in/big.jpg"});

    LogCapture log;
    LoadedLibrary loaded(dir / "lib/");
    const ResourceID trip = loaded.library.bagIdFromLocalPath(dir / "lib/Trip");
    ASSERT_TRUE(trip.isValid());
    std::set<std::string> leaves;
    for (const ResourceID& id : loaded.library.bag(trip)->images())
        leaves.insert(filesystem::leaf(loaded.library.getImageResourceName(id).localPath()));
    EXPECT_EQ(leaves, (std::set<std::string>{"a.jpg", "c.jpg"}));
    for (const std::string& file : filesBelow(dir / "lib")) {
        const std::string leaf = filesystem::leaf(file);
        EXPECT_TRUE(leaf == "a.jpg" || leaf == "c.jpg" || leaf == ".bag" || leaf == "library.xml" ||
                    leaf == Library::MovesFileName)
            << "left in the library: " << file;
    }
    EXPECT_EQ(readFile(dir / "lib/Trip/c.jpg"), readFile(dir / "in/c.jpg"));
    EXPECT_EQ(log.assertions(), 0u);
}

TEST(ImportCrash, KilledWhileImportingLeavesOnlyWholePictures) {
    test::TempDir dir;
    ASSERT_TRUE(dir.ok());
    imageio::initSupportedItemsList();
    // Pictures of three days, with raw files beside some, large enough that the copies take
    // much of an import's time.
    std::set<std::string> sources;
    for (int i = 0; i < 9; ++i) {
        const std::string name = dir / ("in/" + std::to_string(1000 + i));
        const std::string day = "2021:03:0" + std::to_string(1 + i % 3) + " 10:00:00";
        writeFile(name + ".jpg", cameraJpeg(day, i) + std::string(1 << 20, char('a' + i)));
        sources.insert(readFile(name + ".jpg"));
        if (i % 3 == 0) {
            writeFile(name + ".NEF", std::string(3 << 19, char('A' + i)));
            sources.insert(readFile(name + ".NEF"));
        }
    }
    // A file, once whole, stays so: each is read once.
    std::set<std::string> checked;
    auto whole = [&](const std::string& file) {
        return !checked.insert(file).second || sources.count(readFile(file)) != 0;
    };
    const std::string libraryPath = dir / "lib/";
    // The forked child only execs: its arguments are made before the fork.
    const std::string program = QOR_MEDIADB_CHILD, in = dir / "in", report = dir / "report";
    auto runChild = [&] {
        ::execl(program.c_str(), program.c_str(), "import", libraryPath.c_str(), in.c_str(),
                report.c_str(), static_cast<char*>(nullptr));
    };

    // One import that runs to its end tells when the copies are made: the kills aim there.
    auto pictureCount = [&] {
        size_t count = 0;
        for (const std::string& file : filesBelow(dir / "lib"))
            if (imageio::getItemType(FastString<char>(file)) != imageio::ItemTypeUnknown) ++count;
        return count;
    };
    const auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::steady_clock::now() - start)
            .count();
    };
    const pid_t first = startChild({"import", libraryPath, in, report});
    ASSERT_GT(first, 0);
    long firstCopy = 0, lastCopy = 0;
    int status = 0;
    for (size_t pictures = 0; ::waitpid(first, &status, WNOHANG) == 0;) {
        if (const size_t now = pictureCount(); now > pictures) {
            if (pictures == 0) firstCopy = elapsed();
            lastCopy = elapsed();
            pictures = now;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(lines(readFile(report)).empty());
    ASSERT_GT(lastCopy, 0);
    // The polling slowed that run down: an import that ends before its kill moves the end of
    // the window to before that moment.
    long from = firstCopy * 9 / 10, to = lastCopy;

    std::mt19937 random(std::random_device{}());
    int kills = 0;
    // 16 rounds, more on a loaded machine where imports end before their kill, up to 6 kills.
    for (int round = 0; (round < 16 || kills < 6) && round < 48 && !::testing::Test::HasFailure();
         ++round) {
        const long delay = from + static_cast<long>(random() % (to - from + 1));
        status = test::runAndKill(runChild, std::chrono::microseconds(delay));
        ASSERT_NE(status, -1);
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
            ++kills;
        } else {
            to = std::max(delay * 9 / 10, from + 1000);
        }

        LogCapture log;
        LoadedLibrary loaded(libraryPath);
        Library& library = loaded.library;
        for (const ResourceID& bagId : library.bags()) {
            SharedPtr<const Bag> bag = library.bag(bagId);
            EXPECT_EQ(library.bagStateString(bagId), "Regular") << bag->name();
            for (const ResourceID& id : bag->images()) {
                const std::string file = library.getImageResourceName(id).localPath();
                EXPECT_TRUE(whole(file)) << "round " << round << ": " << file;
            }
        }
        for (const std::string& file : filesBelow(dir / "lib")) {
            if (imageio::getItemType(FastString<char>(file)) == imageio::ItemTypeUnknown) continue;
            EXPECT_TRUE(whole(file)) << "round " << round << ": partial " << file;
        }
        EXPECT_EQ(log.assertions(), 0u) << "round " << round;
    }
    EXPECT_GE(kills, 6);

    // An import that ends takes away the copies the killed ones left half done.
    const pid_t last = startChild({"import", libraryPath, in, report});
    ASSERT_EQ(waitChild(last), 0);
    for (const std::string& file : filesBelow(dir / "lib"))
        EXPECT_NE(filesystem::leaf(file).rfind(Library::CopyTemporaryPrefix, 0), 0u) << file;
}

}  // namespace
}  // namespace qor::mediadb::testing
