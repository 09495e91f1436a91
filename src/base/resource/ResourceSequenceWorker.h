#pragma once
// ResourceSequenceWorker: one thread that runs ResourceSequences by priority. It runs one step
// (one batch of one pass) at a time and picks the sequence for each step afresh: the highest
// priority first and, within one priority, the sequence queued first, so a sequence of higher
// priority that arrives while another runs goes ahead at the next step boundary, and sequences of
// equal priority run one after the other, never interleaved. Completions of cancelled and
// replaced sequences run before any further step.
//
// Keys name a place in the worker: addSequence gives each sequence a new key; setSequence queues a
// sequence under a key the caller already holds, in place of the one waiting there, which is how a
// cache's flush keeps at most one pending write sequence; removeSequence and wait work on keys.
//
// Ownership: the worker holds a queued sequence by SharedPtr until its completion has run. The
// destructor calls shutdown().
//
// Thread contract: every member may be called from any thread, steps and completions included,
// except wait, waitIdle and shutdown, which must not be called on the worker's thread (they would
// wait for themselves; they log an assertion and return). Steps and completions run on the worker's
// thread with no lock held. One mutex (_mutex) guards the queue and the keys. Lock order: a
// sequence's mutex (ResourceSequence::cancel, setCompletion) before the worker's mutex; the worker
// never takes a sequence's mutex while it holds its own.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "base/resource/ResourceSequence.h"
#include "base/thread/Mutex.h"
#include "util/SharedPtr.h"

namespace qor {

class ResourceSequenceWorker {
public:
    using Key = std::uint64_t;
    static constexpr Key NoKey = 0;

    // Starts the thread, named `threadName` (at most 15 characters are shown).
    explicit ResourceSequenceWorker(const char* threadName = "qor-sequences");
    // shutdown().
    ~ResourceSequenceWorker();
    ResourceSequenceWorker(const ResourceSequenceWorker&) = delete;
    ResourceSequenceWorker& operator=(const ResourceSequenceWorker&) = delete;

    // A new key with nothing queued under it, for setSequence.
    Key newKey();

    // Queues the sequence under a new key and gives the key. A sequence can be handed to a worker
    // once: a second time logs an assertion and gives NoKey. After shutdown the sequence's
    // completion runs at once on the calling thread with SsCancelled, one line is logged and
    // NoKey is given. Does not block on the worker.
    Key addSequence(SharedPtr<ResourceSequence> sequence);
    // Queues the sequence under `key`. A sequence waiting under the key that has not started yet
    // is dropped, and its completion runs with SsReplaced; one that has started runs to its end,
    // and this one after it when their priorities are equal. Returns `key` (NoKey on the failures
    // that addSequence has, and for key NoKey, which logs an assertion).
    Key setSequence(Key key, SharedPtr<ResourceSequence> sequence);
    // Cancels every sequence under the key, queued or running: their completions run with
    // SsCancelled. False when nothing was under the key. Does not block.
    bool removeSequence(Key key);
    // Cancels every sequence. Does not block.
    void cancelAll();

    // Blocks until no sequence under the key is queued or running and the last completion has
    // returned, or until `timeoutSeconds` (negative: no limit) have passed. False on time-out.
    bool wait(Key key, double timeoutSeconds = -1);
    // Blocks until nothing is queued or running.
    void waitIdle();
    // Cancels every sequence, runs their completions, and ends the thread. Later additions are
    // refused. Blocks; calling it again does nothing.
    void shutdown();

    // Sequences queued or running.
    size_t sequenceCount() const;
    bool isWorkerThread() const;

private:
    struct Entry {
        SharedPtr<ResourceSequence> sequence;
        Key key = NoKey;
        std::uint64_t order = 0;            // queue order within a priority
        SequenceStatus ending = SsPending;  // set when it is to end without further steps
    };

    Key queue(Key key, SharedPtr<ResourceSequence> sequence, bool replace);
    void run();
    // Picks the entry for the next step and removes it from the queue.
    bool takeNext(Entry& out) QOR_REQUIRES(_mutex);
    bool keyBusy(Key key) const QOR_REQUIRES(_mutex);
    // Called by ResourceSequence::cancel with the sequence's mutex held.
    void wake();
    // Runs one step of the entry on the worker's thread; false when the sequence has no more.
    static bool runStep(ResourceSequence& sequence);
    static void complete(ResourceSequence& sequence, SequenceStatus status);

    friend class ResourceSequence;

    mutable Mutex _mutex;              // guards everything below except _thread
    ConditionVariable _wakeCondition;  // something to do, or stopping
    ConditionVariable _idleCondition;  // a sequence ended or a step ended
    std::vector<Entry> _queue QOR_GUARDED_BY(_mutex);
    Entry _current QOR_GUARDED_BY(_mutex);  // the entry whose step runs now (null sequence: none)
    std::uint64_t _nextOrder QOR_GUARDED_BY(_mutex) = 1;
    Key _nextKey QOR_GUARDED_BY(_mutex) = 1;
    bool _stopping QOR_GUARDED_BY(_mutex) = false;
    bool _joined QOR_GUARDED_BY(_mutex) = false;
    std::atomic<std::thread::id> _threadId{};
    std::thread _thread;  // started in the constructor, joined by shutdown
};

}  // namespace qor
