#pragma once
// IntrusiveList<T>: a doubly linked list of items that carry their own links, so that unlinking an
// item, moving it to the front and taking the last one are O(1) and never allocate. It is the order
// of use behind LRUCache and LRUTable.
//
// An item type derives from _LRUHelperList, the hook. An item is in at most one list at a time. The
// list does not own its items: it never creates or deletes them, and the owner must unlink an item
// (or clear the list) before the item dies. Copying a hook gives an unlinked hook, so items may be
// copied freely; the copy is not in any list.
//
// Thread contract: none. The owner serialises every access to a list and its items.

#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace qor::container {

// The links that an item of an IntrusiveList embeds. Null links mean "not in a list".
class _LRUHelperList {
public:
    _LRUHelperList() = default;
    _LRUHelperList(const _LRUHelperList&) {}
    _LRUHelperList& operator=(const _LRUHelperList&) { return *this; }
    ~_LRUHelperList() = default;

    // True while the item is in a list.
    bool linked() const { return _next != nullptr; }

private:
    template <class T>
    friend class IntrusiveList;

    _LRUHelperList* _prev = nullptr;
    _LRUHelperList* _next = nullptr;
};

template <class T>
class IntrusiveList {
public:
    // Walks from the front (most recently pushed to the front) to the back.
    template <class Item>
    class Iterator {
    public:
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = Item*;
        using reference = Item&;

        Iterator() = default;
        reference operator*() const { return *static_cast<Item*>(_at); }
        pointer operator->() const { return static_cast<Item*>(_at); }
        Iterator& operator++() {
            _at = _at->_next;
            return *this;
        }
        Iterator operator++(int) {
            Iterator old = *this;
            ++*this;
            return old;
        }
        Iterator& operator--() {
            _at = _at->_prev;
            return *this;
        }
        Iterator operator--(int) {
            Iterator old = *this;
            --*this;
            return old;
        }
        friend bool operator==(const Iterator& a, const Iterator& b) { return a._at == b._at; }

    private:
        friend class IntrusiveList;
        using Hook = std::conditional_t<std::is_const_v<Item>, const _LRUHelperList,
                                        _LRUHelperList>;
        explicit Iterator(Hook* at) : _at(const_cast<_LRUHelperList*>(at)) {}
        _LRUHelperList* _at = nullptr;
    };
    using iterator = Iterator<T>;
    using const_iterator = Iterator<const T>;

    IntrusiveList() { _head._prev = _head._next = &_head; }
    IntrusiveList(const IntrusiveList&) = delete;
    IntrusiveList& operator=(const IntrusiveList&) = delete;
    // Takes over the items of `other`, which is left empty.
    IntrusiveList(IntrusiveList&& other) noexcept : IntrusiveList() { takeFrom(other); }
    IntrusiveList& operator=(IntrusiveList&& other) noexcept {
        if (this != &other) {
            clear();
            takeFrom(other);
        }
        return *this;
    }
    // Unlinks every item that is still in the list.
    ~IntrusiveList() { clear(); }

    bool empty() const { return _head._next == &_head; }
    size_t size() const { return _size; }

    // The first or last item; null when the list is empty.
    T* front() { return empty() ? nullptr : item(_head._next); }
    T* back() { return empty() ? nullptr : item(_head._prev); }
    const T* front() const { return empty() ? nullptr : item(_head._next); }
    const T* back() const { return empty() ? nullptr : item(_head._prev); }

    // Links an item that is in no list at the front or back.
    void pushFront(T* t) { linkAfter(&_head, hook(t)); }
    void pushBack(T* t) { linkAfter(_head._prev, hook(t)); }

    // Unlinks an item of this list; an item in no list is left alone.
    void remove(T* t) {
        _LRUHelperList* h = hook(t);
        if (!h->linked()) return;
        h->_prev->_next = h->_next;
        h->_next->_prev = h->_prev;
        h->_prev = h->_next = nullptr;
        --_size;
    }

    // Puts an item at the front (or back), whether it is in this list already or in none.
    void moveToFront(T* t) {
        _LRUHelperList* h = hook(t);
        if (_head._next == h) return;
        remove(t);
        linkAfter(&_head, h);
    }
    void moveToBack(T* t) {
        _LRUHelperList* h = hook(t);
        if (_head._prev == h) return;
        remove(t);
        linkAfter(_head._prev, h);
    }

    // Unlinks and returns the last or first item; null when the list is empty.
    T* popBack() {
        T* t = back();
        if (t) remove(t);
        return t;
    }
    T* popFront() {
        T* t = front();
        if (t) remove(t);
        return t;
    }

    // Unlinks every item.
    void clear() {
        while (!empty()) popBack();
    }

    iterator begin() { return iterator(_head._next); }
    iterator end() { return iterator(&_head); }
    const_iterator begin() const { return const_iterator(_head._next); }
    const_iterator end() const { return const_iterator(&_head); }

private:
    static _LRUHelperList* hook(T* t) { return static_cast<_LRUHelperList*>(t); }
    static T* item(_LRUHelperList* h) { return static_cast<T*>(h); }
    static const T* item(const _LRUHelperList* h) { return static_cast<const T*>(h); }

    void linkAfter(_LRUHelperList* at, _LRUHelperList* h) {
        h->_prev = at;
        h->_next = at->_next;
        at->_next->_prev = h;
        at->_next = h;
        ++_size;
    }

    void takeFrom(IntrusiveList& other) {
        if (other.empty()) return;
        _head._next = other._head._next;
        _head._prev = other._head._prev;
        _head._next->_prev = &_head;
        _head._prev->_next = &_head;
        _size = other._size;
        other._head._prev = other._head._next = &other._head;
        other._size = 0;
    }

    _LRUHelperList _head;  // sentinel: _head._next is the front, _head._prev the back
    size_t _size = 0;
};

}  // namespace qor::container
