#pragma once
// ScratchPad: a growable byte buffer for short-lived temporary data (a row being converted, a
// string being built), so that hot paths do not allocate on every call. globalScratchPad() gives
// each thread its own pad.
//
// Ownership: the pad owns its buffer; a pointer from getBuffer() is valid until the next getBuffer()
// or release() on the same pad, or until the pad dies (for the global pad: its thread ends).
// Thread contract: one pad is used by one thread at a time; the global pads are per thread.

#include <cstddef>
#include <memory>

namespace qor {

class ScratchPad {
public:
    ScratchPad() = default;
    ScratchPad(const ScratchPad&) = delete;
    ScratchPad& operator=(const ScratchPad&) = delete;

    // Returns a buffer of at least `length` bytes (never null, even for 0). When the buffer has to
    // grow, its former contents are not kept and earlier pointers become invalid. Throws
    // std::bad_alloc when memory runs out.
    char* getBuffer(size_t length);

    // The number of bytes the current buffer holds.
    size_t capacity() const { return _capacity; }

    // Frees the buffer.
    void release();

private:
    std::unique_ptr<char[]> _buffer;
    size_t _capacity = 0;
};

// The calling thread's pad, made on first use and freed when the thread ends.
ScratchPad& globalScratchPad();

}  // namespace qor
