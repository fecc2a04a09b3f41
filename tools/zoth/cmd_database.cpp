// zoth commands and demo section of the database subsystem.
#include "Commands.h"
#include "SqlStatements.h"

#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"
#include "zoth/text/STRING_UTIL.h"

#include <chrono>
#include <cstdio>

using ZOTH::CDataBaseInfo;
using ZOTH::CSqlLiteInternal;
using ZOTH::CSqlLiteQueryInternal;
using ZOTH::STRING_UTIL;

namespace zoth_cli {

namespace {

// The library takes database paths in the ANSI code page; command-line paths are UTF-8, so they
// go in converted. False when the path has characters the ANSI code page lacks.
bool InitDatabase(CSqlLiteInternal& db, const std::string& utf8Path) {
    std::string ansi = STRING_UTIL::Utf82Asci(utf8Path);
    if (STRING_UTIL::Asci2Utf8(ansi) != utf8Path) return false;
    CDataBaseInfo info;
    info.SetDataBaseFilePath(ansi);
    return db.Init(info) == 1;
}

// What failed, in SQLite's words, with its code where the library gave one.
std::string FailureText(CSqlLiteInternal& db, DWORD code) {
    std::string text = db.GetLastErrorText();
    if (text.empty()) text = "no message from SQLite";
    return code != 0 ? text + " (SQLite code " + std::to_string(code) + ")" : text;
}

// A value or a name on one line of tab-separated output: backslash, tab, line breaks and NUL
// escaped as in C, so every value stays on its line and in its column.
std::string Escaped(const std::string& bytes) {
    std::string out;
    for (char ch : bytes) {
        switch (ch) {
        case '\\':
            out += "\\\\";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\0':
            out += "\\0";
            break;
        default:
            out += ch;
        }
    }
    return out;
}

// One value for printing: NULL stands apart from the empty text, a BLOB is x'hex' (as SQL writes
// it), everything else its text, all of its bytes, escaped.
std::string Cell(CSqlLiteQueryInternal& q, int col) {
    int type = 0;
    std::string bytes;
    if (q.FieldIsNull(col) || !q.FieldDataType(col, type) || !q.GetBlobField(col, bytes)) return "NULL";
    if (type == SQLITE_BLOB) {
        static const char kHex[] = "0123456789abcdef";
        std::string hex = "x'";
        for (unsigned char byte : bytes)
            hex += std::string{kHex[byte >> 4], kHex[byte & 15]};
        return hex + "'";
    }
    return Escaped(bytes);
}

// Prints the header and every row of the cursor; "" when all went well, else SQLite's reason.
std::string PrintRows(CSqlLiteQueryInternal& q) {
    int cols = q.GetCols();
    if (cols == 0) return "";
    std::string line;
    for (int c = 0; c < cols; ++c) {
        std::string name;
        q.FieldName(c, name);
        line += (c ? "\t" : "") + Escaped(name);
    }
    std::printf("%s\n", line.c_str());
    while (!q.Eof()) {
        line.clear();
        for (int c = 0; c < cols; ++c)
            line += (c ? "\t" : "") + Cell(q, c);
        std::printf("%s\n", line.c_str());
        q.NextRow();
    }
    return q.GetLastErrorText(); // a failed step ends the rows early and says why here
}

// Runs each statement in turn and prints the rows of those that give columns, a blank line between
// two tables. Stops at the first failure, which names the statement: those before it have run.
int RunStatements(CSqlLiteInternal& db, const std::vector<std::string>& statements) {
    bool printed = false;
    for (size_t i = 0; i < statements.size(); ++i) {
        std::string where;
        if (statements.size() > 1)
            where = " in statement " + std::to_string(i + 1) + " of " + std::to_string(statements.size()) +
                    (i > 0 ? " (the ones before it have run)" : "");
        std::string sql = statements[i];
        CSqlLiteQueryInternal q;
        DWORD code = 0;
        if (db.ExecQuery(sql, q, code) != 1)
            return Error("SQL failed" + where + ": " + FailureText(db, code));
        if (printed && q.GetCols() > 0) std::printf("\n");
        printed = printed || q.GetCols() > 0;
        std::string failure = PrintRows(q);
        q.Finalize();
        if (!failure.empty()) return Error("reading rows failed" + where + ": " + failure);
    }
    return 0;
}

int RunSql(const Args& args) {
    bool script = !args.empty() && args[0] == "--exec";
    size_t at = script ? 1 : 0;
    if (args.size() > at && IsOption(args[at])) return UnknownOption("sql", args[at]);
    if (args.size() < at + 2) return Usage("sql", "needs DBFILE and SQL");
    if (args.size() > at + 2) return Extra("sql", args[at + 2]);
    const std::string& path = args[at];
    std::string sql = args[at + 1];
    if (path.empty()) return Usage("sql", "empty database path");
    if (sql.empty()) return Usage("sql", "empty SQL");
    std::vector<std::string> statements = SplitStatements(sql);
    if (statements.empty()) return Usage("sql", "no SQL statement in the text");
    if (int missing = NeedDll("sql", kSqliteDll)) return missing;
    CSqlLiteInternal db;
    if (!InitDatabase(db, path))
        return Fail("database path not representable in the ANSI code page: " + path);
    if (db.OpenSqlDB() != 1) {
        std::string why = db.GetLastErrorText();
        db.CloseDB();
        return Error("cannot open database " + path + ": " + why);
    }
    int status = 0;
    DWORD code = 0;
    if (script) {
        if (db.ExecSql(sql, code) != 1) status = Error("SQL failed: " + FailureText(db, code));
    } else {
        status = RunStatements(db, statements);
    }
    db.CloseDB();
    return status;
}

// SQL text literal: quotes doubled; the text ends at a NUL as SQLite's own text does.
std::string Quote(const std::string& text) {
    std::string cut = text.c_str();
    std::string out = "'";
    for (char ch : cut)
        out += ch == '\'' ? std::string("''") : std::string(1, ch);
    return out + "'";
}

} // namespace

std::vector<Command> DatabaseCommands() {
    return {
        {"sql", "sql [--exec] DBFILE SQL",
         "run every SQL statement of SQL on a SQLite file, in turn, and print the rows tab-separated", RunSql,
         "  --exec   run SQL as one script (sqlite3_exec): no rows are printed\n\n"
         "Rows: a header line of column names, then one line per row, a blank line between the tables of\n"
         "two statements. NULL prints as NULL, a BLOB as x'hex'; backslash, tab, CR, LF and NUL inside a\n"
         "value print as \\\\, \\t, \\r, \\n and \\0. A failed statement stops the run, named with\n"
         "SQLite's message; the statements before it have run."},
    };
}

void DatabaseDemo(Demo& demo) {
    if (!CanLoadDll(kSqliteDll)) {
        for (const char* step : {"open", "store demo steps", "read steps back", "bounded busy wait", "close"})
            demo.Skip("database", step, std::string(kSqliteDll) + " cannot be loaded");
        return;
    }
    const std::vector<Demo::Row> before = demo.Rows(); // what the other sections did
    std::string path = demo.WorkDir() + "/demo.db";
    CSqlLiteInternal db;
    bool ok = InitDatabase(db, path) && db.OpenSqlDB() == 1;
    demo.Step("database", "open", ok, path);
    if (!ok) {
        db.CloseDB();
        return;
    }

    std::string sql = "CREATE TABLE steps(n INTEGER PRIMARY KEY, subsystem TEXT, step TEXT, ok INTEGER, "
                      "detail TEXT); BEGIN;";
    for (size_t i = 0; i < before.size(); ++i) {
        const Demo::Row& r = before[i];
        sql += "INSERT INTO steps VALUES(" + std::to_string(i) + "," + Quote(r.subsystem) + "," +
               Quote(r.step) + "," + (r.ok ? "1" : "0") + "," + Quote(r.detail) + ");";
    }
    sql += "COMMIT;";
    DWORD code = 0;
    ok = db.ExecSql(sql, code) == 1;
    demo.Step("database", "store demo steps", ok,
              ok ? std::to_string(before.size()) + " rows written" : FailureText(db, code));

    // Read them back through the cursor and compare field by field.
    CSqlLiteQueryInternal q;
    std::string select = "SELECT subsystem, step, ok, detail FROM steps ORDER BY n";
    size_t matched = 0, read = 0;
    ok = db.ExecQuery(select, q, code) == 1;
    for (; ok && !q.Eof(); q.NextRow(), ++read) {
        std::string subsystem, step, detail;
        int flag = -1;
        bool got = q.GetStringField("subsystem", subsystem) && q.GetStringField("step", step) &&
                   q.GetIntField("ok", flag) && q.GetStringField("detail", detail);
        if (got && read < before.size()) {
            const Demo::Row& r = before[read];
            if (subsystem == r.subsystem.c_str() && step == r.step.c_str() && (flag == 1) == r.ok &&
                detail == r.detail.c_str())
                ++matched;
        }
    }
    bool same = ok && read == before.size() && matched == before.size();
    demo.Step("database", "read steps back", same,
              std::to_string(matched) + " of " + std::to_string(before.size()) + " rows match");
    q.Finalize();

    // A second connection holds the write lock: the write gives up after the bounded busy wait.
    CSqlLiteInternal holder;
    bool held = InitDatabase(holder, path) && holder.OpenSqlDB() == 1;
    std::string lock = "BEGIN IMMEDIATE; INSERT INTO steps(subsystem) VALUES('lock');";
    held = held && holder.ExecSql(lock, code) == 1;
    std::string write = "INSERT INTO steps(subsystem) VALUES('blocked')";
    auto start = std::chrono::steady_clock::now();
    int result = db.ExecSql(write, code);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    demo.Step("database", "bounded busy wait", held && result == 0 && code == 5 && ms.count() < 500,
              "blocked write gave up after " + std::to_string(ms.count()) + " ms: " + FailureText(db, code));
    std::string rollback = "ROLLBACK";
    holder.ExecSql(rollback, code);
    holder.CloseDB();

    demo.Step("database", "close", db.CloseDB() == 1, "no statement left open");
}

} // namespace zoth_cli
