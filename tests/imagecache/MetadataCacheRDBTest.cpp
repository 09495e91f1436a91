#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "CacheTestSupport.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceDB.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/ItemState.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imageio/ItemMetadata.h"

namespace qor::imagecache {
namespace {

using namespace testing;
using S = FastString<char>;
using imageio::ItemMetadata;

// A cache over a next cache in memory, in a fresh folder, with the items' files there.
struct CacheRun {
    explicit CacheRun(const std::string& cacheDir) : dir(cacheDir) {}

    std::unique_ptr<MetadataCacheRDB> open() {
        return std::make_unique<MetadataCacheRDB>(&next, S(dir), nullptr, 0);
    }

    std::string dir;
    ResourceManager manager;
    MemoryCache next{&manager};
};

class MetadataCacheRDBTest : public ::testing::Test {
protected:
    std::string cacheDir() const { return folder.path() + "/cache"; }
    std::string databasePath() const { return cacheDir() + "/metadata"; }

    // Items `first` .. `first + count - 1`: a file each (written unless it is there), and their
    // values, with the file's time, in `setup`'s next cache.
    std::vector<ResourceID> addItems(CacheRun& setup, int count, int first = 0) {
        std::vector<ResourceID> ids;
        for (int i = first; i < first + count; ++i) {
            std::string path = folder.path() + "/item" + std::to_string(i) + ".jpg";
            if (!filesystem::exists(path))
                folder.write("item" + std::to_string(i) + ".jpg", {1, 2});
            const ResourceID id = setup.manager.add(setup.manager.nameFromLocalPath(path));
            SharedPtr<Metadata> values = itemValues(i);
            values->set(F::FileLastWriteTime, filesystem::lastWriteTime(path));
            setup.next.put(id, values);
            ids.push_back(id);
        }
        return ids;
    }
    // Records in the database file, read directly.
    size_t recordCount() {
        ResourceDB db(databasePath());
        db.open(true);
        return db.getRecordCount();
    }

    TempFolder folder;
    CacheRun setup{cacheDir()};
};

TEST_F(MetadataCacheRDBTest, ValuesComeFromTheNextCacheOnceAndThenFromTheColumns) {
    const std::vector<ResourceID> ids = addItems(setup, 2);
    auto cache = setup.open();
    const ItemMetadata item(cache.get(), ids[0]);
    EXPECT_FALSE(item.isCached());
    EXPECT_DOUBLE_EQ(item.getDouble(F::FNumber), 1.4);
    EXPECT_EQ(setup.next.loads, 1);
    EXPECT_TRUE(item.isCached());
    EXPECT_EQ(item.getInt(F::ISOSensitivity), 100);
    EXPECT_EQ(item.getSize(), Vec2i(100, 50));
    EXPECT_EQ(item.getLocation(), Vec3d(9.5, 53.25, 12));
    EXPECT_EQ(item.getTime(F::FileLastWriteTime),
              filesystem::lastWriteTime(setup.manager.localPath(ids[0])));
    // A field the item lacks is known to be absent: the next cache is not asked again.
    const int gets = setup.next.gets;
    double brightness = -1;
    EXPECT_FALSE(cache->get(ids[0], F::Brightness, brightness));
    EXPECT_EQ(brightness, -1);
    EXPECT_EQ(setup.next.loads, 1);
    EXPECT_EQ(setup.next.gets, gets);
    // A string is always the next cache's answer, cached item or not.
    EXPECT_EQ(item.getString(F::MakeString), S("Maker 0"));
    EXPECT_EQ(item.getString(F::MakeString), S("Maker 0"));
    EXPECT_EQ(setup.next.gets, gets + 2);
    EXPECT_EQ(setup.next.loads, 1);
}

TEST_F(MetadataCacheRDBTest, ColumnsGrowInStepsOf256Items) {
    auto cache = setup.open();
    cache->setPersitentItemCallback([](ResourceID) { return false; });
    EXPECT_EQ(cache->capacity(), 0u);
    cache->set(setup.manager.makeID(255), F::Rating, 2);
    EXPECT_EQ(cache->capacity(), 256u);
    cache->set(setup.manager.makeID(256), F::Rating, 3);
    EXPECT_EQ(cache->capacity(), 512u);
    int rating = 0;
    EXPECT_TRUE(cache->get(setup.manager.makeID(255), F::Rating, rating));
    EXPECT_EQ(rating, 2);
    EXPECT_TRUE(cache->get(setup.manager.makeID(256), F::Rating, rating));
    EXPECT_EQ(rating, 3);
    EXPECT_EQ(setup.next.sets, 2);  // handed on down the chain
}

TEST_F(MetadataCacheRDBTest, AFlushedRecordServesTheNextRunWithoutTheNextCache) {
    const std::vector<ResourceID> ids = addItems(setup, 3);
    {
        auto cache = setup.open();
        for (ResourceID id : ids) cache->cacheImage(id);
        cache->set(ids[1], F::Rating, 5);
        cache->set(ids[2], F::AverageColor, Vec3d(0.25, 0.5, 0.75));
    }  // the destructor writes what is dirty
    EXPECT_EQ(recordCount(), 3u);

    CacheRun again(cacheDir());
    LogCapture capture;
    auto cache = again.open();
    EXPECT_EQ(capture.count("Metadata cache contains 3 records from which 3 are consistent "
                            "entries "),
              1u);
    const ResourceID id = again.manager.findLocalPath(setup.manager.localPath(ids[1]));
    ASSERT_TRUE(id.isValid());
    const ItemMetadata item(cache.get(), id);
    EXPECT_TRUE(item.isCached());
    EXPECT_EQ(item.getInt(F::Rating), 5);
    EXPECT_DOUBLE_EQ(item.getDouble(F::FNumber), 1.5);
    EXPECT_EQ(item.getSize(), Vec2i(101, 51));
    EXPECT_EQ(item.getDigest(F::MD5), Digest::fromBytes("0123456789abcdef"));
    EXPECT_EQ(item.getCaptureTime(), Timestamp::fromFields(2020, 1, 2, 12));
    double brightness = 0;
    EXPECT_FALSE(cache->get(id, F::Brightness, brightness));  // absent in the record too
    const ItemMetadata colored(cache.get(),
                               again.manager.findLocalPath(setup.manager.localPath(ids[2])));
    EXPECT_EQ(colored.getVec3d(F::AverageColor), Vec3d(0.25, 0.5, 0.75));
    EXPECT_EQ(again.next.loads, 0);
    EXPECT_EQ(again.next.gets, 0);
}

TEST_F(MetadataCacheRDBTest, RecordsNotMarkedConsistentAreLoadedAgain) {
    const std::vector<ResourceID> ids = addItems(setup, 3);
    {
        auto cache = setup.open();
        for (ResourceID id : ids) cache->cacheImage(id);
    }
    {
        ResourceDB db(databasePath());
        db.open();
        const int zero = 0;
        const int consistent = db.getFieldIndex(int(F::RecordConsistent));
        db.setFields(consistent, 1, 1, &zero);
        db.flush();
    }
    CacheRun again(cacheDir());
    addItems(again, 3);  // the same files, with their values in this run's next cache
    LogCapture capture;
    auto cache = again.open();
    EXPECT_EQ(capture.count("from which 2 are consistent entries "), 1u);
    for (ResourceID id : again.manager.ids()) {
        EXPECT_EQ(cache->isCached(id), cache->recordIndex(id) != 1);
        EXPECT_GE(ItemMetadata(cache.get(), id).getInt(F::ISOSensitivity), 100);
    }
    EXPECT_EQ(again.next.loads, 1);
}

TEST_F(MetadataCacheRDBTest, OnlyPersistentItemsAreWritten) {
    const std::vector<ResourceID> ids = addItems(setup, 4);
    {
        auto cache = setup.open();
        cache->setPersitentItemCallback([](ResourceID) { return false; });
        for (ResourceID id : ids) cache->cacheImage(id);
        cache->waitForFlush();
        EXPECT_EQ(recordCount(), 0u);
        cache->setPersitentItemCallback([&](ResourceID id) { return id == ids[3]; });
        cache->set(ids[2], F::Rating, 1);
        cache->set(ids[3], F::Rating, 1);
        cache->waitForFlush();
        EXPECT_EQ(recordCount(), 1u);
        EXPECT_GE(cache->recordIndex(ids[3]), 0);
        EXPECT_EQ(cache->recordIndex(ids[2]), -1);
        // The values of the others stay in memory.
        EXPECT_EQ(ItemMetadata(cache.get(), ids[0]).getInt(F::ISOSensitivity), 100);
    }
    EXPECT_EQ(recordCount(), 1u);
}

// What a damaged cache file looks like.
enum class Damage { NotADatabase, Truncated, NewerFieldList };

class MetadataCacheRDBDamage : public MetadataCacheRDBTest,
                               public ::testing::WithParamInterface<Damage> {};

TEST_P(MetadataCacheRDBDamage, IsErasedAndMadeAnewAndTheCacheGoesOn) {
    const std::vector<ResourceID> ids = addItems(setup, 2);
    {
        auto cache = setup.open();
        for (ResourceID id : ids) cache->cacheImage(id);
    }
    const std::string path = databasePath();
    switch (GetParam()) {
        case Damage::NotADatabase:
            std::ofstream(path, std::ios::trunc) << "this is not a database, only words";
            break;
        case Damage::Truncated:
            filesystem::removeFile(path + "-wal");
            ::truncate(path.c_str(), off_t(filesystem::fileSize(path) / 3));
            break;
        case Damage::NewerFieldList: {
            ResourceDB db(path);
            db.open();
            std::vector<ResourceDB::DBFieldDesc> fields = db.getFieldList();
            fields.emplace_back(ResourceDB::FtDouble, 99);  // a field of a later version
            db.reorganizeFields(fields);
            break;
        }
    }
    CacheRun again(cacheDir());
    addItems(again, 2);
    LogCapture capture;
    auto cache = again.open();
    EXPECT_EQ(capture.count(std::string(77, '*')), 2u);
    EXPECT_EQ(capture.count(
                  "* MetadataCacheRDB is inconsistent and gets recreated. Vorn startup be slow *"),
              1u);
    EXPECT_EQ(capture.assertions("false"), 1u);
    // Nothing of the old file: the items are read again, and written anew.
    const ItemMetadata item(cache.get(), again.manager.findLocalPath(folder.path() + "/item0.jpg"));
    EXPECT_FALSE(item.isCached());
    EXPECT_EQ(item.getInt(F::ISOSensitivity), 100);
    cache->shutdown();
    EXPECT_EQ(recordCount(), 1u);
    ResourceDB db(path);
    db.open(true);
    EXPECT_EQ(db.getCapacity(), MetadataCacheRDB::DatabaseCapacity);
    EXPECT_EQ(db.getFieldCount(), 31u);
}

INSTANTIATE_TEST_SUITE_P(Damages, MetadataCacheRDBDamage,
                         ::testing::Values(Damage::NotADatabase, Damage::Truncated,
                                           Damage::NewerFieldList));

TEST_F(MetadataCacheRDBTest, AFailedWriteKeepsTheColumnsAndTheItemsDirty) {
    const std::vector<ResourceID> ids = addItems(setup, 3);
    auto cache = setup.open();
    cache->cacheImage(ids[0]);
    cache->waitForFlush();
    ASSERT_EQ(recordCount(), 1u);

    // No file of the process may grow: the disk is full for the next write.
    struct rlimit before;
    ::getrlimit(RLIMIT_FSIZE, &before);
    void (*previous)(int) = ::signal(SIGXFSZ, SIG_IGN);
    {
        LogCapture capture;
        struct rlimit full = before;
        full.rlim_cur = 1;
        ::setrlimit(RLIMIT_FSIZE, &full);
        cache->cacheImage(ids[1]);
        cache->set(ids[0], F::Rating, 4);
        cache->waitForFlush();
        ::setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_GE(capture.count("failed to write to RDB '"), 1u);
        EXPECT_EQ(capture.assertions("false"), capture.count("failed to write to RDB '"));
    }
    ::signal(SIGXFSZ, previous);
    EXPECT_EQ(ItemMetadata(cache.get(), ids[0]).getInt(F::Rating), 4);
    EXPECT_EQ(ItemMetadata(cache.get(), ids[1]).getInt(F::ISOSensitivity), 101);
    EXPECT_EQ(recordCount(), 1u);
    // The next change brings a flush that writes what failed.
    cache->cacheImage(ids[2]);
    cache->shutdown();
    EXPECT_EQ(recordCount(), 3u);
    CacheRun again(cacheDir());
    auto reopened = again.open();
    const ResourceID first = again.manager.findLocalPath(setup.manager.localPath(ids[0]));
    EXPECT_EQ(ItemMetadata(reopened.get(), first).getInt(F::Rating), 4);
}

TEST_F(MetadataCacheRDBTest, RenamesAndRemovalsOfResourcesReachTheRecords) {
    const std::vector<ResourceID> ids = addItems(setup, 3);
    const std::string renamed = folder.path() + "/renamed.jpg";
    {
        auto cache = setup.open();
        for (ResourceID id : ids) cache->cacheImage(id);
        cache->waitForFlush();
        filesystem::moveUrl(setup.manager.localPath(ids[0]), renamed);
        ASSERT_TRUE(setup.manager.rename(ids[0], setup.manager.nameFromLocalPath(renamed)));
        ASSERT_TRUE(setup.manager.remove(ids[1]));
        EXPECT_FALSE(cache->isCached(ids[1]));
        EXPECT_EQ(cache->recordIndex(ids[1]), -1);
    }
    EXPECT_EQ(recordCount(), 2u);
    CacheRun again(cacheDir());
    auto cache = again.open();
    const ResourceID moved = again.manager.findLocalPath(renamed);
    ASSERT_TRUE(moved.isValid());
    EXPECT_TRUE(cache->isCached(moved));
    EXPECT_EQ(ItemMetadata(cache.get(), moved).getInt(F::ISOSensitivity), 100);
    EXPECT_EQ(again.next.loads, 0);
}

TEST_F(MetadataCacheRDBTest, CopiedItemsTakeTheValuesOfTheirSource) {
    const std::vector<ResourceID> ids = addItems(setup, 1);
    const ResourceID copy =
        setup.manager.add(setup.manager.nameFromLocalPath(folder.write("copy.jpg", {1})));
    auto cache = setup.open();
    cache->cacheImage(ids[0]);
    cache->set(ids[0], F::Rating, 3);
    cache->copyImage(ids[0], copy);
    const ItemMetadata item(cache.get(), copy);
    EXPECT_TRUE(item.isCached());
    EXPECT_EQ(item.getInt(F::Rating), 3);
    EXPECT_EQ(item.getInt(F::ISOSensitivity), 100);
    EXPECT_EQ(setup.next.loads, 1);  // the source's load only
}

TEST_F(MetadataCacheRDBTest, ConsistencyCheckTellsTheFirstDifference) {
    const std::vector<ResourceID> ids = addItems(setup, 1);
    const ResourceID id = ids[0];
    auto cache = setup.open();
    cache->cacheImage(id);
    LogLevel level = LogError;
    S text("x");
    EXPECT_TRUE(cache->isCacheConsistent(id, level, text));
    EXPECT_EQ(text, S());

    auto fileSays = [&](auto edit) {
        SharedPtr<Metadata> m = itemValues(0);
        m->set(F::FileLastWriteTime, filesystem::lastWriteTime(setup.manager.localPath(id)));
        edit(*m);
        setup.next.put(id, m);
        return cache->isCacheConsistent(id, level, text);
    };
    EXPECT_FALSE(fileSays([](Metadata& m) { m.set(F::ISOSensitivity, 800); }));
    EXPECT_EQ(text, S("Cache field ISOSensitivity inconsistent: cached value is '100' file value "
                      "is '800'"));
    EXPECT_EQ(level, LogWarning);
    EXPECT_FALSE(fileSays([](Metadata& m) { m.set(F::Imagesize, Vec2i(640, 480)); }));
    EXPECT_EQ(text, S("Cache field Imagesize inconsistent: cached value is '100, 50' file value "
                      "is '640, 480'"));
    EXPECT_FALSE(fileSays([](Metadata& m) { m.set(F::GPSCoordinates, Vec3d(1, 2, 3)); }));
    EXPECT_EQ(text, S("Cache field GPSCoordinates inconsistent: cached value is '9.5, 53.25,12' "
                      "file value is '1, 2,3'"));
    EXPECT_FALSE(fileSays([](Metadata& m) { m.set(F::Brightness, 1.5); }));
    EXPECT_EQ(text, S("Cache field Brightness inconsistent: cached value is '' file value is "
                      "'1.5'"));

    filesystem::removeFile(setup.manager.localPath(id));
    EXPECT_FALSE(cache->isCacheConsistent(id, level, text));
    EXPECT_EQ(text, S("File is missing"));
}

TEST_F(MetadataCacheRDBTest, WrongTypesAndFieldsWithoutColumnFailTheirAssertion) {
    const std::vector<ResourceID> ids = addItems(setup, 1);
    auto cache = setup.open();
    LogCapture capture;
    int wrong = 7;
    EXPECT_FALSE(cache->get(ids[0], F::FNumber, wrong));
    EXPECT_EQ(wrong, 7);
    EXPECT_EQ(capture.count("Try to read field FNumber of type 7 with int/3"), 1u);
    Timestamp subSec;
    EXPECT_FALSE(cache->get(ids[0], F::SubSecTime, subSec));
    EXPECT_EQ(capture.count("try to read unknown .. field"), 1u);
    EXPECT_EQ(capture.assertions("_db.getFieldType(fieldIndex(field)) == dataType"), 2u);
    double invalid = 0;
    EXPECT_FALSE(cache->get(InvalidResourceID, F::FNumber, invalid));
    EXPECT_EQ(capture.assertions("id.valid()"), 1u);
}

}  // namespace
}  // namespace qor::imagecache

namespace qor::imagecache {
namespace {

// The whole chain on real pictures: the cache in front of the file reader.
class MetadataCacheRDBFiles : public ::testing::Test {
protected:
    std::unique_ptr<MetadataCacheRDB> open(ResourceManager& manager, FileMetadataCache& files) {
        return std::make_unique<MetadataCacheRDB>(&files, S(folder.path() + "/cache"), nullptr, 0);
    }
    ResourceID add(ResourceManager& manager, const std::string& name) {
        return manager.add(manager.nameFromLocalPath(folder.path() + "/" + name));
    }

    TempFolder folder;
};

TEST_F(MetadataCacheRDBFiles, FilesChangedDeletedOrDisownedSinceTheLastRunAreFoundAtCheck) {
    const std::string touched = folder.write("touched.jpg", cameraJpeg(2.8));
    const std::string kept = folder.write("kept.jpg", cameraJpeg(4.0));
    const std::string gone = folder.write("gone.jpg", cameraJpeg(8.0));
    {
        ResourceManager manager;
        FileMetadataCache files(&manager);
        auto cache = open(manager, files);
        for (const char* name : {"touched.jpg", "kept.jpg", "gone.jpg"})
            cache->cacheImage(add(manager, name));
    }
    // Between the runs: one picture is rewritten, one deleted.
    folder.write("touched.jpg", cameraJpeg(5.6));
    filesystem::setLastWriteTime(touched, filesystem::lastWriteTime(touched).addSeconds(60));
    filesystem::removeFile(gone);

    ResourceManager manager;
    FileMetadataCache files(&manager);
    auto cache = open(manager, files);
    const ResourceID touchedId = manager.findLocalPath(touched);
    const ResourceID keptId = manager.findLocalPath(kept);
    const ResourceID goneId = manager.findLocalPath(gone);
    EXPECT_DOUBLE_EQ(ItemMetadata(cache.get(), touchedId).getDouble(F::FNumber), 2.8);  // stale
    LogCapture capture;
    cache->check(touchedId);
    EXPECT_EQ(capture.count("Found changed file FileLastWirteTime:'"), 1u);
    EXPECT_DOUBLE_EQ(ItemMetadata(cache.get(), touchedId).getDouble(F::FNumber), 5.6);
    EXPECT_EQ(ItemMetadata(cache.get(), touchedId).getTime(F::FileLastWriteTime),
              filesystem::lastWriteTime(touched));

    cache->check(keptId);
    EXPECT_EQ(capture.count("Found changed file"), 1u);
    EXPECT_EQ(capture.count("state changed"), 0u);

    cache->check(goneId);
    EXPECT_EQ(capture.count("Item '" + gone + "' state changed to '1'"), 1u);
    EXPECT_EQ(ItemMetadata(cache.get(), goneId).getItemState(), ItemStateMissing);
    EXPECT_DOUBLE_EQ(ItemMetadata(cache.get(), goneId).getDouble(F::FNumber), 8.0);  // kept

    cache->setIsLibraryItemCallback([&](ResourceID id) { return id != goneId; });
    cache->check(goneId);
    EXPECT_EQ(capture.count("Found cached item '" + gone +
                            "' that doesn't exist in the library. Removing it from the cache now"),
              1u);
    EXPECT_EQ(cache->recordIndex(goneId), -1);
    EXPECT_FALSE(cache->isCached(goneId));
    EXPECT_EQ(capture.assertions(), 0u);
    cache->shutdown();
    ResourceDB db(cache->databasePath());
    db.open(true);
    EXPECT_EQ(db.getRecordCount(), 2u);
}

TEST_F(MetadataCacheRDBFiles, RecheckOnTheWorkerFindsWhatCheckFinds) {
    const std::string path = folder.write("a.jpg", cameraJpeg(2.8));
    ResourceManager manager;
    FileMetadataCache files(&manager);
    auto cache = open(manager, files);
    const ResourceID id = add(manager, "a.jpg");
    cache->cacheImage(id);
    folder.write("a.jpg", cameraJpeg(11.0));
    filesystem::setLastWriteTime(path, filesystem::lastWriteTime(path).addSeconds(60));
    LogCapture capture;
    cache->startRecheck();
    for (int i = 0; i < 500 && capture.count("Found changed file") == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(capture.count("Found changed file"), 1u);
    EXPECT_DOUBLE_EQ(ItemMetadata(cache.get(), id).getDouble(F::FNumber), 11.0);
}

}  // namespace
}  // namespace qor::imagecache
