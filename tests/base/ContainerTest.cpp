#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "container/IntrusiveList.h"
#include "container/LRUCache.h"
#include "container/LRUTable.h"

namespace qor::container {
namespace {

struct Item : _LRUHelperList {
    explicit Item(int v) : value(v) {}
    int value;
};

std::vector<int> values(const IntrusiveList<Item>& list) {
    std::vector<int> out;
    for (const Item& i : list) out.push_back(i.value);
    return out;
}

TEST(IntrusiveList, UnlinksMovesAndPopsInConstantSteps) {
    Item a(1), b(2), c(3), d(4);
    IntrusiveList<Item> list;
    EXPECT_EQ(list.back(), nullptr);
    list.pushFront(&a);
    list.pushFront(&b);
    list.pushBack(&c);
    list.pushFront(&d);
    EXPECT_EQ(values(list), (std::vector<int>{4, 2, 1, 3}));
    EXPECT_EQ(list.size(), 4u);

    list.moveToFront(&c);
    list.remove(&b);
    list.remove(&b);  // not linked any more: no effect
    EXPECT_FALSE(b.linked());
    EXPECT_EQ(values(list), (std::vector<int>{3, 4, 1}));
    EXPECT_EQ(list.size(), 3u);

    list.moveToFront(&b);  // an unlinked item joins the list
    list.moveToBack(&c);
    EXPECT_EQ(values(list), (std::vector<int>{2, 4, 1, 3}));
    EXPECT_EQ(list.popBack(), &c);
    EXPECT_EQ(list.popFront(), &b);
    EXPECT_EQ(values(list), (std::vector<int>{4, 1}));

    // Walking backwards from the end reaches the front.
    auto it = list.end();
    --it;
    EXPECT_EQ(it->value, 1);
    --it;
    EXPECT_EQ(it, list.begin());
}

TEST(IntrusiveList, MoveTakesItemsAndDestructionUnlinksThem) {
    Item a(1), b(2);
    {
        IntrusiveList<Item> first;
        first.pushBack(&a);
        first.pushBack(&b);
        IntrusiveList<Item> second(std::move(first));
        EXPECT_TRUE(first.empty());
        EXPECT_EQ(values(second), (std::vector<int>{1, 2}));
        second.remove(&a);
        EXPECT_EQ(second.front(), &b);
        EXPECT_EQ(second.back(), &b);

        Item copy = b;  // a copy is in no list
        EXPECT_FALSE(copy.linked());
    }
    EXPECT_FALSE(a.linked());
    EXPECT_FALSE(b.linked());
}

using Cache = LRUCache<int, std::string>;

std::vector<int> keysByUse(const Cache& cache) {
    std::vector<int> out;
    cache.forEach([&](int k, const std::string&, Cache::Cost) { out.push_back(k); });
    return out;
}

TEST(LRUCache, EvictsLeastRecentlyUsedWhenOverBudget) {
    LogCapture capture;
    Cache cache(100);
    cache.insert(1, "a", 30);
    cache.insert(2, "b", 30);
    cache.insert(3, "c", 30);
    EXPECT_EQ(cache.costs(), 90u);
    ASSERT_NE(cache.get(1), nullptr);  // a use: 2 is now the oldest
    EXPECT_EQ(keysByUse(cache), (std::vector<int>{1, 3, 2}));

    std::vector<std::string> released;
    cache.insert(4, "d", 30, &released);
    EXPECT_EQ(released, std::vector<std::string>{"b"});
    EXPECT_EQ(keysByUse(cache), (std::vector<int>{4, 1, 3}));
    EXPECT_EQ(cache.costs(), 90u);

    // One big insert evicts several entries, oldest first, and no more than needed.
    released.clear();
    cache.insert(5, "e", 65, &released);
    EXPECT_EQ(released, (std::vector<std::string>{"c", "a"}));
    EXPECT_EQ(keysByUse(cache), (std::vector<int>{5, 4}));
    EXPECT_EQ(cache.costs(), 95u);
    EXPECT_EQ(capture.assertions(), 0u);
}

TEST(LRUCache, FindLeavesOrderAloneWhileTouchAndGetChangeWhatIsEvicted) {
    Cache cache(3);
    cache.insert(1, "a", 1);
    cache.insert(2, "b", 1);
    cache.insert(3, "c", 1);
    ASSERT_NE(cache.find(1), nullptr);
    EXPECT_EQ(*cache.leastRecentKey(), 1);
    EXPECT_TRUE(cache.touch(1));
    EXPECT_FALSE(cache.touch(9));
    EXPECT_EQ(*cache.leastRecentKey(), 2);
    cache.insert(4, "d", 1);
    EXPECT_FALSE(cache.contains(2));
    EXPECT_TRUE(cache.contains(1));
    EXPECT_EQ(cache.get(9), nullptr);
}

TEST(LRUCache, ReinsertingAKeyReplacesItsValueAndCost) {
    LogCapture capture;
    Cache cache(100);
    cache.insert(1, "a", 40);
    cache.insert(2, "b", 40);
    std::vector<std::string> released;
    // The old entry's cost is taken off first, so 1 fits again without evicting 2.
    std::string& stored = cache.insert(1, "A", 60, &released);
    EXPECT_EQ(stored, "A");
    EXPECT_EQ(released, std::vector<std::string>{"a"});
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_EQ(cache.costs(), 100u);
    EXPECT_EQ(cache.costOf(1), 60u);
    EXPECT_EQ(keysByUse(cache), (std::vector<int>{1, 2}));

    // Growing it further evicts the other entry but never the one being replaced.
    released.clear();
    cache.insert(1, "AA", 90, &released);
    EXPECT_EQ(released, (std::vector<std::string>{"b", "A"}));
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_EQ(cache.costs(), 90u);
    EXPECT_EQ(capture.assertions(), 0u);
}

TEST(LRUCache, CostNotBelowLimitLogsAndIsStoredAnyway) {
    LogCapture capture;
    Cache cache(50);
    cache.insert(1, "a", 10);
    cache.insert(2, "big", 50);
    EXPECT_EQ(capture.assertions("costs < _maxCosts"), 1u);
    EXPECT_EQ(keysByUse(cache), std::vector<int>{2});
    EXPECT_EQ(cache.costs(), 50u);

    cache.insert(3, "bigger", 80);
    EXPECT_EQ(capture.assertions("costs < _maxCosts"), 2u);
    EXPECT_EQ(keysByUse(cache), std::vector<int>{3});
    EXPECT_EQ(cache.costs(), 80u);
    EXPECT_EQ(capture.assertions("_costs >= oc"), 0u);
}

TEST(LRUCache, LoweredLimitEvictsOnlyAtNextInsert) {
    Cache cache(100);
    for (int k = 0; k < 5; ++k) cache.insert(k, "x", 20);
    cache.setMaxCosts(30);
    EXPECT_EQ(cache.size(), 5u);
    EXPECT_EQ(cache.costs(), 100u);
    EXPECT_EQ(cache.maxCosts(), 30u);
    cache.insert(9, "y", 10);
    EXPECT_EQ(keysByUse(cache), (std::vector<int>{9, 4}));
    EXPECT_EQ(cache.costs(), 30u);

    std::vector<std::string> released;
    EXPECT_EQ(cache.evictTo(10, &released), 1u);
    EXPECT_EQ(released, std::vector<std::string>{"x"});
    EXPECT_EQ(keysByUse(cache), std::vector<int>{9});
}

TEST(LRUCache, EraseFormsKeepTheTotal) {
    using Key = std::pair<int, int>;  // (owner, tile)
    LRUCache<Key, int> cache(1000);
    for (int owner = 0; owner < 3; ++owner)
        for (int tile = 0; tile < 4; ++tile) cache.insert({owner, tile}, owner * 10 + tile, 5);
    EXPECT_EQ(cache.costs(), 60u);

    std::vector<int> released;
    EXPECT_EQ(cache.eraseRange({1, 0}, [](const Key& k) { return k.first == 1; }, &released), 4u);
    EXPECT_EQ(released, (std::vector<int>{10, 11, 12, 13}));
    EXPECT_EQ(cache.costs(), 40u);

    EXPECT_EQ(cache.eraseIf([](const Key& k, int v) { return k.second == 0 || v == 23; }), 3u);
    EXPECT_EQ(cache.costs(), 25u);
    EXPECT_TRUE(cache.erase({0, 1}));
    EXPECT_FALSE(cache.erase({0, 1}));
    EXPECT_EQ(cache.costs(), 20u);
    EXPECT_EQ(cache.size(), 4u);

    // The order of use is intact after the removals.
    cache.touch({0, 2});
    EXPECT_EQ(*cache.leastRecentKey(), Key(0, 3));

    cache.clear();
    EXPECT_TRUE(cache.empty());
    EXPECT_EQ(cache.costs(), 0u);
    EXPECT_EQ(cache.leastRecentKey(), nullptr);
}

TEST(LRUCache, ReleasedValuesOutliveTheCacheCall) {
    // Values handed back are the last references, so the caller decides when they die.
    LRUCache<int, std::shared_ptr<int>> cache(2);
    std::weak_ptr<int> first;
    {
        auto p = std::make_shared<int>(1);
        first = p;
        cache.insert(1, std::move(p), 1);
    }
    std::vector<std::shared_ptr<int>> released;
    cache.insert(2, std::make_shared<int>(2), 1, &released);
    cache.insert(3, std::make_shared<int>(3), 1, &released);
    ASSERT_EQ(released.size(), 1u);
    EXPECT_FALSE(first.expired());
    released.clear();
    EXPECT_TRUE(first.expired());

    LRUCache<int, std::shared_ptr<int>> moved(std::move(cache));
    EXPECT_EQ(moved.size(), 2u);
    EXPECT_EQ(moved.costs(), 2u);
    EXPECT_EQ(cache.costs(), 0u);
    moved.insert(4, nullptr, 1);
    EXPECT_FALSE(moved.contains(2));
}

TEST(LRUTable, KeepsAtMostMaxCountInOrderOfUse) {
    LRUTable<std::string, int> table(3);
    table.insert("a", 1);
    table.insert("b", 2);
    table.insert("c", 3);
    ASSERT_NE(table.get("a"), nullptr);
    std::vector<int> released;
    table.insert("d", 4, &released);
    EXPECT_EQ(released, std::vector<int>{2});
    table.insert("c", 30, &released);  // replaces, evicts nothing
    EXPECT_EQ(released, (std::vector<int>{2, 3}));
    EXPECT_EQ(*table.find("c"), 30);

    std::vector<std::string> order;
    table.forEach([&](const std::string& k, int) { order.push_back(k); });
    EXPECT_EQ(order, (std::vector<std::string>{"c", "d", "a"}));

    auto oldest = table.popLeastRecent();
    ASSERT_TRUE(oldest);
    EXPECT_EQ(oldest->first, "a");
    EXPECT_EQ(oldest->second, 1);
    EXPECT_TRUE(table.erase("d"));
    EXPECT_EQ(table.size(), 1u);

    table.setMaxCount(0);  // no limit
    for (int i = 0; i < 10; ++i) table.insert(std::to_string(i), i);
    EXPECT_EQ(table.size(), 11u);
    table.setMaxCount(2);
    EXPECT_EQ(table.size(), 11u);
    table.touch("c");
    table.insert("z", 0);
    EXPECT_EQ(table.size(), 2u);
    EXPECT_TRUE(table.contains("c"));
    EXPECT_TRUE(table.contains("z"));
}

}  // namespace
}  // namespace qor::container
