// The bounded busy wait: a write blocked by another connection's or process's lock gives up with
// SQLITE_BUSY after about 210 ms (21 sleeps of 10 ms), well before the stored 500 ms timeout.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <thread>

using ZOTH::CSqlLiteQueryInternal;
using zoth_test::OpenDb;
using zoth_test::TempDir;

namespace {

using Clock = std::chrono::steady_clock;

// Runs `sql` on `conn` and gives the time it took in milliseconds.
long long TimedExecSql(OpenDb& conn, std::string sql, int& result, DWORD& code) {
    auto start = Clock::now();
    result = conn.db.ExecSql(sql, code);
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Wide bounds: the lower one shows that the handler waited, the upper one that it gave up
// (and did not wait forever); the precise figure is measured in bench_database_bench.
void ExpectBoundedWait(long long ms) {
    EXPECT_GE(ms, 150);
    EXPECT_LT(ms, 2000);
    std::printf("    blocked write gave up after %lld ms\n", ms);
}

// True once some other party holds a write lock on `path`: a probing connection without any busy
// handling cannot begin a write transaction.
bool WriteLockIsHeld(const std::string& path) {
    sqlite3* probe = nullptr;
    bool held = false;
    if (sqlite3_open(path.c_str(), &probe) == SQLITE_OK) {
        held = sqlite3_exec(probe, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_BUSY;
        if (!held) sqlite3_exec(probe, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    sqlite3_close(probe);
    return held;
}

} // namespace

TEST(DatabaseBusy, WriteBlockedByAnotherConnectionGivesUp) {
    TempDir dir;
    std::string path = dir / "busy.db";
    OpenDb holder(path);
    OpenDb writer(path);
    holder.Exec("CREATE TABLE t(x)");
    holder.Exec("BEGIN IMMEDIATE; INSERT INTO t VALUES(1);");

    int result = -1;
    DWORD code = 77;
    long long ms = TimedExecSql(writer, "INSERT INTO t VALUES(2)", result, code);
    EXPECT_EQ(0, result);
    EXPECT_EQ(static_cast<DWORD>(SQLITE_BUSY), code);
    ExpectBoundedWait(ms);

    // ExecQuery reports the failed first step the same way and leaves the cursor alone.
    CSqlLiteQueryInternal q;
    std::string sql = "INSERT INTO t VALUES(3)";
    code = 77;
    auto start = Clock::now();
    EXPECT_EQ(0, writer.db.ExecQuery(sql, q, code));
    ExpectBoundedWait(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    EXPECT_EQ(static_cast<DWORD>(SQLITE_BUSY), code);
    EXPECT_EQ(0, q.GetCols());

    // Reading needs no write lock, and once the holder commits the write goes through.
    EXPECT_EQ(0, zoth_test::ScalarInt(writer, "SELECT count(*) FROM t"));
    holder.Exec("COMMIT");
    writer.Exec("INSERT INTO t VALUES(4)");
    EXPECT_EQ(5, zoth_test::ScalarInt(writer, "SELECT sum(x) FROM t"));
}

TEST(DatabaseBusy, WriteBlockedByTheSqliteShellGivesUp) {
    TempDir dir;
    std::string path = dir / "shell-busy.db";
    OpenDb writer(path);
    writer.Exec("CREATE TABLE t(x)");

    // The real sqlite3 shell takes a write lock and keeps it while it waits for more input.
    std::string command = "sqlite3 '" + path + "'";
    FILE* shell = popen(command.c_str(), "w");
    ASSERT_NE(nullptr, shell);
    std::fputs(".timeout 5000\nBEGIN IMMEDIATE;\nINSERT INTO t VALUES(100);\n", shell);
    std::fflush(shell);
    bool held = false;
    for (int i = 0; i < 500 && !held; ++i) { // up to about 10 s on a loaded machine
        held = WriteLockIsHeld(path);
        if (!held) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(held) << "the shell never took its lock";

    int result = -1;
    DWORD code = 77;
    long long ms = TimedExecSql(writer, "INSERT INTO t VALUES(1)", result, code);
    EXPECT_EQ(0, result);
    EXPECT_EQ(static_cast<DWORD>(SQLITE_BUSY), code);
    ExpectBoundedWait(ms);

    // End of input: the shell exits and its open transaction is rolled back.
    EXPECT_EQ(0, pclose(shell));
    writer.Exec("INSERT INTO t VALUES(1)");
    EXPECT_EQ(1, zoth_test::ScalarInt(writer, "SELECT sum(x) FROM t"));
}
