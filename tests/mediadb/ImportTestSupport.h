#pragma once
// The fixture of the import tests: a library with the application's bag types over the real
// metadata cache chain (MetadataCacheRDB in front of FileMetadataCache), a sequence worker, a job
// manager and the duplicate managers, and camera-like files written by the tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "../support/Gate.h"
#include "CacheTestSupport.h"
#include "LibraryTestSupport.h"
#include "base/resource/ResourceSequenceWorker.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imageio/ImageIO.h"
#include "mediadb/bags/ContainerBag.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/StandardBagTypes.h"
#include "mediadb/import/DuplicateManager.h"
#include "mediadb/import/ImportJob.h"
#include "mediadb/import/LibraryJobManager.h"
#include "mediadb/library/LibraryCacheConnector.h"

namespace qor::mediadb::testing {

// A JPEG whose EXIF says it was taken at `exifTime` ("2019:07:14 10:20:30"; empty: no time).
// `serial` makes its bytes (and so its checksum) its own.
inline std::string cameraJpeg(const std::string& exifTime, int serial) {
    const imageio::testing::Bytes bytes = imageio::testing::withMetadata(
        imageio::testing::makeJpeg(40 + serial % 16, 30), [&](Exiv2::Image& image) {
            Exiv2::ExifData& exif = image.exifData();
            exif["Exif.Image.Make"] = "Canon";
            exif["Exif.Image.ImageDescription"] = "shot " + std::to_string(serial);
            if (!exifTime.empty()) exif["Exif.Photo.DateTimeOriginal"] = exifTime;
        });
    return std::string(bytes.begin(), bytes.end());
}

// Every regular file below `folder` (hidden ones too), as paths.
inline std::vector<std::string> filesBelow(const std::string& folder) {
    std::vector<std::string> files;
    std::vector<std::string> folders{folder};
    while (!folders.empty()) {
        const std::string current = folders.back();
        folders.pop_back();
        if (!filesystem::isDirectory(current)) continue;
        for (filesystem::UrlIterator it(current); it.valid(); it.next()) {
            if (it.isSymlink()) continue;
            if (it.isDirectory())
                folders.push_back(it.path());
            else
                files.push_back(it.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Holds the job manager's dispatcher until opened: a job added behind it starts only after
// addJob has announced it, so that a test sees all its updates as they come.
class GateJob : public LibraryJob {
public:
    void run() override { _gate.pass(); }
    void open() { _gate.open(); }

private:
    qor::test::Gate _gate;
};

class ImportFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.ok());
        // libcrypto keeps per-thread state on the thread that first uses it; the test thread
        // goes first, so no pool thread holds it at exit.
        writeFile(dir / "first", "x");
        imageio::imageChecksum(FastString<char>(dir / "first"));
        files = std::make_unique<imagecache::FileMetadataCache>(&images);
        cache =
            std::make_unique<imagecache::MetadataCacheRDB>(files.get(), dir / "cache", nullptr, 0);
        connector = std::make_unique<LibraryCacheConnector>(cache.get());
        library = std::make_unique<Library>(&images, connector.get(), dir / "lib/");
        registerStandardBagTypes(*library);
        library->load();
        index = std::make_unique<LibraryDuplicateManager>(library.get());
        duplicates = std::make_unique<ExternalDuplicateManager>(library.get(), index.get());
    }
    void TearDown() override {
        jobs.shutdown();
        worker.shutdown();
        duplicates.reset();
        index.reset();
        library.reset();
        connector.reset();
        cache.reset();
        files.reset();
    }

    ImportJob::BaseSettings settings(ImportJob::DuplicateQuestion ask = {}) {
        ImportJob::BaseSettings s;
        s.library = library.get();
        s.duplicates = duplicates.get();
        s.worker = &worker;
        s.askDuplicate = std::move(ask);
        return s;
    }

    std::string source(const std::string& relative) const { return dir / ("src/" + relative); }
    std::string write(const std::string& relative, const std::string& bytes) const {
        writeFile(source(relative), bytes);
        return source(relative);
    }
    SharedPtr<const ContainerBag> event(const std::string& name) {
        const ResourceID id = library->createBag(EventBag::bagTypeStatic(), name);
        return dynamic_ptr_cast<const ContainerBag>(library->bag(id));
    }

    // Schedules the job, started only once announced, and waits (at most 60 s) for its
    // OnJobDone; false when it did not come.
    bool runToEnd(const SharedPtr<ImportJob>& job) {
        std::mutex mutex;
        std::condition_variable done;
        bool ended = false;
        ScopedConnection connection = jobs.OnJobDone.connect([&](SharedPtr<LibraryJob> finished) {
            if (finished.get() != job.get()) return;
            std::lock_guard<std::mutex> lock(mutex);
            ended = true;
            done.notify_all();
        });
        auto gate = std::make_shared<GateJob>();
        jobs.addJob(gate);
        jobs.addJob(job);
        gate->open();
        std::unique_lock<std::mutex> lock(mutex);
        return done.wait_for(lock, std::chrono::seconds(60), [&] { return ended; });
    }

    // The leaves of a bag's images below its folder ("originals/x.CR2"), sorted.
    std::vector<std::string> bagFiles(ResourceID bagId) const {
        std::vector<std::string> out;
        SharedPtr<const Bag> bag = library->bag(bagId);
        if (!bag) return out;
        const std::string folder = bag->localPath() + "/";
        for (const ResourceID& id : bag->images()) {
            const std::string path = library->getImageResourceName(id).localPath();
            out.push_back(path.rfind(folder, 0) == 0 ? path.substr(folder.size()) : path);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    test::TempDir dir;
    ImageManager images;
    std::unique_ptr<imagecache::FileMetadataCache> files;
    std::unique_ptr<imagecache::MetadataCacheRDB> cache;
    std::unique_ptr<LibraryCacheConnector> connector;
    std::unique_ptr<Library> library;
    ResourceSequenceWorker worker{"import-test"};
    std::unique_ptr<LibraryDuplicateManager> index;
    std::unique_ptr<ExternalDuplicateManager> duplicates;
    LibraryJobManager jobs;
};

}  // namespace qor::mediadb::testing
