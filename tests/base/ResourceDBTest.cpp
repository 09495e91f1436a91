#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../support/KillChild.h"
#include "../support/TempDir.h"
#include "base/Log.h"
#include "base/resource/ResourceDB.h"

using namespace qor;
using qor::test::TempDir;
using Field = ResourceDB::DBFieldDesc;
using RecordIndex = ResourceDB::RecordIndex;
using Reason = ResourceDBException::Reason;

namespace {

// One field of every storage type, with identifiers that are not their positions.
const std::vector<Field> kAllTypes = {
    {ResourceDB::FtInt32, 41}, {ResourceDB::FtInt64, 42},  {ResourceDB::FtDouble, 3},
    {ResourceDB::FtVec3d, 23}, {ResourceDB::FtDigest, 43}, {ResourceDB::FtString, 100},
};

struct Vec3 {
    double v[3];
    friend bool operator==(const Vec3& a, const Vec3& b) {
        return std::memcmp(a.v, b.v, sizeof a.v) == 0;
    }
};

// A recognisable value of every type, for a record and a generation.
// Records below 4096.
int32_t intValue(int gen, RecordIndex r) { return gen * 4096 + r; }
int64_t longValue(int gen, RecordIndex r) { return (int64_t(gen) << 40) | r; }
double doubleValue(int gen, RecordIndex r) { return gen + r / 1024.0; }
Vec3 vecValue(int gen, RecordIndex r) { return {{double(gen), double(r), -double(gen + r)}}; }
std::array<uint8_t, 16> digestValue(int gen, RecordIndex r) {
    std::array<uint8_t, 16> d{};
    for (int i = 0; i < 16; ++i) d[i] = uint8_t(gen * 7 + r * 13 + i);
    return d;
}

Reason reasonOf(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const ResourceDBException& e) {
        return e.reason();
    }
    return Reason(0);
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Runs SQL on a file directly through SQLite.
void rawSql(const std::string& path, const char* sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
}

std::string integrityCheck(const std::string& path) {
    sqlite3* db = nullptr;
    std::string result;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_exec(
            db, "PRAGMA integrity_check",
            [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) += values[0] ? values[0] : "";
                return 0;
            },
            &result, nullptr);
    }
    sqlite3_close(db);
    return result;
}

}  // namespace

namespace {

// Values differ by field as well as by generation.
int seed(int gen, int pos) { return gen * 64 + pos; }
std::string textValue(int gen, RecordIndex r) {
    return "text " + std::to_string(gen) + "/" + std::to_string(r);
}

// Calls fn(make), where make(record) gives the value of a field of `type` for seed g.
template <class Fn>
void withValues(int type, int g, Fn&& fn) {
    switch (type) {
        case ResourceDB::FtInt32:
            return fn([g](RecordIndex r) { return intValue(g, r); });
        case ResourceDB::FtInt64:
            return fn([g](RecordIndex r) { return longValue(g, r); });
        case ResourceDB::FtDouble:
            return fn([g](RecordIndex r) { return doubleValue(g, r); });
        case ResourceDB::FtVec3d:
            return fn([g](RecordIndex r) { return vecValue(g, r); });
        case ResourceDB::FtDigest:
            return fn([g](RecordIndex r) { return digestValue(g, r); });
        default:
            return fn([g](RecordIndex r) { return FastString<char>(textValue(g, r)); });
    }
}

// Writes every field of the records, as generation `gen`: one setFields call per field.
void writeGeneration(ResourceDB& db, std::span<const RecordIndex> records, int gen) {
    const std::vector<Field> fields = db.getFieldList();
    for (int pos = 0; pos < int(fields.size()); ++pos) {
        withValues(fields[pos].type, seed(gen, pos), [&](auto make) {
            std::vector<decltype(make(0))> values;
            for (RecordIndex r : records) values.push_back(make(r));
            db.setFields(pos, records, values.data());
        });
    }
}

// Reads back every field of the records; counts those that are not wholly of generation `gen`.
size_t recordsNotOfGeneration(const ResourceDB& db, std::span<const RecordIndex> records, int gen) {
    const std::vector<Field> fields = db.getFieldList();
    std::vector<bool> bad(records.size(), false);
    for (int pos = 0; pos < int(fields.size()); ++pos) {
        withValues(fields[pos].type, seed(gen, pos), [&](auto make) {
            std::vector<decltype(make(0))> values(records.size());
            db.getFields(pos, records, values.data());
            for (size_t i = 0; i < records.size(); ++i)
                if (!(values[i] == make(records[i]))) bad[i] = true;
        });
    }
    return size_t(std::count(bad.begin(), bad.end(), true));
}

}  // namespace

TEST(ResourceDB, KeepsEveryTypeBitForBitAcrossRuns) {
    TempDir dir(nullptr, "qor-rdb");
    ASSERT_TRUE(dir.ok());
    const std::string path = dir / "db";
    {
        ResourceDB db(path);
        db.create(1000, kAllTypes);
        EXPECT_EQ(db.getRecordCount(), 0u);
        EXPECT_EQ(db.getLastRecord(), -1);
        for (int i = 0; i < 5; ++i) EXPECT_EQ(db.addRecord("/photos/" + std::to_string(i)), i);
        std::vector<RecordIndex> all{0, 1, 2, 3, 4};
        writeGeneration(db, all, 7);
        // The run form, over records 1 to 3, with doubles that only survive bit for bit.
        const double odd[3] = {std::numeric_limits<double>::quiet_NaN(), -0.0,
                               std::numeric_limits<double>::denorm_min()};
        db.setFields(2, 1, 3, odd);
        EXPECT_TRUE(db.hasPendingChanges());
        db.flush();
        EXPECT_FALSE(db.hasPendingChanges());
    }
    ResourceDB db(path);
    db.open(false);
    EXPECT_EQ(db.getCapacity(), 1000u);
    EXPECT_EQ(db.getFieldList(), kAllTypes);
    EXPECT_EQ(db.getFieldIndex(23), 3);
    EXPECT_EQ(db.getFieldIndex(99), -1);
    EXPECT_EQ(db.getFieldType(4), ResourceDB::FtDigest);
    EXPECT_EQ(db.getRecordCount(), 5u);
    EXPECT_EQ(db.getLastRecord(), 4);

    std::vector<RecordIndex> indices;
    std::vector<std::string> names;
    db.enumerateRecords(indices, &names);
    EXPECT_EQ(indices, (std::vector<RecordIndex>{0, 1, 2, 3, 4}));
    EXPECT_EQ(names[3], "/photos/3");

    std::vector<RecordIndex> untouched{0, 4};
    EXPECT_EQ(recordsNotOfGeneration(db, untouched, 7), 0u);
    double doubles[5];
    db.getFields(2, 0, 5, doubles);
    EXPECT_TRUE(std::isnan(doubles[1]));
    EXPECT_TRUE(std::signbit(doubles[2]) && doubles[2] == 0.0);
    EXPECT_EQ(doubles[3], std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(doubles[4], doubleValue(seed(7, 2), 4));
}

TEST(ResourceDB, NeverGivesADeletedIndexAgainAndReadsHolesAsZero) {
    TempDir dir(nullptr, "qor-rdb");
    const std::string path = dir / "db";
    {
        ResourceDB db(path);
        db.create(10, kAllTypes);
        for (int i = 0; i < 4; ++i) db.addRecord("r" + std::to_string(i));
        std::vector<RecordIndex> all{0, 1, 2, 3};
        writeGeneration(db, all, 1);
        db.deleteRecord(1);
        db.deleteRecord(3);
        EXPECT_EQ(db.getLastRecord(), 2);
        db.rename(2, "moved");
        db.flush();
    }
    ResourceDB db(path);
    db.open();
    EXPECT_EQ(db.getRecordCount(), 2u);
    EXPECT_EQ(db.getLastRecord(), 2);
    EXPECT_FALSE(db.hasRecord(3));
    EXPECT_EQ(db.getRecordName(2), "moved");
    // The counter was stored: the next record gets 4, not 3 or 1.
    EXPECT_EQ(db.addRecord("new"), 4);
    EXPECT_EQ(db.getLastRecord(), 4);

    // A run over holes and a record that was never written reads zeros and empty strings.
    int32_t ints[5];
    db.getFields(0, 0, 5, ints);
    EXPECT_EQ(ints[0], intValue(seed(1, 0), 0));
    EXPECT_EQ(ints[1], 0);
    EXPECT_EQ(ints[2], intValue(seed(1, 0), 2));
    EXPECT_EQ(ints[3], 0);
    EXPECT_EQ(ints[4], 0);
    FastString<char> texts[2];
    std::vector<RecordIndex> some{1, 2};
    db.getFields(5, some, texts);
    EXPECT_TRUE(texts[0].empty());
    EXPECT_EQ(texts[1], textValue(seed(1, 5), 2));

    // Closing commits: a deletion that was not flushed stays, and its index stays used.
    db.deleteRecord(4);
    db.close();
    db.open();
    EXPECT_FALSE(db.hasRecord(4));
    EXPECT_EQ(db.addRecord("after"), 5);
}

TEST(ResourceDB, ReorganizeKeepsTheFieldsThatStillExist) {
    TempDir dir(nullptr, "qor-rdb");
    const std::string path = dir / "db";
    {
        ResourceDB db(path);
        db.create(10, kAllTypes);
        for (int i = 0; i < 3; ++i) db.addRecord("r" + std::to_string(i));
        std::vector<RecordIndex> all{0, 1, 2};
        writeGeneration(db, all, 5);
        db.flush();
    }
    // The digest moves to the front, the int64 field is gone, the double field (id 3) changes
    // its type, and a new field appears.
    const std::vector<Field> newer = {
        {ResourceDB::FtDigest, 43}, {ResourceDB::FtInt32, 41}, {ResourceDB::FtInt32, 3},
        {ResourceDB::FtVec3d, 23},  {ResourceDB::FtInt32, 7},  {ResourceDB::FtString, 100},
    };
    {
        ResourceDB db(path);
        db.open();
        // Until it is brought up to date, the file answers with its own list.
        EXPECT_EQ(db.getFieldIndex(42), 1);
        EXPECT_EQ(db.getFieldIndex(7), -1);
        db.reorganizeFields(newer);
        EXPECT_FALSE(db.hasPendingChanges());
    }
    ResourceDB db(path);
    db.open();
    ASSERT_EQ(db.getFieldList(), newer);
    EXPECT_EQ(db.getFieldIndex(42), -1);
    EXPECT_EQ(db.getRecordCount(), 3u);
    std::array<uint8_t, 16> digests[3];
    int32_t ints[3], changed[3], added[3];
    Vec3 vecs[3];
    FastString<char> texts[3];
    db.getFields(0, 0, 3, digests);
    db.getFields(1, 0, 3, ints);
    db.getFields(2, 0, 3, changed);
    db.getFields(3, 0, 3, vecs);
    db.getFields(4, 0, 3, added);
    db.getFields(5, 0, 3, texts);
    for (RecordIndex r = 0; r < 3; ++r) {
        EXPECT_EQ(digests[r], digestValue(seed(5, 4), r));
        EXPECT_EQ(ints[r], intValue(seed(5, 0), r));
        EXPECT_EQ(changed[r], 0) << "a field whose type changed starts unset";
        EXPECT_EQ(vecs[r].v[0], double(seed(5, 3)));
        EXPECT_EQ(added[r], 0);
        EXPECT_EQ(texts[r], textValue(seed(5, 5), r));
    }
    // The same list again changes nothing; the new field takes values.
    db.reorganizeFields(newer);
    db.setFields(4, 0, 3, ints);
    db.flush();
    db.getFields(4, 0, 3, added);
    EXPECT_EQ(added[2], intValue(seed(5, 0), 2));
}

TEST(ResourceDB, RefusesFilesItCannotUseWithClearReasons) {
    TempDir dir(nullptr, "qor-rdb");
    LogCapture log;
    auto openReason = [&](const std::string& path) {
        ResourceDB db(path);
        return reasonOf([&] { db.open(); });
    };
    EXPECT_EQ(openReason(dir / "missing"), ResourceDBException::RdbNotFound);

    writeFile(dir / "text", std::string(4096, 'x'));
    EXPECT_EQ(openReason(dir / "text"), ResourceDBException::RdbNotADatabase);
    writeFile(dir / "short", "SQLite");
    EXPECT_EQ(openReason(dir / "short"), ResourceDBException::RdbNotADatabase);
    writeFile(dir / "empty", "");
    EXPECT_EQ(openReason(dir / "empty"), ResourceDBException::RdbCorrupt);

    // A SQLite file of another kind.
    rawSql(dir / "other", "CREATE TABLE t(x)");
    EXPECT_EQ(openReason(dir / "other"), ResourceDBException::RdbNotADatabase);

    // A file of a newer format.
    const std::string newer = dir / "newer";
    {
        ResourceDB db(newer);
        db.create(10, kAllTypes);
    }
    rawSql(newer, "PRAGMA user_version=2");
    ResourceDB newerDb(newer);
    EXPECT_EQ(reasonOf([&] { newerDb.open(); }), ResourceDBException::RdbVersion);
    EXPECT_FALSE(newerDb.isOpen());

    // A file that lost its last page is refused at open, whichever table the page held; a file
    // whose pages were overwritten at the latest when a damaged field is read, and never read as
    // valid values.
    auto makeFilled = [](const std::string& path) {
        ResourceDB db(path);
        db.create(10, kAllTypes);
        std::vector<RecordIndex> records;
        for (int i = 0; i < 2000; ++i) records.push_back(db.addRecord("r" + std::to_string(i)));
        writeGeneration(db, records, 3);
        db.close();
    };
    const std::string cut = dir / "cut";
    makeFilled(cut);
    struct stat st {};
    ASSERT_EQ(::stat(cut.c_str(), &st), 0);
    ASSERT_EQ(::truncate(cut.c_str(), st.st_size - 4096), 0);
    EXPECT_EQ(openReason(cut), ResourceDBException::RdbCorrupt);

    const std::string scribbled = dir / "scribbled";
    makeFilled(scribbled);
    {
        std::fstream f(scribbled, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(8192);
        std::string junk(st.st_size / 2, '\x5a');
        f.write(junk.data(), std::streamsize(junk.size()));
    }
    Reason scribbledReason = Reason(0);
    ResourceDB db(scribbled);
    try {
        db.open();
        std::vector<RecordIndex> records(2000);
        for (int i = 0; i < 2000; ++i) records[i] = i;
        recordsNotOfGeneration(db, records, 3);
    } catch (const ResourceDBException& e) {
        scribbledReason = e.reason();
    }
    EXPECT_EQ(scribbledReason, ResourceDBException::RdbCorrupt);
    EXPECT_GE(log.count("ResourceDB '"), 8u) << "each refusal logs a line";
}

TEST(ResourceDB, RefusesBadCallsWithoutChangingAnything) {
    TempDir dir(nullptr, "qor-rdb");
    const std::string path = dir / "db";
    LogCapture log;
    ResourceDB db(path);
    EXPECT_EQ(reasonOf([&] { db.addRecord("x"); }), ResourceDBException::RdbNotOpen);
    EXPECT_EQ(reasonOf([&] { db.create(10, {}); }), ResourceDBException::RdbBadArgument);
    EXPECT_EQ(reasonOf([&] {
                  db.create(10, {{ResourceDB::FtInt32, 1}, {5, 2}});
              }),
              ResourceDBException::RdbBadArgument);

    db.create(10, kAllTypes);
    db.addRecord("a");
    db.addRecord("b");
    int32_t ints[3] = {1, 2, 3};
    db.setFields(0, 0, 2, ints);
    db.flush();

    // A run that reaches a record not in use writes nothing, not even its first values.
    int32_t other[3] = {7, 8, 9};
    EXPECT_EQ(reasonOf([&] { db.setFields(0, 0, 3, other); }), ResourceDBException::RdbNoRecord);
    std::vector<RecordIndex> listed{1, 6};
    EXPECT_EQ(reasonOf([&] { db.setFields(0, listed, other); }), ResourceDBException::RdbNoRecord);
    EXPECT_FALSE(db.hasPendingChanges());
    int32_t back[2];
    db.getFields(0, 0, 2, back);
    EXPECT_EQ(back[0], 1);
    EXPECT_EQ(back[1], 2);

    FastString<char> text[2];
    EXPECT_EQ(reasonOf([&] { db.getFields(0, 0, 2, text); }), ResourceDBException::RdbFieldList);
    EXPECT_EQ(reasonOf([&] { db.getFields(5, 0, 2, back); }), ResourceDBException::RdbFieldList);
    EXPECT_EQ(reasonOf([&] { db.getFields(-1, 0, 2, back); }), ResourceDBException::RdbFieldList);
    EXPECT_EQ(reasonOf([&] { db.getFields(0, -1, 2, back); }), ResourceDBException::RdbBadArgument);
    EXPECT_EQ(reasonOf([&] { db.deleteRecord(9); }), ResourceDBException::RdbNoRecord);
    db.close();

    ResourceDB reader(path);
    reader.open(true);
    EXPECT_TRUE(reader.isReadOnly());
    EXPECT_EQ(reasonOf([&] { reader.setFields(0, 0, 1, other); }),
              ResourceDBException::RdbReadOnly);
    EXPECT_EQ(reasonOf([&] { reader.addRecord("c"); }), ResourceDBException::RdbReadOnly);
    reader.getFields(0, 0, 2, back);
    EXPECT_EQ(back[1], 2);
}

// The disk fills up during a flush (files may not grow: writes fail as on a full disk): the flush
// throws, the file keeps the previous batch whole, and once there is room the object writes on.
// In a child process, which alone gets the file size limit.
TEST(ResourceDB, AFlushOnAFullDiskKeepsThePreviousContents) {
    TempDir dir(nullptr, "qor-rdb");
    const std::string path = dir / "db";
    std::vector<RecordIndex> records;
    {
        ResourceDB db(path);
        db.create(10, kAllTypes);
        for (int i = 0; i < 300; ++i) records.push_back(db.addRecord("r" + std::to_string(i)));
        writeGeneration(db, records, 1);
        db.close();
    }
    // Exit codes of the child: the reason of the failed flush, or one of these.
    enum { NoFailure = 90, OldBatchDamaged, LaterFlushFailed };
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int code = NoFailure;
        try {
            ResourceDB db(path);
            db.open();
            struct rlimit limit {};
            ::getrlimit(RLIMIT_FSIZE, &limit);
            const rlim_t unlimited = limit.rlim_cur;
            ::signal(SIGXFSZ, SIG_IGN);
            limit.rlim_cur = 16384;
            ::setrlimit(RLIMIT_FSIZE, &limit);
            try {
                writeGeneration(db, records, 2);
                db.addRecord("lost");
                db.flush();
            } catch (const ResourceDBException& e) {
                code = e.reason();
            }
            ResourceDB other(path);
            other.open();
            if (other.getRecordCount() != records.size() ||
                recordsNotOfGeneration(other, records, 1) != 0 || db.hasPendingChanges())
                code = OldBatchDamaged;
            limit.rlim_cur = unlimited;
            ::setrlimit(RLIMIT_FSIZE, &limit);
            writeGeneration(db, records, 3);
            db.flush();
        } catch (const std::exception&) {
            code = LaterFlushFailed;
        }
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    EXPECT_TRUE(code == ResourceDBException::RdbFull || code == ResourceDBException::RdbIO)
        << "child exit code " << code;
    ResourceDB db(path);
    db.open();
    EXPECT_EQ(db.getRecordCount(), records.size());
    EXPECT_EQ(recordsNotOfGeneration(db, records, 3), 0u);
    // The index that the lost record was given stays used: its caller may still hold it.
    EXPECT_EQ(db.addRecord("next"), RecordIndex(records.size()) + 1);
    db.close();
    EXPECT_EQ(integrityCheck(path), "ok");
}

namespace {

// 31 fields of every type, as many as the metadata cache keeps.
std::vector<Field> wideLayout() {
    std::vector<Field> fields;
    for (int i = 0; i < 31; ++i) fields.emplace_back(kAllTypes[i % kAllTypes.size()].type, 500 + i);
    return fields;
}

// The generation that a database of the kill test holds, from record 0's first field.
int generationOf(const ResourceDB& db) {
    int32_t first = 0;
    db.getFields(0, 0, 1, &first);
    return first / (64 * 4096);
}

// The writer of the kill test, in a child process: generation after generation, adds a record,
// renames record 0 after the generation and writes every field of every record, then flushes.
[[noreturn]] void writeGenerationsForever(const std::string& path) {
    try {
        ResourceDB db(path);
        db.open();
        int gen = generationOf(db);
        std::vector<RecordIndex> records;
        db.enumerateRecords(records);
        for (;;) {
            ++gen;
            records.push_back(db.addRecord("added in " + std::to_string(gen)));
            db.rename(0, "generation " + std::to_string(gen));
            writeGeneration(db, records, gen);
            db.flush();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kill test writer: %s\n", e.what());
    }
    ::_exit(3);
}

}  // namespace

// Kills a writer at random moments, many times: every time, the file holds one whole generation
// (the records, names and all fields of one flush), never part of one.
TEST(ResourceDB, AWriterKilledAtAnyMomentLeavesOneWholeBatch) {
    TempDir dir(nullptr, "qor-rdb");
    const std::string path = dir / "db";
    constexpr int initialRecords = 400;
    {
        ResourceDB db(path);
        db.create(1000, wideLayout());
        std::vector<RecordIndex> records;
        for (int i = 0; i < initialRecords; ++i)
            records.push_back(db.addRecord("record " + std::to_string(i)));
        db.rename(0, "generation 0");
        writeGeneration(db, records, 0);
        db.close();
    }

    std::mt19937 random(std::random_device{}());
    int lastGen = 0, advanced = 0, runs = 0;
    const auto start = std::chrono::steady_clock::now();
    // About 12 s, at least 40 kills.
    while (runs < 40 || std::chrono::steady_clock::now() - start < std::chrono::seconds(12)) {
        if (runs >= 400) break;
        ++runs;
        const int status = test::runAndKill(
            [&] { writeGenerationsForever(path); },
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 150000)(random)));
        ASSERT_NE(status, -1);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself, status " << status;

        ResourceDB db(path);
        ASSERT_NO_THROW(db.open()) << "run " << runs;
        const int gen = generationOf(db);
        ASSERT_EQ(db.getRecordCount(), size_t(initialRecords + gen)) << "run " << runs;
        ASSERT_GE(gen, lastGen) << "a committed generation was lost, run " << runs;
        if (gen > lastGen) ++advanced;
        lastGen = gen;
        std::vector<RecordIndex> records;
        std::vector<std::string> names;
        db.enumerateRecords(records, &names);
        ASSERT_EQ(records.size(), size_t(initialRecords + gen)) << "run " << runs;
        ASSERT_EQ(names[0], "generation " + std::to_string(gen));
        if (gen > 0) {
            ASSERT_EQ(names.back(), "added in " + std::to_string(gen));
        }
        ASSERT_EQ(recordsNotOfGeneration(db, records, gen), 0u)
            << "records of another generation than " << gen << ", run " << runs;
        db.close();
        ASSERT_EQ(integrityCheck(path), "ok") << "run " << runs;
    }
    // Kills that came before the first flush prove little; enough must come later (on a loaded
    // machine a writer takes longer to its first flush).
    EXPECT_GT(advanced, runs / 8) << lastGen << " generations in " << runs << " runs";
    std::printf("kill test: %d runs, %d generations, %d runs with progress\n", runs, lastGen,
                advanced);
}

// create() on the path of a database whose writer died leaves no trace of the old file: SQLite
// would otherwise take the old write-ahead log beside it as part of the new file.
TEST(ResourceDB, CreateReplacesADeadWritersFileWhole) {
    TempDir dir(nullptr, "qor-rdb");
    const std::string path = dir / "db";
    {
        ResourceDB db(path);
        db.create(10, wideLayout());
    }
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Commits a batch and dies without closing, so the batch stays in the log.
        ResourceDB db(path);
        db.open();
        std::vector<RecordIndex> records;
        for (int i = 0; i < 50; ++i) records.push_back(db.addRecord("old"));
        writeGeneration(db, records, 9);
        db.flush();
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    struct stat wal {};
    ASSERT_EQ(::stat((path + "-wal").c_str(), &wal), 0);
    ASSERT_GT(wal.st_size, 0);

    ResourceDB db(path);
    db.create(20, kAllTypes);
    EXPECT_EQ(db.getRecordCount(), 0u);
    EXPECT_EQ(db.getFieldList(), kAllTypes);
    EXPECT_EQ(db.addRecord("new"), 0);
    db.close();
    db.open();
    EXPECT_EQ(db.getRecordCount(), 1u);
    EXPECT_EQ(db.getCapacity(), 20u);
    db.close();
    // Nothing of the build is left beside the file, and closing leaves the file alone.
    std::vector<std::string> files;
    for (filesystem::UrlIterator it(dir.path()); it.valid(); it.next()) files.push_back(it.name());
    EXPECT_EQ(files, std::vector<std::string>{"db"});
    EXPECT_EQ(integrityCheck(path), "ok");
}
