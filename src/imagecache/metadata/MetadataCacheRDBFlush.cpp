// MetadataCacheRDB: writing the database on the worker (flush, renames, deletions), the checks of
// items against their files, and shut-down.

#include <algorithm>
#include <exception>
#include <sstream>
#include <string>
#include <thread>

#include "base/filesystem/Path.h"
#include "base/resource/ResourceFSScopedLock.h"
#include "imagecache/metadata/ItemState.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imagecache/metadata/detail/MetadataRecord.h"
#include "imageio/MetadataValue.h"

namespace qor::imagecache {

using detail::FieldSlot;
using detail::Storage;

// ---- flush ----

void MetadataCacheRDB::scheduleFlush() {
    // A trigger of one step that runs flush(false) when the worker gets to it; a trigger waiting
    // there is replaced, which loses nothing, as every trigger flushes the whole dirty list.
    SharedPtr<ResourceSequence> trigger = ResourceSequence::create({InvalidResourceID}, _priority);
    trigger->setTouchStep([this](ResourceSequence&, size_t, size_t) { flush(false); });
    trigger->setCompletion([this](ResourceSequence&, SequenceStatus status) {
        if (status == SsFinished) return;
        ScopedLock lock(_mutex);
        _flushRequested = false;  // the next change asks again
    });
    _worker->setSequence(_flushTriggerKey, trigger);
}

void MetadataCacheRDB::flush(bool final) {
    std::vector<ResourceID> ids;
    ItemCallback persistent;
    {
        ScopedLock lock(_mutex);
        if (!final) _flushRequested = false;
        if (_shutdown || _dirty.empty()) return;
        ids.swap(_dirty);
        for (ResourceID id : ids) _columns->dirty.clear(id.index());
        persistent = _persistentItemCallback;
    }
    // Only items that belong to the library are stored.
    if (persistent) std::erase_if(ids, [&](ResourceID id) { return !persistent(id); });
    if (ids.empty()) return;
    const size_t count = ids.size();
    if (_worker->setSequence(_flushKey, makeFlushSequence(std::move(ids), final)) !=
        ResourceSequenceWorker::NoKey)
        return;
    // The worker has stopped (its completion put the items back): a final flush writes here.
    QOR_LOG(LogWarning, "MetadataCacheRDB: the worker refused a flush of %* items", count);
    if (!final) return;
    {
        ScopedLock lock(_mutex);
        ids.swap(_dirty);
        for (ResourceID id : ids) _columns->dirty.clear(id.index());
    }
    if (persistent) std::erase_if(ids, [&](ResourceID id) { return !persistent(id); });
    flushItems(ids);
}

SharedPtr<ResourceSequence> MetadataCacheRDB::makeFlushSequence(std::vector<ResourceID> ids,
                                                                bool final) {
    const size_t batch = final ? std::max<size_t>(ids.size(), 1) : FlushBatchSize;
    SharedPtr<ResourceSequence> sequence =
        ResourceSequence::create(std::move(ids), FlushPriority, batch);
    sequence->setTouchStep([this](ResourceSequence& s, size_t first, size_t count) {
        flushItems(std::span(s.items()).subspan(first, count));
    });
    sequence->setCompletion([this](ResourceSequence& s, SequenceStatus status) {
        // Batches that never ran (a newer flush took the place, or the worker stopped) go back.
        if (status != SsFinished && s.touched() < s.size())
            requeue(std::span(s.items()).subspan(s.touched()));
    });
    return sequence;
}

void MetadataCacheRDB::requeue(std::span<const ResourceID> ids) {
    ScopedLock lock(_mutex);
    for (ResourceID id : ids) {
        if (_columns->dirty.present(id.index())) continue;
        _columns->dirty.set(id.index(), 1);
        _dirty.push_back(id);
    }
}

void MetadataCacheRDB::flushItems(std::span<const ResourceID> ids) {
    // Items whose values are not all here (set before their first load, or a record that a crash
    // left inconsistent) are loaded from the next cache first, with no lock held.
    std::vector<ResourceID> toLoad;
    {
        ScopedLock lock(_mutex);
        for (ResourceID id : ids)
            if (!isLoadedLocked(id.index()) && hasAnyValueLocked(id.index())) toLoad.push_back(id);
    }
    for (ResourceID id : toLoad) cacheImageLazy(id, false);

    ScopedLock writing(_writeMutex);
    ScopedLock lock(_mutex);
    if (_shutdown) return;
    std::vector<ResourceID> items;
    std::vector<int32_t> indices;
    std::vector<RecordIndex> records;
    std::vector<std::string> newNames;  // for the items without a record, in order
    for (ResourceID id : ids) {
        const int32_t index = id.index();
        if (!isLoadedLocked(index)) continue;  // could not be loaded: logged there
        const RecordIndex record = recordIndexLocked(index);
        if (record < 0) {
            ResourceName name;
            if (!_manager || !_manager->tryGetName(id, name)) {
                QOR_LOG(LogWarning, "couldn't get item name %*", id);
                continue;
            }
            newNames.push_back(name.persistentString());
        }
        items.push_back(id);
        indices.push_back(index);
        records.push_back(record);
    }
    if (items.empty()) return;
    // Fields not read from a record yet come from there, so the record is written whole.
    fillFromRecords(indices);

    // The values, field by field, in record order.
    std::vector<std::vector<uint8_t>> values(detail::kRecordFieldCount);
    for (int position = 0; position < detail::kRecordFieldCount; ++position) {
        const detail::RecordField& field = detail::kRecordFields[position];
        std::vector<uint8_t>& bytes = values[size_t(position)];
        const size_t size = ResourceDB::fieldSize(field.storage);
        bytes.resize(items.size() * size);
        if (field.field == MetadataField::RecordConsistent) {
            const int one = 1;
            for (size_t i = 0; i < items.size(); ++i) Storage<int>::encode(&one, &bytes[i * size]);
            continue;
        }
        _columns->withColumn(_columns->slot(field.field), [&](auto& column) {
            using T = typename std::remove_reference_t<decltype(column)>::Value;
            for (size_t i = 0; i < items.size(); ++i)
                Storage<T>::encode(column.find(indices[i]), &bytes[i * size]);
        });
    }
    lock.unlock();

    // One transaction: new records, then one call per field, RecordConsistent first.
    std::vector<RecordIndex> written = records;
    try {
        size_t next = 0;
        for (RecordIndex& record : written)
            if (record < 0) record = _db.addRecord(newNames[next++]);
        const int consistent = _db.getFieldIndex(int(MetadataField::RecordConsistent));
        _db.setFields(consistent, written, values[size_t(consistent)].data());
        for (int position = 0; position < detail::kRecordFieldCount; ++position)
            if (position != consistent)
                _db.setFields(position, written, values[size_t(position)].data());
        _db.flush();
    } catch (const ResourceDBException& e) {
        QOR_LOG(LogError, "failed to write to RDB '%*'", e.what());
        QOR_ASSERT_TEXT(false, "false");
        requeue(items);
        return;
    }
    lock.lock();
    for (size_t i = 0; i < items.size(); ++i)
        if (records[i] < 0) _columns->idToRecord.set(indices[i], written[i]);
}

void MetadataCacheRDB::waitForFlush() {
    for (;;) {
        _worker->wait(_flushTriggerKey);
        _worker->wait(_flushKey);
        {
            ScopedLock lock(_mutex);
            if (!_flushRequested) return;
        }
        std::this_thread::yield();  // a trigger asked for but not queued yet
    }
}

void MetadataCacheRDB::shutdown() {
    {
        ScopedLock lock(_mutex);
        if (_shutdown || _stopTriggers) return;
        _stopTriggers = true;
    }
    _worker->removeSequence(_flushTriggerKey);
    _worker->wait(_flushTriggerKey);
    _worker->wait(_flushKey);
    flush(true);
    _worker->wait(_flushKey);
    _worker->removeSequence(_flushKey);
    _worker->wait(_renameKey);
    ScopedLock lock(_mutex);
    _shutdown = true;
}

// ---- renames and deletions ----

void MetadataCacheRDB::itemRenamed(ResourceID id) {
    {
        ScopedLock lock(_mutex);
        _renamed.push_back(id);
    }
    SharedPtr<ResourceSequence> rename = ResourceSequence::create({id}, _priority);
    rename->setTouchStep([this](ResourceSequence&, size_t, size_t) { renameItems(); });
    _worker->setSequence(_renameKey, rename);
}

void MetadataCacheRDB::renameItems() {
    ScopedLock writing(_writeMutex);
    std::vector<std::pair<RecordIndex, std::string>> renames;
    {
        ScopedLock lock(_mutex);
        if (_shutdown) return;
        for (ResourceID id : _renamed) {
            const RecordIndex record = recordIndexLocked(id.index());
            ResourceName name;
            if (record >= 0 && _manager->tryGetName(id, name))
                renames.emplace_back(record, name.persistentString());
        }
        _renamed.clear();
    }
    if (renames.empty()) return;
    try {
        for (const auto& [record, name] : renames) _db.rename(record, name);
        _db.flush();
    } catch (const ResourceDBException& e) {
        QOR_LOG(LogError, "MetadataCacheRDB: failed to rename items in RDB '%*'", e.what());
    }
}

void MetadataCacheRDB::deleteItem(ResourceID id) {
    ScopedLock writing(_writeMutex);
    RecordIndex record;
    {
        ScopedLock lock(_mutex);
        const int32_t index = id.index();
        record = recordIndexLocked(index);
        dropValuesLocked(index);
        _columns->idToRecord.clear(index);
        if (_columns->dirty.present(index)) {
            _columns->dirty.clear(index);
            std::erase(_dirty, id);
        }
        if (_shutdown) return;
    }
    if (record < 0) return;
    try {
        _db.deleteRecord(record);
        _db.flush();
    } catch (const ResourceDBException& e) {
        QOR_LOG(LogError, "MetadataCacheRDB::itemDeleted: failed to delete item from RDB '%*'",
                e.what());
        QOR_ASSERT_TEXT(false, "false");
    }
}

// ---- checks ----

void MetadataCacheRDB::check(ResourceID id) {
    QOR_ASSERT_TEXT(id.isValid(), "id.valid()");
    if (!id.isValid()) return;
    if (_next) _next->check(id);
    internalCheck(id);
}

void MetadataCacheRDB::internalCheck(ResourceID id) {
    if (!_manager) return;
    const int32_t index = id.index();
    {
        ScopedLock lock(_mutex);
        if (!isLoadedLocked(index) && recordIndexLocked(index) < 0) {
            // Nothing cached to verify: load it, which reads the file as it is now.
            if (!internalCacheImageLazy(id, lock)) return;
        }
    }
    // The file as it is now, under its lock, dropped before the mutex is taken.
    std::string path;
    Timestamp fileTime;
    try {
        ResourceFSScopedLock fileLock(_manager, id, FilesystemScopedLock::Shared);
        path = fileLock.path();
        if (filesystem::isFile(path)) fileTime = filesystem::lastWriteTime(path);
    } catch (const ResourceDeletedException&) {
        return;  // its removal reaches the cache through the manager's signal
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Failed to get last write time for '%*': %*", path, e.what());
    }

    ScopedLock lock(_mutex);
    bool trigger = false;
    ChangedCallback fileChanged;
    if (!isLoadedLocked(index)) {
        // A record that a crash left inconsistent: read again.
        internalCacheImageLazy(id, lock, true);
    } else if (!fileTime.isNull()) {
        Timestamp cached;
        _columns->lastWriteTime().get(index, cached);
        if (cached != fileTime) {
            QOR_LOG(LogInfo,
                    "Found changed file FileLastWirteTime:'%*' CachedFileLastWriteTime:'%*'",
                    fileTime.toString(), cached.toString());
            fileChanged = _fileChangedCallback;
            internalCacheImageLazy(id, lock, true);
        }
    }
    if (fileChanged) {
        lock.unlock();
        fileChanged(id);
        lock.lock();
    }
    if (!isLoadedLocked(index)) return;  // the file could not be read: logged there
    if (!_columns->itemState().known(index)) internalCacheImageField(id, MetadataField::ItemState);
    int state = -1;
    if (!_columns->itemState().get(index, state)) {
        QOR_LOG(LogError, "Item state undefined '%*'", path);
        QOR_ASSERT_TEXT(false, "false");
    }
    int now = state;
    if (fileTime.isNull())
        now = ItemStateMissing;
    else if (state == ItemStateMissing || state < 0)
        now = ItemStateOk;  // the file is back
    if (now != state) {
        _columns->itemState().set(index, now);
        trigger = markDirtyLocked(id);
        QOR_LOG(LogInfo, "Item '%*' state changed to '%*'", path, now);
    }
    const ItemCallback isLibraryItem = _isLibraryItemCallback;
    lock.unlock();
    if (trigger) scheduleFlush();
    if (isLibraryItem && !isLibraryItem(id)) {
        QOR_LOG(LogInfo,
                "Found cached item '%*' that doesn't exist in the library. Removing it from the "
                "cache now",
                path);
        deleteItem(id);
    }
}

void MetadataCacheRDB::startRecheck() {
    if (!_manager) return;
    std::vector<ResourceID> ids;
    {
        ScopedLock lock(_mutex);
        for (int32_t index = 0; size_t(index) < _capacity; ++index)
            if (recordIndexLocked(index) >= 0 || isLoadedLocked(index))
                ids.push_back(_manager->makeID(index));
    }
    if (ids.empty()) return;
    SharedPtr<ResourceSequence> recheck = ResourceSequence::create(std::move(ids), _priority);
    recheck->setTouchStep([this](ResourceSequence& s, size_t first, size_t count) {
        for (size_t i = first; i < first + count && !s.isCancelled(); ++i)
            internalCheck(s.items()[i]);
    });
    _worker->setSequence(_recheckKey, recheck);
}

namespace {

// The text of one side of a difference; empty for an absent value.
template <class T>
std::string sideText(bool present, const T& value) {
    if (!present) return {};
    std::ostringstream out;
    out << imageio::MetadataValue(value);
    return out.str();
}

template <class T>
std::string differenceText(MetadataField field, bool hasCached, const T& cached, bool hasFile,
                           const T& file) {
    const FastString<char> name = fieldName(field);
    if constexpr (std::is_same_v<T, Vec2i>) {
        if (hasCached && hasFile)
            return formatLog(
                "Cache field %* inconsistent: cached value is '%*, %*' file value is '%*, %*'",
                name, cached.x, cached.y, file.x, file.y);
    }
    if constexpr (std::is_same_v<T, Vec3d>) {
        if (hasCached && hasFile)
            return formatLog(
                "Cache field %* inconsistent: cached value is '%*, %*,%*' file value is '%*, "
                "%*,%*'",
                name, cached.x, cached.y, cached.z, file.x, file.y, file.z);
    }
    return formatLog("Cache field %* inconsistent: cached value is '%*' file value is '%*'", name,
                     sideText(hasCached, cached), sideText(hasFile, file));
}

}  // namespace

bool MetadataCacheRDB::isCacheConsistent(ResourceID id, LogLevel& level, FastString<char>& text) {
    level = LogInfo;
    text = FastString<char>();
    bool exists = false;
    if (_manager) {
        try {
            ResourceFSScopedLock fileLock(_manager, id, FilesystemScopedLock::Shared);
            exists = filesystem::isFile(fileLock.path());
        } catch (const ResourceDeletedException&) {
        }
    }
    if (!exists) {
        level = LogWarning;
        text = FastString<char>("File is missing");
        return false;
    }
    SharedPtr<const Metadata> file;
    try {
        if (_next) file = _next->loadMetadata(id);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "MetadataCacheRDB::internalCacheImageLazy: '%*'", e.what());
        level = LogError;
        text = FastString<char>(e.what());
        return false;
    }
    const int32_t index = id.index();
    ScopedLock lock(_mutex);
    if (!isLoadedLocked(index)) {
        level = LogWarning;
        text = FastString<char>("Item is not cached");
        return false;
    }
    fillFromRecords(std::span(&index, 1));
    bool same = true;
    _columns->forEachColumn([&](const FieldSlot& slot, auto& column) {
        // The fields the cache adds of its own accord are not the file's.
        if (!same || slot.field == MetadataField::AverageColor ||
            slot.field == MetadataField::ItemState)
            return;
        using T = typename std::remove_reference_t<decltype(column)>::Value;
        T cached{}, fromFile{};
        const bool hasCached = column.get(index, cached);
        const bool hasFile = file && file->get(slot.field, fromFile);
        if (hasCached == hasFile && (!hasCached || cached == fromFile)) return;
        same = false;
        level = LogWarning;
        text = FastString<char>(differenceText(slot.field, hasCached, cached, hasFile, fromFile));
    });
    return same;
}

}  // namespace qor::imagecache
