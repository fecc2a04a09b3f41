// The row cursor on real database files: its state table, readers, NULL rules, names and copies.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <sqlite3.h>

using ZOTH::CSqlLiteQueryInternal;
using zoth_test::OpenDb;
using zoth_test::TempDir;

namespace {

// One row of the state table: values are readable on a row only, names while a statement is held,
// and every refused read leaves its out-argument alone. Column 0 is named "x".
void ExpectState(const char* state, CSqlLiteQueryInternal& q, bool eof, int cols, bool values, bool names) {
    SCOPED_TRACE(state);
    int i = 77, idx = 77, type = 77;
    __int64 i64 = 77;
    double d = 7.5;
    std::string s = "keep";
    EXPECT_EQ(eof, q.Eof());
    EXPECT_EQ(cols, q.GetCols());
    EXPECT_EQ(values, q.GetIntField(0, i));
    EXPECT_EQ(values, q.GetInt64Field("x", i64));
    EXPECT_EQ(values, q.GetFloatField(0, d));
    EXPECT_EQ(values, q.GetStringField(0, s) && q.FieldValue("x", s));
    EXPECT_TRUE(values || (i == 77 && i64 == 77 && d == 7.5 && s == "keep"));
    EXPECT_EQ(names, q.FieldName(0, s));
    EXPECT_EQ(names, q.FieldDeclType(0, s));
    EXPECT_EQ(names, q.FieldIndex("x", idx));
    EXPECT_EQ(names, q.FieldDataType(0, type));
    EXPECT_TRUE(names || (idx == 77 && type == 77 && !q.FieldIsNull(0) && !q.FieldIsNull("x")));
}

} // namespace

TEST(DatabaseCursor, StateTable) {
    TempDir dir;
    OpenDb c(dir / "walk.db");
    c.Exec("CREATE TABLE t(x INTEGER, name TEXT); INSERT INTO t VALUES(1,'a'),(2,'b'),(3,'c');");
    CSqlLiteQueryInternal q;
    ExpectState("fresh", q, true, 0, false, false);
    q.NextRow();
    q.Finalize();
    ExpectState("fresh after NextRow and Finalize", q, true, 0, false, false);

    ASSERT_EQ(100u, c.Query("SELECT x, name FROM t ORDER BY x", q));
    ExpectState("on a row", q, false, 2, true, true);
    std::string seen;
    for (int rows = 0; !q.Eof() && rows < 10; ++rows, q.NextRow()) {
        int x = 0;
        std::string name;
        EXPECT_TRUE(q.GetIntField(0, x) && q.GetStringField("name", name));
        seen += std::to_string(x) + name;
    }
    EXPECT_EQ("1a2b3c", seen);
    ExpectState("at end", q, true, 2, false, true);
    q.Finalize();
    ExpectState("finalized", q, true, 2, false, false); // the count stays
    q.Finalize();
    q.NextRow();
    EXPECT_EQ(1, c.db.CloseDB()); // nothing of the connection is left alive
    ASSERT_EQ(1, c.db.OpenSqlDB());

    ASSERT_EQ(101u, c.Query("SELECT x, name FROM t WHERE x > 5", q));
    ExpectState("no rows", q, true, 2, false, true);
    CSqlLiteQueryInternal u;
    EXPECT_EQ(101u, c.Query("UPDATE t SET x = x", u)); // a statement without result columns
    ExpectState("no result columns", u, true, 0, false, false);

    // A step that fails after the first row (abs() overflows on row 2; rowid order needs no sort).
    ASSERT_EQ(100u, c.Query("SELECT CASE WHEN x = 2 THEN abs(-9223372036854775808) ELSE x END AS x "
                            "FROM t ORDER BY rowid",
                            q));
    q.NextRow();
    ExpectState("failed step", q, true, 1, false, false);
    q.NextRow();
    u.Finalize();
    EXPECT_EQ(1, c.db.CloseDB()); // the failed statement was finalized
}

TEST(DatabaseCursor, InitSqlLiteQueryTakesOverAStatement) {
    sqlite3* raw = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(":memory:", &raw));
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1 AS x, 2", -1, &stmt, nullptr));
    CSqlLiteQueryInternal q;
    EXPECT_EQ(0, q.InitSqlLiteQuery(nullptr, stmt, false));
    EXPECT_EQ(0, q.InitSqlLiteQuery(raw, nullptr, false));
    ExpectState("refused", q, true, 0, false, false);
    // It takes no step itself: the caller's step puts it on a row.
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(stmt));
    EXPECT_EQ(1, q.InitSqlLiteQuery(raw, stmt, false));
    int i = 0;
    EXPECT_TRUE(q.GetIntField(1, i));
    EXPECT_EQ(2, i);
    q.Finalize();                             // owns the statement, so this ends it
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw)); // fails if the statement were still alive
}

// Readers of every kind of value. A zero of any kind is not NULL (the readers test for NULL only after
// reading 0); only FieldValue reports empty text as false; text and blobs are cut at their first NUL.
TEST(DatabaseCursor, ReadersTypesNullAndNul) {
    const struct {
        const char *expr, *text;
        int type, i;
        __int64 i64;
        double d;
    } cols[] = {
        {"42", "42", SQLITE_INTEGER, 42, 42, 42.0},
        {"2.5", "2.5", SQLITE_FLOAT, 2, 2, 2.5},
        {"-3.75", "-3.75", SQLITE_FLOAT, -3, -3, -3.75},
        {"'12abc'", "12abc", SQLITE_TEXT, 12, 12, 12.0}, // SQLite's conversion
        {"1099511627781", "1099511627781", SQLITE_INTEGER, 5, 1099511627781LL, 1099511627781.0}, // 2^40+5
        {"0", "0", SQLITE_INTEGER, 0, 0, 0.0},
        {"0.0", "0.0", SQLITE_FLOAT, 0, 0, 0.0},
        {"'0'", "0", SQLITE_TEXT, 0, 0, 0.0},
        {"'abc'", "abc", SQLITE_TEXT, 0, 0, 0.0},
        {"''", "", SQLITE_TEXT, 0, 0, 0.0},
        {"X''", "", SQLITE_BLOB, 0, 0, 0.0},
        {"X'41004243'", "A", SQLITE_BLOB, 0, 0, 0.0},
        {"CAST(X'41004243' AS TEXT)", "A", SQLITE_TEXT, 0, 0, 0.0},
        {"X'004142'", "", SQLITE_BLOB, 0, 0, 0.0}, // starts with NUL: the empty text
    };
    const int n = static_cast<int>(std::size(cols));
    std::string sql = "SELECT NULL AS n";
    for (const auto& col : cols)
        sql += std::string(", ") + col.expr;
    TempDir dir;
    OpenDb c(dir / "types.db");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query(sql, q));
    ASSERT_EQ(n + 1, q.GetCols());
    for (int index = 1; index <= n; ++index) {
        const auto& want = cols[index - 1];
        SCOPED_TRACE(want.expr);
        int type = 0, i = 7;
        __int64 i64 = 7;
        double d = 7;
        std::string s = "keep", v = "keep";
        EXPECT_TRUE(q.FieldDataType(index, type));
        EXPECT_EQ(want.type, type);
        EXPECT_TRUE(q.GetStringField(index, s));
        EXPECT_EQ(want.text, s);
        EXPECT_EQ(*want.text != '\0', q.FieldValue(index, v));
        EXPECT_EQ(want.text, v); // written even when false
        EXPECT_TRUE(q.GetIntField(index, i) && q.GetInt64Field(index, i64) && q.GetFloatField(index, d));
        EXPECT_EQ(want.i, i);
        EXPECT_EQ(want.i64, i64);
        EXPECT_EQ(want.d, d);
        EXPECT_FALSE(q.FieldIsNull(index));
    }

    // SQL NULL, an unknown name and an invalid index: refused, out-arguments untouched.
    int type = 0, i = 9;
    __int64 i64 = 9;
    double d = 9;
    std::string s = "keep";
    EXPECT_TRUE(q.FieldIsNull(0) && q.FieldIsNull("n"));
    for (const char* name : {"n", "missing"})
        EXPECT_FALSE(q.GetStringField(name, s) || q.FieldValue(name, s) || q.GetIntField(name, i) ||
                     q.GetInt64Field(name, i64) || q.GetFloatField(name, d))
            << name;
    for (int index : {0, -1, n + 1})
        EXPECT_FALSE(q.GetStringField(index, s) || q.FieldValue(index, s) || q.GetIntField(index, i) ||
                     q.GetInt64Field(index, i64) || q.GetFloatField(index, d))
            << index;
    EXPECT_TRUE(s == "keep" && i == 9 && i64 == 9 && d == 9);
    EXPECT_FALSE(q.FieldIsNull("missing") || q.FieldIsNull(n + 1) || q.FieldName(n + 1, s) ||
                 q.FieldDataType(-1, i));
    EXPECT_TRUE(q.FieldDataType(0, type)); // and the reads turned no NULL into a value
    EXPECT_EQ(SQLITE_NULL, type);
}

TEST(DatabaseCursor, NamesMatchExactlyAndTheFirstOfTwinsWins) {
    TempDir dir;
    OpenDb c(dir / "names.db");
    c.Exec("CREATE TABLE t(id INTEGER, v VARCHAR(10), plain); INSERT INTO t VALUES(7, 'seven', 1);");
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT 1 AS v, 2 AS v, id, v, plain, id + 1 AS calc FROM t", q));
    int idx = -5, i = 0;
    EXPECT_TRUE(q.FieldIndex("v", idx) && q.GetIntField("v", i));
    EXPECT_EQ(0, idx);
    EXPECT_EQ(1, i); // never the second or the table's own v
    idx = -5;
    // Whole names only, and case counts.
    EXPECT_FALSE(q.FieldIndex("ID", idx) || q.FieldIndex("i", idx) || q.FieldIndex(nullptr, idx));
    EXPECT_EQ(-5, idx);
    EXPECT_TRUE(q.GetIntField("calc", i));
    EXPECT_EQ(8, i);
    // Declared types; "" for a column declared without one and for an expression.
    const char* decl[] = {"", "", "INTEGER", "VARCHAR(10)", "", ""};
    for (int col = 0; col < 6; ++col) {
        std::string d = "keep";
        EXPECT_TRUE(q.FieldDeclType(col, d));
        EXPECT_EQ(decl[col], d) << col;
    }
}

// Copies share one statement and its life: whichever copy ends it (Finalize, a failed step), every
// copy answers Eof() true and never steps or reads the finalized statement again (ASan would see
// it); the statement is finalized exactly once, by its end or by its last holder's destructor.
TEST(DatabaseCursor, CopiesShareTheStatementsLife) {
    TempDir dir;
    OpenDb c(dir / "copy.db");
    c.Exec("CREATE TABLE t(x INTEGER); INSERT INTO t VALUES(1),(2),(3);");
    const char* rows = "SELECT x FROM t ORDER BY x";
    // Fails at its second row (integer overflow), so a step of it is a failed NextRow.
    const char* failing =
        "SELECT CASE WHEN x = 2 THEN abs(-9223372036854775808) ELSE x END FROM t ORDER BY rowid";
    enum Ender { kOriginalFinalizes, kCopyFinalizes, kOriginalStepFails, kCopyStepFails };
    for (Ender ender : {kOriginalFinalizes, kCopyFinalizes, kOriginalStepFails, kCopyStepFails}) {
        SCOPED_TRACE(ender);
        bool fails = ender == kOriginalStepFails || ender == kCopyStepFails;
        CSqlLiteQueryInternal q;
        ASSERT_EQ(100u, c.Query(fails ? failing : rows, q));
        CSqlLiteQueryInternal copy(q), assigned;
        assigned = copy;
        CSqlLiteQueryInternal& ends = (ender == kOriginalFinalizes || ender == kOriginalStepFails) ? q : copy;
        int v = 0;
        ASSERT_TRUE(copy.GetIntField(0, v));
        EXPECT_EQ(1, v);
        if (fails)
            ends.NextRow();
        else
            ends.Finalize();
        for (CSqlLiteQueryInternal* each : {&q, &copy, &assigned}) {
            ExpectState("ended", *each, true, 1, false, false);
            each->NextRow(); // steps nothing: the statement is gone
            each->Finalize();
            EXPECT_TRUE(each->Eof());
        }
        EXPECT_EQ(1, c.db.CloseDB()); // finalized exactly once (a second time would be a double free)
        ASSERT_EQ(1, c.db.OpenSqlDB());
    }

    // Destruction only lets go: the statement lives while any copy holds it, and the last one ends it.
    auto q = std::make_unique<CSqlLiteQueryInternal>();
    ASSERT_EQ(100u, c.Query(rows, *q));
    {
        CSqlLiteQueryInternal copy(*q);
        copy.NextRow(); // one shared statement, so the original moves too
    }
    int v = 0;
    ASSERT_TRUE(q->GetIntField(0, v));
    EXPECT_EQ(2, v);
    CSqlLiteQueryInternal survivor(*q);
    CSqlLiteQueryInternal& same = survivor;
    survivor = same; // self-assignment keeps it
    q.reset();
    EXPECT_FALSE(survivor.Eof());
    ASSERT_TRUE(survivor.GetIntField(0, v));
    EXPECT_EQ(2, v);
    EXPECT_EQ(0, c.db.CloseDB()); // still alive
    survivor.Finalize();
    EXPECT_EQ(1, c.db.CloseDB());

    // An overwrite (assignment, or a cursor taking another statement) never finalizes what it
    // held, even as its last holder: that statement stays alive until the caller ends it.
    sqlite3* raw = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open((dir / "raw.db").c_str(), &raw));
    for (bool byAssignment : {true, false}) {
        SCOPED_TRACE(byAssignment);
        sqlite3_stmt* first = nullptr;
        sqlite3_stmt* second = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1", -1, &first, nullptr));
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 2", -1, &second, nullptr));
        ASSERT_EQ(SQLITE_ROW, sqlite3_step(first));
        CSqlLiteQueryInternal cursor;
        ASSERT_EQ(1, cursor.InitSqlLiteQuery(raw, first, false));
        if (byAssignment) {
            cursor = CSqlLiteQueryInternal();
            sqlite3_finalize(second);
        } else {
            ASSERT_EQ(1, cursor.InitSqlLiteQuery(raw, second, false));
            cursor.Finalize(); // ends the second statement only
        }
        EXPECT_EQ(first, sqlite3_next_stmt(raw, nullptr)); // alive, and the only one
        EXPECT_EQ(nullptr, sqlite3_next_stmt(raw, first));
        EXPECT_EQ(SQLITE_OK, sqlite3_finalize(first));
    }
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw));
}
