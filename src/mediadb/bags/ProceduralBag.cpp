#include "mediadb/bags/ProceduralBag.h"

#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/thread/DelayedExecutor.h"
#include "mediadb/library/Library.h"
#include "util/Signal.h"

namespace qor::mediadb {

int ProceduralBag::s_holdCounter = 0;

namespace {

// Guards ProceduralBag::s_holdCounter. A leaf.
thread::Mutex& holdMutex() {
    static thread::Mutex mutex;
    return mutex;
}

// The process-wide update debouncer and what it is to do. Its mutex is a leaf: the executor is
// triggered, stopped and destroyed with it released.
struct Updater {
    thread::Mutex mutex;  // guards every field below
    Library* library QOR_GUARDED_BY(mutex) = nullptr;
    SharedPtr<thread::DelayedExecutor> executor QOR_GUARDED_BY(mutex);
    std::vector<Connection> connections QOR_GUARDED_BY(mutex);
    std::set<ResourceID> changedBags QOR_GUARDED_BY(mutex);  // since the last run
    bool all QOR_GUARDED_BY(mutex) = false;                  // every procedural bag is due

    // Notes a change and schedules a run. With `all` false only when some procedural bag of the
    // library depends on `bagId`.
    void changed(Library* from, ResourceID bagId, bool everything);
    // Unbinds from a library that goes away; waits for a running update.
    void detach(Library* from);
};

Updater& updater() {
    static Updater* instance = new Updater();  // never destroyed: slots may run at exit
    return *instance;
}

// The procedural bags of a library, as snapshots.
std::vector<std::pair<ResourceID, SharedPtr<const ProceduralBag>>> proceduralBags(Library* lib) {
    std::vector<std::pair<ResourceID, SharedPtr<const ProceduralBag>>> out;
    for (ResourceID id : lib->bags())
        if (auto bag = dynamic_ptr_cast<const ProceduralBag>(lib->bag(id)))
            out.emplace_back(id, std::move(bag));
    return out;
}

void Updater::changed(Library* from, ResourceID bagId, bool everything) {
    if (!everything) {
        bool concerned = false;
        for (const auto& [id, bag] : proceduralBags(from))
            concerned = concerned || bag->dependsOnBag(bagId);
        if (!concerned) return;
    }
    SharedPtr<thread::DelayedExecutor> run;
    {
        ScopedLock lock(mutex);
        if (library != from) return;
        if (everything)
            all = true;
        else
            changedBags.insert(bagId);
        run = executor;
    }
    if (run && !ProceduralBag::isHold()) run->trigger();
}

void Updater::detach(Library* from) {
    SharedPtr<thread::DelayedExecutor> stopped;
    std::vector<Connection> dropped;
    {
        ScopedLock lock(mutex);
        if (library != from) return;
        library = nullptr;
        stopped = std::move(executor);
        dropped.swap(connections);
        changedBags.clear();
        all = false;
    }
    for (Connection& c : dropped) c.disconnect();
    if (stopped) stopped->stop();
}

}  // namespace

ProceduralBag::ProceduralBag(const ProceduralBag& other) : Bag(other) {
    ScopedLock lock(other._imagesMutex);
    _computed = other._computed;
}

void ProceduralBag::hold(bool on) {
    bool released = false;
    {
        ScopedLock lock(holdMutex());
        if (on) {
            ++s_holdCounter;
        } else {
            QOR_ASSERT(s_holdCounter > 0);
            if (s_holdCounter <= 0) return;
            released = --s_holdCounter == 0;
        }
    }
    if (!released) return;
    // Every set computed while held is empty: recompute them all.
    Updater& u = updater();
    SharedPtr<thread::DelayedExecutor> run;
    {
        ScopedLock lock(u.mutex);
        u.all = true;
        run = u.executor;
    }
    if (run) run->trigger();
}

bool ProceduralBag::isHold() {
    ScopedLock lock(holdMutex());
    return s_holdCounter > 0;
}

void ProceduralBag::updateImages(Library* library) {
    if (!library || isHold()) return;
    Updater& u = updater();
    std::set<ResourceID> changed;
    bool all = false;
    {
        ScopedLock lock(u.mutex);
        if (u.library == library) {
            changed.swap(u.changedBags);
            all = std::exchange(u.all, false);
        } else {
            all = true;  // a library the debouncer does not serve: no record, so everything
        }
    }
    for (const auto& [id, bag] : proceduralBags(library)) {
        if (library->isShuttingDown()) return;
        bool due = all;
        for (auto it = changed.begin(); !due && it != changed.end(); ++it)
            due = bag->dependsOnBag(*it);
        if (!due) continue;
        // The copy commits when it goes: a new snapshot with no set, and the update notice.
        SharedPtr<Bag> copy = library->modifyLockBag(id);
        if (auto procedural = dynamic_ptr_cast<ProceduralBag>(copy)) procedural->markItemsInvalid();
    }
}

const HashSet& ProceduralBag::images() const {
    ScopedLock lock(_imagesMutex);
    if (!_computed) {
        auto items = std::make_shared<HashSet>();
        if (!isHold()) computeItems(items.get());
        _computed = std::move(items);
    }
    // The set lives as long as this snapshot: only markItemsInvalid on a private copy drops it.
    return *_computed;
}

void ProceduralBag::setLibrary(Library* library) {
    Bag::setLibrary(library);
    if (!library) return;
    Updater& u = updater();
    ScopedLock lock(u.mutex);
    if (u.library) return;
    u.library = library;
    u.executor = std::make_shared<thread::DelayedExecutor>([library] { updateImages(library); },
                                                           1.0, 0, 0.0);
    auto onBag = [library](ResourceID id) { updater().changed(library, id, false); };
    u.connections.push_back(library->OnBagUpdated.connect(
        [library](ResourceID id, bool) { updater().changed(library, id, false); }));
    u.connections.push_back(library->OnBagCreated.connect(onBag));
    u.connections.push_back(library->OnBagStateChanged.connect(onBag));
    // A removed bag can no longer be asked for its kind: every procedural bag is due.
    u.connections.push_back(library->OnBagRemoved.connect(
        [library](ResourceID id) { updater().changed(library, id, true); }));
    u.connections.push_back(
        library->OnLibraryDestroying.connect([library] { updater().detach(library); }));
}

bool ProceduralBag::dependsOnBag(ResourceID) const { return false; }

void ProceduralBag::markItemsInvalid() {
    ScopedLock lock(_imagesMutex);
    _computed.reset();
}

SharedPtr<const HashSet> ProceduralBag::computedImages() const {
    ScopedLock lock(_imagesMutex);
    return _computed;
}

}  // namespace qor::mediadb
