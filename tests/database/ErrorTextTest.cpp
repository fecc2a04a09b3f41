// The words behind a failure: the connection's and the cursor's text, on real database files.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

using ZOTH::CDataBaseInfo;
using ZOTH::CSqlLiteInternal;
using ZOTH::CSqlLiteQueryInternal;
using zoth_test::kUntouched;
using zoth_test::OpenDb;
using zoth_test::TempDir;

TEST(DatabaseErrorText, EachFailureReadsAsItsOwnAndSuccessClearsIt) {
    TempDir dir;
    OpenDb c(dir / "words.db");
    c.Exec("CREATE TABLE t(x INTEGER PRIMARY KEY, y TEXT NOT NULL);");
    EXPECT_EQ("", c.db.GetLastErrorText());
    const struct {
        const char* sql;
        const char* text; // what the text must say after ExecSql and after ExecQuery; "" for success
    } rows[] = {
        {"SELEC x FROM t", "near \"SELEC\": syntax error"},
        {"SELECT x FROM nothere", "no such table: nothere"},
        {"SELECT z FROM t", "no such column: z"},
        {"INSERT INTO t VALUES(1, NULL)", "NOT NULL constraint failed: t.y"},
        {"INSERT INTO t VALUES(1, 'a')", ""},
        {"INSERT INTO t VALUES(1, 'b')", "UNIQUE constraint failed: t.x"},
        {"SELECT abs(-9223372036854775808)", "integer overflow"},
        {"SELECT y FROM t", ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.sql);
        std::string sql = r.sql;
        DWORD code = kUntouched;
        c.db.ExecSql(sql, code);
        EXPECT_EQ(r.text, c.db.GetLastErrorText());
        if (std::string(r.sql) == "INSERT INTO t VALUES(1, 'a')") continue; // would run again
        CSqlLiteQueryInternal q;
        code = kUntouched;
        int result = c.db.ExecQuery(sql, q, code);
        EXPECT_EQ(r.text, c.db.GetLastErrorText()); // also where `code` says 0 (text does not compile)
        EXPECT_EQ(*r.text == '\0' ? 1 : 0, result);
        q.Finalize();
    }
    // A refusal before SQLite is asked leaves the text of the call before.
    std::string bad = "SELECT * FROM nothere", empty;
    DWORD code = kUntouched;
    CSqlLiteQueryInternal q;
    EXPECT_EQ(0, c.db.ExecSql(bad, code));
    EXPECT_EQ(0, c.db.ExecQuery(empty, q, code));
    EXPECT_EQ("no such table: nothere", c.db.GetLastErrorText());
    // A copy shares the connection and so its text.
    EXPECT_EQ("no such table: nothere", CSqlLiteInternal(c.db).GetLastErrorText());
}

TEST(DatabaseErrorText, OpenCloseAndLockFailuresSayWhy) {
    TempDir dir;
    CSqlLiteInternal never;
    EXPECT_EQ("no database is open", never.GetLastErrorText());

    CSqlLiteInternal failed;
    CDataBaseInfo info;
    std::string missing = dir / "missing-folder/x.db";
    info.SetDataBaseFilePath(missing);
    ASSERT_EQ(1, failed.Init(info));
    EXPECT_EQ(0, failed.OpenSqlDB());
    EXPECT_EQ("unable to open database file", failed.GetLastErrorText());
    EXPECT_EQ(1, failed.CloseDB());
    EXPECT_EQ("no database is open", failed.GetLastErrorText());

    // Not a database at all.
    std::string junk = dir / "junk.db";
    {
        FILE* f = std::fopen(junk.c_str(), "wb");
        ASSERT_NE(nullptr, f);
        for (int i = 0; i < 64; ++i)
            std::fputs("this is plain text, not a database file ", f);
        std::fclose(f);
    }
    {
        OpenDb j(junk); // the header is read on the first statement
        std::string sql = "SELECT * FROM sqlite_master";
        DWORD code = kUntouched;
        EXPECT_EQ(0, j.db.ExecSql(sql, code));
        EXPECT_EQ(SQLITE_NOTADB, static_cast<int>(code));
        EXPECT_EQ("file is not a database", j.db.GetLastErrorText());
    }

    OpenDb c(dir / "lock.db");
    c.Exec("CREATE TABLE t(x); INSERT INTO t VALUES(1);");
    CSqlLiteQueryInternal held;
    ASSERT_EQ(100u, c.Query("SELECT x FROM t", held));
    EXPECT_EQ(0, c.db.CloseDB());
    EXPECT_EQ("unable to close due to unfinalized statements or unfinished backups", c.db.GetLastErrorText());
    held.Finalize();

    OpenDb holder(dir / "lock.db");
    holder.Exec("BEGIN IMMEDIATE; INSERT INTO t VALUES(2);");
    std::string write = "INSERT INTO t VALUES(3)";
    DWORD code = kUntouched;
    EXPECT_EQ(0, c.db.ExecSql(write, code));
    EXPECT_EQ(static_cast<DWORD>(SQLITE_BUSY), code);
    EXPECT_EQ("database is locked", c.db.GetLastErrorText());
    holder.Exec("ROLLBACK");
}

TEST(DatabaseErrorText, CursorKeepsWhyAStepFailedForEveryCopy) {
    TempDir dir;
    CSqlLiteQueryInternal never;
    EXPECT_EQ("", never.GetLastErrorText());
    CSqlLiteQueryInternal copy;
    {
        OpenDb c(dir / "cursor.db");
        c.Exec("CREATE TABLE t(x); INSERT INTO t VALUES(1), (2), (3);");
        CSqlLiteQueryInternal q;
        // Only the second row's value is the smallest integer, whose abs overflows: the first step
        // succeeds, NextRow then fails and drops its code.
        ASSERT_EQ(100u, c.Query("SELECT abs(x - 9223372036854775807 - 3) FROM t", q));
        copy = q;
        EXPECT_EQ("", q.GetLastErrorText());
        q.NextRow();
        EXPECT_TRUE(q.Eof());
        EXPECT_EQ("integer overflow", q.GetLastErrorText());
        EXPECT_EQ("integer overflow", c.db.GetLastErrorText()); // the connection says it too
        EXPECT_EQ(1, c.db.CloseDB());
    }
    // Kept with the statement's life: the connection is closed and gone by now.
    EXPECT_EQ("integer overflow", copy.GetLastErrorText());
    EXPECT_TRUE(copy.Eof());
}

TEST(DatabaseBlobField, EveryByteOfEveryKindOfValue) {
    TempDir dir;
    OpenDb c(dir / "blob.db");
    c.Exec("CREATE TABLE t(n INTEGER, v);"
           "INSERT INTO t VALUES(1, x'00FF0041'), (2, x''), (3, 'a' || char(0) || 'b'), (4, ''), (5, NULL),"
           "(6, 42), (7, 2.5), (8, '\xE2\x82\xAC');");
    const struct {
        int n;
        bool found;
        std::string bytes;
    } rows[] = {
        {1, true, std::string("\0\xFF\0A", 4)},
        {2, true, ""},
        {3, true, std::string("a\0b", 3)},
        {4, true, ""},
        {5, false, "untouched"},
        {6, true, "42"},
        {7, true, "2.5"},
        {8, true, "\xE2\x82\xAC"},
    };
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT v FROM t ORDER BY n", q));
    for (const auto& r : rows) {
        SCOPED_TRACE(r.n);
        ASSERT_FALSE(q.Eof());
        std::string bytes = "untouched";
        EXPECT_EQ(r.found, q.GetBlobField(0, bytes));
        EXPECT_EQ(r.bytes, bytes);
        EXPECT_FALSE(q.GetBlobField(1, bytes)); // no such column
        q.NextRow();
    }
    EXPECT_TRUE(q.Eof());
    std::string bytes = "untouched";
    EXPECT_FALSE(q.GetBlobField(0, bytes)); // at the end: nothing to read
    EXPECT_EQ("untouched", bytes);
    q.Finalize();
}
