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
//   qor_mediadb_child rename LIBRARY FROM TO
//       Loads the library, renames the bag FROM to TO and ends at once, as a crash would, before
//       the debounced save has run. Exit code 0 when the rename went through.
//   qor_mediadb_child moveimages LIBRARY FROM TO
//       Loads the library, moves every image of the bag FROM into the bag TO and ends at once.
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
#include <cstdlib>
#include <exception>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "../mediadb/LibraryTestBags.h"
#include "base/Log.h"
#include "mediadb/library/LibraryExceptions.h"

using namespace qor;
using namespace qor::mediadb;
using namespace qor::mediadb::testing;

namespace {

void openLibrary(Library& library) {
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
    openLibrary(library);
    const int journalFd = ::open(journal.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (journalFd < 0) return 2;
    if (::write(readyFd, "r", 1) != 1) return 3;
    ::close(readyFd);

    std::mt19937 random(static_cast<unsigned>(::getpid()));
    const std::string token = std::to_string(::getpid());
    for (int step = 0;; ++step) {
        std::vector<ResourceID> folders = library.bags(TestFolderBag::bagTypeStatic());
        std::vector<ResourceID> lists = library.bags(TestListBag::bagTypeStatic());
        const std::string name = "p" + token + "_" + std::to_string(step);
        // A library of a hundred images is enough; then the runs change settings and lists.
        const unsigned op = images.size() < 120 ? random() % 4 : 2 + random() % 2;
        switch (op) {
            case 0:
                if (folders.size() < 8) {
                    ResourceID bag = library.createBag(TestFolderBag::bagTypeStatic(), "E" + name);
                    library.getProperty(bag, "uid")->setStringValue("E" + name);
                    library.copyImage(source, bag, "", name + ".jpg", false);
                    break;
                }
                [[fallthrough]];
            case 1:
                if (!folders.empty()) {
                    ResourceID bag = folders[random() % folders.size()];
                    library.copyImage(source, bag, random() % 2 ? "sub" : "", name + ".jpg", true);
                }
                break;
            case 2:
                if (lists.size() < 4) {
                    ResourceID bag = library.createBag(TestListBag::bagTypeStatic(), "L" + name);
                    library.getProperty(bag, "uid")->setStringValue("L" + name);
                    break;
                }
                [[fallthrough]];
            default:
                if (!lists.empty() && !folders.empty()) {
                    SharedPtr<const Bag> from = library.bag(folders[random() % folders.size()]);
                    SharedPtr<Bag> list = library.modifyLockBag(lists[random() % lists.size()]);
                    if (from && list) {
                        int count = 0;
                        for (const ResourceID& image : from->images())
                            if (!list->containsImage(image) && count++ < 3)
                                list->insertImage(image);
                    }
                }
                if (!folders.empty())
                    library.getProperty(folders[random() % folders.size()], "title")
                        ->setStringValue(name);
                // And a rename: the folder or file moves at once, the index follows at the save.
                if (!folders.empty() && random() % 2)
                    library.renameBag(folders[random() % folders.size()], "R" + name);
                else if (!lists.empty())
                    library.renameBag(lists[random() % lists.size()], "R" + name);
                break;
        }
        library.save({}, true);
        const std::string line = stateLine(library);
        if (::write(journalFd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            return 4;
        ::fsync(journalFd);
    }
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
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit {};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = std::strtoul(how.c_str() + 6, nullptr, 10);
        ::setrlimit(RLIMIT_FSIZE, &limit);
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

int renameAndCrash(const std::string& libraryPath, const std::string& from, const std::string& to) {
    setLogLevel(LogWarning);
    ImageManager images;
    RecordingConnector connector;
    auto* library = new Library(&images, &connector, libraryPath);  // never destroyed: no save
    openLibrary(*library);
    for (const ResourceID& id : library->bags())
        if (library->bag(id)->name() == from) ::_exit(library->renameBag(id, to) ? 0 : 2);
    ::_exit(3);
}

int moveImagesAndCrash(const std::string& libraryPath, const std::string& from,
                       const std::string& to) {
    setLogLevel(LogWarning);
    ImageManager images;
    RecordingConnector connector;
    auto* library = new Library(&images, &connector, libraryPath);  // never destroyed: no save
    openLibrary(*library);
    ResourceID source, target;
    for (const ResourceID& id : library->bags()) {
        if (library->bag(id)->name() == from) source = id;
        if (library->bag(id)->name() == to) target = id;
    }
    if (!source.isValid() || !target.isValid()) ::_exit(3);
    const HashSet ids = library->bag(source)->images();
    library->moveImages(std::vector<ResourceID>(ids.begin(), ids.end()), target);
    ::_exit(library->bag(target)->images().size() == ids.size() ? 0 : 2);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "crash" && argc == 6)
            return crash(argv[2], argv[3], argv[4], std::atoi(argv[5]));
        if (mode == "rename" && argc == 5) return renameAndCrash(argv[2], argv[3], argv[4]);
        if (mode == "moveimages" && argc == 5) return moveImagesAndCrash(argv[2], argv[3], argv[4]);
        if (mode == "save" && argc >= 4) return save(argv[2], argv[3], argc > 4 ? argv[4] : "");
    } catch (const std::exception& e) {
        std::cerr << "qor_mediadb_child: " << e.what() << "\n";
        return 1;
    }
    std::cerr << "usage: qor_mediadb_child crash LIBRARY SOURCE JOURNAL FD | save LIBRARY IMAGE "
                 "[nobody|fsize=N]\n";
    return 1;
}
