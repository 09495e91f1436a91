#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "base/thread/DelayedExecutor.h"
#include "base/thread/Sequentializer.h"
#include "base/thread/TaskGroup.h"
#include "base/thread/ThreadPool.h"
#include "base/thread/Timer.h"

namespace qor::thread {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Polls until pred holds or `seconds` passed; returns pred().
template <class Pred>
bool eventually(Pred pred, double seconds = 5.0) {
    auto start = Clock::now();
    while (!pred()) {
        if (secondsSince(start) > seconds) return pred();
        sleepFor(0.001);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// TaskGroup

TEST(TaskGroupThreads, CancelDropsQueuedTasksStopsPostsAndWaitReturns) {
    ThreadPool pool(1);
    TaskGroup group(&pool);
    std::atomic<bool> blockerStarted{false};
    std::atomic<bool> blockerSawCancel{false};
    std::atomic<int> ran{0};
    // The only worker polls the flag, so everything posted after it stays queued.
    ASSERT_TRUE(group.post([&] {
        blockerStarted = true;
        while (!group.isCancelled()) sleepFor(0.001);
        blockerSawCancel = true;
    }));
    ASSERT_TRUE(eventually([&] { return blockerStarted.load(); }));
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(group.post([&] { ++ran; }, i));
    EXPECT_EQ(group.pending(), 6u);

    group.cancel();
    {
        LogCapture capture;
        EXPECT_FALSE(group.post([&] { ++ran; }));
        EXPECT_EQ(capture.count("task posted after cancel() refused"), 1u);
    }
    group.wait();
    EXPECT_TRUE(blockerSawCancel);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(group.pending(), 0u);
    EXPECT_EQ(pool.pending(), 0u);

    group.reset();
    EXPECT_FALSE(group.isCancelled());
    EXPECT_TRUE(group.post([&] { ++ran; }));
    group.wait();
    EXPECT_EQ(ran, 1);
}

TEST(TaskGroupThreads, WaitCoversTasksPostedFromSeveralThreadsAndByTasks) {
    ThreadPool pool(3);
    std::atomic<int> ran{0};
    {
        TaskGroup group(&pool);
        std::vector<std::thread> posters;
        for (int t = 0; t < 3; ++t) {
            posters.emplace_back([&] {
                for (int i = 0; i < 20; ++i) {
                    group.post([&] {
                        ++ran;
                        group.post([&] { ++ran; });  // a task may post to its own group
                    });
                }
            });
        }
        for (auto& t : posters) t.join();
        group.wait();
        EXPECT_EQ(ran, 120);
        EXPECT_EQ(group.pending(), 0u);
    }
}

TEST(TaskGroup, ZeroWorkerPoolRunsInlineAndLogsExceptions) {
    ThreadPool pool(0);
    TaskGroup group(&pool);
    LogCapture capture;
    int ran = 0;
    EXPECT_TRUE(group.post([&] { throw std::runtime_error("broken"); }));
    EXPECT_TRUE(group.post([&] { ++ran; }));
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(capture.count("TaskGroup: task terminated with an exception: broken"), 1u);
    EXPECT_TRUE(group.post([&] { group.wait(); }));  // would wait for itself
    EXPECT_EQ(capture.assertions(), 1u);
    EXPECT_EQ(group.pending(), 0u);
}

// ---------------------------------------------------------------------------------------------
// Sequentializer

TEST(SequentializerThreads, NeverOverlapsTwoTasks) {
    ThreadPool pool(4);
    Sequentializer seq(&pool);
    std::atomic<int> inside{0};
    std::atomic<int> maxInside{0};
    std::atomic<int> ran{0};
    auto task = [&] {
        int now = ++inside;
        int seen = maxInside.load();
        while (now > seen && !maxInside.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::yield();
        --inside;
        ++ran;
    };
    std::vector<std::thread> adders;
    for (int t = 0; t < 4; ++t) {
        adders.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) seq.addTask(task, (i + t) % 3);
        });
    }
    for (auto& t : adders) t.join();
    seq.wait();
    EXPECT_EQ(ran, 200);
    EXPECT_EQ(maxInside, 1);
    EXPECT_EQ(seq.pending(), 0u);
}

TEST(SequentializerThreads, RunsQueuedTasksByPriorityThenInOrderAddedAndClearDropsThem) {
    ThreadPool pool(1);
    Sequentializer seq(&pool);
    std::atomic<bool> started{false};
    std::atomic<bool> release{false};
    std::vector<int> order;  // written by one task at a time
    seq.addTask([&] {
        started = true;
        while (!release) sleepFor(0.001);
    }, 0);
    ASSERT_TRUE(eventually([&] { return started.load(); }));
    seq.addTask([&order] { order.push_back(-1); }, 20);
    seq.addTask([&order] { order.push_back(-2); }, 0);
    EXPECT_EQ(seq.clear(), 2u);  // queued tasks are dropped, the running one goes on
    const int priorities[] = {0, 5, 0, 5, -1, 10};
    for (int i = 0; i < 6; ++i) {
        seq.addTask([&order, i] { order.push_back(i); }, priorities[i]);
    }
    EXPECT_EQ(seq.pending(), 7u);
    release = true;
    seq.wait();
    EXPECT_EQ(order, (std::vector<int>{5, 1, 3, 0, 2, 4}));
}

TEST(SequentializerThreads, TaskAddsTaskAndWaitCoversBoth) {
    ThreadPool pool(2);
    Sequentializer seq(&pool);
    std::atomic<int> ran{0};
    seq.addTask([&] {
        seq.addTask([&] { ran += 10; }, 0);
        ++ran;
    }, 0);
    seq.wait();
    EXPECT_EQ(ran, 11);
}

TEST(Sequentializer, ZeroWorkerPoolRunsChainInlineAndSurvivesThrowingTask) {
    ThreadPool pool(0);
    Sequentializer seq(&pool);
    LogCapture capture;
    std::vector<int> order;
    seq.addTask([&] {
        order.push_back(1);
        seq.addTask([&] { order.push_back(3); }, 0);
        seq.addTask([&] { throw std::runtime_error("bad tile"); }, 1);
        seq.addTask([&] { order.push_back(2); }, 1);
    }, 0);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(capture.count("Sequentializer: task terminated with an exception: bad tile"), 1u);
    EXPECT_EQ(seq.pending(), 0u);
}

// ---------------------------------------------------------------------------------------------
// Timer

TEST(TimerThreads, PostsInTimeOrderAndCancelRemovesEntriesNotDue) {
    ThreadPool pool(1);
    Timer timer("test-timer");
    Mutex mutex;
    std::vector<int> order;
    auto record = [&](int i) {
        return [&, i] {
            ScopedLock<Mutex> lock(mutex);
            order.push_back(i);
        };
    };
    auto now = Timer::Clock::now();
    timer.schedule(now + std::chrono::milliseconds(60), record(3), 0, &pool);
    Timer::Id dropped = timer.schedule(now + std::chrono::milliseconds(40), record(99), 0, &pool);
    timer.schedule(now + std::chrono::milliseconds(20), record(2), 0, &pool);
    timer.schedule(now, record(1), 0, &pool);
    EXPECT_TRUE(timer.cancel(dropped));
    EXPECT_FALSE(timer.cancel(dropped));
    ASSERT_TRUE(eventually([&] {
        ScopedLock<Mutex> lock(mutex);
        return order.size() == 3;
    }));
    pool.waitIdle();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(timer.pending(), 0u);
}

// ---------------------------------------------------------------------------------------------
// DelayedExecutor

TEST(DelayedExecutorThreads, BurstOfTriggersRunsTheTaskOnce) {
    ThreadPool pool(2);
    std::atomic<int> ran{0};
    DelayedExecutor exec([&] { ++ran; }, 0.05, 0, 0.0, &pool);
    for (int i = 0; i < 10; ++i) exec.trigger();
    EXPECT_TRUE(exec.isPending());
    ASSERT_TRUE(eventually([&] { return ran.load() == 1; }));
    sleepFor(0.15);
    EXPECT_EQ(ran, 1);
    EXPECT_FALSE(exec.isPending());
}

struct Stream {
    double longestGap = 0.0;   // the most time that can have passed between two triggers
    double lastTrigger = 0.0;  // seconds after t0, taken just before the last trigger
};

// Triggers every 20 ms for `seconds`.
Stream triggerStream(DelayedExecutor& exec, Clock::time_point t0, double seconds) {
    Stream stream;
    double previousBefore = -1.0;
    while (secondsSince(t0) < seconds) {
        double before = secondsSince(t0);
        exec.trigger();
        double after = secondsSince(t0);
        if (previousBefore >= 0.0) {
            stream.longestGap = std::max(stream.longestGap, after - previousBefore);
        }
        previousBefore = before;
        stream.lastTrigger = before;
        sleepFor(0.02);
    }
    return stream;
}

// Runs a stream of triggers against an executor and returns when it ran for the last time, with
// the start times of its runs in seconds after the first trigger.
struct StreamResult {
    Stream stream;
    std::vector<double> runs;
};

StreamResult runStream(double delay, double maxDelay, double seconds) {
    ThreadPool pool(2);
    Mutex mutex;
    StreamResult result;
    auto t0 = Clock::now();
    DelayedExecutor exec([&] {
        ScopedLock<Mutex> lock(mutex);
        result.runs.push_back(secondsSince(t0));
    }, delay, 0, maxDelay, &pool);
    t0 = Clock::now();
    result.stream = triggerStream(exec, t0, seconds);
    EXPECT_TRUE(eventually([&] { return !exec.isPending() && !exec.isRunning(); }));
    exec.stop();
    return result;
}

TEST(DelayedExecutorThreads, MaxDelayBoundsHowLongAStreamHoldsTheRunBack) {
    StreamResult r = runStream(0.1, 0.3, 0.8);
    ASSERT_FALSE(r.runs.empty());
    EXPECT_LT(r.runs[0], 0.3 + 0.25);
    EXPECT_GE(r.runs[0], 0.1 - 0.001);  // the first trigger still waits its delay
}

TEST(DelayedExecutorThreads, WithoutMaxDelayAStreamPostponesTheRunToItsEnd) {
    StreamResult r = runStream(0.15, 0.0, 0.5);
    ASSERT_FALSE(r.runs.empty());
    // Only a stream that never paused as long as the delay proves the postponement.
    if (r.stream.longestGap < 0.15 - 0.005) {
        EXPECT_EQ(r.runs.size(), 1u);
        EXPECT_GE(r.runs[0], r.stream.lastTrigger + 0.15 - 0.001);
    }
}

TEST(DelayedExecutorThreads, TriggersDuringARunLeadToExactlyOneFurtherRun) {
    ThreadPool pool(2);
    std::atomic<int> ran{0};
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> release{false};
    DelayedExecutor exec([&] {
        if (++inside > 1) overlapped = true;
        if (ran.load() == 0) {
            while (!release) sleepFor(0.001);
        }
        ++ran;
        --inside;
    }, 0.01, 0, 0.0, &pool);
    exec.trigger();
    ASSERT_TRUE(eventually([&] { return exec.isRunning(); }));
    for (int i = 0; i < 5; ++i) exec.trigger();
    EXPECT_FALSE(exec.isPending());  // the rerun is due at the end of this run, not scheduled
    release = true;
    ASSERT_TRUE(eventually([&] { return ran.load() == 2; }));
    sleepFor(0.15);
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(overlapped);
}

TEST(DelayedExecutorThreads, RunNowRunsThePendingTaskAndExceptionsAreLogged) {
    ThreadPool pool(1);
    LogCapture capture;
    int calls = 0;  // runNow() runs the task on this thread
    DelayedExecutor exec([&] {
        if (++calls == 1) throw std::runtime_error("disk full");
        throw 7;
    }, 10.0, 0, 0.0, &pool);
    EXPECT_FALSE(exec.runNow());  // nothing pending
    exec.trigger();
    EXPECT_TRUE(exec.isPending());
    EXPECT_TRUE(exec.runNow());
    EXPECT_FALSE(exec.isPending());
    exec.trigger();
    EXPECT_TRUE(exec.runNow());
    EXPECT_FALSE(exec.runNow());
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(
        capture.count("DelayedExecutor: Task terminated with an uncaught exception: disk full"),
        1u);
    EXPECT_EQ(capture.count("DelayedExecutor: Task terminated with an unkonwn uncaught exception"),
              1u);
}

TEST(DelayedExecutorThreads, StopCancelsThePendingRunAndRefusesTriggers) {
    ThreadPool pool(1);
    std::atomic<int> ran{0};
    DelayedExecutor exec([&] { ++ran; }, 0.05, 0, 0.0, &pool);
    exec.trigger();
    ASSERT_TRUE(exec.isPending());
    exec.stop();
    EXPECT_FALSE(exec.isPending());
    exec.trigger();
    EXPECT_FALSE(exec.isPending());
    sleepFor(0.15);
    EXPECT_EQ(ran, 0);
}

TEST(DelayedExecutorThreads, StopWaitsForTheActiveRun) {
    ThreadPool pool(1);
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    DelayedExecutor exec([&] {
        started = true;
        sleepFor(0.1);
        finished = true;
    }, 0.0, 0, 0.0, &pool);
    exec.trigger();
    ASSERT_TRUE(eventually([&] { return started.load(); }));
    exec.stop();
    EXPECT_TRUE(finished);
    EXPECT_FALSE(exec.isRunning());
}

}  // namespace
}  // namespace qor::thread
