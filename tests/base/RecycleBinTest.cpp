// The recycle bin on a home trash in a temporary folder. GLib reads $XDG_DATA_HOME once per
// process, so the suite sets it before its first call and checks that GLib took it; no other suite
// of this executable may use the trash.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "../support/TempDir.h"
#include "FileTestHelpers.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/platform/RecycleBin.h"

using namespace qor;
using namespace qor::filesystem;
using qor::test::listNames;
using qor::test::readText;
using qor::test::TempDir;
using qor::test::writeText;

namespace {

class RecycleBin : public testing::Test {
protected:
    // One data folder for the process, on the same file system as the test files ($TMPDIR), so
    // that GIO uses the home trash below it.
    static void SetUpTestSuite() {
        if (!s_data) {
            s_data = new TempDir(nullptr, "qor-xdg");
            ::setenv("XDG_DATA_HOME", s_data->path().c_str(), 1);
            std::atexit([] { delete s_data; });  // gone with the process, not before
        }
    }

    void SetUp() override {
        ASSERT_TRUE(s_data->ok() && _files.ok());
        ASSERT_EQ(eos::homeRecycleBinPath(), trash())
            << "GLib read XDG_DATA_HOME before this suite set it";
        // Each test starts with an empty trash.
        removeAll(trash());
    }

    static std::string trash() { return *s_data / "Trash"; }
    static std::string trashed(const std::string& name) {
        return pathJoin(trash() + "/files", name);
    }
    static std::string info(const std::string& name) {
        return readText(pathJoin(trash() + "/info", name + ".trashinfo"));
    }

    static TempDir* s_data;  // lives to the end of the process: GLib keeps the path
    TempDir _files{nullptr, "qor-trash"};
};

TempDir* RecycleBin::s_data = nullptr;

}  // namespace

TEST_F(RecycleBin, MovesFilesAndFoldersWithTheirOriginalPath) {
    const std::string file = _files / "photo.jpg";
    const std::string folder = _files / "event";
    writeText(file, "pixels");
    ASSERT_TRUE(createDirectoryFromUrl(pathJoin(folder, "originals")));
    writeText(pathJoin(folder, "originals/raw.cr2"), "raw");
    writeText(pathJoin(folder, ".bag"), "<bag/>");

    EXPECT_TRUE(eos::moveToRecycleBin(std::vector<std::string>{file, folder}));
    EXPECT_FALSE(exists(file));
    EXPECT_FALSE(exists(folder));
    EXPECT_EQ(readText(trashed("photo.jpg")), "pixels");
    EXPECT_EQ(readText(trashed("event/originals/raw.cr2")), "raw");
    EXPECT_EQ(readText(trashed("event/.bag")), "<bag/>");
    for (const auto& [name, original] :
         {std::pair{std::string("photo.jpg"), file}, std::pair{std::string("event"), folder}}) {
        const std::string text = info(name);
        EXPECT_NE(text.find("[Trash Info]"), std::string::npos) << text;
        EXPECT_NE(text.find("Path=" + original + "\n"), std::string::npos) << text;
        EXPECT_NE(text.find("DeletionDate="), std::string::npos) << text;
    }
}

TEST_F(RecycleBin, KeepsBothFilesOfTheSameName) {
    ASSERT_TRUE(createDirectoryFromUrl(_files / "a") && createDirectoryFromUrl(_files / "b"));
    writeText(_files / "a/same.jpg", "first");
    writeText(_files / "b/same.jpg", "second");
    EXPECT_TRUE(eos::moveToRecycleBin(_files / "a/same.jpg"));
    EXPECT_TRUE(eos::moveToRecycleBin(_files / "b/same.jpg"));

    const std::vector<std::string> names = listNames(trash() + "/files");
    ASSERT_EQ(names.size(), 2u);
    std::vector<std::string> contents;
    for (const std::string& name : names) {
        EXPECT_EQ(name.find("same"), 0u) << name;
        contents.push_back(readText(trashed(name)));
        // Each info file names the original that its file came from.
        const std::string original =
            _files / (contents.back() == "first" ? "a" : "b") + "/same.jpg";
        EXPECT_NE(info(name).find("Path=" + original + "\n"), std::string::npos) << info(name);
    }
    std::sort(contents.begin(), contents.end());
    EXPECT_EQ(contents, (std::vector<std::string>{"first", "second"}));
}

TEST_F(RecycleBin, ReportsEachPathThatCouldNotBeMoved) {
    const std::string kept = _files / "kept.jpg";
    const std::string missing = _files / "missing.jpg";
    const std::string sidecar = _files / "kept.xmp";
    writeText(kept, "k");
    writeText(sidecar, "x");
    {
        LogCapture log;
        EXPECT_FALSE(eos::moveToRecycleBin(missing));
        ASSERT_EQ(log.entries().size(), 1u);
        EXPECT_NE(log.entries()[0].text.find(missing), std::string::npos);
        EXPECT_NE(log.entries()[0].text.find("No such file"), std::string::npos)
            << log.entries()[0].text;
    }

    const ResourceID keptId(7, nullptr), missingId(8, nullptr);
    const std::vector<eos::RecycleItem> items = {
        {keptId, kept}, {missingId, missing}, {InvalidResourceID, sidecar}};
    std::vector<std::pair<int32_t, std::string>> heard;
    const eos::RecycleBinCallback callback = [&](ResourceID id, const std::string& message) {
        heard.emplace_back(id.id(), message);
    };
    LogCapture log;
    EXPECT_FALSE(eos::moveToRecycleBin(items, eos::RbReportFailures, callback));
    EXPECT_EQ(log.count("Cannot move '" + missing + "' to the recycle bin"), 1u);
    EXPECT_EQ(log.entries().size(), 1u);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].first, 8);
    EXPECT_FALSE(heard[0].second.empty());
    // The failure did not stop the others.
    EXPECT_FALSE(exists(kept));
    EXPECT_FALSE(exists(sidecar));

    // Every path reported: an empty message for a path that moved.
    writeText(kept, "again");
    heard.clear();
    EXPECT_FALSE(
        eos::moveToRecycleBin(std::vector<eos::RecycleItem>{{keptId, kept}, {missingId, missing}},
                              eos::RbReportAll, callback));
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0], (std::pair<int32_t, std::string>{7, ""}));
    EXPECT_EQ(heard[1].first, 8);
    EXPECT_FALSE(heard[1].second.empty());
    EXPECT_TRUE(eos::moveToRecycleBin(std::vector<eos::RecycleItem>{}, eos::RbReportAll, callback));
}
