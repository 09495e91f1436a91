#pragma once
// MetadataCacheRDB: the persistent cache of the numeric metadata of library items. A library of
// many thousand photos can be sorted and searched without opening a file: every item has one
// record in a ResourceDB named "metadata" in the cache folder, and the values are mirrored in
// memory, one PagedColumn per field. It stands in a chain of MetadataCaches: what it lacks it
// fetches from the next cache (in the end the item's file) and stores; set hands values on to the
// next cache as well.
//
// The record: 31 fields in a fixed order (MetadataCacheRDB.cpp, kRecordFields), the numeric and
// time fields of the metadata model plus RecordConsistent (field value 41), which is 1 for a record
// that a flush wrote whole. Strings are not cached here: get of a string field always asks the
// next cache. An absent value is stored as a value no picture has (INT32_MIN for integers and
// sizes, the lowest double, the null time, the null digest), so that a record tells a field the
// file lacks from one it has.
//
// Item states in memory, per item index:
// - loaded: FileLastWriteTime is known (present or absent). Either a consistent record was found
//   at start-up (then the other fields are read from the record on first use, the whole
//   256-entry block of items at once) or the values came from the next cache. isCached is true.
// - recorded but not consistent, or neither: the first get loads the item from the next cache.
// The cache needs ids by index (ResourceManager::IdsByIndex): columns are sized by the highest
// index, in steps of 256.
//
// Writing: loads and sets mark an item dirty. The worker (a ResourceSequenceWorker, given or made
// here) runs flush(false) soon after, which writes the dirty items that _persistentItemCallback
// accepts in batches of 500, each batch one ResourceDB transaction of 31 setFields calls, one per
// field, beginning with RecordConsistent. A crash leaves every record as one flush or the next
// wrote it, whole. A failed write (disk full, read-only) logs "failed to write to RDB '%*'",
// fails the assertion, leaves the columns as they are and keeps the items dirty for the next
// flush; nothing is thrown out of the worker. Renames and deletions of the ResourceManager's
// resources reach the records through its signals.
//
// Threads and locks. Every member may be called from any thread, except shutdown and the
// destructor, which must not run on the worker's thread.
// - _mutex guards the columns, the lists, the callbacks and the reads of _db. File reads and calls
//   to the next cache run with it released, so a slow file does not stop readers of other items.
// - _writeMutex serialises the writes to _db (flush batches, renames, deletions), which run with
//   _mutex released except while values are copied out and record indices entered.
// - _signalGuard->mutex is held while a ResourceManager signal is handled, so the destructor can
//   wait for a running one.
// Lock order: a ResourceFSScopedLock (only ever dropped before the others are taken), then
// _signalGuard->mutex, then _writeMutex, then _mutex, then ResourceDB's own mutex (a leaf). The
// worker is never called with _mutex or _writeMutex held.

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "base/Log.h"
#include "base/resource/ResourceDB.h"
#include "base/resource/ResourceManager.h"
#include "base/resource/ResourceSequenceWorker.h"
#include "base/thread/Mutex.h"
#include "imagecache/metadata/PagedColumn.h"
#include "imageio/MetadataCache.h"
#include "util/Function.h"
#include "util/Signal.h"

namespace qor::imagecache {

namespace detail {
struct FieldSlot;
}

using imageio::Metadata;
using imageio::MetadataField;
using imageio::Vec2i;
using imageio::Vec3d;

class MetadataCacheRDB : public imageio::MetadataCache {
public:
    using RecordIndex = ResourceDB::RecordIndex;
    using ItemCallback = Function1<bool, ResourceID>;

    // The name of the database file in the cache folder.
    static constexpr const char* DatabaseName = "metadata";
    // Room the database is created with.
    static constexpr unsigned DatabaseCapacity = 100000;
    // Items a flush batch writes in one transaction.
    static constexpr size_t FlushBatchSize = 500;
    // Priority of the flush batches on the worker.
    static constexpr int FlushPriority = 10;

    // Opens (or makes) `directory`/metadata and loads the names of its records into next's
    // ResourceManager, which gives each record's item its id, and the consistency flag and last
    // write time of each record. An unusable file (not a database, damaged, truncated, written by
    // a newer field list) is logged in three lines at level 4 with a failed assertion, erased and
    // made anew. `next` (may be null: then nothing is loaded on demand and there is no resource
    // manager) must outlive this object. Without a `worker` one is made and owned. `priority` is
    // that of the flush trigger, rename and recheck sequences. Blocks on the file. Throws
    // ResourceDBException after "Failed to create metadata database '%*'" when no database can be
    // made, FilesystemException when the folder cannot be made.
    MetadataCacheRDB(MetadataCache* next, const FastString<char>& directory,
                     ResourceSequenceWorker* worker, int priority);
    // shutdown(), then disconnects from the ResourceManager and destroys the worker if it made
    // it. Blocks until the worker is done with this object.
    ~MetadataCacheRDB() override;
    MetadataCacheRDB(const MetadataCacheRDB&) = delete;
    MetadataCacheRDB& operator=(const MetadataCacheRDB&) = delete;

    // Erases the database in `directory`; false after "MetadataCacheRDB::reset: failed with '%*'".
    // No cache may have it open.
    static bool reset(const FastString<char>& directory);

    // A cached value costs a lock, two loads and a bit test: no file access, no allocation. An
    // item not yet loaded is read from its record, or else from the next cache (blocks; the mutex
    // is released meanwhile). A field the item is known to lack gives false without asking
    // further. A field of another type fails the assertion
    // "_db.getFieldType(fieldIndex(field)) == dataType" after "Try to read field %* of type %* with
    // %*/%*"; a field without a column (SubSecTime ...) fails it after "try to read unknown ..
    // field" and is asked of the next cache. Strings always come from the next cache.
    bool get(ResourceID id, MetadataField field, int& out) override;
    bool get(ResourceID id, MetadataField field, Vec2i& out) override;
    bool get(ResourceID id, MetadataField field, double& out) override;
    bool get(ResourceID id, MetadataField field, Vec3d& out) override;
    bool get(ResourceID id, MetadataField field, FastString<char>& out) override;
    bool get(ResourceID id, MetadataField field, Timestamp& out) override;
    bool get(ResourceID id, MetadataField field, Digest& out) override;

    // Hands the value to the next cache (mutex released), then stores it in its column and marks
    // the item dirty. Strings and fields without a column only go to the next cache.
    void set(ResourceID id, MetadataField field, int value) override;
    void set(ResourceID id, MetadataField field, const Vec2i& value) override;
    void set(ResourceID id, MetadataField field, double value) override;
    void set(ResourceID id, MetadataField field, const Vec3d& value) override;
    void set(ResourceID id, MetadataField field, const FastString<char>& value) override;
    void set(ResourceID id, MetadataField field, const Timestamp& value) override;
    void set(ResourceID id, MetadataField field, const Digest& value) override;

    // Whether the item's values are here (loaded, or a consistent record) without the next cache.
    bool isCached(ResourceID id) override;
    // The next cache's answer; null without one.
    SharedPtr<const Metadata> loadMetadata(ResourceID id) override;
    // Verifies the item against its file (blocks on the file system): a file written since its
    // values were cached ("Found changed file FileLastWirteTime:'%*' CachedFileLastWriteTime:'%*'")
    // is read again; a change of ItemState (a file that vanished or came back) is stored ("Item
    // '%*' state changed to '%*'"); an item that _isLibraryItemCallback disowns is deleted ("Found
    // cached item '%*' that doesn't exist in the library. Removing it from the cache now"). An
    // item not loaded yet is loaded first.
    void check(ResourceID id) override;
    // Gives `dst` all cached values of `src`, then asks the next cache to do the same.
    void copyImage(ResourceID src, ResourceID dst) override;
    ResourceManager* resourceManager() override { return _manager; }

    // Whether an item is written by flush; without a callback every item is. (Spelled so.)
    void setPersitentItemCallback(const ItemCallback& callback);
    // Whether an item still belongs to the library, asked by check; without one every item does.
    void setIsLibraryItemCallback(const ItemCallback& callback);
    // Told of every item whose file check found written since its values were cached (the
    // thumbnail caches drop theirs). Runs on the checking thread with no lock held.
    using ChangedCallback = Function1<void, ResourceID>;
    void setFileChangedCallback(const ChangedCallback& callback);

    // Loads the item unless its values are here; an item whose file was written since is read
    // again (check). Blocks on the file.
    void cacheImage(ResourceID id);
    // Queues a check of every known item on the worker, at the constructor's priority.
    void startRecheck();
    // Reads the item's metadata afresh through the next cache and compares every field of the
    // record that comes from the file with the cached one. True when all agree; otherwise false,
    // `text` tells the first difference ("File is missing", "Cache field %* inconsistent: ...")
    // and `level` how grave it is (LogWarning). Blocks on the file.
    bool isCacheConsistent(ResourceID id, LogLevel& level, FastString<char>& text);
    // Removes the item's record and forgets its values. Blocks while a flush batch writes.
    void deleteItem(ResourceID id);

    // Writes the dirty items: queues their batches on the worker (all in one batch when `final`).
    // Does not block; does nothing after shutdown.
    void flush(bool final);
    // Blocks until every flush queued or running has ended. Not on the worker's thread.
    void waitForFlush();
    // Stops the automatic flushes, writes every dirty item, waits for that, and stops writing:
    // later changes stay in memory. Blocks. Calling it again does nothing.
    void shutdown();

    // Item indices the columns are sized for: a multiple of 256 above every index seen.
    size_t capacity() const;
    // The record of the item, or -1.
    RecordIndex recordIndex(ResourceID id) const;
    // The database file.
    const std::string& databasePath() const { return _db.path(); }
    // Whether the field has a column in the record (strings and fields 16 to 18 have none).
    static bool isRecordField(MetadataField field);

    struct Columns;  // the columns and item tables (detail/MetadataRecord.h)

private:
    struct SignalGuard {
        std::mutex mutex;   // held while a signal is handled
        bool alive = true;  // false once the destructor has begun
    };

    // ---- opening (MetadataCacheRDB.cpp) ----
    void open();
    void resetColumnsLocked() QOR_REQUIRES(_mutex);
    void loadRecords() QOR_REQUIRES(_mutex);

    // ---- reading and writing values (MetadataCacheRDB.cpp) ----
    template <class T>
    bool getValue(ResourceID id, MetadataField field, T& out);
    template <class T>
    void setValue(ResourceID id, MetadataField field, const T& value);
    // The column of `field` for values of type T, or null after the logged assertion.
    template <class T>
    PagedColumn<T>* columnFor(MetadataField field, bool reading) QOR_REQUIRES(_mutex);
    void reallocForItem(ResourceID id) QOR_REQUIRES(_mutex);
    RecordIndex recordIndexLocked(int32_t index) const QOR_REQUIRES(_mutex);
    bool isLoadedLocked(int32_t index) const QOR_REQUIRES(_mutex);
    // Reads one field of the item's record, with those of the other recorded items of its block
    // that lack it, into the column. False when the item has no consistent record.
    bool internalCacheImageField(ResourceID id, MetadataField field) QOR_REQUIRES(_mutex);
    // Reads the field of those listed items (with their records) that lack it, in one call; for
    // a `block` of one item's neighbours, the count is asserted "count > 0 && count <= 256".
    void readMissingFromRecords(const detail::FieldSlot& slot, std::span<const int32_t> indices,
                                std::span<const RecordIndex> records, bool block)
        QOR_REQUIRES(_mutex);
    // Reads every field that the listed items lack from their records.
    void fillFromRecords(std::span<const int32_t> indices) QOR_REQUIRES(_mutex);
    // Loads the item from the next cache, with `lock` (on _mutex) released meanwhile; fields
    // already known stay unless `replace`. False when nothing could be loaded.
    bool internalCacheImageLazy(ResourceID id, ScopedLock<Mutex>& lock, bool replace = false)
        QOR_REQUIRES(_mutex);
    // The same without the mutex held on entry.
    bool cacheImageLazy(ResourceID id, bool replace);
    // Whether the item has a record or any value known.
    bool hasAnyValueLocked(int32_t index) QOR_REQUIRES(_mutex);
    // Forgets every value of the item; keeps its record.
    void dropValuesLocked(int32_t index) QOR_REQUIRES(_mutex);
    // Marks the item dirty; true when the caller must schedule a flush (after unlocking).
    bool markDirtyLocked(ResourceID id) QOR_REQUIRES(_mutex);
    void scheduleFlush();

    // ---- writing the database (MetadataCacheRDBFlush.cpp) ----
    SharedPtr<ResourceSequence> makeFlushSequence(std::vector<ResourceID> ids, bool final);
    // Writes one batch; items that could not be written go back on the dirty list.
    void flushItems(std::span<const ResourceID> ids);
    // Puts items back on the dirty list after a failed or cancelled write, without a new flush:
    // the next change brings one.
    void requeue(std::span<const ResourceID> ids);
    void itemRenamed(ResourceID id);
    void renameItems();
    void internalCheck(ResourceID id);

    MetadataCache* const _next;
    ResourceManager* const _manager;
    const int _priority;
    ResourceDB _db;

    ResourceSequenceWorker* _worker;
    std::unique_ptr<ResourceSequenceWorker> _ownWorker;  // when this object made the worker
    ResourceSequenceWorker::Key _flushTriggerKey = ResourceSequenceWorker::NoKey;
    ResourceSequenceWorker::Key _flushKey = ResourceSequenceWorker::NoKey;
    ResourceSequenceWorker::Key _renameKey = ResourceSequenceWorker::NoKey;
    ResourceSequenceWorker::Key _recheckKey = ResourceSequenceWorker::NoKey;

    std::vector<ResourceDB::DBFieldDesc> _fieldList;  // fixed after construction

    Mutex _writeMutex;  // serialises writes to _db; taken before _mutex
    mutable Mutex _mutex QOR_ACQUIRED_AFTER(_writeMutex);  // guards everything below
    std::unique_ptr<Columns> _columns QOR_PT_GUARDED_BY(_mutex);
    size_t _capacity QOR_GUARDED_BY(_mutex) = 0;
    std::vector<ResourceID> _dirty QOR_GUARDED_BY(_mutex);
    bool _flushRequested QOR_GUARDED_BY(_mutex) = false;  // a trigger is queued
    bool _stopTriggers QOR_GUARDED_BY(_mutex) = false;    // shutdown has begun
    std::vector<ResourceID> _renamed QOR_GUARDED_BY(_mutex);
    ItemCallback _persistentItemCallback QOR_GUARDED_BY(_mutex);
    ItemCallback _isLibraryItemCallback QOR_GUARDED_BY(_mutex);
    ChangedCallback _fileChangedCallback QOR_GUARDED_BY(_mutex);
    bool _shutdown QOR_GUARDED_BY(_mutex) = false;

    std::shared_ptr<SignalGuard> _signalGuard = std::make_shared<SignalGuard>();
    Connection _renamedConnection;
    Connection _deletedConnection;
};

}  // namespace qor::imagecache
