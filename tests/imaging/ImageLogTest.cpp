// ImageLog with a writer that keeps the pictures it is given: what is dumped, the index that lists
// it, the file limit, failures, and the switch.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../support/TempDir.h"
#include "PipelineTestSources.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/xml/XmlDocument.h"
#include "imaging/ImageLog.h"

using namespace qor;
using namespace qor::imaging;
using namespace qor::imaging::pipelinetest;
using qor::test::TempDir;

namespace {

// Keeps a copy of every picture, by file name, and writes a short file in its place.
class KeepingWriter : public ImageLogWriter {
public:
    struct Kept {
        int width = 0, height = 0, bits = 0;
        std::vector<unsigned char> rgba;  // rows without padding
    };

    const char* extension() const override { return "raw"; }
    void write(const std::string& path, const ImageLogPicture& picture) override {
        ++calls;
        if (failWith) throw std::runtime_error(failWith);
        Kept kept{picture.width, picture.height, picture.bitsPerChannel, {}};
        const size_t rowBytes = size_t(picture.width) * 4 * size_t(picture.bitsPerChannel / 8);
        for (int y = 0; y < picture.height; ++y) {
            const auto* row =
                static_cast<const unsigned char*>(picture.pixels) + size_t(y) * picture.byteStride;
            kept.rgba.insert(kept.rgba.end(), row, row + rowBytes);
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            pictures[filesystem::getName(path)] = std::move(kept);
        }
        std::FILE* file = std::fopen(path.c_str(), "wb");
        if (!file) throw std::runtime_error("cannot open");
        std::fputs("picture", file);
        std::fclose(file);
    }

    std::map<std::string, Kept> taken() {
        std::lock_guard<std::mutex> lock(mutex);
        return pictures;
    }

    std::atomic<int> calls{0};
    const char* failWith = nullptr;

private:
    std::mutex mutex;
    std::map<std::string, Kept> pictures;  // guarded by mutex
};

// Installs a KeepingWriter for one test; stops any log and removes the writer afterwards.
struct WriterGuard {
    std::shared_ptr<KeepingWriter> writer = std::make_shared<KeepingWriter>();
    WriterGuard() {
        ImageLog::stop();
        ImageLog::setWriter(writer);
    }
    ~WriterGuard() {
        ImageLog::stop();
        ImageLog::setWriter(nullptr);
    }
};

std::vector<std::string> folderNames(const std::string& folder) {
    std::vector<std::string> names;
    for (filesystem::UrlIterator it(folder); it.valid(); it.next()) names.push_back(it.name());
    std::sort(names.begin(), names.end());
    return names;
}

// The index's rows (cells as text) and the targets of its links.
struct Index {
    std::vector<std::vector<std::string>> rows;
    std::set<std::string> links;
};

Index readIndex(const std::string& folder) {
    Index index;
    XmlDocumentRapid doc;
    EXPECT_TRUE(doc.load(filesystem::pathJoin(folder, "index.html")));
    EXPECT_EQ(doc.root().name(), "html");
    NodeIterator table = doc.root().child("body").child("table");
    for (NodeIterator tr : table.children("tr")) {
        std::vector<std::string> cells;
        for (NodeIterator td : tr.children("td")) {
            cells.emplace_back(td.text());
            if (NodeIterator a = td.child("a")) {
                index.links.insert(std::string(a.attribute("href")));
                if (cells.back().empty()) cells.back() = std::string(a.text());
            }
        }
        if (!cells.empty()) index.rows.push_back(cells);
    }
    return index;
}

// Runs a request for every tile of a fresh 100 x 70 gradient in tiles of 64.
SharedPtr<GradientSource> runPipeline() {
    auto source = GradientSource::create({100, 70}, {64, 64});
    ImageSource::TileArray tiles = source->getTiles(allTiles({2, 2}), false, nullptr, {});
    EXPECT_TRUE(tiles(1, 1));
    return source;
}

int kindCount(const Index& index, const std::string& kind) {
    int n = 0;
    for (const auto& row : index.rows) n += row.size() > 2 && row[2] == kind;
    return n;
}

}  // namespace

TEST(ImageLog, OffByDefaultItWritesNothing) {
    WriterGuard guard;
    TempDir dir;
    CacheGuard cache;
    EXPECT_FALSE(ImageLog::enabled(ImageLogEverything));
    EXPECT_EQ(ImageLog::folder(), "");
    runPipeline();
    EXPECT_EQ(guard.writer->calls, 0);
    EXPECT_TRUE(folderNames(dir.path()).empty());
}

TEST(ImageLog, DumpsTilesAndRequestsWithAnIndexThatLinksThem) {
    WriterGuard guard;
    TempDir dir;
    CacheGuard cache;
    const std::string folder = dir / "log";
    ASSERT_TRUE(ImageLog::start(folder));
    EXPECT_TRUE(ImageLog::enabled(ImageLogSourceTiles));
    runPipeline();
    ImageLog::stop();
    EXPECT_FALSE(ImageLog::enabled(ImageLogEverything));

    // Each tile twice: computed by the source and handed out by the request, with its pixels.
    const auto pictures = guard.writer->taken();
    int sourceTiles = 0, requestTiles = 0;
    for (const auto& [name, kept] : pictures) {
        int x = -1, y = -1, number = 0;
        char kind[16] = {};
        ASSERT_EQ(
            std::sscanf(name.c_str(), "%*5d-%15[a-z]%d-tile-%d-%d.raw", kind, &number, &x, &y), 4)
            << name;
        (std::string(kind) == "source" ? sourceTiles : requestTiles)++;
        const Recti rect(x * 64, y * 64, x ? 36 : 64, y ? 6 : 64);
        ASSERT_EQ(kept.width, rect.width()) << name;
        ASSERT_EQ(kept.height, rect.height()) << name;
        ASSERT_EQ(kept.bits, 8);
        int bad = 0;
        for (int j = 0; j < rect.height(); ++j)
            for (int i = 0; i < rect.width(); ++i)
                for (int c = 0; c < 4; ++c)
                    bad += kept.rgba[(size_t(j) * rect.width() + i) * 4 + c] !=
                           gradientComponent(rect.xmin() + i, rect.ymin() + j, c);
        EXPECT_EQ(bad, 0) << name;
    }
    EXPECT_EQ(sourceTiles, 4);
    EXPECT_EQ(requestTiles, 4);

    // The index lists every file of the folder but itself, with sizes and formats.
    const Index index = readIndex(folder);
    std::vector<std::string> names = folderNames(folder);
    names.erase(std::find(names.begin(), names.end(), "index.html"));
    EXPECT_EQ(std::vector<std::string>(index.links.begin(), index.links.end()), names);
    EXPECT_EQ(kindCount(index, "source tile"), 4);
    EXPECT_EQ(kindCount(index, "request tile"), 4);
    EXPECT_EQ(kindCount(index, "tile layout"), 1);
    EXPECT_EQ(kindCount(index, "request"), 1);
    bool found = false;
    for (const auto& row : index.rows)
        if (row[2] == "source tile" && row[3].find("tile (1, 1)") != std::string::npos) {
            found = true;
            EXPECT_EQ(row[4], "36 x 6");
            EXPECT_EQ(row[5], "RGBA8u");
            EXPECT_NE(row[1].find(" s"), std::string::npos) << "a time: " << row[1];
        }
    EXPECT_TRUE(found);

    // Off again: a second run adds nothing.
    const int calls = guard.writer->calls;
    runPipeline();
    EXPECT_EQ(guard.writer->calls, calls);
}

TEST(ImageLog, ChosenKindsOnly) {
    WriterGuard guard;
    TempDir dir;
    CacheGuard cache;
    ASSERT_TRUE(ImageLog::start(dir.path(), ImageLogRequestResults));
    runPipeline();
    ImageLog::stop();
    const Index index = readIndex(dir.path());
    EXPECT_EQ(kindCount(index, "source tile"), 0);
    EXPECT_EQ(kindCount(index, "request tile"), 4);
    EXPECT_EQ(kindCount(index, "request"), 1);
}

TEST(ImageLog, StopsAtItsFileLimitWithOneLine) {
    WriterGuard guard;
    TempDir dir;
    CacheGuard cache;
    LogCapture log;
    ASSERT_TRUE(ImageLog::start(dir.path(), ImageLogEverything, 5));
    runPipeline();
    EXPECT_EQ(log.count("the limit of 5 files is reached"), 1u);
    EXPECT_FALSE(ImageLog::enabled(ImageLogEverything));
    EXPECT_EQ(ImageLog::folder(), "");
    const std::vector<std::string> names = folderNames(dir.path());
    EXPECT_EQ(names.size(), 5u) << "four pictures and the index";
    EXPECT_EQ(readIndex(dir.path()).links.size(), 4u);
}

TEST(ImageLog, AFailedWriteLogsOneLineAndTurnsTheLogOff) {
    WriterGuard guard;
    TempDir dir;
    CacheGuard cache;
    guard.writer->failWith = "disk full";
    LogCapture log;
    ASSERT_TRUE(ImageLog::start(dir.path()));
    runPipeline();
    EXPECT_EQ(log.count("Image log: cannot write"), 1u);
    EXPECT_EQ(log.count("disk full"), 1u);
    EXPECT_EQ(guard.writer->calls, 1) << "nothing is tried after the failure";
    EXPECT_FALSE(ImageLog::enabled(ImageLogEverything));

    // A folder that cannot be made, and no writer: start refuses with one line each.
    log.clear();
    test::TempDir other;
    const std::string file = other / "file";
    std::fclose(std::fopen(file.c_str(), "w"));
    EXPECT_FALSE(ImageLog::start(file + "/below"));
    ImageLog::setWriter(nullptr);
    EXPECT_FALSE(ImageLog::start(dir.path()));
    EXPECT_EQ(log.count("Image log:"), 2u);
}

// Requests on the workers while another thread turns the log on and off.
TEST(ImageLogThreads, HooksRaceWithStartAndStop) {
    WriterGuard guard;
    TempDir dir;
    CacheGuard cache;
    std::atomic<bool> done{false};
    std::thread toggler([&] {
        for (int i = 0; i < 20 && !done; ++i) {
            ImageLog::start(dir.path(), ImageLogEverything, 200);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            ImageLog::stop();
        }
    });
    for (int i = 0; i < 20; ++i) {
        auto source = GradientSource::create({100, 70}, {32, 32});
        ImageSource::TileArray tiles = source->getTiles(allTiles({4, 3}), false, nullptr, {});
        EXPECT_EQ(gradientMismatches(*tiles(3, 2), Recti(96, 64, 4, 6)), 0);
    }
    done = true;
    toggler.join();
    ImageLog::stop();
    const Index index = readIndex(dir.path());
    for (const std::string& link : index.links) EXPECT_TRUE(filesystem::exists(dir / link)) << link;
}
