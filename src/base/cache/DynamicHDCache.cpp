#include "base/cache/DynamicHDCache.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/thread/Mutex.h"

namespace qor {

namespace {

// Marks a database as a blob cache of this system ("qorH") and gives its layout version.
constexpr int ApplicationId = 0x716F7248;
constexpr int FormatVersion = 1;
constexpr const char* DatabaseName = "blobs.db";
constexpr const char* LockName = "lock";
constexpr const char* SideSuffixes[] = {"-wal", "-shm", "-journal"};
// The store being built, beside the database, until it is renamed into place.
constexpr const char* BuildingSuffix = ".new";
// Uses noted by get() are written with the next change, or on their own once this many wait.
constexpr size_t DeferredUseLimit = 64;
// The log is cut back to this size after its pages are copied into the database.
constexpr int64_t LogSizeLimit = 4 << 20;

// A failed SQLite call: its result code and what was being done.
struct SqlFailure {
    int code;
    std::string what;
};

// A failure that makes the database unusable as a cache of ours: it is recreated. No reason
// when there is no database yet.
struct DamagedStore {
    std::string why;
};

bool isDamage(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT || primary == SQLITE_SCHEMA ||
           primary == SQLITE_ERROR;
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

struct Finalize {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, Finalize>;

// Binds `size` bytes; SQLite would bind a null pointer as NULL, so an empty blob is bound as a
// zero-length blob.
void bindBytes(sqlite3_stmt* s, int index, const void* data, size_t size) {
    if (size == 0)
        sqlite3_bind_zeroblob(s, index, 0);
    else
        sqlite3_bind_blob64(s, index, data, sqlite3_uint64(size), SQLITE_STATIC);
}

std::string columnBytes(sqlite3_stmt* s, int column) {
    const void* p = sqlite3_column_blob(s, column);
    const int n = sqlite3_column_bytes(s, column);
    return p ? std::string(static_cast<const char*>(p), size_t(n)) : std::string();
}

}  // namespace

// The store: blobs in one SQLite database in the folder, with the index of the entries (key, size,
// last use) kept in memory and in the database. Every change is one transaction.
class DynamicHDCache::Store {
public:
    Store(std::string folder, uint64_t byteLimit);
    ~Store();

    bool get(std::string_view key, std::string& out) QOR_EXCLUDES(_mutex);
    bool contains(std::string_view key) QOR_EXCLUDES(_mutex);
    bool put(std::string_view key, const void* data, size_t size) QOR_EXCLUDES(_mutex);
    bool remove(std::string_view key) QOR_EXCLUDES(_mutex);
    size_t removePrefix(std::string_view prefix) QOR_EXCLUDES(_mutex);
    size_t renamePrefix(std::string_view from, std::string_view to) QOR_EXCLUDES(_mutex);
    void clear() QOR_EXCLUDES(_mutex);
    uint64_t byteSize() const QOR_EXCLUDES(_mutex);
    size_t count() const QOR_EXCLUDES(_mutex);
    uint64_t byteLimit() const QOR_EXCLUDES(_mutex);
    void setByteLimit(uint64_t limit) QOR_EXCLUDES(_mutex);
    const std::string& folder() const { return _folder; }

private:
    struct Entry {
        int64_t id = 0;     // row of the entry in `entries` and of its blob in `blobs`
        uint64_t size = 0;  // bytes of the blob
        uint64_t used = 0;  // tick of the last use; unique, larger is more recent
    };
    using EntryMap = std::map<std::string, Entry, std::less<>>;
    // The prepared statements, for the life of the connection.
    enum StatementId {
        SBegin,
        SCommit,
        SRollback,
        SSelectBlob,
        SPutBlob,
        SPutEntry,
        SSetUsed,
        SSetKey,
        SDeleteEntry,
        SDeleteBlob,
        SCount
    };

    [[noreturn]] void failSql(int code, const std::string& what) const;
    void exec(const char* sql, const char* what) QOR_REQUIRES(_mutex);
    int64_t queryInt(const char* sql, const char* what) QOR_REQUIRES(_mutex);
    void prepareAll() QOR_REQUIRES(_mutex);
    sqlite3_stmt* use(StatementId id) QOR_REQUIRES(_mutex);
    void stepDone(sqlite3_stmt* s, const char* what) QOR_REQUIRES(_mutex);

    void lockFolder();
    void openDatabase() QOR_REQUIRES(_mutex);
    void closeDatabase() QOR_REQUIRES(_mutex);
    void openConnection(const std::string& path, bool create) QOR_REQUIRES(_mutex);
    // The pragmas each connection sets for itself.
    void setConnectionPragmas() QOR_REQUIRES(_mutex);
    // Builds an empty store under a temporary name beside the database and renames it into
    // place, so that a crash while it runs leaves no database (the next open builds it again,
    // without a word), never a half-made one. Leaves the connection closed.
    void buildStore() QOR_REQUIRES(_mutex);
    void loadEntries() QOR_REQUIRES(_mutex);
    void createLayout() QOR_REQUIRES(_mutex);
    // Removes the database at `path` with its side files.
    void eraseDatabaseFiles(const std::string& path) const;

    // Runs fn (SQL only; it changes nothing in memory) with the deferred uses in one transaction.
    // True when it committed; otherwise rolls back, logs one line that starts with `what`, and
    // keeps the deferred uses for the next try.
    template <class Fn>
    bool transact(const char* what, Fn&& fn) QOR_REQUIRES(_mutex);
    void writeDeferredUses() QOR_REQUIRES(_mutex);
    void deleteRows(int64_t id) QOR_REQUIRES(_mutex);

    uint64_t effectiveLimit() const QOR_REQUIRES(_mutex);
    // The entries to evict, least recently used first, so that `incoming` more bytes fit within
    // `limit`; `keep` is never chosen. False when even all of them are not enough.
    bool planEviction(uint64_t incoming, uint64_t limit, const Entry* keep,
                      std::vector<EntryMap::iterator>& victims) QOR_REQUIRES(_mutex);
    void forget(EntryMap::iterator it) QOR_REQUIRES(_mutex);
    void touch(EntryMap::iterator it) QOR_REQUIRES(_mutex);
    bool evictTo(uint64_t limit, const char* what) QOR_REQUIRES(_mutex);
    void releaseFreePages() QOR_REQUIRES(_mutex);

    const std::string _folder;
    const std::string _dbPath;
    int _lockFd = -1;  // the folder's lock file, flock-ed for the object's life

    // One mutex guards the connection and the index: every call runs under it, disk work
    // included. It is a leaf: no other lock is taken while it is held.
    mutable Mutex _mutex;
    sqlite3* _db QOR_GUARDED_BY(_mutex) = nullptr;
    StatementPtr _statements[SCount] QOR_GUARDED_BY(_mutex);
    EntryMap _entries QOR_GUARDED_BY(_mutex);
    std::map<uint64_t, EntryMap::iterator> _byUse QOR_GUARDED_BY(_mutex);  // oldest first
    // Uses noted in memory but not yet in the database: row id -> tick.
    std::unordered_map<int64_t, uint64_t> _deferredUses QOR_GUARDED_BY(_mutex);
    uint64_t _tick QOR_GUARDED_BY(_mutex) = 0;
    int64_t _nextId QOR_GUARDED_BY(_mutex) = 1;
    uint64_t _bytes QOR_GUARDED_BY(_mutex) = 0;
    uint64_t _limit QOR_GUARDED_BY(_mutex);
    // After a write failed for want of room, the cache grows no further than this.
    uint64_t _growthCap QOR_GUARDED_BY(_mutex) = UINT64_MAX;
};

// ---- SQLite helpers ----

void DynamicHDCache::Store::failSql(int code, const std::string& what) const {
    throw SqlFailure{code, what};
}

void DynamicHDCache::Store::exec(const char* sql, const char* what) {
    char* error = nullptr;
    const int rc = sqlite3_exec(_db, sql, nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        std::string message = formatLog("%*: %*", what, error ? error : sqlite3_errstr(rc));
        sqlite3_free(error);
        failSql(rc, message);
    }
}

int64_t DynamicHDCache::Store::queryInt(const char* sql, const char* what) {
    sqlite3_stmt* raw = nullptr;
    int rc = sqlite3_prepare_v2(_db, sql, -1, &raw, nullptr);
    StatementPtr s(raw);
    if (rc == SQLITE_OK) rc = sqlite3_step(raw);
    if (rc != SQLITE_ROW) failSql(rc, formatLog("%*: %*", what, sqlite3_errmsg(_db)));
    return sqlite3_column_int64(raw, 0);
}

void DynamicHDCache::Store::prepareAll() {
    static const char* const sql[SCount] = {
        "BEGIN IMMEDIATE",
        "COMMIT",
        "ROLLBACK",
        "SELECT data FROM blobs WHERE id = ?1",
        "INSERT OR REPLACE INTO blobs(id, data) VALUES(?1, ?2)",
        "INSERT OR REPLACE INTO entries(id, key, size, used) VALUES(?1, ?2, ?3, ?4)",
        "UPDATE entries SET used = ?2 WHERE id = ?1",
        "UPDATE entries SET key = ?2 WHERE id = ?1",
        "DELETE FROM entries WHERE id = ?1",
        "DELETE FROM blobs WHERE id = ?1",
    };
    for (int i = 0; i < SCount; ++i) {
        sqlite3_stmt* raw = nullptr;
        const int rc =
            sqlite3_prepare_v3(_db, sql[i], -1, SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
        if (rc != SQLITE_OK)
            failSql(rc, formatLog("preparing '%*': %*", sql[i], sqlite3_errmsg(_db)));
        _statements[i].reset(raw);
    }
}

// The statement, reset and without bindings, ready for a use.
sqlite3_stmt* DynamicHDCache::Store::use(StatementId id) {
    sqlite3_stmt* s = _statements[id].get();
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    return s;
}

void DynamicHDCache::Store::stepDone(sqlite3_stmt* s, const char* what) {
    const int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) failSql(rc, formatLog("%*: %*", what, sqlite3_errmsg(_db)));
    sqlite3_reset(s);
}

// ---- opening ----

DynamicHDCache::Store::Store(std::string folder, uint64_t byteLimit)
    : _folder(std::move(folder)),
      _dbPath(filesystem::pathJoin(_folder, DatabaseName)),
      _limit(byteLimit) {
    try {
        filesystem::createDirectoryFromUrl(_folder);
    } catch (const std::exception& e) {
        std::string text =
            formatLog("DynamicHDCache '%*': can't create the folder: %*", _folder, e.what());
        QOR_LOG(LogWarning, "%*", text);
        throw DynamicHDCacheException(text);
    }
    lockFolder();
    ScopedLock lock(_mutex);
    try {
        if (!filesystem::exists(_dbPath)) throw DamagedStore{};
        openDatabase();
        loadEntries();
    } catch (const DamagedStore& d) {
        closeDatabase();
        if (!d.why.empty())
            QOR_LOG(LogWarning,
                    "DynamicHDCache '%*': the store could not be read (%*); recreated empty",
                    _folder, d.why);
        try {
            eraseDatabaseFiles(_dbPath);
            buildStore();
            openConnection(_dbPath, false);
            setConnectionPragmas();
            prepareAll();
        } catch (const SqlFailure& f) {
            closeDatabase();
            ::close(_lockFd);
            std::string text =
                formatLog("DynamicHDCache '%*': can't create the store: %*", _folder, f.what);
            QOR_LOG(LogWarning, "%*", text);
            throw DynamicHDCacheException(text);
        }
        _entries.clear();
        _byUse.clear();
        _deferredUses.clear();
        _bytes = 0;
    } catch (const SqlFailure& f) {
        closeDatabase();
        ::close(_lockFd);
        std::string text =
            formatLog("DynamicHDCache '%*': can't open the store: %*", _folder, f.what);
        QOR_LOG(LogWarning, "%*", text);
        throw DynamicHDCacheException(text);
    }
    // Bytes above the limit (a lower limit than last time) go at once.
    evictTo(_limit, "evicting to the limit");
}

DynamicHDCache::Store::~Store() {
    {
        ScopedLock lock(_mutex);
        if (!_deferredUses.empty()) transact("writing the order of use", [] {});
        closeDatabase();
    }
    if (_lockFd >= 0) ::close(_lockFd);
}

// A second process on the folder is refused; the kernel drops the lock when this one dies.
void DynamicHDCache::Store::lockFolder() {
    const std::string path = filesystem::pathJoin(_folder, LockName);
    _lockFd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    std::string problem;
    if (_lockFd < 0) {
        problem = formatLog("can't open the lock file: %*", std::strerror(errno));
    } else if (::flock(_lockFd, LOCK_EX | LOCK_NB) != 0) {
        problem = errno == EWOULDBLOCK
                      ? std::string("the folder is in use by another process")
                      : formatLog("can't lock the folder: %*", std::strerror(errno));
        ::close(_lockFd);
        _lockFd = -1;
    }
    if (!problem.empty()) {
        std::string text = formatLog("DynamicHDCache '%*': %*", _folder, problem);
        QOR_LOG(LogWarning, "%*", text);
        throw DynamicHDCacheException(text);
    }
}

void DynamicHDCache::Store::openConnection(const std::string& path, bool create) {
    const int flags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
    const int rc = sqlite3_open_v2(path.c_str(), &_db, flags, nullptr);
    if (rc != SQLITE_OK) {
        std::string message = _db ? sqlite3_errmsg(_db) : sqlite3_errstr(rc);
        failSql(rc, "opening: " + message);
    }
    sqlite3_extended_result_codes(_db, 1);
}

// Opens an existing database of ours; DamagedStore when there is none that can be used.
void DynamicHDCache::Store::openDatabase() {
    openConnection(_dbPath, false);
    try {
        // The first read of the file: SQLite answers SQLITE_NOTADB for a file it can't read.
        if (queryInt("PRAGMA application_id", "reading the header") != ApplicationId)
            throw DamagedStore{"not a blob cache"};
        const int64_t version = queryInt("PRAGMA user_version", "reading the version");
        if (version != FormatVersion)
            throw DamagedStore{formatLog("format version %*, not %*", version, FormatVersion)};
        exec("PRAGMA journal_mode=WAL", "choosing the write-ahead log");
        setConnectionPragmas();
        prepareAll();
    } catch (const SqlFailure& f) {
        if (isDamage(f.code)) throw DamagedStore{f.what};
        throw;
    }
}

void DynamicHDCache::Store::closeDatabase() {
    for (StatementPtr& s : _statements) s.reset();
    if (_db) sqlite3_close_v2(_db);
    _db = nullptr;
}

void DynamicHDCache::Store::setConnectionPragmas() {
    exec("PRAGMA synchronous=NORMAL", "choosing the sync mode");
    exec(("PRAGMA journal_size_limit=" + std::to_string(LogSizeLimit)).c_str(), "limiting the log");
    exec("PRAGMA mmap_size=268435456", "mapping the file");
}

void DynamicHDCache::Store::buildStore() {
    const std::string building = _dbPath + BuildingSuffix;
    eraseDatabaseFiles(building);  // what a crash of an earlier build left
    openConnection(building, true);
    createLayout();
    closeDatabase();  // the last connection: the log goes into the file and is removed
    if (::rename(building.c_str(), _dbPath.c_str()) != 0)
        failSql(SQLITE_IOERR, formatLog("can't rename '%*': %*", building, std::strerror(errno)));
}

void DynamicHDCache::Store::eraseDatabaseFiles(const std::string& path) const {
    for (const std::string& p :
         {path, path + SideSuffixes[0], path + SideSuffixes[1], path + SideSuffixes[2]}) {
        if (::unlink(p.c_str()) != 0 && errno != ENOENT)
            failSql(SQLITE_IOERR, formatLog("can't remove '%*': %*", p, std::strerror(errno)));
    }
}

// The index in `entries` is small rows, apart from the blobs, so opening reads only its pages.
// Runs on the store being built (buildStore).
void DynamicHDCache::Store::createLayout() {
    exec("PRAGMA auto_vacuum=INCREMENTAL", "choosing the vacuum mode");
    exec("PRAGMA journal_mode=WAL", "choosing the write-ahead log");
    setConnectionPragmas();
    const std::string sql =
        "BEGIN;"
        "CREATE TABLE entries(id INTEGER PRIMARY KEY, key BLOB NOT NULL, size INTEGER NOT NULL,"
        " used INTEGER NOT NULL);"
        "CREATE TABLE blobs(id INTEGER PRIMARY KEY, data BLOB NOT NULL);"
        "PRAGMA application_id=" +
        std::to_string(ApplicationId) + ";PRAGMA user_version=" + std::to_string(FormatVersion) +
        ";COMMIT;";
    exec(sql.c_str(), "creating the tables");
}

void DynamicHDCache::Store::loadEntries() {
    sqlite3_stmt* raw = nullptr;
    int rc = sqlite3_prepare_v2(_db, "SELECT id, key, size, used FROM entries ORDER BY used", -1,
                                &raw, nullptr);
    StatementPtr s(raw);
    _entries.clear();
    _byUse.clear();
    _bytes = 0;
    _tick = 0;
    _nextId = 1;
    while (rc == SQLITE_OK || rc == SQLITE_ROW) {
        if ((rc = sqlite3_step(raw)) != SQLITE_ROW) break;
        Entry e;
        e.id = sqlite3_column_int64(raw, 0);
        const int64_t size = sqlite3_column_int64(raw, 2);
        if (size < 0 || e.id <= 0) throw DamagedStore{"an entry with a bad size or row"};
        e.size = uint64_t(size);
        // Ticks come in rising order; equal ones (which no version writes) are made distinct.
        e.used = std::max(uint64_t(sqlite3_column_int64(raw, 3)), _tick + 1);
        if (e.used != uint64_t(sqlite3_column_int64(raw, 3))) _deferredUses[e.id] = e.used;
        _tick = e.used;
        _nextId = std::max(_nextId, e.id + 1);
        auto [it, inserted] = _entries.emplace(columnBytes(raw, 1), e);
        if (!inserted) throw DamagedStore{"two entries under one key"};
        _byUse.emplace(e.used, it);
        _bytes += e.size;
    }
    if (rc != SQLITE_DONE) {
        const std::string what = formatLog("reading the entries: %*", sqlite3_errmsg(_db));
        if (isDamage(rc)) throw DamagedStore{what};
        failSql(rc, what);
    }
}

// ---- transactions ----

template <class Fn>
bool DynamicHDCache::Store::transact(const char* what, Fn&& fn) {
    try {
        stepDone(use(SBegin), "starting a transaction");
        try {
            writeDeferredUses();
            fn();
            stepDone(use(SCommit), "committing");
        } catch (...) {
            if (!sqlite3_get_autocommit(_db)) sqlite3_step(use(SRollback));
            sqlite3_reset(_statements[SRollback].get());
            throw;
        }
    } catch (const SqlFailure& f) {
        const int primary = f.code & 0xff;
        if (primary == SQLITE_FULL || primary == SQLITE_IOERR) {
            _growthCap = std::min(_growthCap, _bytes);
            QOR_LOG(LogWarning, "DynamicHDCache '%*': %* failed: %* (%*); the cache stops growing",
                    _folder, what, f.what, f.code);
        } else {
            QOR_LOG(LogWarning, "DynamicHDCache '%*': %* failed: %* (%*)", _folder, what, f.what,
                    f.code);
        }
        // Uses that can't be written are not worth a log line at every get.
        if (_deferredUses.size() >= 4 * DeferredUseLimit) _deferredUses.clear();
        return false;
    }
    _deferredUses.clear();
    return true;
}

void DynamicHDCache::Store::writeDeferredUses() {
    for (const auto& [id, used] : _deferredUses) {
        sqlite3_stmt* s = use(SSetUsed);
        sqlite3_bind_int64(s, 1, id);
        sqlite3_bind_int64(s, 2, int64_t(used));
        stepDone(s, "writing the order of use");
    }
}

void DynamicHDCache::Store::deleteRows(int64_t id) {
    for (StatementId which : {SDeleteEntry, SDeleteBlob}) {
        sqlite3_stmt* s = use(which);
        sqlite3_bind_int64(s, 1, id);
        stepDone(s, "deleting an entry");
    }
}

// ---- the index in memory ----

uint64_t DynamicHDCache::Store::effectiveLimit() const { return std::min(_limit, _growthCap); }

bool DynamicHDCache::Store::planEviction(uint64_t incoming, uint64_t limit, const Entry* keep,
                                         std::vector<EntryMap::iterator>& victims) {
    uint64_t total = _bytes + incoming - (keep ? keep->size : 0);
    for (auto it = _byUse.begin(); it != _byUse.end() && total > limit; ++it) {
        Entry& e = it->second->second;
        if (&e == keep) continue;
        victims.push_back(it->second);
        total -= e.size;
    }
    return total <= limit;
}

void DynamicHDCache::Store::forget(EntryMap::iterator it) {
    _byUse.erase(it->second.used);
    _deferredUses.erase(it->second.id);
    _bytes -= it->second.size;
    _entries.erase(it);
}

void DynamicHDCache::Store::touch(EntryMap::iterator it) {
    _byUse.erase(it->second.used);
    it->second.used = ++_tick;
    _byUse.emplace(it->second.used, it);
}

bool DynamicHDCache::Store::evictTo(uint64_t limit, const char* what) {
    std::vector<EntryMap::iterator> victims;
    planEviction(0, limit, nullptr, victims);
    if (victims.empty()) return true;
    if (!transact(what, [&] {
            for (auto it : victims) deleteRows(it->second.id);
        }))
        return false;
    for (auto it : victims) forget(it);
    return true;
}

void DynamicHDCache::Store::releaseFreePages() {
    try {
        exec("PRAGMA incremental_vacuum", "giving free pages back");
    } catch (const SqlFailure& f) {
        QOR_LOG(LogWarning, "DynamicHDCache '%*': %* (%*)", _folder, f.what, f.code);
    }
}

// ---- operations ----

bool DynamicHDCache::Store::get(std::string_view key, std::string& out) {
    ScopedLock lock(_mutex);
    auto it = _entries.find(key);
    if (it == _entries.end()) return false;
    sqlite3_stmt* s = use(SSelectBlob);
    sqlite3_bind_int64(s, 1, it->second.id);
    const int rc = sqlite3_step(s);
    if (rc != SQLITE_ROW || uint64_t(sqlite3_column_bytes(s, 0)) != it->second.size) {
        QOR_LOG(LogWarning, "DynamicHDCache '%*': reading an entry failed: %* (%*)", _folder,
                rc == SQLITE_ROW
                    ? "the blob has the wrong size"
                    : (rc == SQLITE_DONE ? "the blob is missing" : sqlite3_errmsg(_db)),
                rc);
        sqlite3_reset(s);
        return false;
    }
    const void* p = sqlite3_column_blob(s, 0);
    if (p)
        out.assign(static_cast<const char*>(p), it->second.size);
    else
        out.clear();
    sqlite3_reset(s);
    touch(it);
    _deferredUses[it->second.id] = it->second.used;
    if (_deferredUses.size() >= DeferredUseLimit) transact("writing the order of use", [] {});
    return true;
}

bool DynamicHDCache::Store::contains(std::string_view key) {
    ScopedLock lock(_mutex);
    return _entries.find(key) != _entries.end();
}

bool DynamicHDCache::Store::put(std::string_view key, const void* data, size_t size) {
    ScopedLock lock(_mutex);
    if (size > _limit) {
        QOR_LOG(LogInfo, "DynamicHDCache '%*': a blob of %* bytes is larger than the limit of %*",
                _folder, size, _limit);
        return false;
    }
    auto existing = _entries.find(key);
    const Entry* keep = existing == _entries.end() ? nullptr : &existing->second;
    std::vector<EntryMap::iterator> victims;
    if (!planEviction(size, effectiveLimit(), keep, victims)) {
        QOR_LOG(LogInfo,
                "DynamicHDCache '%*': no room for a blob of %* bytes since the disk was full",
                _folder, size);
        return false;
    }
    const int64_t id = keep ? keep->id : _nextId;
    const uint64_t used = _tick + 1;
    if (!transact("storing an entry", [&] {
            for (auto it : victims) deleteRows(it->second.id);
            sqlite3_stmt* s = use(SPutBlob);
            sqlite3_bind_int64(s, 1, id);
            bindBytes(s, 2, data, size);
            stepDone(s, "writing a blob");
            s = use(SPutEntry);
            sqlite3_bind_int64(s, 1, id);
            bindBytes(s, 2, key.data(), key.size());
            sqlite3_bind_int64(s, 3, int64_t(size));
            sqlite3_bind_int64(s, 4, int64_t(used));
            stepDone(s, "writing an entry");
        }))
        return false;
    for (auto it : victims) forget(it);
    if (keep) {
        _bytes -= existing->second.size;
    } else {
        existing = _entries.emplace(std::string(key), Entry{id, 0, 0}).first;
        ++_nextId;
        _byUse.emplace(0, existing);  // replaced by touch
    }
    existing->second.size = size;
    _bytes += size;
    touch(existing);
    return true;
}

bool DynamicHDCache::Store::remove(std::string_view key) {
    ScopedLock lock(_mutex);
    auto it = _entries.find(key);
    if (it == _entries.end()) return false;
    if (!transact("removing an entry", [&] { deleteRows(it->second.id); })) return false;
    forget(it);
    return true;
}

size_t DynamicHDCache::Store::removePrefix(std::string_view prefix) {
    ScopedLock lock(_mutex);
    std::vector<EntryMap::iterator> victims;
    for (auto it = _entries.lower_bound(prefix);
         it != _entries.end() && startsWith(it->first, prefix); ++it)
        victims.push_back(it);
    if (victims.empty()) return 0;
    if (!transact("removing entries", [&] {
            for (auto it : victims) deleteRows(it->second.id);
        }))
        return 0;
    for (auto it : victims) forget(it);
    return victims.size();
}

size_t DynamicHDCache::Store::renamePrefix(std::string_view from, std::string_view to) {
    ScopedLock lock(_mutex);
    if (from == to) return 0;
    struct Move {
        EntryMap::iterator it;
        std::string newKey;
    };
    std::vector<Move> moves;
    for (auto it = _entries.lower_bound(from); it != _entries.end() && startsWith(it->first, from);
         ++it)
        moves.push_back({it, std::string(to) + it->first.substr(from.size())});
    if (moves.empty()) return 0;
    // Entries under a new key that do not move themselves are replaced.
    std::vector<EntryMap::iterator> replaced;
    for (const Move& m : moves) {
        auto target = _entries.find(m.newKey);
        if (target != _entries.end() && !startsWith(target->first, from))
            replaced.push_back(target);
    }
    if (!transact("renaming entries", [&] {
            for (auto it : replaced) deleteRows(it->second.id);
            for (const Move& m : moves) {
                sqlite3_stmt* s = use(SSetKey);
                sqlite3_bind_int64(s, 1, m.it->second.id);
                bindBytes(s, 2, m.newKey.data(), m.newKey.size());
                stepDone(s, "renaming an entry");
            }
        }))
        return 0;
    for (auto it : replaced) forget(it);
    std::vector<std::pair<std::string, Entry>> moved;
    for (Move& m : moves) {
        moved.emplace_back(std::move(m.newKey), m.it->second);
        _byUse.erase(m.it->second.used);
        _entries.erase(m.it);
    }
    for (auto& [key, entry] : moved) {
        auto it = _entries.emplace(std::move(key), entry).first;
        _byUse.emplace(entry.used, it);
    }
    return moved.size();
}

void DynamicHDCache::Store::clear() {
    ScopedLock lock(_mutex);
    if (!transact("clearing",
                  [&] { exec("DELETE FROM entries; DELETE FROM blobs", "removing every entry"); }))
        return;
    _entries.clear();
    _byUse.clear();
    _bytes = 0;
    releaseFreePages();
}

uint64_t DynamicHDCache::Store::byteSize() const {
    ScopedLock lock(_mutex);
    return _bytes;
}

size_t DynamicHDCache::Store::count() const {
    ScopedLock lock(_mutex);
    return _entries.size();
}

uint64_t DynamicHDCache::Store::byteLimit() const {
    ScopedLock lock(_mutex);
    return _limit;
}

void DynamicHDCache::Store::setByteLimit(uint64_t limit) {
    ScopedLock lock(_mutex);
    _limit = limit;
    if (evictTo(effectiveLimit(), "evicting to a lower limit")) releaseFreePages();
}

// ---- the public face ----

DynamicHDCache::DynamicHDCache(const std::string& folder, uint64_t byteLimit)
    : _store(std::make_unique<Store>(folder, byteLimit)) {}

DynamicHDCache::~DynamicHDCache() = default;

bool DynamicHDCache::get(std::string_view key, std::string& out) { return _store->get(key, out); }
bool DynamicHDCache::contains(std::string_view key) { return _store->contains(key); }
bool DynamicHDCache::put(std::string_view key, const void* data, size_t size) {
    return _store->put(key, data, size);
}
bool DynamicHDCache::remove(std::string_view key) { return _store->remove(key); }
size_t DynamicHDCache::removePrefix(std::string_view prefix) {
    return _store->removePrefix(prefix);
}
size_t DynamicHDCache::renamePrefix(std::string_view from, std::string_view to) {
    return _store->renamePrefix(from, to);
}
void DynamicHDCache::clear() { _store->clear(); }
uint64_t DynamicHDCache::byteSize() const { return _store->byteSize(); }
size_t DynamicHDCache::count() const { return _store->count(); }
uint64_t DynamicHDCache::byteLimit() const { return _store->byteLimit(); }
void DynamicHDCache::setByteLimit(uint64_t limit) { _store->setByteLimit(limit); }
const std::string& DynamicHDCache::folder() const { return _store->folder(); }

}  // namespace qor
