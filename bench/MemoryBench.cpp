// Swap-out and swap-in of the lockable memory blocks against a plain file write and read of the
// same bytes, in the same folder, in the same run:
//   Ours:  16 blocks of 4 MiB. Swap-out is nmClearUnlocked(0) over the 16 dirty blocks (write to
//          the swap file, free the memory); swap-in is a write lock of each block (take memory,
//          read it back), which also makes it dirty for the next swap-out.
//   File:  the same 16 buffers of 4 MiB written with pwrite to one file, then read back into the
//          same buffers with pread (memory stays allocated).
// Neither side calls fsync: both measure the page cache, as the swap file works there. Each
// benchmark times one phase (manual time) and reports bytes per second.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/memory/MemoryManager.h"

namespace {

using namespace qor::memory;
using Clock = std::chrono::steady_clock;

constexpr int kBlocks = 16;
constexpr std::uint64_t kBlockSize = 4u << 20;
constexpr std::uint64_t kTotal = kBlocks * kBlockSize;

std::string benchDir() {
    static std::string dir = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-membench-XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        return pattern;
    }();
    return dir;
}

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// state.range(0): 0 times the swap-out, 1 the swap-in.
void BM_Ours(benchmark::State& state) {
    nmRelease();
    nmSetSwapPath(benchDir().c_str());
    nmSetPhysicalMemoryLimit(4096);
    std::vector<NmHandle> blocks(kBlocks);
    for (int i = 0; i < kBlocks; ++i) {
        nmAlloc(kBlockSize, 0, 0, &blocks[i], "bench");
        void* p = nullptr;
        nmLock(blocks[i], NM_LOCK_WRITE, &p);
        std::memset(p, i + 1, kBlockSize);
        nmUnlock(blocks[i]);
    }
    for (auto _ : state) {
        auto t0 = Clock::now();
        if (nmClearUnlocked(0) != NM_OK) state.SkipWithError("swap-out failed");
        auto t1 = Clock::now();
        for (NmHandle h : blocks) {
            void* p = nullptr;
            if (nmLock(h, NM_LOCK_WRITE, &p) != NM_OK) state.SkipWithError("swap-in failed");
            nmUnlock(h);
        }
        auto t2 = Clock::now();
        state.SetIterationTime(state.range(0) == 0 ? seconds(t0, t1) : seconds(t1, t2));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
    NmStatistic s;
    nmGetStatistic(&s);
    state.counters["writes"] = static_cast<double>(s.writeOperations);
    for (NmHandle h : blocks) nmFree(h);
    nmRelease();
}

void BM_File(benchmark::State& state) {
    std::vector<char*> buffers(kBlocks);
    for (int i = 0; i < kBlocks; ++i) {
        buffers[i] = static_cast<char*>(std::malloc(kBlockSize));
        std::memset(buffers[i], i + 1, kBlockSize);
    }
    const std::string path = benchDir() + "/plain.bin";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) state.SkipWithError("cannot open file");
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int i = 0; i < kBlocks; ++i)
            if (::pwrite(fd, buffers[i], kBlockSize, off_t(i * kBlockSize)) != off_t(kBlockSize))
                state.SkipWithError("write failed");
        auto t1 = Clock::now();
        for (int i = 0; i < kBlocks; ++i)
            if (::pread(fd, buffers[i], kBlockSize, off_t(i * kBlockSize)) != off_t(kBlockSize))
                state.SkipWithError("read failed");
        auto t2 = Clock::now();
        state.SetIterationTime(state.range(0) == 0 ? seconds(t0, t1) : seconds(t1, t2));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
    ::close(fd);
    ::unlink(path.c_str());
    for (char* b : buffers) std::free(b);
}

BENCHMARK(BM_Ours)->ArgName("in")->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_File)->ArgName("in")->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(benchDir(), ec);
    return 0;
}
