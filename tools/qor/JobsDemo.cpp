// qor jobs [--width N] [--depth N]: runs a graph of small computational jobs through the job system
// and checks the result against a sequential computation. A progress bar is drawn on standard
// error when it is a terminal.
//
// The graph has `depth` layers of `width` jobs. A job of layer 0 hashes its own position; a job of
// a later layer hashes its position with the results of two jobs of the layer before (the one below
// it and its right neighbour, wrapping around), so every job of the last layer depends on a
// widening cone of the graph. A trivial terminator job folds the last layer into the checksum.

#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "base/thread/DependentJob.h"
#include "base/thread/DependentJobExecutor.h"
#include "base/thread/JobDispatcher.h"

namespace qor::tool {

namespace {

using thread::DependentJob;
using thread::JobType;

constexpr unsigned long kMaxSide = 100000;
constexpr unsigned long kMaxJobs = 1000000;
constexpr int kRounds = 2000;  // the work of one job: a few microseconds

std::uint64_t mix(std::uint64_t x) {
    for (int i = 0; i < kRounds; ++i) {  // splitmix64
        x += 0x9e3779b97f4a7c15ull;
        std::uint64_t z = x;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        x = z ^ (z >> 31);
    }
    return x;
}

// The value of job (layer, index) from the values of its two inputs (unused on layer 0).
std::uint64_t jobValue(unsigned layer, unsigned index, std::uint64_t below, std::uint64_t right) {
    std::uint64_t seed = (std::uint64_t(layer) << 32) ^ index;
    return mix(seed + below * 3 + right);
}

std::uint64_t fold(std::uint64_t checksum, std::uint64_t value) {
    return checksum * 1099511628211ull ^ value;
}

class HashJob : public DependentJob {
public:
    HashJob(unsigned layer, unsigned index, SharedPtr<HashJob> below, SharedPtr<HashJob> right)
        : DependentJob("Hash"),
          _layer(layer),
          _index(index),
          _below(std::move(below)),
          _right(std::move(right)) {
        if (_below) addDependency(_below);
        if (_right) addDependency(_right);
    }

    int compare(const DependentJob& other) const override {
        const auto* o = dynamic_cast<const HashJob*>(&other);
        if (!o) return -1;
        if (_layer != o->_layer) return _layer < o->_layer ? -1 : 1;
        if (_index != o->_index) return _index < o->_index ? -1 : 1;
        return 0;
    }
    DependentJob* dup() const override { return new HashJob(*this); }
    JobType precondition() override { return thread::JtWorker; }
    FastString<char> toString() const override {
        return FastString<char>("Hash job " + std::to_string(_layer) + "/" +
                                std::to_string(_index) + " (jobId:" + std::to_string(id()) + ")");
    }
    void performComputation() override {
        _result =
            jobValue(_layer, _index, _below ? _below->_result : 0, _right ? _right->_result : 0);
    }
    std::uint64_t result() const { return _result; }
    // Drops the links to the inputs, so a deep graph is freed without deep recursion.
    void unlink() {
        _below.reset();
        _right.reset();
        clearDependencies();
    }

private:
    HashJob(const HashJob&) = default;

    unsigned _layer, _index;
    SharedPtr<HashJob> _below, _right;
    std::uint64_t _result = 0;
};

class ChecksumJob : public DependentJob {
public:
    explicit ChecksumJob(std::vector<SharedPtr<HashJob>> inputs)
        : DependentJob("Term"), _inputs(std::move(inputs)) {
        for (const auto& input : _inputs) addDependency(input);
    }
    int compare(const DependentJob& other) const override {
        return this < &other ? -1 : this > &other ? 1 : 0;
    }
    DependentJob* dup() const override { return new ChecksumJob(*this); }
    JobType precondition() override { return thread::JtTrivial; }
    void performComputation() override {
        _checksum = 0;
        for (const auto& input : _inputs) _checksum = fold(_checksum, input->result());
    }
    std::uint64_t checksum() const { return _checksum; }

private:
    ChecksumJob(const ChecksumJob&) = default;

    std::vector<SharedPtr<HashJob>> _inputs;
    std::uint64_t _checksum = 0;
};

// The same computation, one job after the other.
std::uint64_t sequentialChecksum(unsigned width, unsigned depth) {
    std::vector<std::uint64_t> previous(width, 0), current(width, 0);
    for (unsigned layer = 0; layer < depth; ++layer) {
        for (unsigned i = 0; i < width; ++i) {
            bool hasInputs = layer > 0;
            std::uint64_t below = hasInputs ? previous[i] : 0;
            std::uint64_t right = hasInputs && width > 1 ? previous[(i + 1) % width] : 0;
            current[i] = jobValue(layer, i, below, right);
        }
        previous.swap(current);
    }
    std::uint64_t checksum = 0;
    for (std::uint64_t value : previous) checksum = fold(checksum, value);
    return checksum;
}

}  // namespace

int runJobsDemo(const std::vector<std::string>& args) {
    unsigned long width = 64, depth = 64;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& option = args[i];
        unsigned long* target = option == "--width"   ? &width
                                : option == "--depth" ? &depth
                                                      : nullptr;
        if (!target) return usageError("jobs: unknown option '" + option + "'");
        if (i + 1 >= args.size()) return usageError("jobs: " + option + " needs a number");
        const std::string& value = args[++i];
        if (!parseCount(value, *target))
            return usageError("jobs: " + option + " wants a whole number, not '" + value + "'");
        if (*target < 1 || *target > kMaxSide)
            return usageError("jobs: " + option + " must be between 1 and " +
                              std::to_string(kMaxSide));
    }
    if (width * depth > kMaxJobs)
        return usageError("jobs: a graph of " + std::to_string(width) + " x " +
                          std::to_string(depth) + " jobs is too large (at most " +
                          std::to_string(kMaxJobs) + ")");

    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    std::vector<SharedPtr<HashJob>> all;
    all.reserve(width * depth);
    std::vector<SharedPtr<HashJob>> layer, next;
    for (unsigned l = 0; l < depth; ++l) {
        next.clear();
        for (unsigned i = 0; i < width; ++i) {
            SharedPtr<HashJob> below = l > 0 ? layer[i] : nullptr;
            SharedPtr<HashJob> right = l > 0 && width > 1 ? layer[(i + 1) % width] : nullptr;
            next.push_back(std::make_shared<HashJob>(l, i, below, right));
            next.back()->setCreatorName("qor jobs");
            all.push_back(next.back());
        }
        layer.swap(next);
    }
    auto terminator = std::make_shared<ChecksumJob>(layer);
    unsigned long total = width * depth + 1;
    std::printf("jobs: %lu x %lu graph, %lu jobs on %u workers\n", width, depth, total,
                dispatcher.workerCount());
    std::fflush(stdout);

    thread::DependentJobExecutor executor(dispatcher);
    // Jobs end on the workers; the bar is redrawn under `barMutex` when its percentage changes.
    const bool bar = progressBarWanted();
    std::mutex barMutex;
    unsigned long drawnPercent = 0;  // guarded by barMutex
    auto started = std::chrono::steady_clock::now();
    bool ok = executor.process(nullptr, {terminator}, [&](const SharedPtr<DependentJob>&) {
        if (!bar) return;
        unsigned done, running, count;
        executor.progress(done, running, count);
        // The job reporting now still counts as running.
        const unsigned long ended = done + 1, percent = count ? ended * 100 / count : 100;
        std::lock_guard<std::mutex> lock(barMutex);
        if (percent <= drawnPercent) return;
        drawnPercent = percent;
        drawProgressBar(ended, count, "jobs", false);
    });
    if (bar) {
        unsigned done, running, count;
        executor.progress(done, running, count);
        drawProgressBar(done, count, "jobs", true);
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    std::uint64_t expected = sequentialChecksum(unsigned(width), unsigned(depth));
    std::uint64_t got = terminator->checksum();
    for (auto& job : all) job->unlink();
    if (!ok) {
        std::fprintf(stderr, "qor: jobs: the job graph did not run to the end\n");
        return 1;
    }
    std::printf("jobs: %lu, seconds: %.3f, jobs/s: %.0f, checksum: %016" PRIx64 " %s\n", total,
                seconds, seconds > 0 ? double(total) / seconds : 0.0, got,
                got == expected ? "ok" : "MISMATCH");
    if (got != expected) {
        std::fprintf(stderr,
                     "qor: jobs: checksum %016" PRIx64 " differs from the sequential %016" PRIx64
                     "\n",
                     got, expected);
        return 1;
    }
    return 0;
}

}  // namespace qor::tool
