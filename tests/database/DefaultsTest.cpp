// The busy wait of a connection whose wait nobody set: the bounded handler's 21 sleeps of 10 ms,
// about 210 ms, not SQLite's timed wait of the stored 500 ms.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>

using zoth_test::OpenDb;
using zoth_test::TempDir;

TEST(DatabaseDefaults, BlockedWriteGivesUpAfterAbout210Ms) {
    TempDir dir;
    OpenDb holder(dir / "busy.db"), writer(dir / "busy.db");
    holder.Exec("CREATE TABLE t(x)");
    holder.Exec("BEGIN IMMEDIATE; INSERT INTO t VALUES(1);");
    // A loaded machine only makes a wait longer, so the shortest of a few tries is the one to judge.
    long long shortest = 1000000;
    for (int attempt = 0; attempt < 5; ++attempt) {
        DWORD code = zoth_test::kUntouched;
        std::string sql = "INSERT INTO t VALUES(2)";
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, writer.db.ExecSql(sql, code));
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        EXPECT_EQ(static_cast<DWORD>(SQLITE_BUSY), code);
        shortest = std::min<long long>(shortest, ms.count());
    }
    EXPECT_GE(shortest, 200); // it waits: 21 sleeps of at least 10 ms
    EXPECT_LT(shortest, 380); // and gives up well before 500 ms or a longer handler
    holder.Exec("COMMIT");
}
