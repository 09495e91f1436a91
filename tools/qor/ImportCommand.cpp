// qor import SRC... --library DIR [--into BAG] [--adopt] [--duplicates ask|skip|all]
//            [--no-recurse] [--json]
//
// Brings the pictures of files and folders into the library through an ImportJob: the job scans
// the sources, reads every picture's metadata, checks it against the library's pictures by item
// checksum, copies it into the bag (without --into: the event of its capture day) and puts raw
// and JPEG files of one shot into one family. With --adopt the sources lie in the library folder
// already and are taken in where they are.
//
// Threads. The main thread adds the jobs, draws the progress bar, turns Ctrl-C into a cancel and
// waits for every job's OnJobDone. A job's run() runs on the job manager's dispatcher thread, its
// reading and copying on the ResourceSequenceWorker's thread, which also asks the duplicate
// question. `Terminal::mutex` guards standard error between the bar (main thread) and the question
// (worker thread); `DoneWatch::mutex` guards the set of jobs done. Neither is held while calling a
// job or the job manager.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Commands.h"
#include "ItemText.h"
#include "LibrarySession.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceSequenceWorker.h"
#include "imageio/ImageIO.h"
#include "mediadb/bags/ContainerBag.h"
#include "mediadb/import/DuplicateManager.h"
#include "mediadb/import/ImportJob.h"
#include "mediadb/import/LibraryJobManager.h"
#include "util/Signal.h"

namespace qor::tool {

namespace {

using mediadb::ImportJob;
using mediadb::LibraryJob;

volatile std::sig_atomic_t g_importInterrupted = 0;
extern "C" void onImportInterrupt(int) { g_importInterrupted = 1; }

// More files than this in a list are only counted, unless -v asks for them.
constexpr size_t kFewFiles = 10;

struct ImportOptions {
    LibraryOptions library;  // the folder, --json; the sources in args
    std::string into;        // --into: a bag's name or place
    bool adopt = false;      // --adopt
    bool recursive = true;   // --no-recurse clears it
    ImportJob::DuplicateHandling duplicates = ImportJob::AskForDuplicates;
};

// Fills `o`; returns the exit status of a usage error, or 0.
int parseImportOptions(const std::vector<std::string>& args, ImportOptions& o) {
    LibraryOptions& l = o.library;
    l.command = "import";
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--library" || arg == "--into" || arg == "--duplicates") {
            if (i + 1 >= args.size()) return usageError("import: " + arg + " needs a value");
            const std::string& value = args[++i];
            if (arg == "--library") {
                l.dir = value;
            } else if (arg == "--into") {
                o.into = value;
            } else if (value == "ask" || value == "skip" || value == "all") {
                o.duplicates = value == "ask"    ? ImportJob::AskForDuplicates
                               : value == "skip" ? ImportJob::SkipDuplicates
                                                 : ImportJob::ImportAll;
            } else {
                return usageError("import: --duplicates takes ask, skip or all, not '" + value +
                                  "'");
            }
        } else if (arg == "--adopt") {
            o.adopt = true;
        } else if (arg == "--no-recurse") {
            o.recursive = false;
        } else if (arg == "--json") {
            l.json = true;
        } else {
            l.args.push_back(arg);
        }
    }
    if (l.args.empty()) return usageError("import: give one or more files or folders to import");
    return resolveLibraryDir(l);
}

// Standard error, shared by the progress bar and the duplicate question.
struct Terminal {
    std::mutex mutex;
    bool barOpen = false;  // a bar line is drawn and not ended; guarded by mutex
    std::string barState;  // the state the open bar shows; guarded by mutex

    // Ends an open bar line; the caller holds mutex.
    void endBar() {
        if (barOpen) std::fputc('\n', stderr);
        barOpen = false;
        barState.clear();
    }
};

// One line read from the terminal, trimmed and lower-cased; false at its end or on Ctrl-C. Polls,
// so that a Ctrl-C on the main thread ends a question waiting here on the worker's thread.
bool readAnswer(std::string& answer) {
    answer.clear();
    for (;;) {
        if (g_importInterrupted) return false;
        pollfd in{STDIN_FILENO, POLLIN, 0};
        const int ready = ::poll(&in, 1, 100);
        if (ready < 0 && errno != EINTR) return false;
        if (ready <= 0) continue;
        char c;
        const ssize_t got = ::read(STDIN_FILENO, &c, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        if (c == '\n') break;
        if (c != ' ' && c != '\t' && c != '\r') answer += char(std::tolower((unsigned char)c));
    }
    return true;
}

// The duplicate question of --duplicates ask, called on the worker's thread: on a terminal it
// asks per duplicate (y, n, all, none); otherwise it skips every duplicate and says so once.
class DuplicateAsker {
public:
    DuplicateAsker(Terminal& terminal, const mediadb::Library& library, bool interactive)
        : _terminal(terminal), _library(library), _interactive(interactive) {}

    bool operator()(ResourceID picture, const std::vector<ResourceID>& duplicates) {
        std::lock_guard<std::mutex> lock(_terminal.mutex);
        _terminal.endBar();
        if (_all != Undecided) return _all == ImportEvery;
        if (!_interactive) {
            std::fprintf(stderr,
                         "qor: import: duplicates are skipped: no terminal to ask on "
                         "(--duplicates all imports them)\n");
            _all = SkipEvery;
            return false;
        }
        const std::string source = pathOf(picture);
        const std::string known = duplicates.empty() ? "" : pathOf(duplicates.front());
        for (;;) {
            std::fprintf(stderr, "'%s' is in the library already%s%s%s. Import it? (y/n/all/none) ",
                         source.c_str(), known.empty() ? "" : " as '", known.c_str(),
                         known.empty() ? "" : "'");
            std::fflush(stderr);
            std::string answer;
            if (!readAnswer(answer)) {
                std::fputc('\n', stderr);
                _all = SkipEvery;  // end of input or Ctrl-C: no more questions
                return false;
            }
            if (answer == "y" || answer == "yes") return true;
            if (answer == "n" || answer == "no") return false;
            if (answer == "all" || answer == "none") {
                _all = answer == "all" ? ImportEvery : SkipEvery;
                return _all == ImportEvery;
            }
        }
    }

private:
    std::string pathOf(ResourceID id) const {
        const std::string path = _library.getImageResourceName(id).localPath();
        return path.empty() ? "a picture" : path;
    }

    enum Decision { Undecided, ImportEvery, SkipEvery };
    Terminal& _terminal;
    const mediadb::Library& _library;
    const bool _interactive;
    Decision _all = Undecided;  // guarded by _terminal.mutex
};

// The import's parts beside the library: the worker thread that reads and copies, the duplicate
// index, the job manager. They go in reverse order, and before the Session: the job manager stops
// (cancelling what is left and waiting for it) before the worker it uses, the worker before the
// duplicate managers its steps call, and all before the library shuts down.
struct ImportSession {
    Session session;
    std::unique_ptr<mediadb::LibraryDuplicateManager> index;
    std::unique_ptr<mediadb::ExternalDuplicateManager> duplicates;
    std::unique_ptr<ResourceSequenceWorker> worker;
    std::unique_ptr<mediadb::LibraryJobManager> jobs;

    bool open(const LibraryOptions& o) {
        if (!session.open(o, false)) return false;
        index = std::make_unique<mediadb::LibraryDuplicateManager>(session.library.get());
        duplicates =
            std::make_unique<mediadb::ExternalDuplicateManager>(session.library.get(), index.get());
        worker = std::make_unique<ResourceSequenceWorker>("qor-import");
        jobs = std::make_unique<mediadb::LibraryJobManager>();
        return true;
    }

    ~ImportSession() {
        if (jobs) jobs->shutdown();
        jobs.reset();
        if (worker) worker->shutdown();
        worker.reset();
        duplicates.reset();
        index.reset();
    }
};

// The jobs whose OnJobDone came (on the dispatcher's, the worker's or the cancelling thread), and
// the pictures each has read: OnJobUpdated comes once per picture of the reading pass.
struct DoneWatch {
    std::mutex mutex;
    std::condition_variable changed;
    std::set<const LibraryJob*> done;            // guarded by mutex
    std::map<const LibraryJob*, unsigned> read;  // guarded by mutex
};

// The container bag (event) named by --into; null after one line on standard error.
SharedPtr<const mediadb::ContainerBag> destinationBag(const ImportOptions& o, Session& s) {
    const SharedPtr<const mediadb::Bag> bag = s.findBag(o.library, o.into);
    if (!bag) return nullptr;
    auto container = dynamic_ptr_cast<const mediadb::ContainerBag>(bag);
    if (!container)
        failure(o.library, "'" + bag->name() + "' is a " + bag->bagType() +
                               " bag, which holds no files (import into an event)");
    return container;
}

bool within(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder + "/");
}

// --adopt: the event each source lies in (with --into, that one, which must hold them all;
// without, the nearest event folder at or above the source, or a new event made of a source
// folder that is none yet). Fills `byBag` with the sources of each; returns 0, or 1 after one
// line on standard error.
int adoptionBags(const ImportOptions& o, Session& s, const std::vector<std::string>& sources,
                 const SharedPtr<const mediadb::ContainerBag>& into,
                 std::map<ResourceID, std::vector<std::string>>& byBag) {
    const mediadb::Library& library = *s.library;
    const std::string root = library.path().substr(0, library.path().size() - 1);
    for (const std::string& source : sources) {
        if (!within(source, root) || source == root)
            return failure(o.library, "'" + source +
                                          "' lies outside the library's bags (--adopt takes files "
                                          "that lie in the library folder already)");
        if (into) {
            const std::string folder = library.getBagResourceName(into->id()).localPath();
            if (!within(source, folder))
                return failure(o.library, "'" + source + "' lies outside '" + into->name() + "' (" +
                                              folder + ")");
            byBag[into->id()].push_back(source);
            continue;
        }
        ResourceID found;
        for (std::string folder = filesystem::isDirectory(source) ? source
                                                                  : filesystem::parentPath(source);
             within(folder, root) && folder != root; folder = filesystem::parentPath(folder)) {
            const ResourceID id = library.bagIdFromLocalPath(folder);
            const SharedPtr<const mediadb::Bag> bag = id.isValid() ? library.bag(id) : nullptr;
            if (bag && dynamic_cast<const mediadb::ContainerBag*>(bag.get())) {
                found = id;
                break;
            }
            if (folder.size() <= 1) break;
        }
        if (!found.isValid()) {
            if (!filesystem::isDirectory(source))
                return failure(o.library, "'" + source +
                                              "' lies in no event of the library (adopt its "
                                              "folder, or give --into)");
            try {
                found = s.library->createBag("event", filesystem::leaf(source), source);
            } catch (const std::exception& e) {
                return failure(o.library, "cannot make an event of '" + source + "': " + e.what());
            }
        }
        byBag[found].push_back(source);
    }
    return 0;
}

// Draws the bar of the first job not done: its state, and for a state that counts files the
// count (pictures read for "ReadingMetadata", copied or skipped for "Copying"). Draws nothing
// while a duplicate question holds the terminal.
void drawProgress(Terminal& terminal, const ImportJob& job, unsigned touched) {
    const std::string state = job.state();
    if (state.empty() || state == "Waiting") return;
    std::unique_lock<std::mutex> lock(terminal.mutex, std::try_to_lock);
    if (!lock.owns_lock()) return;
    if (terminal.barOpen && terminal.barState != state) terminal.endBar();
    const unsigned total = job.total();
    if (total == 0 || (state != "ReadingMetadata" && state != "Copying")) {
        std::fprintf(stderr, "\r%s ...", state.c_str());
        std::fflush(stderr);
    } else {
        const unsigned done = state == "Copying" ? job.currentNumber() : touched;
        drawProgressBar(std::min(done, total), total, state.c_str(), false);
    }
    terminal.barOpen = true;
    terminal.barState = state;
}

// One list of the summary: its count, and its files when they are few or -v asks for them.
void printList(const char* what, const std::vector<std::string>& files, bool verbose) {
    if (files.empty()) return;
    std::printf("%s: %zu file%s\n", what, files.size(), files.size() == 1 ? "" : "s");
    if (verbose || files.size() <= kFewFiles)
        for (const std::string& file : files) std::printf("  %s\n", file.c_str());
}

struct Outcome {
    std::vector<std::string> imported, unsupported, notImported;
    std::set<std::string> bags;  // the names of the bags that received pictures
    std::string failure;         // the first job's failure, "" when all ran
};

Outcome collect(const Session& s, const std::vector<SharedPtr<ImportJob>>& jobs) {
    Outcome out;
    for (const SharedPtr<ImportJob>& job : jobs) {
        if (job->status() == thread::CompositeJob::CjFailed && out.failure.empty())
            out.failure = job->failure().empty() ? "the import failed" : job->failure();
        for (ResourceID id : job->getImportedImages()) {
            out.imported.push_back(s.library->getImageResourceName(id).localPath());
            if (SharedPtr<const mediadb::Bag> bag = s.library->bag(s.library->containerId(id)))
                out.bags.insert(bag->name());
        }
        for (const std::string& file : job->getUnsupportedFiles()) out.unsupported.push_back(file);
        for (const std::string& file : job->getNotImportedImages()) out.notImported.push_back(file);
    }
    return out;
}

void printSummary(const ImportOptions& o, const Outcome& out) {
    if (o.library.json) {
        const Json summary = {{"imported", out.imported},
                              {"unsupported", out.unsupported},
                              {"not_imported", out.notImported}};
        std::printf("%s\n", summary.dump(2).c_str());
        return;
    }
    const bool verbose = logLevel() <= LogInfo;
    std::string into;
    for (const std::string& bag : out.bags) into += (into.empty() ? "" : ", ") + bag;
    std::printf("imported: %zu file%s%s%s\n", out.imported.size(),
                out.imported.size() == 1 ? "" : "s", into.empty() ? "" : " into ", into.c_str());
    if (verbose)
        for (const std::string& file : out.imported) std::printf("  %s\n", file.c_str());
    printList("unsupported", out.unsupported, verbose);
    printList("not imported", out.notImported, verbose);
}

// Runs the jobs to their end: draws the progress, cancels them all on Ctrl-C and waits for every
// OnJobDone all the same. Returns whether Ctrl-C came.
bool runJobs(ImportSession& is, std::vector<SharedPtr<ImportJob>>& jobs, Terminal& terminal) {
    DoneWatch watch;
    const ScopedConnection connection(is.jobs->OnJobDone.connect([&](SharedPtr<LibraryJob> job) {
        std::lock_guard<std::mutex> lock(watch.mutex);
        watch.done.insert(job.get());
        watch.changed.notify_all();
    }));
    // On the worker's thread, right after the state it reads was set there.
    const ScopedConnection updates(is.jobs->OnJobUpdated.connect([&](SharedPtr<LibraryJob> job) {
        if (job->state() != "ReadingMetadata") return;
        std::lock_guard<std::mutex> lock(watch.mutex);
        ++watch.read[job.get()];
    }));
    std::vector<SharedPtr<ImportJob>> scheduled;
    for (const SharedPtr<ImportJob>& job : jobs) {
        // An equal job scheduled already is given back in its place (and waited for once).
        auto given = static_ptr_cast<ImportJob>(is.jobs->addJob(job));
        if (std::find(scheduled.begin(), scheduled.end(), given) == scheduled.end())
            scheduled.push_back(given);
    }
    jobs = std::move(scheduled);

    const bool bar = progressBarWanted();
    bool cancelled = false;
    for (;;) {
        const ImportJob* current = nullptr;
        unsigned read = 0;
        {
            std::unique_lock<std::mutex> lock(watch.mutex);
            // Short enough that Ctrl-C (a flag set by the handler) stops the copies at once.
            watch.changed.wait_for(lock, std::chrono::milliseconds(20));
            for (const SharedPtr<ImportJob>& job : jobs)
                if (!watch.done.count(job.get())) {
                    current = job.get();
                    read = watch.read[current];
                    break;
                }
        }
        if (!current) break;
        if (g_importInterrupted && !cancelled) {
            cancelled = true;
            for (const SharedPtr<ImportJob>& job : jobs) job->cancel(false);
        }
        if (bar) drawProgress(terminal, *current, read);
    }
    std::lock_guard<std::mutex> lock(terminal.mutex);
    terminal.endBar();
    return cancelled;
}

}  // namespace

int runImport(const std::vector<std::string>& args) {
    ImportOptions o;
    if (const int status = parseImportOptions(args, o)) return status;
    const LibraryOptions& l = o.library;
    std::vector<std::string> sources;
    for (const std::string& source : l.args) {
        if (!filesystem::exists(source))
            return failure(l, "'" + source + "': no such file or folder");
        sources.push_back(absolute(source));
    }
    imageio::initSupportedItemsList();

    ImportSession is;
    if (!is.open(l)) return 1;
    Session& s = is.session;
    SharedPtr<const mediadb::ContainerBag> into;
    if (!o.into.empty() && !(into = destinationBag(o, s))) return 1;

    Terminal terminal;
    DuplicateAsker asker(terminal, *s.library,
                         isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0);
    ImportJob::BaseSettings settings;
    settings.library = s.library.get();
    settings.duplicates = is.duplicates.get();
    settings.worker = is.worker.get();
    settings.askDuplicate = [&asker](ResourceID picture, const std::vector<ResourceID>& known) {
        return asker(picture, known);
    };

    std::vector<SharedPtr<ImportJob>> jobs;
    if (o.adopt) {
        std::map<ResourceID, std::vector<std::string>> byBag;
        if (adoptionBags(o, s, sources, into, byBag)) return 1;
        for (const auto& [bagId, urls] : byBag) {
            auto bag = dynamic_ptr_cast<const mediadb::ContainerBag>(s.library->bag(bagId));
            jobs.push_back(
                std::make_shared<ImportJob>(settings, urls, bag, ImportJob::AdoptAfterScan));
        }
    } else {
        jobs.push_back(
            std::make_shared<ImportJob>(settings, sources, into, ImportJob::CopyAfterScan));
    }
    for (const SharedPtr<ImportJob>& job : jobs) {
        job->setRecursiveScan(o.recursive);
        job->setDuplicateHandling(o.duplicates);
    }

    g_importInterrupted = 0;
    void (*previous)(int) = std::signal(SIGINT, onImportInterrupt);
    const bool interrupted = runJobs(is, jobs, terminal);
    std::signal(SIGINT, previous);

    const Outcome out = collect(s, jobs);
    s.library->save({}, true);
    if (!out.failure.empty() && out.imported.empty()) return failure(l, out.failure);
    printSummary(o, out);
    if (interrupted) {
        std::fprintf(stderr, "qor: import: interrupted after %zu files imported\n",
                     out.imported.size());
        return 130;
    }
    return out.failure.empty() ? 0 : failure(l, out.failure);
}

}  // namespace qor::tool
