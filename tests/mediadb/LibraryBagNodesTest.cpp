// The Bag base class: nodes, copy-on-write commits and their notices.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "LibraryTestSupport.h"
#include "base/Log.h"
#include "base/filesystem/FilesystemScopedLock.h"

namespace qor::mediadb::testing {
namespace {

using BagNodes = LibraryFixture;

// The ids of the items in tree order.
std::vector<int> order(const TestFolderBag& bag) {
    std::vector<int> ids;
    for (const Bag::Node* node : bag.itemNodes()) ids.push_back(node->item().id());
    return ids;
}

ResourceID img(int n) { return ResourceID(n, nullptr); }

TEST_F(BagNodes, InsertMoveAndRemoveKeepParentsAndTheNodeMap) {
    TestFolderBag bag;
    const Bag::Node* root = bag.rootNode();
    EXPECT_EQ(root->groupType(), "root");
    for (int i = 1; i <= 3; ++i) bag.insertItem(img(i), root);
    const Bag::Node* group = bag.insertGroup("family", root);
    // Inserting into a group after its siblings grew: many insertions move the vector.
    for (int i = 4; i <= 40; ++i) bag.insertItem(img(i), group);
    group = bag.nodeForItem(img(4))->parent();
    EXPECT_EQ(group->childrenSize(), 37u);
    for (const Bag::Node* node : bag.itemNodes()) EXPECT_EQ(bag.nodeForItem(node->item()), node);

    // Move item 1 into the group (a later sibling of it), before item 5.
    const Bag::Node* moved = bag.moveNode(bag.nodeForItem(img(1)), group, bag.nodeForItem(img(5)));
    ASSERT_NE(moved, nullptr);
    EXPECT_EQ(moved->item(), img(1));
    EXPECT_EQ(moved->parent()->groupType(), "family");
    std::vector<int> expected{2, 3, 4, 1};
    for (int i = 5; i <= 40; ++i) expected.push_back(i);
    EXPECT_EQ(order(bag), expected);
    // Move item 40 to the end of the root, and item 3 before item 2.
    bag.moveNode(bag.nodeForItem(img(40)), bag.rootNode(), Bag::EmptyNodeIterator);
    bag.moveNode(bag.nodeForItem(img(3)), bag.rootNode(), bag.nodeForItem(img(2)));
    EXPECT_EQ(order(bag).front(), 3);
    EXPECT_EQ(order(bag).back(), 40);
    for (const Bag::Node* node : bag.itemNodes()) {
        EXPECT_EQ(bag.nodeForItem(node->item()), node);
        bool found = false;
        for (const Bag::Node& child : node->parent()->children()) found |= &child == node;
        EXPECT_TRUE(found);
    }

    // Removing the group removes its items from the set and the map.
    bag.removeNode(bag.nodeForItem(img(4))->parent());
    EXPECT_EQ(order(bag), (std::vector<int>{3, 2, 40}));
    EXPECT_EQ(bag.images().size(), 3u);
    EXPECT_EQ(bag.nodeForItem(img(5)), Bag::EmptyNodeIterator);
}

TEST_F(BagNodes, InsertWithARealSiblingAssertsAndInsertsNothing) {
    TestFolderBag bag;
    bag.insertItem(img(1), bag.rootNode());
    LogCapture log;
    EXPECT_EQ(
        bag.insertNode(Bag::Node::makeItem(img(2)), bag.rootNode(), bag.nodeForItem(img(1)), true),
        Bag::EmptyNodeIterator);
    EXPECT_EQ(bag.rootNode()->childrenSize(), 1u);
    // A node of another tree, and a node moved before itself.
    TestFolderBag other;
    EXPECT_EQ(bag.insertItem(img(3), other.rootNode()), Bag::EmptyNodeIterator);
    const Bag::Node* one = bag.nodeForItem(img(1));
    EXPECT_EQ(bag.moveNode(one, bag.rootNode(), one), one);
    EXPECT_EQ(log.assertions(), 3u);
    EXPECT_EQ(bag.images().size(), 1u);
}

TEST_F(BagNodes, ACopyHasItsOwnNodes) {
    TestFolderBag bag;
    bag.insertItem(img(1), bag.rootNode());
    bag.addTag(bag.insertGroup("g", bag.rootNode()), "k", "v");
    std::unique_ptr<TestFolderBag> copy(static_cast<TestFolderBag*>(bag.mutableCopy()));
    copy->removeNode(copy->nodeForItem(img(1)));
    EXPECT_EQ(bag.rootNode()->childrenSize(), 2u);
    EXPECT_NE(bag.nodeForItem(img(1)), Bag::EmptyNodeIterator);
    ASSERT_EQ(copy->rootNode()->childrenSize(), 1u);
    EXPECT_EQ(copy->rootNode()->children()[0].parent(), copy->rootNode());
    EXPECT_EQ(copy->rootNode()->children()[0].tag("k"), "v");
}

// A snapshot never changes; a copy commits when its last reference goes, and the update notice
// comes after the bag's lock has been released, so a listener may lock the bag again.
TEST_F(BagNodes, CopyOnWriteCommitsAndNotifiesAfterTheLockIsReleased) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    ResourceID a = library->addImage(path("Trip/a.jpg"));
    SharedPtr<const Bag> before = library->bag(event);
    std::atomic<int> notices{0};
    std::atomic<bool> lockFree{false};
    std::atomic<bool> sawImage{false};
    library->postponeFunction(event, [&] {
        ++notices;
        // The lock is free: another writer could take it now.
        lockFree = FilesystemScopedLock::tryLock(path("Trip"), 1).held();
        sawImage = library->bag(event)->containsImage(a);
    });
    {
        SharedPtr<Bag> copy = library->modifyLockBag(event);
        ASSERT_TRUE(copy);
        copy->insertImage(a);
        EXPECT_FALSE(before->containsImage(a));
        EXPECT_FALSE(library->bag(event)->containsImage(a));
        EXPECT_EQ(notices, 0);
    }
    EXPECT_EQ(notices, 1);
    EXPECT_TRUE(lockFree);
    EXPECT_TRUE(sawImage);
    EXPECT_FALSE(before->containsImage(a));
    EXPECT_TRUE(library->bag(event)->containsImage(a));
    EXPECT_EQ(library->containerId(a), event);
}

// Two copies under one lock (a batch): both commit, the notices run when the lock goes.
TEST_F(BagNodes, CopiesUnderOneLockNotifyWhenTheLockGoes) {
    ResourceID e1 = library->createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID e2 = library->createBag(TestFolderBag::bagTypeStatic(), "Two");
    std::atomic<int> notices{0};
    library->postponeFunction(e1, [&] { ++notices; });
    library->postponeFunction(e2, [&] { ++notices; });
    LibraryLockPtr lock = LibraryLock::acquire(library->path());
    library->modifyLockBag(e1, lock)->insertImage(library->addImage(path("One/a.jpg")));
    library->modifyLockBag(e2, lock)->insertImage(library->addImage(path("Two/b.jpg")));
    EXPECT_EQ(library->bag(e1)->images().size(), 1u);
    EXPECT_EQ(notices, 0);
    lock.reset();
    EXPECT_EQ(notices, 2);
}

}  // namespace
}  // namespace qor::mediadb::testing
