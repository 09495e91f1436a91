#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "base/filesystem/FileRegion.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/filesystem/Path.h"
#include "base/filesystem/RandomAccessFile.h"
#include "text/TextUtils.h"
#include "../support/TempDir.h"
#include "FileTestHelpers.h"

using namespace qor;
using namespace qor::filesystem;

namespace {

using qor::test::TempDir;
using qor::test::listNames;
using qor::test::readText;
using qor::test::writeText;

// Whether another thread could take this lock right now (locks never wait for their own thread).
bool lockableFromOtherThread(const std::string& path, int mode) {
    bool held = false;
    std::thread t([&] { held = FilesystemScopedLock::tryLock(path, mode).held(); });
    t.join();
    return held;
}

}  // namespace

// --- Path locks ------------------------------------------------------------------------------

TEST(FilesystemScopedLock, NormalisesPathsBeforeComparing) {
    EXPECT_EQ(FilesystemScopedLock::lockKey("/a/b/../c/"), "/a/c");
    EXPECT_EQ(FilesystemScopedLock::lockKey("file:///a//c/./"), "/a/c");
    EXPECT_EQ(FilesystemScopedLock::lockKey("/"), "/");
    char cwd[4096];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(FilesystemScopedLock::lockKey("x/y"), normalizePathUnix(std::string(cwd) + "/x/y"));
    EXPECT_THROW(FilesystemScopedLock(""), FilesystemException);
}

TEST(FilesystemScopedLock, SameThreadNestsAndMovedLockReleasesOnce) {
    const size_t before = FilesystemScopedLock::heldCount();
    {
        FilesystemScopedLock outer("/nest/a", FilesystemScopedLock::Exclusive);
        // The thread's own folder lock does not block a lock below it.
        FilesystemScopedLock inner = FilesystemScopedLock::tryLock("/nest/a/b", 0);
        EXPECT_TRUE(inner.held());
        EXPECT_EQ(FilesystemScopedLock::heldCount(), before + 2);

        FilesystemScopedLock moved(std::move(outer));
        EXPECT_FALSE(outer.held());
        EXPECT_TRUE(moved.held());
        moved = FilesystemScopedLock();
        EXPECT_EQ(FilesystemScopedLock::heldCount(), before + 1);

        ScopedPtr<FilesystemScopedLock> p = aquirePathLock("/nest/c", 1);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->path(), "/nest/c");
        EXPECT_EQ(FilesystemScopedLock::heldCount(), before + 2);
    }
    EXPECT_EQ(FilesystemScopedLock::heldCount(), before);
}

TEST(FilesystemScopedLockThreads, ConflictsFollowTheFolderHierarchy) {
    struct Case {
        const char* held;
        int heldMode;
        const char* wanted;
        int wantedMode;
        bool conflict;
    };
    const Case cases[] = {
        {"/h/a", 1, "/h/a/b/c", 0, true},   // folder covers the file below
        {"/h/a/b/c", 0, "/h/a", 1, true},   // and the other way round
        {"/h/a/b/c", 1, "/h/a/", 0, true},  // trailing separator ignored
        {"/h/a", 1, "/h/a", 1, true},          {"/h/a/b", 1, "/h/a/c", 1, false},  // siblings
        {"/h/a", 1, "/h/ab", 1, false},   // a name prefix is not a folder
        {"/h/a", 0, "/h/a/b", 0, false},  // shared with shared
        {"/h/a", 0, "/h/a", 0, false},         {"/", 1, "/h/x", 0, true},
        {"/h/a/b/../c", 1, "/h/a/c", 0, true},  // normalised first
        {"/h/a/./c", 0, "/h//a/c/d", 1, true},
    };
    for (const Case& c : cases) {
        FilesystemScopedLock holder(c.held, c.heldMode);
        EXPECT_EQ(lockableFromOtherThread(c.wanted, c.wantedMode), !c.conflict)
            << c.held << " (" << c.heldMode << ") vs " << c.wanted << " (" << c.wantedMode << ")";
    }
    EXPECT_TRUE(lockableFromOtherThread("/h/a", 1));  // all released again
}

TEST(FilesystemScopedLockThreads, ExclusiveWaiterIsWokenWhenHolderGoes) {
    auto holder = std::make_unique<FilesystemScopedLock>("/wake/a", 0);
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        FilesystemScopedLock lock("/wake/a/b", 1);  // blocks
        acquired = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(acquired.load());
    holder.reset();
    waiter.join();
    EXPECT_TRUE(acquired.load());
}

TEST(FilesystemScopedLockThreads, TimedAcquireGivesUpWhileHeld) {
    FilesystemScopedLock holder("/timed/a", 1);
    std::thread t([] {
        auto start = std::chrono::steady_clock::now();
        ScopedPtr<FilesystemScopedLock> p = aquirePathLock("/timed/a/x", 0, 0.05);
        EXPECT_FALSE(p);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
        EXPECT_TRUE(aquirePathLock("/timed/b", 1, 0.05));
    });
    t.join();
}

TEST(FilesystemScopedLockThreads, NeverHoldsConflictingLocksAtOnce) {
    const std::vector<std::string> paths = {"/s", "/s/a", "/s/a/x", "/s/b", "/s/b/y", "/s/c"};
    auto overlaps = [](const std::string& p, const std::string& q) {
        auto below = [](const std::string& x, const std::string& y) {
            return x.size() > y.size() && x.compare(0, y.size(), y) == 0 && x[y.size()] == '/';
        };
        return p == q || below(p, q) || below(q, p);
    };
    struct Held {
        std::string path;
        int mode;
        int thread;
    };
    std::mutex tableMutex;
    std::vector<Held> table;
    std::atomic<int> violations{0}, exclusives{0};

    auto enter = [&](const std::string& path, int mode, int thread) {
        std::lock_guard<std::mutex> g(tableMutex);
        for (const Held& h : table)
            if (h.thread != thread && overlaps(h.path, path) && (h.mode == 1 || mode == 1))
                ++violations;
        table.push_back({path, mode, thread});
    };
    auto leave = [&](const std::string& path, int thread) {
        std::lock_guard<std::mutex> g(tableMutex);
        for (auto it = table.begin(); it != table.end(); ++it) {
            if (it->thread == thread && it->path == path) {
                table.erase(it);
                break;
            }
        }
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(1234 + t);
            for (int i = 0; i < 150; ++i) {
                const std::string& p = paths[rng() % paths.size()];
                int mode = static_cast<int>(rng() % 2);
                FilesystemScopedLock lock(p, mode);
                enter(p, mode, t);
                if (mode == 1) ++exclusives;
                // Now and then a second, non-overlapping lock, taken in byte order.
                if (p == "/s/a" && rng() % 2) {
                    FilesystemScopedLock second("/s/c", 1);
                    enter("/s/c", 1, t);
                    std::this_thread::yield();
                    leave("/s/c", t);
                }
                std::this_thread::yield();
                leave(p, t);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_GT(exclusives.load(), 0);
    EXPECT_TRUE(table.empty());
}

TEST(LockedFileThreads, HoldsThePathLockWhileOpen) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    writeText(dir / "a.jpg", "data");
    {
        LockedFile f(dir / "a.jpg");
        EXPECT_TRUE(f.pathLock().held());
        EXPECT_EQ(f.pathLock().mode(), FilesystemScopedLock::Shared);
        EXPECT_EQ(f.size(), 4u);
        EXPECT_TRUE(lockableFromOtherThread(dir / "a.jpg", 0));
        EXPECT_FALSE(lockableFromOtherThread(dir.path(), 1));
    }
    EXPECT_TRUE(lockableFromOtherThread(dir.path(), 1));
    // A failed open gives the lock back.
    EXPECT_THROW(LockedFile(dir / "missing.jpg", RandomAccessFileStd::ModeReadWrite), RAFException);
    EXPECT_TRUE(lockableFromOtherThread(dir / "missing.jpg", 1));
}

// --- Random access files ---------------------------------------------------------------------

namespace {

// The common contract, run on every writable kind of file.
void exerciseFile(RandomAccessFile& f) {
    const char text[] = "hello world";
    f.write(text, 11);
    EXPECT_EQ(f.size(), 11u);
    EXPECT_EQ(f.tell(), 11u);

    char buf[32] = {};
    f.seek(6);
    EXPECT_EQ(f.read(buf, 5), 5u);
    EXPECT_EQ(std::string(buf, 5), "world");
    EXPECT_EQ(f.read(buf, 5), 0u);  // at the end: nothing, no error
    EXPECT_TRUE(f.atEnd());

    EXPECT_EQ(f.readAt(8, buf, sizeof buf), 3u);  // short read across the end
    EXPECT_EQ(std::string(buf, 3), "rld");
    EXPECT_EQ(f.tell(), 11u);  // readAt leaves the position alone

    // Writing past the end grows the file; the gap reads as zeros.
    f.writeAt(14, "!", 1);
    EXPECT_EQ(f.size(), 15u);
    EXPECT_EQ(f.readAt(10, buf, 5), 5u);
    EXPECT_EQ(std::memcmp(buf, "d\0\0\0!", 5), 0);

    f.append("?", 1);
    EXPECT_EQ(f.size(), 16u);
    EXPECT_EQ(f.tell(), 16u);

    f.resize(5);
    EXPECT_EQ(f.size(), 5u);
    std::vector<uint8_t> all = f.readAll();
    EXPECT_EQ(std::string(all.begin(), all.end()), "hello");
    f.seek(0);
    EXPECT_THROW(f.readFully(buf, 6), RAFException);
}

}  // namespace

TEST(RandomAccessFile, StdAndMemoryFollowTheSameContract) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    {
        RandomAccessFileStd f(dir / "f.bin", RandomAccessFileStd::ModeCreate);
        EXPECT_FALSE(f.isReadOnly());
        exerciseFile(f);
    }
    EXPECT_EQ(readText(dir / "f.bin"), "hello");

    RandomAccessFileMemory m;
    exerciseFile(m);
    EXPECT_EQ(std::string(m.buffer().begin(), m.buffer().end()), "hello");
}

TEST(RandomAccessFile, ReadOnlyFilesRefuseWrites) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    writeText(dir / "r.bin", "abc");
    RandomAccessFileStd f(dir / "r.bin");
    EXPECT_TRUE(f.isReadOnly());
    EXPECT_THROW(f.write("x", 1), RAFException);
    EXPECT_THROW(f.resize(0), RAFException);

    const char mem[] = "view";
    RandomAccessFileMemory view(mem, 4);
    EXPECT_TRUE(view.isReadOnly());
    EXPECT_EQ(view.data(), reinterpret_cast<const uint8_t*>(mem));  // no copy
    EXPECT_THROW(view.writeAt(0, "x", 1), RAFException);
    char buf[8];
    EXPECT_EQ(view.readAt(2, buf, 8), 2u);
}

TEST(RandomAccessFile, OpenFailureNamesThePath) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    const std::string missing = dir / "missing.jpg";
    try {
        RandomAccessFileStd f(missing);
        FAIL() << "opened a missing file";
    } catch (const RAFException& e) {
        EXPECT_NE(e.message().find(missing), std::string::npos) << e.message();
        EXPECT_NE(e.message().find("No such file"), std::string::npos) << e.message();
    }
    EXPECT_THROW(RandomAccessFileStd(dir.path()), RAFException);  // a folder
    // ModeOpenOrCreate keeps what is there.
    writeText(dir / "keep.bin", "keep");
    EXPECT_EQ(RandomAccessFileStd(dir / "keep.bin", RandomAccessFileStd::ModeOpenOrCreate).size(),
              4u);
}

TEST(FileRegion, IsABoundedWindowOnItsParent) {
    RandomAccessFileMemory parent(
        std::vector<uint8_t>{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'});
    FileRegion region(parent, 2, 5, false);
    char buf[16] = {};
    EXPECT_EQ(region.read(buf, sizeof buf), 5u);
    EXPECT_EQ(std::string(buf, 5), "23456");
    EXPECT_EQ(region.readAt(5, buf, 4), 0u);

    auto message = [](auto&& fn) {
        try {
            fn();
        } catch (const RAFException& e) {
            return e.message();
        }
        return std::string("no exception");
    };
    EXPECT_EQ(message([&] { region.readAt(6, buf, 1); }), "Read out of bounds");
    EXPECT_EQ(message([&] { region.writeAt(3, "abc", 3); }), "Write out of bounds");
    EXPECT_EQ(message([&] { region.append("a", 1); }), "Cannot append to FileRegion!");
    EXPECT_EQ(message([&] { FileRegion(parent, 8, 3); }), "Invalid file region");

    region.writeAt(0, "ab", 2);
    EXPECT_EQ(parent.buffer()[2], 'a');
    FileRegion readOnly(parent, 0, 10);
    EXPECT_THROW(readOnly.writeAt(0, "x", 1), RAFException);
}

// --- Paths -----------------------------------------------------------------------------------

TEST(Path, NormalisesLexically) {
    const std::pair<const char*, const char*> unixCases[] = {
        {"/a/b/../c", "/a/c"},
        {"/a//b/./c/", "/a/b/c/"},
        {"a\\b\\..\\c", "a/c"},
        {"/../a", "/a"},
        {"../a/../../b", "../../b"},
        {"a/..", "."},
        {"a/../", "./"},
        {"/", "/"},
        {"", ""},
    };
    for (auto [in, out] : unixCases) EXPECT_EQ(normalizePathUnix(in), out) << in;
    EXPECT_EQ(normalizePathWin("C:/a/b/../c"), "C:\\a\\c");
    EXPECT_EQ(normalizePathWin("C:\\..\\x\\"), "C:\\x\\");
    EXPECT_EQ(normalizePathWin("\\\\server\\share\\.\\f.jpg"), "\\\\server\\share\\f.jpg");
}

TEST(Path, SplitsAndJoinsParts) {
    EXPECT_EQ(pathJoin("/lib/", "/bag"), "/lib/bag");
    EXPECT_EQ(pathJoin("/lib", ""), "/lib");
    EXPECT_EQ(pathJoin("", "x"), "x");
    EXPECT_EQ(pathJoin("/", "x"), "/x");
    EXPECT_EQ(pathJoin(pathJoin("/lib/bag", "originals"), "a.CR2"), "/lib/bag/originals/a.CR2");

    EXPECT_EQ(leaf("/a/b.jpg"), "b.jpg");
    EXPECT_EQ(leaf("/a/originals/"), "originals");
    EXPECT_EQ(leaf("/"), "");
    EXPECT_EQ(getName("/a/b.tar.gz"), "b.tar.gz");
    EXPECT_EQ(getName("/a/b/"), "");
    EXPECT_EQ(getStem("/a/b.tar.gz"), "b.tar");
    EXPECT_EQ(getStem("/a/.bag"), ".bag");
    EXPECT_EQ(getExtension("/a/b.JPG"), "JPG");
    EXPECT_EQ(getExtension("/a.d/b"), "");
    EXPECT_EQ(parentPath("/a/b.jpg"), "/a");
    EXPECT_EQ(parentPath("/a/b/"), "/a");
    EXPECT_EQ(parentPath("/a"), "/");
    EXPECT_EQ(parentPath("a"), "");
    EXPECT_TRUE(isHiddenName("/x/.bag"));
    EXPECT_FALSE(isHiddenName("/.x/bag"));

    EXPECT_EQ(replaceSpecialChars("a/b\\c:d*e?f\"g<h>i|j\tk.l", "_"), "a_b_c_d_e_f_g_h_i_j_k.l");
    EXPECT_EQ(replaceSpecialChars("Sommer: 2024", ""), "Sommer 2024");
}

TEST(Path, CreatesFoldersWithParentsFromUrls) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    const std::string deep = dir / "a b/c/d";
    EXPECT_TRUE(createDirectoryFromUrl("file://" + dir.path() + "/a%20b/c/d/"));
    EXPECT_TRUE(isDirectory(deep));
    EXPECT_FALSE(createDirectoryFromUrl(deep));
    writeText(dir / "file", "x");
    EXPECT_THROW(createDirectoryFromUrl(dir / "file/sub"), FilesystemException);
    EXPECT_THROW(createDirectoryFromUrl(dir / "file"), FilesystemException);
}

TEST(Path, CopyUrlCopiesContentsAndTimes) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    std::string big(300000, 'x');
    for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>(i % 251);
    writeText(dir / "src.jpg", big);
    const Timestamp t = Timestamp::fromString("2020-05-06T07:08:09.123456Z");
    setLastWriteTime(dir / "src.jpg", t);

    copyUrl(dir / "src.jpg", dir / "dst.jpg");
    EXPECT_EQ(readText(dir / "dst.jpg"), big);
    EXPECT_EQ(lastWriteTime(dir / "dst.jpg"), t);
    EXPECT_EQ(listNames(dir.path()), (std::vector<std::string>{"dst.jpg", "src.jpg"}));

    // An existing target is refused unless overwriting is asked for.
    writeText(dir / "other.jpg", "other");
    EXPECT_THROW(copyUrl(dir / "other.jpg", dir / "dst.jpg"), FilesystemException);
    EXPECT_EQ(readText(dir / "dst.jpg"), big);
    copyUrl(dir / "other.jpg", dir / "dst.jpg", true);
    EXPECT_EQ(readText(dir / "dst.jpg"), "other");
}

// Replacing goes through a new file that takes the target's name: a second name of the old file
// keeps the old contents, and the new file has the source's permission bits, not the old target's.
TEST(Path, CopyOntoAnExistingFileReplacesItWhole) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    writeText(dir / "src.jpg", "new contents");
    ASSERT_EQ(::chmod((dir / "src.jpg").c_str(), 0640), 0);
    writeText(dir / "dst.jpg", "old");
    ASSERT_EQ(::chmod((dir / "dst.jpg").c_str(), 0600), 0);
    ASSERT_EQ(::link((dir / "dst.jpg").c_str(), (dir / "old.jpg").c_str()), 0);

    copyUrl(dir / "src.jpg", dir / "dst.jpg", true);
    EXPECT_EQ(readText(dir / "dst.jpg"), "new contents");
    EXPECT_EQ(readText(dir / "old.jpg"), "old");
    struct stat st;
    ASSERT_EQ(::stat((dir / "dst.jpg").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_nlink, 1u);
    EXPECT_EQ(listNames(dir.path()), (std::vector<std::string>{"dst.jpg", "old.jpg", "src.jpg"}));

    try {
        fileSize(dir / "missing.jpg");
        FAIL() << "a missing file has a size";
    } catch (const FilesystemException& e) {
        EXPECT_NE(e.message().find("missing.jpg': No such file"), std::string::npos) << e.message();
    }
}

TEST(Path, FailedCopyLeavesNoPartialTarget) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    try {
        copyUrl(dir / "missing.jpg", dir / "dst.jpg");
        FAIL() << "copied a missing file";
    } catch (const FilesystemException& e) {
        EXPECT_NE(e.message().find("missing.jpg"), std::string::npos) << e.message();
    }
    createDirectoryFromUrl(dir / "folder");
    EXPECT_THROW(copyUrl(dir / "folder", dir / "dst.jpg"), FilesystemException);
    EXPECT_THROW(copyUrl(dir / "folder", dir / "nowhere/dst.jpg"), FilesystemException);
    EXPECT_EQ(listNames(dir.path()), std::vector<std::string>{"folder"});
}

TEST(Path, MoveUrlMovesFilesAndFolders) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    writeText(dir / "a.jpg", "A");
    moveUrl(dir / "a.jpg", dir / "b.jpg");
    EXPECT_FALSE(exists(dir / "a.jpg"));
    EXPECT_EQ(readText(dir / "b.jpg"), "A");

    createDirectoryFromUrl(dir / "bag1/originals");
    writeText(dir / "bag1/originals/x.CR2", "raw");
    moveUrl(dir / "bag1", dir / "bag2");
    EXPECT_EQ(readText(dir / "bag2/originals/x.CR2"), "raw");
    EXPECT_FALSE(exists(dir / "bag1"));

    writeText(dir / "c.jpg", "C");
    EXPECT_THROW(moveUrl(dir / "c.jpg", dir / "b.jpg"), FilesystemException);
    EXPECT_EQ(readText(dir / "b.jpg"), "A");
    moveUrl(dir / "c.jpg", dir / "b.jpg", true);
    EXPECT_EQ(readText(dir / "b.jpg"), "C");
    EXPECT_THROW(moveUrl(dir / "gone.jpg", dir / "d.jpg"), FilesystemException);
}

TEST(Path, MoveUrlCopiesAcrossFileSystems) {
    TempDir here;
    TempDir there("/dev/shm");
    ASSERT_TRUE(here.ok());
    struct stat a, b;
    if (!there.ok() || ::stat(here.path().c_str(), &a) != 0 ||
        ::stat(there.path().c_str(), &b) != 0 || a.st_dev == b.st_dev)
        GTEST_SKIP() << "no second file system to move to";
    createDirectoryFromUrl(here / "bag/sub");
    writeText(here / "bag/sub/x.jpg", "x");
    writeText(here / "single.jpg", "s");
    const Timestamp t = Timestamp::fromTime_t(1000000000);
    setLastWriteTime(here / "bag/sub/x.jpg", t);
    // Links stay links (also broken ones), and modes and times come along, a read-only folder's
    // too once it is filled.
    ASSERT_EQ(::symlink("sub/x.jpg", (here / "bag/link.jpg").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (here / "bag/broken").c_str()), 0);
    ASSERT_EQ(::chmod((here / "bag/sub/x.jpg").c_str(), 0444), 0);
    setLastWriteTime(here / "bag/sub", t);
    ASSERT_EQ(::chmod((here / "bag/sub").c_str(), 0555), 0);

    moveUrl(here / "bag", there / "bag");
    moveUrl(here / "single.jpg", there / "single.jpg");
    EXPECT_EQ(readText(there / "bag/sub/x.jpg"), "x");
    EXPECT_EQ(lastWriteTime(there / "bag/sub/x.jpg"), t);
    EXPECT_EQ(lastWriteTime(there / "bag/sub"), t);
    EXPECT_EQ(readText(there / "single.jpg"), "s");
    EXPECT_TRUE(listNames(here.path()).empty());
    struct stat st;
    ASSERT_EQ(::lstat((there / "bag/link.jpg").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(readText(there / "bag/link.jpg"), "x");
    ASSERT_EQ(::lstat((there / "bag/broken").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(::stat((there / "bag/sub/x.jpg").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0444u);
    ASSERT_EQ(::stat((there / "bag/sub").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0555u);
    ::chmod((there / "bag/sub").c_str(), 0755);  // so that the folder can be removed

    // An existing target is refused and the source stays where it was.
    writeText(here / "again.jpg", "again");
    EXPECT_THROW(moveUrl(here / "again.jpg", there / "single.jpg"), FilesystemException);
    EXPECT_EQ(readText(here / "again.jpg"), "again");
    EXPECT_EQ(readText(there / "single.jpg"), "s");
    moveUrl(here / "again.jpg", there / "single.jpg", true);
    EXPECT_EQ(readText(there / "single.jpg"), "again");
    EXPECT_FALSE(exists(here / "again.jpg"));
}

// Removing counts every entry and never follows a link out of the tree.
TEST(Path, RemoveAllRemovesLinksNotTheirTargets) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    createDirectoryFromUrl(dir / "keep");
    writeText(dir / "keep/x.jpg", "x");
    createDirectoryFromUrl(dir / "tree/a/b");
    writeText(dir / "tree/a/b/y.jpg", "y");
    ASSERT_EQ(::symlink((dir / "keep").c_str(), (dir / "tree/a/keep").c_str()), 0);
    EXPECT_EQ(removeAll(dir / "tree"), 5u);  // tree, a, b, y.jpg, the link
    EXPECT_EQ(readText(dir / "keep/x.jpg"), "x");
    EXPECT_EQ(removeAll(dir / "tree"), 0u);
    EXPECT_THROW(removeFile(dir / "keep"), FilesystemException);  // not empty
}

// Threads that create the same folders at once all succeed; exactly one made the last part.
TEST(PathThreads, CreatingTheSameFoldersAtOnceSucceedsEverywhere) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    for (int round = 0; round < 20; ++round) {
        const std::string deep = dir / (std::to_string(round) + "/a/b/c/d");
        std::atomic<int> created{0}, failed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                try {
                    if (createDirectoryFromUrl(deep)) ++created;
                } catch (const FilesystemException&) {
                    ++failed;
                }
            });
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(failed.load(), 0);
        EXPECT_EQ(created.load(), 1);
        EXPECT_TRUE(isDirectory(deep));
    }
}

TEST(Path, UrlIteratorListsEntriesInNameOrder) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    writeText(dir / "b.jpg", "b");
    writeText(dir / "a.jpg", "a");
    writeText(dir / ".bag", "");
    createDirectoryFromUrl(dir / "originals");
    ASSERT_EQ(::symlink((dir / "originals").c_str(), (dir / "link").c_str()), 0);

    std::vector<std::string> names, folders, hidden;
    for (UrlIterator it(text::localPathToUrl(dir.path())); it.valid(); it.next()) {
        names.push_back(it.name());
        if (it.isDirectory()) folders.push_back(it.name());
        if (it.isHidden()) hidden.push_back(it.name());
        EXPECT_EQ(it.path(), dir / it.name());
        EXPECT_EQ(it.isSymlink(), it.name() == "link");
    }
    EXPECT_EQ(names, (std::vector<std::string>{".bag", "a.jpg", "b.jpg", "link", "originals"}));
    EXPECT_EQ(folders, (std::vector<std::string>{"link", "originals"}));
    EXPECT_EQ(hidden, std::vector<std::string>{".bag"});
    EXPECT_THROW(UrlIterator(dir / "missing"), FilesystemException);

    UrlInfo info = getUrlInfo(dir / ".bag");
    EXPECT_TRUE(info.exists && info.hidden && !info.isDirectory);
    EXPECT_FALSE(getUrlInfo(dir / "missing").exists);
    EXPECT_FALSE(removeFile(dir / "missing"));
    EXPECT_TRUE(removeFile(dir / "a.jpg"));
    EXPECT_EQ(removeAll(dir / "originals"), 1u);
    EXPECT_TRUE(exists(dir / "link") == false && isFile(dir / "b.jpg"));
}
