// LibraryJobManager with LibraryJob: OnJobDone once per job however it ends (normal, thrown,
// dropped from the queue, detached and ended by notifyDone on another thread, detached and
// cancelled), OnJobAdded before it, cancelJob(wait) with the caller holding the job, shutdown with
// jobs outstanding, and jobs that outlive the manager.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "mediadb/import/LibraryJobManager.h"

namespace qor::mediadb {
namespace {

using Status = thread::CompositeJob::Status;

bool eventually(const std::function<bool()>& pred, double seconds = 10) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A job that runs a function, equal to another of the same non-empty key. Detached work is a
// thread of its own that runs until released or cancelled, then calls notifyDone.
class TestJob : public LibraryJob {
public:
    explicit TestJob(std::function<void(TestJob&)> body = {}, std::string key = {})
        : _body(std::move(body)), _key(std::move(key)) {}
    ~TestJob() override {
        // The worker may hold the last reference: then the job ends on it.
        if (_worker.joinable() && _worker.get_id() == std::this_thread::get_id())
            _worker.detach();
        else if (_worker.joinable())
            _worker.join();
    }
    void run() override {
        runs.fetch_add(1);
        if (_body) _body(*this);
    }
    bool isSameJob(const SharedPtr<thread::CompositeJob>& other) const override {
        auto* o = dynamic_cast<const TestJob*>(other.get());
        return o == this || (o && !_key.empty() && o->_key == _key);
    }
    void onCanceled() override {
        canceledCalls.fetch_add(1);
        stop = true;
        std::this_thread::sleep_for(cancelDelay);
    }
    // Hands the rest to a thread that waits for `release` or a cancel, then ends the job.
    void detach() {
        SharedPtr<LibraryJob> keep = markAsDetached();
        _worker = std::thread([this, keep] {
            while (!release && !stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            doneThread = std::this_thread::get_id();
            notifyDone(keep);
        });
    }
    // Waits until cancelled (by flag or onCanceled).
    void spinUntilCancelled() {
        while (!isCancelled() && !stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    using LibraryJob::markAsDetached;
    using LibraryJob::notifyDone;
    using LibraryJob::sharedPtr;

    std::atomic<int> runs{0}, canceledCalls{0};
    // How long onCanceled takes: a slow one leaves time for the dispatcher to move on.
    std::chrono::milliseconds cancelDelay{0};
    std::atomic<bool> release{false}, stop{false};
    std::atomic<std::thread::id> doneThread{};

private:
    std::function<void(TestJob&)> _body;
    std::string _key;
    std::thread _worker;
};

// Records the signals per job, in order.
class Signals {
public:
    explicit Signals(LibraryJobManager& m) {
        m.OnJobAdded.connect([this](SharedPtr<LibraryJob> j) { add(j.get(), "added"); });
        m.OnJobUpdated.connect([this](SharedPtr<LibraryJob> j) { add(j.get(), "updated"); });
        m.OnJobDone.connect([this](SharedPtr<LibraryJob> j) {
            add(j.get(), "done");
            std::lock_guard<std::mutex> lock(_mutex);
            _doneThread[j.get()] = std::this_thread::get_id();
        });
    }
    std::vector<std::string> of(const SharedPtr<LibraryJob>& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        return _events[job.get()];
    }
    int done(const SharedPtr<LibraryJob>& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        int n = 0;
        for (auto& e : _events[job.get()]) n += e == "done";
        return n;
    }
    std::thread::id doneThread(const SharedPtr<LibraryJob>& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        return _doneThread[job.get()];
    }

private:
    void add(const LibraryJob* job, const char* what) {
        std::lock_guard<std::mutex> lock(_mutex);
        _events[job].push_back(what);
    }
    std::mutex _mutex;
    std::map<const LibraryJob*, std::vector<std::string>> _events;
    std::map<const LibraryJob*, std::thread::id> _doneThread;
};

using Events = std::vector<std::string>;

TEST(LibraryJobManagerThreads, DoneOnceForNormalThrownAndDroppedJobs) {
    LibraryJobManager manager;
    Signals signals(manager);
    // Its first update may come before addJob has emitted OnJobAdded (and then reaches the slots
    // right after it), its second surely after.
    auto running = std::make_shared<TestJob>([](TestJob& j) {
        j.notifyUpdated();
        j.spinUntilCancelled();
        j.notifyUpdated();
    });
    auto normal = std::make_shared<TestJob>();
    auto thrower = std::make_shared<TestJob>([](TestJob&) { throw std::runtime_error("bad"); });
    auto dropped = std::make_shared<TestJob>();
    for (auto& j : {running, normal, thrower, dropped}) EXPECT_EQ(manager.addJob(j), j);
    ASSERT_TRUE(eventually([&] { return running->runs == 1; }));

    std::vector<SharedPtr<LibraryJob>> scheduled;
    manager.getScheduledJobs(scheduled);
    EXPECT_EQ(scheduled, (std::vector<SharedPtr<LibraryJob>>{running, normal, thrower, dropped}));

    // A queued job dropped by cancel ends at once, on this thread.
    manager.cancelJob(dropped, false);
    EXPECT_EQ(signals.of(dropped), (Events{"added", "done"}));
    EXPECT_EQ(signals.doneThread(dropped), std::this_thread::get_id());
    EXPECT_EQ(dropped->status(), thread::CompositeJob::CjCancelled);
    EXPECT_EQ(dropped->canceledCalls, 1);
    manager.cancelJob(dropped, false);  // again: nothing
    EXPECT_EQ(dropped->canceledCalls, 1);

    LogCapture log;
    EXPECT_TRUE(manager.isInProcess());
    running->cancel(false);
    ASSERT_TRUE(eventually([&] { return !manager.isInProcess(); }));
    EXPECT_EQ(signals.of(running), (Events{"added", "updated", "updated", "done"}));
    EXPECT_EQ(signals.of(normal), (Events{"added", "done"}));
    EXPECT_EQ(signals.of(thrower), (Events{"added", "done"}));
    EXPECT_EQ(thrower->failure(), "bad");
    EXPECT_EQ(dropped->runs, 0);
    EXPECT_NE(signals.doneThread(normal), std::this_thread::get_id());
    manager.getScheduledJobs(scheduled);
    EXPECT_TRUE(scheduled.empty());
}

// A job that updates and ends while its OnJobAdded slot still runs: the slots see added,
// updated, done, and the held update comes from addJob's thread.
TEST(LibraryJobManagerThreads, UpdatesBeforeTheAnnouncementReachTheSlotsAfterIt) {
    LibraryJobManager manager;
    Signals signals(manager);
    std::atomic<bool> updated{false};
    std::atomic<std::thread::id> updateThread{};
    auto job = std::make_shared<TestJob>([&](TestJob& j) {
        j.notifyUpdated();
        j.notifyUpdated();
        updated = true;
    });
    ScopedConnection hold = manager.OnJobAdded.connect([&](SharedPtr<LibraryJob>) {
        ASSERT_TRUE(eventually([&] { return updated.load(); }));
        ASSERT_TRUE(eventually([&] { return job->status() == Status::CjFinished; }));
    });
    ScopedConnection where = manager.OnJobUpdated.connect(
        [&](SharedPtr<LibraryJob>) { updateThread = std::this_thread::get_id(); });
    manager.addJob(job);
    EXPECT_EQ(signals.of(job), (Events{"added", "updated", "done"}));
    EXPECT_EQ(updateThread.load(), std::this_thread::get_id());
    EXPECT_FALSE(manager.isInProcess());
}

TEST(LibraryJobManagerThreads, DetachedJobIsDoneWhenItsWorkEnds) {
    LibraryJobManager manager;
    Signals signals(manager);
    auto detached = std::make_shared<TestJob>([](TestJob& j) { j.detach(); });
    auto next = std::make_shared<TestJob>();
    manager.addJob(detached);
    manager.addJob(next);
    // The dispatcher is free for the next job while the detached work goes on.
    ASSERT_TRUE(eventually([&] { return signals.done(next) == 1; }));
    EXPECT_TRUE(detached->detached());
    EXPECT_EQ(detached->status(), thread::CompositeJob::CjFinished);
    EXPECT_EQ(signals.done(detached), 0);
    EXPECT_TRUE(manager.isInProcess());
    std::vector<SharedPtr<LibraryJob>> scheduled;
    manager.getScheduledJobs(scheduled);
    EXPECT_EQ(scheduled, (std::vector<SharedPtr<LibraryJob>>{detached}));

    detached->release = true;
    ASSERT_TRUE(eventually([&] { return !manager.isInProcess(); }));
    EXPECT_EQ(signals.of(detached), (Events{"added", "done"}));
    EXPECT_EQ(signals.doneThread(detached), detached->doneThread.load());
    // A late notifyDone changes nothing.
    detached->notifyDone(detached);
    EXPECT_EQ(signals.done(detached), 1);
}

TEST(LibraryJobManagerThreads, CancelWithWaitReturnsAfterOnJobDoneWhileCallerHoldsTheJob) {
    LibraryJobManager manager;
    Signals signals(manager);
    std::atomic<bool> doneSlotFinished{false};
    manager.OnJobDone.connect([&](SharedPtr<LibraryJob>) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        doneSlotFinished = true;
    });

    // Detached: onCanceled stops the other work, whose end calls notifyDone.
    auto detached = std::make_shared<TestJob>([](TestJob& j) { j.detach(); });
    manager.addJob(detached);
    ASSERT_TRUE(eventually([&] { return detached->status() == thread::CompositeJob::CjFinished; }));
    manager.cancelJob(detached, true);
    EXPECT_TRUE(doneSlotFinished);
    EXPECT_EQ(signals.done(detached), 1);
    EXPECT_EQ(detached->canceledCalls, 1);
    EXPECT_FALSE(manager.isInProcess());

    // Running: run() sees the flag.
    doneSlotFinished = false;
    auto running = std::make_shared<TestJob>([](TestJob& j) { j.spinUntilCancelled(); });
    manager.addJob(running);
    ASSERT_TRUE(eventually([&] { return running->runs == 1; }));
    running->cancel(true);
    EXPECT_TRUE(doneSlotFinished);
    EXPECT_EQ(signals.done(running), 1);
    // A second cancel with wait returns at once: the job has gone from the set.
    running->cancel(true);
    EXPECT_EQ(running->canceledCalls, 1);
}

// A job whose OnJobDone slots still run has not left the set: cancelAll(wait) waits for them.
TEST(LibraryJobManagerThreads, CancelAllWaitsForOnJobDoneInProgress) {
    LibraryJobManager manager;
    std::atomic<bool> entered{false}, finished{false};
    manager.OnJobDone.connect([&](SharedPtr<LibraryJob>) {
        entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        finished = true;
    });
    auto job = std::make_shared<TestJob>();
    manager.addJob(job);
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    EXPECT_FALSE(manager.isInProcess());  // done, as the slots see it
    manager.cancelAll(true);
    EXPECT_TRUE(finished);
}

TEST(LibraryJobManagerThreads, ShutdownEndsQueuedRunningAndDetachedJobsOnce) {
    auto manager = std::make_unique<LibraryJobManager>();
    Signals signals(*manager);
    auto detached = std::make_shared<TestJob>([](TestJob& j) { j.detach(); });
    auto running = std::make_shared<TestJob>([](TestJob& j) { j.spinUntilCancelled(); });
    auto queued1 = std::make_shared<TestJob>();
    auto queued2 = std::make_shared<TestJob>();
    // Had the running job been stopped first, the dispatcher would start the next one while
    // that one is still being cancelled.
    queued1->cancelDelay = queued2->cancelDelay = std::chrono::milliseconds(30);
    for (auto& j : {detached, running, queued1, queued2}) manager->addJob(j);
    ASSERT_TRUE(eventually([&] { return running->runs == 1; }));

    manager->shutdown();
    for (auto& j : {detached, running, queued1, queued2}) {
        EXPECT_EQ(signals.of(j), (Events{"added", "done"}));
        EXPECT_EQ(j->canceledCalls, 1);
    }
    EXPECT_EQ(queued1->runs + queued2->runs, 0);
    EXPECT_FALSE(manager->isInProcess());

    // After shutdown a job is given back, not run, no signal.
    LogCapture log;
    auto late = std::make_shared<TestJob>();
    EXPECT_EQ(manager->addJob(late), late);
    EXPECT_TRUE(signals.of(late).empty());
    EXPECT_EQ(log.count("shutting down"), 1u);
    manager->shutdown();  // again: nothing
    manager.reset();
    EXPECT_EQ(late->runs, 0);
    // The jobs outlive the manager: cancelling and dropping them touches nothing of it.
    detached->cancel(true);
    late->cancel(true);
    EXPECT_TRUE(late->isCancelled());
}

TEST(LibraryJobManagerThreads, EqualJobIsGivenInsteadAndRunsOnce) {
    LibraryJobManager manager;
    Signals signals(manager);
    auto first = std::make_shared<TestJob>([](TestJob& j) { j.spinUntilCancelled(); }, "import");
    auto second = std::make_shared<TestJob>(nullptr, "import");
    EXPECT_EQ(manager.addJob(first), first);
    EXPECT_EQ(manager.addJob(second), first);
    EXPECT_EQ(manager.addJob(first), first);  // the same job twice: one entry
    std::vector<SharedPtr<LibraryJob>> scheduled;
    manager.getScheduledJobs(scheduled);
    EXPECT_EQ(scheduled, (std::vector<SharedPtr<LibraryJob>>{first}));
    EXPECT_EQ(second->manager(), nullptr);
    manager.cancelAll(true);
    EXPECT_EQ(signals.of(first), (Events{"added", "done"}));
    EXPECT_TRUE(signals.of(second).empty());
    EXPECT_EQ(second->runs, 0);

    // A detached job whose work ended while its run() still runs is done: the same work asked
    // again is queued and runs.
    std::atomic<bool> leave{false};
    auto quick = std::make_shared<TestJob>(
        [&](TestJob& j) {
            j.detach();
            j.release = true;
            while (!leave) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        },
        "again");
    auto again = std::make_shared<TestJob>(nullptr, "again");
    EXPECT_EQ(manager.addJob(quick), quick);
    ASSERT_TRUE(eventually([&] { return signals.done(quick) == 1; }));
    EXPECT_EQ(manager.addJob(again), again);
    leave = true;
    ASSERT_TRUE(eventually([&] { return signals.done(again) == 1; }));
    EXPECT_EQ(again->runs, 1);
}

TEST(LibraryJobManagerThreads, NotifyDoneMisuseIsAssertedAndChangesNothing) {
    LibraryJobManager manager;
    Signals signals(manager);
    LogCapture log;
    auto other = std::make_shared<TestJob>();
    std::atomic<int> doneWhileRunning{-1};
    auto plain = std::make_shared<TestJob>([&](TestJob& j) {
        j.notifyDone(j.sharedPtr());  // not detached
        doneWhileRunning = signals.done(j.sharedPtr());
    });
    auto wrong = std::make_shared<TestJob>([&](TestJob& j) {
        SharedPtr<LibraryJob> keep = j.markAsDetached();
        j.notifyDone(other);  // not this job
        j.markAsDetached();   // twice
        j.notifyDone(keep);
    });
    manager.addJob(plain);
    manager.addJob(wrong);
    ASSERT_TRUE(eventually([&] { return !manager.isInProcess(); }));
    EXPECT_EQ(doneWhileRunning, 0);
    EXPECT_EQ(signals.done(plain), 1);
    EXPECT_EQ(signals.done(wrong), 1);
    EXPECT_EQ(log.assertions("detached()"), 1u);
    EXPECT_EQ(log.assertions("WeakRef(job) == _thisRef"), 1u);
    EXPECT_EQ(log.assertions("!_detached"), 1u);
}

TEST(LibraryJobManagerThreads, JobDestructedBeforeItIsDoneLeavesTheSet) {
    LibraryJobManager manager;
    Signals signals(manager);
    { auto never = std::make_shared<TestJob>(); }  // never added
    // Detached work that drops its reference without notifyDone: the job goes when the
    // application lets go, and no one waits for it any more.
    auto job = std::make_shared<TestJob>([](TestJob& j) { (void)j.markAsDetached(); });
    WeakSharedPtr<LibraryJob> weak = job;
    manager.addJob(job);
    ASSERT_TRUE(eventually([&] { return job->status() == thread::CompositeJob::CjFinished; }));
    EXPECT_TRUE(manager.isInProcess());
    job.reset();
    ASSERT_TRUE(eventually([&] { return weak.expired(); }));
    EXPECT_FALSE(manager.isInProcess());
    manager.cancelJob(weak, true);
    manager.shutdown();
}

// Fast jobs added from several threads while others cancel everything: OnJobAdded comes before
// OnJobDone, each exactly once, and shutdown leaves nothing behind.
TEST(LibraryJobManagerThreads, ConcurrentAddsAndCancelsKeepSignalsInOrder) {
    for (int round = 0; round < 3; ++round) {
        auto manager = std::make_unique<LibraryJobManager>();
        Signals signals(*manager);
        std::mutex m;
        std::vector<SharedPtr<TestJob>> accepted;
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 60; ++i) {
                    auto job = std::make_shared<TestJob>(
                        [i](TestJob& j) {
                            if (i % 5 == 0) j.detach(), j.release = true;
                        },
                        "k" + std::to_string(t) + "-" + std::to_string(i % 9));
                    if (manager->addJob(job) == job) {
                        std::lock_guard<std::mutex> lock(m);
                        accepted.push_back(job);
                    }
                    if (i % 7 == 0) job->cancel(i % 14 == 0);
                    if (i % 23 == 0) manager->cancelAll(t == 0);
                }
            });
        }
        for (auto& th : threads) th.join();
        manager->shutdown();
        for (auto& job : accepted) EXPECT_EQ(signals.of(job), (Events{"added", "done"}));
        EXPECT_FALSE(manager->isInProcess());
    }
}

}  // namespace
}  // namespace qor::mediadb
