#include "base/ScratchPad.h"

#include <algorithm>

namespace qor {

namespace {
// The smallest buffer a pad allocates, so that a run of small requests allocates once.
constexpr size_t kMinimumCapacity = 4096;
}  // namespace

char* ScratchPad::getBuffer(size_t length) {
    if (!_buffer || length > _capacity) {
        // Grow at least by half, so that slowly rising lengths reallocate rarely.
        size_t capacity = std::max({length, kMinimumCapacity, _capacity + _capacity / 2});
        _buffer.reset();
        _capacity = 0;
        _buffer = std::make_unique_for_overwrite<char[]>(capacity);
        _capacity = capacity;
    }
    return _buffer.get();
}

void ScratchPad::release() {
    _buffer.reset();
    _capacity = 0;
}

ScratchPad& globalScratchPad() {
    thread_local ScratchPad pad;
    return pad;
}

}  // namespace qor
