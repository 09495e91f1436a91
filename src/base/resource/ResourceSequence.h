#pragma once
// ResourceSequence: a list of resources and the work to do on each, run by a
// ResourceSequenceWorker on its thread. The work is two passes: first the touch step over every
// item (reading metadata, say), then the copy step over every item, then the completion
// function once. Steps are called with a run of at most batchSize() items: batches of 500 let a
// step write 500 records in one go, a batch of one lets a step report each file.
//
// Progress (touched(), copied(), failedSteps(), progress()) and the end state (status()) can be
// read from any thread while the sequence runs. cancel() stops it before the next step; a step
// that takes long polls isCancelled().
//
// The completion function runs exactly once, on the worker's thread, whatever the end:
// - SsFinished: both passes went over every item (a step that threw counts in failedSteps());
// - SsCancelled: cancel(), ResourceSequenceWorker::removeSequence or the worker's shutdown ended
//   it early; the steps that ran stay done, the rest never run;
// - SsReplaced: ResourceSequenceWorker::setSequence put another sequence in its place before any
//   of its steps ran.
// Only when a sequence is handed to a worker that has shut down does it run on the calling thread
// (with SsCancelled).
//
// Ownership and thread contract: shared (create gives a SharedPtr); the worker holds it while it
// is queued or running. Items, priority, batch size and steps are fixed once it is handed to a
// worker; setCompletion may be called from any thread until the completion has run. Counters and
// flags are atomics; one mutex guards the completion function and the worker link, and it is a
// leaf below the worker's mutex.

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "base/ResourceID.h"
#include "base/thread/Mutex.h"
#include "util/SharedPtr.h"

namespace qor {

class ResourceSequenceWorker;

enum SequenceStatus : int {
    SsPending = 0,  // not ended yet
    SsFinished = 1,
    SsCancelled = 2,
    SsReplaced = 3,
};

class ResourceSequence {
public:
    // A step: called with the sequence and a run of item positions, first .. first + count - 1.
    using Step = std::function<void(ResourceSequence&, size_t first, size_t count)>;
    // The completion: called once with the sequence and how it ended.
    using Completion = std::function<void(ResourceSequence&, SequenceStatus)>;

    // Higher priorities run first. A batch size of 0 counts as 1.
    static SharedPtr<ResourceSequence> create(std::vector<ResourceID> items, int priority = 0,
                                              size_t batchSize = 1);
    ResourceSequence(const ResourceSequence&) = delete;
    ResourceSequence& operator=(const ResourceSequence&) = delete;

    const std::vector<ResourceID>& items() const { return _items; }
    size_t size() const { return _items.size(); }
    int priority() const { return _priority; }
    size_t batchSize() const { return _batchSize; }

    // Either step may be left empty, and that pass is skipped. Set them before the sequence is
    // handed to a worker; later calls log an assertion and are ignored.
    void setTouchStep(Step step);
    void setCopyStep(Step step);
    // May be set or replaced from any thread until the completion has run; false (and nothing
    // set) afterwards.
    bool setCompletion(Completion completion);

    // Asks the sequence to stop: no further step starts, and its completion runs with SsCancelled
    // on the worker's thread soon after. Does not block. Nothing happens once it has ended.
    void cancel();
    bool isCancelled() const { return _cancelled.load(std::memory_order_acquire); }

    // Items whose touch step has run (or whose pass was skipped), items whose copy step has run,
    // and steps that threw (one a batch).
    size_t touched() const { return _touched.load(std::memory_order_acquire); }
    size_t copied() const { return _copied.load(std::memory_order_acquire); }
    size_t failedSteps() const { return _failed.load(std::memory_order_acquire); }
    // The share of both passes done, 0 to 1 (1 for an empty sequence that has ended).
    double progress() const;
    // SsPending until the completion is about to run, then how the sequence ended.
    SequenceStatus status() const { return _status.load(std::memory_order_acquire); }
    // True once the completion function has returned.
    bool isDone() const { return _done.load(std::memory_order_acquire); }
    // True once a worker has run one of its steps.
    bool hasStarted() const { return _started.load(std::memory_order_acquire); }

private:
    friend class ResourceSequenceWorker;

    ResourceSequence(std::vector<ResourceID> items, int priority, size_t batchSize);

    const std::vector<ResourceID> _items;
    const int _priority;
    const size_t _batchSize;
    Step _touch;  // fixed once _worker is set
    Step _copy;   // fixed once _worker is set

    // Position of the next step: pass 0 touch, 1 copy, 2 completion; index within the pass.
    // Only the worker's thread uses them.
    int _pass = 0;
    size_t _next = 0;

    std::atomic<bool> _cancelled{false};
    std::atomic<bool> _started{false};
    std::atomic<bool> _done{false};
    std::atomic<SequenceStatus> _status{SsPending};
    std::atomic<size_t> _touched{0};
    std::atomic<size_t> _copied{0};
    std::atomic<size_t> _failed{0};

    mutable Mutex _mutex;                                              // guards the two below
    Completion _completion QOR_GUARDED_BY(_mutex);                     // emptied when it runs
    ResourceSequenceWorker* _worker QOR_GUARDED_BY(_mutex) = nullptr;  // set while queued
    bool _handedOver QOR_GUARDED_BY(_mutex) = false;                   // given to a worker once
};

}  // namespace qor
