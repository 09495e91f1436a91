// SynchronousCompositeJobDispatcher: one job at a time in the order added, equal jobs queued once,
// the finished callback once per job however it ended, cancel of queued and running jobs, and
// shutdown with jobs outstanding.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../support/Gate.h"
#include "base/Log.h"
#include "base/thread/SynchronousCompositeJobDispatcher.h"

using namespace qor;
using qor::thread::CompositeJob;
using qor::thread::SynchronousCompositeJobDispatcher;

namespace {

// A job that runs a function; equal to another TestJob of the same non-empty key.
class TestJob : public CompositeJob {
public:
    explicit TestJob(std::function<void(TestJob&)> body = {}, std::string key = {})
        : _body(std::move(body)), _key(std::move(key)) {}
    void run() override {
        runs.fetch_add(1);
        if (_body) _body(*this);
    }
    bool isSameJob(const SharedPtr<CompositeJob>& other) const override {
        auto* o = dynamic_cast<const TestJob*>(other.get());
        return o == this || (o && !_key.empty() && o->_key == _key);
    }
    std::atomic<int> runs{0};

private:
    std::function<void(TestJob&)> _body;
    std::string _key;
};

// Holds a job inside run() until opened, or until the job is cancelled.
class Gate : public qor::test::Gate {
public:
    std::function<void(TestJob&)> body() {
        return [this](TestJob& job) { pass([&job] { return job.isCancelled(); }); };
    }
};

// Counts finished callbacks per job and remembers the thread they ran on.
class Finished {
public:
    void attach(SynchronousCompositeJobDispatcher& d) {
        d.setFinishedCallback([this](const SharedPtr<CompositeJob>& job) {
            std::lock_guard<std::mutex> lock(_mutex);
            ++_count[job.get()];
            _thread[job.get()] = std::this_thread::get_id();
            _order.push_back(job.get());
        });
    }
    int count(const SharedPtr<CompositeJob>& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        return _count[job.get()];
    }
    std::thread::id thread(const SharedPtr<CompositeJob>& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        return _thread[job.get()];
    }
    std::vector<const CompositeJob*> order() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _order;
    }

private:
    std::mutex _mutex;
    std::map<const CompositeJob*, int> _count;
    std::map<const CompositeJob*, std::thread::id> _thread;
    std::vector<const CompositeJob*> _order;
};

TEST(CompositeJobDispatcherThreads, RunsJobsOneAtATimeInOrder) {
    SynchronousCompositeJobDispatcher dispatcher("test-jobs");
    Finished finished;
    finished.attach(dispatcher);
    std::atomic<int> active{0}, maxActive{0};
    std::mutex orderMutex;
    std::vector<int> order;
    std::vector<SharedPtr<CompositeJob>> jobs;
    for (int i = 0; i < 30; ++i) {
        jobs.push_back(std::make_shared<TestJob>([&, i](TestJob& job) {
            EXPECT_TRUE(dispatcher.isDispatcherThread());
            job.setProcessState("Working " + std::to_string(i));
            int now = ++active;
            int seen = maxActive.load();
            while (now > seen && !maxActive.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            {
                std::lock_guard<std::mutex> lock(orderMutex);
                order.push_back(i);
            }
            --active;
        }));
        EXPECT_EQ(dispatcher.addJob(jobs.back()), jobs.back());
    }
    EXPECT_FALSE(dispatcher.isDispatcherThread());
    dispatcher.waitIdle();
    EXPECT_EQ(dispatcher.jobCount(), 0u);
    EXPECT_EQ(maxActive.load(), 1);
    ASSERT_EQ(order.size(), 30u);
    for (int i = 0; i < 30; ++i) EXPECT_EQ(order[i], i);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(finished.count(jobs[i]), 1);
        EXPECT_EQ(jobs[i]->status(), CompositeJob::CjFinished);
        EXPECT_EQ(jobs[i]->state(), "Working " + std::to_string(i));
    }
    std::vector<const CompositeJob*> expected;
    for (auto& j : jobs) expected.push_back(j.get());
    EXPECT_EQ(finished.order(), expected);
}

TEST(CompositeJobDispatcherThreads, EqualJobIsNotQueuedTwice) {
    SynchronousCompositeJobDispatcher dispatcher;
    Finished finished;
    finished.attach(dispatcher);
    Gate gate;
    auto running = std::make_shared<TestJob>(gate.body(), "running");
    dispatcher.addJob(running);
    gate.waitEntered();

    // Equal to the running job, to a queued one, and asked only one way round.
    auto sameAsRunning = std::make_shared<TestJob>(nullptr, "running");
    EXPECT_EQ(dispatcher.addJob(sameAsRunning), running);
    auto first = std::make_shared<TestJob>(nullptr, "k");
    auto second = std::make_shared<TestJob>(nullptr, "k");
    EXPECT_EQ(dispatcher.addJob(first), first);
    EXPECT_EQ(dispatcher.addJob(second), first);
    EXPECT_EQ(dispatcher.addJob(first), first);
    auto plain = std::make_shared<TestJob>();  // no key: equal only to itself
    class Claims : public TestJob {
    public:
        explicit Claims(SharedPtr<CompositeJob> target) : _target(std::move(target)) {}
        bool isSameJob(const SharedPtr<CompositeJob>& other) const override {
            return other == _target || other.get() == this;
        }
        SharedPtr<CompositeJob> _target;
    };
    EXPECT_EQ(dispatcher.addJob(plain), plain);
    auto claims = std::make_shared<Claims>(plain);
    EXPECT_EQ(dispatcher.addJob(claims), plain);  // claims says so; plain does not
    auto plainAfter = std::make_shared<TestJob>();
    auto claimsFirst = std::make_shared<Claims>(plainAfter);
    EXPECT_EQ(dispatcher.addJob(claimsFirst), claimsFirst);
    EXPECT_EQ(dispatcher.addJob(plainAfter), claimsFirst);  // asked the other way round
    EXPECT_EQ(dispatcher.jobCount(), 4u);

    gate.open();
    dispatcher.waitIdle();
    EXPECT_EQ(running->runs, 1);
    EXPECT_EQ(first->runs, 1);
    EXPECT_EQ(plain->runs, 1);
    for (auto& never : {sameAsRunning, second, static_ptr_cast<TestJob>(claims), plainAfter}) {
        EXPECT_EQ(never->runs, 0);
        EXPECT_EQ(finished.count(never), 0);
    }
    // Once the first has ended, its equal is queued and runs.
    EXPECT_EQ(dispatcher.addJob(second), second);
    dispatcher.waitIdle();
    EXPECT_EQ(second->runs, 1);

    // A job runs at most once: handing it over again is refused with a line.
    LogCapture log;
    EXPECT_EQ(dispatcher.addJob(first), nullptr);
    EXPECT_EQ(log.count("refused"), 1u);
}

TEST(CompositeJobDispatcherThreads, CancelDropsQueuedJobAndFlagsRunningOne) {
    SynchronousCompositeJobDispatcher dispatcher;
    Finished finished;
    finished.attach(dispatcher);
    Gate gate;
    auto running = std::make_shared<TestJob>(gate.body());
    auto queued = std::make_shared<TestJob>();
    auto after = std::make_shared<TestJob>();
    dispatcher.addJob(running);
    dispatcher.addJob(queued);
    dispatcher.addJob(after);
    gate.waitEntered();

    dispatcher.cancelJob(queued);
    // Dropped at once, its callback on this thread.
    EXPECT_EQ(queued->status(), CompositeJob::CjCancelled);
    EXPECT_TRUE(queued->isCancelled());
    EXPECT_EQ(finished.count(queued), 1);
    EXPECT_EQ(finished.thread(queued), std::this_thread::get_id());
    EXPECT_EQ(dispatcher.jobCount(), 2u);

    // The running one only sees its flag; run() ends it.
    EXPECT_EQ(running->status(), CompositeJob::CjRunning);
    dispatcher.cancelJob(running);
    dispatcher.waitIdle();
    EXPECT_TRUE(running->isCancelled());
    EXPECT_EQ(running->status(), CompositeJob::CjFinished);
    EXPECT_EQ(finished.count(running), 1);
    EXPECT_NE(finished.thread(running), std::this_thread::get_id());
    EXPECT_EQ(queued->runs, 0);
    EXPECT_EQ(after->runs, 1);
    EXPECT_EQ(finished.count(queued), 1);

    // A job cancelled before it was handed over is not run either.
    auto early = std::make_shared<TestJob>();
    early->cancel(false);
    dispatcher.addJob(early);
    dispatcher.waitIdle();
    EXPECT_EQ(early->runs, 0);
    EXPECT_EQ(early->status(), CompositeJob::CjCancelled);
    EXPECT_EQ(finished.count(early), 1);
}

TEST(CompositeJobDispatcherThreads, ExceptionBecomesFailureAndNextJobRuns) {
    SynchronousCompositeJobDispatcher dispatcher;
    Finished finished;
    finished.attach(dispatcher);
    LogCapture log;
    auto thrower =
        std::make_shared<TestJob>([](TestJob&) { throw std::runtime_error("disk gone"); });
    auto odd = std::make_shared<TestJob>([](TestJob&) { throw 42; });
    auto next = std::make_shared<TestJob>();
    dispatcher.addJob(thrower);
    dispatcher.addJob(odd);
    dispatcher.addJob(next);
    dispatcher.waitIdle();
    EXPECT_EQ(thrower->status(), CompositeJob::CjFailed);
    EXPECT_EQ(thrower->failure(), "disk gone");
    EXPECT_EQ(odd->status(), CompositeJob::CjFailed);
    EXPECT_FALSE(odd->failure().empty());
    EXPECT_EQ(next->status(), CompositeJob::CjFinished);
    EXPECT_EQ(next->failure(), "");
    EXPECT_EQ(log.count("disk gone"), 1u);
    for (auto& j : {thrower, odd, next}) EXPECT_EQ(finished.count(j), 1);
}

TEST(CompositeJobDispatcherThreads, ShutdownEndsEveryJobOnceAndRefusesMore) {
    auto dispatcher = std::make_unique<SynchronousCompositeJobDispatcher>();
    Finished finished;
    finished.attach(*dispatcher);
    Gate gate;  // never opened: only the cancel of shutdown lets the job end
    auto running = std::make_shared<TestJob>(gate.body());
    std::vector<SharedPtr<TestJob>> queued;
    dispatcher->addJob(running);
    for (int i = 0; i < 5; ++i) {
        queued.push_back(std::make_shared<TestJob>());
        dispatcher->addJob(queued.back());
    }
    gate.waitEntered();
    dispatcher->shutdown();
    EXPECT_EQ(finished.count(running), 1);
    EXPECT_EQ(running->status(), CompositeJob::CjFinished);
    for (auto& q : queued) {
        EXPECT_EQ(q->runs, 0);
        EXPECT_EQ(q->status(), CompositeJob::CjCancelled);
        EXPECT_EQ(finished.count(q), 1);
    }
    LogCapture log;
    auto late = std::make_shared<TestJob>();
    EXPECT_EQ(dispatcher->addJob(late), nullptr);
    EXPECT_EQ(log.count("refused after shutdown"), 1u);
    dispatcher->shutdown();  // again: nothing
    dispatcher.reset();
    EXPECT_EQ(finished.count(late), 0);
}

TEST(CompositeJobDispatcherThreads, WaitingOnItsOwnThreadIsRefused) {
    SynchronousCompositeJobDispatcher dispatcher;
    LogCapture log;
    auto job = std::make_shared<TestJob>([&](TestJob&) {
        dispatcher.waitIdle();
        dispatcher.shutdown();
    });
    dispatcher.addJob(job);
    dispatcher.waitIdle();
    EXPECT_EQ(job->status(), CompositeJob::CjFinished);
    EXPECT_EQ(log.assertions(), 2u);
    // It was not shut down by the refused call.
    auto next = std::make_shared<TestJob>();
    EXPECT_EQ(dispatcher.addJob(next), next);
    dispatcher.waitIdle();
    EXPECT_EQ(next->runs, 1);
}

// Adds, equal adds and cancels from several threads at once: every job handed over ends in one
// callback, and a job never runs twice.
TEST(CompositeJobDispatcherThreads, ConcurrentAddsAndCancels) {
    for (int round = 0; round < 5; ++round) {
        SynchronousCompositeJobDispatcher dispatcher;
        Finished finished;
        finished.attach(dispatcher);
        std::mutex m;
        std::vector<SharedPtr<TestJob>> accepted;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 40; ++i) {
                    auto job = std::make_shared<TestJob>(
                        [](TestJob&) { std::this_thread::yield(); }, "k" + std::to_string(i % 7));
                    auto given = dispatcher.addJob(job);
                    if (given == job) {
                        std::lock_guard<std::mutex> lock(m);
                        accepted.push_back(job);
                    }
                    if ((i + t) % 3 == 0) dispatcher.cancelJob(given);
                    if (i % 17 == 0) dispatcher.cancelAll();
                }
            });
        }
        for (auto& th : threads) th.join();
        dispatcher.waitIdle();
        for (auto& job : accepted) {
            EXPECT_EQ(finished.count(job), 1);
            EXPECT_LE(job->runs, 1);
            EXPECT_EQ(job->runs == 1, job->status() == CompositeJob::CjFinished);
        }
    }
}

}  // namespace
