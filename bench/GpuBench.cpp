// The GPU layer's transfers and render targets, on the headless context the tool uses (Mesa's
// llvmpipe where there is no GPU):
//   Upload/<format>:         setData of a 1024 x 1024 image in the format's own element type into
//                            a texture of that format.
//   ReadBack/<format>:       getData of the whole texture (glGetTexImage).
//   TargetReadBack/<format>: readBack of a render target of that format (its pooled framebuffer
//                            object and glReadPixels), the path tiles in graphics memory take.
//   Target*/<size>:          beginRender, a clear and finishRender on a square target, with the
//                            framebuffer object found in the pool, or made anew each time:
//     TargetPooled            one target, its configuration always in the pool.
//     TargetPoolReleased      one target, the pool emptied before each render (not timed).
//     TargetCycle15           15 targets of 15 configurations in turn: a pool hit every time.
//     TargetCycle16           16 targets of 16 configurations in turn: the pool of 15 misses
//                             every time and evicts the least recently used object.
// Every timed step ends with glFinish, so that work the driver defers is counted where it was
// asked for. Transfers report bytes per second of image data.
//
// Thread contract: main() makes the context current on its thread, which becomes the GL thread;
// Google Benchmark runs single-threaded benchmarks on the thread that calls it.

#include <benchmark/benchmark.h>
#include <epoxy/gl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/thread/JobDispatcher.h"
#include "gpu/Drawer.h"
#include "gpu/HeadlessContext.h"
#include "gpu/RenderTarget.h"
#include "gpu/Renderer.h"
#include "gpu/Texture.h"
#include "gpu/gl2/FramebufferObject.h"
#include "gpu/gl2/GLFormats.h"
#include "gpu/gl2/TextureGL.h"

namespace {

using namespace qor;
using namespace qor::gpu;
using namespace qor::imaging;
using Clock = std::chrono::steady_clock;

constexpr int kSide = 1024;

bool onGLThread(benchmark::State& state) {
    if (thread::defaultJobDispatcher().isGLThread() && renderer()) return true;
    state.SkipWithError("not on the GL thread, or no renderer");
    return false;
}

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// A pattern over the element type's range, so that no format sees only zeros.
template <class T, int N>
SharedPtr<GenImageData<T, N>> pattern(int w, int h) {
    auto data = GenImageData<T, N>::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < N; ++c) {
                const int v = x * 31 + y * 17 + c * 7;
                if constexpr (std::is_same_v<T, unsigned char>)
                    data->at(x, y, c) = T(v & 255);
                else if constexpr (std::is_same_v<T, unsigned short>)
                    data->at(x, y, c) = T((v * 257) & 0xFFFF);
                else
                    data->at(x, y, c) = T(float(v % 1009) / 1009.0f);
            }
    return data;
}

// The texture uploads and read-backs of one format, in its own element type.
template <class T, int N>
struct Transfer {
    static void upload(Texture& t, const SharedPtr<GenImageData<T, N>>& img) {
        if constexpr (N == 3)
            t.setDataRGB(img);
        else
            t.setDataRGBA(img);
    }
    static void readBack(TextureTarget& t, const SharedPtr<GenImageData<T, N>>& img) {
        if constexpr (N == 3)
            t.readBackRGB(img, Recti(t.size()));
        else
            t.readBackRGBA(img, Recti(t.size()));
    }
};

// The texture's own read-back of the whole allocated area, by format.
template <class T, int N>
void getData(const Texture& t, const SharedPtr<GenImageData<T, N>>& img) {
    if constexpr (N == 3) {
        if constexpr (std::is_same_v<T, unsigned char>) t.getDataRGB8U(img);
        if constexpr (std::is_same_v<T, unsigned short>) t.getDataRGB16U(img);
        if constexpr (std::is_same_v<T, half>) t.getDataRGB16F(img);
        if constexpr (std::is_same_v<T, float>) t.getDataRGB32F(img);
    } else {
        if constexpr (std::is_same_v<T, unsigned char>) t.getDataRGBA8(img);
        if constexpr (std::is_same_v<T, unsigned short>) t.getDataRGBA16U(img);
        if constexpr (std::is_same_v<T, half>) t.getDataRGBA16F(img);
        if constexpr (std::is_same_v<T, float>) t.getDataRGBA32F(img);
    }
}

// Which transfer a benchmark times.
enum class Step { Upload, ReadBack, TargetReadBack };

template <class T, int N>
void BM_Transfer(benchmark::State& state, RawPixelFormat format, Step step) {
    if (!onGLThread(state)) return;
    const Vec2i size(kSide, kSide);
    if (step == Step::TargetReadBack && !renderer()->isRenderable(format)) {
        state.SkipWithError("the driver does not render this format");
        return;
    }
    SharedPtr<TextureTarget> target;
    SharedPtr<Texture> texture;
    if (step == Step::TargetReadBack) {
        target = renderer()->createTextureTarget(size, format);
        texture = target->texture();
    } else {
        texture = renderer()->createTexture(size, format, DrawParameters());
    }
    if (!texture || texture->pixelFormat() != format) {
        state.SkipWithError("the driver made another format");
        return;
    }
    auto source = pattern<T, N>(kSide, kSide);
    Transfer<T, N>::upload(*texture, source);
    auto dest = GenImageData<T, N>::create(texture->texSize().x, texture->texSize().y);
    glFinish();
    LogCapture log;  // a read-back that leaves the GPU path says so in the log
    for (auto _ : state) {
        const auto t0 = Clock::now();
        switch (step) {
            case Step::Upload:
                Transfer<T, N>::upload(*texture, source);
                break;
            case Step::ReadBack:
                getData<T, N>(*texture, dest);
                break;
            case Step::TargetReadBack:
                Transfer<T, N>::readBack(*target, dest);
                break;
        }
        glFinish();
        state.SetIterationTime(seconds(t0, Clock::now()));
    }
    benchmark::DoNotOptimize(dest->at(kSide - 1, kSide - 1, 0));
    state.counters["fallbacks"] = static_cast<double>(log.count("Falling back"));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSide * kSide * N *
                            static_cast<std::int64_t>(sizeof(T)));
}

void renderClear(TextureTarget& target, float shade) {
    SharedPtr<Drawer> drawer = target.beginRender();
    drawer->clear(shade, 0.5f, 1.0f - shade, 1.0f);
    target.finishRender(drawer);
    glFinish();
}

// Whether the pool holds an object for `target`'s configuration; not a use of it.
bool inPool(const TextureTarget& target) {
    const auto texture = dynamic_ptr_cast<TextureGL>(target.texture());
    return texture &&
           FramebufferObject::pooled(texture->texSize(), glInternalFormat(texture->pixelFormat()),
                                     texture->target());
}

// state.range(0): the side of the targets. `configurations` targets of as many sizes (side + i
// wide) render in turn; with `releasePool` the pool is emptied before each render. The counter
// "misses" is the share of renders that found no object of their configuration in the pool.
void renderTargets(benchmark::State& state, int configurations, bool releasePool) {
    if (!onGLThread(state)) return;
    FramebufferObject::releasePool();
    const int side = static_cast<int>(state.range(0));
    std::vector<SharedPtr<TextureTarget>> targets;
    for (int i = 0; i < configurations; ++i) {
        targets.push_back(renderer()->createTextureTarget(Vec2i(side + i, side), PfRGBA8));
        renderClear(*targets.back(), 0.0f);
    }
    std::size_t next = 0;
    float shade = 0.0f;
    std::int64_t misses = 0;
    for (auto _ : state) {
        if (releasePool) FramebufferObject::releasePool();
        if (!inPool(*targets[next])) ++misses;
        const auto t0 = Clock::now();
        renderClear(*targets[next], shade);
        state.SetIterationTime(seconds(t0, Clock::now()));
        next = (next + 1) % targets.size();
        shade = shade > 0.5f ? 0.0f : 1.0f;
    }
    state.counters["misses"] = static_cast<double>(misses) /
                               static_cast<double>(std::max<std::int64_t>(1, state.iterations()));
}

void BM_TargetPooled(benchmark::State& state) { renderTargets(state, 1, false); }
void BM_TargetPoolReleased(benchmark::State& state) { renderTargets(state, 1, true); }
void BM_TargetCycle15(benchmark::State& state) {
    renderTargets(state, static_cast<int>(FramebufferObject::MaxPooled), false);
}
void BM_TargetCycle16(benchmark::State& state) {
    renderTargets(state, static_cast<int>(FramebufferObject::MaxPooled) + 1, false);
}

#define QOR_TARGET_BENCH(name) \
    BENCHMARK(name)->Arg(64)->Arg(kSide)->UseManualTime()->Unit(benchmark::kMicrosecond)
QOR_TARGET_BENCH(BM_TargetPooled);
QOR_TARGET_BENCH(BM_TargetPoolReleased);
QOR_TARGET_BENCH(BM_TargetCycle15);
QOR_TARGET_BENCH(BM_TargetCycle16);
#undef QOR_TARGET_BENCH

template <class T, int N>
void registerFormat(const char* name, RawPixelFormat format) {
    const std::pair<const char*, Step> steps[] = {
        {"Upload", Step::Upload},
        {"ReadBack", Step::ReadBack},
        {"TargetReadBack", Step::TargetReadBack},
    };
    for (const auto& [stepName, step] : steps)
        benchmark::RegisterBenchmark((std::string(stepName) + "/" + name).c_str(),
                                     BM_Transfer<T, N>, format, step)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
    HeadlessContext context;
    std::string why;
    if (!createHeadlessContext(context, why)) {
        std::fprintf(stderr, "no usable GL context: %s\n", why.c_str());
        return 1;
    }
    thread::defaultJobDispatcher().setGLThread();
    bool loaded;
    {
        LogCapture quiet;  // the renderer's start-up report
        loaded = loadRenderer();
    }
    if (!loaded) {
        std::fprintf(stderr, "the renderer could not be loaded\n");
        return 1;
    }
    using UC = unsigned char;
    using US = unsigned short;
    registerFormat<UC, 3>("RGB8", PfRGB8);
    registerFormat<UC, 4>("RGBA8", PfRGBA8);
    registerFormat<US, 3>("RGB16", PfRGB16);
    registerFormat<US, 4>("RGBA16", PfRGBA16);
    registerFormat<half, 3>("RGB16F", PfRGB16F);
    registerFormat<half, 4>("RGBA16F", PfRGBA16F);
    registerFormat<float, 3>("RGB32F", PfRGB32F);
    registerFormat<float, 4>("RGBA32F", PfRGBA32F);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    {
        LogCapture quiet;
        unloadRenderer();
    }
    return 0;
}
