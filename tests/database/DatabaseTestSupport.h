// Helpers of the database tests: a library connection to a real file, closed at the end of the test,
// and a runner for real programs (the sqlite3 shell, the zoth tool).
#pragma once

#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"

#include "Portable.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace zoth_test {

// A code value no call returns, to see that a call left the code alone.
constexpr DWORD kUntouched = 77;

// Opened through Init and OpenSqlDB; cursors declared after it are finalized before it closes.
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

    void Exec(std::string sql) {
        DWORD code = kUntouched;
        EXPECT_EQ(1, db.ExecSql(sql, code)) << sql;
        EXPECT_EQ(0u, code) << sql;
    }
    // ExecQuery into `query`, expected to succeed; returns the code (100 or 101).
    DWORD Query(std::string sql, ZOTH::CSqlLiteQueryInternal& query) {
        DWORD code = kUntouched;
        EXPECT_EQ(1, db.ExecQuery(sql, query, code)) << sql;
        return code;
    }

    ZOTH::CSqlLiteInternal db;
};

// The first column of the first row of `sql` as an integer; -1 when there is none.
inline long long ScalarInt(OpenDb& conn, const std::string& sql) {
    ZOTH::CSqlLiteQueryInternal q;
    conn.Query(sql, q);
    __int64 v = -1;
    if (!q.Eof()) q.GetInt64Field(0, v);
    return v;
}

// Runs a shell command: its exit status (-1 when it did not exit) and what it wrote to stdout.
inline int RunCommand(const std::string& command, std::string& out) {
    FILE* pipe = OpenPipe(command, "r");
    if (pipe == nullptr) return -1;
    out.clear();
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    if (kWindows) // Windows programs end their text lines with CR LF
        for (size_t at; (at = out.find("\r\n")) != std::string::npos;)
            out.erase(at, 1);
    return ClosePipe(pipe);
}

} // namespace zoth_test
