#pragma once
// LRUCache<Key, Value, Compare>: an ordered map with a cost per entry, a running total of the costs
// and a limit. Inserting removes the least recently used entries until the new one fits. The order
// of use is an IntrusiveList threaded through the map's nodes, so a use or an eviction is O(1)
// besides the map lookup.
//
// Ownership: the cache owns its keys and values. Values that leave the cache through insert, erase,
// eraseIf, evictTo or clear go to the caller in a `released` vector when one is given, so that the
// caller can destroy them (and whatever they hold) after dropping its lock; otherwise they are
// destroyed at once.
//
// Thread contract: not thread-safe. The owner serialises every call, usually under its own mutex.
// get() and touch() change the order of use, so lookups need the owner's lock as well.

#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "container/detail/LRUMap.h"

namespace qor::container {

template <class Key, class Value, class Compare = std::less<Key>>
class LRUCache {
public:
    using Cost = unsigned long long;

    explicit LRUCache(Cost maxCosts = ~Cost(0), const Compare& compare = Compare())
        : _entries(compare), _maxCosts(maxCosts) {}
    LRUCache(LRUCache&& other) noexcept
        : _entries(std::move(other._entries)),
          _costs(std::exchange(other._costs, 0)),
          _maxCosts(other._maxCosts) {}
    LRUCache& operator=(LRUCache&& other) noexcept {
        if (this != &other) {
            _entries = std::move(other._entries);
            _costs = std::exchange(other._costs, 0);
            _maxCosts = other._maxCosts;
        }
        return *this;
    }

    // Stores value under key at the given cost as the most recently used entry.
    // A cost that is not below the limit logs the assertion "costs < _maxCosts" and is stored all
    // the same. An entry already under key is taken out of the order of use and its cost off the
    // total first. Then, while the total plus the new cost exceeds the limit, the least recently
    // used entry is removed. The replaced and removed values go to *released if given. Returns the
    // stored value, valid until the entry leaves the cache.
    Value& insert(Key key, Value value, Cost costs, std::vector<Value>* released = nullptr) {
        QOR_ASSERT_TEXT(costs < _maxCosts, "costs < _maxCosts");
        Node* node = _entries.find(key);
        if (node) {
            subtract(node->value.cost);
            _entries.unlink(node);
        }
        while (exceeds(costs)) {
            Node* lru = _entries.leastRecent();
            if (!lru) break;
            subtract(lru->value.cost);
            _entries.erase(lru, sink(released));
        }
        if (node) {
            Value old = std::exchange(node->value.value, std::move(value));
            node->value.cost = costs;
            _entries.moveToFront(node);
            if (released) released->push_back(std::move(old));
        } else {
            node = _entries.emplaceFront(std::move(key), Entry{std::move(value), costs});
        }
        _costs += costs;
        return node->value.value;
    }

    // The value under key, or null. find() leaves the order of use alone; get() counts as a use and
    // moves the entry to the front.
    Value* find(const Key& key) {
        Node* node = _entries.find(key);
        return node ? &node->value.value : nullptr;
    }
    const Value* find(const Key& key) const {
        const Node* node = _entries.find(key);
        return node ? &node->value.value : nullptr;
    }
    Value* get(const Key& key) {
        Node* node = _entries.find(key);
        if (!node) return nullptr;
        _entries.moveToFront(node);
        return &node->value.value;
    }
    bool contains(const Key& key) const { return _entries.find(key) != nullptr; }
    // The cost stored with the entry under key; nothing if there is none.
    std::optional<Cost> costOf(const Key& key) const {
        const Node* node = _entries.find(key);
        return node ? std::optional<Cost>(node->value.cost) : std::nullopt;
    }

    // Moves the entry to the front without reading it. False if there is none.
    bool touch(const Key& key) {
        Node* node = _entries.find(key);
        if (node) _entries.moveToFront(node);
        return node != nullptr;
    }

    // Removes the entry under key and its cost. False if there was none.
    bool erase(const Key& key, std::vector<Value>* released = nullptr) {
        Node* node = _entries.find(key);
        if (!node) return false;
        subtract(node->value.cost);
        _entries.erase(node, sink(released));
        return true;
    }

    // Removes every entry for which pred(const Key&, const Value&) holds. O(size). Returns how many.
    template <class Pred>
    size_t eraseIf(Pred&& pred, std::vector<Value>* released = nullptr) {
        return _entries.eraseIf(
            [&](const Key& k, const Entry& e) { return pred(k, std::as_const(e.value)); },
            costedSink(released));
    }

    // Removes, in key order from the first key not less than `from`, the entries whose key satisfies
    // inRange(const Key&), up to the first that does not. With keys that begin with an owner, this
    // removes all of one owner's entries in O(log size + removed). Returns how many.
    template <class Pred>
    size_t eraseRange(const Key& from, Pred&& inRange, std::vector<Value>* released = nullptr) {
        return _entries.eraseRange(from, std::forward<Pred>(inRange), costedSink(released));
    }

    // Removes least recently used entries until the total is at most `limit`. Returns how many.
    size_t evictTo(Cost limit, std::vector<Value>* released = nullptr) {
        size_t n = 0;
        for (; _costs > limit && !_entries.empty(); ++n) {
            Node* lru = _entries.leastRecent();
            subtract(lru->value.cost);
            _entries.erase(lru, sink(released));
        }
        return n;
    }

    void clear(std::vector<Value>* released = nullptr) {
        _entries.clear(sink(released));
        _costs = 0;
    }

    // The key that the next eviction would remove, or null.
    const Key* leastRecentKey() const {
        const Node* node = _entries.leastRecent();
        return node ? node->key : nullptr;
    }

    size_t size() const { return _entries.size(); }
    bool empty() const { return _entries.empty(); }
    Cost costs() const { return _costs; }
    Cost maxCosts() const { return _maxCosts; }
    // Sets the limit. Nothing is removed until the next insert() (or evictTo()).
    void setMaxCosts(Cost maxCosts) { _maxCosts = maxCosts; }

    // Calls fn(const Key&, const Value&, Cost) from the most to the least recently used entry. fn
    // must not change the cache.
    template <class Fn>
    void forEach(Fn&& fn) const {
        _entries.forEach([&](const Key& k, const Entry& e) { fn(k, e.value, e.cost); });
    }

private:
    struct Entry {
        Value value;
        Cost cost;
    };
    using Map = detail::LRUMap<Key, Entry, Compare>;
    using Node = typename Map::Node;

    // Whether _costs + extra > _maxCosts, without overflow.
    bool exceeds(Cost extra) const { return _costs > _maxCosts || extra > _maxCosts - _costs; }

    void subtract(Cost oc) {
        QOR_ASSERT_TEXT(_costs >= oc, "_costs >= oc");
        _costs -= std::min(_costs, oc);
    }

    static auto sink(std::vector<Value>* released) {
        return [released](Entry&& e) {
            if (released) released->push_back(std::move(e.value));
        };
    }
    auto costedSink(std::vector<Value>* released) {
        return [this, released](Entry&& e) {
            subtract(e.cost);
            if (released) released->push_back(std::move(e.value));
        };
    }

    Map _entries;
    Cost _costs = 0;
    Cost _maxCosts;
};

}  // namespace qor::container
