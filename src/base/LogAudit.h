#pragma once
// Counters over what the log has seen, for harnesses that check a run afterwards.

#include <cstddef>

namespace qor {

// Failed assertions logged while no LogCapture was alive, counted from the start of the process.
// A test harness compares it before and after each test to catch assertions nobody expected.
size_t uncapturedAssertionCount();

}  // namespace qor
