// ImportJob end to end over the real metadata cache chain: scanning a folder tree, copying into a
// bag or into the event of each capture day, raw and JPEG families, the duplicate policies, files
// that vanish on the way, and the duplicate index of a library whose files are not read again.

#include <unistd.h>

#include <map>
#include <set>

#include "ImportTestSupport.h"
#include "base/Log.h"

namespace qor::mediadb::testing {
namespace {

using Status = thread::CompositeJob::Status;

class ImportJobTest : public ImportFixture {};

TEST_F(ImportJobTest, AnEmptyFolderFailsWithNoImagesAndStillEndsTheJob) {
    filesystem::createDirectoryFromUrl(source("empty"));
    write("empty/.hidden.jpg", cameraJpeg("", 1));
    write("empty/notes.txt", "notes");
    const SharedPtr<const ContainerBag> trip = event("Trip");
    auto job =
        std::make_shared<ImportJob>(settings(), std::vector<std::string>{source("empty")}, trip);
    LogCapture log;
    ASSERT_TRUE(runToEnd(job));
    EXPECT_EQ(job->status(), Status::CjFailed);
    EXPECT_EQ(job->failure(), "No images to import.");
    EXPECT_TRUE(log.contains("Import failed: No images to import."));
    EXPECT_EQ(job->getUnsupportedFiles(), std::vector<std::string>{source("empty/notes.txt")});
    EXPECT_TRUE(library->bag(trip->id())->images().empty());
}

// A camera card: a raw and JPEG pair, names with spaces and non-ASCII letters, hidden files and
// folders, a file of no picture type and a symbolic link back up the tree.
TEST_F(ImportJobTest, CopiesACardWithItsRawAndJpegPairAsAFamily) {
    std::map<std::string, std::string> bytes;
    bytes["IMG 0001.JPG"] = write("card/DCIM/IMG 0001.JPG", cameraJpeg("2019:07:14 10:20:30", 1));
    bytes["IMG 0001.CR2"] = write("card/DCIM/IMG 0001.CR2", std::string(5000, 'r'));
    bytes["Grüße été.jpg"] = write("card/DCIM/Grüße été.jpg", cameraJpeg("", 2));
    for (auto& [leaf, path] : bytes) path = readFile(path);
    write("card/DCIM/.thumb.jpg", cameraJpeg("", 3));
    write("card/.trash/old.jpg", cameraJpeg("", 4));
    write("card/readme.txt", "text");
    ASSERT_EQ(::symlink("..", source("card/DCIM/loop").c_str()), 0);

    const SharedPtr<const ContainerBag> trip = event("Trip");
    auto job =
        std::make_shared<ImportJob>(settings(), std::vector<std::string>{source("card")}, trip);
    std::vector<std::string> states;
    std::mutex statesMutex;
    ScopedConnection updates = jobs.OnJobUpdated.connect([&](SharedPtr<LibraryJob> j) {
        std::lock_guard<std::mutex> lock(statesMutex);
        if (states.empty() || states.back() != j->state()) states.push_back(j->state());
    });
    ASSERT_TRUE(runToEnd(job));
    // (Its status may still read "running": OnJobDone of a detached job can come before the
    // dispatcher has recorded the end of run().)
    EXPECT_NE(job->status(), Status::CjFailed) << job->failure();

    EXPECT_EQ(bagFiles(trip->id()), (std::vector<std::string>{"Grüße été.jpg", "IMG 0001.JPG",
                                                              "originals/IMG 0001.CR2"}));
    EXPECT_EQ(job->getUnsupportedFiles(), std::vector<std::string>{source("card/readme.txt")});
    EXPECT_TRUE(job->getNotImportedImages().empty());
    EXPECT_EQ(job->total(), 3u);
    EXPECT_EQ(job->currentNumber(), 3u);
    {
        std::lock_guard<std::mutex> lock(statesMutex);
        EXPECT_EQ(states, (std::vector<std::string>{"ReadingMetadata", "Copying"}));
    }

    // The raw file is the original of the family, the JPEG its member.
    auto bag = dynamic_ptr_cast<const ContainerBag>(library->bag(trip->id()));
    const ResourceID raw = library->getImageId(trip->localPath() + "/originals/IMG 0001.CR2");
    const ResourceID jpeg = library->getImageId(trip->localPath() + "/IMG 0001.JPG");
    ASSERT_TRUE(raw.isValid() && jpeg.isValid());
    EXPECT_TRUE(bag->isOriginalItem(raw));
    EXPECT_EQ(bag->getFamilyInfo(jpeg).original, raw);
    EXPECT_EQ(bag->getFamilyInfo(jpeg).members, (std::set<ResourceID>{raw, jpeg}));

    // Each copy is whole; nothing else lies in the bag's folder but its .bag file; the sources'
    // temporary resources are gone from the ImageManager.
    for (const auto& [leaf, content] : bytes) {
        const std::string sub = leaf == "IMG 0001.CR2" ? "originals/" : "";
        EXPECT_EQ(readFile(trip->localPath() + "/" + sub + leaf), content) << leaf;
    }
    for (const std::string& file : filesBelow(trip->localPath()))
        EXPECT_TRUE(filesystem::leaf(file) == ".bag" ||
                    !filesystem::isHiddenName(filesystem::leaf(file)))
            << file;
    EXPECT_EQ(images.size(), 3u);
}

TEST_F(ImportJobTest, DuplicatePoliciesSkipAskOrImport) {
    const SharedPtr<const ContainerBag> trip = event("Trip");
    const std::string original = cameraJpeg("2019:07:14 10:20:30", 1);
    const ResourceID inLibrary =
        library->copyImage(write("first/a.jpg", original), trip->id(), "", "", false);
    write("again/a copy.jpg", original);
    write("again/b.jpg", cameraJpeg("", 2));
    // Two equal new files in one import: the second is a duplicate of the first once it is in.
    write("again/c1.jpg", cameraJpeg("", 3));
    write("again/c2.jpg", cameraJpeg("", 3));
    const std::vector<std::string> urls{"file://" + source("again")};

    auto skip = std::make_shared<ImportJob>(settings(), urls, trip);
    skip->setDuplicateHandling(ImportJob::SkipDuplicates);
    ASSERT_TRUE(runToEnd(skip));
    EXPECT_EQ(bagFiles(trip->id()), (std::vector<std::string>{"a.jpg", "b.jpg", "c1.jpg"}));
    EXPECT_EQ(skip->getNotImportedImages(),
              (std::vector<std::string>{source("again/a copy.jpg"), source("again/c2.jpg")}));

    // Asked: the question names the library image it duplicates; a no keeps it out.
    const SharedPtr<const ContainerBag> other = event("Other");
    std::vector<std::vector<ResourceID>> asked;
    auto no = [&](ResourceID, const std::vector<ResourceID>& found) {
        asked.push_back(found);
        return false;
    };
    write("one/a copy.jpg", original);
    auto ask =
        std::make_shared<ImportJob>(settings(no), std::vector<std::string>{source("one")}, other);
    ASSERT_TRUE(runToEnd(ask));
    EXPECT_EQ(asked, std::vector<std::vector<ResourceID>>{{inLibrary}});
    EXPECT_TRUE(library->bag(other->id())->images().empty());
    EXPECT_EQ(ask->getNotImportedImages(), std::vector<std::string>{source("one/a copy.jpg")});

    // A yes brings it in; with no question to ask, ImportAll brings it in without one.
    int questions = 0;
    auto yes = [&](ResourceID, const std::vector<ResourceID>&) { return ++questions > 0; };
    auto askYes =
        std::make_shared<ImportJob>(settings(yes), std::vector<std::string>{source("one")}, other);
    ASSERT_TRUE(runToEnd(askYes));
    EXPECT_EQ(questions, 1);
    EXPECT_EQ(bagFiles(other->id()), std::vector<std::string>{"a copy.jpg"});
    auto all =
        std::make_shared<ImportJob>(settings(yes), std::vector<std::string>{source("one")}, other);
    all->setDuplicateHandling(ImportJob::ImportAll);
    ASSERT_TRUE(runToEnd(all));
    EXPECT_EQ(questions, 1);
    EXPECT_EQ(bagFiles(other->id()), (std::vector<std::string>{"a copy.jpg", "a copy_1.jpg"}));
}

TEST_F(ImportJobTest, AFileThatVanishesBeforeItsCopyIsListedAndTheRestComeIn) {
    for (int i = 0; i < 4; ++i) write("in/" + std::string(1, 'a' + i) + ".jpg", cameraJpeg("", i));
    const SharedPtr<const ContainerBag> trip = event("Trip");
    auto job =
        std::make_shared<ImportJob>(settings(), std::vector<std::string>{source("in")}, trip);
    // After the first copy (on the worker's thread), before the third.
    std::atomic<bool> removed{false};
    ScopedConnection updates = jobs.OnJobUpdated.connect([&](SharedPtr<LibraryJob> j) {
        if (j->state() == "Copying" && !removed.exchange(true))
            filesystem::removeFile(source("in/c.jpg"));
    });
    LogCapture log;
    ASSERT_TRUE(runToEnd(job));
    EXPECT_TRUE(removed);
    EXPECT_EQ(bagFiles(trip->id()), (std::vector<std::string>{"a.jpg", "b.jpg", "d.jpg"}));
    EXPECT_EQ(job->getNotImportedImages(), std::vector<std::string>{source("in/c.jpg")});
    EXPECT_TRUE(log.contains("Image Broken: "));
    EXPECT_FALSE(filesystem::exists(trip->localPath() + "/c.jpg"));
}

TEST_F(ImportJobTest, WithoutADestinationEachCaptureDayGetsItsEvent) {
    library->setInitialBagPath("Pictures");
    write("in/a.jpg", cameraJpeg("2019:07:14 00:10:00", 1));
    write("in/b.jpg", cameraJpeg("2019:07:14 23:50:00", 2));
    write("in/c.jpg", cameraJpeg("2020:01:02 12:00:00", 3));
    write("in/c.CR2", std::string(3000, 'r'));
    write("in/d.jpg", cameraJpeg("", 4));
    // No capture time: the local day of the file's time.
    struct tm fields {};
    fields.tm_year = 2018 - 1900;
    fields.tm_mon = 4;
    fields.tm_mday = 6;
    fields.tm_hour = 12;
    fields.tm_isdst = -1;
    filesystem::setLastWriteTime(source("in/d.jpg"),
                                 time::Timestamp::fromTime_t(::mktime(&fields)));
    fields.tm_year = 2020 - 1900;
    fields.tm_mon = 0;
    fields.tm_mday = 2;
    filesystem::setLastWriteTime(source("in/c.CR2"),
                                 time::Timestamp::fromTime_t(::mktime(&fields)));

    auto job = std::make_shared<ImportJob>(settings(), std::vector<std::string>{source("in")});
    ASSERT_TRUE(runToEnd(job));
    EXPECT_FALSE(job->destinationBagId().isValid());
    std::map<std::string, std::vector<std::string>> days;
    for (const ResourceID& id : library->bags(EventBag::bagTypeStatic())) {
        SharedPtr<const Bag> bag = library->bag(id);
        days[bag->name()] = bagFiles(id);
        EXPECT_EQ(bag->localPath(),
                  library->path() + "Pictures/" + bag->name().substr(0, 4) + "/" + bag->name());
    }
    EXPECT_EQ(days, (std::map<std::string, std::vector<std::string>>{
                        {"2018-05-06", {"d.jpg"}},
                        {"2019-07-14", {"a.jpg", "b.jpg"}},
                        {"2020-01-02", {"c.jpg", "originals/c.CR2"}}}));
    const ResourceID raw =
        library->getImageId(library->path() + "Pictures/2020/2020-01-02/originals/c.CR2");
    auto pair = dynamic_ptr_cast<const ContainerBag>(library->bag(library->containerId(raw)));
    ASSERT_TRUE(pair);
    EXPECT_TRUE(pair->isOriginalItem(raw));

    // A later import finds the day's event again, also after the library was loaded anew.
    library->save({}, true);
    write("later/e.jpg", cameraJpeg("2019:07:14 12:00:00", 5));
    auto later = std::make_shared<ImportJob>(settings(), std::vector<std::string>{source("later")});
    ASSERT_TRUE(runToEnd(later));
    EXPECT_EQ(library->bags(EventBag::bagTypeStatic()).size(), 3u);
    const ResourceID july =
        library->bagIdFromLocalPath(library->path() + "Pictures/2019/2019-07-14");
    EXPECT_EQ(bagFiles(july), (std::vector<std::string>{"a.jpg", "b.jpg", "e.jpg"}));
}

// Files put into an event's folder behind the library's back are adopted where they lie: those
// the bag holds already are left alone, and a raw file in "originals" pairs with the JPEG beside
// that folder.
TEST_F(ImportJobTest, AdoptingABagsFolderTakesInItsNewFilesAndPairs) {
    const SharedPtr<const ContainerBag> trip = event("Trip");
    const ResourceID old =
        library->copyImage(write("old.jpg", cameraJpeg("", 1)), trip->id(), "", "", false);
    writeFile(trip->localPath() + "/IMG_7.jpg", cameraJpeg("", 2));
    writeFile(trip->localPath() + "/originals/IMG_7.NEF", std::string(2000, 'n'));
    writeFile(trip->localPath() + "/notes.txt", "notes");

    auto job = std::make_shared<ImportJob>(settings(), trip, ImportJob::AdoptAfterScan,
                                           ImportJob::SkipDuplicates);
    std::vector<std::string> states;
    ScopedConnection updates = jobs.OnJobUpdated.connect([&](SharedPtr<LibraryJob> j) {
        if (states.empty() || states.back() != j->state()) states.push_back(j->state());
    });
    LogCapture log;
    ASSERT_TRUE(runToEnd(job));
    EXPECT_NE(job->status(), Status::CjFailed) << job->failure();
    EXPECT_EQ(bagFiles(trip->id()),
              (std::vector<std::string>{"IMG_7.jpg", "old.jpg", "originals/IMG_7.NEF"}));
    EXPECT_EQ(job->total(), 2u);
    EXPECT_EQ(job->getImportedImages().size(), 2u);
    EXPECT_TRUE(library->bag(trip->id())->containsImage(old));
    // Adopted files are read, never copied.
    EXPECT_EQ(states, std::vector<std::string>{"ReadingMetadata"});
    EXPECT_TRUE(log.contains("Adopting finished after '"));
    auto bag = dynamic_ptr_cast<const ContainerBag>(library->bag(trip->id()));
    const ResourceID raw = library->getImageId(trip->localPath() + "/originals/IMG_7.NEF");
    EXPECT_TRUE(bag->isOriginalItem(raw));
    EXPECT_EQ(bag->getFamilyInfo(raw).members.size(), 2u);
}

// The index is built from the checksums the metadata cache holds: with the picture files gone
// from the disk it still answers, and it follows images that come and go.
TEST_F(ImportJobTest, TheDuplicateIndexAnswersFromTheCacheWithoutTheFiles) {
    const SharedPtr<const ContainerBag> trip = event("Trip");
    std::vector<ResourceID> ids;
    std::vector<Digest> digests;
    for (int i = 0; i < 3; ++i) {
        const std::string file = write("in/" + std::to_string(i) + ".jpg", cameraJpeg("", i));
        ids.push_back(library->copyImage(file, trip->id(), "", "", false));
        digests.push_back(imageio::imageChecksum(FastString<char>(file)));
        EXPECT_EQ(connector->checksum(ids.back()), digests.back());  // now in the cache
    }
    for (const ResourceID& id : ids)
        filesystem::removeFile(library->getImageResourceName(id).localPath());

    LibraryDuplicateManager fresh(library.get());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(fresh.images(digests[i]), std::vector<ResourceID>{ids[i]}) << i;
    EXPECT_TRUE(fresh.images(Digest()).empty());

    // An image that comes in later is found; one that leaves the library is not.
    const std::string added = write("in/new.jpg", cameraJpeg("", 7));
    const ResourceID newId = library->copyImage(added, trip->id(), "", "", false);
    const Digest newDigest = imageio::imageChecksum(FastString<char>(added));
    EXPECT_EQ(fresh.images(newDigest), std::vector<ResourceID>{newId});
    library->removeImages({ids[0]});
    EXPECT_TRUE(fresh.images(digests[0]).empty());

    // The import's side: a file outside the library that equals a library image.
    ExternalDuplicateManager external(library.get(), &fresh);
    const ResourceID outside = library->addImage(added);
    EXPECT_TRUE(external.hasDuplicates(outside, true));
    EXPECT_EQ(external.duplicatesOf(outside), std::vector<ResourceID>{newId});
    external.forget(outside);
    EXPECT_FALSE(external.hasDuplicates(outside, false));
}

}  // namespace
}  // namespace qor::mediadb::testing
