// Pixel conversion throughput against memcpy of the same number of source bytes.
//   Convert/<pair>  ImageDataConversion::convert of a 2048 x 2048 image, packed rows.
//   Memcpy/<pair>   memcpy of the source image's bytes into a buffer of that size.
// Throughput is counted in source bytes a second, so the two lines of one pair compare directly.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "imaging/ImageDataConversion.h"

namespace {

using qor::imaging::ImageDataConversion;
using qor::imaging::ImageDataFeature;
using qor::imaging::RawPixelFormat;

constexpr int kSide = 2048;

struct Pair {
    RawPixelFormat src;
    RawPixelFormat dst;
};

const Pair kPairs[] = {
    {qor::imaging::PfRGB8, qor::imaging::PfRGBA8},
    {qor::imaging::PfRGBA8, qor::imaging::PfRGBA32F},
    {qor::imaging::PfRGBA16F, qor::imaging::PfRGBA8},
    {qor::imaging::PfRGB16, qor::imaging::PfRGB8},
};

std::size_t imageBytes(RawPixelFormat pf) {
    return std::size_t(kSide) * kSide * qor::imaging::getBytesPerPixel(pf);
}

// Source pixels that are valid in every format: for half, bit patterns of values in [0, 1).
std::vector<unsigned char> sourcePixels(RawPixelFormat pf) {
    std::vector<unsigned char> bytes(imageBytes(pf));
    std::uint32_t state = 12345;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        state = state * 1664525u + 1013904223u;
        std::uint16_t v = std::uint16_t(state >> 16);
        if (qor::imaging::isFloatFormat(pf)) v &= 0x3BFF;  // below 1.0 as a half
        std::memcpy(&bytes[i], &v, 2);
    }
    return bytes;
}

void convertBench(benchmark::State& state, Pair pair) {
    const std::vector<unsigned char> src = sourcePixels(pair.src);
    std::vector<unsigned char> dst(imageBytes(pair.dst));
    const ImageDataFeature s(kSide, kSide, kSide * qor::imaging::getChannelCount(pair.src),
                             pair.src);
    ImageDataFeature d(kSide, kSide, kSide * qor::imaging::getChannelCount(pair.dst), pair.dst);
    for (auto _ : state) {
        bool ok = ImageDataConversion::convert(d, dst.data(), s, src.data());
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(src.size()));
}

void memcpyBench(benchmark::State& state, Pair pair) {
    const std::vector<unsigned char> src = sourcePixels(pair.src);
    std::vector<unsigned char> dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(src.size()));
}

int registerAll() {
    for (const Pair& p : kPairs) {
        const std::string name = std::string(qor::imaging::pixelFormatString(p.src).c_str()) +
                                 "_to_" + qor::imaging::pixelFormatString(p.dst).c_str();
        benchmark::RegisterBenchmark(("Convert/" + name).c_str(), convertBench, p)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("Memcpy/" + name).c_str(), memcpyBench, p)
            ->Unit(benchmark::kMillisecond);
    }
    return 0;
}

const int kRegistered = registerAll();

}  // namespace

BENCHMARK_MAIN();
