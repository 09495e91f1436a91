#pragma once
// ImportJob: brings pictures into a container bag of the library. It scans source urls (or takes
// sources given directly), reads their metadata, checks them for duplicates, copies the files into
// the bag (or adopts files that already lie in its folder), and puts raw and JPEG files of one
// shot into one family, the raw file in the "originals" subfolder.
//
// Task types: AdoptAfterScan (0) and CopyAfterScan (1) scan their urls first; Copy (2) and
// Adopt (3) take the sources as given. Copying runs in two passes of one ResourceSequence on the
// library's ResourceSequenceWorker: first every picture's metadata is read (so thumbnails can show
// before the copying is done), then each is copied. run() hands the sequence over and returns,
// leaving the job detached until the sequence's completion (finalize) calls notifyDone.
//
// Without a destination bag, each picture goes into the event bag of its capture day (made when
// missing, named "YYYY-MM-DD", in a year folder below the library's initial bag path).
//
// Process states: "Scanning", "Waiting", "ReadingMetadata", "Copying", "Adopting".
//
// Threads: run() on the job manager's dispatcher thread; the touch and copy callbacks and finalize
// on the worker's thread; the queries from any thread. LibraryJob::_mutex guards the current
// image and number, the lists and the temporary resources.

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/ResourceID.h"
#include "base/resource/ResourceSequence.h"
#include "mediadb/library/LibraryJob.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor {
class ResourceSequenceWorker;
}

namespace qor::mediadb {

class ContainerBag;
class ExternalDuplicateManager;
class Library;

class ImportJob : public LibraryJob {
public:
    enum TaskType : int { AdoptAfterScan = 0, CopyAfterScan = 1, Copy = 2, Adopt = 3 };
    enum DuplicateHandling : int { AskForDuplicates = 0, ImportAll = 1, SkipDuplicates = 2 };

    // Asked for each duplicate under AskForDuplicates, on the worker's thread: the picture about
    // to be imported (a temporary resource when it came from outside the library) and the library
    // images it duplicates. True imports it anyway.
    using DuplicateQuestion =
        Function2<bool, ResourceID, const std::vector<ResourceID>&>;

    struct BaseSettings {
        Library* library = nullptr;                       // not owned
        ExternalDuplicateManager* duplicates = nullptr;   // not owned; null: no duplicate checks
        ResourceSequenceWorker* worker = nullptr;         // not owned
        DuplicateQuestion askDuplicate;                   // null: a duplicate is skipped
        uint64_t callerWord = 0;                          // the caller's, kept as given
    };

    // A source: a url, or a library image, or a path relative to a bag's folder.
    struct ImageLocation {
        std::string url;      // empty when the source is a resource
        ResourceID imageId;   // invalid when the source is a url
        ResourceID bagId;
        std::string path;     // relative to the bag's folder
    };

    // Sources scanned from `bag`'s own folder (AdoptAfterScan: the files there that the bag lacks);
    // `duplicateHandling` as DuplicateHandling.
    ImportJob(const BaseSettings& settings, SharedPtr<const ContainerBag> bag, TaskType taskType,
              int duplicateHandling);
    // Urls ("file:///..." or local paths) scanned and copied into `bag` (null: one event bag per
    // capture day).
    ImportJob(const BaseSettings& settings, const std::vector<std::string>& urls,
              SharedPtr<const ContainerBag> bag = nullptr, TaskType taskType = CopyAfterScan);
    // Files given directly (no scan): paths relative to the bag's folder for Adopt, urls for Copy.
    ImportJob(const BaseSettings& settings, SharedPtr<const ContainerBag> bag,
              const std::list<std::string>& files, TaskType taskType);
    // Library images copied into `bag` (null: by capture day).
    ImportJob(const BaseSettings& settings, const std::list<ResourceID>& images,
              SharedPtr<const ContainerBag> bag = nullptr);
    ~ImportJob() override;

    void run() override;
    bool isSameJob(const SharedPtr<thread::CompositeJob>& other) const override;
    void onCanceled() override;

    TaskType taskType() const { return _taskType; }
    void setRecursiveScan(bool recursive);
    bool isRecursiveScan() const;
    std::vector<ImageLocation> getSourceImages() const;
    unsigned total() const;
    unsigned currentNumber() const;
    ResourceID currentImage() const;
    // The destination bag; invalid when pictures go by capture day.
    ResourceID destinationBagId() const;
    DuplicateHandling duplicateHandling() const;
    void setDuplicateHandling(DuplicateHandling handling);
    // Files of no supported type that the scan met (paths).
    std::vector<std::string> getUnsupportedFiles() const;
    // Sources that were not imported (paths): duplicates skipped, broken, failed copies.
    std::vector<std::string> getNotImportedImages() const;
    // The images imported (copied or adopted), in order.
    std::vector<ResourceID> getImportedImages() const;
    std::string getUrl(const ImageLocation& location) const;
    // The folders of the url sources.
    void getSourceFolders(std::set<std::string>& folders) const;

private:
    // The rest lies with the implementation; see ImportJob.cpp.
};

}  // namespace qor::mediadb
