#pragma once
// ResourceDB: a persistent store of records, one file per database, on SQLite 3. Each record has
// an index, the persistent name of the resource it describes, and one value for each field of the
// database's field list. Fields have a storage type and an identifier chosen by the caller (the
// metadata cache uses its MetadataField values); values are read and written a field at a time
// over many records, which is how the metadata cache uses them: it reads two fields of every
// record at start-up and writes each field of a batch of 500 records at once.
//
// Record indices. A record keeps its index for its whole life, across runs. A new record gets the
// index after the highest one ever given in this file, so the index of a deleted record is never
// given to a later record: a reader that still holds an index of a deleted record finds nothing
// there rather than another resource's values. The same holds for an index given by addRecord
// whose record was lost with a failed flush. The counter is stored in the file with the records.
// Indices therefore leave holes; reads over a run of records read the values of a hole as zeros
// (an empty string for text), as they do for a field that was never set.
//
// Transactions. Every change (addRecord, deleteRecord, rename, setFields) goes into one pending
// transaction that flush() commits. A crash before flush() returns leaves the file as the previous
// flush left it: a batch of setFields calls of one flush is written whole or not at all. Reads
// on this object see the pending changes. A failed commit (disk full, file gone read-only, I/O
// error) rolls the pending changes back, leaves the file as it was and throws; the caller still
// holds its values and may write them again.
//
// Storage, and why (figures: docs/PERFORMANCE.md, bench/ResourceDBBench.cpp, 100 000 records of
// the metadata cache's 31 fields):
// - One table per field, `v<n>(idx INTEGER PRIMARY KEY, v)`, beside `records(idx INTEGER PRIMARY
//   KEY, name TEXT)`, `fields` (position, identifier, type, table number) and `meta` (capacity
//   and the record counters). Start-up reads two fields of every record: it scans those two
//   tables, 2.4 MB of the file, where one row a record (a column a field) makes it read all 27 MB;
//   warm, that is 10 ms against 15 ms, and from a cold disk the gap is the tenfold read. The
//   price is paid by flushes, on the worker, where nobody waits for them: records spread over
//   the file touch a page of every field table for each record, so 500 such records take 95 ms
//   to flush against 7 ms for rows, and 500 records added together (the common case: newly
//   cached items) 5 ms against 0.8 ms. Start-up is what a user waits for.
//   Reorganizing the field list creates and drops tables and copies no value.
// - Values are kept bit for bit: 4- and 8-byte values (doubles too, so NaN and -0 survive) as
//   INTEGERs of their bits, vectors and digests as BLOBs of their bytes, text as TEXT.
// - Write-ahead log with synchronous=NORMAL. A commit appends the changed pages to the log with
//   no fsync; the pages go into the file, with an fsync, each time the log passes 1000 pages. A
//   process killed at any moment loses nothing committed; a power cut may lose the last commits,
//   never half of one, since a transaction counts only with its checksummed commit frame. A
//   rollback journal needs synchronous=FULL for the same guarantee, and measured so it costs more
//   processor time (6.5 against 4.9 ms for 500 records added together, 120 against 91 ms for 500
//   spread) and at least two fsyncs a commit, which cost far more on a laptop's disk than on the
//   benchmark machine. The log is cut back to 8 MB after each copy.
// - The record counters live in `meta`, so opening reads no table but `fields`; the set of
//   records in use is read on the first call that needs it, or comes with enumerateRecords. With
//   that, opening and reading two fields of 100 000 records costs what plain SQLite does on the
//   same file (10 ms against 9 ms); the metadata cache's whole start, with the names entered in
//   a ResourceManager, takes 50 ms.
// - Prepared statements are kept for the life of the connection, one set per field.
// - The file's application id and user version mark it as a record store of this format; a file
//   that is not SQLite, not ours, of a newer format, or damaged is refused with a
//   ResourceDBException that says which. SQLite itself refuses a file shorter than its header
//   says, and a damaged page when it is read.
//
// Thread contract: every member may be called from any thread; one mutex (_mutex) serialises them.
// It is a leaf: no other lock is taken and no callback runs while it is held, except the function
// given to enumerateRecords, which must not call this object. Two objects on one file (in one
// process or two) work, but a writer holds the file's write lock from its first change to its
// flush, and the other waits up to five seconds for it before failing with a busy error.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Exception.h"
#include "base/thread/Mutex.h"
#include "text/FastString.h"
#include "util/Function.h"

namespace qor {

// A ResourceDB operation failed. reason() tells the kind; the text names the file and what failed.
class ResourceDBException : public CloneableException<ResourceDBException> {
public:
    enum Reason {
        RdbNotFound = 1,  // the file does not exist
        RdbNotADatabase,  // not a SQLite file, or not a record store of this system
        RdbCorrupt,       // damaged or truncated
        RdbVersion,       // written by a newer format
        RdbFieldList,     // a field that the file does not have, or of another type
        RdbNoRecord,      // a record index that is not in use
        RdbNotOpen,       // no file is open
        RdbReadOnly,      // a change to a database opened read-only, or a read-only file
        RdbFull,          // the disk is full
        RdbBusy,          // another connection held the file too long
        RdbIO,            // any other failure of the file or of SQLite
        RdbBadArgument,   // a bad field list, type or buffer
    };

    ResourceDBException(Reason reason, std::string message)
        : CloneableException(std::move(message)), _reason(reason) {}

    Reason reason() const { return _reason; }

private:
    Reason _reason;
};

class ResourceDB {
public:
    using RecordIndex = std::int32_t;

    // Storage types. The void* forms of getFields and setFields take packed arrays of
    // fieldSize(type) bytes a value.
    enum FieldType : int {
        FtInt32 = 3,    // int32_t
        FtInt64 = 4,    // 8 bytes: an int64_t, or any 8-byte value such as GenVec<int,2>, Timestamp
        FtDouble = 7,   // double
        FtVec3d = 9,    // three doubles (GenVec<double,3>)
        FtDigest = 11,  // 16 bytes (Digest)
        FtString = 12,  // text; only through the FastString forms
    };

    // One field of the field list: its storage type and its identifier, unique within the list.
    struct DBFieldDesc {
        int type = FtInt32;
        int id = 0;

        DBFieldDesc() = default;
        DBFieldDesc(int type_, int id_) : type(type_), id(id_) {}
        friend bool operator==(const DBFieldDesc&, const DBFieldDesc&) = default;
    };

    // Bytes a value of `type` takes in the void* forms; 0 for FtString and unknown types.
    static size_t fieldSize(int type);

    // Names the file; opens nothing. `path` is the database file itself; SQLite keeps "-wal" and
    // "-shm" files beside it while it is open.
    explicit ResourceDB(std::string path);
    // Closes; a failure to commit pending changes is logged, and they are lost.
    ~ResourceDB();
    ResourceDB(const ResourceDB&) = delete;
    ResourceDB& operator=(const ResourceDB&) = delete;

    const std::string& path() const { return _path; }

    // Opens the existing file and reads its field list, record count and last index. With
    // readOnly, every change throws RdbReadOnly. Throws RdbNotFound, RdbNotADatabase, RdbCorrupt,
    // RdbVersion or RdbIO; the object is then closed, but keeps the field list if it got as far as
    // reading it (getFieldCount() tells whether the file was one of ours). Closes first when open.
    void open(bool readOnly = false);
    // Makes a new, empty database with this field list and opens it, replacing any file at the
    // path. The new file is built beside the old one and renamed over it, so a crash leaves the
    // old file or the new one. `capacity` is the number of records the caller expects (kept in
    // the file and given by getCapacity); more records may be added. Throws RdbBadArgument for an
    // empty list, a duplicate identifier or an unknown type, and RdbIO when the file can't be made.
    void create(unsigned capacity, const std::vector<DBFieldDesc>& fields);
    // Commits pending changes and closes. Does nothing when closed. Throws as flush() does; the
    // object is closed afterwards in any case.
    void close();
    bool isOpen() const;
    bool isReadOnly() const;

    // Commits the pending changes in one transaction. Does nothing when there are none. On failure
    // the changes are rolled back, the file keeps its previous contents, and it throws RdbFull,
    // RdbReadOnly, RdbBusy or RdbIO.
    void flush();
    // True between the first change and the flush that commits it.
    bool hasPendingChanges() const;

    // Deletes the database file at `path` and SQLite's files beside it. A missing file is no
    // failure. Throws RdbIO when a file exists and can't be removed. Must not be called while an
    // object has the file open.
    static void erase(const std::string& path);

    // Brings the file to this field list and commits at once (with any pending changes): a field
    // whose identifier and type are in both lists keeps all its values, wherever its new position;
    // a field that is new starts unset (zero); a field that is no longer listed, or whose type
    // changed, loses its values. Records and their indices and names stay. Nothing happens when
    // the lists are equal. Throws as create() for a bad list, and as flush().
    void reorganizeFields(const std::vector<DBFieldDesc>& fields);

    unsigned getCapacity() const;
    // Records in use.
    size_t getRecordCount() const;
    // The highest index in use, or -1 when there is no record.
    RecordIndex getLastRecord() const;
    bool hasRecord(RecordIndex index) const;

    // Calls fn(index, name) for every record, by rising index, with the lock held: fn must not
    // call this object.
    void enumerateRecords(const Function2<void, RecordIndex, std::string_view>& fn) const;
    // Fills `indices` with every record's index, by rising index, and `names`, when given, with
    // their names in the same order.
    void enumerateRecords(std::vector<RecordIndex>& indices,
                          std::vector<std::string>* names = nullptr) const;
    // Throws RdbNoRecord for an index not in use.
    std::string getRecordName(RecordIndex index) const;

    // Adds a record with this name and every field unset (zero); gives its index. Names need not
    // be unique: the store never looks a record up by name.
    RecordIndex addRecord(std::string_view name);
    // Removes the record and its values. Throws RdbNoRecord for an index not in use.
    void deleteRecord(RecordIndex index);
    // Gives the record a new name. Throws RdbNoRecord for an index not in use.
    void rename(RecordIndex index, std::string_view name);

    size_t getFieldCount() const;
    std::vector<DBFieldDesc> getFieldList() const;
    // The position of the field with this identifier, or -1 when the list has none.
    int getFieldIndex(int fieldId) const;
    // The storage type of the field at this position. Throws RdbFieldList for a position outside
    // the list.
    FieldType getFieldType(int fieldIndex) const;

    // Reads one field of the records first .. first + count - 1 into `out`, count values of
    // fieldSize(type) bytes. A hole or an unset value reads as zeros. Throws RdbFieldList for a
    // bad position or a string field, RdbBadArgument for a negative first index, RdbNotOpen,
    // RdbCorrupt or RdbIO.
    void getFields(int fieldIndex, RecordIndex first, size_t count, void* out) const;
    // The same for a string field, into count strings.
    void getFields(int fieldIndex, RecordIndex first, size_t count, FastString<char>* out) const;
    // Reads one field of the listed records, in the order listed, into records.size() values.
    void getFields(int fieldIndex, std::span<const RecordIndex> records, void* out) const;
    void getFields(int fieldIndex, std::span<const RecordIndex> records,
                   FastString<char>* out) const;

    // Writes one field of the records first .. first + count - 1 from `values` into the pending
    // transaction. Every record must be in use: otherwise it throws RdbNoRecord and writes
    // nothing. Throws RdbFieldList for a bad position or a type that does not match the form,
    // RdbReadOnly, RdbBusy, RdbFull or RdbIO; after an I/O failure the pending changes are rolled
    // back.
    void setFields(int fieldIndex, RecordIndex first, size_t count, const void* values);
    void setFields(int fieldIndex, RecordIndex first, size_t count, const FastString<char>* values);
    // Writes one field of the listed records from records.size() values, in the order listed.
    void setFields(int fieldIndex, std::span<const RecordIndex> records, const void* values);
    void setFields(int fieldIndex, std::span<const RecordIndex> records,
                   const FastString<char>* values);

private:
    struct Impl;

    const std::string _path;
    mutable Mutex _mutex;  // guards _impl and everything it holds
    std::unique_ptr<Impl> _impl QOR_PT_GUARDED_BY(_mutex);
};

}  // namespace qor
