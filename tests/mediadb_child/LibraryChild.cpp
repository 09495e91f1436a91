// The child program of the library tests that need a process of their own: one that is killed at
// random while it changes and saves a library (the crash test), and one that saves where it may not
// write (the save failure tests). The tests start it with fork and exec, so it begins with its own
// threads.
//
//   qor_mediadb_child crash LIBRARY SOURCE_FILE JOURNAL READY_FD
//       Loads the library, writes one byte to READY_FD, then changes and saves the library in a
//       loop until it is killed. After each synchronous save it appends the library's state as one
//       line to JOURNAL and flushes it to disk: "bag=<type>/<name>:<leaf>,<leaf>;..." in name
//       order.
//   qor_mediadb_child change LIBRARY OP...
//       Loads the library, makes the changes OP in order and ends at once, as a crash would,
//       before the debounced save has run: "create=NAME" (a test folder bag), "rename=BAG>NAME",
//       "move=BAG>BAG" (every image of the first bag into the second). Bags are named by name.
//       Exit code 0 when every change went through.
//   qor_mediadb_child import LIBRARY SOURCE REPORT [fsize=N]
//       Loads the library and imports the folder SOURCE (everything, duplicates too) by capture
//       day, or into the event "Trip" with a file size limit of N bytes; then writes the files
//       not imported to REPORT, one a line, and saves. Exit code 0 when the job ended in
//       OnJobDone without failing. The kill test kills it at random moments.
//   qor_mediadb_child save LIBRARY IMAGE [nobody | fsize=N]
//       Runs as the user nobody, or with a file size limit of N bytes; loads the library, changes
//       the bag "Trip" (a setting and a new image IMAGE) and tries to create a bag, saves, and
//       checks the log lines and the library in memory. The exit code tells the outcome
//       (ChildResult).

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "../mediadb/LibraryTestBags.h"
#include "base/Log.h"
#include "base/resource/ResourceSequenceWorker.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "mediadb/bags/CollectionBag.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/StandardBagTypes.h"
#include "mediadb/import/ImportJob.h"
#include "mediadb/library/LibraryCacheConnector.h"
#include "mediadb/library/LibraryExceptions.h"
#include "mediadb/import/LibraryJobManager.h"

using namespace qor;
using namespace qor::mediadb;
using namespace qor::mediadb::testing;

namespace {

// The test's own bag types, or those of the application (the crash test).
void openLibrary(Library& library, bool standardTypes = false) {
    if (standardTypes)
        registerStandardBagTypes(library);
    else
        registerTestBags(library);
    library.registerProperty(ResourceProperty(RptString), "title");
    library.registerProperty(ResourceProperty(RptString), "uid");
    library.load();
}

// The state line of the journal (see the file comment).
std::string stateLine(Library& library) {
    std::vector<std::string> bags;
    for (const ResourceID& id : library.bags()) {
        SharedPtr<const Bag> b = library.bag(id);
        if (!b) continue;
        std::vector<std::string> leaves;
        for (const ResourceID& image : b->images())
            leaves.push_back(filesystem::leaf(library.getImageResourceName(image).localPath()));
        std::sort(leaves.begin(), leaves.end());
        std::string entry =
            b->bagType() + "/" + library.getProperty(id, "uid")->stringValue() + ":";
        for (size_t i = 0; i < leaves.size(); ++i) entry += (i ? "," : "") + leaves[i];
        bags.push_back(entry);
    }
    std::sort(bags.begin(), bags.end());
    std::string line = "bag=";
    for (size_t i = 0; i < bags.size(); ++i) line += (i ? ";" : "") + bags[i];
    return line + "\n";
}

int crash(const std::string& libraryPath, const std::string& source, const std::string& journal,
          int readyFd) {
    setLogLevel(LogWarning);
    ImageManager images;
    RecordingConnector connector;
    Library library(&images, &connector, libraryPath);
    openLibrary(library, true);
    // A bag created just before a kill may have been taken back before its uid was saved.
    for (const ResourceID& id : library.bags())
        if (library.getProperty(id, "uid")->stringValue().empty())
            library.getProperty(id, "uid")->setStringValue("K" + library.bag(id)->name());
    const int journalFd = ::open(journal.c_str(), O_RDWR | O_APPEND | O_CREAT, 0644);
    if (journalFd < 0) return 2;
    // The line of a child killed while writing it is cut off, so that this one starts a line.
    const off_t size = ::lseek(journalFd, 0, SEEK_END);
    off_t end = size;
    for (char c = 0; end > 0 && ::pread(journalFd, &c, 1, end - 1) == 1 && c != '\n';) --end;
    if (end != size && ::ftruncate(journalFd, end) != 0) return 2;
    if (::write(readyFd, "r", 1) != 1) return 3;
    ::close(readyFd);

    std::mt19937 random(static_cast<unsigned>(::getpid()));
    const std::string token = std::to_string(::getpid());
    int serial = 0;
    auto pick = [&](const std::vector<ResourceID>& ids) { return ids[random() % ids.size()]; };
    for (;;) {
        // A few changes between two saves, so that moves of images and renames of their bags
        // meet in one journal.
        for (int change = 1 + random() % 3; change > 0; --change) {
            std::vector<ResourceID> events = library.bags(EventBag::bagTypeStatic());
            std::vector<ResourceID> collections = library.bags(CollectionBag::bagTypeStatic());
            const std::string name = "p" + token + "_" + std::to_string(serial++);
            // A library of a hundred images is enough; then the runs move, list and rename.
            const unsigned op = images.size() < 120 ? random() % 5 : 2 + random() % 3;
            switch (op) {
                case 0:
                    if (events.size() < 8) {
                        ResourceID bag = library.createBag(EventBag::bagTypeStatic(), "E" + name);
                        library.getProperty(bag, "uid")->setStringValue("E" + name);
                        library.copyImage(source, bag, "", name + ".jpg", false);
                        break;
                    }
                    [[fallthrough]];
                case 1:
                    if (!events.empty())
                        library.copyImage(source, pick(events), random() % 2 ? "sub" : "",
                                          name + ".jpg", true);
                    break;
                case 2:
                    if (collections.size() < 4) {
                        ResourceID bag =
                            library.createBag(CollectionBag::bagTypeStatic(), "L" + name);
                        library.getProperty(bag, "uid")->setStringValue("L" + name);
                        break;
                    }
                    [[fallthrough]];
                case 3:
                    if (!collections.empty() && !events.empty()) {
                        SharedPtr<const Bag> from = library.bag(pick(events));
                        SharedPtr<Bag> list = library.modifyLockBag(pick(collections));
                        if (from && list) {
                            int count = 0;
                            for (const ResourceID& image : from->images())
                                if (!list->containsImage(image) && count++ < 3)
                                    list->insertImage(image);
                        }
                    }
                    if (!events.empty())
                        library.getProperty(pick(events), "title")->setStringValue(name);
                    // A rename: the folder or file moves at once, the index follows at the save.
                    if (!events.empty() && random() % 2)
                        library.renameBag(pick(events), "R" + name);
                    else if (!collections.empty())
                        library.renameBag(pick(collections), "R" + name);
                    break;
                default:
                    // Pictures move from one event to another, now and then to a new one.
                    if (events.size() >= 2) {
                        const ResourceID from = pick(events);
                        ResourceID to = pick(events);
                        if (to == from || random() % 4 == 0) {
                            to = library.createBag(EventBag::bagTypeStatic(), "M" + name);
                            library.getProperty(to, "uid")->setStringValue("M" + name);
                        }
                        std::vector<ResourceID> moving;
                        for (const ResourceID& image : library.bag(from)->images())
                            if (moving.size() < 1 + random() % 3) moving.push_back(image);
                        if (!moving.empty()) library.moveImages(moving, to);
                    }
                    break;
            }
        }
        library.save({}, true);
        const std::string line = stateLine(library);
        if (::write(journalFd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            return 4;
        ::fsync(journalFd);
    }
}

// A file size limit of N bytes from "fsize=N"; writes beyond it fail with EFBIG.
void limitFileSize(const std::string& how) {
    ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit {};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::strtoul(how.c_str() + 6, nullptr, 10);
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

int import(const std::string& libraryPath, const std::string& source, const std::string& report,
           const std::string& how) {
    setLogLevel(LogError);
    ImageManager images;
    imagecache::FileMetadataCache files(&images);
    LibraryCacheConnector connector(&files);
    Library library(&images, &connector, libraryPath);
    registerStandardBagTypes(library);
    library.load();
    SharedPtr<const ContainerBag> bag;
    if (!how.empty()) {
        ResourceID trip;
        for (const ResourceID& id : library.bags())
            if (library.bag(id)->name() == "Trip") trip = id;
        if (!trip.isValid()) trip = library.createBag(EventBag::bagTypeStatic(), "Trip");
        bag = dynamic_ptr_cast<const ContainerBag>(library.bag(trip));
        library.save({}, true);
        limitFileSize(how);
    }
    int code = 0;
    {
        ResourceSequenceWorker worker;
        LibraryJobManager jobs;
        ImportJob::BaseSettings settings;
        settings.library = &library;
        settings.worker = &worker;
        auto job = std::make_shared<ImportJob>(settings, std::vector<std::string>{source}, bag);
        job->setDuplicateHandling(ImportJob::ImportAll);
        std::mutex mutex;
        std::condition_variable condition;
        bool done = false;
        jobs.OnJobDone.connect([&](SharedPtr<LibraryJob>) {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
            condition.notify_all();
        });
        jobs.addJob(job);
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!condition.wait_for(lock, std::chrono::seconds(120), [&] { return done; }))
                return 6;
        }
        if (job->status() == thread::CompositeJob::CjFailed) code = 5;
        std::ofstream out(report);
        for (const std::string& file : job->getNotImportedImages()) out << file << "\n";
    }
    library.save({}, true);
    return code;
}

// Exit codes of the save child, as the tests read them.
enum ChildResult {
    ChildOk = 0,
    ChildMissingLogLine = 10,
    ChildLibraryChanged,
    ChildCreateSucceeded,
    ChildException,
};

int save(const std::string& libraryPath, const std::string& image, const std::string& how) {
    if (how == "nobody") {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) return ChildException;
    } else if (how.rfind("fsize=", 0) == 0) {
        limitFileSize(how);
    }
    ImageManager images;
    RecordingConnector connector;
    LogCapture log;
    int code = ChildOk;
    Library library(&images, &connector, libraryPath);
    openLibrary(library);
    ResourceID trip;
    for (const ResourceID& id : library.bags())
        if (library.bag(id)->name() == "Trip") trip = id;
    if (!trip.isValid()) return ChildLibraryChanged;
    library.getProperty(trip, "title")->setStringValue("changed");
    ResourceID added = library.addImage(image);
    library.modifyLockBag(trip)->insertImage(added);
    size_t expectedBags = 1;
    try {
        library.createBag(TestFolderBag::bagTypeStatic(), "New");
        code = ChildCreateSucceeded;
        expectedBags = 2;
    } catch (const LibraryException&) {
    }
    library.save({}, true);
    if (!log.contains("Failed to save bag: ") ||
        !log.contains("Writing of the library file failed: "))
        code = ChildMissingLogLine;
    // The library in memory goes on with the change.
    if (!library.bag(trip)->containsImage(added) ||
        library.getProperty(trip, "title")->stringValue() != "changed" ||
        library.bags().size() != expectedBags)
        code = ChildLibraryChanged;
    return code;
}

// Runs the changes of `ops` on the library and ends at once (see the file comment).
int changeAndCrash(const std::string& libraryPath, const std::vector<std::string>& ops) {
    setLogLevel(LogWarning);
    ImageManager images;
    RecordingConnector connector;
    auto* library = new Library(&images, &connector, libraryPath);  // never destroyed: no save
    openLibrary(*library);
    auto named = [&](const std::string& name) {
        for (const ResourceID& id : library->bags())
            if (library->bag(id)->name() == name) return id;
        ::_exit(3);
    };
    for (const std::string& op : ops) {
        const size_t equals = op.find('='), arrow = op.find('>');
        const std::string verb = op.substr(0, equals);
        const std::string first = op.substr(equals + 1, arrow - equals - 1);
        const std::string second = arrow == std::string::npos ? "" : op.substr(arrow + 1);
        if (verb == "create") {
            library->createBag(TestFolderBag::bagTypeStatic(), first);
        } else if (verb == "rename") {
            if (!library->renameBag(named(first), second)) ::_exit(2);
        } else if (verb == "move") {
            const ResourceID from = named(first), to = named(second);
            const HashSet ids = library->bag(from)->images();
            library->moveImages(std::vector<ResourceID>(ids.begin(), ids.end()), to);
            if (!library->bag(from)->images().empty()) ::_exit(2);
        } else {
            ::_exit(4);
        }
    }
    ::_exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "crash" && argc == 6)
            return crash(argv[2], argv[3], argv[4], std::atoi(argv[5]));
        if (mode == "change" && argc >= 4)
            return changeAndCrash(argv[2], std::vector<std::string>(argv + 3, argv + argc));
        if (mode == "save" && argc >= 4) return save(argv[2], argv[3], argc > 4 ? argv[4] : "");
        if (mode == "import" && argc >= 5)
            return import(argv[2], argv[3], argv[4], argc > 5 ? argv[5] : "");
    } catch (const std::exception& e) {
        std::cerr << "qor_mediadb_child: " << e.what() << "\n";
        return 1;
    }
    std::cerr << "usage: qor_mediadb_child crash LIBRARY SOURCE JOURNAL FD | change LIBRARY OP... "
                 "| save LIBRARY IMAGE [nobody|fsize=N] | import LIBRARY SOURCE REPORT [fsize=N]\n";
    return 1;
}
