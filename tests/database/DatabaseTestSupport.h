// Helpers of the database tests: a library connection to a real file that is closed at the end of
// the test, and SQL run through the library with a failing check on error.
#pragma once

#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"

#include <gtest/gtest.h>
#include <string>

namespace zoth_test {

// A connection opened through Init and OpenSqlDB; closed when the object goes away, so a failing
// test leaks nothing. Cursors declared after it are finalized before it closes.
struct OpenDb {
    explicit OpenDb(const std::string& path) {
        ZOTH::CDataBaseInfo info;
        std::string p = path;
        info.SetDataBaseFilePath(p);
        EXPECT_EQ(1, db.Init(info));
        EXPECT_EQ(1, db.OpenSqlDB()) << path;
    }
    ~OpenDb() { db.CloseDB(); }
    OpenDb(const OpenDb&) = delete;
    OpenDb& operator=(const OpenDb&) = delete;

    // Runs `sql` with ExecSql and expects success.
    void Exec(std::string sql) {
        DWORD code = 12345;
        EXPECT_EQ(1, db.ExecSql(sql, code)) << sql;
        EXPECT_EQ(0u, code) << sql;
    }
    // Runs `sql` with ExecQuery into `query` and expects success; returns the code.
    DWORD Query(std::string sql, ZOTH::CSqlLiteQueryInternal& query) {
        DWORD code = 12345;
        EXPECT_EQ(1, db.ExecQuery(sql, query, code)) << sql;
        return code;
    }

    ZOTH::CSqlLiteInternal db;
};

// The first column of the first row of `sql`, read as an integer; -1 when there is none.
inline long long ScalarInt(OpenDb& conn, const std::string& sql) {
    ZOTH::CSqlLiteQueryInternal q;
    conn.Query(sql, q);
    __int64 v = -1;
    if (!q.Eof()) q.GetInt64Field(0, v);
    return v;
}

} // namespace zoth_test
