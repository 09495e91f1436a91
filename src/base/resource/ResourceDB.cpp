#include "base/resource/ResourceDB.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <set>
#include <utility>

#include "base/Log.h"

namespace qor {

namespace {

// Marks a file as one of ours ("qorD") and gives its layout version.
constexpr int ApplicationId = 0x716F7244;
constexpr int FormatVersion = 1;
constexpr int BusyTimeoutMs = 5000;
// Files SQLite keeps beside a database.
constexpr const char* SideSuffixes[] = {"-wal", "-shm", "-journal"};

using Reason = ResourceDBException::Reason;

Reason reasonOf(int code) {
    switch (code & 0xff) {
        case SQLITE_NOTADB:
            return ResourceDBException::RdbNotADatabase;
        case SQLITE_CORRUPT:
            return ResourceDBException::RdbCorrupt;
        case SQLITE_FULL:
            return ResourceDBException::RdbFull;
        case SQLITE_READONLY:
            return ResourceDBException::RdbReadOnly;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return ResourceDBException::RdbBusy;
        default:
            return ResourceDBException::RdbIO;
    }
}

// Logs one line and throws.
[[noreturn]] void fail(const std::string& path, Reason reason, const std::string& what) {
    std::string text = formatLog("ResourceDB '%*': %*", path, what);
    QOR_LOG(LogWarning, "%*", text);
    throw ResourceDBException(reason, std::move(text));
}

[[noreturn]] void failSqlite(const std::string& path, sqlite3* db, int code,
                             const std::string& what) {
    const char* message = db ? sqlite3_errmsg(db) : sqlite3_errstr(code);
    fail(path, reasonOf(code), formatLog("%* failed: %* (%*)", what, message, code));
}

bool knownType(int type) { return ResourceDB::fieldSize(type) > 0 || type == ResourceDB::FtString; }

// An owned prepared statement; reset after each use.
class Statement {
public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(_s); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    Statement(Statement&& o) noexcept : _s(std::exchange(o._s, nullptr)) {}
    Statement& operator=(Statement&& o) noexcept {
        if (this != &o) {
            sqlite3_finalize(_s);
            _s = std::exchange(o._s, nullptr);
        }
        return *this;
    }

    bool prepared() const { return _s != nullptr; }
    sqlite3_stmt* get() const { return _s; }
    sqlite3_stmt** out() { return &_s; }

private:
    sqlite3_stmt* _s = nullptr;
};

// Resets and clears a statement's bindings at the end of a scope.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* s) : _s(s) {}
    ~StatementUse() {
        sqlite3_reset(_s);
        sqlite3_clear_bindings(_s);
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

private:
    sqlite3_stmt* _s;
};

std::string tableName(int table) { return "v" + std::to_string(table); }

}  // namespace

struct ResourceDB::Impl {
    struct Field {
        DBFieldDesc desc;
        int table = 0;          // number of its value table
        Statement selectRange;  // idx, v from ?1 on
        Statement selectOne;    // v of ?1
        Statement write;        // set v of ?1 to ?2
        Statement erase;        // drop the value of ?1
    };
    // What a rolled-back transaction must restore.
    struct Snapshot {
        std::vector<bool> live;
        size_t count = 0;
        RecordIndex last = -1;
    };

    std::string path;
    sqlite3* db = nullptr;
    bool readOnly = false;
    bool inTransaction = false;
    unsigned capacity = 0;
    int nextTable = 0;
    std::vector<Field> fields;  // by position; kept after close
    // Records in use, by index, read on first need (start-up reads need only the counters);
    // count and highest index in use; the index the next record gets. The file keeps the three
    // counters in `meta`, as of the last commit (stored*).
    std::vector<bool> live;
    bool liveLoaded = false;
    size_t count = 0;
    RecordIndex last = -1;
    RecordIndex next = 0;
    size_t storedCount = 0;
    RecordIndex storedLast = -1;
    RecordIndex storedNext = 0;
    Snapshot before;  // at the start of the pending transaction

    Statement beginStmt, commitStmt, rollbackStmt;
    Statement insertRecord, deleteRecord, renameRecord, selectName, setMeta;

    ~Impl() { closeConnection(); }

    [[noreturn]] void failCode(int code, const std::string& what) const {
        failSqlite(path, db, code, what);
    }
    void requireOpen() const {
        if (!db) fail(path, ResourceDBException::RdbNotOpen, "the database is not open");
    }

    void exec(const char* sql, const char* what) {
        char* error = nullptr;
        int rc = sqlite3_exec(db, sql, nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            std::string message = error ? error : sqlite3_errstr(rc);
            sqlite3_free(error);
            fail(path, reasonOf(rc), formatLog("%* failed: %* (%*)", what, message, rc));
        }
    }
    sqlite3_stmt* prepare(Statement& s, const std::string& sql) {
        if (!s.prepared()) {
            int rc = sqlite3_prepare_v3(db, sql.c_str(), int(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                        s.out(), nullptr);
            if (rc != SQLITE_OK) failCode(rc, "preparing '" + sql + "'");
        }
        return s.get();
    }
    // Runs a statement that returns no rows.
    void stepDone(sqlite3_stmt* s, const char* what) {
        int rc = sqlite3_step(s);
        if (rc != SQLITE_DONE) failCode(rc, what);
    }
    int64_t queryInt(const char* sql, const char* what) {
        Statement s;
        prepare(s, sql);
        int rc = sqlite3_step(s.get());
        if (rc != SQLITE_ROW) failCode(rc == SQLITE_DONE ? SQLITE_CORRUPT : rc, what);
        return sqlite3_column_int64(s.get(), 0);
    }

    void closeConnection() {
        for (Field& f : fields) {
            f.selectRange = Statement();
            f.selectOne = Statement();
            f.write = Statement();
            f.erase = Statement();
        }
        for (Statement* s : {&beginStmt, &commitStmt, &rollbackStmt, &insertRecord, &deleteRecord,
                             &renameRecord, &selectName, &setMeta})
            *s = Statement();
        if (db) sqlite3_close_v2(db);
        db = nullptr;
        inTransaction = false;
    }

    bool isLive(RecordIndex i) {
        ensureLive();
        return i >= 0 && size_t(i) < live.size() && live[i];
    }

    // ---- transactions ----

    void beginWrite() {
        requireOpen();
        if (readOnly)
            fail(path, ResourceDBException::RdbReadOnly, "change to a database opened read-only");
        if (inTransaction) return;
        ensureLive();
        int rc = sqlite3_step(prepare(beginStmt, "BEGIN IMMEDIATE"));
        sqlite3_reset(beginStmt.get());
        if (rc != SQLITE_DONE) failCode(rc, "starting a transaction");
        inTransaction = true;
        before = Snapshot{live, count, last};
    }
    // Drops the pending changes, in the file and in memory.
    void rollback() {
        if (!inTransaction) return;
        if (db && !sqlite3_get_autocommit(db)) {
            sqlite3_step(prepare(rollbackStmt, "ROLLBACK"));
            sqlite3_reset(rollbackStmt.get());
        }
        inTransaction = false;
        live = std::move(before.live);
        count = before.count;
        last = before.last;
        // Indices given in the dropped transaction stay used (the next commit stores the
        // counter): their callers may still hold them.
    }
    void commit() {
        if (!inTransaction) return;
        try {
            storeCounter("next", next, storedNext);
            storeCounter("count", int64_t(count), int64_t(storedCount));
            storeCounter("last", last, storedLast);
            int rc = sqlite3_step(prepare(commitStmt, "COMMIT"));
            sqlite3_reset(commitStmt.get());
            if (rc != SQLITE_DONE) failCode(rc, "committing");
        } catch (...) {
            rollback();
            throw;
        }
        inTransaction = false;
        storedNext = next;
        storedCount = count;
        storedLast = last;
        before = Snapshot();
    }
    void storeCounter(const char* key, int64_t value, int64_t stored) {
        if (value == stored) return;
        sqlite3_stmt* s =
            prepare(setMeta, "INSERT OR REPLACE INTO meta(key, value) VALUES(?1, ?2)");
        StatementUse use(s);
        sqlite3_bind_text(s, 1, key, -1, SQLITE_STATIC);
        sqlite3_bind_int64(s, 2, value);
        stepDone(s, "storing the record counters");
    }
    // Runs fn inside the pending transaction; a failure of SQLite rolls it back, since SQLite
    // may already have dropped part of it.
    template <class Fn>
    void write(Fn&& fn) {
        beginWrite();
        try {
            fn();
        } catch (const ResourceDBException& e) {
            if (e.reason() != ResourceDBException::RdbNoRecord &&
                e.reason() != ResourceDBException::RdbBadArgument)
                rollback();
            throw;
        }
    }

    // ---- field list ----

    void validate(const std::vector<DBFieldDesc>& list) const {
        if (list.empty()) fail(path, ResourceDBException::RdbBadArgument, "empty field list");
        std::set<int> ids;
        for (const DBFieldDesc& d : list) {
            if (!knownType(d.type))
                fail(path, ResourceDBException::RdbBadArgument,
                     formatLog("field %* has the unknown type %*", d.id, d.type));
            if (!ids.insert(d.id).second)
                fail(path, ResourceDBException::RdbBadArgument,
                     formatLog("field %* is listed twice", d.id));
        }
    }
    const Field& field(int index) const {
        if (index < 0 || size_t(index) >= fields.size())
            fail(path, ResourceDBException::RdbFieldList,
                 formatLog("no field at position %* (the file has %*)", index, fields.size()));
        return fields[index];
    }
    Field& checkedField(int index, bool text) {
        const Field& f = field(index);
        if ((f.desc.type == FtString) != text)
            fail(path, ResourceDBException::RdbFieldList,
                 formatLog("field %* has type %*, which the %* form doesn't take", f.desc.id,
                           f.desc.type, text ? "text" : "binary"));
        return const_cast<Field&>(f);
    }

    void readFieldList() {
        fields.clear();
        Statement s;
        prepare(s, "SELECT id, type, tab FROM fields ORDER BY pos");
        int rc;
        while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
            Field f;
            f.desc = DBFieldDesc(sqlite3_column_int(s.get(), 1), sqlite3_column_int(s.get(), 0));
            f.table = sqlite3_column_int(s.get(), 2);
            fields.push_back(std::move(f));
        }
        if (rc != SQLITE_DONE) failCode(rc, "reading the field list");
        std::vector<DBFieldDesc> list;
        for (const Field& f : fields) list.push_back(f.desc);
        try {
            validate(list);
        } catch (const ResourceDBException& e) {
            fail(path, ResourceDBException::RdbCorrupt,
                 std::string("bad field list in the file: ") + e.what());
        }
    }
    void writeFieldList() {
        exec("DELETE FROM fields", "clearing the field list");
        Statement s;
        prepare(s, "INSERT INTO fields(pos, id, type, tab) VALUES(?1, ?2, ?3, ?4)");
        for (size_t i = 0; i < fields.size(); ++i) {
            StatementUse use(s.get());
            sqlite3_bind_int(s.get(), 1, int(i));
            sqlite3_bind_int(s.get(), 2, fields[i].desc.id);
            sqlite3_bind_int(s.get(), 3, fields[i].desc.type);
            sqlite3_bind_int(s.get(), 4, fields[i].table);
            stepDone(s.get(), "writing the field list");
        }
        Statement m;
        prepare(m, "INSERT OR REPLACE INTO meta(key, value) VALUES('tables', ?1)");
        sqlite3_bind_int(m.get(), 1, nextTable);
        stepDone(m.get(), "writing the table counter");
    }
    void createTable(int table) {
        std::string sql = "CREATE TABLE " + tableName(table) + "(idx INTEGER PRIMARY KEY, v)";
        exec(sql.c_str(), "creating a field table");
    }

    // ---- opening ----

    // Rejects a missing file, and an empty one, which SQLite would take for a new database.
    // SQLite itself refuses the rest: a file that is not SQLite, and one shorter than its
    // header says.
    void checkFile() {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) {
            if (errno == ENOENT) fail(path, ResourceDBException::RdbNotFound, "no such file");
            fail(path, ResourceDBException::RdbIO,
                 formatLog("can't read the file: %*", std::strerror(errno)));
        }
        if (st.st_size == 0) fail(path, ResourceDBException::RdbCorrupt, "the file is empty");
    }

    // Drops pending changes, closes, and forgets the field list and the records.
    void forget() {
        rollback();
        closeConnection();
        fields.clear();
        live.clear();
        liveLoaded = false;
    }
    void openFile(bool ro) {
        try {
            checkFile();
            openConnection(ro);
            load();
        } catch (...) {
            closeConnection();
            throw;
        }
    }

    void openConnection(bool ro) {
        readOnly = ro;
        int flags = (ro ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) | SQLITE_OPEN_NOMUTEX;
        int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
        if (rc != SQLITE_OK) {
            std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
            closeConnection();
            fail(path, (rc & 0xff) == SQLITE_CANTOPEN ? ResourceDBException::RdbIO : reasonOf(rc),
                 "can't open: " + message);
        }
        sqlite3_extended_result_codes(db, 1);
        sqlite3_busy_timeout(db, BusyTimeoutMs);
    }

    void load() {
        // The first read of the file: SQLite answers SQLITE_NOTADB for a file it can't read.
        int64_t appId = queryInt("PRAGMA application_id", "reading the file's header");
        if (appId != ApplicationId)
            fail(path, ResourceDBException::RdbNotADatabase,
                 "the file is a database of another kind");
        int64_t version = queryInt("PRAGMA user_version", "reading the format version");
        if (version > FormatVersion)
            fail(path, ResourceDBException::RdbVersion,
                 formatLog("written in format %*, newer than %*", version, FormatVersion));
        if (version < 1)
            fail(path, ResourceDBException::RdbCorrupt,
                 formatLog("unknown format version %*", version));
        if (!readOnly) {
            exec("PRAGMA journal_mode=WAL", "choosing the write-ahead log");
            exec("PRAGMA synchronous=NORMAL", "choosing the sync mode");
            // A flush of records spread over the file can log tens of megabytes; the log is
            // cut back to this size after its pages are copied into the file.
            exec("PRAGMA journal_size_limit=8388608", "limiting the log");
        }
        readFieldList();
        capacity = unsigned(
            queryInt("SELECT value FROM meta WHERE key='capacity'", "reading the capacity"));
        nextTable =
            int(queryInt("SELECT value FROM meta WHERE key='tables'", "reading the table counter"));
        storedNext = next = RecordIndex(
            queryInt("SELECT value FROM meta WHERE key='next'", "reading the record counters"));
        storedCount = count = size_t(
            queryInt("SELECT value FROM meta WHERE key='count'", "reading the record counters"));
        storedLast = last = RecordIndex(
            queryInt("SELECT value FROM meta WHERE key='last'", "reading the record counters"));
        if (next < 0 || last >= next || count > size_t(last + 1))
            fail(path, ResourceDBException::RdbCorrupt,
                 formatLog("bad record counters %*, %*, %*", next, count, last));
    }

    // Builds the set of records in use from the indices of a scan of `records` (statement s,
    // column 0), calling each(row) for every row; checks it against the counters.
    template <class Each>
    void scanRecords(sqlite3_stmt* s, Each&& each) {
        std::vector<bool> found(std::max<size_t>(capacity, size_t(next)), false);
        size_t n = 0;
        RecordIndex highest = -1;
        int rc;
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
            int64_t i = sqlite3_column_int64(s, 0);
            if (i < 0 || i >= next)
                fail(path, ResourceDBException::RdbCorrupt,
                     formatLog("record index %* outside 0 to %*", i, next - 1));
            found[size_t(i)] = true;
            ++n;
            highest = std::max(highest, RecordIndex(i));
            each(s);
        }
        if (rc != SQLITE_DONE) failCode(rc, "reading the records");
        if (liveLoaded) return;
        if (n != count || highest != last)
            fail(path, ResourceDBException::RdbCorrupt,
                 formatLog("%* records up to %*, where the counters say %* up to %*", n, highest,
                           count, last));
        live = std::move(found);
        liveLoaded = true;
    }
    void ensureLive() {
        if (liveLoaded || !db) return;
        Statement s;
        prepare(s, "SELECT idx FROM records");
        scanRecords(s.get(), [](sqlite3_stmt*) {});
    }

    // ---- values ----

    // Copies the value of column `col` of a row into `out` (fieldSize(type) bytes).
    void readValue(sqlite3_stmt* s, int col, int type, unsigned char* out) const {
        switch (type) {
            case FtInt32: {
                int32_t v = sqlite3_column_int(s, col);
                std::memcpy(out, &v, 4);
                return;
            }
            case FtInt64:
            case FtDouble: {
                int64_t v = sqlite3_column_int64(s, col);
                std::memcpy(out, &v, 8);
                return;
            }
            default: {
                size_t size = fieldSize(type);
                const void* blob = sqlite3_column_blob(s, col);
                int bytes = sqlite3_column_bytes(s, col);
                if (blob && size_t(bytes) == size) {
                    std::memcpy(out, blob, size);
                } else if (bytes != 0) {
                    fail(path, ResourceDBException::RdbCorrupt,
                         formatLog("a value of %* bytes where %* belong", bytes, size));
                }
            }
        }
    }
    static void bindValue(sqlite3_stmt* s, int col, int type, const unsigned char* in) {
        switch (type) {
            case FtInt32: {
                int32_t v;
                std::memcpy(&v, in, 4);
                sqlite3_bind_int(s, col, v);
                return;
            }
            case FtInt64:
            case FtDouble: {
                int64_t v;
                std::memcpy(&v, in, 8);
                sqlite3_bind_int64(s, col, v);
                return;
            }
            default:
                sqlite3_bind_blob(s, col, in, int(fieldSize(type)), SQLITE_STATIC);
        }
    }
    static FastString<char> readText(sqlite3_stmt* s, int col) {
        const unsigned char* text = sqlite3_column_text(s, col);
        if (!text) return FastString<char>();
        return FastString<char>(std::string_view(reinterpret_cast<const char*>(text),
                                                 size_t(sqlite3_column_bytes(s, col))));
    }

    sqlite3_stmt* selectRange(Field& f) {
        return prepare(f.selectRange,
                       "SELECT idx, v FROM " + tableName(f.table) + " WHERE idx >= ?1");
    }
    sqlite3_stmt* selectOne(Field& f) {
        return prepare(f.selectOne, "SELECT v FROM " + tableName(f.table) + " WHERE idx = ?1");
    }
    sqlite3_stmt* writeValue(Field& f) {
        return prepare(f.write,
                       "INSERT OR REPLACE INTO " + tableName(f.table) + "(idx, v) VALUES(?1, ?2)");
    }
    sqlite3_stmt* eraseValue(Field& f) {
        return prepare(f.erase, "DELETE FROM " + tableName(f.table) + " WHERE idx = ?1");
    }

    // Reads a run of records: calls put(offset, statement, column) for each stored value.
    template <class Put>
    void readRun(Field& f, RecordIndex first, size_t count, Put&& put) {
        if (first < 0)
            fail(path, ResourceDBException::RdbBadArgument,
                 formatLog("negative record index %*", first));
        sqlite3_stmt* s = selectRange(f);
        StatementUse use(s);
        sqlite3_bind_int64(s, 1, first);
        // Rows come by rising index; the scan stops after the run (one comparison a row less
        // than a bound in the query).
        int rc;
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
            size_t at = size_t(sqlite3_column_int64(s, 0) - first);
            if (at >= count) return;
            put(at, s, 1);
        }
        if (rc != SQLITE_DONE) failCode(rc, "reading a field");
    }
    // Reads listed records: calls put(position, statement, column) for each stored value.
    template <class Put>
    void readList(Field& f, std::span<const RecordIndex> records, Put&& put) {
        sqlite3_stmt* s = selectOne(f);
        for (size_t i = 0; i < records.size(); ++i) {
            StatementUse use(s);
            sqlite3_bind_int64(s, 1, records[i]);
            int rc = sqlite3_step(s);
            if (rc == SQLITE_ROW) {
                put(i, s, 0);
            } else if (rc != SQLITE_DONE) {
                failCode(rc, "reading a field");
            }
        }
    }
    // The getFields forms: n values of one field into `out`, the stored ones through scan(field,
    // put), the rest zero.
    template <class Scan>
    void getBinary(int fieldIndex, size_t n, void* out, Scan&& scan) {
        requireOpen();
        Field& f = checkedField(fieldIndex, false);
        const int type = f.desc.type;
        const size_t size = fieldSize(type);
        auto* bytes = static_cast<unsigned char*>(out);
        std::memset(bytes, 0, size * n);
        scan(f, [&](size_t at, sqlite3_stmt* s, int col) {
            readValue(s, col, type, bytes + at * size);
        });
    }
    template <class Scan>
    void getText(int fieldIndex, size_t n, FastString<char>* out, Scan&& scan) {
        requireOpen();
        Field& f = checkedField(fieldIndex, true);
        std::fill(out, out + n, FastString<char>());
        scan(f, [&](size_t at, sqlite3_stmt* s, int col) { out[at] = readText(s, col); });
    }

    void requireRecord(RecordIndex index) {
        if (!isLive(index))
            fail(path, ResourceDBException::RdbNoRecord, formatLog("no record %*", index));
    }
    // The setFields forms: writes n values of one field, the i-th to record recordAt(i), after
    // checking that every record is in use.
    template <class RecordAt>
    void setBinary(int fieldIndex, size_t n, RecordAt&& recordAt, const void* values) {
        requireOpen();
        Field& f = checkedField(fieldIndex, false);
        const int type = f.desc.type;
        const size_t size = fieldSize(type);
        auto* bytes = static_cast<const unsigned char*>(values);
        writeValues(f, n, recordAt,
                    [&](sqlite3_stmt* s, size_t i) { bindValue(s, 2, type, bytes + i * size); });
    }
    template <class RecordAt>
    void setText(int fieldIndex, size_t n, RecordAt&& recordAt, const FastString<char>* values) {
        requireOpen();
        Field& f = checkedField(fieldIndex, true);
        writeValues(f, n, recordAt, [&](sqlite3_stmt* s, size_t i) {
            sqlite3_bind_text(s, 2, values[i].data(), int(values[i].size()), SQLITE_STATIC);
        });
    }
    template <class RecordAt, class Bind>
    void writeValues(Field& f, size_t n, RecordAt&& recordAt, Bind&& bind) {
        for (size_t i = 0; i < n; ++i) {
            int64_t r = recordAt(i);
            if (r > std::numeric_limits<RecordIndex>::max() || !isLive(RecordIndex(r)))
                fail(path, ResourceDBException::RdbNoRecord, formatLog("no record %*", r));
        }
        write([&] {
            sqlite3_stmt* s = writeValue(f);
            for (size_t i = 0; i < n; ++i) {
                StatementUse use(s);
                sqlite3_bind_int64(s, 1, recordAt(i));
                bind(s, i);
                stepDone(s, "writing a field");
            }
        });
    }
};

size_t ResourceDB::fieldSize(int type) {
    switch (type) {
        case FtInt32:
            return 4;
        case FtInt64:
            return 8;
        case FtDouble:
            return 8;
        case FtVec3d:
            return 24;
        case FtDigest:
            return 16;
        default:
            return 0;
    }
}

ResourceDB::ResourceDB(std::string path) : _path(std::move(path)), _impl(std::make_unique<Impl>()) {
    _impl->path = _path;
}

ResourceDB::~ResourceDB() {
    try {
        close();
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "ResourceDB '%*': changes lost on closing: %*", _path, e.what());
    }
}

void ResourceDB::open(bool readOnly) {
    ScopedLock lock(_mutex);
    _impl->forget();
    _impl->openFile(readOnly);
}

void ResourceDB::create(unsigned capacity, const std::vector<DBFieldDesc>& fields) {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    d.validate(fields);
    d.forget();

    // Built under another name and renamed over the path, so a crash leaves a whole file.
    const std::string temp = _path + ".new-" + std::to_string(::getpid());
    for (const std::string& p : {temp, temp + "-wal", temp + "-shm", temp + "-journal"})
        ::unlink(p.c_str());
    {
        Impl n;
        n.path = temp;
        int rc = sqlite3_open_v2(temp.c_str(), &n.db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc != SQLITE_OK) {
            std::string message = n.db ? sqlite3_errmsg(n.db) : sqlite3_errstr(rc);
            n.closeConnection();
            ::unlink(temp.c_str());
            fail(_path, ResourceDBException::RdbIO, "can't create the file: " + message);
        }
        try {
            n.exec("PRAGMA journal_mode=WAL", "choosing the write-ahead log");
            n.exec("PRAGMA synchronous=FULL", "choosing the sync mode");
            n.exec(("PRAGMA application_id=" + std::to_string(ApplicationId)).c_str(),
                   "marking the file");
            n.exec(("PRAGMA user_version=" + std::to_string(FormatVersion)).c_str(),
                   "marking the format");
            n.exec("BEGIN", "starting the file");
            n.exec(
                "CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);"
                "CREATE TABLE fields(pos INTEGER PRIMARY KEY, id INTEGER NOT NULL UNIQUE,"
                " type INTEGER NOT NULL, tab INTEGER NOT NULL);"
                "CREATE TABLE records(idx INTEGER PRIMARY KEY, name TEXT NOT NULL);",
                "creating the tables");
            for (const DBFieldDesc& desc : fields) {
                Impl::Field f;
                f.desc = desc;
                f.table = n.nextTable++;
                n.createTable(f.table);
                n.fields.push_back(std::move(f));
            }
            n.writeFieldList();
            n.exec(("INSERT INTO meta(key, value) VALUES('capacity', " + std::to_string(capacity) +
                    "), ('next', 0), ('count', 0), ('last', -1)")
                       .c_str(),
                   "writing the counters");
            n.exec("COMMIT", "writing the file");
            // Moves everything from the log into the file, so the file alone is the database.
            n.exec("PRAGMA wal_checkpoint(TRUNCATE)", "completing the file");
            n.closeConnection();
        } catch (...) {
            n.closeConnection();
            for (const std::string& p : {temp, temp + "-wal", temp + "-shm"}) ::unlink(p.c_str());
            throw;
        }
    }
    // A log of the old file must not be applied to the new one.
    for (const char* suffix : SideSuffixes) ::unlink((_path + suffix).c_str());
    for (const char* suffix : SideSuffixes) ::unlink((temp + suffix).c_str());
    if (::rename(temp.c_str(), _path.c_str()) != 0) {
        int error = errno;
        ::unlink(temp.c_str());
        fail(_path, ResourceDBException::RdbIO,
             formatLog("can't put the new file in place: %*", std::strerror(error)));
    }
    std::string dir = _path.find('/') == std::string::npos
                          ? std::string(".")
                          : _path.substr(0, std::max<size_t>(_path.rfind('/'), 1));
    int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    d.openFile(false);
}

void ResourceDB::close() {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    if (!d.db) return;
    try {
        d.commit();
    } catch (...) {
        d.closeConnection();
        throw;
    }
    d.closeConnection();
}

bool ResourceDB::isOpen() const {
    ScopedLock lock(_mutex);
    return _impl->db != nullptr;
}

bool ResourceDB::isReadOnly() const {
    ScopedLock lock(_mutex);
    return _impl->readOnly;
}

void ResourceDB::flush() {
    ScopedLock lock(_mutex);
    _impl->requireOpen();
    _impl->commit();
}

bool ResourceDB::hasPendingChanges() const {
    ScopedLock lock(_mutex);
    return _impl->inTransaction;
}

void ResourceDB::erase(const std::string& path) {
    std::vector<std::string> files{path};
    for (const char* suffix : SideSuffixes) files.push_back(path + suffix);
    for (const std::string& p : files) {
        if (::unlink(p.c_str()) != 0 && errno != ENOENT)
            fail(path, ResourceDBException::RdbIO,
                 formatLog("can't remove '%*': %*", p, std::strerror(errno)));
    }
}

void ResourceDB::reorganizeFields(const std::vector<DBFieldDesc>& fields) {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    d.requireOpen();
    d.validate(fields);
    std::vector<DBFieldDesc> present;
    for (const Impl::Field& f : d.fields) present.push_back(f.desc);
    if (present == fields) return;

    // On failure the file keeps the old list, and so does this object.
    std::vector<std::pair<DBFieldDesc, int>> old;
    for (const Impl::Field& f : d.fields) old.emplace_back(f.desc, f.table);
    const int oldNextTable = d.nextTable;
    auto setFields = [&](const std::vector<std::pair<DBFieldDesc, int>>& list) {
        d.fields.clear();  // finalizes the statements on the old tables
        for (const auto& [desc, table] : list) {
            Impl::Field f;
            f.desc = desc;
            f.table = table;
            d.fields.push_back(std::move(f));
        }
    };
    try {
        d.write([&] {
            std::vector<std::pair<DBFieldDesc, int>> list;
            std::vector<bool> kept(old.size(), false);
            for (const DBFieldDesc& desc : fields) {
                auto match = std::find_if(old.begin(), old.end(),
                                          [&](const auto& o) { return o.first == desc; });
                if (match != old.end()) {
                    kept[size_t(match - old.begin())] = true;
                    list.emplace_back(desc, match->second);
                } else {
                    list.emplace_back(desc, d.nextTable++);
                }
            }
            setFields(list);
            for (size_t i = 0; i < old.size(); ++i) {
                if (kept[i]) continue;
                std::string sql = "DROP TABLE " + tableName(old[i].second);
                d.exec(sql.c_str(), "dropping a field table");
            }
            for (const auto& [desc, table] : list) {
                if (table >= oldNextTable) d.createTable(table);
            }
            d.writeFieldList();
        });
        d.commit();
    } catch (...) {
        d.rollback();
        d.nextTable = oldNextTable;
        setFields(old);
        throw;
    }
    QOR_LOG(LogInfo, "ResourceDB '%*': field list changed from %* to %* fields", _path, old.size(),
            fields.size());
}

unsigned ResourceDB::getCapacity() const {
    ScopedLock lock(_mutex);
    return _impl->capacity;
}

size_t ResourceDB::getRecordCount() const {
    ScopedLock lock(_mutex);
    return _impl->count;
}

ResourceDB::RecordIndex ResourceDB::getLastRecord() const {
    ScopedLock lock(_mutex);
    return _impl->last;
}

bool ResourceDB::hasRecord(RecordIndex index) const {
    ScopedLock lock(_mutex);
    _impl->requireOpen();
    return _impl->isLive(index);
}

void ResourceDB::enumerateRecords(const Function2<void, RecordIndex, std::string_view>& fn) const {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    d.requireOpen();
    Statement s;
    d.prepare(s, "SELECT idx, name FROM records ORDER BY idx");
    // The scan also gives the set of records in use, if it was not read yet.
    d.scanRecords(s.get(), [&](sqlite3_stmt* row) {
        const unsigned char* name = sqlite3_column_text(row, 1);
        fn(RecordIndex(sqlite3_column_int64(row, 0)),
           std::string_view(name ? reinterpret_cast<const char*>(name) : "",
                            size_t(sqlite3_column_bytes(row, 1))));
    });
}

void ResourceDB::enumerateRecords(std::vector<RecordIndex>& indices,
                                  std::vector<std::string>* names) const {
    indices.clear();
    if (names) names->clear();
    enumerateRecords([&](RecordIndex i, std::string_view name) {
        indices.push_back(i);
        if (names) names->emplace_back(name);
    });
}

std::string ResourceDB::getRecordName(RecordIndex index) const {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    d.requireOpen();
    d.requireRecord(index);
    sqlite3_stmt* s = d.prepare(d.selectName, "SELECT name FROM records WHERE idx = ?1");
    StatementUse use(s);
    sqlite3_bind_int64(s, 1, index);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_ROW) d.failCode(rc == SQLITE_DONE ? SQLITE_CORRUPT : rc, "reading a name");
    return Impl::readText(s, 0).str();
}

ResourceDB::RecordIndex ResourceDB::addRecord(std::string_view name) {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    RecordIndex index = -1;
    d.write([&] {
        if (d.next == std::numeric_limits<RecordIndex>::max())
            fail(_path, ResourceDBException::RdbFull, "no record index left");
        sqlite3_stmt* s =
            d.prepare(d.insertRecord, "INSERT INTO records(idx, name) VALUES(?1, ?2)");
        StatementUse use(s);
        sqlite3_bind_int64(s, 1, d.next);
        sqlite3_bind_text(s, 2, name.data(), int(name.size()), SQLITE_STATIC);
        d.stepDone(s, "adding a record");
        index = d.next++;
        if (size_t(index) >= d.live.size())
            d.live.resize(std::max<size_t>(index + 1, d.live.size() * 2), false);
        d.live[index] = true;
        ++d.count;
        d.last = std::max(d.last, index);
    });
    return index;
}

void ResourceDB::deleteRecord(RecordIndex index) {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    d.requireOpen();
    d.requireRecord(index);
    d.write([&] {
        for (Impl::Field& f : d.fields) {
            sqlite3_stmt* s = d.eraseValue(f);
            StatementUse use(s);
            sqlite3_bind_int64(s, 1, index);
            d.stepDone(s, "deleting a value");
        }
        sqlite3_stmt* s = d.prepare(d.deleteRecord, "DELETE FROM records WHERE idx = ?1");
        StatementUse use(s);
        sqlite3_bind_int64(s, 1, index);
        d.stepDone(s, "deleting a record");
        d.live[index] = false;
        --d.count;
        while (d.last >= 0 && !d.live[d.last]) --d.last;
    });
}

void ResourceDB::rename(RecordIndex index, std::string_view name) {
    ScopedLock lock(_mutex);
    Impl& d = *_impl;
    d.requireOpen();
    d.requireRecord(index);
    d.write([&] {
        sqlite3_stmt* s = d.prepare(d.renameRecord, "UPDATE records SET name = ?2 WHERE idx = ?1");
        StatementUse use(s);
        sqlite3_bind_int64(s, 1, index);
        sqlite3_bind_text(s, 2, name.data(), int(name.size()), SQLITE_STATIC);
        d.stepDone(s, "renaming a record");
    });
}

size_t ResourceDB::getFieldCount() const {
    ScopedLock lock(_mutex);
    return _impl->fields.size();
}

std::vector<ResourceDB::DBFieldDesc> ResourceDB::getFieldList() const {
    ScopedLock lock(_mutex);
    std::vector<DBFieldDesc> list;
    for (const Impl::Field& f : _impl->fields) list.push_back(f.desc);
    return list;
}

int ResourceDB::getFieldIndex(int fieldId) const {
    ScopedLock lock(_mutex);
    const auto& fields = _impl->fields;
    for (size_t i = 0; i < fields.size(); ++i)
        if (fields[i].desc.id == fieldId) return int(i);
    return -1;
}

ResourceDB::FieldType ResourceDB::getFieldType(int fieldIndex) const {
    ScopedLock lock(_mutex);
    return FieldType(_impl->field(fieldIndex).desc.type);
}

void ResourceDB::getFields(int fieldIndex, RecordIndex first, size_t count, void* out) const {
    ScopedLock lock(_mutex);
    _impl->getBinary(fieldIndex, count, out,
                     [&](Impl::Field& f, auto put) { _impl->readRun(f, first, count, put); });
}

void ResourceDB::getFields(int fieldIndex, RecordIndex first, size_t count,
                           FastString<char>* out) const {
    ScopedLock lock(_mutex);
    _impl->getText(fieldIndex, count, out,
                   [&](Impl::Field& f, auto put) { _impl->readRun(f, first, count, put); });
}

void ResourceDB::getFields(int fieldIndex, std::span<const RecordIndex> records, void* out) const {
    ScopedLock lock(_mutex);
    _impl->getBinary(fieldIndex, records.size(), out,
                     [&](Impl::Field& f, auto put) { _impl->readList(f, records, put); });
}

void ResourceDB::getFields(int fieldIndex, std::span<const RecordIndex> records,
                           FastString<char>* out) const {
    ScopedLock lock(_mutex);
    _impl->getText(fieldIndex, records.size(), out,
                   [&](Impl::Field& f, auto put) { _impl->readList(f, records, put); });
}

void ResourceDB::setFields(int fieldIndex, RecordIndex first, size_t count, const void* values) {
    ScopedLock lock(_mutex);
    _impl->setBinary(
        fieldIndex, count, [&](size_t i) { return int64_t(first) + int64_t(i); }, values);
}

void ResourceDB::setFields(int fieldIndex, RecordIndex first, size_t count,
                           const FastString<char>* values) {
    ScopedLock lock(_mutex);
    _impl->setText(
        fieldIndex, count, [&](size_t i) { return int64_t(first) + int64_t(i); }, values);
}

void ResourceDB::setFields(int fieldIndex, std::span<const RecordIndex> records,
                           const void* values) {
    ScopedLock lock(_mutex);
    _impl->setBinary(
        fieldIndex, records.size(), [&](size_t i) { return int64_t(records[i]); }, values);
}

void ResourceDB::setFields(int fieldIndex, std::span<const RecordIndex> records,
                           const FastString<char>* values) {
    ScopedLock lock(_mutex);
    _impl->setText(
        fieldIndex, records.size(), [&](size_t i) { return int64_t(records[i]); }, values);
}

}  // namespace qor
