// MetadataCacheRDB: opening, reading and setting values, loading items from the next cache.
// Writing the database, checks and shut-down are in MetadataCacheRDBFlush.cpp.

#include "imagecache/metadata/MetadataCacheRDB.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string>

#include "base/filesystem/Path.h"
#include "base/resource/ResourceFSScopedLock.h"
#include "imagecache/metadata/detail/MetadataRecord.h"

namespace qor::imagecache {

using detail::FieldSlot;
using detail::Storage;

namespace {

const std::string kStars(77, '*');

detail::ColumnKind kindOf(imageio::MetadataType type) {
    switch (type) {
        case imageio::MdtVec2i:
            return detail::KindVec2i;
        case imageio::MdtInt:
            return detail::KindInt;
        case imageio::MdtTime:
            return detail::KindTime;
        case imageio::MdtDouble:
            return detail::KindDouble;
        case imageio::MdtVec3d:
            return detail::KindVec3d;
        default:
            return detail::KindDigest;
    }
}

}  // namespace

// ---- opening ----

MetadataCacheRDB::MetadataCacheRDB(MetadataCache* next, const FastString<char>& directory,
                                   ResourceSequenceWorker* worker, int priority)
    : _next(next),
      _manager(next ? next->resourceManager() : nullptr),
      _priority(priority),
      _db(filesystem::pathJoin(directory.view(), DatabaseName)),
      _worker(worker) {
    // Columns are sized by the highest index: ids by hash would make them huge.
    QOR_ASSERT(!_manager || _manager->idKind() == ResourceManager::IdsByIndex);
    filesystem::createDirectoryFromUrl(directory.view());
    if (!_worker) {
        _ownWorker = std::make_unique<ResourceSequenceWorker>("qor-metadata");
        _worker = _ownWorker.get();
    }
    for (const detail::RecordField& field : detail::kRecordFields)
        _fieldList.emplace_back(field.storage, int(field.field));
    open();

    _flushTriggerKey = _worker->newKey();
    _flushKey = _worker->newKey();
    _renameKey = _worker->newKey();
    _recheckKey = _worker->newKey();
    if (_manager) {
        // The slots hold the guard, so a signal that is being handled when this object goes is
        // waited for, and one that comes later finds the object gone.
        std::shared_ptr<SignalGuard> guard = _signalGuard;
        _renamedConnection =
            _manager->resourceRenamed.connect([this, guard](ResourceID id, const ResourceName&) {
                std::lock_guard<std::mutex> alive(guard->mutex);
                if (guard->alive) itemRenamed(id);
            });
        _deletedConnection =
            _manager->resourceDeleted.connect([this, guard](ResourceID id, const ResourceName&) {
                std::lock_guard<std::mutex> alive(guard->mutex);
                if (guard->alive) deleteItem(id);
            });
    }
}

void MetadataCacheRDB::resetColumnsLocked() {
    _columns = std::make_unique<Columns>();
    _capacity = 0;
    for (int position = 0; position < detail::kRecordFieldCount; ++position) {
        const detail::RecordField& field = detail::kRecordFields[position];
        if (field.field == MetadataField::RecordConsistent) continue;
        FieldSlot& slot = _columns->slots[int(field.field)];
        slot.field = field.field;
        slot.position = int8_t(position);
        slot.storage = field.storage;
        slot.kind = kindOf(fieldDataType(field.field));
        auto grow = [&](auto& group) {
            slot.column = int8_t(group.size());
            group.emplace_back();
        };
        switch (slot.kind) {
            case detail::KindVec2i:
                grow(_columns->vec2i);
                break;
            case detail::KindInt:
                grow(_columns->ints);
                break;
            case detail::KindTime:
                grow(_columns->times);
                break;
            case detail::KindDouble:
                grow(_columns->doubles);
                break;
            case detail::KindVec3d:
                grow(_columns->vec3d);
                break;
            case detail::KindDigest:
                grow(_columns->digests);
                break;
        }
    }
}

void MetadataCacheRDB::open() {
    ScopedLock lock(_mutex);
    resetColumnsLocked();

    try {
        if (!filesystem::exists(_db.path()))
            throw ResourceDBException(ResourceDBException::RdbNotFound, "no database yet");
        _db.open(false);
        // A field this version does not have, or has with another type: a newer version wrote
        // the file, and its records cannot be kept whole.
        for (const ResourceDB::DBFieldDesc& field : _db.getFieldList())
            if (std::find(_fieldList.begin(), _fieldList.end(), field) == _fieldList.end())
                throw ResourceDBException(
                    ResourceDBException::RdbFieldList,
                    formatLog("'%*' has field %* of type %*, which this version does not know",
                              _db.path(), field.id, field.type));
        if (_db.getRecordCount() != 0) loadRecords();
        _db.reorganizeFields(_fieldList);
        return;
    } catch (const ResourceDBException& e) {
        if (e.reason() != ResourceDBException::RdbNotFound) {
            QOR_LOG(LogError, "%*", kStars);
            QOR_LOG(
                LogError,
                "* MetadataCacheRDB is inconsistent and gets recreated. Vorn startup be slow *");
            QOR_LOG(LogError, "%*", kStars);
            QOR_ASSERT_MSG(false, "%*", e.what());
            try {
                _db.close();
            } catch (const std::exception& closing) {
                QOR_LOG(LogWarning, "MetadataCacheRDB: closing the unusable database: %*",
                        closing.what());
            }
            try {
                ResourceDB::erase(_db.path());
            } catch (const std::exception& erasing) {
                QOR_LOG(LogError, "MetadataCacheRDB: cannot erase '%*': %*", _db.path(),
                        erasing.what());
            }
            resetColumnsLocked();  // nothing of the old file stays
        }
    }
    try {
        _db.create(DatabaseCapacity, _fieldList);
    } catch (const ResourceDBException& e) {
        QOR_LOG(LogError, "Failed to create metadata database '%*'", e.what());
        throw;
    }
}

void MetadataCacheRDB::loadRecords() QOR_REQUIRES(_mutex) {
    if (!_manager) {
        QOR_LOG(LogWarning, "MetadataCacheRDB: no resource manager to name the %* records of '%*'",
                _db.getRecordCount(), _db.path());
        return;
    }
    std::vector<RecordIndex> records;
    std::vector<std::string> names;
    _db.enumerateRecords(records, &names);
    std::vector<ResourceName> resourceNames(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        try {
            resourceNames[i] = _manager->nameFromPersistentString(names[i]);
        } catch (const ResourceException&) {
            // an empty name: refused below
        }
    }
    const std::vector<ResourceID> ids = _manager->add(resourceNames, ResourceManager::AddOrFind);

    // The two fields start-up reads, of every record at once.
    const size_t count = size_t(_db.getLastRecord()) + 1;
    std::vector<uint8_t> consistent(count * 4), writeTimes(count * 8);
    _db.getFields(_columns->slot(MetadataField::FileLastWriteTime).position, 0, count,
                  writeTimes.data());
    _db.getFields(_db.getFieldIndex(int(MetadataField::RecordConsistent)), 0, count,
                  consistent.data());

    size_t good = 0;
    std::vector<RecordIndex> duplicates;
    for (size_t i = 0; i < records.size(); ++i) {
        const ResourceID id = ids[i];
        if (!id.isValid() || id.index() < 0) {
            QOR_LOG(LogError, "MetadataCacheRDB: Couldn't add image to resource manager '%*'",
                    names[i]);
            QOR_ASSERT_TEXT(false, "false");
            continue;
        }
        const size_t record = size_t(records[i]);
        reallocForItem(id);
        if (const RecordIndex* older = _columns->idToRecord.find(id.index()))
            duplicates.push_back(*older);  // two records of one name: the newer one counts
        _columns->idToRecord.set(id.index(), records[i]);
        int flag = 0;
        if (Storage<int>::decode(&consistent[record * 4], flag) && flag == 1) {
            Timestamp written;
            if (Storage<Timestamp>::decode(&writeTimes[record * 8], written))
                _columns->lastWriteTime().set(id.index(), written);
            else
                _columns->lastWriteTime().setAbsent(id.index());
            ++good;
        }
    }
    QOR_LOG(LogInfo, "Metadata cache contains %* records from which %* are consistent entries ",
            records.size(), good);
    for (RecordIndex record : duplicates) _db.deleteRecord(record);  // committed by reorganize
}

MetadataCacheRDB::~MetadataCacheRDB() {
    shutdown();
    _renamedConnection.disconnect();
    _deletedConnection.disconnect();
    {
        std::lock_guard<std::mutex> alive(_signalGuard->mutex);  // waits for a running slot
        _signalGuard->alive = false;
    }
    // Sequences that still name this object end before it goes.
    for (ResourceSequenceWorker::Key key : {_flushTriggerKey, _flushKey, _renameKey, _recheckKey}) {
        _worker->removeSequence(key);
        _worker->wait(key);
    }
    _ownWorker.reset();
    try {
        _db.close();
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "MetadataCacheRDB: closing '%*': %*", _db.path(), e.what());
    }
}

bool MetadataCacheRDB::reset(const FastString<char>& directory) {
    try {
        ResourceDB::erase(filesystem::pathJoin(directory.view(), DatabaseName));
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "MetadataCacheRDB::reset: failed with '%*'", e.what());
    }
    return false;
}

// ---- the item tables ----

void MetadataCacheRDB::reallocForItem(ResourceID id) {
    const int32_t index = id.index();
    QOR_ASSERT(index >= 0);
    if (index < 0 || size_t(index) < _capacity) return;
    _capacity = size_t((index >> 8) + 1) << 8;
    _columns->reserve(_capacity);
}

size_t MetadataCacheRDB::capacity() const {
    ScopedLock lock(_mutex);
    return _capacity;
}

MetadataCacheRDB::RecordIndex MetadataCacheRDB::recordIndexLocked(int32_t index) const {
    const RecordIndex* record = _columns->idToRecord.find(index);
    return record ? *record : -1;
}

MetadataCacheRDB::RecordIndex MetadataCacheRDB::recordIndex(ResourceID id) const {
    ScopedLock lock(_mutex);
    return recordIndexLocked(id.index());
}

bool MetadataCacheRDB::isLoadedLocked(int32_t index) const {
    return _columns->lastWriteTime().known(index);
}

bool MetadataCacheRDB::isCached(ResourceID id) {
    ScopedLock lock(_mutex);
    return isLoadedLocked(id.index());
}

bool MetadataCacheRDB::isRecordField(MetadataField field) {
    for (const detail::RecordField& f : detail::kRecordFields)
        if (f.field == field) return field != MetadataField::RecordConsistent;
    return false;
}

template <class T>
PagedColumn<T>* MetadataCacheRDB::columnFor(MetadataField field, bool reading) {
    const FieldSlot& slot = _columns->slot(field);
    if (slot.kind < 0) {
        if (reading) QOR_LOG(LogError, "try to read unknown .. field %*", field);
        QOR_ASSERT_TEXT(false, "_db.getFieldType(fieldIndex(field)) == dataType");
        return nullptr;
    }
    if (slot.kind != Storage<T>::kind) {
        QOR_LOG(LogError,
                reading ? "Try to read field %* of type %* with %*/%*"
                        : "Try to write field %* of type %* with %*/%*",
                fieldName(field), slot.storage, Storage<T>::name, Storage<T>::type);
        QOR_ASSERT_TEXT(false, "_db.getFieldType(fieldIndex(field)) == dataType");
        return nullptr;
    }
    return &_columns->group<T>()[size_t(slot.column)];
}

bool MetadataCacheRDB::hasAnyValueLocked(int32_t index) {
    if (recordIndexLocked(index) >= 0) return true;
    bool any = false;
    _columns->forEachColumn(
        [&](const FieldSlot&, auto& column) { any = any || column.known(index); });
    return any;
}

void MetadataCacheRDB::dropValuesLocked(int32_t index) {
    _columns->forEachColumn([&](const FieldSlot&, auto& column) { column.clear(index); });
}

bool MetadataCacheRDB::markDirtyLocked(ResourceID id) {
    const int32_t index = id.index();
    if (_columns->dirty.present(index)) return false;
    _columns->dirty.set(index, 1);
    _dirty.push_back(id);
    if (_flushRequested || _shutdown || _stopTriggers) return false;
    _flushRequested = true;
    return true;
}

// ---- reading from the records ----

bool MetadataCacheRDB::internalCacheImageField(ResourceID id, MetadataField field) {
    const int32_t index = id.index();
    if (recordIndexLocked(index) < 0 || !isLoadedLocked(index)) return false;
    // The field of every item of the block that has a consistent record and lacks it, in one read:
    // a view sorted by this field reads its neighbours next.
    const int32_t first = index & ~(PagedColumn<int>::PageSize - 1);
    const int32_t end = std::min<int32_t>(first + PagedColumn<int>::PageSize, int32_t(_capacity));
    std::array<int32_t, PagedColumn<int>::PageSize> block;
    std::array<RecordIndex, PagedColumn<int>::PageSize> blockRecords;
    size_t candidates = 0;
    for (int32_t i = first; i < end; ++i) {
        const RecordIndex record = recordIndexLocked(i);
        if (record < 0 || !isLoadedLocked(i)) continue;
        block[candidates] = i;
        blockRecords[candidates++] = record;
    }
    readMissingFromRecords(_columns->slot(field), std::span(block.data(), candidates),
                           std::span(blockRecords.data(), candidates), true);
    return true;
}

void MetadataCacheRDB::fillFromRecords(std::span<const int32_t> items) {
    std::vector<int32_t> indices;
    std::vector<RecordIndex> records;
    for (int32_t index : items) {
        const RecordIndex record = recordIndexLocked(index);
        if (record < 0 || !isLoadedLocked(index)) continue;
        indices.push_back(index);
        records.push_back(record);
    }
    if (indices.empty()) return;
    for (const detail::RecordField& field : detail::kRecordFields)
        if (field.field != MetadataField::RecordConsistent)
            readMissingFromRecords(_columns->slot(field.field), indices, records, false);
}

void MetadataCacheRDB::readMissingFromRecords(const FieldSlot& slot,
                                              std::span<const int32_t> indices,
                                              std::span<const RecordIndex> records, bool block) {
    _columns->withColumn(slot, [&](auto& column) {
        using T = typename std::remove_reference_t<decltype(column)>::Value;
        std::vector<int32_t> missing;
        std::vector<RecordIndex> missingRecords;
        for (size_t i = 0; i < indices.size(); ++i) {
            if (column.known(indices[i])) continue;
            missing.push_back(indices[i]);
            missingRecords.push_back(records[i]);
        }
        const size_t count = missing.size();
        if (block) QOR_ASSERT(count > 0 && count <= 256);
        if (count == 0) return;
        const size_t size = ResourceDB::fieldSize(slot.storage);
        std::vector<uint8_t> values(count * size);
        try {
            _db.getFields(slot.position, missingRecords, values.data());
        } catch (const ResourceDBException& e) {
            QOR_LOG(LogError,
                    "MetadataCacheRDB::internalCacheImageField: failed to get data out of RDB '%*'",
                    e.what());
            QOR_ASSERT_TEXT(false, "false");
            return;
        }
        for (size_t i = 0; i < count; ++i) {
            T value;
            if (Storage<T>::decode(&values[i * size], value))
                column.set(missing[i], value);
            else
                column.setAbsent(missing[i]);
        }
    });
}

// ---- loading from the next cache ----

// The analysis cannot follow the caller's lock being opened and closed again here.
bool MetadataCacheRDB::internalCacheImageLazy(ResourceID id, ScopedLock<Mutex>& lock,
                                              bool replace) QOR_NO_THREAD_SAFETY_ANALYSIS {
    if (!_next || !_manager) return false;
    lock.unlock();
    // The file's time first, under its lock, which is dropped before the mutex is taken again.
    bool ok = true;
    Timestamp written;
    try {
        ResourceFSScopedLock fileLock(_manager, id, FilesystemScopedLock::Shared);
        try {
            written = filesystem::lastWriteTime(fileLock.path());
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Failed to get last write time for '%*': %*", fileLock.path(),
                    e.what());
            ok = false;
        }
    } catch (const ResourceDeletedException&) {
        QOR_LOG(LogWarning, "Trying to cache deleted item %*", id);
        ok = false;
    }
    // The read, which may take long, with no lock held.
    SharedPtr<const Metadata> metadata;
    if (ok) {
        try {
            metadata = _next->loadMetadata(id);
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "MetadataCacheRDB::internalCacheImageLazy: '%*'", e.what());
            QOR_ASSERT_TEXT(false, "false");
            ok = false;
        }
    }
    lock.lock();
    if (!ok) return false;
    reallocForItem(id);
    const int32_t index = id.index();
    if (replace) dropValuesLocked(index);
    _columns->forEachColumn([&](const FieldSlot& slot, auto& column) {
        if (column.known(index)) return;  // set meanwhile: the newer value stays
        typename std::remove_reference_t<decltype(column)>::Value value{};
        if (metadata && metadata->get(slot.field, value))
            column.set(index, value);
        else
            column.setAbsent(index);
    });
    _columns->lastWriteTime().set(index, written);
    if (markDirtyLocked(id)) {
        lock.unlock();
        scheduleFlush();
        lock.lock();
    }
    return true;
}

bool MetadataCacheRDB::cacheImageLazy(ResourceID id, bool replace) {
    ScopedLock lock(_mutex);
    return internalCacheImageLazy(id, lock, replace);
}

void MetadataCacheRDB::cacheImage(ResourceID id) {
    QOR_ASSERT_TEXT(id.isValid(), "id.valid()");
    if (!id.isValid()) return;
    bool loaded;
    {
        ScopedLock lock(_mutex);
        loaded = isLoadedLocked(id.index());
        if (!loaded) {
            internalCacheImageLazy(id, lock);
            return;
        }
    }
    check(id);
}

SharedPtr<const Metadata> MetadataCacheRDB::loadMetadata(ResourceID id) {
    return _next ? _next->loadMetadata(id) : nullptr;
}

// ---- get and set ----

template <class T>
bool MetadataCacheRDB::getValue(ResourceID id, MetadataField field, T& out) {
    QOR_ASSERT_TEXT(id.isValid(), "id.valid()");
    if (!id.isValid()) return false;
    const int32_t index = id.index();
    ScopedLock lock(_mutex);
    PagedColumn<T>* column = columnFor<T>(field, true);
    if (!column) {
        const bool noColumn = _columns->slot(field).kind < 0;
        lock.unlock();
        return noColumn && _next ? _next->get(id, field, out) : false;
    }
    if (column->known(index)) return column->get(index, out);  // the fast road
    if (!internalCacheImageField(id, field) && !isLoadedLocked(index))
        internalCacheImageLazy(id, lock);
    if (column->known(index)) return column->get(index, out);
    lock.unlock();
    return _next ? _next->get(id, field, out) : false;
}

template <class T>
void MetadataCacheRDB::setValue(ResourceID id, MetadataField field, const T& value) {
    QOR_ASSERT_TEXT(id.isValid(), "id.valid()");
    if (!id.isValid()) return;
    {
        ScopedLock lock(_mutex);
        reallocForItem(id);
    }
    if (_next) _next->set(id, field, value);
    bool trigger = false;
    {
        ScopedLock lock(_mutex);
        if (PagedColumn<T>* column = columnFor<T>(field, false)) {
            column->set(id.index(), value);
            trigger = markDirtyLocked(id);
        }
    }
    if (trigger) scheduleFlush();
}

bool MetadataCacheRDB::get(ResourceID id, MetadataField field, int& out) {
    return getValue(id, field, out);
}
bool MetadataCacheRDB::get(ResourceID id, MetadataField field, Vec2i& out) {
    return getValue(id, field, out);
}
bool MetadataCacheRDB::get(ResourceID id, MetadataField field, double& out) {
    return getValue(id, field, out);
}
bool MetadataCacheRDB::get(ResourceID id, MetadataField field, Vec3d& out) {
    return getValue(id, field, out);
}
bool MetadataCacheRDB::get(ResourceID id, MetadataField field, FastString<char>& out) {
    // Strings are not kept here: the next cache answers.
    return _next ? _next->get(id, field, out) : false;
}
bool MetadataCacheRDB::get(ResourceID id, MetadataField field, Timestamp& out) {
    return getValue(id, field, out);
}
bool MetadataCacheRDB::get(ResourceID id, MetadataField field, Digest& out) {
    return getValue(id, field, out);
}

void MetadataCacheRDB::set(ResourceID id, MetadataField field, int value) {
    setValue(id, field, value);
}
void MetadataCacheRDB::set(ResourceID id, MetadataField field, const Vec2i& value) {
    setValue(id, field, value);
}
void MetadataCacheRDB::set(ResourceID id, MetadataField field, double value) {
    setValue(id, field, value);
}
void MetadataCacheRDB::set(ResourceID id, MetadataField field, const Vec3d& value) {
    setValue(id, field, value);
}
void MetadataCacheRDB::set(ResourceID id, MetadataField field, const FastString<char>& value) {
    if (_next) _next->set(id, field, value);
}
void MetadataCacheRDB::set(ResourceID id, MetadataField field, const Timestamp& value) {
    setValue(id, field, value);
}
void MetadataCacheRDB::set(ResourceID id, MetadataField field, const Digest& value) {
    setValue(id, field, value);
}

void MetadataCacheRDB::copyImage(ResourceID src, ResourceID dst) {
    QOR_ASSERT(src.isValid() && dst.isValid());
    if (!src.isValid() || !dst.isValid()) return;
    bool trigger = false;
    {
        ScopedLock lock(_mutex);
        if (!isLoadedLocked(src.index())) internalCacheImageLazy(src, lock);
        const int32_t from = src.index();
        fillFromRecords(std::span(&from, 1));
        reallocForItem(dst);
        _columns->forEachColumn([&](const FieldSlot&, auto& column) {
            if (const auto* value = column.find(from))
                column.set(dst.index(), *value);
            else if (column.known(from))
                column.setAbsent(dst.index());
            else
                column.clear(dst.index());
        });
        trigger = isLoadedLocked(dst.index()) && markDirtyLocked(dst);
    }
    if (trigger) scheduleFlush();
    if (_next) _next->copyImage(src, dst);
}

void MetadataCacheRDB::setPersitentItemCallback(const ItemCallback& callback) {
    ScopedLock lock(_mutex);
    _persistentItemCallback = callback;
}

void MetadataCacheRDB::setIsLibraryItemCallback(const ItemCallback& callback) {
    ScopedLock lock(_mutex);
    _isLibraryItemCallback = callback;
}

void MetadataCacheRDB::setFileChangedCallback(const ChangedCallback& callback) {
    ScopedLock lock(_mutex);
    _fileChangedCallback = callback;
}

}  // namespace qor::imagecache
