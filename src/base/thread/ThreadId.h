#pragma once
// Small process-unique thread ids: 1 for the first thread that asks, then counting up. Cheaper to
// print and compare than std::thread::id, and InvalidThreadId (all ones) marks "no thread yet".

#include <cstdint>

namespace qor::thread {

using ThreadId = std::uint64_t;
inline constexpr ThreadId InvalidThreadId = ~ThreadId(0);

// The calling thread's id. Lock-free after the first call on a thread.
ThreadId getThreadId();

// Names the calling thread for debuggers and `top` (at most 15 characters are kept).
void setThreadName(const char* name);

}  // namespace qor::thread
