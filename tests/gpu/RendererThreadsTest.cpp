// The renderer seen from worker threads: references that workers take for a moment must not end
// it away from the GL thread.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "GLTestContext.h"
#include "base/Log.h"
#include "gpu/Renderer.h"

namespace qor::gpu {
namespace {

using namespace std::chrono_literals;

// The assertions `log` caught, one a line, for a failure message.
std::string assertionsOf(const LogCapture& log) {
    std::string text;
    for (const LogCapture::Entry& e : log.entries())
        if (e.assertion) text += e.file + ":" + std::to_string(e.line) + " " + e.condition + "\n";
    return text;
}

TEST(RendererThreads, ARendererAWorkerStillHoldsAtUnloadEndsOnTheGLThread) {
    QOR_REQUIRE_GL();
    {
        LogCapture quiet;
        ASSERT_TRUE(loadRenderer());
    }
    WeakSharedPtr<Renderer> watch = renderer();
    std::atomic<bool> holding{false};
    LogCapture log;
    std::thread worker([&] {
        SharedPtr<Renderer> held = renderer();
        holding = true;
        // Let go only once the unload is under way, as a storage's deleter would.
        while (renderer()) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(50ms);
        held.reset();
    });
    while (!holding) std::this_thread::yield();
    unloadRenderer();
    const bool endedBeforeReturn = watch.expired();
    worker.join();
    EXPECT_TRUE(endedBeforeReturn) << "unloadRenderer returned with the renderer still alive";
    EXPECT_EQ(log.assertions(), 0u) << "the renderer ended off the GL thread:\n"
                                    << assertionsOf(log);
    EXPECT_TRUE(log.contains("glwShutdown()"));

    // glw's shadows went with it: the next renderer starts from fresh ones.
    ASSERT_TRUE(loadRenderer());
    unloadRenderer();
    EXPECT_EQ(log.assertions(), 0u) << assertionsOf(log);
}

}  // namespace
}  // namespace qor::gpu
