#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../support/Gate.h"
#include "base/Log.h"
#include "base/resource/ResourceSequenceWorker.h"

using namespace qor;

namespace {

std::vector<ResourceID> items(int n) {
    std::vector<ResourceID> out;
    for (int i = 0; i < n; ++i) out.emplace_back(i, nullptr);
    return out;
}

// What the steps and completions did, in order, from any thread.
class Journal {
public:
    void add(std::string event) {
        std::lock_guard<std::mutex> lock(_mutex);
        _events.push_back(std::move(event));
    }
    std::vector<std::string> events() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _events;
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _events;
};

// A sequence that journals its steps as "<name> touch <first>+<count>" and its end as
// "<name> end <status>".
SharedPtr<ResourceSequence> journaled(Journal& journal, const std::string& name, int n,
                                      int priority = 0, size_t batch = 1) {
    auto s = ResourceSequence::create(items(n), priority, batch);
    auto step = [&journal, name](const char* pass) {
        return [&journal, name, pass](ResourceSequence&, size_t first, size_t count) {
            journal.add(name + " " + pass + " " + std::to_string(first) + "+" +
                        std::to_string(count));
        };
    };
    s->setTouchStep(step("touch"));
    s->setCopyStep(step("copy"));
    s->setCompletion([&journal, name](ResourceSequence&, SequenceStatus status) {
        journal.add(name + " end " + std::to_string(int(status)));
    });
    return s;
}

// Holds the worker inside a step until released.
class Gate : public qor::test::Gate {
public:
    // A sequence of one item whose touch step waits at the gate.
    SharedPtr<ResourceSequence> blocker(int priority = 100) {
        auto s = ResourceSequence::create(items(1), priority);
        s->setTouchStep([this](ResourceSequence&, size_t, size_t) { pass(); });
        return s;
    }
};

std::string end(const std::string& name, SequenceStatus s) {
    return name + " end " + std::to_string(int(s));
}

}  // namespace

TEST(ResourceSequenceWorker, TouchesAllThenCopiesAllInBatchesThenCompletesOnce) {
    ResourceSequenceWorker worker;
    Journal journal;
    std::thread::id completionThread;
    auto s = journaled(journal, "a", 7, 0, 3);
    std::promise<void> done;
    s->setCompletion([&](ResourceSequence& seq, SequenceStatus status) {
        completionThread = std::this_thread::get_id();
        EXPECT_TRUE(worker.isWorkerThread());
        EXPECT_EQ(seq.touched(), 7u);
        EXPECT_EQ(seq.copied(), 7u);
        journal.add(end("a", status));
        done.set_value();
    });
    auto key = worker.addSequence(s);
    EXPECT_NE(key, ResourceSequenceWorker::NoKey);
    EXPECT_TRUE(worker.wait(key, 10));
    EXPECT_EQ(journal.events(),
              (std::vector<std::string>{"a touch 0+3", "a touch 3+3", "a touch 6+1", "a copy 0+3",
                                        "a copy 3+3", "a copy 6+1", end("a", SsFinished)}));
    EXPECT_NE(completionThread, std::this_thread::get_id());
    EXPECT_TRUE(s->isDone());
    EXPECT_EQ(s->status(), SsFinished);
    EXPECT_EQ(s->progress(), 1.0);
    EXPECT_FALSE(s->setCompletion([](ResourceSequence&, SequenceStatus) {}));

    // An empty sequence, and one with no steps, finish at once.
    auto empty = journaled(journal, "empty", 0);
    auto stepless = ResourceSequence::create(items(3));
    worker.addSequence(empty);
    worker.addSequence(stepless);
    worker.waitIdle();
    EXPECT_EQ(empty->status(), SsFinished);
    EXPECT_EQ(stepless->status(), SsFinished);
    EXPECT_EQ(stepless->copied(), 3u);
}

TEST(ResourceSequenceWorker, RunsByPriorityAndSwitchesOnlyAtStepBoundaries) {
    ResourceSequenceWorker worker;
    Journal journal;
    Gate gate;
    worker.addSequence(gate.blocker());
    gate.waitEntered();
    // Queued while the worker is held: low first, then two of equal priority, then high.
    worker.addSequence(journaled(journal, "low", 2, 0));
    worker.addSequence(journaled(journal, "mid1", 1, 5));
    worker.addSequence(journaled(journal, "mid2", 1, 5));
    auto low2 = journaled(journal, "late", 2, 1);
    // A sequence that adds a higher one from inside its first step: that one goes ahead of the
    // rest of this sequence at the next step boundary.
    auto spawner = ResourceSequence::create(items(2), 7);
    spawner->setTouchStep([&](ResourceSequence&, size_t first, size_t) {
        journal.add("spawner touch " + std::to_string(first));
        if (first == 0) worker.addSequence(journaled(journal, "urgent", 1, 9));
    });
    worker.addSequence(spawner);
    worker.addSequence(low2);
    gate.open();
    worker.waitIdle();
    EXPECT_EQ(journal.events(),
              (std::vector<std::string>{
                  "spawner touch 0", "urgent touch 0+1", "urgent copy 0+1",
                  end("urgent", SsFinished), "spawner touch 1",
                  // Equal priorities run one after the other, in the order queued.
                  "mid1 touch 0+1", "mid1 copy 0+1", end("mid1", SsFinished), "mid2 touch 0+1",
                  "mid2 copy 0+1", end("mid2", SsFinished), "late touch 0+1", "late touch 1+1",
                  "late copy 0+1", "late copy 1+1", end("late", SsFinished), "low touch 0+1",
                  "low touch 1+1", "low copy 0+1", "low copy 1+1", end("low", SsFinished)}));
}

TEST(ResourceSequenceWorker, SetSequenceReplacesOnlyWhatHasNotStarted) {
    ResourceSequenceWorker worker;
    Journal journal;
    Gate gate;
    auto key = worker.newKey();
    worker.addSequence(gate.blocker());
    gate.waitEntered();
    auto first = journaled(journal, "first", 2);
    EXPECT_EQ(worker.setSequence(key, first), key);
    auto second = journaled(journal, "second", 2);
    worker.setSequence(key, second);
    EXPECT_EQ(worker.sequenceCount(), 3u);
    gate.open();
    EXPECT_TRUE(worker.wait(key, 10));
    EXPECT_EQ(first->status(), SsReplaced);
    EXPECT_EQ(first->touched(), 0u);
    EXPECT_EQ(journal.events(),
              (std::vector<std::string>{end("first", SsReplaced), "second touch 0+1",
                                        "second touch 1+1", "second copy 0+1", "second copy 1+1",
                                        end("second", SsFinished)}));

    // A sequence that has started runs to its end; the one set in its place runs after it.
    Gate inside;
    auto running = ResourceSequence::create(items(2));
    running->setTouchStep([&](ResourceSequence&, size_t first, size_t) {
        if (first == 0) inside.pass();
    });
    worker.setSequence(key, running);
    inside.waitEntered();
    auto next = journaled(journal, "next", 1);
    worker.setSequence(key, next);
    inside.open();
    EXPECT_TRUE(worker.wait(key, 10));
    EXPECT_EQ(running->status(), SsFinished);
    EXPECT_EQ(running->copied(), 2u);
    EXPECT_EQ(next->status(), SsFinished);

    LogCapture log;
    EXPECT_EQ(worker.setSequence(ResourceSequenceWorker::NoKey, journaled(journal, "x", 1)),
              ResourceSequenceWorker::NoKey);
    EXPECT_EQ(worker.addSequence(next), ResourceSequenceWorker::NoKey);
    EXPECT_EQ(log.assertions(), 2u);
}

TEST(ResourceSequenceWorker, CancelledSequencesStopAndStillCompleteOnce) {
    Journal journal;
    Gate gate;
    std::atomic<int> completions{0};
    {
        ResourceSequenceWorker worker;
        worker.addSequence(gate.blocker());
        gate.waitEntered();

        // Cancelled while queued: no step runs; the completion set after the add is the one
        // that runs.
        auto queued = journaled(journal, "queued", 3);
        worker.addSequence(queued);
        queued->setCompletion([&](ResourceSequence&, SequenceStatus status) {
            journal.add(end("queued (rebound)", status));
        });
        queued->cancel();

        // Removed by key.
        auto removed = journaled(journal, "removed", 3);
        auto removedKey = worker.addSequence(removed);

        // Cancelled from inside its own second step: the step finishes, no further one starts.
        auto self = ResourceSequence::create(items(5));
        self->setTouchStep([&](ResourceSequence& s, size_t first, size_t) {
            journal.add("self touch " + std::to_string(first));
            if (first == 1) s.cancel();
            EXPECT_EQ(s.isCancelled(), first >= 1);
        });
        self->setCompletion([&](ResourceSequence& s, SequenceStatus status) {
            EXPECT_EQ(s.touched(), 2u);
            journal.add(end("self", status));
        });
        worker.addSequence(self);
        EXPECT_TRUE(worker.removeSequence(removedKey));
        EXPECT_FALSE(worker.removeSequence(worker.newKey()));

        // Steps that throw are counted, logged, and the sequence goes on.
        auto failing = ResourceSequence::create(items(3), 1);
        failing->setTouchStep([](ResourceSequence&, size_t first, size_t) {
            if (first != 1) throw std::runtime_error("unreadable");
        });
        LogCapture log;
        worker.addSequence(failing);
        gate.open();
        worker.waitIdle();
        EXPECT_EQ(failing->failedSteps(), 2u);
        EXPECT_EQ(failing->status(), SsFinished);
        EXPECT_EQ(log.count("unreadable"), 2u);

        // Shutdown cancels what is queued: `pending` waits behind a held worker meanwhile.
        Gate hold;
        worker.addSequence(hold.blocker());
        hold.waitEntered();
        auto pending = ResourceSequence::create(items(2), -5);
        pending->setTouchStep([&](ResourceSequence&, size_t, size_t) { ADD_FAILURE(); });
        pending->setCompletion([&](ResourceSequence&, SequenceStatus status) {
            EXPECT_EQ(status, SsCancelled);
            ++completions;
        });
        worker.addSequence(pending);
        std::thread stopper([&] { worker.shutdown(); });
        while (!pending->isCancelled()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        hold.open();
        stopper.join();
        EXPECT_EQ(pending->status(), SsCancelled);
        EXPECT_EQ(completions.load(), 1);
        // After shutdown a sequence is refused and completes at once, on this thread.
        auto late = ResourceSequence::create(items(1));
        std::thread::id where;
        late->setCompletion([&](ResourceSequence&, SequenceStatus status) {
            where = std::this_thread::get_id();
            EXPECT_EQ(status, SsCancelled);
        });
        EXPECT_EQ(worker.addSequence(late), ResourceSequenceWorker::NoKey);
        EXPECT_EQ(where, std::this_thread::get_id());
        EXPECT_TRUE(log.contains("refused after shutdown"));
    }
    EXPECT_EQ(
        journal.events(),
        (std::vector<std::string>{end("queued (rebound)", SsCancelled), end("removed", SsCancelled),
                                  "self touch 0", "self touch 1", end("self", SsCancelled)}));
}

TEST(ResourceSequenceWorker, WaitingOnTheWorkersOwnThreadIsRefused) {
    ResourceSequenceWorker worker;
    LogCapture log;
    auto s = ResourceSequence::create(items(1));
    auto key = worker.newKey();
    bool waited = true;
    s->setTouchStep([&](ResourceSequence&, size_t, size_t) {
        waited = worker.wait(key, 1);
        worker.waitIdle();
    });
    worker.setSequence(key, s);
    EXPECT_TRUE(worker.wait(key, 10));
    EXPECT_FALSE(waited);
    EXPECT_EQ(log.assertions(), 2u);
}

// Sequences added, replaced, removed and cancelled from several threads while the worker runs
// them, some from inside steps: every completion runs exactly once, no step runs after it, and
// each status agrees with the steps that ran.
TEST(ResourceSequenceWorkerThreads, AddReplaceRemoveAndCancelFromManyThreads) {
    struct Probe {
        std::atomic<int> steps{0};
        std::atomic<int> completions{0};
        std::atomic<bool> ended{false};
        std::atomic<int> faults{0};
    };
    std::mutex probesMutex;
    std::vector<std::shared_ptr<Probe>> probes;
    std::vector<SharedPtr<ResourceSequence>> sequences;

    ResourceSequenceWorker worker;
    const ResourceSequenceWorker::Key keys[3] = {worker.newKey(), worker.newKey(), worker.newKey()};
    std::function<SharedPtr<ResourceSequence>(std::mt19937&)> make = [&](std::mt19937& random) {
        auto probe = std::make_shared<Probe>();
        int n = int(random() % 5);
        auto s = ResourceSequence::create(items(n), int(random() % 3), 1 + random() % 2);
        bool spawns = random() % 8 == 0;
        auto step = [probe, spawns, &worker, &make](ResourceSequence&, size_t first, size_t) {
            if (probe->ended.load()) probe->faults.fetch_add(1);
            probe->steps.fetch_add(1);
            if (spawns && first == 0) {
                std::mt19937 local(unsigned(probe->steps.load()));
                worker.addSequence(make(local));
            }
        };
        s->setTouchStep(step);
        if (random() % 2) s->setCopyStep(step);
        s->setCompletion([probe](ResourceSequence& seq, SequenceStatus status) {
            probe->ended.store(true);
            probe->completions.fetch_add(1);
            bool consistent = (status == SsFinished && seq.touched() == seq.size() &&
                               seq.copied() == seq.size()) ||
                              (status == SsReplaced && probe->steps.load() == 0) ||
                              status == SsCancelled;
            if (!consistent) probe->faults.fetch_add(1);
        });
        std::lock_guard<std::mutex> lock(probesMutex);
        probes.push_back(probe);
        sequences.push_back(s);
        return s;
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(unsigned(t) * 7919u + 1);
            for (int i = 0; i < 300; ++i) {
                const auto key = keys[random() % 3];
                switch (random() % 6) {
                    case 0:
                    case 1:
                        worker.addSequence(make(random));
                        break;
                    case 2:
                    case 3:
                        worker.setSequence(key, make(random));
                        break;
                    case 4:
                        worker.removeSequence(key);
                        break;
                    default: {
                        SharedPtr<ResourceSequence> victim;
                        {
                            std::lock_guard<std::mutex> lock(probesMutex);
                            if (!sequences.empty()) victim = sequences[random() % sequences.size()];
                        }
                        if (victim) victim->cancel();
                        if (random() % 4 == 0) worker.wait(key, 0.01);
                        (void)victim;
                    }
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    worker.waitIdle();
    worker.shutdown();

    std::lock_guard<std::mutex> lock(probesMutex);
    ASSERT_GT(probes.size(), 400u);
    size_t finished = 0, replaced = 0, cancelled = 0;
    for (size_t i = 0; i < probes.size(); ++i) {
        EXPECT_EQ(probes[i]->completions.load(), 1) << "sequence " << i;
        EXPECT_EQ(probes[i]->faults.load(), 0) << "sequence " << i;
        EXPECT_TRUE(sequences[i]->isDone());
        switch (sequences[i]->status()) {
            case SsFinished:
                ++finished;
                break;
            case SsReplaced:
                ++replaced;
                break;
            case SsCancelled:
                ++cancelled;
                break;
            default:
                ADD_FAILURE() << "sequence " << i << " never ended";
        }
    }
    // The mix must have exercised every ending.
    EXPECT_GT(finished, 0u);
    EXPECT_GT(replaced, 0u);
    EXPECT_GT(cancelled, 0u);
}
