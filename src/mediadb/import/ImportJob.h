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

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/ResourceID.h"
#include "base/resource/ResourceSequence.h"
#include "mediadb/import/LibraryJob.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor {
class ResourceSequenceWorker;
}

namespace qor::mediadb {

class ContainerBag;
class ExternalDuplicateManager;
class Library;
class LibraryOrganizer;

class ImportJob : public LibraryJob {
public:
    enum TaskType : int { AdoptAfterScan = 0, CopyAfterScan = 1, Copy = 2, Adopt = 3 };
    enum DuplicateHandling : int { AskForDuplicates = 0, ImportAll = 1, SkipDuplicates = 2 };

    // Asked for each duplicate under AskForDuplicates, on the worker's thread: the picture about
    // to be imported (a temporary resource when it came from outside the library) and the library
    // images it duplicates. True imports it anyway.
    using DuplicateQuestion = Function2<bool, ResourceID, const std::vector<ResourceID>&>;

    struct BaseSettings {
        Library* library = nullptr;                      // not owned
        ExternalDuplicateManager* duplicates = nullptr;  // not owned; null: no duplicate checks
        ResourceSequenceWorker* worker = nullptr;        // not owned
        DuplicateQuestion askDuplicate;                  // null: a duplicate is skipped
        uint64_t callerWord = 0;                         // the caller's, kept as given
    };

    // A source: a url, or a library image, or a path relative to a bag's folder.
    struct ImageLocation {
        std::string url;     // empty when the source is a resource
        ResourceID imageId;  // invalid when the source is a url
        ResourceID bagId;
        std::string path;  // relative to the bag's folder
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
    // One item of the sequence: its source and the resource the passes work on (the library
    // image, or a temporary resource for a file from outside).
    struct WorkItem {
        ImageLocation location;
        ResourceID resource;
        bool broken = false;  // its metadata could not be read: not copied
    };

    void init(const BaseSettings& settings, TaskType taskType, SharedPtr<const ContainerBag> bag);
    // Appends the pictures found at `url` (a folder: its files, below it too when `recursive`)
    // to `locations`; files of no supported type go to the unsupported list. Sets `found` when
    // anything was appended.
    void scanUrl(const std::string& url, std::vector<ImageLocation>& locations, bool recursive,
                 bool& found);
    bool acceptFile(const std::string& path, std::vector<ImageLocation>& locations);
    void runCopy();
    void runAdopt();
    // Hands the sequence over to the worker and leaves the job detached until finalize.
    void startSequence(bool withCopy);
    void imageTouchCallback(ResourceSequence& sequence, size_t index);
    void imageCopyCallback(ResourceSequence& sequence, size_t index);
    // Copies one source into `bag` (null: the bag of its capture day); the new image, invalid
    // when it was not copied.
    ResourceID copyImage(const WorkItem& item, SharedPtr<const ContainerBag> bag);
    void updateGrouping(ResourceID id, ResourceID bagId, const std::string& path);
    // The key under which raw and JPEG files of one shot meet: the path without its extension,
    // a raw file in an "originals" folder taken as if it lay next to that folder.
    static std::string groupingKey(const std::string& path);
    static void finalize(const SharedPtr<LibraryJob>& job, ResourceSequence& sequence);
    void addNotImported(const std::string& path);
    // Whether duplicates are looked for at all.
    bool checksDuplicates() const;

    BaseSettings _settings;
    TaskType _taskType = CopyAfterScan;
    SharedPtr<const ContainerBag> _bag;  // null: by capture day
    std::vector<std::string> _urls;      // to scan
    bool _scan = true;                   // false: _sourceImages were given
    std::atomic<bool> _recursive{true};
    std::atomic<int> _duplicateHandling{AskForDuplicates};

    // Guarded by _mutex (read from any thread):
    std::vector<ImageLocation> _sourceImages QOR_GUARDED_BY(_mutex);
    ResourceID _currentImage QOR_GUARDED_BY(_mutex);
    unsigned _currentNumber = 0 QOR_GUARDED_BY(_mutex);
    unsigned _total = 0 QOR_GUARDED_BY(_mutex);
    std::vector<std::string> _unsupported QOR_GUARDED_BY(_mutex);
    std::vector<std::string> _notImported QOR_GUARDED_BY(_mutex);
    std::vector<ResourceID> _imported QOR_GUARDED_BY(_mutex);
    // Resources made for files from outside.
    std::vector<ResourceID> _temporary QOR_GUARDED_BY(_mutex);
    // Copied, then found broken, and not erased yet.
    std::vector<ResourceID> _brokenCopies QOR_GUARDED_BY(_mutex);
    // Handed to the worker; null before and once finalized.
    SharedPtr<ResourceSequence> _sequence QOR_GUARDED_BY(_mutex);
    bool _cancelRequested QOR_GUARDED_BY(_mutex) = false;  // onCanceled ran

    // Used by one thread at a time: run() builds them, then only the worker's thread uses them.
    std::vector<WorkItem> _work;                   // by sequence position
    std::map<std::string, ResourceID> _baseNames;  // grouping key -> image imported with it
    bool _touchStarted = false;
    bool _copyStarted = false;
    std::set<std::string> _cleanedFolders;         // destination folders rid of stale temporaries
    std::unique_ptr<LibraryOrganizer> _organizer;  // made when there is no destination bag
};

}  // namespace qor::mediadb
