// The row cursor on real database files: its states, readers, NULL handling, names and copies.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

using ZOTH::CSqlLiteQueryInternal;
using zoth_test::OpenDb;
using zoth_test::TempDir;

TEST(DatabaseCursor, FreshCursorRefusesEverything) {
    CSqlLiteQueryInternal q;
    EXPECT_EQ(0, q.GetCols());
    EXPECT_TRUE(q.Eof()); // no statement: a read loop must end
    int idx = 77, i = 77;
    __int64 i64 = 77;
    double d = 7.5;
    std::string s = "keep";
    EXPECT_FALSE(q.FieldIndex("x", idx));
    EXPECT_FALSE(q.FieldValue(0, s));
    EXPECT_FALSE(q.GetStringField(0, s));
    EXPECT_FALSE(q.GetIntField(0, i));
    EXPECT_FALSE(q.GetInt64Field(0, i64));
    EXPECT_FALSE(q.GetFloatField(0, d));
    EXPECT_FALSE(q.FieldDataType(0, i));
    EXPECT_FALSE(q.FieldName(0, s));
    EXPECT_FALSE(q.FieldDeclType(0, s));
    EXPECT_FALSE(q.FieldIsNull(0));
    EXPECT_FALSE(q.FieldIsNull("x"));
    EXPECT_EQ(77, idx);
    EXPECT_EQ(77, i);
    EXPECT_EQ(77, i64);
    EXPECT_EQ(7.5, d);
    EXPECT_EQ("keep", s);
    q.NextRow();
    q.Finalize();
    EXPECT_EQ(0, q.GetCols());

    // InitSqlLiteQuery refuses a missing connection or statement and changes nothing.
    sqlite3* raw = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(":memory:", &raw));
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1, 2", -1, &stmt, nullptr));
    EXPECT_EQ(0, q.InitSqlLiteQuery(nullptr, stmt, false));
    EXPECT_EQ(0, q.InitSqlLiteQuery(raw, nullptr, false));
    EXPECT_EQ(0, q.GetCols());
    EXPECT_TRUE(q.Eof());
    // It takes no step itself: the caller's step is the one that puts it on a row.
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(stmt));
    EXPECT_EQ(1, q.InitSqlLiteQuery(raw, stmt, false));
    EXPECT_EQ(2, q.GetCols());
    ASSERT_TRUE(q.GetIntField(1, i));
    EXPECT_EQ(2, i);
    q.Finalize();                             // owns the statement, so this ends it
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw)); // fails if the statement were still alive
}

TEST(DatabaseCursor, WalksFromRowsToEndToReleased) {
    TempDir dir;
    OpenDb c(dir / "walk.db");
    c.Exec("CREATE TABLE t(id INTEGER, name TEXT); INSERT INTO t VALUES(1,'a'),(2,'b'),(3,'c');");
    CSqlLiteQueryInternal q;
    EXPECT_EQ(100u, c.Query("SELECT id, name FROM t ORDER BY id", q));
    EXPECT_EQ(2, q.GetCols());
    std::string seen;
    int rows = 0;
    while (!q.Eof()) {
        int id = 0;
        std::string name;
        ASSERT_TRUE(q.GetIntField("id", id));
        ASSERT_TRUE(q.GetStringField(1, name));
        seen += std::to_string(id) + name;
        q.NextRow();
        ASSERT_LT(++rows, 10);
    }
    EXPECT_EQ("1a2b3c", seen);

    // At end: no current row, so no values, but names and declared types remain readable.
    int i = 5;
    __int64 i64 = 5;
    double d = 5;
    std::string s = "keep";
    EXPECT_FALSE(q.GetIntField(0, i));
    EXPECT_FALSE(q.GetInt64Field(0, i64));
    EXPECT_FALSE(q.GetFloatField(0, d));
    EXPECT_FALSE(q.GetStringField(1, s));
    EXPECT_FALSE(q.FieldValue(1, s));
    EXPECT_EQ("keep", s);
    EXPECT_TRUE(q.FieldName(1, s));
    EXPECT_EQ("name", s);
    EXPECT_TRUE(q.FieldDeclType(0, s));
    EXPECT_EQ("INTEGER", s);

    // Released: readers of names fail too, the count stays, a second Finalize does nothing.
    q.Finalize();
    EXPECT_TRUE(q.Eof());
    EXPECT_FALSE(q.FieldName(0, s));
    EXPECT_EQ(2, q.GetCols());
    q.Finalize();
    q.NextRow();
    EXPECT_EQ(1, c.db.CloseDB()); // nothing of the connection is left alive
}

TEST(DatabaseCursor, QueryWithoutRowsStandsAtEnd) {
    TempDir dir;
    OpenDb c(dir / "empty.db");
    c.Exec("CREATE TABLE t(a INTEGER, b REAL, c TEXT)");
    CSqlLiteQueryInternal q;
    EXPECT_EQ(101u, c.Query("SELECT a, b, c FROM t", q));
    EXPECT_TRUE(q.Eof());
    EXPECT_EQ(3, q.GetCols());
    std::string name;
    EXPECT_TRUE(q.FieldName(2, name));
    EXPECT_EQ("c", name);
    // A statement without result columns succeeds through ExecQuery as well.
    CSqlLiteQueryInternal u;
    EXPECT_EQ(101u, c.Query("UPDATE t SET a = 1", u));
    EXPECT_TRUE(u.Eof());
    EXPECT_EQ(0, u.GetCols());
}

TEST(DatabaseCursor, NullEmptyTextAndMissingColumnDiffer) {
    TempDir dir;
    OpenDb c(dir / "null.db");
    c.Exec("CREATE TABLE t(n TEXT, e TEXT, x TEXT); INSERT INTO t VALUES(NULL, '', 'x');");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT n, e, x FROM t", q));

    std::string s = "keep";
    EXPECT_FALSE(q.GetStringField(0, s)); // NULL: refused, untouched
    EXPECT_FALSE(q.FieldValue(0, s));
    EXPECT_EQ("keep", s);
    EXPECT_TRUE(q.GetStringField(1, s)); // empty text: read, and the string emptied
    EXPECT_EQ("", s);
    s = "keep";
    EXPECT_FALSE(q.FieldValue(1, s)); // the one false that writes
    EXPECT_EQ("", s);
    EXPECT_TRUE(q.FieldValue("x", s));
    EXPECT_EQ("x", s);

    int i = 9;
    __int64 i64 = 9;
    double d = 9;
    EXPECT_FALSE(q.GetIntField(0, i));
    EXPECT_FALSE(q.GetInt64Field("n", i64));
    EXPECT_FALSE(q.GetFloatField(0, d));
    EXPECT_EQ(9, i);
    EXPECT_EQ(9, i64);
    EXPECT_EQ(9, d);

    int type = 0;
    EXPECT_TRUE(q.FieldDataType(0, type));
    EXPECT_EQ(SQLITE_NULL, type);
    EXPECT_TRUE(q.FieldDataType(1, type));
    EXPECT_EQ(SQLITE_TEXT, type);

    EXPECT_TRUE(q.FieldIsNull(0));
    EXPECT_TRUE(q.FieldIsNull("n"));
    EXPECT_FALSE(q.FieldIsNull(1));
    EXPECT_FALSE(q.FieldIsNull("e"));
    EXPECT_FALSE(q.FieldIsNull(3));
    EXPECT_FALSE(q.FieldIsNull("missing"));

    // An unknown name is refused by every by-name reader, out-arguments untouched.
    s = "keep";
    EXPECT_FALSE(q.FieldValue("missing", s));
    EXPECT_FALSE(q.GetStringField("missing", s));
    EXPECT_FALSE(q.GetIntField("missing", i));
    EXPECT_FALSE(q.GetInt64Field("missing", i64));
    EXPECT_FALSE(q.GetFloatField("missing", d));
    EXPECT_EQ("keep", s);
    EXPECT_EQ(9, i);
}

TEST(DatabaseCursor, TypeCodesAndSqliteConversions) {
    TempDir dir;
    OpenDb c(dir / "types.db");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT 42, 2.5, 'txt', X'00FF', NULL, 1099511627781, '12abc', -3.75", q));
    const int expected[] = {SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB, SQLITE_NULL};
    for (int col = 0; col < 5; ++col) {
        int type = 0;
        EXPECT_TRUE(q.FieldDataType(col, type));
        EXPECT_EQ(expected[col], type) << col;
    }
    std::string s;
    EXPECT_TRUE(q.GetStringField(0, s)); // an integer read as text gives its digits
    EXPECT_EQ("42", s);
    int i = 0;
    EXPECT_TRUE(q.GetIntField(6, i)); // text read as a number: SQLite's conversion
    EXPECT_EQ(12, i);
    EXPECT_TRUE(q.GetIntField(5, i)); // 2^40 + 5 cut to 32 bits
    EXPECT_EQ(5, i);
    __int64 i64 = 0;
    EXPECT_TRUE(q.GetInt64Field(5, i64));
    EXPECT_EQ(1099511627781LL, i64);
    double d = 0;
    EXPECT_TRUE(q.GetFloatField(1, d));
    EXPECT_EQ(2.5, d);
    EXPECT_TRUE(q.GetFloatField(7, d));
    EXPECT_EQ(-3.75, d);
    EXPECT_TRUE(q.GetIntField(1, i));
    EXPECT_EQ(2, i);
    EXPECT_TRUE(q.GetFloatField(0, d));
    EXPECT_EQ(42.0, d);

    // Valid indexes are 0 .. GetCols()-1.
    EXPECT_EQ(8, q.GetCols());
    i = 99;
    EXPECT_FALSE(q.GetIntField(-1, i));
    EXPECT_FALSE(q.GetIntField(8, i));
    EXPECT_FALSE(q.FieldName(8, s));
    EXPECT_FALSE(q.FieldDataType(-1, i));
    EXPECT_EQ(99, i);
    EXPECT_TRUE(q.GetFloatField(7, d));
}

TEST(DatabaseCursor, ZeroValuesAreNotNull) {
    TempDir dir;
    OpenDb c(dir / "zero.db");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT 0, 0.0, '0', 'abc', NULL, X'', -0.0", q));
    for (int col : {0, 1, 2, 3, 5, 6}) {
        int i = 7;
        __int64 i64 = 7;
        double d = 7;
        EXPECT_TRUE(q.GetIntField(col, i)) << col;
        EXPECT_TRUE(q.GetInt64Field(col, i64)) << col;
        EXPECT_TRUE(q.GetFloatField(col, d)) << col;
        EXPECT_EQ(0, i) << col;
        EXPECT_EQ(0, i64) << col;
        EXPECT_EQ(0.0, d) << col;
    }
    int i = 7;
    __int64 i64 = 7;
    double d = 7;
    EXPECT_FALSE(q.GetIntField(4, i));
    EXPECT_FALSE(q.GetInt64Field(4, i64));
    EXPECT_FALSE(q.GetFloatField(4, d));
    EXPECT_EQ(7, i);
    EXPECT_EQ(7, i64);
    EXPECT_EQ(7, d);
    // The reads changed no column's kind as far as NULL is concerned.
    int type = 0;
    EXPECT_TRUE(q.FieldDataType(4, type));
    EXPECT_EQ(SQLITE_NULL, type);
    EXPECT_TRUE(q.FieldDataType(3, type));
    EXPECT_NE(SQLITE_NULL, type);
    EXPECT_FALSE(q.FieldIsNull(0));
    EXPECT_TRUE(q.FieldIsNull(4));
}

TEST(DatabaseCursor, TextAndBlobAreCutAtTheFirstNul) {
    TempDir dir;
    OpenDb c(dir / "nul.db");
    c.Exec("CREATE TABLE t(b BLOB, t TEXT, z BLOB);"
           "INSERT INTO t VALUES(X'41004243', CAST(X'41004243' AS TEXT), X'004142');");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT b, t, z, length(CAST(t AS BLOB)) FROM t", q));
    int stored = 0;
    ASSERT_TRUE(q.GetIntField(3, stored));
    EXPECT_EQ(4, stored); // the database holds all four bytes
    std::string s;
    EXPECT_TRUE(q.GetStringField(0, s));
    EXPECT_EQ(std::string("A"), s);
    EXPECT_TRUE(q.FieldValue(1, s));
    EXPECT_EQ(std::string("A"), s);
    EXPECT_TRUE(q.GetStringField("t", s));
    EXPECT_EQ(1u, s.size());
    // A value that starts with NUL reads as the empty text.
    EXPECT_TRUE(q.GetStringField(2, s));
    EXPECT_EQ("", s);
    EXPECT_FALSE(q.FieldValue(2, s));

    // A zero-length blob is an empty value, not SQL NULL.
    CSqlLiteQueryInternal e;
    ASSERT_EQ(100u, c.Query("SELECT X''", e));
    s = "keep";
    EXPECT_FALSE(e.FieldIsNull(0));
    EXPECT_TRUE(e.GetStringField(0, s));
    EXPECT_EQ("", s);
}

TEST(DatabaseCursor, NamesMatchExactlyAndTheFirstOfTwinsWins) {
    TempDir dir;
    OpenDb c(dir / "names.db");
    c.Exec("CREATE TABLE t(id INTEGER, v VARCHAR(10), plain)");
    c.Exec("INSERT INTO t VALUES(7, 'seven', 1)");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT 1 AS v, 2 AS v, id, v, plain, id + 1 AS calc FROM t", q));
    int idx = -5, i = 0;
    EXPECT_TRUE(q.FieldIndex("v", idx));
    EXPECT_EQ(0, idx);
    EXPECT_TRUE(q.GetIntField("v", i));
    EXPECT_EQ(1, i); // never the second or the table's own v
    idx = -5;
    EXPECT_FALSE(q.FieldIndex("ID", idx)); // case counts
    EXPECT_FALSE(q.FieldIndex("i", idx));  // whole names only
    EXPECT_FALSE(q.FieldIndex(nullptr, idx));
    EXPECT_EQ(-5, idx);
    EXPECT_TRUE(q.FieldIndex("id", idx));
    EXPECT_EQ(2, idx);
    EXPECT_TRUE(q.GetIntField("calc", i));
    EXPECT_EQ(8, i);

    std::string decl = "keep";
    EXPECT_TRUE(q.FieldDeclType(2, decl));
    EXPECT_EQ("INTEGER", decl);
    EXPECT_TRUE(q.FieldDeclType(3, decl));
    EXPECT_EQ("VARCHAR(10)", decl);
    decl = "keep";
    EXPECT_TRUE(q.FieldDeclType(4, decl)); // a column declared without a type
    EXPECT_EQ("", decl);
    decl = "keep";
    EXPECT_TRUE(q.FieldDeclType(5, decl)); // an expression
    EXPECT_EQ("", decl);
    std::string name;
    EXPECT_TRUE(q.FieldName(1, name));
    EXPECT_EQ("v", name);
}

TEST(DatabaseCursor, FailedStepReleasesTheStatement) {
    TempDir dir;
    OpenDb c(dir / "fail.db");
    c.Exec("CREATE TABLE t(x INTEGER); INSERT INTO t VALUES(1),(2),(3);");
    CSqlLiteQueryInternal q;
    // The second row overflows abs() at run time, after the first row was delivered (rowid order
    // needs no sorting, so rows are computed one step at a time).
    ASSERT_EQ(100u, c.Query("SELECT CASE WHEN x = 2 THEN abs(-9223372036854775808) ELSE x END AS v "
                            "FROM t ORDER BY rowid",
                            q));
    int v = 0;
    ASSERT_TRUE(q.GetIntField(0, v));
    EXPECT_EQ(1, v);
    q.NextRow();
    EXPECT_TRUE(q.Eof()); // a read loop ends
    std::string s;
    EXPECT_FALSE(q.FieldName(0, s));
    EXPECT_FALSE(q.GetIntField(0, v));
    EXPECT_EQ(1, q.GetCols());
    q.NextRow();                  // nothing to step
    EXPECT_EQ(1, c.db.CloseDB()); // the failed statement was finalized
}

TEST(DatabaseCursor, CopiesShareButNeverFinalizeTheStatement) {
    TempDir dir;
    OpenDb c(dir / "copy.db");
    c.Exec("CREATE TABLE t(x INTEGER); INSERT INTO t VALUES(1),(2),(3);");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT x FROM t ORDER BY x", q));
    int v = 0;
    {
        CSqlLiteQueryInternal copy(q);
        EXPECT_EQ(1, copy.GetCols());
        ASSERT_TRUE(copy.GetIntField(0, v));
        EXPECT_EQ(1, v);
        copy.Finalize(); // not the owner: nothing happens
        copy.NextRow();  // one shared statement, so the original moves too
    }                    // the copy's destructor finalizes nothing
    ASSERT_TRUE(q.GetIntField(0, v));
    EXPECT_EQ(2, v);

    CSqlLiteQueryInternal assigned;
    assigned = q;
    CSqlLiteQueryInternal& same = q;
    q = same;                     // self-assignment keeps ownership
    q = assigned;                 // so does taking back a copy of its own statement
    EXPECT_EQ(0, c.db.CloseDB()); // the statement is still alive
    assigned.Finalize();
    EXPECT_EQ(0, c.db.CloseDB());
    q.Finalize();
    EXPECT_EQ(1, c.db.CloseDB());
}

TEST(DatabaseCursor, FailedStepOnACopyLeavesFinalizingToTheOriginal) {
    TempDir dir;
    OpenDb c(dir / "copyfail.db");
    c.Exec("CREATE TABLE t(x INTEGER); INSERT INTO t VALUES(1),(2);");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT CASE WHEN x = 2 THEN abs(-9223372036854775808) ELSE x END "
                            "FROM t ORDER BY rowid",
                            q));
    CSqlLiteQueryInternal copy(q);
    copy.NextRow(); // fails; the copy lets go without finalizing
    EXPECT_TRUE(copy.Eof());
    EXPECT_EQ(0, c.db.CloseDB());
    q.Finalize(); // exactly one finalization (a second would be a double free)
    EXPECT_EQ(1, c.db.CloseDB());
}
