// qor cache build, get and check, run as the program itself on pictures made here.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "QorRun.h"
#include "base/filesystem/Path.h"

namespace qor::imageio {
namespace {

using namespace testing;
using Json = nlohmann::json;

// A small JPEG whose EXIF says `fnumber`.
Bytes photo(double fnumber) {
    return withMetadata(makeJpeg(48, 32), [&](Exiv2::Image& image) {
        image.exifData()["Exif.Photo.FNumber"] = Exiv2::URational(uint32_t(fnumber * 10 + 0.5), 10);
        image.exifData()["Exif.Image.Make"] = "Canon";
    });
}

// Rewrites the file with other contents and gives it back its time: a change that only its
// contents tell.
void rewriteKeepingTime(const TempFolder& folder, const std::string& name, const Bytes& bytes) {
    const std::string path = folder.path() + "/" + name;
    const Timestamp time = filesystem::lastWriteTime(path);
    folder.write(name, bytes);
    filesystem::setLastWriteTime(path, time);
}

class QorCache : public ::testing::Test {
protected:
    QorCache() {
        std::filesystem::create_directory(folder.path() + "/pics");
        a = folder.write("pics/a.jpg", photo(2.8));
        b = folder.write("pics/b.jpg", photo(4.0));
        folder.write("pics/notes.txt", {'h', 'i'});
        cache = folder.path() + "/cache";
    }
    double fnumber(const std::string& file) {
        const QorRun run = runQor(
            folder, {"cache", "get", file, "--cache", cache, "--field", "FNumber", "--json"});
        EXPECT_EQ(run.status, 0);
        return Json::parse(run.out)[0]["fields"]["FNumber"].get<double>();
    }

    TempFolder folder;
    std::string a, b, cache;
};

TEST_F(QorCache, GetAnswersFromTheCacheAndReadsAFileOnlyWhenItChanged) {
    const QorRun build =
        runQor(folder, {"cache", "build", folder.path() + "/pics", "--cache", cache});
    EXPECT_EQ(build.status, 0);
    EXPECT_EQ(build.out.rfind("2 files in ", 0), 0u) << build.out;
    EXPECT_NE(build.out.find(" files per second"), std::string::npos);

    const QorRun get = runQor(folder, {"cache", "get", a, b, "--cache", cache, "--json"});
    EXPECT_EQ(get.status, 0);
    const Json items = Json::parse(get.out);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]["file"], a);
    EXPECT_DOUBLE_EQ(items[0]["fields"]["FNumber"].get<double>(), 2.8);
    EXPECT_EQ(items[1]["fields"]["Imagesize"], Json::array({48, 32}));
    EXPECT_EQ(items[1]["fields"]["MD5"].get<std::string>().size(), 32u);

    // The cached value stands while the file's time does; a newer time has the file read again.
    rewriteKeepingTime(folder, "pics/a.jpg", photo(5.6));
    EXPECT_DOUBLE_EQ(fnumber(a), 2.8);
    filesystem::setLastWriteTime(a, filesystem::lastWriteTime(a).addSeconds(30));
    EXPECT_DOUBLE_EQ(fnumber(a), 5.6);
    // A file not in the cache yet is read and added.
    const std::string c = folder.write("c.jpg", photo(8.0));
    EXPECT_DOUBLE_EQ(fnumber(c), 8.0);
    rewriteKeepingTime(folder, "c.jpg", photo(1.4));
    EXPECT_DOUBLE_EQ(fnumber(c), 8.0);

    // Text fields always come from the file.
    const QorRun make =
        runQor(folder, {"cache", "get", a, "--cache", cache, "--field", "MakeString"});
    EXPECT_EQ(make.status, 0);
    EXPECT_NE(make.out.find("MakeString"), std::string::npos);
    EXPECT_NE(make.out.find("Canon"), std::string::npos);
}

TEST_F(QorCache, CheckPrintsEachRecordThatDiffersFromItsFile) {
    ASSERT_EQ(runQor(folder, {"cache", "build", folder.path() + "/pics", "--cache", cache}).status,
              0);
    const QorRun clean = runQor(folder, {"cache", "check", "--cache", cache});
    EXPECT_EQ(clean.status, 0);
    EXPECT_EQ(clean.out, "2 records, 0 differ from their files\n");

    rewriteKeepingTime(folder, "pics/a.jpg", photo(5.6));
    filesystem::removeFile(b);
    const QorRun check = runQor(folder, {"cache", "check", "--cache", cache});
    EXPECT_EQ(check.status, 1);
    EXPECT_NE(check.out.find(a + ": Cache field FNumber inconsistent: cached value is '2.8' file "
                                 "value is '5.6'\n"),
              std::string::npos)
        << check.out;
    EXPECT_NE(check.out.find(b + ": File is missing\n"), std::string::npos) << check.out;
    EXPECT_NE(check.out.find("2 records, 2 differ from their files"), std::string::npos);
}

TEST_F(QorCache, BadUsageGivesOneLineAndStatus2) {
    const std::vector<std::vector<std::string>> bad = {
        {"cache"},
        {"cache", "fill", "--cache", cache},
        {"cache", "build", folder.path()},
        {"cache", "build", "--cache", cache},
        {"cache", "get", a, "--cache", cache, "--field", "Fnumber"},
        {"cache", "build", folder.path(), "--cache", cache, "--json"},
        {"cache", "check", a, "--cache", cache},
        {"cache", "get", a, "--cache", cache, "--frob"},
        {"cache", "get", a, "--cache"},
    };
    for (const auto& args : bad) {
        const QorRun run = runQor(folder, args);
        EXPECT_EQ(run.status, 2) << args.back();
        EXPECT_EQ(run.errLines.size(), 1u) << args.back();
    }
    // A file that is no picture, or none at all: one line, the others still shown.
    const QorRun get = runQor(folder, {"cache", "get", folder.path() + "/pics/notes.txt",
                                       folder.path() + "/none.jpg", a, "--cache", cache});
    EXPECT_EQ(get.status, 1);
    ASSERT_EQ(get.errLines.size(), 2u);
    EXPECT_EQ(get.errLines[1], "qor: cache get: '" + folder.path() + "/none.jpg': no such file");
    EXPECT_NE(get.out.find(a + "\n  Imagesize"), std::string::npos) << get.out;
}

TEST_F(QorCache, CtrlCStopsTheBuildAndKeepsWhatWasRead) {
    const std::string many = folder.path() + "/many";
    std::filesystem::create_directory(many);
    const Bytes bytes = photo(2.8);
    for (int i = 0; i < 3000; ++i) folder.write("many/p" + std::to_string(i) + ".jpg", bytes);
    const std::string out = folder.path() + "/out.txt", err = folder.path() + "/err.txt";
    // Interrupted as soon as the cache is open, when the reading begins. An optimised build reads
    // the 3000 files in a twentieth of a second, so on a loaded machine the build may end before
    // the signal comes (exit 0, or 130 after all files): then it is run again.
    size_t done = 3000;
    for (int attempt = 0; attempt < 5 && done == 3000; ++attempt) {
        std::filesystem::remove_all(cache);
        const pid_t pid = startQor({"cache", "build", many, "--cache", cache}, out, err);
        ASSERT_GT(pid, 0);
        for (int i = 0; i < 10000 && !filesystem::exists(cache + "/metadata"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ::kill(pid, SIGINT);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        const Bytes errBytes = readFile(err);
        const std::string message(errBytes.begin(), errBytes.end());
        if (WEXITSTATUS(status) == 0) {
            EXPECT_EQ(message, "");
            continue;
        }
        EXPECT_EQ(WEXITSTATUS(status), 130);
        ASSERT_EQ(std::sscanf(message.c_str(),
                              "qor: cache build: interrupted after %zu of 3000 files", &done),
                  1)
            << message;
    }
    EXPECT_LT(done, 3000u);
    // Every file read before the interruption is in the cache, whole.
    const QorRun check = runQor(folder, {"cache", "check", "--cache", cache});
    EXPECT_EQ(check.status, 0);
    EXPECT_EQ(check.out, std::to_string(done) + " records, 0 differ from their files\n");
}

}  // namespace
}  // namespace qor::imageio
