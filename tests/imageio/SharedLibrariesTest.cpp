// Libraries opened on first use: a library that is not there fails once, cleanly, with its name and
// the loader's reason; several threads opening at once share one opening.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "imageio/detail/FfmpegCalls.h"
#include "imageio/detail/SharedLibraries.h"

namespace qor::imageio {
namespace {

using detail::SharedLibraries;

TEST(SharedLibraries, MissingLibraryFailsOnceWithItsNameAndReason) {
    LogCapture log;
    // The first library opens; the second does not, so the first is given back.
    SharedLibraries libraries({detail::kAvcodecLibrary, "libqor-no-such-library.so.1"});
    EXPECT_FALSE(libraries.open());
    EXPECT_EQ(libraries.error().rfind("libqor-no-such-library.so.1: ", 0), 0u) << libraries.error();
    // The loader's own words follow: it names the file it could not find.
    EXPECT_NE(libraries.error().find("cannot open shared object file"), std::string::npos)
        << libraries.error();
    EXPECT_EQ(log.count("Cannot load the shared library libqor-no-such-library.so.1: "), 1u);

    // Asked again, it answers at once from the first try: no second attempt, no second line.
    EXPECT_FALSE(libraries.open());
    EXPECT_EQ(log.count("Cannot load the shared library"), 1u);
    int (*function)(void) = nullptr;
    EXPECT_FALSE(libraries.resolve(function, "avcodec_version"));
    EXPECT_TRUE(log.contains("avcodec_version not found: the libraries are not open"));
}

TEST(SharedLibraries, ResolvesFunctionsOfTheLibrariesOpened) {
    SharedLibraries libraries({detail::kAvcodecLibrary, detail::kAvformatLibrary});
    ASSERT_TRUE(libraries.open()) << libraries.error();
    EXPECT_TRUE(libraries.error().empty());
    unsigned (*version)(void) = nullptr;
    ASSERT_TRUE(libraries.resolve(version, "avformat_version"));
    // The library opened is the one whose headers this was built with.
    EXPECT_EQ(version() >> 16, unsigned(LIBAVFORMAT_VERSION_MAJOR));
    LogCapture log;
    int (*missing)(void) = nullptr;
    EXPECT_FALSE(libraries.resolve(missing, "qor_no_such_function"));
    EXPECT_TRUE(log.contains("qor_no_such_function not found"));
}

// Threads that all ask for the libraries first, at once: one opening, the same answer and the same
// function for every thread.
TEST(SharedLibrariesThreads, ConcurrentFirstOpenIsOneOpening) {
    for (int round = 0; round < 5; ++round) {
        SharedLibraries libraries({detail::kAvcodecLibrary, detail::kAvformatLibrary});
        SharedLibraries missing({"libqor-no-such-library.so.1"});
        LogCapture log;
        std::atomic<int> ready{0};
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        std::vector<void*> found(6, nullptr);
        for (int t = 0; t < 6; ++t)
            threads.emplace_back([&, t] {
                ++ready;
                while (ready.load() < 6) std::this_thread::yield();
                if (!libraries.open() || missing.open()) ++wrong;
                found[size_t(t)] = libraries.symbol("avformat_open_input");
            });
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(wrong.load(), 0);
        for (void* address : found) {
            EXPECT_NE(address, nullptr);
            EXPECT_EQ(address, found[0]);
        }
        EXPECT_EQ(log.count("Cannot load the shared library libqor-no-such-library.so.1"), 1u);
    }
}

// The process-wide table, asked for by several threads at once, is one table with every function;
// the scaler's table opens as well.
TEST(SharedLibrariesThreads, VideoFunctionsResolvedOnceForAllThreads) {
    std::vector<const detail::FfmpegCalls*> tables(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < tables.size(); ++t)
        threads.emplace_back([&, t] { tables[t] = detail::ffmpegCalls(); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_NE(tables[0], nullptr);
    for (const detail::FfmpegCalls* table : tables) EXPECT_EQ(table, tables[0]);
    ASSERT_NE(detail::scalerCalls(), nullptr);
#define QOR_EXPECT_RESOLVED(name) EXPECT_NE(tables[0]->name, nullptr) << #name;
    QOR_FFMPEG_FUNCTIONS(QOR_EXPECT_RESOLVED)
#undef QOR_EXPECT_RESOLVED
}

}  // namespace
}  // namespace qor::imageio
