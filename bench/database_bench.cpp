// Reading 1M rows of (int, real, text) through ExecQuery and the cursor, against the raw sqlite3
// calls and POCO's Data::SQLite doing the same reads, on one file in one run; and the precise length
// of the bounded busy wait of a blocked write.
#include "PeakRss.h"
#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/Data/Statement.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sqlite3.h>
#include <string>
#include <sys/resource.h>
#include <time.h>
#include <vector>

using ZOTH::CDataBaseInfo;
using ZOTH::CSqlLiteInternal;
using ZOTH::CSqlLiteQueryInternal;

namespace {

constexpr int kRows = 1000000;
const char* kSelect = "SELECT i, r, t FROM rows";

// A temporary folder with rows.db (kRows rows), made once and removed at exit.
struct BenchFiles {
    std::string dir;
    std::string rows;
    BenchFiles() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zoth-dbbench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        dir = pattern;
        rows = dir + "/rows.db";
        sqlite3* db = nullptr;
        sqlite3_stmt* insert = nullptr;
        if (sqlite3_open(rows.c_str(), &db) != SQLITE_OK ||
            sqlite3_exec(db, "CREATE TABLE rows(i INTEGER, r REAL, t TEXT); BEGIN;", nullptr, nullptr,
                         nullptr) != SQLITE_OK ||
            sqlite3_prepare_v2(db, "INSERT INTO rows VALUES(?, ?, ?)", -1, &insert, nullptr) != SQLITE_OK)
            std::abort();
        for (int n = 0; n < kRows; ++n) {
            std::string text = "row text " + std::to_string(n);
            sqlite3_bind_int(insert, 1, n);
            sqlite3_bind_double(insert, 2, n * 0.5);
            sqlite3_bind_text(insert, 3, text.c_str(), -1, SQLITE_TRANSIENT);
            if (sqlite3_step(insert) != SQLITE_DONE) std::abort();
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
        sqlite3_close(db);
    }
    ~BenchFiles() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

BenchFiles& Files() {
    static BenchFiles files;
    return files;
}

void Open(CSqlLiteInternal& db, const std::string& path) {
    CDataBaseInfo info;
    std::string p = path;
    info.SetDataBaseFilePath(p);
    if (db.Init(info) != 1 || db.OpenSqlDB() != 1) std::abort();
}

void BM_RawSqliteRead(benchmark::State& state) {
    sqlite3* db = nullptr;
    if (sqlite3_open(Files().rows.c_str(), &db) != SQLITE_OK) std::abort();
    std::string text;
    long long rows = 0;
    for (auto _ : state) {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, kSelect, -1, &stmt, nullptr);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            int i = sqlite3_column_int(stmt, 0);
            double r = sqlite3_column_double(stmt, 1);
            const unsigned char* t = sqlite3_column_text(stmt, 2);
            text.assign(t ? reinterpret_cast<const char*>(t) : "");
            benchmark::DoNotOptimize(i);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(text.data());
            ++rows;
        }
        sqlite3_finalize(stmt);
    }
    state.SetItemsProcessed(rows);
    sqlite3_close(db);
}

void BM_CursorRead(benchmark::State& state) {
    CSqlLiteInternal db;
    Open(db, Files().rows);
    std::string sql = kSelect, text;
    long long rows = 0;
    for (auto _ : state) {
        CSqlLiteQueryInternal q;
        DWORD code = 0;
        if (db.ExecQuery(sql, q, code) != 1) std::abort();
        for (; !q.Eof(); q.NextRow()) {
            int i = 0;
            double r = 0;
            q.GetIntField(0, i);
            q.GetFloatField(1, r);
            q.GetStringField(2, text);
            benchmark::DoNotOptimize(i);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(text.data());
            ++rows;
        }
    }
    state.SetItemsProcessed(rows);
    if (rows % kRows != 0) state.SkipWithError("row count mismatch");
    db.CloseDB();
}

// POCO's way through a large result in constant memory: typed extraction into vectors, 1000 rows
// per execution (limit), executed again until the statement is done.
void BM_PocoSqliteRead(benchmark::State& state) {
    using namespace Poco::Data::Keywords;
    Poco::Data::SQLite::Connector::registerConnector();
    Poco::Data::Session session(Poco::Data::SQLite::Connector::KEY, Files().rows);
    std::vector<int> ints;
    std::vector<double> reals;
    std::vector<std::string> texts;
    long long rows = 0;
    for (auto _ : state) {
        Poco::Data::Statement select(session);
        select << kSelect, into(ints), into(reals), into(texts), limit(1000);
        while (!select.done()) {
            ints.clear();
            reals.clear();
            texts.clear();
            select.execute();
            for (size_t k = 0; k < ints.size(); ++k) {
                benchmark::DoNotOptimize(ints[k]);
                benchmark::DoNotOptimize(reals[k]);
                benchmark::DoNotOptimize(texts[k].data());
                ++rows;
            }
        }
    }
    state.SetItemsProcessed(rows);
    if (rows % kRows != 0) state.SkipWithError("row count mismatch");
}

// The same through the by-name readers, which search the column names on every read.
void BM_CursorReadByName(benchmark::State& state) {
    CSqlLiteInternal db;
    Open(db, Files().rows);
    std::string sql = kSelect, text;
    long long rows = 0;
    for (auto _ : state) {
        CSqlLiteQueryInternal q;
        DWORD code = 0;
        if (db.ExecQuery(sql, q, code) != 1) std::abort();
        for (; !q.Eof(); q.NextRow()) {
            int i = 0;
            double r = 0;
            q.GetIntField("i", i);
            q.GetFloatField("r", r);
            q.GetStringField("t", text);
            benchmark::DoNotOptimize(i);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(text.data());
            ++rows;
        }
    }
    state.SetItemsProcessed(rows);
    db.CloseDB();
}

// Thread CPU seconds: steadier than wall time on a shared, loaded machine.
double CpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Both readers in every iteration, one after the other, so that load changes hit both alike;
// reports rows/s of each (CPU time) and the ratio cursor / raw.
void BM_CursorVsRawRatio(benchmark::State& state) {
    sqlite3* raw = nullptr;
    if (sqlite3_open(Files().rows.c_str(), &raw) != SQLITE_OK) std::abort();
    CSqlLiteInternal db;
    Open(db, Files().rows);
    std::string sql = kSelect, text;
    double rawSeconds = 0, cursorSeconds = 0;
    long long rawRows = 0, cursorRows = 0;
    for (auto _ : state) {
        double t0 = CpuSeconds();
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(raw, kSelect, -1, &stmt, nullptr);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            int i = sqlite3_column_int(stmt, 0);
            double r = sqlite3_column_double(stmt, 1);
            const unsigned char* t = sqlite3_column_text(stmt, 2);
            text.assign(t ? reinterpret_cast<const char*>(t) : "");
            benchmark::DoNotOptimize(i);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(text.data());
            ++rawRows;
        }
        sqlite3_finalize(stmt);
        double t1 = CpuSeconds();
        CSqlLiteQueryInternal q;
        DWORD code = 0;
        if (db.ExecQuery(sql, q, code) != 1) std::abort();
        for (; !q.Eof(); q.NextRow()) {
            int i = 0;
            double r = 0;
            q.GetIntField(0, i);
            q.GetFloatField(1, r);
            q.GetStringField(2, text);
            benchmark::DoNotOptimize(i);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(text.data());
            ++cursorRows;
        }
        q.Finalize();
        double t2 = CpuSeconds();
        rawSeconds += t1 - t0;
        cursorSeconds += t2 - t1;
    }
    double rawRate = rawRows / rawSeconds, cursorRate = cursorRows / cursorSeconds;
    state.counters["raw_rows_per_s"] = rawRate;
    state.counters["cursor_rows_per_s"] = cursorRate;
    state.counters["cursor_over_raw"] = cursorRate / rawRate;
    db.CloseDB();
    sqlite3_close(raw);
}

// One iteration = one write blocked by another connection's write lock, until the busy handler
// gives up. Expected: about 210 ms (21 sleeps of 10 ms), well below 500 ms.
void BM_BlockedWriteGivesUp(benchmark::State& state) {
    std::string path = Files().dir + "/busy.db";
    CSqlLiteInternal holder, writer;
    Open(holder, path);
    Open(writer, path);
    DWORD code = 0;
    std::string setup = "CREATE TABLE IF NOT EXISTS t(x); BEGIN IMMEDIATE; INSERT INTO t VALUES(1);";
    if (holder.ExecSql(setup, code) != 1) std::abort();
    std::string write = "INSERT INTO t VALUES(2)";
    for (auto _ : state) {
        if (writer.ExecSql(write, code) != 0 || code != SQLITE_BUSY)
            state.SkipWithError("write was not refused");
    }
    std::string rollback = "ROLLBACK";
    holder.ExecSql(rollback, code);
    holder.CloseDB();
    writer.CloseDB();
}

} // namespace

BENCHMARK(BM_RawSqliteRead)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_CursorRead)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_PocoSqliteRead)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_CursorReadByName)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_CursorVsRawRatio)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_BlockedWriteGivesUp)->Unit(benchmark::kMillisecond)->Iterations(10)->UseRealTime();

// Peak resident memory of the whole program, after every benchmark has run.
int main(int argc, char** argv) {
    return RunBenchmarksAndReportPeakRss(argc, argv);
}
