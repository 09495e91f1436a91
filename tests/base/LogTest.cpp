#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "base/Log.h"

namespace qor {
namespace {

TEST(Log, FormatsPlaceholdersInOrderAndKeepsExtras) {
    EXPECT_EQ(formatLog("a %* b %*", 1, "x"), "a 1 b x");
    EXPECT_EQ(formatLog("no args %*"), "no args %*");
    EXPECT_EQ(formatLog("%*", 1, 2), "1 2");
}

TEST(Log, AssertionLogsPathLineConditionMessageAndGoesOn) {
    LogCapture capture;
    int after = 0;
    QOR_ASSERT_MSG(1 + 1 == 3, "value %*", 7);
    after = 1;
    ASSERT_EQ(after, 1);
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1u);
    const auto& e = entries[0];
    EXPECT_TRUE(e.assertion);
    EXPECT_EQ(e.condition, "1 + 1 == 3");
    EXPECT_EQ(e.file, "tests/base/LogTest.cpp");
    EXPECT_NE(e.text.find("assertion failed: tests/base/LogTest.cpp:"), std::string::npos);
    EXPECT_NE(e.text.find("1 + 1 == 3: value 7"), std::string::npos);
    EXPECT_NE(e.text.find("#0"), std::string::npos) << "a stack trace follows";
    EXPECT_EQ(capture.assertions("1 + 1 == 3"), 1u);
}

TEST(Log, CaptureSeesLinesBelowThresholdFromAllThreads) {
    int old = logLevel();
    setLogLevel(LogError);
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) QOR_LOG(LogDebug, "thread %* line %*", t, i);
        });
    for (auto& th : threads) th.join();
    setLogLevel(old);
    EXPECT_EQ(capture.count("line"), 200u);
    EXPECT_EQ(capture.count("thread 3 line 49"), 1u);
}

TEST(Log, DiversionHoldsThisThreadsLinesUntilReleasedOrDropped) {
    LogCapture capture;
    {
        ThreadLogDiversion dropped;
        QOR_LOG(LogWarning, "held one");
        QOR_LOG(LogError, "held two");
        std::thread([] { QOR_LOG(LogWarning, "other thread"); }).join();
        QOR_ASSERT_MSG(false, "assertions pass");
        EXPECT_EQ(dropped.firstLine(LogError), "held two");
        {
            ThreadLogDiversion inner;
            QOR_LOG(LogWarning, "inner");
            inner.release();
            QOR_LOG(LogWarning, "after the inner release");
        }
        EXPECT_EQ(dropped.firstLine(), "held one");
    }
    ThreadLogDiversion released;
    QOR_LOG(LogWarning, "kept");
    released.release();
    QOR_LOG(LogWarning, "after release");
    EXPECT_EQ(capture.count("held"), 0u);
    EXPECT_EQ(capture.count("inner"), 0u) << "released into the outer diversion, which dropped it";
    EXPECT_EQ(capture.count("after the inner release"), 0u);
    EXPECT_EQ(capture.count("other thread"), 1u);
    EXPECT_EQ(capture.assertions(), 1u);
    EXPECT_EQ(capture.count("kept"), 1u);
    EXPECT_EQ(capture.count("after release"), 1u);
}

}  // namespace
}  // namespace qor
