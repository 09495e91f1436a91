// The job system against a plain thread pool (a queue, a condition variable and N std::threads)
// doing the same work in the same dependency order:
//   Wide:    10000 independent small jobs under one terminator job.
//   Chain:   2000 jobs, each depending on the previous one.
//   Latency: one job, from submission to the moment it starts (manual time).
// Both sides use the same number of worker threads. Building the job graph or the task list is not
// timed; running it is.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "base/thread/DependentJob.h"
#include "base/thread/DependentJobExecutor.h"
#include "base/thread/JobDispatcher.h"

namespace {

using qor::SharedPtr;
using qor::thread::DependentJob;
using qor::thread::DependentJobExecutor;
using qor::thread::JobDispatcher;
using qor::thread::JobType;
using Clock = std::chrono::steady_clock;

constexpr unsigned kWorkers = 2;
constexpr int kWide = 10000;
constexpr int kChain = 2000;
constexpr int kRounds = 200;  // the work of one small job: about a microsecond

std::uint64_t work(std::uint64_t x) {
    for (int i = 0; i < kRounds; ++i) {  // splitmix64
        x += 0x9e3779b97f4a7c15ull;
        std::uint64_t z = x;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        x = z ^ (z >> 31);
    }
    return x;
}

// ---- the plain pool ----

class PlainPool {
public:
    explicit PlainPool(unsigned n) {
        for (unsigned i = 0; i < n; ++i) _threads.emplace_back([this] { loop(); });
    }
    ~PlainPool() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _stop = true;
        }
        _wake.notify_all();
        for (auto& t : _threads) t.join();
    }
    void submit(std::function<void()> fn) {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _queue.push_back(std::move(fn));
        }
        _wake.notify_one();
    }

private:
    void loop() {
        std::unique_lock<std::mutex> lock(_mutex);
        for (;;) {
            _wake.wait(lock, [this] { return _stop || !_queue.empty(); });
            if (_queue.empty()) return;
            auto fn = std::move(_queue.front());
            _queue.pop_front();
            lock.unlock();
            fn();
            lock.lock();
        }
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<std::function<void()>> _queue;
    bool _stop = false;
    std::vector<std::thread> _threads;
};

// A one-shot event for the plain side.
class Done {
public:
    void set() {
        std::lock_guard<std::mutex> lock(_mutex);
        _done = true;
        _cv.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(_mutex);
        _cv.wait(lock, [this] { return _done; });
    }

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _done = false;
};

// ---- jobs for the job system ----

class BenchJob : public DependentJob {
public:
    BenchJob(std::uint64_t seed, JobType type) : DependentJob("Bench"), _seed(seed), _type(type) {}
    int compare(const DependentJob& other) const override {
        return id() < other.id() ? -1 : id() > other.id() ? 1 : 0;
    }
    DependentJob* dup() const override { return new BenchJob(*this); }
    JobType precondition() override { return _type; }
    void performComputation() override {
        if (stampStart) startedAt = Clock::now();
        std::uint64_t x = _seed;
        for (const auto& dep : dependencies()) x += static_cast<BenchJob&>(*dep).result;
        result = _type == qor::thread::JtTrivial ? x : work(x);
    }

    std::uint64_t result = 0;
    bool stampStart = false;  // for the latency case only
    Clock::time_point startedAt;

private:
    BenchJob(const BenchJob&) = default;
    std::uint64_t _seed;
    JobType _type;
};

JobDispatcher& benchDispatcher() {
    static JobDispatcher dispatcher(kWorkers, "bench-jobs");
    return dispatcher;
}

// ---- wide ----

void BM_Wide_Jobs(benchmark::State& state) {
    DependentJobExecutor executor(benchDispatcher());
    std::uint64_t check = 0;
    SharedPtr<BenchJob> terminator;
    for (auto _ : state) {
        state.PauseTiming();
        terminator = std::make_shared<BenchJob>(0, qor::thread::JtTrivial);
        for (int i = 0; i < kWide; ++i)
            terminator->addDependency(std::make_shared<BenchJob>(i, qor::thread::JtWorker));
        state.ResumeTiming();
        executor.process(nullptr, {terminator}, {});
        check += terminator->result;
    }
    benchmark::DoNotOptimize(check);
    state.SetItemsProcessed(state.iterations() * (kWide + 1));
}

void BM_Wide_Plain(benchmark::State& state) {
    PlainPool pool(kWorkers);
    std::uint64_t check = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::uint64_t> results(kWide);
        std::atomic<int> remaining{kWide};
        std::uint64_t terminal = 0;
        Done done;
        std::vector<std::function<void()>> tasks;
        tasks.reserve(kWide);
        for (int i = 0; i < kWide; ++i)
            tasks.push_back([&, i] {
                results[i] = work(std::uint64_t(i));
                if (remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                    std::uint64_t x = 0;  // the terminator
                    for (std::uint64_t r : results) x += r;
                    terminal = x;
                    done.set();
                }
            });
        state.ResumeTiming();
        for (auto& task : tasks) pool.submit(std::move(task));
        done.wait();
        check += terminal;
    }
    benchmark::DoNotOptimize(check);
    state.SetItemsProcessed(state.iterations() * (kWide + 1));
}

// ---- chain ----

void BM_Chain_Jobs(benchmark::State& state) {
    DependentJobExecutor executor(benchDispatcher());
    std::uint64_t check = 0;
    std::vector<SharedPtr<BenchJob>> chain;
    for (auto _ : state) {
        state.PauseTiming();
        // Unlink the previous chain first: dropping its last job would free it recursively.
        for (auto& job : chain) job->clearDependencies();
        chain.clear();
        SharedPtr<BenchJob> last;
        for (int i = 0; i < kChain; ++i) {
            auto job = std::make_shared<BenchJob>(i, qor::thread::JtWorker);
            if (last) job->addDependency(last);
            chain.push_back(job);
            last = job;
        }
        state.ResumeTiming();
        executor.process(nullptr, {last}, {});
        check += last->result;
    }
    for (auto& job : chain) job->clearDependencies();
    benchmark::DoNotOptimize(check);
    state.SetItemsProcessed(state.iterations() * kChain);
}

void BM_Chain_Plain(benchmark::State& state) {
    PlainPool pool(kWorkers);
    std::uint64_t check = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::uint64_t> results(kChain);
        Done done;
        std::function<void(int)> step = [&](int i) {
            results[i] = work(std::uint64_t(i) + (i > 0 ? results[i - 1] : 0));
            if (i + 1 < kChain)
                pool.submit([&step, i] { step(i + 1); });
            else
                done.set();
        };
        state.ResumeTiming();
        pool.submit([&step] { step(0); });
        done.wait();
        check += results.back();
    }
    benchmark::DoNotOptimize(check);
    state.SetItemsProcessed(state.iterations() * kChain);
}

// ---- latency ----

void BM_Latency_Jobs(benchmark::State& state) {
    DependentJobExecutor executor(benchDispatcher());
    for (auto _ : state) {
        auto job = std::make_shared<BenchJob>(1, qor::thread::JtWorker);
        job->stampStart = true;
        Clock::time_point submitted = Clock::now();
        executor.process(nullptr, {job}, {});
        state.SetIterationTime(std::chrono::duration<double>(job->startedAt - submitted).count());
    }
}

void BM_Latency_DispatcherJob(benchmark::State& state) {
    JobDispatcher& dispatcher = benchDispatcher();
    for (auto _ : state) {
        Clock::time_point started;
        Clock::time_point submitted = Clock::now();
        auto job =
            dispatcher.createJob([&started] { started = Clock::now(); }, qor::thread::JtWorker);
        dispatcher.waitForJob(job);
        state.SetIterationTime(std::chrono::duration<double>(started - submitted).count());
    }
}

void BM_Latency_Plain(benchmark::State& state) {
    PlainPool pool(kWorkers);
    for (auto _ : state) {
        Clock::time_point started;
        Done done;
        Clock::time_point submitted = Clock::now();
        pool.submit([&] {
            started = Clock::now();
            done.set();
        });
        done.wait();
        state.SetIterationTime(std::chrono::duration<double>(started - submitted).count());
    }
}

}  // namespace

BENCHMARK(BM_Wide_Jobs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Wide_Plain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Chain_Jobs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Chain_Plain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Latency_Jobs)->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(BM_Latency_DispatcherJob)->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(BM_Latency_Plain)->Unit(benchmark::kMicrosecond)->UseManualTime();

BENCHMARK_MAIN();
