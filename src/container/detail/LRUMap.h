#pragma once
// LRUMap: the ordered map plus order of use that LRUTable and LRUCache are built on. Entries live in
// the nodes of a std::map, whose addresses never change, and embed the links of an IntrusiveList
// that runs from the most to the least recently used entry. Not for use outside src/container.
//
// Thread contract: none; the owner serialises every access.

#include <cstddef>
#include <map>
#include <utility>

#include "container/IntrusiveList.h"

namespace qor::container::detail {

template <class Key, class Value, class Compare>
class LRUMap {
public:
    struct Node : _LRUHelperList {
        template <class... A>
        explicit Node(A&&... a) : value(std::forward<A>(a)...) {}
        const Key* key = nullptr;  // the key inside the map node that holds this entry
        Value value;
    };

    LRUMap() = default;
    explicit LRUMap(const Compare& compare) : _map(compare) {}
    LRUMap(const LRUMap&) = delete;
    LRUMap& operator=(const LRUMap&) = delete;
    // Map nodes keep their addresses when a std::map is moved, so the links stay valid.
    LRUMap(LRUMap&& other) noexcept
        : _map(std::move(other._map)), _order(std::move(other._order)) {}
    LRUMap& operator=(LRUMap&& other) noexcept {
        if (this != &other) {
            _order.clear();
            _map = std::move(other._map);
            _order = std::move(other._order);
        }
        return *this;
    }
    ~LRUMap() { _order.clear(); }

    size_t size() const { return _map.size(); }
    bool empty() const { return _map.empty(); }

    Node* find(const Key& key) {
        auto it = _map.find(key);
        return it == _map.end() ? nullptr : &it->second;
    }
    const Node* find(const Key& key) const {
        auto it = _map.find(key);
        return it == _map.end() ? nullptr : &it->second;
    }

    // Adds an entry that is not there yet, built from args, at the front of the order of use.
    template <class K, class... A>
    Node* emplaceFront(K&& key, A&&... args) {
        auto [it, inserted] = _map.try_emplace(std::forward<K>(key), std::forward<A>(args)...);
        Node* node = &it->second;
        node->key = &it->first;
        _order.moveToFront(node);
        return node;
    }

    void moveToFront(Node* node) { _order.moveToFront(node); }
    void unlink(Node* node) { _order.remove(node); }
    Node* leastRecent() { return _order.back(); }
    const Node* leastRecent() const { return _order.back(); }

    // Removes the entry and hands its value to sink(Value&&).
    template <class Sink>
    void erase(Node* node, Sink&& sink) {
        auto it = _map.find(*node->key);
        _order.remove(node);
        Value value = std::move(node->value);
        _map.erase(it);
        sink(std::move(value));
    }

    // Removes every entry for which pred(key, value) holds; returns how many.
    template <class Pred, class Sink>
    size_t eraseIf(Pred&& pred, Sink&& sink) {
        size_t n = 0;
        for (auto it = _map.begin(); it != _map.end();) {
            if (pred(it->first, std::as_const(it->second.value))) {
                _order.remove(&it->second);
                sink(std::move(it->second.value));
                it = _map.erase(it);
                ++n;
            } else {
                ++it;
            }
        }
        return n;
    }

    // Removes, in key order from the first key not less than `from`, the entries whose key satisfies
    // inRange(key), stopping at the first that does not; returns how many.
    template <class Pred, class Sink>
    size_t eraseRange(const Key& from, Pred&& inRange, Sink&& sink) {
        size_t n = 0;
        for (auto it = _map.lower_bound(from); it != _map.end() && inRange(it->first); ++n) {
            _order.remove(&it->second);
            sink(std::move(it->second.value));
            it = _map.erase(it);
        }
        return n;
    }

    template <class Sink>
    void clear(Sink&& sink) {
        _order.clear();
        for (auto& [key, node] : _map) sink(std::move(node.value));
        _map.clear();
    }

    // Calls fn(const Key&, const Value&) from the most to the least recently used entry.
    template <class Fn>
    void forEach(Fn&& fn) const {
        for (const Node& node : _order) fn(*node.key, node.value);
    }

private:
    std::map<Key, Node, Compare> _map;
    IntrusiveList<Node> _order;  // most recently used first
};

}  // namespace qor::container::detail
