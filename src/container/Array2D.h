#pragma once
// Array2D<T>: a row-major table of width x height elements in one contiguous vector; element
// (x, y) lives at index y * width + x. Used for tile results and tile versions, where columns are
// tile columns and rows tile rows.
//
// Thread contract: a plain value; distinct objects may be used on any threads.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qor::container {

template <class T>
struct Array2D {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<T> elements;

    Array2D() = default;
    Array2D(uint32_t w, uint32_t h, const T& fill = T()) { resize(w, h, fill); }

    // Sets both sizes and resizes the element vector to w * h. Existing elements keep their index,
    // not their (x, y); new ones are `fill`. Use `assign` for a fresh table.
    void resize(uint32_t w, uint32_t h, const T& fill = T()) {
        width = w;
        height = h;
        elements.resize(size_t(w) * h, fill);
    }
    // Sets both sizes and every element to `fill`.
    void assign(uint32_t w, uint32_t h, const T& fill = T()) {
        width = w;
        height = h;
        elements.assign(size_t(w) * h, fill);
    }

    int columns() const { return int(width); }
    int rows() const { return int(height); }
    bool empty() const { return elements.empty(); }
    size_t size() const { return elements.size(); }

    T& at(uint32_t x, uint32_t y) { return elements[size_t(y) * width + x]; }
    const T& at(uint32_t x, uint32_t y) const { return elements[size_t(y) * width + x]; }
    T& operator()(uint32_t x, uint32_t y) { return at(x, y); }
    const T& operator()(uint32_t x, uint32_t y) const { return at(x, y); }

    T* data() { return elements.data(); }
    const T* data() const { return elements.data(); }
    auto begin() { return elements.begin(); }
    auto end() { return elements.end(); }
    auto begin() const { return elements.begin(); }
    auto end() const { return elements.end(); }

    friend bool operator==(const Array2D& a, const Array2D& b) {
        return a.width == b.width && a.height == b.height && a.elements == b.elements;
    }
    friend bool operator!=(const Array2D& a, const Array2D& b) { return !(a == b); }
};

}  // namespace qor::container
