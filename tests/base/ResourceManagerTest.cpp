#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/resource/ResourceFSScopedLock.h"
#include "base/resource/ResourceManager.h"

using namespace qor;

namespace {

// True when another thread could take an exclusive lock on the path right now.
bool lockableElsewhere(const std::string& path) {
    bool got = false;
    std::thread([&] { got = FilesystemScopedLock::tryLock(path, 1).held(); }).join();
    return got;
}

}  // namespace

TEST(ResourceName, AbsRelStoresPathsBelowTheRootRelative) {
    auto handler = std::make_shared<AbsRelNameHandler>("/lib/photos/");
    EXPECT_EQ(handler->root(), "/lib/photos");

    auto inside = ResourceName::fromLocalPath(handler, "file:///lib/photos/2024/../2023/a%20b.jpg");
    EXPECT_EQ(inside.localPath(), "/lib/photos/2023/a b.jpg");
    EXPECT_EQ(inside.persistentString(), "2023/a b.jpg");
    EXPECT_EQ(ResourceName::fromPersistentString(handler, "2023/a b.jpg"), inside);

    // A sibling folder whose name begins with the root's is outside it.
    auto sibling = ResourceName::fromLocalPath(handler, "/lib/photos2/x.jpg");
    EXPECT_EQ(sibling.persistentString(), "/lib/photos2/x.jpg");
    EXPECT_EQ(ResourceName::fromPersistentString(handler, sibling.persistentString()), sibling);

    auto root = ResourceName::fromLocalPath(handler, "/lib/photos");
    EXPECT_EQ(root.persistentString(), ".");
    EXPECT_EQ(ResourceName::fromPersistentString(handler, "."), root);

    auto top = std::make_shared<AbsRelNameHandler>("/");
    EXPECT_EQ(ResourceName::fromLocalPath(top, "/a/b").persistentString(), "a/b");

    LogCapture log;
    EXPECT_THROW(ResourceName::fromPersistentString(handler, ""), ResourceException);
    EXPECT_THROW(ResourceName::fromLocalPath(handler, ""), ResourceException);
    EXPECT_THROW(ResourceName::fromLocalPath(nullptr, "/a"), ResourceException);
    EXPECT_EQ(log.count("empty"), 2u);
}

TEST(ResourceName, UniquePathsNumberBeforeTheExtension) {
    ResourceNameHandler handler;
    EXPECT_EQ(handler.uniquePath("/a/b.jpg", 0), "/a/b.jpg");
    EXPECT_EQ(handler.uniquePath("/a/b.jpg", 2), "/a/b_2.jpg");
    EXPECT_EQ(handler.uniquePath("/a.d/b", 1), "/a.d/b_1");
    EXPECT_EQ(handler.uniquePath("/a/.bag", 3), "/a/.bag_3");
}

TEST(ResourceManager, AddsFindsAndRefusesKnownNames) {
    ResourceManager manager;
    auto a = manager.nameFromLocalPath("/x/a.jpg");
    ResourceID id = manager.add(a);
    ASSERT_TRUE(id.isValid());
    EXPECT_EQ(id.manager(), &manager);
    EXPECT_EQ(manager.find(a), id);
    EXPECT_EQ(manager.findLocalPath("/x//y/../a.jpg"), id);
    EXPECT_EQ(manager.name(id), a);

    LogCapture log;
    EXPECT_EQ(manager.add(a, ResourceManager::AddNew), InvalidResourceID);
    EXPECT_TRUE(log.contains("already a resource"));
    EXPECT_EQ(manager.add(a, ResourceManager::AddOrFind), id);
    EXPECT_EQ(manager.add(ResourceName()), InvalidResourceID);

    auto batch = manager.add({manager.nameFromLocalPath("/x/b.jpg"), a,
                              manager.nameFromLocalPath("/x/c.jpg")},
                             ResourceManager::AddOrFind);
    ASSERT_EQ(batch.size(), 3u);
    EXPECT_EQ(batch[1], id);
    EXPECT_NE(batch[0], batch[2]);
    EXPECT_EQ(manager.size(), 3u);
    EXPECT_EQ(manager.ids().size(), 3u);

    // An id rebuilt from its number alone names the same resource.
    EXPECT_EQ(manager.name(ResourceID(id.id(), nullptr)), a);
}

TEST(ResourceManager, RenamedResourceIsFoundUnderItsNewNameWithItsProperties) {
    ResourceManager manager;
    auto rating = manager.registerProperty<int>("rating");
    ResourceID id = manager.add(manager.nameFromLocalPath("/x/old.jpg"));
    ResourceID other = manager.add(manager.nameFromLocalPath("/x/other.jpg"));
    ASSERT_TRUE(manager.setProperty(id, rating, 4));

    std::vector<std::pair<ResourceID, std::string>> renames;
    manager.resourceRenamed.connect(
        [&](ResourceID r, ResourceName n) { renames.emplace_back(r, n.localPath()); });

    auto newName = manager.nameFromLocalPath("/y/new.jpg");
    ASSERT_TRUE(manager.rename(id, newName));
    EXPECT_EQ(manager.find(newName), id);
    EXPECT_EQ(manager.findLocalPath("/x/old.jpg"), InvalidResourceID);
    EXPECT_EQ(manager.localPath(id), "/y/new.jpg");
    EXPECT_EQ(manager.property(id, rating), 4);
    ASSERT_EQ(renames.size(), 1u);
    EXPECT_EQ(renames[0].first, id);
    EXPECT_EQ(renames[0].second, "/y/new.jpg");

    // The present name again is no change; another resource's name is refused.
    EXPECT_TRUE(manager.rename(id, newName));
    LogCapture log;
    EXPECT_FALSE(manager.rename(other, newName));
    EXPECT_TRUE(log.contains("another resource's name"));
    EXPECT_EQ(manager.localPath(other), "/x/other.jpg");
    EXPECT_EQ(renames.size(), 1u);
    // The freed old name can be taken by another resource.
    EXPECT_TRUE(manager.rename(other, manager.nameFromLocalPath("/x/old.jpg")));
}

TEST(ResourceManager, RemovedResourceIsGoneWithItsPropertiesAndItsIndex) {
    ResourceManager manager;
    auto tags = manager.registerProperty<std::map<std::string, std::string>>("tags");
    auto a = manager.nameFromLocalPath("/x/a.jpg");
    ResourceID id = manager.add(a);
    manager.modifyProperty(id, tags, [](auto& m) { m["k"] = "v"; });

    std::vector<std::string> deleted;
    manager.resourceDeleted.connect([&](ResourceID r, ResourceName n) {
        EXPECT_EQ(r, id);
        deleted.push_back(n.localPath());
    });
    ASSERT_TRUE(manager.remove(id));
    EXPECT_EQ(deleted, std::vector<std::string>{"/x/a.jpg"});
    EXPECT_FALSE(manager.contains(id));
    LogCapture log;
    EXPECT_THROW(manager.name(id), ResourceDeletedException);
    EXPECT_FALSE(manager.remove(id));
    EXPECT_FALSE(manager.rename(id, manager.nameFromLocalPath("/x/b.jpg")));
    EXPECT_FALSE(manager.setProperty(id, tags, {}));
    EXPECT_TRUE(manager.property(id, tags).empty());
    EXPECT_THROW(ResourceFSScopedLock(&manager, id, 0), ResourceDeletedException);

    // Adding the name again gives a new index, so the stale id names nothing.
    ResourceID again = manager.add(a);
    EXPECT_NE(again, id);
    EXPECT_FALSE(manager.contains(id));
    EXPECT_TRUE(manager.property(again, tags).empty());
}

TEST(ResourceManager, PropertiesAreTypedByRegistration) {
    ResourceManager manager;
    ResourceManager otherManager;
    auto count = manager.registerProperty<int>("count");
    auto label = manager.registerProperty<std::string>("label");
    EXPECT_EQ(manager.registerProperty<int>("count").index(), count.index());
    EXPECT_EQ(manager.propertyKey<std::string>("label").index(), label.index());

    ResourceID id = manager.add(manager.nameFromLocalPath("/x/a.jpg"));
    int out = 7;
    EXPECT_FALSE(manager.getProperty(id, count, out));
    EXPECT_EQ(out, 7);
    EXPECT_EQ(manager.property(id, count, -1), -1);
    manager.setProperty(id, label, std::string("hello"));
    manager.modifyProperty(id, count, [](int& v) { v += 2; });
    manager.modifyProperty(id, count, [](int& v) { v += 2; });
    EXPECT_EQ(manager.property(id, count), 4);
    EXPECT_EQ(manager.property(id, label), "hello");
    EXPECT_TRUE(manager.clearProperty(id, label));
    EXPECT_EQ(manager.property(id, label, std::string("none")), "none");

    LogCapture log;
    EXPECT_THROW(manager.registerProperty<double>("count"), ResourceException);
    EXPECT_THROW(manager.propertyKey<double>("count"), ResourceException);
    EXPECT_THROW(manager.propertyKey<int>("missing"), ResourceException);
    EXPECT_THROW(manager.property(id, ResourcePropertyKey<int>()), ResourceException);
    // A key of another manager whose index there holds another type.
    auto foreign = otherManager.registerProperty<float>("f");
    EXPECT_THROW(manager.property(id, foreign), ResourceException);
    EXPECT_EQ(log.count("ResourceManager"), 5u);
}

TEST(ResourceManager, HashIdsAreStableAcrossManagers) {
    auto handler = std::make_shared<AbsRelNameHandler>("/lib");
    ResourceManager first(handler, ResourceManager::IdsByHash);
    ResourceManager second(handler, ResourceManager::IdsByHash);
    std::vector<ResourceID> a, b;
    for (const char* p : {"a", "b/c", "d.bag"}) {
        a.push_back(first.add(first.nameFromPersistentString(p)));
        b.push_back(second.add(second.nameFromPersistentString(p)));
    }
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].id(), b[i].id());
        EXPECT_EQ(second.name(second.makeID(a[i].id())), first.name(a[i]));
    }
    EXPECT_NE(a[0].id(), a[1].id());
}

TEST(ResourceFSScopedLock, LocksTheResourcePathAndFollowsItsRenames) {
    ResourceManager manager;
    ResourceID id = manager.add(manager.nameFromLocalPath("/qor-res-test/a.jpg"));
    {
        ResourceFSScopedLock lock(&manager, id, 0);
        EXPECT_EQ(lock.path(), "/qor-res-test/a.jpg");
        EXPECT_FALSE(lockableElsewhere("/qor-res-test/a.jpg"));

        // The holding thread renames: the lock moves with the resource.
        ASSERT_TRUE(manager.rename(id, manager.nameFromLocalPath("/qor-res-test/b.jpg")));
        EXPECT_EQ(lock.path(), "/qor-res-test/b.jpg");
        EXPECT_EQ(lock.mode(), 0);
        EXPECT_TRUE(lockableElsewhere("/qor-res-test/a.jpg"));
        EXPECT_FALSE(lockableElsewhere("/qor-res-test/b.jpg"));
    }
    EXPECT_TRUE(lockableElsewhere("/qor-res-test/b.jpg"));
    // The same thread removes the resource it holds: the lock keeps the path until it goes.
    {
        ResourceFSScopedLock lock(&manager, id);
        EXPECT_TRUE(manager.remove(id));
        EXPECT_FALSE(lockableElsewhere("/qor-res-test/b.jpg"));
    }
    EXPECT_TRUE(lockableElsewhere("/qor-res-test/b.jpg"));
}

TEST(ResourceManagerThreads, RenameWaitsForAnotherThreadsLock) {
    ResourceManager manager;
    ResourceID id = manager.add(manager.nameFromLocalPath("/qor-res-test/wait.jpg"));
    std::atomic<bool> renamed{false};
    std::thread renamer;
    {
        ResourceFSScopedLock lock(&manager, id, 0);
        renamer = std::thread([&] {
            renamed = manager.rename(id, manager.nameFromLocalPath("/qor-res-test/moved.jpg"));
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(renamed);
        // Lookups are not held up by the waiting rename.
        EXPECT_EQ(manager.localPath(id), "/qor-res-test/wait.jpg");
        EXPECT_EQ(lock.path(), "/qor-res-test/wait.jpg");
    }
    renamer.join();
    EXPECT_TRUE(renamed);
    ResourceFSScopedLock again(&manager, id, 0);
    EXPECT_EQ(again.path(), "/qor-res-test/moved.jpg");
}

// Threads add, rename, remove, look up and lock resources of one manager at once. While a thread
// holds a resource's lock no other thread can rename it, so the locked path must be the present
// name; ids and names must always map onto each other.
TEST(ResourceManagerThreads, ConcurrentAddRenameLookupAndLockStayConsistent) {
    ResourceManager manager;
    auto hits = manager.registerProperty<int>("hits");
    constexpr int kThreads = 6, kSteps = 400, kNames = 24;
    std::vector<ResourceID> ids;
    for (int i = 0; i < kNames; ++i)
        ids.push_back(manager.add(manager.nameFromLocalPath("/qor-res-test/s/" + std::to_string(i))));
    std::atomic<int> renames{0}, modifies{0}, failures{0};
    std::atomic<int> signalled{0};
    manager.resourceRenamed.connect([&](ResourceID, ResourceName) { ++signalled; });

    LogCapture log;  // refused renames onto taken names log a warning each
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(t * 7919 + 1);
            for (int step = 0; step < kSteps; ++step) {
                ResourceID id = ids[rng() % ids.size()];
                switch (rng() % 5) {
                    case 0: {
                        auto name = manager.nameFromLocalPath("/qor-res-test/s/" +
                                                              std::to_string(rng() % 64) + "-" +
                                                              std::to_string(t));
                        // Only this thread makes names ending in its number, so a name that
                        // differs now still differs when the rename runs: each success is a
                        // real change with its signal.
                        if (manager.localPath(id) == name.localPath()) break;
                        if (manager.rename(id, name)) ++renames;
                        break;
                    }
                    case 1: {
                        ResourceFSScopedLock lock(&manager, id, rng() % 2);
                        if (lock.path() != manager.localPath(id) ||
                            manager.findLocalPath(lock.path()) != id)
                            ++failures;
                        break;
                    }
                    case 2: {
                        // Without a lock the name may change between the calls; a name found
                        // belongs to one of the renamed resources, which are never removed.
                        ResourceName name;
                        if (!manager.tryGetName(id, name)) ++failures;
                        ResourceID found = manager.find(name);
                        if (found.isValid() && !manager.contains(found)) ++failures;
                        break;
                    }
                    case 3:
                        manager.modifyProperty(id, hits, [](int& v) { ++v; });
                        ++modifies;
                        break;
                    default: {
                        ResourceID extra = manager.add(manager.nameFromLocalPath(
                            "/qor-res-test/extra/" + std::to_string(t) + "-" +
                            std::to_string(step)));
                        if (!extra.isValid() || !manager.remove(extra)) ++failures;
                        break;
                    }
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(signalled, renames);
    EXPECT_EQ(manager.size(), static_cast<size_t>(kNames));
    std::set<std::string> names;
    int total = 0;
    for (ResourceID id : ids) {
        names.insert(manager.localPath(id));
        EXPECT_EQ(manager.find(manager.name(id)), id);
        total += manager.property(id, hits);
    }
    EXPECT_EQ(names.size(), static_cast<size_t>(kNames));
    EXPECT_EQ(total, modifies);
}
