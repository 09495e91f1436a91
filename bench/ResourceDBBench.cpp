// ResourceDB beside plain SQLite (the sqlite3 C API) on the same file, in the metadata cache's
// layout: 100 000 records of 31 fields.
//   StartupRead:      open the file and read two fields of every record (RecordConsistent and
//                     FileLastWriteTime, what the metadata cache reads at start-up), then close.
//                     The peer opens the same file and reads the same two columns.
//   StartupEnumerate: the same plus every record's index and name, the rest of the cache's start.
//   OpenMetadataCache: the whole start of a MetadataCacheRDB on the same file: the records' names
//                     entered in a ResourceManager, the two fields read into the columns, the
//                     worker started. Its floor is StartupRead_SQLite.
//   Flush500:         31 setFields calls over 500 changed records and a flush. Arg 0: 500
//                     consecutive records (items added in one go), 1: 500 records spread over the
//                     file (edits here and there). The peers run the same statements through
//                     plain SQLite, in a transaction, with the journal modes a writer could choose:
//                     write-ahead log with synchronous=NORMAL (what ResourceDB uses) and the
//                     rollback journal with synchronous=FULL (what the rollback journal needs to
//                     be just as safe against a crash of the machine).
// The files are made once per run under $TMPDIR (or /tmp) and removed at the end; they stay in
// the page cache, so the figures are those of a warm start.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/resource/ResourceDB.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/MetadataCacheRDB.h"

namespace {

using qor::ResourceDB;
using Field = ResourceDB::DBFieldDesc;
using RecordIndex = ResourceDB::RecordIndex;

constexpr int kRecords = 100000;
constexpr int kBatch = 500;

// The metadata cache's record: storage type and field identifier, in record order.
const std::vector<Field> kLayout = {
    {4, 0},  {3, 1},   {3, 2},  {4, 6},  {4, 7},  {3, 5},  {7, 3},  {7, 11},
    {7, 8},  {7, 10},  {7, 4},  {7, 9},  {7, 12}, {7, 13}, {7, 14}, {7, 15},
    {7, 22}, {3, 19},  {3, 20}, {7, 21}, {9, 23}, {7, 24}, {9, 40}, {4, 42},
    {3, 25}, {11, 43}, {3, 41}, {3, 45}, {3, 47}, {3, 46}, {4, 44},
};
constexpr int kRecordConsistent = 41;
constexpr int kFileLastWriteTime = 42;
constexpr int32_t kOne = 1;

std::string tempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-rdb-bench-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("can't make a temporary folder");
    return pattern;
}

// Values of a generation for one field of some records, fieldSize bytes each. RecordConsistent is
// 1, as the cache writes it for a whole record.
std::vector<unsigned char> values(const Field& field, const std::vector<RecordIndex>& records,
                                  int gen) {
    const int type = field.type;
    const size_t size = ResourceDB::fieldSize(type);
    std::vector<unsigned char> out(size * records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        uint64_t v = (uint64_t(gen) << 32) | uint32_t(records[i]);
        for (size_t b = 0; b < size; ++b) out[i * size + b] = (unsigned char)(v >> (8 * (b % 8)));
    }
    if (field.id == kRecordConsistent)
        for (size_t i = 0; i < records.size(); ++i) std::memcpy(&out[i * size], &kOne, size);
    return out;
}

void writeFields(ResourceDB& db, const std::vector<RecordIndex>& records, int gen) {
    for (int f = 0; f < int(kLayout.size()); ++f) {
        auto v = values(kLayout[f], records, gen);
        db.setFields(f, records, v.data());
    }
    db.flush();
}

void check(int rc, sqlite3* db, const char* what);
std::string tableOf(sqlite3* db, int fieldId);

// Writes a fresh copy out before a case times anything, so that its write-back does not fall
// into the case.
void syncFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// The database every case starts from, made once.
struct Files {
    std::string dir;
    std::string path;
    std::string rowsPath;  // the same records as one table with a column per field

    Files() : dir(tempDir()), path(dir + "/metadata") {
        ResourceDB db(path);
        db.create(kRecords, kLayout);
        std::vector<RecordIndex> all;
        char name[64];
        for (int i = 0; i < kRecords; ++i) {
            std::snprintf(name, sizeof name, "/photos/%04d/%02d/IMG_%06d.JPG", 2000 + i / 5000,
                          1 + i / 500 % 12, i);
            all.push_back(db.addRecord(name));
        }
        writeFields(db, all, 1);
        db.close();
        makeRows();
    }
    void makeRows();
    ~Files() { std::filesystem::remove_all(dir); }

    // A copy of the database for a case that writes.
    std::string copy(const char* name) const {
        std::string to = dir + "/" + name;
        std::filesystem::copy_file(path, to, std::filesystem::copy_options::overwrite_existing);
        syncFile(to);
        return to;
    }
};

void Files::makeRows() {
    rowsPath = dir + "/rows";
    sqlite3* db = nullptr;
    check(sqlite3_open(path.c_str(), &db), db, "open");
    std::string columns, select = "r.idx, r.name", joins;
    for (size_t f = 0; f < kLayout.size(); ++f) {
        std::string c = "c" + std::to_string(f), t = tableOf(db, kLayout[f].id);
        columns += ", " + c;
        select += ", " + t + ".v";
        joins += " LEFT JOIN " + t + " ON " + t + ".idx = r.idx";
    }
    std::string sql = "ATTACH '" + rowsPath +
                      "' AS rows;"
                      "PRAGMA rows.journal_mode=WAL;"
                      "CREATE TABLE rows.rows(idx INTEGER PRIMARY KEY, name TEXT" +
                      columns +
                      ");"
                      "INSERT INTO rows.rows SELECT " +
                      select + " FROM records r" + joins +
                      ";"
                      "DETACH rows;";
    check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), db, "rows");
    sqlite3_close(db);
}

const Files& files() {
    static Files f;
    return f;
}

void check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW)
        throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db));
}

// Opens a file through plain SQLite with a journal mode and a sync mode (null: SQLite's own).
sqlite3* openPlain(const std::string& path, const char* journal, const char* sync) {
    sqlite3* db = nullptr;
    check(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr),
          db, "open");
    std::string pragmas;
    if (sync) pragmas += std::string("PRAGMA synchronous=") + sync + ";";
    if (journal) pragmas += std::string("PRAGMA journal_mode=") + journal + ";";
    check(sqlite3_exec(db, pragmas.c_str(), nullptr, nullptr, nullptr), db, "pragmas");
    return db;
}

// ---- start-up read ----

// Megabytes of the file that hold these tables (dbstat), for the counter "MB".
double tableMegabytes(const std::string& path, const std::vector<std::string>& tables) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    double bytes = 0;
    for (const std::string& t : tables) {
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db, "SELECT SUM(pgsize) FROM dbstat WHERE name = ?1", -1, &s, nullptr);
        sqlite3_bind_text(s, 1, t.c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(s) == SQLITE_ROW) bytes += sqlite3_column_double(s, 0);
        sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return bytes / 1e6;
}

// With arg 1, drops the file from the page cache before each start, so that it is read from the
// disk as after a reboot (posix_fadvise: only this file's clean pages go, nothing else's).
void evict(benchmark::State& state, const std::string& path) {
    if (state.range(0) == 0) return;
    state.PauseTiming();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::fdatasync(fd);
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
    }
    state.ResumeTiming();
}

// Opens, optionally enumerates the records with their names, reads the two fields, closes.
void startup(benchmark::State& state, bool names) {
    const std::string& path = files().path;
    std::vector<int32_t> consistent;
    std::vector<int64_t> written;
    std::vector<RecordIndex> indices;
    std::vector<std::string> recordNames;
    for (auto _ : state) {
        evict(state, path);
        ResourceDB db(path);
        db.open(false);
        if (names) db.enumerateRecords(indices, &recordNames);
        const size_t n = size_t(db.getLastRecord() + 1);
        consistent.resize(n);
        written.resize(n);
        db.getFields(db.getFieldIndex(kRecordConsistent), 0, n, consistent.data());
        db.getFields(db.getFieldIndex(kFileLastWriteTime), 0, n, written.data());
        db.close();
        benchmark::DoNotOptimize(consistent.data());
        benchmark::DoNotOptimize(written.data());
        benchmark::DoNotOptimize(recordNames.data());
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_StartupRead_ResourceDB(benchmark::State& state) { startup(state, false); }
BENCHMARK(BM_StartupRead_ResourceDB)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_StartupEnumerate_ResourceDB(benchmark::State& state) { startup(state, true); }
BENCHMARK(BM_StartupEnumerate_ResourceDB)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The metadata cache opened on the file, as at an application's start; closed untimed. The file
// is a copy in a folder of its own, as the cache names its file.
void BM_OpenMetadataCache(benchmark::State& state) {
    const std::string folder = files().dir + "/cache";
    std::filesystem::create_directories(folder);
    const std::string path = files().copy("cache/metadata");
    for (auto _ : state) {
        evict(state, path);
        auto manager = std::make_unique<qor::ResourceManager>();
        auto next = std::make_unique<qor::imagecache::FileMetadataCache>(manager.get());
        auto cache = std::make_unique<qor::imagecache::MetadataCacheRDB>(
            next.get(), qor::FastString<char>(folder), nullptr, 0);
        state.PauseTiming();
        if (cache->capacity() < size_t(kRecords)) state.SkipWithError("records missing");
        cache.reset();
        next.reset();
        manager.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_OpenMetadataCache)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The table that holds a field's values in ResourceDB's file.
std::string tableOf(sqlite3* db, int fieldId) {
    sqlite3_stmt* s = nullptr;
    check(sqlite3_prepare_v2(db, "SELECT tab FROM fields WHERE id = ?1", -1, &s, nullptr), db,
          "prepare");
    sqlite3_bind_int(s, 1, fieldId);
    check(sqlite3_step(s), db, "field table");
    std::string table = "v" + std::to_string(sqlite3_column_int(s, 0));
    sqlite3_finalize(s);
    return table;
}

// Reads column v of a table into out[idx], as the columns are laid out in the file.
template <class T>
void readColumn(sqlite3* db, const std::string& table, std::vector<T>& out) {
    sqlite3_stmt* s = nullptr;
    std::string sql = "SELECT idx, v FROM " + table;
    check(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), db, "prepare");
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        size_t i = size_t(sqlite3_column_int64(s, 0));
        if (i >= out.size()) out.resize(i + 1);
        out[i] = T(sqlite3_column_int64(s, 1));
    }
    check(rc, db, "read");
    sqlite3_finalize(s);
}

void BM_StartupRead_SQLite(benchmark::State& state) {
    const std::string& path = files().path;
    std::vector<int32_t> consistent;
    std::vector<int64_t> written;
    sqlite3* probe = nullptr;
    sqlite3_open_v2(path.c_str(), &probe, SQLITE_OPEN_READONLY, nullptr);
    const std::string consistentTable = tableOf(probe, kRecordConsistent);
    const std::string writtenTable = tableOf(probe, kFileLastWriteTime);
    sqlite3_close(probe);
    for (auto _ : state) {
        evict(state, path);
        sqlite3* db = openPlain(path, nullptr, nullptr);
        consistent.assign(kRecords, 0);
        written.assign(kRecords, 0);
        readColumn(db, consistentTable, consistent);
        readColumn(db, writtenTable, written);
        sqlite3_close(db);
        benchmark::DoNotOptimize(consistent.data());
        benchmark::DoNotOptimize(written.data());
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
    state.counters["MB"] = tableMegabytes(path, {consistentTable, writtenTable});
}
BENCHMARK(BM_StartupRead_SQLite)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The other layout a writer could choose: one row a record, a column a field.
void BM_StartupRead_SQLiteRows(benchmark::State& state) {
    const std::string& path = files().rowsPath;
    std::vector<int32_t> consistent;
    std::vector<int64_t> written;
    int consistentColumn = 0, writtenColumn = 0;
    for (size_t f = 0; f < kLayout.size(); ++f) {
        if (kLayout[f].id == kRecordConsistent) consistentColumn = int(f);
        if (kLayout[f].id == kFileLastWriteTime) writtenColumn = int(f);
    }
    const std::string sql = "SELECT idx, c" + std::to_string(consistentColumn) + ", c" +
                            std::to_string(writtenColumn) + " FROM rows";
    for (auto _ : state) {
        evict(state, path);
        sqlite3* db = openPlain(path, nullptr, nullptr);
        consistent.assign(kRecords, 0);
        written.assign(kRecords, 0);
        sqlite3_stmt* s = nullptr;
        check(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), db, "prepare");
        int rc;
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
            size_t i = size_t(sqlite3_column_int64(s, 0));
            consistent[i] = sqlite3_column_int(s, 1);
            written[i] = sqlite3_column_int64(s, 2);
        }
        check(rc, db, "read");
        sqlite3_finalize(s);
        sqlite3_close(db);
        benchmark::DoNotOptimize(consistent.data());
        benchmark::DoNotOptimize(written.data());
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
    state.counters["MB"] = tableMegabytes(path, {"rows"});
}
BENCHMARK(BM_StartupRead_SQLiteRows)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// ---- flush of 500 records ----

std::vector<RecordIndex> batchRecords(bool spread, int round) {
    std::vector<RecordIndex> records;
    if (!spread) {
        RecordIndex first = RecordIndex((round * kBatch) % (kRecords - kBatch));
        for (int i = 0; i < kBatch; ++i) records.push_back(first + i);
    } else {
        std::mt19937 random{unsigned(round)};
        for (int i = 0; i < kBatch; ++i) records.push_back(RecordIndex(random() % kRecords));
    }
    return records;
}

using Batch = std::vector<std::vector<unsigned char>>;  // values by field, then by record

// The timed rounds of a flush case: makes each round's records and values untimed, then times
// write(records, values).
template <class Write>
void flushRounds(benchmark::State& state, Write&& write) {
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto records = batchRecords(state.range(0) != 0, round);
        Batch data;
        for (const Field& f : kLayout) data.push_back(values(f, records, round + 2));
        state.ResumeTiming();
        write(records, data);
        ++round;
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_Flush500_ResourceDB(benchmark::State& state) {
    ResourceDB db(files().copy("flush-ours"));
    db.open(false);
    flushRounds(state, [&](const std::vector<RecordIndex>& records, const Batch& data) {
        for (int f = 0; f < int(kLayout.size()); ++f) db.setFields(f, records, data[f].data());
        db.flush();
    });
    db.close();
}
BENCHMARK(BM_Flush500_ResourceDB)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Binds a value as ResourceDB stores it: 4- and 8-byte values as integers, the rest as blobs.
void bindValue(sqlite3_stmt* s, int column, int type, const unsigned char* v) {
    const size_t size = ResourceDB::fieldSize(type);
    if (size == 4) {
        int32_t x;
        std::memcpy(&x, v, 4);
        sqlite3_bind_int(s, column, x);
    } else if (size == 8) {
        int64_t x;
        std::memcpy(&x, v, 8);
        sqlite3_bind_int64(s, column, x);
    } else {
        sqlite3_bind_blob(s, column, v, int(size), SQLITE_STATIC);
    }
}

// The same writes through plain SQLite: one prepared statement per field table, in one
// transaction.
void flushPlain(benchmark::State& state, const char* name, const char* journal, const char* sync) {
    sqlite3* db = openPlain(files().copy(name), journal, sync);
    std::vector<sqlite3_stmt*> writes;
    for (const Field& f : kLayout) {
        std::string sql = "INSERT OR REPLACE INTO " + tableOf(db, f.id) + "(idx, v) VALUES(?1, ?2)";
        sqlite3_stmt* s = nullptr;
        check(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), db, "prepare");
        writes.push_back(s);
    }
    flushRounds(state, [&](const std::vector<RecordIndex>& records, const Batch& data) {
        check(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), db, "begin");
        for (size_t f = 0; f < kLayout.size(); ++f) {
            const size_t size = ResourceDB::fieldSize(kLayout[f].type);
            for (size_t i = 0; i < records.size(); ++i) {
                sqlite3_bind_int64(writes[f], 1, records[i]);
                bindValue(writes[f], 2, kLayout[f].type, data[f].data() + i * size);
                check(sqlite3_step(writes[f]), db, "write");
                sqlite3_reset(writes[f]);
            }
        }
        check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
    });
    for (sqlite3_stmt* s : writes) sqlite3_finalize(s);
    sqlite3_close(db);
}

// The row layout's best case: one UPDATE of all 31 columns a record.
void BM_Flush500_SQLiteRows(benchmark::State& state) {
    const std::string path = files().dir + "/flush-rows";
    std::filesystem::copy_file(files().rowsPath, path,
                               std::filesystem::copy_options::overwrite_existing);
    syncFile(path);
    sqlite3* db = openPlain(path, nullptr, "NORMAL");
    std::string sql = "UPDATE rows SET ";
    for (size_t f = 0; f < kLayout.size(); ++f)
        sql += (f ? ", c" : "c") + std::to_string(f) + " = ?" + std::to_string(f + 2);
    sql += " WHERE idx = ?1";
    sqlite3_stmt* s = nullptr;
    check(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), db, "prepare");
    flushRounds(state, [&](const std::vector<RecordIndex>& records, const Batch& data) {
        check(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), db, "begin");
        for (size_t i = 0; i < records.size(); ++i) {
            sqlite3_bind_int64(s, 1, records[i]);
            for (size_t f = 0; f < kLayout.size(); ++f)
                bindValue(s, int(f) + 2, kLayout[f].type,
                          data[f].data() + i * ResourceDB::fieldSize(kLayout[f].type));
            check(sqlite3_step(s), db, "write");
            sqlite3_reset(s);
        }
        check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
    });
    sqlite3_finalize(s);
    sqlite3_close(db);
}
BENCHMARK(BM_Flush500_SQLiteRows)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_Flush500_SQLiteWalNormal(benchmark::State& state) {
    flushPlain(state, "flush-wal", "WAL", "NORMAL");
}
BENCHMARK(BM_Flush500_SQLiteWalNormal)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_Flush500_SQLiteRollbackFull(benchmark::State& state) {
    flushPlain(state, "flush-rollback", "DELETE", "FULL");
}
BENCHMARK(BM_Flush500_SQLiteRollbackFull)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
