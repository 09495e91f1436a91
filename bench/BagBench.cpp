// The bag family on a library of 100 events of 1000 pictures each, one picture in ten with an
// edited version (100 000 images, no files: only names).
//   AllImagesCompute:  the first images() of a fresh AllImagesBag: every event's families walked,
//                      one picture per family kept. Its floor (AllEventImagesUnion) gathers every
//                      event's image set into one set, reserved, with no family walk at all.
//   FamilyChange:      on a private copy of one event (1000 items), an edited version moves from
//                      one family to another (a family dissolves, another forms). Its peer
//                      (BagCopy) is the copy that every change of a bag costs before any node
//                      operation: the copy-on-write of a 1000-item bag.
// The library lives in a temporary folder that is removed at the end.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "base/filesystem/Path.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "mediadb/bags/AllImagesBag.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/StandardBagTypes.h"
#include "mediadb/library/ImageManager.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryCacheConnector.h"

namespace {

using namespace qor;
using namespace qor::mediadb;

constexpr int kEvents = 100;
constexpr int kPerEvent = 1000;

// The library, made once for the whole run.
struct Setup {
    Setup() {
        std::string pattern = "/tmp/qor-bagbench-XXXXXX";
        if (const char* tmp = getenv("TMPDIR"); tmp && *tmp)
            pattern = std::string(tmp) + "/qor-bagbench-XXXXXX";
        folder = mkdtemp(pattern.data()) ? pattern : "";
        files = std::make_unique<imagecache::FileMetadataCache>(&images);
        connector = std::make_unique<LibraryCacheConnector>(files.get());
        library = std::make_unique<Library>(&images, connector.get(), folder + "/library/");
        registerStandardBagTypes(*library);
        library->load();
        for (int e = 0; e < kEvents; ++e) {
            ResourceID event = library->createBag("event", "Event " + std::to_string(e));
            std::vector<std::string> names;
            for (int i = 0; i < kPerEvent; ++i) names.push_back("p" + std::to_string(i) + ".jpg");
            std::vector<ResourceID> ids;
            library->adoptImages(ids, names, event);
            SharedPtr<EventBag> copy = dynamic_ptr_cast<EventBag>(library->modifyLockBag(event));
            for (int i = 0; i + 1 < kPerEvent; i += 10) copy->setEditedItem(ids[i], ids[i + 1]);
            events.push_back(event);
        }
    }
    ~Setup() {
        library.reset();
        if (!folder.empty()) filesystem::removeAll(folder);
    }

    std::string folder;
    ImageManager images;
    std::unique_ptr<imagecache::FileMetadataCache> files;
    std::unique_ptr<LibraryCacheConnector> connector;
    std::unique_ptr<Library> library;
    std::vector<ResourceID> events;
};

Setup& setup() {
    static Setup s;
    return s;
}

void AllImagesCompute(benchmark::State& state) {
    Library& lib = *setup().library;
    size_t count = 0;
    for (auto _ : state) {
        AllImagesBag bag;
        bag.setLibrary(&lib);
        count = bag.images().size();
    }
    state.counters["images"] = double(count);
}
BENCHMARK(AllImagesCompute)->Unit(benchmark::kMillisecond);

void AllEventImagesUnion(benchmark::State& state) {
    Library& lib = *setup().library;
    for (auto _ : state) {
        HashSet all;
        all.reserve(size_t(kEvents) * kPerEvent);
        for (ResourceID id : setup().events) {
            const HashSet& images = lib.bag(id)->images();
            all.insert(images.begin(), images.end());
        }
        benchmark::DoNotOptimize(all.size());
    }
}
BENCHMARK(AllEventImagesUnion)->Unit(benchmark::kMillisecond);

// A private copy of an event that is never committed (the copy constructor is protected).
class EventCopy : public EventBag {
public:
    explicit EventCopy(const EventBag& event) : EventBag(event) {}
};

void FamilyChange(benchmark::State& state) {
    auto event = dynamic_ptr_cast<const EventBag>(setup().library->bag(setup().events.front()));
    std::vector<ContainerBag::FamilyInfo> families;
    event->getFamilies(families);
    // Two plain pictures far apart, and the edited version that moves between them.
    ResourceID first = families[45].original, second = families[600].original;
    ResourceID moving = families[800].original;
    EventCopy copy(*event);
    bool toFirst = true;
    for (auto _ : state) {
        copy.setEditedItem(toFirst ? first : second, moving);
        toFirst = !toFirst;
    }
}
BENCHMARK(FamilyChange)->Unit(benchmark::kMicrosecond);

void BagCopy(benchmark::State& state) {
    SharedPtr<const Bag> event = setup().library->bag(setup().events.front());
    for (auto _ : state) {
        std::unique_ptr<Bag> copy(event->mutableCopy());
        benchmark::DoNotOptimize(copy.get());
    }
}
BENCHMARK(BagCopy)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
