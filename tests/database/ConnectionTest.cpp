// The database connection on real files: path handling, the failure table, statements, closing.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <filesystem>
#include <gtest/gtest.h>

using ZOTH::CDataBaseInfo;
using ZOTH::CSqlLiteInternal;
using ZOTH::CSqlLiteQueryInternal;
using zoth_test::OpenDb;
using zoth_test::ScalarInt;
using zoth_test::TempDir;

namespace {

bool FolderIsEmpty(const std::string& path) {
    return std::filesystem::is_empty(path);
}

} // namespace

TEST(DatabaseInfo, HoldsUtf8AndHandsOutAnsi) {
    CDataBaseInfo info;
    EXPECT_EQ("", info.GetDataBaseFilePath());
    EXPECT_EQ("", info.GetDataBaseVersionInfo());
    std::string path = "C:\\data\\caf\xE9.db"; // Windows-1252: e with acute accent
    std::string version = "v2 \xA9";           // copyright sign
    info.SetDataBaseFilePath(path);
    info.SetDataBaseVersionInfo(version);
    EXPECT_EQ("C:\\data\\caf\xE9.db", path); // arguments unchanged
    EXPECT_EQ("C:\\data\\caf\xE9.db", info.GetDataBaseFilePath());
    EXPECT_EQ("v2 \xA9", info.GetDataBaseVersionInfo());
    CDataBaseInfo copy(info);
    CDataBaseInfo assigned;
    assigned = info;
    EXPECT_EQ(info.GetDataBaseFilePath(), copy.GetDataBaseFilePath());
    EXPECT_EQ(info.GetDataBaseVersionInfo(), assigned.GetDataBaseVersionInfo());

    // The file itself is named in UTF-8: an ANSI e-acute becomes the two bytes C3 A9 on disk.
    TempDir dir;
    {
        OpenDb c(dir / "caf\xE9.db");
        c.Exec("CREATE TABLE t(x)");
    }
    EXPECT_TRUE(std::filesystem::exists(dir / "caf\xC3\xA9.db"));
    EXPECT_FALSE(std::filesystem::exists(dir / "caf\xE9.db"));
}

TEST(DatabaseConnection, NothingHappensWithoutAPath) {
    TempDir dir;
    CSqlLiteInternal db;
    EXPECT_EQ(0, db.OpenSqlDB()); // before Init: no file is made
    EXPECT_EQ(0, db.CloseDB());   // never opened
    CDataBaseInfo empty;
    EXPECT_EQ(0, db.Init(empty));
    EXPECT_EQ(0, db.OpenSqlDB());
    EXPECT_TRUE(FolderIsEmpty(dir.Path()));

    // A refused Init keeps what an earlier one stored.
    CDataBaseInfo info;
    std::string path = dir / "kept.db";
    info.SetDataBaseFilePath(path);
    EXPECT_EQ(1, db.Init(info));
    EXPECT_TRUE(FolderIsEmpty(dir.Path())); // Init opens nothing
    EXPECT_EQ(0, db.Init(empty));
    ASSERT_EQ(1, db.OpenSqlDB());
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(1, db.CloseDB());
    EXPECT_EQ(0, db.CloseDB()); // closed counts as never opened
    DWORD code = 77;
    std::string sql = "SELECT 1";
    CSqlLiteQueryInternal q;
    EXPECT_EQ(0, db.ExecSql(sql, code));
    EXPECT_EQ(0, db.ExecQuery(sql, q, code));
    EXPECT_EQ(77u, code);
    EXPECT_EQ(0, q.GetCols());
}

TEST(DatabaseConnection, FailedOpenLeavesOnlyAClose) {
    TempDir dir;
    CSqlLiteInternal db;
    CDataBaseInfo info;
    std::string path = dir / "missing-folder/x.db";
    info.SetDataBaseFilePath(path);
    ASSERT_EQ(1, db.Init(info));
    EXPECT_EQ(0, db.OpenSqlDB());
    EXPECT_FALSE(std::filesystem::exists(dir / "missing-folder"));
    DWORD code = 77;
    std::string sql = "CREATE TABLE t(x)";
    EXPECT_EQ(0, db.ExecSql(sql, code));
    EXPECT_NE(0u, code);        // SQLite answers on the failed handle with an error code
    EXPECT_EQ(1, db.CloseDB()); // releases what sqlite3_open left behind
    EXPECT_EQ(0, db.CloseDB());
}

TEST(DatabaseConnection, FailureTableOfExecSqlAndExecQuery) {
    TempDir dir;
    DWORD code = 77;
    std::string select = "SELECT 1";

    // No connection: 0, and neither the code nor the cursor is written.
    CSqlLiteInternal closed;
    CSqlLiteQueryInternal none;
    EXPECT_EQ(0, closed.ExecSql(select, code));
    EXPECT_EQ(0, closed.ExecQuery(select, none, code));
    EXPECT_EQ(77u, code);
    EXPECT_EQ(0, none.GetCols());

    OpenDb c(dir / "table.db");
    CSqlLiteQueryInternal q; // after c, so it is finalized before c closes
    c.Exec("CREATE TABLE t(x INTEGER PRIMARY KEY, y TEXT); INSERT INTO t VALUES(1, 'one');");
    ASSERT_EQ(100u, c.Query("SELECT y FROM t", q)); // a cursor on a row, to see it left alone

    // Empty text: ExecSql runs nothing and succeeds; ExecQuery refuses without writing.
    std::string empty;
    code = 77;
    EXPECT_EQ(1, c.db.ExecSql(empty, code));
    EXPECT_EQ(0u, code);
    code = 77;
    EXPECT_EQ(0, c.db.ExecQuery(empty, q, code));
    EXPECT_EQ(77u, code);

    // Text that does not compile: SQLite's error from ExecSql, 0 from ExecQuery.
    std::string bad = "SELEC y FROM t";
    EXPECT_EQ(0, c.db.ExecSql(bad, code));
    EXPECT_EQ(static_cast<DWORD>(SQLITE_ERROR), code);
    code = 77;
    EXPECT_EQ(0, c.db.ExecQuery(bad, q, code));
    EXPECT_EQ(0u, code);

    // A step that fails: the step's own code, cursor untouched.
    std::string dup = "INSERT INTO t VALUES(1, 'again')";
    EXPECT_EQ(0, c.db.ExecQuery(dup, q, code));
    EXPECT_EQ(static_cast<DWORD>(SQLITE_CONSTRAINT), code);
    EXPECT_EQ(0, c.db.ExecSql(dup, code));
    EXPECT_EQ(static_cast<DWORD>(SQLITE_CONSTRAINT), code);

    std::string s;
    ASSERT_TRUE(q.GetStringField(0, s)); // still on the row it had
    EXPECT_EQ("one", s);
    EXPECT_EQ(1, q.GetCols());

    // Success without rows, and with rows that ExecSql drops.
    std::string insert = "INSERT INTO t VALUES(2, 'two')";
    EXPECT_EQ(1, c.db.ExecSql(insert, code));
    EXPECT_EQ(0u, code);
    std::string update = "UPDATE t SET y = 'TWO' WHERE x = 2";
    CSqlLiteQueryInternal u;
    EXPECT_EQ(1, c.db.ExecQuery(update, u, code));
    EXPECT_EQ(101u, code);
    EXPECT_EQ(1, c.db.ExecSql(select, code));
    EXPECT_EQ(0u, code);
    std::string rows = "SELECT y FROM t WHERE x = 2";
    CSqlLiteQueryInternal r;
    EXPECT_EQ(1, c.db.ExecQuery(rows, r, code));
    EXPECT_EQ(100u, code);
    ASSERT_TRUE(r.GetStringField(0, s));
    EXPECT_EQ("TWO", s);
}

TEST(DatabaseConnection, ExecSqlRunsEveryStatementExecQueryTheFirst) {
    TempDir dir;
    OpenDb c(dir / "multi.db");
    c.Exec("CREATE TABLE t(x); INSERT INTO t VALUES(1); INSERT INTO t VALUES(2);");
    EXPECT_EQ(2, ScalarInt(c, "SELECT count(*) FROM t"));
    CSqlLiteQueryInternal q;
    EXPECT_EQ(101u, c.Query("INSERT INTO t VALUES(3); INSERT INTO t VALUES(4);", q));
    q.Finalize();
    EXPECT_EQ(6, ScalarInt(c, "SELECT sum(x) FROM t"));
    // SQL text goes to SQLite as UTF-8 bytes, unconverted.
    c.Exec("INSERT INTO t VALUES('\xE2\x82\xAC')");
    EXPECT_EQ(3, ScalarInt(c, "SELECT length(CAST(x AS BLOB)) FROM t WHERE x = '\xE2\x82\xAC'"));
    EXPECT_EQ(1, ScalarInt(c, "SELECT length(x) FROM t WHERE typeof(x) = 'text'"));
}

TEST(DatabaseConnection, CloseWaitsForTheCursorsStatement) {
    TempDir dir;
    OpenDb c(dir / "close.db");
    c.Exec("CREATE TABLE t(x); INSERT INTO t VALUES(1),(2);");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT x FROM t ORDER BY x", q));
    EXPECT_EQ(0, c.db.CloseDB());
    c.Exec("INSERT INTO t VALUES(3)"); // still open and usable
    int v = 0;
    ASSERT_TRUE(q.GetIntField(0, v));
    EXPECT_EQ(1, v);

    // A second query into the same cursor ends the statement it held, so one Finalize suffices.
    ASSERT_EQ(100u, c.Query("SELECT count(*) FROM t", q));
    ASSERT_TRUE(q.GetIntField(0, v));
    EXPECT_EQ(3, v);
    EXPECT_EQ(0, c.db.CloseDB());
    q.Finalize();
    EXPECT_EQ(1, c.db.CloseDB());

    // Reopening the same object finds the data.
    ASSERT_EQ(1, c.db.OpenSqlDB());
    EXPECT_EQ(3, ScalarInt(c, "SELECT count(*) FROM t"));
}

TEST(DatabaseConnection, CopiesShareOneConnectionThatOutlivesTheObject) {
    TempDir dir;
    CSqlLiteInternal keep;
    {
        OpenDb c(dir / "share.db");
        c.Exec("CREATE TABLE t(x)");
        keep = c.db;
        CSqlLiteInternal copy(c.db);
        DWORD code = 77;
        std::string sql = "INSERT INTO t VALUES(5)";
        EXPECT_EQ(1, copy.ExecSql(sql, code));
        EXPECT_EQ(5, ScalarInt(c, "SELECT x FROM t"));
        // Forget the connection in c without closing it: c's own CloseDB must not run.
        CSqlLiteInternal blank;
        c.db = blank;
    } // neither c nor copy closes the shared connection in a destructor
    DWORD code = 77;
    std::string sql = "INSERT INTO t VALUES(6)";
    EXPECT_EQ(1, keep.ExecSql(sql, code));
    EXPECT_EQ(1, keep.CloseDB());
}
