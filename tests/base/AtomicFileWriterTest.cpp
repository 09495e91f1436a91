#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/AtomicFileWriter.h"
#include "base/filesystem/Path.h"
#include "base/xml/XmlDocument.h"

#include "../support/TempDir.h"
#include "FileTestHelpers.h"

using namespace qor;
using namespace qor::filesystem;
using qor::test::listNames;
using qor::test::readText;
using qor::test::TempDir;
using qor::test::writeText;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

// Runs `body` in a child process and returns its exit code (-1 when it did not exit). As root
// the child first becomes "nobody", so that folder permissions apply to it.
int inChild(const std::function<int()>& body, bool unprivileged = false) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (unprivileged && ::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))
            ::_exit(100);
        ::_exit(body());
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// A document of roughly `items` item elements that says which version it is.
XmlDocumentRapid versionDocument(const std::string& version, int items) {
    XmlDocumentRapid doc;
    NodeIterator group = doc.create("bag").appendAttribute("version", version).appendChild("group");
    for (int i = 0; i < items; ++i)
        group.appendChild("item").appendAttribute("name", version + "/" + std::to_string(i));
    return doc;
}

}  // namespace

TEST(AtomicFileWriter, ReplacesFileKeepingModeAndLeavesOnlyTheTarget) {
    TempDir dir(nullptr, "qor-atomic");
    ASSERT_TRUE(dir.ok());
    const std::string path = dir / "library.xml";

    // A new file gets the mode any new file gets.
    const mode_t mask = ::umask(022);
    writeFileAtomically(path, "first");
    EXPECT_EQ(readText(path), "first");
    EXPECT_EQ(modeOf(path), 0644u);
    ::umask(mask);

    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    writeFileAtomically(path, std::string(100000, 'x'), false);
    EXPECT_EQ(readText(path), std::string(100000, 'x'));
    EXPECT_EQ(modeOf(path), 0640u);
    EXPECT_EQ(listNames(dir.path()), std::vector<std::string>{"library.xml"});

    // Abandoned without commit: the old file stays, the temporary goes.
    {
        AtomicFileWriter writer(path);
        writer.write("never");
        EXPECT_TRUE(exists(writer.temporaryPath()));
        EXPECT_TRUE(isAtomicWriterTemporary(leaf(writer.temporaryPath())));
        EXPECT_EQ(writer.temporaryPath().find(dir / ".library.xml.tmp-"), 0u);
    }
    EXPECT_EQ(readText(path), std::string(100000, 'x'));
    EXPECT_EQ(listNames(dir.path()), std::vector<std::string>{"library.xml"});

    // A symbolic link stays a link; the file it names is replaced.
    ASSERT_EQ(::symlink("library.xml", (dir / "link.xml").c_str()), 0);
    writeFileAtomically(dir / "link.xml", "through the link");
    struct stat st {};
    ASSERT_EQ(::lstat((dir / "link.xml").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(readText(path), "through the link");
}

TEST(AtomicFileWriter, RemovesTemporariesOfDeadWritersOnly) {
    TempDir dir(nullptr, "qor-atomic");
    ASSERT_TRUE(dir.ok());
    const std::string path = dir / "a.bag";
    writeText(path, "old");
    // Left behind by a writer that crashed: no one holds its lock.
    writeText(dir / ".a.bag.tmp-Dead01", "partial");
    writeText(dir / ".a.bag.tmp-Dead02", "partial");
    // Not temporaries of this target.
    writeText(dir / ".b.bag.tmp-Dead03", "other target");
    writeText(dir / ".a.bag.tmp-toolong", "other pattern");
    EXPECT_TRUE(isAtomicWriterTemporary(".a.bag.tmp-Dead01"));
    EXPECT_FALSE(isAtomicWriterTemporary("a.bag"));
    EXPECT_FALSE(isAtomicWriterTemporary(".tmp-abcdef"));

    AtomicFileWriter live(path);
    live.write("in progress");
    {
        LogCapture log;
        EXPECT_EQ(removeStaleTemporaries(path), 2u);
        EXPECT_EQ(log.count("Removed the temporary"), 2u);
    }
    EXPECT_TRUE(exists(live.temporaryPath())) << "a live writer's temporary is never removed";
    EXPECT_EQ(removeStaleTemporaries(path), 0u);

    // A commit cleans up after crashed writers of its target itself.
    writeText(dir / ".a.bag.tmp-Dead04", "partial");
    {
        LogCapture log;
        live.commit();
    }
    EXPECT_EQ(readText(path), "in progress");
    std::vector<std::string> names = listNames(dir.path());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names,
              (std::vector<std::string>{".a.bag.tmp-toolong", ".b.bag.tmp-Dead03", "a.bag"}));
}

TEST(AtomicFileWriter, FailuresLeaveOldFileAndNoTemporary) {
    TempDir dir(nullptr, "qor-atomic");
    ASSERT_TRUE(dir.ok());
    const std::string folder = dir / "bags";
    const std::string path = pathJoin(folder, "x.bag");
    ASSERT_TRUE(createDirectoryFromUrl(folder));
    const XmlDocumentRapid old = versionDocument("old", 10);
    ASSERT_TRUE(old.save(path));
    const std::string oldBytes = readText(path);
    const XmlDocumentRapid big = versionDocument("new", 20000);  // about 600 KB

    enum { Ok = 0, SaveSucceeded = 1, NoLogLine = 2, WrongException = 3 };
    // A full disk: the file size limit makes write() fail with EFBIG, as ENOSPC would.
    const int fullDisk = inChild([&] {
        struct rlimit limit {};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        ::signal(SIGXFSZ, SIG_IGN);
        limit.rlim_cur = 64 * 1024;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        LogCapture log;
        if (big.save(path)) return int(SaveSucceeded);
        if (log.count("Cannot save XML file") != 1 || log.count("File too large") != 1)
            return int(NoLogLine);
        try {
            writeFileAtomically(path, std::string(200000, 'z'));
            return int(SaveSucceeded);
        } catch (const FilesystemException& e) {
            if (std::strstr(e.what(), "File too large") == nullptr) return int(WrongException);
        }
        return int(Ok);
    });
    EXPECT_EQ(fullDisk, Ok);
    EXPECT_EQ(readText(path), oldBytes);
    EXPECT_EQ(listNames(folder), std::vector<std::string>{"x.bag"});

    // A read-only folder: even the temporary cannot be made.
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
    const int readOnly = inChild(
        [&] {
            LogCapture log;
            if (big.save(path)) return int(SaveSucceeded);
            return log.count("Permission denied") == 1 ? int(Ok) : int(NoLogLine);
        },
        true);
    ::chmod(folder.c_str(), 0755);
    EXPECT_EQ(readOnly, Ok);
    EXPECT_EQ(readText(path), oldBytes);
    EXPECT_EQ(listNames(folder), std::vector<std::string>{"x.bag"});
}

// A writer killed at any moment leaves the file whole: the old version or the new one.
TEST(AtomicFileWriter, FileIsAlwaysOneWholeVersionWhenTheWriterIsKilled) {
    TempDir dir(nullptr, "qor-atomic");
    ASSERT_TRUE(dir.ok());
    const std::string path = dir / "library.xml";
    // Two versions of different sizes, each saying which it is.
    const XmlDocumentRapid small = versionDocument("A", 20);
    const XmlDocumentRapid large = versionDocument("B", 3000);
    const std::string smallBytes = small.toString();
    const std::string largeBytes = large.toString();
    ASSERT_TRUE(small.save(path));

    std::mt19937 rng(12345);
    const int kKills = 200;
    int sawSmall = 0, sawLarge = 0, leftovers = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int kill = 0; kill < kKills; ++kill) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(ready[0]);
            // Large first, so the parent sees both versions; tells the parent after one save.
            for (unsigned n = 0;; ++n) {
                if (!(n % 2 == 0 ? large : small).save(path)) ::_exit(1);
                if (n == 0 && ::write(ready[1], "r", 1) != 1) ::_exit(2);
            }
        }
        ::close(ready[1]);
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1) << "the writer failed before its first save";
        ::close(ready[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself, status " << status;

        const std::string now = readText(path);
        ASSERT_TRUE(now == smallBytes || now == largeBytes)
            << "kill " << kill << ": " << now.size() << " bytes, neither version";
        (now == smallBytes ? sawSmall : sawLarge)++;
        for (const std::string& name : listNames(dir.path()))
            if (isAtomicWriterTemporary(name)) ++leftovers;
        // The temporary of the killed writer is stale now and may go.
        LogCapture log;
        removeStaleTemporaries(path);
        EXPECT_EQ(listNames(dir.path()), std::vector<std::string>{"library.xml"});
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    RecordProperty("leftover_temporaries", leftovers);
    EXPECT_GT(sawSmall, 0);
    EXPECT_GT(sawLarge, 0);
    EXPECT_LT(seconds, 20.0);
    std::printf("%d kills in %.1f s: %d small, %d large, %d killed mid-write\n", kKills, seconds,
                sawSmall, sawLarge, leftovers);
}

// Writers of one target on several threads, each commit cleaning up after dead writers: no live
// writer's temporary is taken for a dead one, and the file ends as one whole version.
TEST(AtomicFileWriterThreads, ConcurrentWritersNeverLoseEachOthersTemporaries) {
    TempDir dir(nullptr, "qor-atomic");
    ASSERT_TRUE(dir.ok());
    const std::string path = dir / "shared.bag";
    const int kThreads = 4, kWrites = 150;
    std::vector<std::string> versions;
    for (int t = 0; t < kThreads; ++t) versions.push_back(std::string(1000 + 5000 * t, 'a' + t));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kWrites; ++i) {
                try {
                    AtomicFileWriter writer(path, false);
                    writer.write(versions[t].substr(0, 500));
                    writer.write(versions[t].substr(500));
                    // Another thread's commit may look for stale temporaries right now.
                    removeStaleTemporaries(path);
                    writer.commit();
                } catch (const FilesystemException& e) {
                    ++failures;
                    ADD_FAILURE() << e.what();
                }
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    const std::string now = readText(path);
    EXPECT_NE(std::find(versions.begin(), versions.end(), now), versions.end());
    EXPECT_EQ(listNames(dir.path()), std::vector<std::string>{"shared.bag"});
}
