// Library: load, save, bag creation and moves, image operations, bad input.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "LibraryTestSupport.h"
#include "base/Log.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/library/LibraryExceptions.h"

namespace qor::mediadb::testing {
namespace {

using LibraryLoad = LibraryFixture;
using LibraryBags = LibraryFixture;
using LibraryImages = LibraryFixture;

TEST_F(LibraryLoad, FirstStartWithoutIndexIsLoadedAndEmpty) {
    LogCapture log;
    open();
    EXPECT_TRUE(library->isLoaded());
    EXPECT_TRUE(library->bags().empty());
    EXPECT_TRUE(log.contains("Cannot open library xml file"));
}

TEST_F(LibraryLoad, BrokenIndexGivesAnEmptyLoadedLibrary) {
    library.reset();
    for (const std::string& text :
         {std::string("<library><bag"), std::string(""), std::string("<other/>")}) {
        writeFile(path("library.xml"), text);
        LogCapture log;
        open();
        EXPECT_TRUE(library->isLoaded()) << text;
        EXPECT_TRUE(library->bags().empty()) << text;
        EXPECT_TRUE(log.contains("Cannot open library xml file") ||
                    log.contains("Library xml file seems to be broken"))
            << text;
        library.reset();
    }
    open();
}

TEST_F(LibraryLoad, BagsImagesSettingsAndTagsSurviveAReload) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), " Summer ");
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "Best");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), event, "", "", false);
    ResourceID b = library->copyImage(sourceFile("b.jpg"), event, "day2", "", false);
    library->getProperty(event, "title")->setStringValue("Sea & \"sun\"");
    library->setItemTag(a, "k", "v");
    if (auto copy = library->modifyLockBag(list)) {
        copy->insertImage(b);
        copy->insertImage(a);
    }
    EXPECT_EQ(library->associativeBags(a).count(list), 1u);
    EXPECT_EQ(library->containerId(b), event);
    reopen();

    ResourceID event2 = bagNamed("Summer");
    ResourceID list2 = bagNamed("Best");
    ASSERT_TRUE(event2.isValid());
    ASSERT_TRUE(list2.isValid());
    EXPECT_EQ(library->bagStateString(event2), "Regular");
    EXPECT_EQ(imageLeaves(event2), (std::vector<std::string>{"a.jpg", "b.jpg"}));
    EXPECT_EQ(library->getProperty(event2, "title")->stringValue(), "Sea & \"sun\"");
    ResourceID b2 = library->getImageId(path("Summer/day2/b.jpg"));
    ResourceID a2 = library->getImageId(path("Summer/a.jpg"));
    EXPECT_EQ(library->containerId(b2), event2);
    // The list keeps its order, and its images know it.
    auto listBag = library->bag(list2);
    ASSERT_TRUE(listBag);
    EXPECT_TRUE(listBag->containsImage(a2));
    EXPECT_TRUE(listBag->containsImage(b2));
    EXPECT_EQ(library->associativeBags(a2).count(list2), 1u);
    EXPECT_EQ(library->getBagsForImage(b2), std::vector<ResourceID>{list2});
}

TEST_F(LibraryLoad, UnregisteredSettingsKeysAreDroppedOnLoadAndGoneAfterSave) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    library->getProperty(event, "title")->setStringValue("kept");
    library->save({}, true);
    library.reset();
    // Add a key that nobody registers.
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.load(path("library.xml")));
    NodeIterator metadata = doc.root().child("bag").child("metadata");
    metadata.appendAttribute("unknown_key", "x");
    ASSERT_TRUE(doc.save(path("library.xml")));

    open();
    ResourceID id = bagNamed("Trip");
    EXPECT_EQ(library->propertyMap(id)->count("unknown_key"), 0u);
    EXPECT_EQ(library->getProperty(id, "title")->stringValue(), "kept");
    library->addUnsaved(id);
    library->save({}, true);
    EXPECT_EQ(readFile(path("library.xml")).find("unknown_key"), std::string::npos);
    EXPECT_NE(readFile(path("library.xml")).find("kept"), std::string::npos);
}

TEST_F(LibraryLoad, UnknownBagTypeAndBrokenEntriesAreSkipped) {
    library.reset();
    writeFile(path("library.xml"),
              "<library><bag name='X' type='nosuch' persistent_str='X'><metadata/></bag>"
              "<note/><bag name='T' type='testlist' persistent_str='T.testlist'/>"
              "<bag name='E' type='testfolder' persistent_str=''/></library>");
    writeFile(path("T.testlist"),
              "<bag name='T' type='testlist' persistent_str='T.testlist'>"
              "<metadata/><settings/><group type='root'/></bag>");
    LogCapture log;
    open();
    EXPECT_TRUE(log.contains("loadBag: Unknown bag type 'nosuch'"));
    EXPECT_TRUE(log.contains("Error in library xml file"));
    ASSERT_EQ(library->bags().size(), 1u);
    EXPECT_TRUE(bagNamed("T").isValid());
}

// A .bag that cannot be read leaves its bag Broken; the file is never overwritten; the bag takes
// no images; once the file is good again the bag repairs itself.
TEST_F(LibraryLoad, BrokenBagFileStaysBrokenUntouchedAndRepairsItself) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    library->copyImage(sourceFile("a.jpg"), event, "", "", false);
    library->save({}, true);
    const std::string good = readFile(path("Trip/.bag"));
    library.reset();
    writeFile(path("Trip/.bag"), "this is not xml <<<");

    {
        LogCapture log;
        open();
    }
    ResourceID id = bagNamed("Trip");
    ASSERT_TRUE(id.isValid());
    EXPECT_EQ(library->bagStateString(id), "Broken");
    library->addUnsaved(id);
    library->saveBag(id);
    library->save({}, true);
    EXPECT_EQ(readFile(path("Trip/.bag")), "this is not xml <<<");
    EXPECT_THROW(
        {
            try {
                library->moveImage(library->addImage(sourceFile("b.jpg")), id, "", "", false);
            } catch (const LibraryException& e) {
                EXPECT_STREQ(e.what(), "Move failed: container is broken");
                throw;
            }
        },
        LibraryException);
    EXPECT_FALSE(library->copyImage(sourceFile("c.jpg"), id, "", "", false).isValid());

    writeFile(path("Trip/.bag"), good);
    EXPECT_EQ(library->checkBagState(id), Library::Regular);
    EXPECT_EQ(imageLeaves(id), std::vector<std::string>{"a.jpg"});
}

TEST_F(LibraryLoad, BagFileWithUnknownElementsAndMissingImagesKeepsTheRest) {
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    library->save({}, true);
    library.reset();
    writeFile(path("L.testlist"),
              "<bag name='L' type='testlist' persistent_str='L.testlist'><metadata/><settings/>"
              "<group type='root' tag:x='1'><item name='" +
                  outside("gone.jpg") + "'/><weird/><group type='g' tag:k='v'><item name='" +
                  outside("b.jpg") + "'/></group></group></bag>");
    LogCapture log;
    open();
    ResourceID id = bagNamed("L");
    EXPECT_TRUE(log.contains("Invalid node 'weird' in image node"));
    EXPECT_EQ(library->bagStateString(id), "Regular");
    EXPECT_EQ(imageLeaves(id), (std::vector<std::string>{"b.jpg", "gone.jpg"}));
    (void)list;
    // Tags of groups and the root survive a save.
    library->addUnsaved(id);
    library->save({}, true);
    const std::string saved = readFile(path("L.testlist"));
    EXPECT_NE(saved.find("tag:x=\"1\""), std::string::npos);
    EXPECT_NE(saved.find("tag:k=\"v\""), std::string::npos);
    EXPECT_EQ(saved.find("weird"), std::string::npos);
}

// ---- Bags ----

TEST_F(LibraryBags, UniqueNamesWhereTheTypeAsksForThem) {
    ResourceID t1 = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    ResourceID t2 = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    EXPECT_EQ(library->bagManager()->localPath(t1), path("Trip"));
    EXPECT_EQ(library->bagManager()->localPath(t2), path("Trip_1"));
    EXPECT_TRUE(filesystem::isDirectory(path("Trip_1")));

    ResourceID l1 = library->createBag(TestListBag::bagTypeStatic(), "Trip");
    EXPECT_EQ(library->bagManager()->localPath(l1), path("Trip.testlist"));
    for (const char* name : {"Trip", "TRIP", " trip "}) {
        try {
            library->createBag(TestListBag::bagTypeStatic(), name);
            ADD_FAILURE() << name << " did not clash";
        } catch (const UniqueNameException& e) {
            EXPECT_STREQ(e.what(), "qor::LibraryException::UniqueNameException");
        }
    }
    EXPECT_EQ(library->bags(TestListBag::bagTypeStatic()).size(), 1u);
    // A name with characters no file system takes.
    ResourceID odd = library->createBag(TestFolderBag::bagTypeStatic(), "a/b:c");
    EXPECT_EQ(library->bagManager()->localPath(odd), path("a_b_c"));
}

TEST_F(LibraryBags, RenamingToOwnNameInOtherCapitalsPassesTheUniqueCheck) {
    ResourceID trip = library->createBag(TestListBag::bagTypeStatic(), "Trip");
    ResourceID other = library->createBag(TestListBag::bagTypeStatic(), "Other");
    EXPECT_TRUE(library->renameBag(trip, "TRIP"));
    EXPECT_EQ(library->bag(trip)->name(), "TRIP");
    EXPECT_EQ(library->bagManager()->localPath(trip), path("TRIP.testlist"));
    EXPECT_TRUE(filesystem::exists(path("TRIP.testlist")));
    {
        LogCapture log;
        EXPECT_FALSE(library->renameBag(other, "trip"));
        EXPECT_TRUE(log.contains("Couldn't move bag: qor::LibraryException::UniqueNameException"));
    }
    EXPECT_EQ(library->bag(other)->name(), "Other");
}

TEST_F(LibraryBags, RenamedFolderBagTakesItsImagesAlong) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), event, "sub", "", false);
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    if (auto copy = library->modifyLockBag(list)) copy->insertImage(a);
    library->save({}, true);
    ASSERT_TRUE(library->renameBag(event, "Holiday"));
    EXPECT_EQ(library->getImageResourceName(a).localPath(), path("Holiday/sub/a.jpg"));
    EXPECT_TRUE(filesystem::exists(path("Holiday/sub/a.jpg")));
    EXPECT_FALSE(filesystem::exists(path("Trip")));
    reopen();
    EXPECT_EQ(imageLeaves(bagNamed("Holiday")), std::vector<std::string>{"a.jpg"});
    // The list's .bag was rewritten with the new path.
    ResourceID a2 = library->getImageId(path("Holiday/sub/a.jpg"));
    EXPECT_TRUE(library->bag(bagNamed("L"))->containsImage(a2));
}

// A process that ends right after a rename, before any save: the next load finds the bags where
// they went, under their new names, with their images, and the files say so afterwards.
TEST_F(LibraryBags, RenamedBagsAreFoundAfterACrashBeforeTheSave) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    library->copyImage(sourceFile("a.jpg"), event, "sub", "", false);
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    if (auto copy = library->modifyLockBag(list))
        copy->insertImage(library->getImageId(path("Trip/sub/a.jpg")));
    library->save({}, true);
    library.reset();

    ASSERT_EQ(waitChild(startChild({"change", libraryPath(), "rename=Trip>Holiday"})), 0);
    ASSERT_EQ(waitChild(startChild({"change", libraryPath(), "rename=L>Best"})), 0);
    ASSERT_TRUE(filesystem::exists(path("Holiday/sub/a.jpg")));
    ASSERT_TRUE(filesystem::exists(path("Best.testlist")));
    {
        // The second child found the first rename; this load finds the second.
        LogCapture log;
        open();
        EXPECT_TRUE(
            log.contains("found at " + path("Best.testlist") + " after an interrupted move"));
    }
    // Names and places are the new ones.
    EXPECT_FALSE(bagNamed("Trip").isValid());
    ResourceID trip = bagNamed("Holiday");
    ASSERT_TRUE(trip.isValid());
    EXPECT_EQ(library->bagManager()->localPath(trip), path("Holiday"));
    EXPECT_EQ(library->bagStateString(trip), "Regular");
    EXPECT_EQ(imageLeaves(trip), std::vector<std::string>{"a.jpg"});
    ResourceID a = library->getImageId(path("Holiday/sub/a.jpg"));
    EXPECT_EQ(library->containerId(a), trip);
    EXPECT_TRUE(library->bag(bagNamed("Best"))->containsImage(a));
    EXPECT_FALSE(filesystem::exists(path(Library::MovesFileName)));
    reopen();
    EXPECT_EQ(imageLeaves(bagNamed("Holiday")), std::vector<std::string>{"a.jpg"});
    EXPECT_EQ(library->bagManager()->localPath(bagNamed("Best")), path("Best.testlist"));
}

// The same for images moved between bags: after the crash each image is in the bag whose folder
// holds its file, also when one bag's file was written before the crash and the other's not.
TEST_F(LibraryBags, MovedImagesAreFoundAfterACrashBeforeTheSave) {
    ResourceID one = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID two = library->createBag(TestFolderBag::bagTypeStatic(), "Two");
    library->copyImage(sourceFile("a.jpg"), one, "", "", false);
    library->copyImage(sourceFile("b.jpg"), one, "sub", "", false);
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    if (auto copy = library->modifyLockBag(list))
        copy->insertImage(library->getImageId(path("One/a.jpg")));
    library->save({}, true);
    const std::string oneBefore = readFile(path("One/.bag"));
    library.reset();

    ASSERT_EQ(waitChild(startChild({"change", libraryPath(), "move=One>Two"})), 0);
    ASSERT_TRUE(filesystem::exists(path("Two/sub/b.jpg")));
    EXPECT_EQ(readFile(path("One/.bag")), oneBefore);  // nothing saved
    {
        LogCapture log;
        open();
        EXPECT_TRUE(
            log.contains("found at " + path("Two/sub/b.jpg") + " after an interrupted move"));
    }
    EXPECT_TRUE(imageLeaves(bagNamed("One")).empty());
    EXPECT_EQ(imageLeaves(bagNamed("Two")), (std::vector<std::string>{"a.jpg", "b.jpg"}));
    ResourceID a = library->getImageId(path("Two/a.jpg"));
    EXPECT_EQ(library->containerId(a), bagNamed("Two"));
    EXPECT_TRUE(library->bag(bagNamed("L"))->containsImage(a));
    EXPECT_FALSE(filesystem::exists(path(Library::MovesFileName)));
    reopen();
    EXPECT_EQ(imageLeaves(bagNamed("Two")), (std::vector<std::string>{"a.jpg", "b.jpg"}));
    EXPECT_TRUE(imageLeaves(bagNamed("One")).empty());
    (void)two;
}

// All before one save: a new bag takes the images of another, then both are renamed. The new bag
// is taken back from its own file, and each image follows its way through the moves of files and
// folders into it.
TEST_F(LibraryBags, ImagesMovedIntoANewBagThatIsRenamedAreFoundAfterACrash) {
    ResourceID one = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    library->copyImage(sourceFile("a.jpg"), one, "", "", false);
    library->copyImage(sourceFile("b.jpg"), one, "sub", "", false);
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    if (auto copy = library->modifyLockBag(list))
        copy->insertImage(library->getImageId(path("One/sub/b.jpg")));
    library->save({}, true);
    library.reset();

    ASSERT_EQ(waitChild(startChild({"change", libraryPath(), "create=New", "move=One>New",
                                    "rename=New>Later", "rename=One>First"})),
              0);
    ASSERT_TRUE(filesystem::exists(path("Later/sub/b.jpg")));
    ASSERT_TRUE(filesystem::exists(path("First")));
    {
        LogCapture log;
        open();
        EXPECT_TRUE(log.contains("created before an interrupted save taken back"));
        EXPECT_EQ(log.assertions(), 0u);
    }
    ASSERT_EQ(library->bags().size(), 3u);
    const ResourceID created = bagNamed("Later");
    ASSERT_TRUE(created.isValid());
    EXPECT_EQ(library->bagManager()->localPath(created), path("Later"));
    EXPECT_EQ(library->bagManager()->localPath(bagNamed("First")), path("First"));
    EXPECT_EQ(imageLeaves(created), (std::vector<std::string>{"a.jpg", "b.jpg"}));
    EXPECT_TRUE(imageLeaves(bagNamed("First")).empty());
    const ResourceID b = library->getImageId(path("Later/sub/b.jpg"));
    EXPECT_EQ(library->containerId(b), created);
    EXPECT_TRUE(library->bag(bagNamed("L"))->containsImage(b));
    EXPECT_FALSE(filesystem::exists(path(Library::MovesFileName)));
    reopen();
    EXPECT_EQ(imageLeaves(bagNamed("Later")), (std::vector<std::string>{"a.jpg", "b.jpg"}));
    EXPECT_EQ(library->bags().size(), 3u);
}

TEST_F(LibraryBags, TemporariesOfAnInterruptedSaveAreNeitherAliensNorImages) {
    // This test's own recycle bin (each test runs in a process of its own).
    ::setenv("XDG_DATA_HOME", path(".xdg").c_str(), 1);
    const ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    library->copyImage(sourceFile("a.jpg"), event, "", "", false);
    library->save({}, true);
    writeFile(path("Trip/.bag.tmp-Ab12Cd"), "<ba");

    std::vector<ResourceID> scanned;
    EXPECT_TRUE(library->scanForImages(path("Trip"), scanned));
    for (ResourceID id : scanned)
        EXPECT_NE(filesystem::leaf(library->getImageResourceName(id).localPath()),
                  ".bag.tmp-Ab12Cd");
    EXPECT_NO_THROW(library->eraseBag(event, true));
    EXPECT_FALSE(filesystem::exists(path("Trip")));
    EXPECT_TRUE(filesystem::exists(path(".xdg/Trash/files/Trip/a.jpg")));
    ::unsetenv("XDG_DATA_HOME");
}

TEST_F(LibraryBags, RemoveForgetsAndEraseTrashesButRefusesAliens) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), event, "", "", false);
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    if (auto copy = library->modifyLockBag(list)) copy->insertImage(a);
    library->save({}, true);

    writeFile(path("Trip/alien.txt"), "x");
    {
        LogCapture log;
        EXPECT_THROW(library->eraseBag(event, true), AliensInLibraryException);
        EXPECT_TRUE(log.contains("ContainerBag::hasAliens: " + path("Trip/alien.txt")));
    }
    EXPECT_TRUE(library->bag(event));

    std::atomic<int> removed{0};
    library->OnBagRemoved.connect([&](ResourceID) { ++removed; });
    library->removeBag(event);
    EXPECT_EQ(removed, 1);
    EXPECT_FALSE(library->bag(event));
    EXPECT_FALSE(library->imageManager()->contains(a));
    EXPECT_TRUE(library->bag(list)->images().empty());
    EXPECT_TRUE(filesystem::exists(path("Trip/a.jpg")));  // files stay
    reopen();
    EXPECT_FALSE(bagNamed("Trip").isValid());

    try {
        library->eraseBag(library->bagIdFromHash(12345), false);
        ADD_FAILURE() << "erased a bag that does not exist";
    } catch (const LibraryException& e) {
        EXPECT_STREQ(e.what(), "Remove failed: bag not exists");
    }
}

// ---- Images ----

TEST_F(LibraryImages, CopyAndMoveKeepDiskManagerAndBagsInStep) {
    ResourceID e1 = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID e2 = library->createBag(TestFolderBag::bagTypeStatic(), "Two");
    library->addAuxiliaryExtension("xmp");
    writeFile(outside("src/a.xmp"), "sidecar");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), e1, "", "", false);
    EXPECT_TRUE(filesystem::exists(path("One/a.xmp")));
    ResourceID a1 = library->copyImage(sourceFile("a.jpg"), e1, "", "", true);
    EXPECT_EQ(library->getImageResourceName(a1).localPath(), path("One/a_1.jpg"));
    {
        LogCapture log;
        EXPECT_THROW(library->copyImage(sourceFile("a.jpg"), e1, "", "", false), LibraryException);
    }

    library->moveImage(a, e2, "x", "", false);
    EXPECT_TRUE(filesystem::exists(path("Two/x/a.jpg")));
    EXPECT_TRUE(filesystem::exists(path("Two/x/a.xmp")));
    EXPECT_FALSE(filesystem::exists(path("One/a.jpg")));
    EXPECT_EQ(library->containerId(a), e2);
    EXPECT_FALSE(library->bag(e1)->containsImage(a));

    ResourceID b = library->copyImage(sourceFile("b.jpg"), e2, "", "", false);
    library->moveImages({a, b}, e1);
    EXPECT_EQ(library->containerId(a), e1);
    EXPECT_EQ(library->containerId(b), e1);
    EXPECT_EQ(library->getImageResourceName(a).localPath(), path("One/x/a.jpg"));
    EXPECT_TRUE(filesystem::exists(path("One/x/a.xmp")));
    EXPECT_TRUE(filesystem::exists(path("One/b.jpg")));
    EXPECT_EQ(imageLeaves(e1), (std::vector<std::string>{"a.jpg", "a_1.jpg", "b.jpg"}));
    EXPECT_TRUE(imageLeaves(e2).empty());
    reopen();
    EXPECT_EQ(imageLeaves(bagNamed("One")),
              (std::vector<std::string>{"a.jpg", "a_1.jpg", "b.jpg"}));
    EXPECT_TRUE(imageLeaves(bagNamed("Two")).empty());
}

TEST_F(LibraryImages, MoveImagesIntoItsOwnBagAssertsAndLeavesTheImage) {
    ResourceID e1 = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), e1, "", "", false);
    LogCapture log;
    library->moveImages({a}, e1);
    EXPECT_EQ(log.assertions(), 1u);
    EXPECT_EQ(library->containerId(a), e1);
    EXPECT_TRUE(filesystem::exists(path("One/a.jpg")));
}

TEST_F(LibraryImages, MoveImagesOntoATakenNameRollsBackThatImageOnly) {
    ResourceID e1 = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID e2 = library->createBag(TestFolderBag::bagTypeStatic(), "Two");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), e1, "", "", false);
    ResourceID b = library->copyImage(sourceFile("b.jpg"), e1, "", "", false);
    writeFile(path("Two/a.jpg"), "in the way");
    LogCapture log;
    library->moveImages({a, b}, e2);
    EXPECT_TRUE(log.contains("Cannot move image from event"));
    EXPECT_EQ(library->containerId(a), e1);
    EXPECT_EQ(library->getImageResourceName(a).localPath(), path("One/a.jpg"));
    EXPECT_EQ(readFile(path("Two/a.jpg")), "in the way");
    EXPECT_EQ(library->containerId(b), e2);
}

TEST_F(LibraryImages, AdoptAnnouncesOnlyAfterTheSnapshotIsVisible) {
    ResourceID e1 = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    writeFile(path("One/new.jpg"), "x");
    std::atomic<bool> visible{false};
    library->OnImageAdopted.connect([&](ResourceID id) {
        visible = library->bag(e1)->containsImage(id) && library->containerId(id) == e1;
    });
    ResourceID id = library->adoptImage("new.jpg", e1);
    EXPECT_TRUE(id.isValid());
    EXPECT_TRUE(visible);
}

TEST_F(LibraryImages, RemoveAndEraseImages) {
    ResourceID e1 = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "L");
    ResourceID a = library->copyImage(sourceFile("a.jpg"), e1, "", "", false);
    ResourceID b = library->copyImage(sourceFile("b.jpg"), e1, "", "", false);
    if (auto copy = library->modifyLockBag(list)) {
        copy->insertImage(a);
        copy->insertImage(b);
    }
    library->removeImages({a});
    EXPECT_FALSE(library->imageManager()->contains(a));
    EXPECT_FALSE(library->bag(e1)->containsImage(a));
    EXPECT_FALSE(library->bag(list)->containsImage(a));
    EXPECT_TRUE(filesystem::exists(path("One/a.jpg")));

    // A file that is gone already is forgotten without the recycle bin.
    filesystem::removeFile(path("One/b.jpg"));
    library->eraseImages({b});
    EXPECT_FALSE(library->imageManager()->contains(b));
    EXPECT_TRUE(library->bag(list)->images().empty());
    EXPECT_TRUE(library->bag(e1)->images().empty());
}

TEST_F(LibraryImages, ScanAddsFilesOfAFolderRecursively) {
    writeFile(outside("scan/a.jpg"), "a");
    writeFile(outside("scan/sub/b.jpg"), "b");
    std::vector<ResourceID> found;
    EXPECT_TRUE(library->scanForImages("file://" + outside("scan"), found));
    EXPECT_EQ(found.size(), 2u);
    found.clear();
    EXPECT_FALSE(library->scanForImages(outside("scan/a.jpg"), found));
    EXPECT_EQ(found.size(), 1u);
}

// A bag that moves while loadBag waits for its lock is read from its new path.
TEST_F(LibraryLoad, BagMovedWhileLoadWaitsForItsLockIsReadFromItsNewPath) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    library->copyImage(sourceFile("a.jpg"), event, "", "", false);
    library->save({}, true);
    const std::string good = readFile(path("Trip/.bag"));
    writeFile(path("Trip/.bag"), "broken");
    {
        LogCapture log;
        EXPECT_EQ(library->checkBagState(event), Library::Broken);
    }
    std::atomic<bool> done{false};
    Library::BagState seen = Library::Broken;
    {
        LibraryLockPtr lock = LibraryLock::acquire(path("Trip"));
        std::thread reader([&] {
            seen = library->checkBagState(event);
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_FALSE(done);  // waits for the lock
        writeFile(path("Trip/.bag"), good);
        ASSERT_TRUE(library->renameBag(event, "Moved"));
        lock.reset();
        reader.join();
    }
    EXPECT_EQ(seen, Library::Regular);
    EXPECT_EQ(imageLeaves(event), std::vector<std::string>{"a.jpg"});
}

TEST(ResourceProperty, StoresEachTypeAsText) {
    ResourceProperty i(RptInt), b(RptBool), s(RptString), l(RptBagIdList), t(RptTime);
    int calls = 0;
    i.setChangeCallback([&] { ++calls; });
    EXPECT_TRUE(i.empty());
    i.setIntValue(-42);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(i.toString(), "-42");
    b.setBoolValue(true);
    EXPECT_EQ(b.toString(), "1");
    b.fromString("yes");
    EXPECT_FALSE(b.boolValue());
    l.setBagIdsListValue({ResourceID(1, nullptr)});
    EXPECT_EQ(l.toString(), "");
    t.fromString("2024-03-01T12:30:05.000250Z");
    EXPECT_EQ(t.toString(), "2024-03-01T12:30:05.000250Z");
    ResourceProperty copy(i);
    EXPECT_EQ(copy.intValue(), -42);
    copy.setIntValue(1);
    EXPECT_EQ(calls, 1);  // the copy has no callback
    i.clearValue();
    EXPECT_TRUE(i.empty());
    LogCapture log;
    EXPECT_EQ(s.intValue(), 0);
    EXPECT_EQ(log.assertions(), 1u);
}

}  // namespace
}  // namespace qor::mediadb::testing
