#pragma once
// GPUBadAlloc: std::bad_alloc that carries the text of its cause, for the GPU layer's
// out-of-memory failures. Callers catch std::bad_alloc; what() tells which failure it was.

#include <new>
#include <string>

namespace qor::gpu {

class GPUBadAlloc : public std::bad_alloc {
public:
    explicit GPUBadAlloc(std::string text) : _text(std::move(text)) {}
    const char* what() const noexcept override { return _text.c_str(); }

private:
    std::string _text;
};

}  // namespace qor::gpu
