#pragma once
// The retry loop of the GPU operations on tiles: run the work; on std::bad_alloc make room in
// graphics memory and try again, at most ten times, then give up with std::bad_alloc.
//
// Making room: the GPU area of ImageStorageManager gets its present consumption as its limit and
// gives up `bytes`, and the renderer's texture cache is emptied; with freeImageMemory, the
// processor image memory is asked to free what it can first (a read back needs processor memory
// as well).
//
// Thread contract: GL thread only (the texture cache is emptied there). The work runs on the
// calling thread.

#include <cstdint>

#include "util/Function.h"

namespace qor::gpu::detail {

inline constexpr int MaxGPUAttempts = 10;

struct RetryTexts {
    // Logged at error level after each failure; "%*" takes the exception's text.
    const char* caught = "std::bad_alloc caught!";
    // Logged after the last failure.
    const char* lastLog = "Can't get passed std::bad_alloc! crash is iminent.";
    // The text of the std::bad_alloc thrown then.
    const char* lastThrow = "std::bad_alloc(): Can't get passed std::bad_alloc! crash is iminent.";
};

// Runs `work` until it returns without std::bad_alloc, making room between attempts. Other
// exceptions pass through at once. Throws GPUBadAlloc with texts.lastThrow after the tenth failure.
void runWithGPURetry(const Function0<void>& work, std::uint64_t bytes, bool freeImageMemory,
                     const RetryTexts& texts = RetryTexts());

// The eviction step on its own, for code with a loop of its own.
void makeRoomInGPUMemory(std::uint64_t bytes, bool freeImageMemory);

}  // namespace qor::gpu::detail
