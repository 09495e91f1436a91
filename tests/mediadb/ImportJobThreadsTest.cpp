// ImportJob across its threads: the dispatcher's (run), the worker's (the passes, finalize) and
// the application's (cancel, the queries); and the duplicate index asked from several threads.

#include <thread>

#include "ImportTestSupport.h"

namespace qor::mediadb::testing {
namespace {

class ImportJobThreads : public ImportFixture {};

// Cancelled from the worker's thread while it copies, and from the test's thread while it reads
// the metadata: either way the job ends in OnJobDone, what came in is whole, and no temporary
// copy or temporary resource is left.
TEST_F(ImportJobThreads, ACancelWhileCopyingOrReadingStillEndsInJobDone) {
    std::set<std::string> sources;
    for (int i = 0; i < 16; ++i) {
        const std::string name = "in/" + std::to_string(100 + i) + ".jpg";
        write(name, cameraJpeg("", i));
        sources.insert(readFile(source(name)));
    }
    for (const char* when : {"Copying", "ReadingMetadata"}) {
        SCOPED_TRACE(when);
        const SharedPtr<const ContainerBag> trip = event(std::string("Trip ") + when);
        auto job =
            std::make_shared<ImportJob>(settings(), std::vector<std::string>{source("in")}, trip);
        std::atomic<bool> cancelled{false};
        const bool fromWorker = std::string(when) == "Copying";
        ScopedConnection updates = jobs.OnJobUpdated.connect([&](SharedPtr<LibraryJob> j) {
            if (fromWorker && j->state() == "Copying" && job->currentNumber() >= 3 &&
                !cancelled.exchange(true))
                j->cancel(false);
        });
        std::thread canceller;
        if (!fromWorker) {
            canceller = std::thread([&] {
                for (std::string state = job->processState();
                     state != "ReadingMetadata" && state != "Copying"; state = job->processState())
                    std::this_thread::yield();
                cancelled = true;
                job->cancel(false);
            });
        }
        ASSERT_TRUE(runToEnd(job));
        if (canceller.joinable()) canceller.join();
        EXPECT_TRUE(cancelled);
        EXPECT_TRUE(job->isCancelled());

        const std::vector<ResourceID> imported = job->getImportedImages();
        EXPECT_LT(imported.size(), 16u);
        EXPECT_EQ(library->bag(trip->id())->images().size(), imported.size());
        for (const std::string& file : filesBelow(trip->localPath())) {
            if (filesystem::leaf(file) == ".bag") continue;
            EXPECT_FALSE(filesystem::isHiddenName(filesystem::leaf(file))) << file;
            EXPECT_TRUE(sources.count(readFile(file))) << "partial copy " << file;
        }
    }
    // The library's images only: every source's temporary resource went in finalize.
    size_t inBags = 0;
    for (const ResourceID& id : library->bags(EventBag::bagTypeStatic()))
        inBags += library->bag(id)->images().size();
    EXPECT_EQ(images.size(), inBags);
}

// The first question builds the index while images come in from another thread and other
// threads ask: every answer is a library image with that checksum, and in the end each image is
// found.
TEST_F(ImportJobThreads, TheDuplicateIndexIsBuiltOnceWhileImagesComeIn) {
    const SharedPtr<const ContainerBag> trip = event("Trip");
    std::vector<Digest> digests;
    std::vector<std::string> files;
    for (int i = 0; i < 24; ++i) {
        files.push_back(write("in/" + std::to_string(i) + ".jpg", cameraJpeg("", i)));
        digests.push_back(imageio::imageChecksum(FastString<char>(files.back())));
    }
    for (int i = 0; i < 12; ++i) library->copyImage(files[i], trip->id(), "", "", false);

    LibraryDuplicateManager fresh(library.get());
    std::atomic<bool> wrong{false};
    std::thread adder([&] {
        for (int i = 12; i < 24; ++i) {
            Digest digest;
            const ResourceID id = library->copyImage(files[i], trip->id(), "", "", false, &digest);
            if (digest != digests[i]) wrong = true;
            if (i % 2) fresh.add(id, digest);  // as an import does; the rest by the signal
        }
    });
    std::vector<std::thread> askers;
    for (int t = 0; t < 3; ++t) {
        askers.emplace_back([&, t] {
            for (int i = t; i < 24; i += 3)
                for (const ResourceID& id : fresh.images(digests[i]))
                    if (connector->checksum(id) != digests[i]) wrong = true;
        });
    }
    adder.join();
    for (std::thread& asker : askers) asker.join();
    EXPECT_FALSE(wrong);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(fresh.images(digests[i]).size(), 1u) << i;
}

}  // namespace
}  // namespace qor::mediadb::testing
