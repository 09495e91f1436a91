#pragma once
// RgbaRows: a view of RGBA pixels in rows, as handed to writers of picture files.

#include <cstddef>

namespace qor::imaging {

// RGBA rows, top row first, of 8 or 16 bits a sample (16-bit samples in the machine's byte
// order). Does not own the pixels.
struct RgbaRows {
    int width = 0;
    int height = 0;
    int bitsPerChannel = 8;
    const void* pixels = nullptr;
    size_t byteStride = 0;
};

}  // namespace qor::imaging
