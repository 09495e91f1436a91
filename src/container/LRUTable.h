#pragma once
// LRUTable<Key, Value, Compare>: an ordered map that also keeps its entries in order of use and holds
// at most a given number of them; inserting beyond that removes the least recently used entries.
// It is LRUCache without costs.
//
// Ownership: the table owns its keys and values. Values that leave the table through insert, erase,
// eraseIf or clear are handed to the caller in a `released` vector when one is given, so that the
// caller can destroy them after dropping its lock; otherwise they are destroyed at once.
//
// Thread contract: not thread-safe. The owner serialises every call, usually under its own mutex.
// Reading an entry with get() changes the order of use, so even lookups need the owner's lock.

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "container/detail/LRUMap.h"

namespace qor::container {

template <class Key, class Value, class Compare = std::less<Key>>
class LRUTable {
public:
    // maxCount 0 means no limit.
    explicit LRUTable(size_t maxCount = 0, const Compare& compare = Compare())
        : _entries(compare), _maxCount(maxCount) {}

    // Stores value under key as the most recently used entry, replacing the value that was there.
    // Then, while the table holds more than maxCount() entries, removes the least recently used one
    // (never the entry just stored). The replaced and the removed values go to *released if given.
    // Returns the stored value, valid until the entry leaves the table.
    Value& insert(Key key, Value value, std::vector<Value>* released = nullptr) {
        Node* node = _entries.find(key);
        if (node) {
            Value old = std::exchange(node->value, std::move(value));
            _entries.moveToFront(node);
            if (released) released->push_back(std::move(old));
        } else {
            node = _entries.emplaceFront(std::move(key), std::move(value));
        }
        while (_maxCount != 0 && _entries.size() > _maxCount)
            _entries.erase(_entries.leastRecent(), sink(released));
        return node->value;
    }

    // The value under key, or null. find() leaves the order of use alone; get() counts as a use and
    // moves the entry to the front.
    Value* find(const Key& key) {
        Node* node = _entries.find(key);
        return node ? &node->value : nullptr;
    }
    const Value* find(const Key& key) const {
        const Node* node = _entries.find(key);
        return node ? &node->value : nullptr;
    }
    Value* get(const Key& key) {
        Node* node = _entries.find(key);
        if (!node) return nullptr;
        _entries.moveToFront(node);
        return &node->value;
    }
    bool contains(const Key& key) const { return _entries.find(key) != nullptr; }

    // Moves the entry to the front without reading it. False if there is none.
    bool touch(const Key& key) {
        Node* node = _entries.find(key);
        if (node) _entries.moveToFront(node);
        return node != nullptr;
    }

    // Removes the entry under key. False if there was none.
    bool erase(const Key& key, std::vector<Value>* released = nullptr) {
        Node* node = _entries.find(key);
        if (node) _entries.erase(node, sink(released));
        return node != nullptr;
    }

    // Removes every entry for which pred(const Key&, const Value&) holds. Returns how many.
    template <class Pred>
    size_t eraseIf(Pred&& pred, std::vector<Value>* released = nullptr) {
        return _entries.eraseIf(std::forward<Pred>(pred), sink(released));
    }

    // Removes and returns the least recently used entry; nothing when the table is empty.
    std::optional<std::pair<Key, Value>> popLeastRecent() {
        Node* node = _entries.leastRecent();
        if (!node) return std::nullopt;
        std::optional<std::pair<Key, Value>> out;
        Key key = *node->key;
        _entries.erase(node, [&](Value&& v) { out.emplace(std::move(key), std::move(v)); });
        return out;
    }
    // The key that the next eviction would remove, or null.
    const Key* leastRecentKey() const {
        const Node* node = _entries.leastRecent();
        return node ? node->key : nullptr;
    }

    void clear(std::vector<Value>* released = nullptr) { _entries.clear(sink(released)); }

    size_t size() const { return _entries.size(); }
    bool empty() const { return _entries.empty(); }
    size_t maxCount() const { return _maxCount; }
    // Sets the limit (0: none). Nothing is removed until the next insert().
    void setMaxCount(size_t maxCount) { _maxCount = maxCount; }

    // Calls fn(const Key&, const Value&) from the most to the least recently used entry. fn must not
    // change the table.
    template <class Fn>
    void forEach(Fn&& fn) const {
        _entries.forEach(std::forward<Fn>(fn));
    }

private:
    using Map = detail::LRUMap<Key, Value, Compare>;
    using Node = typename Map::Node;

    static auto sink(std::vector<Value>* released) {
        return [released](Value&& v) {
            if (released) released->push_back(std::move(v));
        };
    }

    Map _entries;
    size_t _maxCount;
};

}  // namespace qor::container
