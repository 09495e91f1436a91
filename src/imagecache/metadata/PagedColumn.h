#pragma once
// PagedColumn<T>: a sparse table from an item index (ResourceID::index) to a value, the in-memory
// form of one field of the metadata cache and of its item-to-record table.
//
// A page table of blocks of 256 entries. A block exists only once something in its range was
// stored, so an absent value costs nothing, and a lookup is two indexed loads and a bit test. Each
// entry has two bits: `present` (it holds a value) and `known` (the cache has looked: the value is
// present, or known to be absent, so nothing further down needs to be asked).
//
// The table covers indices below capacity(), which grows in whole blocks and never shrinks.
// Lookups past it answer "absent"; stores past it fail the logged assertion
// "index >= 0 && index < capacity()" and store nothing.
//
// Thread contract: none of its own. The owner's mutex guards every call.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Log.h"

namespace qor::imagecache {

template <class T>
class PagedColumn {
public:
    using Value = T;
    static constexpr int PageShift = 8;
    static constexpr int32_t PageSize = int32_t(1) << PageShift;  // 256 entries a block

    // The number of indices covered, a multiple of PageSize.
    size_t capacity() const { return _pages.size() << PageShift; }
    // Covers indices below `capacity` (rounded up to whole blocks). Never shrinks; allocates no
    // block.
    void reserve(size_t capacity) {
        const size_t pages = (capacity + PageSize - 1) >> PageShift;
        if (pages > _pages.size()) _pages.resize(pages);
    }

    // The value at `index`, or null when none is present. Allocates nothing.
    const T* find(int32_t index) const {
        const Page* page = pageOf(index);
        if (!page) return nullptr;
        const int32_t slot = index & (PageSize - 1);
        return testBit(page->present, slot) ? &page->values[slot] : nullptr;
    }
    bool get(int32_t index, T& out) const {
        const T* value = find(index);
        if (!value) return false;
        out = *value;
        return true;
    }
    bool present(int32_t index) const { return find(index) != nullptr; }
    // Whether the value is present or known to be absent.
    bool known(int32_t index) const {
        const Page* page = pageOf(index);
        return page && testBit(page->known, index & (PageSize - 1));
    }

    // Stores a value: present and known.
    void set(int32_t index, const T& value) {
        Page* page = writablePage(index);
        if (!page) return;
        const int32_t slot = index & (PageSize - 1);
        page->values[slot] = value;
        setBit(page->present, slot, true);
        setBit(page->known, slot, true);
    }
    // Records that the value is absent: known, not present.
    void setAbsent(int32_t index) {
        Page* page = writablePage(index);
        if (!page) return;
        const int32_t slot = index & (PageSize - 1);
        page->values[slot] = T();
        setBit(page->present, slot, false);
        setBit(page->known, slot, true);
    }
    // Forgets the entry: neither present nor known. Keeps the block.
    void clear(int32_t index) {
        Page* page = const_cast<Page*>(pageOf(index));
        if (!page) return;
        const int32_t slot = index & (PageSize - 1);
        page->values[slot] = T();
        setBit(page->present, slot, false);
        setBit(page->known, slot, false);
    }

private:
    struct Page {
        uint64_t present[PageSize / 64] = {};
        uint64_t known[PageSize / 64] = {};
        T values[PageSize] = {};
    };

    static bool testBit(const uint64_t* bits, int32_t slot) {
        return (bits[slot >> 6] >> (slot & 63)) & 1;
    }
    static void setBit(uint64_t* bits, int32_t slot, bool on) {
        const uint64_t mask = uint64_t(1) << (slot & 63);
        bits[slot >> 6] = on ? bits[slot >> 6] | mask : bits[slot >> 6] & ~mask;
    }

    const Page* pageOf(int32_t index) const {
        const size_t page = size_t(uint32_t(index)) >> PageShift;  // a negative index is far out
        return index >= 0 && page < _pages.size() ? _pages[page].get() : nullptr;
    }
    Page* writablePage(int32_t index) {
        const bool inside = index >= 0 && size_t(index) < capacity();
        QOR_ASSERT_TEXT(inside, "index >= 0 && index < capacity()");
        if (!inside) return nullptr;
        std::unique_ptr<Page>& page = _pages[size_t(index) >> PageShift];
        if (!page) page = std::make_unique<Page>();
        return page.get();
    }

    std::vector<std::unique_ptr<Page>> _pages;  // null where no value was ever stored
};

}  // namespace qor::imagecache
