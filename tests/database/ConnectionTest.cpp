// The database connection on real files: path handling, the failure table, statements, closing.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <filesystem>
#include <gtest/gtest.h>

using ZOTH::CDataBaseInfo;
using ZOTH::CSqlLiteInternal;
using ZOTH::CSqlLiteQueryInternal;
using zoth_test::kUntouched;
using zoth_test::OpenDb;
using zoth_test::ScalarInt;
using zoth_test::TempDir;
namespace fs = std::filesystem;

TEST(DatabaseInfo, HoldsUtf8AndHandsOutAnsi) {
    CDataBaseInfo info;
    EXPECT_EQ("", info.GetDataBaseFilePath());
    std::string path = "C:\\data\\caf\xE9.db", version = "v2 \xA9"; // Windows-1252 e-acute, (c)
    info.SetDataBaseFilePath(path);
    info.SetDataBaseVersionInfo(version);
    EXPECT_EQ("C:\\data\\caf\xE9.db", path); // argument unchanged
    EXPECT_EQ("C:\\data\\caf\xE9.db", CDataBaseInfo(info).GetDataBaseFilePath());
    EXPECT_EQ("v2 \xA9", info.GetDataBaseVersionInfo());
    // The file is named with the character: in UTF-8 on Linux (the ANSI e-acute becomes C3 A9 on
    // disk), in UTF-16 on Windows (where SQLite turns the UTF-8 path into a wide one).
    TempDir dir;
    OpenDb(dir / "caf\xE9.db").Exec("CREATE TABLE t(x)");
    if (zoth_test::kWindows) { // named by the character, and not by the UTF-8 bytes taken for ANSI text
        EXPECT_TRUE(fs::exists(fs::path(dir.Path()) / L"caf\u00e9.db"));
        EXPECT_FALSE(fs::exists(fs::path(dir.Path()) / L"caf\u00c3\u00a9.db"));
    } else {
        EXPECT_TRUE(fs::exists(dir / "caf\xC3\xA9.db"));
        EXPECT_FALSE(fs::exists(dir / "caf\xE9.db"));
    }
}

TEST(DatabaseConnection, FailureTableOfOpenExecSqlAndExecQuery) {
    TempDir dir;
    CSqlLiteInternal never, closed;
    EXPECT_EQ(0, closed.OpenSqlDB()); // before Init: no file is made
    EXPECT_EQ(0, closed.CloseDB());   // never opened
    CDataBaseInfo empty, info;
    EXPECT_EQ(0, closed.Init(empty));
    EXPECT_EQ(0, closed.OpenSqlDB());
    // A refused Init keeps what an earlier one stored; Init alone opens nothing.
    std::string path = dir / "closed.db";
    info.SetDataBaseFilePath(path);
    EXPECT_EQ(1, closed.Init(info));
    EXPECT_EQ(0, closed.Init(empty));
    EXPECT_TRUE(fs::is_empty(dir.Path()));
    ASSERT_EQ(1, closed.OpenSqlDB());
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(1, closed.CloseDB());
    EXPECT_EQ(0, closed.CloseDB()); // closed counts as never opened

    // A failed open (missing folder) creates nothing and leaves only a close to do.
    CSqlLiteInternal failed;
    std::string missing = dir / "missing-folder/x.db", create = "CREATE TABLE t(x)";
    info.SetDataBaseFilePath(missing);
    ASSERT_EQ(1, failed.Init(info));
    EXPECT_EQ(0, failed.OpenSqlDB());
    EXPECT_FALSE(fs::exists(dir / "missing-folder"));
    DWORD code = kUntouched;
    EXPECT_EQ(0, failed.ExecSql(create, code));
    EXPECT_NE(0u, code);            // SQLite answers on the failed handle
    EXPECT_EQ(1, failed.CloseDB()); // releases what sqlite3_open left behind
    EXPECT_EQ(0, failed.CloseDB());

    OpenDb c(dir / "table.db");
    c.Exec("CREATE TABLE t(x INTEGER PRIMARY KEY, y TEXT); INSERT INTO t VALUES(1, 'one');");
    CSqlLiteQueryInternal held; // on a row: every refused ExecQuery must leave it there
    ASSERT_EQ(100u, c.Query("SELECT y FROM t", held));
    const struct {
        const char *what, *sql;
        CSqlLiteInternal* db;
        int sqlResult, queryResult;
        DWORD sqlCode, queryCode;
    } rows[] = {
        {"never opened", "SELECT 1", &never, 0, 0, kUntouched, kUntouched},
        {"closed", "SELECT 1", &closed, 0, 0, kUntouched, kUntouched},
        {"empty text", "", &c.db, 1, 0, 0, kUntouched},
        {"does not compile", "SELEC y FROM t", &c.db, 0, 0, SQLITE_ERROR, 0},
        {"step fails", "INSERT INTO t VALUES(1, 'again')", &c.db, 0, 0, SQLITE_CONSTRAINT, SQLITE_CONSTRAINT},
        {"no rows", "DELETE FROM t WHERE x = 2", &c.db, 1, 1, 0, 101},
        {"rows", "SELECT y FROM t", &c.db, 1, 1, 0, 100},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        std::string sql = r.sql, s;
        code = kUntouched;
        EXPECT_EQ(r.sqlResult, r.db->ExecSql(sql, code));
        EXPECT_EQ(r.sqlCode, code);
        CSqlLiteQueryInternal fresh;
        code = kUntouched;
        EXPECT_EQ(r.queryResult, r.db->ExecQuery(sql, r.queryResult ? fresh : held, code));
        EXPECT_EQ(r.queryCode, code);
        EXPECT_EQ(r.queryCode == 100 ? 1 : 0, fresh.GetCols());
        ASSERT_TRUE(held.GetStringField(0, s));
        EXPECT_EQ("one", s);
    }
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

TEST(DatabaseConnection, CloseFailsWhileACursorHoldsItsStatement) {
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
    DWORD code = kUntouched;
    std::string insert5 = "INSERT INTO t VALUES(5)", insert6 = "INSERT INTO t VALUES(6)";
    {
        OpenDb c(dir / "share.db");
        c.Exec("CREATE TABLE t(x)");
        keep = c.db;
        CSqlLiteInternal copy(c.db);
        EXPECT_EQ(1, copy.ExecSql(insert5, code));
        EXPECT_EQ(5, ScalarInt(c, "SELECT x FROM t"));
        c.db = CSqlLiteInternal(); // forget the connection without closing it
    }                              // neither c nor copy closes the shared connection in a destructor
    EXPECT_EQ(1, keep.ExecSql(insert6, code));
    EXPECT_EQ(1, keep.CloseDB());
}
