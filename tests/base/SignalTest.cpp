#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "util/Signal.h"

namespace qor {
namespace {

TEST(Signal, SlotCanDisconnectItselfDuringEmit) {
    Signal1<int> signal;
    std::vector<int> calls;
    Connection self;
    self = signal.connect([&](int v) {
        calls.push_back(v);
        self.disconnect();
    });
    signal.connect([&](int v) { calls.push_back(v * 10); });
    signal.emit(1);
    signal.emit(2);
    EXPECT_EQ(calls, (std::vector<int>{1, 10, 20}));
    EXPECT_FALSE(self.connected());
    EXPECT_EQ(signal.slotCount(), 1u);
}

TEST(Signal, SlotDisconnectedDuringEmitIsNotCalledWhileNewSlotWaits) {
    Signal0 signal;
    std::vector<int> calls;
    Connection later;
    signal.connect([&] {
        calls.push_back(1);
        later.disconnect();
        signal.connect([&] { calls.push_back(3); });  // joins from the next emit on
    });
    later = signal.connect([&] { calls.push_back(2); });
    signal.emit();
    EXPECT_EQ(calls, std::vector<int>{1});
    signal.emit();
    EXPECT_EQ(calls, (std::vector<int>{1, 1, 3}));
}

TEST(Signal, ManySlotsAreCalledInOrderAndCanBeDisconnectedDuringEmit) {
    Signal2<int, int> signal;
    std::vector<int> calls;
    std::vector<Connection> connections;
    for (int i = 0; i < 40; ++i)
        connections.push_back(signal.connect([&, i](int a, int b) {
            calls.push_back(i + a + b);
            if (i == 3) connections[30].disconnect();
        }));
    signal(0, 0);
    ASSERT_EQ(calls.size(), 39u);
    for (int i = 0; i < 39; ++i) EXPECT_EQ(calls[i], i < 30 ? i : i + 1);
    calls.clear();
    signal.emit(100, 1);
    EXPECT_EQ(calls.size(), 39u);
    EXPECT_EQ(calls.front(), 101);
}

TEST(Signal, ConnectionOutlivesTheSignal) {
    Connection c;
    int calls = 0;
    {
        Signal0 signal;
        c = signal.connect([&] { ++calls; });
        Connection copy = c;
        EXPECT_TRUE(copy.connected());
        signal.emit();
        {
            ScopedConnection scoped(signal.connect([&] { calls += 100; }));
            signal.emit();
        }
        signal.emit();
    }
    EXPECT_EQ(calls, 103);
    EXPECT_FALSE(c.connected());
    c.disconnect();  // no signal left: nothing happens
    EXPECT_FALSE(c.connected());
}

// A slot whose bound state disconnects another slot of the same signal when destroyed: dropping it
// while the signal's lock is held would deadlock.
TEST(Signal, DroppingSlotThatDisconnectsOnDestructionDoesNotDeadlock) {
    int calls = 0;
    {
        Signal0 signal;
        signal.connect([&] { ++calls; });
        // The slot holding `guard` comes before the slot that `guard` disconnects.
        auto guard = std::make_shared<ScopedConnection>();
        signal.connect([guard] {});
        *guard = signal.connect([&] { calls += 10; });
        guard.reset();  // the first slot now holds the last reference
        signal.emit();
        signal.disconnectAll();
        EXPECT_EQ(signal.slotCount(), 0u);
        signal.emit();

        // The signal's destructor drops what is left the same way.
        auto last = std::make_shared<ScopedConnection>();
        signal.connect([last] {});
        *last = signal.connect([] {});
        last.reset();
    }
    EXPECT_EQ(calls, 11);
}

TEST(SignalThreads, ConnectDisconnectAndEmitFromSeveralThreads) {
    Signal1<int> signal;
    std::atomic<int> total{0};
    Connection always = signal.connect([&](int v) { total += v; });
    constexpr int kThreads = 4, kRounds = 200;
    std::vector<int> ownCalls(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Shared with the slot: another thread's emit may still be running it after disconnect.
            auto mine = std::make_shared<std::atomic<int>>(0);
            for (int r = 0; r < kRounds; ++r) {
                Connection c = signal.connect([mine](int) { ++*mine; });
                int before = mine->load();
                signal.emit(1);
                // The own emit ran after the connect, so the slot was called at least once.
                EXPECT_GT(mine->load(), before);
                c.disconnect();
                EXPECT_FALSE(c.connected());
            }
            ownCalls[t] = mine->load();
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(total.load(), kThreads * kRounds);
    EXPECT_EQ(signal.slotCount(), 1u);
    for (int n : ownCalls) EXPECT_GE(n, kRounds);
    always.disconnect();
    signal.emit(1);
    EXPECT_EQ(total.load(), kThreads * kRounds);
}

}  // namespace
}  // namespace qor
