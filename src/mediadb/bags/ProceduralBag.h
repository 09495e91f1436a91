#pragma once
// ProceduralBag: a bag that owns nothing and computes its images from other bags (smart
// collections). It is never saved.
//
// The image set is computed lazily, on the first images() of a snapshot, by computeItems, and kept
// with the snapshot; copies share it until markItemsInvalid drops it on a mutable copy, whose
// commit then publishes a snapshot that computes afresh.
//
// Updates. The first setLibrary creates one process-wide debouncer (a DelayedExecutor, 1.0 s, no
// upper bound) and connects it to the library's OnBagUpdated, OnBagCreated, OnBagStateChanged and
// OnBagRemoved. A change of a bag that some procedural bag depends on (dependsOnBag), and any
// removal, schedules updateImages, which commits a fresh copy of each procedural bag concerned. So
// procedural bags recompute at most about once a second however many changes come.
//
// Hold. hold(true) freezes recomputation, e.g. for a long import: while the hold counter is above
// 0, scheduled updates wait, and a snapshot whose set is first asked for gets an empty set. When
// the last hold is released, every procedural bag is recomputed (after the debounce delay).
// Holds nest and may be taken and released on any threads.
//
// One library at a time: the debouncer serves the library that created it until that library is
// destroyed; procedural bags of a second library alive at the same time are not updated.
//
// Threads and locks. A snapshot's lazy set is guarded by its own _imagesMutex; computeItems runs
// with it held and may take the Library's mutex, the resource managers' mutexes and the cache
// connector (lock order: a procedural bag's _imagesMutex, then those). It must not read another
// procedural bag. The hold counter and the debouncer state are guarded by static mutexes that are
// leaves. updateImages runs on the debouncer's thread (the default pool) or the caller's.

#include "base/thread/Mutex.h"
#include "mediadb/bags/Bag.h"
#include "util/SharedPtr.h"

namespace qor::mediadb {

class ProceduralBag : public Bag {
public:
    // hold(true) increments the hold counter, hold(false) decrements it (assertion when it is 0
    // already); reaching 0 schedules the recomputation of every procedural bag. Does not block.
    static void hold(bool on);
    static bool isHold();
    // Commits a recomputed copy of every procedural bag of the library that depends on a bag
    // changed since the last run (all of them after a hold or a removal). Blocks while it commits;
    // does nothing while held. Normally run by the debouncer.
    static void updateImages(Library* library);

    // The computed set (see the class comment). Blocks while it is computed.
    const HashSet& images() const override;
    bool persistent() const override { return false; }
    // Also binds the update debouncer to the library (see the class comment).
    void setLibrary(Library* library) override;

    // Whether the bag's content depends on the bag `id`. Default false.
    virtual bool dependsOnBag(ResourceID id) const;
    // Fills `items` with the bag's images. Runs with _imagesMutex held.
    virtual void computeItems(HashSet* items) const = 0;

protected:
    ProceduralBag() = default;
    ProceduralBag(const ProceduralBag& other);

    // Drops the computed set; the next images() computes it again. On a mutable copy only.
    void markItemsInvalid();
    // The computed set; null while none has been computed.
    SharedPtr<const HashSet> computedImages() const;
    // A commit of a procedural bag always counts as a change of its images.
    bool imagesDiffer(const Bag&) const override { return true; }

private:
    static int s_holdCounter;  // guarded by the static hold mutex (ProceduralBag.cpp)

    mutable thread::Mutex _imagesMutex;
    mutable SharedPtr<const HashSet> _computed QOR_GUARDED_BY(_imagesMutex);
};

}  // namespace qor::mediadb
