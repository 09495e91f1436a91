// The library's files: a library of 200 events holding 500 pictures each (100 000 images), made
// once per run in a temporary folder, each figure beside its anchor in the same run:
//   Load:            a Library made on the folder and loaded (library.xml and the 200 .bag files
//                    read, every image entered in the ImageManager); destroyed untimed.
//   LoadPugixml:     the anchor: the same 201 files parsed by pugixml and every item's name
//                    collected, the floor of a load.
//   SaveAll:         every bag marked changed and the library saved: 200 .bag files and
//                    library.xml, each written crash-safe (temporary file, fsync, rename).
//   SavePugixml:     the anchor: the same 201 documents written by pugixml to plain files.
//   SaveOneChanged:  one picture's tag changed and the library saved; the counter files_written
//                    counts the files whose contents changed on disk (by inode and modification
//                    time): only that bag's file and library.xml are written.

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <pugixml.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "imagecache/metadata/FileMetadataCache.h"
#include "mediadb/bags/StandardBagTypes.h"
#include "mediadb/library/ImageManager.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryCacheConnector.h"

namespace {

using namespace qor;
using mediadb::Library;

constexpr int kBags = 200;
constexpr int kImagesPerBag = 500;

// The library and what it stands on, as an application has them.
struct Opened {
    explicit Opened(const std::string& folder) {
        library = std::make_unique<Library>(&images, &connector, folder + "/");
        mediadb::registerStandardBagTypes(*library);
        library->load();
    }
    ~Opened() { library.reset(); }

    mediadb::ImageManager images;
    imagecache::FileMetadataCache files{&images};
    mediadb::LibraryCacheConnector connector{&files};
    std::unique_ptr<Library> library;
};

// The library every case starts from, made once.
struct Made {
    std::string folder;
    std::vector<std::string> files;  // library.xml and every .bag

    Made() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-library-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("can't make a temporary folder");
        folder = pattern + "/Photos";
        Opened opened(folder);
        Library& library = *opened.library;
        for (int b = 0; b < kBags; ++b) {
            char name[32];
            std::snprintf(name, sizeof name, "Event %03d", b);
            const ResourceID bag = library.createBag("event", name);
            std::vector<std::string> paths;
            for (int i = 0; i < kImagesPerBag; ++i) {
                char file[32];
                std::snprintf(file, sizeof file, "IMG_%04d.JPG", i);
                paths.push_back(file);
            }
            std::vector<ResourceID> ids;
            library.adoptImages(ids, paths, bag);
        }
        library.shutdown();
        files.push_back(folder + "/library.xml");
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
            if (entry.path().filename() == ".bag") files.push_back(entry.path().string());
        if (files.size() != kBags + 1) throw std::runtime_error("bag files missing");
    }
    ~Made() { std::filesystem::remove_all(std::filesystem::path(folder).parent_path()); }
};

const Made& made() {
    static Made m;
    return m;
}

void Load(benchmark::State& state) {
    const Made& m = made();
    size_t images = 0;
    for (auto _ : state) {
        auto opened = std::make_unique<Opened>(m.folder);
        state.PauseTiming();
        images = opened->images.size();
        opened.reset();
        state.ResumeTiming();
    }
    state.counters["images"] = double(images);
}
BENCHMARK(Load)->Unit(benchmark::kMillisecond)->UseRealTime();

void LoadPugixml(benchmark::State& state) {
    const Made& m = made();
    std::vector<std::string> names;
    for (auto _ : state) {
        names.clear();
        for (const std::string& file : m.files) {
            pugi::xml_document doc;
            if (!doc.load_file(file.c_str())) throw std::runtime_error("cannot parse " + file);
            for (pugi::xpath_node item : doc.select_nodes("//item"))
                names.emplace_back(item.node().attribute("name").value());
        }
        benchmark::DoNotOptimize(names.data());
    }
    state.counters["images"] = double(names.size());
}
BENCHMARK(LoadPugixml)->Unit(benchmark::kMillisecond)->UseRealTime();

void SaveAll(benchmark::State& state) {
    Opened opened(made().folder);
    Library& library = *opened.library;
    for (auto _ : state) {
        for (ResourceID id : library.bags("event")) library.addUnsaved(id);
        library.save({}, true);
    }
}
BENCHMARK(SaveAll)->Unit(benchmark::kMillisecond)->UseRealTime();

void SavePugixml(benchmark::State& state) {
    const Made& m = made();
    std::vector<std::unique_ptr<pugi::xml_document>> docs;
    for (const std::string& file : m.files) {
        docs.push_back(std::make_unique<pugi::xml_document>());
        docs.back()->load_file(file.c_str());
    }
    const std::string out = m.folder + "/../plain";
    std::filesystem::create_directories(out);
    for (auto _ : state)
        for (size_t i = 0; i < docs.size(); ++i)
            if (!docs[i]->save_file((out + "/" + std::to_string(i) + ".xml").c_str()))
                throw std::runtime_error("cannot write");
    std::filesystem::remove_all(out);
}
BENCHMARK(SavePugixml)->Unit(benchmark::kMillisecond)->UseRealTime();

// Inode and modification time of every file: a file replaced or rewritten changes one of them.
std::map<std::string, std::pair<ino_t, int64_t>> fileStamps(const std::string& folder) {
    std::map<std::string, std::pair<ino_t, int64_t>> stamps;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        struct stat st;
        if (entry.is_regular_file() && ::stat(entry.path().c_str(), &st) == 0)
            stamps[entry.path().string()] = {
                st.st_ino, int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec};
    }
    return stamps;
}

void SaveOneChanged(benchmark::State& state) {
    Opened opened(made().folder);
    Library& library = *opened.library;
    const ResourceID bag = library.bags("event").front();
    const ResourceID image = *library.bag(bag)->images().begin();
    size_t written = 0;
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const auto before = fileStamps(library.path());
        state.ResumeTiming();
        library.setItemTag(image, "round", std::to_string(++round));
        library.save({}, true);
        state.PauseTiming();
        const auto after = fileStamps(library.path());
        written = 0;
        for (const auto& [path, stamp] : after) {
            auto it = before.find(path);
            if (it == before.end() || it->second != stamp) ++written;
        }
        state.ResumeTiming();
    }
    state.counters["files_written"] = double(written);
}
BENCHMARK(SaveOneChanged)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
