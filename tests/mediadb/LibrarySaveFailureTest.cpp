// Saves that fail: a library folder the process may not write (a child that runs as an
// unprivileged user, since root writes anywhere) and a full disk (a child with a file size
// limit). The saves log, the files on disk stay as they were, and the library in memory goes on.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "LibraryTestSupport.h"

namespace qor::mediadb::testing {
namespace {

using LibrarySaveFailure = LibraryFixture;

// Exit codes of the save child (tests/mediadb_child).
enum ChildResult {
    ChildOk = 0,
    ChildCreateSucceeded = 12,
};

std::vector<std::string> listing(const std::string& folder) {
    std::vector<std::string> names;
    for (filesystem::UrlIterator it(folder); it.valid(); it.next()) names.push_back(it.name());
    return names;
}

class SavedLibrary : public LibrarySaveFailure {
protected:
    void SetUp() override {
        LibrarySaveFailure::SetUp();
        ResourceID trip = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
        for (int i = 0; i < 20; ++i)
            library->copyImage(sourceFile("p" + std::to_string(i) + ".jpg"), trip, "", "", false);
        library->getProperty(trip, "title")->setStringValue("original");
        library->save({}, true);
        library.reset();
        index = readFile(path("library.xml"));
        bagFile = readFile(path("Trip/.bag"));
        top = listing(libraryPath());
        inside = listing(path("Trip"));
    }

    void expectUntouched() {
        EXPECT_EQ(readFile(path("library.xml")), index);
        EXPECT_EQ(readFile(path("Trip/.bag")), bagFile);
        EXPECT_EQ(listing(libraryPath()), top);  // no temporary left, no new bag
        EXPECT_EQ(listing(path("Trip")), inside);
    }

    std::string index, bagFile;
    std::vector<std::string> top, inside;
};

TEST_F(SavedLibrary, SavesIntoAFolderThatCannotBeWrittenFailAndLeaveTheFiles) {
    // The unprivileged user may read the test folder but write nothing in it.
    ASSERT_EQ(::chmod(_dir.path().c_str(), 0755), 0);
    const std::string image = path("Trip/p0.jpg");
    const int code = waitChild(startChild({"save", libraryPath(), image, "nobody"}));
    EXPECT_EQ(code, ChildOk);
    expectUntouched();
    open();
    EXPECT_EQ(imageLeaves(bagNamed("Trip")).size(), 20u);
}

TEST_F(SavedLibrary, SavesOntoAFullDiskFailAndLeaveTheFiles) {
    const std::string image = outside("src/extra.jpg");
    writeFile(image, "x");
    // A limit smaller than either file.
    const int code = waitChild(startChild({"save", libraryPath(), image, "fsize=64"}));
    // Creating a folder bag needs no file space, so it may succeed here; the rest must not.
    EXPECT_TRUE(code == ChildOk || code == ChildCreateSucceeded) << "child exit code " << code;
    EXPECT_EQ(readFile(path("library.xml")), index);
    EXPECT_EQ(readFile(path("Trip/.bag")), bagFile);
    EXPECT_EQ(listing(path("Trip")), inside);
}

}  // namespace
}  // namespace qor::mediadb::testing
