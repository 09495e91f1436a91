#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "base/Exception.h"
#include "base/Log.h"
#include "base/thread/DFSOrderScoreFunction.h"
#include "base/thread/DependentJob.h"
#include "base/thread/DependentJobExecutor.h"
#include "base/thread/DependentJobMerger.h"
#include "base/thread/JobDispatcher.h"
#include "base/thread/JobGroup.h"
#include "base/thread/ThreadId.h"

namespace qor::thread {
namespace {

using JobSet = std::set<SharedPtr<DependentJob>>;

// Sequence numbers shared by all test jobs: a job's start and end are stamped from one counter, so
// "a started after b ended" is a comparison of two numbers.
std::atomic<int> gSequence{0};

class TestError : public CloneableException<TestError> {
public:
    using CloneableException::CloneableException;
};

class TestJob : public DependentJob {
public:
    static SharedPtr<TestJob> create(int key, JobType type = JtWorker, Function0<void> body = {}) {
        return SharedPtr<TestJob>(new TestJob(key, type, std::move(body)));
    }

    int compare(const DependentJob& other) const override {
        const auto* o = dynamic_cast<const TestJob*>(&other);
        if (!o) return -1;
        return key < o->key ? -1 : key > o->key ? 1 : 0;
    }
    DependentJob* dup() const override { return new TestJob(*this); }
    JobType precondition() override { return type; }
    void performComputation() override {
        startSeq = ++gSequence;
        ranOn = getThreadId();
        if (body) body();
        endSeq = ++gSequence;
    }
    bool failed() const override { return recordedFailure || DependentJob::failed(); }
    void dropResults() override {
        ++drops;
        if (onDrop) onDrop(*this);
    }

    int key;
    JobType type;
    Function0<void> body;
    Function1<void, TestJob&> onDrop;  // runs in dropResults
    std::atomic<int> drops{0};
    bool recordedFailure = false;  // a job that catches its own failure and records it
    int startSeq = 0;
    int endSeq = 0;
    ThreadId ranOn = InvalidThreadId;

private:
    TestJob(int k, JobType t, Function0<void> b)
        : DependentJob("Test"), key(k), type(t), body(std::move(b)) {}
    TestJob(const TestJob& other)
        : DependentJob(other), key(other.key), type(other.type), body(other.body) {}
};

// Gives each job the score stored for its key; unlisted jobs get none.
class KeyScore : public JobScoreFunction {
public:
    explicit KeyScore(std::map<int, int> scores) : _scores(std::move(scores)) {}
    void scoreJobs(const JobSet& jobs, ScoredJobs& scored) const override {
        std::set<SharedPtr<DependentJob>> visited;
        std::vector<SharedPtr<DependentJob>> stack(jobs.begin(), jobs.end());
        while (!stack.empty()) {
            auto job = stack.back();
            stack.pop_back();
            if (!visited.insert(job).second) continue;
            auto it = _scores.find(static_cast<TestJob&>(*job).key);
            if (it != _scores.end()) scored.push({it->second, job});
            stack.insert(stack.end(), job->dependencies().begin(), job->dependencies().end());
        }
    }

private:
    std::map<int, int> _scores;
};

// Collects the jobs the finish callback saw, from any thread.
struct Reported {
    std::mutex mutex;
    std::vector<SharedPtr<DependentJob>> jobs;
    DependentJobExecutor::FinishCallback callback() {
        return [this](const SharedPtr<DependentJob>& job) {
            std::lock_guard<std::mutex> lock(mutex);
            jobs.push_back(job);
        };
    }
    size_t count(const SharedPtr<DependentJob>& job) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count(jobs.begin(), jobs.end(), job);
    }
};

int keyOf(const SharedPtr<DependentJob>& job) { return static_cast<TestJob&>(*job).key; }

// ---- jobs, merger, score order ----

TEST(DependentJob, CopyIsTheSameWorkWithANewIdAndNoGraphState) {
    JobDispatcher inline0(0);
    DependentJobExecutor executor(inline0);
    auto dep = TestJob::create(1);
    auto job = TestJob::create(2);
    job->setCreatorName("tester");
    job->addDependency(dep);
    ASSERT_TRUE(executor.process(nullptr, {job}, {}));
    ASSERT_TRUE(job->isFinished());

    ScopedPtr<DependentJob> copy(job->dup());
    EXPECT_NE(copy->id(), job->id());
    EXPECT_EQ(copy->label(), "Test");
    EXPECT_EQ(copy->creatorName(), "tester");
    EXPECT_TRUE(copy->isPending());
    EXPECT_TRUE(copy->dependencies().empty());
    EXPECT_EQ(copy->compare(*job), 0);
    EXPECT_NE(job->id(), dep->id());
}

TEST(DependentJob, RejectsNullAndSelfDependencies) {
    LogCapture capture;
    auto job = TestJob::create(1);
    job->addDependency(nullptr);
    job->addDependency(job);
    EXPECT_TRUE(job->dependencies().empty());
    EXPECT_EQ(capture.assertions(), 2u);
}

TEST(DependentJobMerger, MergesEqualJobsAndKeepsDifferentOnes) {
    DependentJobMerger merger;
    SharedPtr<DependentJob> a = TestJob::create(1), sameAsA = TestJob::create(1),
                            b = TestJob::create(2);
    EXPECT_EQ(merger.find(a), nullptr);
    EXPECT_EQ(merger.merge(a), a);
    EXPECT_EQ(merger.merge(sameAsA), a);
    EXPECT_EQ(merger.find(sameAsA), a);
    EXPECT_EQ(merger.merge(b), b);
    EXPECT_EQ(merger.find(TestJob::create(3)), nullptr);
    EXPECT_EQ(merger.size(), 2u);
}

// Pops `scored` into a map from key to score.
std::map<int, int> drain(JobScoreFunction::ScoredJobs& scored) {
    std::map<int, int> out;
    for (; !scored.empty(); scored.pop()) {
        EXPECT_TRUE(out.emplace(keyOf(scored.top().second), scored.top().first).second)
            << "each job is scored once";
    }
    return out;
}

TEST(DFSOrderScoreFunction, ScoresDependenciesBeforeTheJobOnADiamond) {
    auto bottom = TestJob::create(0), left = TestJob::create(1), right = TestJob::create(2),
         top = TestJob::create(3), other = TestJob::create(4);
    left->addDependency(bottom);
    right->addDependency(bottom);
    top->addDependency(left);
    top->addDependency(right);
    other->addDependency(bottom);

    DFSOrderScoreFunction dfs;
    JobScoreFunction::ScoredJobs scored;
    dfs.scoreJobs({top}, scored);
    auto scores = drain(scored);
    int firstSide = keyOf(*top->dependencies().begin());
    int secondSide = firstSide == 1 ? 2 : 1;
    EXPECT_EQ(scores, (std::map<int, int>{{0, 1}, {firstSide, 2}, {secondSide, 3}, {3, 4}}));

    // Two roots: the one first in set order walks the shared bottom; the other follows it.
    dfs.scoreJobs({top, other}, scored);
    scores = drain(scored);
    ASSERT_EQ(scores.size(), 5u);
    EXPECT_EQ(scores[0], 1);
    bool topFirst = *JobSet({top, other}).begin() == top;
    EXPECT_EQ(scores[4], topFirst ? 5 : 2);
    EXPECT_EQ(scores[3], topFirst ? 4 : 5);
}

TEST(DFSOrderScoreFunction, LeavesOutJobsThatAreNoLongerPending) {
    JobDispatcher inline0(0);
    DependentJobExecutor executor(inline0);
    auto bottom = TestJob::create(0), top = TestJob::create(1);
    top->addDependency(bottom);
    ASSERT_TRUE(executor.process(nullptr, {bottom}, {}));

    JobScoreFunction::ScoredJobs scored;
    DFSOrderScoreFunction().scoreJobs({top, bottom}, scored);
    EXPECT_EQ(drain(scored), (std::map<int, int>{{1, 1}}));
}

TEST(JobGroup, RecordsTheReachableJobsByLabel) {
    auto bottom = TestJob::create(0), top = TestJob::create(1);
    top->addDependency(bottom);
    auto group = createGroup({top}, "request 7");
    EXPECT_EQ(group->size(), 2u);
    EXPECT_TRUE(group->contains(bottom->id()));
    EXPECT_EQ(group->toString(), "Job group 'request 7': 2 jobs (Test 2)");
}

// ---- the executor, deterministic on a dispatcher without workers ----

TEST(DependentJobExecutor, RunsOnlyPendingJobsAndSkipsBehindEarlierFailures) {
    LogCapture capture;
    JobDispatcher inline0(0);
    DependentJobExecutor executor(inline0);
    EXPECT_TRUE(executor.process(nullptr, {}, {}));

    auto good = TestJob::create(0);
    auto bad = TestJob::create(1, JtWorker, [] { throw TestError("boom"); });
    EXPECT_FALSE(executor.process(nullptr, {good, bad}, {}));

    // Reused: the finished job satisfies its new dependent; the failed one blocks its dependent.
    auto afterGood = TestJob::create(2, JtTrivial), afterBad = TestJob::create(3);
    afterGood->addDependency(good);
    afterBad->addDependency(bad);
    int goodStart = good->startSeq;
    Reported reported;
    EXPECT_FALSE(executor.process(nullptr, {afterGood, afterBad}, reported.callback()));
    EXPECT_EQ(good->startSeq, goodStart) << "a finished job does not run again";
    EXPECT_TRUE(afterGood->isFinished());
    EXPECT_TRUE(afterBad->isSkipped());
    EXPECT_EQ(reported.jobs, std::vector<SharedPtr<DependentJob>>{afterGood});
    unsigned done, running, total;
    executor.progress(done, running, total);
    EXPECT_EQ(done, 1u);
    EXPECT_EQ(total, 2u);
}

TEST(DependentJobExecutor, SkipsADependencyCycleWithAnAssertion) {
    LogCapture capture;
    JobDispatcher inline0(0);
    DependentJobExecutor executor(inline0);
    auto a = TestJob::create(0), b = TestJob::create(1), c = TestJob::create(2),
         free = TestJob::create(3);
    a->addDependency(b);
    b->addDependency(a);
    c->addDependency(a);
    EXPECT_FALSE(executor.process(nullptr, {c, free}, {}));
    EXPECT_TRUE(free->isFinished());
    EXPECT_TRUE(a->isSkipped() && b->isSkipped() && c->isSkipped());
    EXPECT_EQ(capture.assertions("cyclic == 0"), 1u);
    a->clearDependencies();  // let the cycle go
}

// ---- the executor on worker threads ----

TEST(DependentJobExecutorThreads, DropsResultsOnceTheJobAndAllItsDependentsAreDone) {
    LogCapture capture;
    JobDispatcher two(2);
    DependentJobExecutor executor(two);
    // An earlier run's job: dropped by its own run, and never by a later one that reads it.
    auto earlier = TestJob::create(0);
    ASSERT_TRUE(executor.process(nullptr, {earlier}, {}));
    ASSERT_EQ(earlier->drops.load(), 1);
    earlier->drops = 0;

    // base <- left, right <- top (a diamond); left also reads `earlier`; a failing job and the one
    // skipped behind it; a lone trivial job.
    auto base = TestJob::create(1), left = TestJob::create(2), right = TestJob::create(3, JtTrivial),
         top = TestJob::create(4);
    auto failing = TestJob::create(5, JtWorker, [] { throw TestError("boom"); });
    auto behind = TestJob::create(6), lone = TestJob::create(7, JtTrivial);
    left->addDependency(base);
    left->addDependency(earlier);
    right->addDependency(base);
    top->addDependency(left);
    top->addDependency(right);
    behind->addDependency(failing);
    const std::map<TestJob*, std::vector<SharedPtr<TestJob>>> dependents = {
        {base.get(), {left, right}}, {left.get(), {top}}, {right.get(), {top}},
        {top.get(), {}}, {failing.get(), {behind}}, {behind.get(), {}}, {lone.get(), {}}};

    Reported reported;
    std::atomic<bool> returned{false};
    std::mutex mutex;
    std::vector<std::string> problems;  // guarded by mutex
    for (const auto& [job, list] : dependents) {
        std::vector<TestJob*> deps;  // not owning: a job must not keep its dependents alive
        for (const SharedPtr<TestJob>& d : list) deps.push_back(d.get());
        job->onDrop = [&, deps](TestJob& self) {
            std::string problem;
            for (TestJob* d : deps)
                if (!d->isDone()) problem += " dependent " + std::to_string(d->key) + " not done;";
            if (returned) problem += " dropped after process() returned;";
            if (!problem.empty()) {
                std::lock_guard<std::mutex> lock(mutex);
                problems.push_back(std::to_string(self.key) + ":" + problem);
            }
        };
    }
    // The finish callback of a job still sees it undropped.
    auto callback = [&](const SharedPtr<DependentJob>& job) {
        if (static_cast<TestJob&>(*job).drops != 0) {
            std::lock_guard<std::mutex> lock(mutex);
            problems.push_back(std::to_string(keyOf(job)) + ": dropped before its callback");
        }
        reported.callback()(job);
    };
    EXPECT_FALSE(executor.process(nullptr, {top, behind, lone}, callback));
    returned = true;
    EXPECT_TRUE(behind->isSkipped());
    for (const auto& [job, deps] : dependents)
        EXPECT_EQ(job->drops.load(), 1) << "job " << job->key;
    EXPECT_EQ(earlier->drops.load(), 0);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems);
}

TEST(DependentJobExecutorThreads, StartsReadyJobsInScoreOrderWithOneWorker) {
    JobDispatcher one(1);
    DependentJobExecutor executor(one);
    std::vector<SharedPtr<TestJob>> jobs;
    for (int key = 0; key < 6; ++key) jobs.push_back(TestJob::create(key));
    jobs[4]->addDependency(jobs[2]);  // 4 has the best score but waits for 2
    jobs[5]->type = JtTrivial;        // no score: last
    auto score =
        std::make_shared<KeyScore>(std::map<int, int>{{0, 30}, {1, 10}, {2, 20}, {3, 40}, {4, 0}});
    ASSERT_TRUE(executor.process(score, JobSet(jobs.begin(), jobs.end()), {}));

    std::vector<int> order;
    std::vector<SharedPtr<TestJob>> byStart = jobs;
    std::sort(byStart.begin(), byStart.end(),
              [](const auto& a, const auto& b) { return a->startSeq < b->startSeq; });
    for (const auto& job : byStart) order.push_back(job->key);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 4, 0, 3, 5}));
}

// Derives without changing anything, so the executor has to ask it rather than use its own walk.
class DerivedDFSOrder : public DFSOrderScoreFunction {};

TEST(DependentJobExecutorThreads, DefaultOrderIsTheDepthFirstScoreOrder) {
    for (bool askFunction : {false, true}) {
        JobDispatcher one(1);
        DependentJobExecutor executor(one);
        std::mt19937 random(11);
        std::vector<SharedPtr<TestJob>> jobs;
        for (int key = 0; key < 40; ++key) {
            jobs.push_back(TestJob::create(key));
            for (int n = 0; n < 2 && key > 0; ++n) jobs[key]->addDependency(jobs[random() % key]);
        }
        JobSet roots{jobs[39], jobs[25], jobs[12]};
        JobScoreFunction::ScoredJobs scored;
        DFSOrderScoreFunction().scoreJobs(roots, scored);
        std::map<int, int> expected = drain(scored);

        SharedPtr<JobScoreFunction> score;
        if (askFunction) score = std::make_shared<DerivedDFSOrder>();
        ASSERT_TRUE(executor.process(score, roots, {}));
        std::map<int, int> startOf;
        for (const auto& job : jobs)
            if (job->startSeq) startOf[job->key] = job->startSeq;
        ASSERT_EQ(startOf.size(), expected.size());
        for (const auto& [a, scoreA] : expected)
            for (const auto& [b, scoreB] : expected)
                EXPECT_EQ(scoreA < scoreB, startOf[a] < startOf[b]) << a << " " << b;
    }
}

TEST(DependentJobExecutorThreads, NeverStartsAJobBeforeItsDependenciesFinished) {
    JobDispatcher two(2);
    DependentJobExecutor executor(two);
    std::mt19937 random(7);
    std::vector<SharedPtr<TestJob>> jobs;
    std::atomic<unsigned> sink{0};
    for (int key = 0; key < 300; ++key) {
        auto job = TestJob::create(key, key % 7 == 0 ? JtTrivial : JtWorker, [&sink, key] {
            unsigned x = key;
            for (int i = 0; i < 2000; ++i) x = x * 1664525u + 1013904223u;
            sink += x;
        });
        for (int n = 0; n < 3 && key > 0; ++n) job->addDependency(jobs[random() % key]);
        jobs.push_back(job);
    }
    Reported reported;
    ASSERT_TRUE(executor.process(nullptr, {jobs.back(), jobs[150]}, reported.callback()));

    size_t reachable = 0;
    for (const auto& job : jobs) {
        if (job->isPending()) continue;  // not reachable from the two roots
        ++reachable;
        EXPECT_TRUE(job->isFinished());
        EXPECT_EQ(reported.count(job), 1u);
        for (const auto& dep : job->dependencies())
            EXPECT_LT(static_cast<TestJob&>(*dep).endSeq, job->startSeq)
                << "job " << job->key << " started before dependency " << keyOf(dep) << " ended";
    }
    EXPECT_EQ(reported.jobs.size(), reachable);
    unsigned done, running, total;
    executor.progress(done, running, total);
    EXPECT_EQ(done, reachable);
    EXPECT_EQ(running, 0u);
    EXPECT_EQ(total, reachable);
}

TEST(DependentJobExecutorThreads, AFailedJobsDependentsAreNotRunButOthersAre) {
    LogCapture capture;
    JobDispatcher two(2);
    DependentJobExecutor executor(two);
    auto thrower = TestJob::create(0, JtWorker, [] { throw TestError("broken"); });
    auto afterThrower = TestJob::create(1), further = TestJob::create(2);
    afterThrower->addDependency(thrower);
    further->addDependency(afterThrower);
    auto recorder = TestJob::create(3);  // records its own failure instead of throwing
    recorder->recordedFailure = true;
    auto afterRecorder = TestJob::create(4);
    afterRecorder->addDependency(recorder);
    auto free = TestJob::create(5), afterFree = TestJob::create(6, JtTrivial);
    afterFree->addDependency(free);

    Reported reported;
    EXPECT_FALSE(
        executor.process(nullptr, {further, afterRecorder, afterFree}, reported.callback()));
    EXPECT_TRUE(thrower->isFailed());
    EXPECT_TRUE(thrower->exception() != nullptr);
    EXPECT_TRUE(recorder->isFailed());
    for (const auto& skipped : {afterThrower, further, afterRecorder}) {
        EXPECT_TRUE(skipped->isSkipped()) << skipped->key;
        EXPECT_EQ(skipped->startSeq, 0) << skipped->key;
        EXPECT_EQ(reported.count(skipped), 0u) << skipped->key;
    }
    EXPECT_TRUE(free->isFinished());
    EXPECT_TRUE(afterFree->isFinished());
    EXPECT_EQ(reported.jobs.size(), 4u) << "failed jobs are reported as well";
}

TEST(DependentJobExecutorThreads, ACallbackExceptionIsRethrownWithItsTypeAndStopsTheRest) {
    JobDispatcher one(1);
    DependentJobExecutor executor(one);
    std::vector<SharedPtr<TestJob>> chain;
    for (int key = 0; key < 5; ++key) {
        chain.push_back(TestJob::create(key));
        if (key > 0) chain[key]->addDependency(chain[key - 1]);
    }
    ThreadId callerThread = getThreadId();
    ThreadId thrownOn = InvalidThreadId;
    try {
        executor.process(nullptr, {chain.back()}, [&](const SharedPtr<DependentJob>&) {
            thrownOn = getThreadId();
            throw TestError("callback refused");
        });
        ADD_FAILURE() << "process() returned";
    } catch (const TestError& e) {
        EXPECT_STREQ(e.what(), "callback refused");
    }
    EXPECT_NE(thrownOn, callerThread);
    EXPECT_TRUE(chain[0]->isFinished());
    for (int key = 1; key < 5; ++key) EXPECT_TRUE(chain[key]->isCancelled()) << key;
    // Usable again afterwards.
    EXPECT_TRUE(executor.process(nullptr, {TestJob::create(9)}, {}));
}

TEST(DependentJobExecutorThreads, CancelFromAnotherThreadLetsTheRunningJobFinishAndStopsTheRest) {
    JobDispatcher one(1);
    DependentJobExecutor executor(one);
    std::promise<void> started;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> first{true};
    JobSet jobs;
    for (int key = 0; key < 10; ++key)
        jobs.insert(TestJob::create(key, JtWorker, [&] {
            if (!first.exchange(false)) return;
            started.set_value();
            released.wait_for(std::chrono::seconds(20));
        }));
    std::thread canceller([&] {
        started.get_future().wait_for(std::chrono::seconds(20));
        executor.cancel();
        release.set_value();
    });
    Reported reported;
    EXPECT_FALSE(executor.process(nullptr, jobs, reported.callback()));
    canceller.join();
    ASSERT_EQ(reported.jobs.size(), 1u);
    EXPECT_TRUE(reported.jobs[0]->isFinished());
    size_t cancelled = 0;
    for (const auto& job : jobs) cancelled += job->isCancelled();
    EXPECT_EQ(cancelled, 9u);
}

TEST(DependentJobExecutorThreads, CancelWithdrawsAQueuedGLJobThatNobodyPumps) {
    JobDispatcher one(1);
    std::thread([&] { one.setGLThread(); }).join();  // a GL thread that never pumps
    DependentJobExecutor executor(one);
    auto first = TestJob::create(0), gl = TestJob::create(1, JtGLThread);
    gl->addDependency(first);
    std::thread canceller([&] {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (one.pendingGLJobs() == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        executor.cancel();
    });
    EXPECT_FALSE(executor.process(nullptr, {gl}, {}));
    canceller.join();
    EXPECT_TRUE(first->isFinished());
    EXPECT_TRUE(gl->isCancelled());
    EXPECT_EQ(one.pendingGLJobs(), 0u);
}

TEST(DependentJobExecutorThreads, CancelFromTheFinishCallbackStopsTheRest) {
    JobDispatcher two(2);
    DependentJobExecutor executor(two);
    JobSet jobs;
    for (int key = 0; key < 50; ++key) jobs.insert(TestJob::create(key));
    std::atomic<int> reports{0};
    EXPECT_FALSE(executor.process(nullptr, jobs, [&](const SharedPtr<DependentJob>&) {
        ++reports;
        executor.cancel();
    }));
    // At most one job per worker was already running when the first callback cancelled.
    size_t ran = 0, cancelled = 0;
    for (const auto& job : jobs) {
        ran += job->isFinished();
        cancelled += job->isCancelled();
    }
    EXPECT_LE(ran, 2u);
    EXPECT_EQ(ran + cancelled, jobs.size());
    EXPECT_EQ(size_t(reports.load()), ran);
}

TEST(DependentJobExecutorThreads, ProgressCountsAJobAsRunningUntilItsCallbackReturned) {
    JobDispatcher one(1);
    DependentJobExecutor executor(one);
    std::vector<SharedPtr<TestJob>> chain;
    for (int key = 0; key < 4; ++key) {
        chain.push_back(TestJob::create(key));
        if (key > 0) chain[key]->addDependency(chain[key - 1]);
    }
    std::vector<std::vector<unsigned>> seen;  // only the one worker writes it
    ASSERT_TRUE(executor.process(nullptr, {chain.back()}, [&](const SharedPtr<DependentJob>&) {
        unsigned done, running, total;
        executor.progress(done, running, total);
        seen.push_back({done, running, total});
    }));
    EXPECT_EQ(seen,
              (std::vector<std::vector<unsigned>>{{0, 1, 4}, {1, 1, 4}, {2, 1, 4}, {3, 1, 4}}));
    unsigned done, running, total;
    executor.progress(done, running, total);
    EXPECT_EQ(done, 4u);
    EXPECT_EQ(running, 0u);
}

// ---- the GL thread ----

TEST(JobDispatcher, RunsGLJobsByPriorityAndWithdrawsQueuedOnes) {
    JobDispatcher inline0(0);
    inline0.setGLThread();
    std::vector<int> order;
    inline0.dispatch([&] { order.push_back(0); }, JtGLThread, 0);
    inline0.dispatch([&] { order.push_back(5); }, JtGLThread, 5);
    auto withdrawn = inline0.dispatch([&] { order.push_back(-1); }, JtGLThread, 9);
    inline0.dispatch([&] { order.push_back(1); }, JtGLThread, 1);
    EXPECT_TRUE(inline0.cancelDispatched(withdrawn));
    EXPECT_FALSE(inline0.cancelDispatched(withdrawn));
    EXPECT_EQ(inline0.processGLJobs(), 3u);
    EXPECT_EQ(order, (std::vector<int>{5, 1, 0}));
}

TEST(JobDispatcherThreads, AGLJobRunsOnlyWhenTheGLThreadPumps) {
    LogCapture capture;
    JobDispatcher dispatcher(1);
    std::promise<void> glThreadSet, pump;
    std::shared_future<void> pumpNow = pump.get_future().share();
    ThreadId glThreadId = InvalidThreadId;
    unsigned pumped = 0;
    std::thread glThread([&] {
        dispatcher.setGLThread();
        glThreadId = getThreadId();
        glThreadSet.set_value();
        pumpNow.wait_for(std::chrono::seconds(20));
        pumped = dispatcher.processGLJobs();
    });
    glThreadSet.get_future().wait();

    ThreadId ranOn = InvalidThreadId;
    auto job = dispatcher.createJob([&] { ranOn = getThreadId(); }, JtGLThread);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(job->finished()) << "no worker may take a GL job";
    EXPECT_EQ(dispatcher.pendingGLJobs(), 1u);
    EXPECT_EQ(dispatcher.processGLJobs(), 0u) << "another thread can't pump";
    EXPECT_EQ(capture.assertions("isGLThread()"), 1u);
    EXPECT_FALSE(job->finished());

    pump.set_value();
    EXPECT_TRUE(dispatcher.waitForJob(job));
    glThread.join();
    EXPECT_EQ(pumped, 1u);
    EXPECT_EQ(ranOn, glThreadId);
}

TEST(JobDispatcherThreads, ProcessOnTheGLThreadRunsItsGLJobsItself) {
    JobDispatcher two(2);
    two.setGLThread();
    DependentJobExecutor executor(two);
    auto first = TestJob::create(0), gl = TestJob::create(1, JtGLThread),
         after = TestJob::create(2), last = TestJob::create(3, JtTrivial);
    gl->addDependency(first);
    after->addDependency(gl);
    last->addDependency(after);
    last->addDependency(gl);
    ASSERT_TRUE(executor.process(nullptr, {last}, {}));
    EXPECT_EQ(gl->ranOn, getThreadId());
    EXPECT_NE(first->ranOn, getThreadId());
    EXPECT_NE(after->ranOn, getThreadId());
    EXPECT_TRUE(last->isFinished());
}

TEST(JobDispatcherThreads, AWorkerWaitsForAGLJobWhileTheGLThreadPumpsOnTheSignal) {
    JobDispatcher two(2);
    two.setGLThread();
    std::mutex mutex;
    std::condition_variable wake;
    int pokes = 0;
    ScopedConnection connection = two.onGLJobsAvailable().connect([&] {
        std::lock_guard<std::mutex> lock(mutex);
        ++pokes;
        wake.notify_all();
    });

    ThreadId glRanOn = InvalidThreadId;
    std::atomic<bool> glOk{false};
    auto worker = two.createJob(
        [&] {
            auto glJob = two.createJob([&] { glRanOn = getThreadId(); }, JtGLThread);
            glOk = two.waitForJob(glJob);
        },
        JtWorker);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int pokesSeen = 0;
    while (!worker->finished() && std::chrono::steady_clock::now() < deadline) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait_for(lock, std::chrono::milliseconds(100), [&] { return pokes > 0; });
            pokesSeen += pokes;
            pokes = 0;
        }
        two.processGLJobs();
    }
    ASSERT_TRUE(two.waitForJob(worker));
    EXPECT_TRUE(glOk);
    EXPECT_EQ(glRanOn, getThreadId());
    EXPECT_EQ(pokesSeen, 1);
}

TEST(JobDispatcherThreads, WaitForJobReportsAnExceptionAndKeepsIt) {
    LogCapture capture;
    JobDispatcher one(1);
    one.setGLThread();
    auto failing = one.createJob([] { throw TestError("no texture"); }, JtWorker);
    EXPECT_FALSE(one.waitForJob(failing));
    EXPECT_THROW(failing->rethrowIfFailed(), TestError);
    EXPECT_TRUE(capture.contains("no texture"));

    // Waiting on the GL thread for a GL job simply runs it here.
    ThreadId ranOn = InvalidThreadId;
    auto gl = one.createJob([&] { ranOn = getThreadId(); }, JtGLThread);
    EXPECT_TRUE(one.waitForJob(gl));
    EXPECT_EQ(ranOn, getThreadId());
}

}  // namespace
}  // namespace qor::thread
