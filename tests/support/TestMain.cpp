// The main of every test executable: GoogleTest's, plus a listener that fails a test during which
// a logged assertion happened outside a LogCapture. Engine code logs an assertion and goes on, so
// without this a broken invariant (a race, a lifetime fault) passes unnoticed. A test that provokes
// an assertion on purpose holds a LogCapture and checks what it caught.
//
// Each test runs in a process of its own under CTest, so an assertion that a worker logs after its
// test has ended shows in the next test of the same run only when the binary runs many tests.

#include <gtest/gtest.h>

#include "base/LogAudit.h"

namespace {

class UncapturedAssertionListener : public testing::EmptyTestEventListener {
public:
    void OnTestStart(const testing::TestInfo&) override {
        _before = qor::uncapturedAssertionCount();
    }

    // Runs before the result printer's OnTestEnd (see main), so the failure shows on the test.
    void OnTestEnd(const testing::TestInfo&) override {
        const size_t logged = qor::uncapturedAssertionCount() - _before;
        if (logged > 0)
            ADD_FAILURE() << logged
                          << " logged assertion(s) outside a LogCapture during this test; the "
                             "'assertion failed' lines above say where";
    }

private:
    size_t _before = 0;
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    // Ours first, then the printer again, so that a failure added at the end of a test is printed
    // with it.
    testing::TestEventListener* printer = listeners.Release(listeners.default_result_printer());
    listeners.Append(new UncapturedAssertionListener);
    if (printer) listeners.Append(printer);
    return RUN_ALL_TESTS();
}
