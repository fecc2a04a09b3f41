// zoth commands and demo section of the database subsystem.
#include "Commands.h"

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

std::string CodeText(DWORD code) {
    return "SQLite code " + std::to_string(code);
}

// One value for printing: NULL stands apart from the empty text.
std::string Cell(CSqlLiteQueryInternal& q, int col) {
    std::string value;
    if (q.FieldIsNull(col)) return "NULL";
    q.GetStringField(col, value);
    return value;
}

// Prints the header and every row of the cursor; false when a step failed on the way.
bool PrintRows(CSqlLiteQueryInternal& q) {
    int cols = q.GetCols();
    if (cols == 0) return true;
    std::string line;
    for (int c = 0; c < cols; ++c) {
        std::string name;
        q.FieldName(c, name);
        line += (c ? "\t" : "") + name;
    }
    std::printf("%s\n", line.c_str());
    while (!q.Eof()) {
        line.clear();
        for (int c = 0; c < cols; ++c)
            line += (c ? "\t" : "") + Cell(q, c);
        std::printf("%s\n", line.c_str());
        q.NextRow();
    }
    // At the end the names are still there; after a failed step the statement is gone.
    std::string name;
    return q.FieldName(0, name);
}

int RunSql(const Args& args) {
    bool script = !args.empty() && args[0] == "--exec";
    size_t at = script ? 1 : 0;
    if (args.size() != at + 2) return Fail("sql needs DBFILE and SQL");
    if (int missing = NeedDll("sql", kSqliteDll)) return missing;
    const std::string& path = args[at];
    std::string sql = args[at + 1];
    if (path.empty()) return Fail("empty database path");
    CSqlLiteInternal db;
    if (!InitDatabase(db, path))
        return Fail("database path not representable in the ANSI code page: " + path);
    if (db.OpenSqlDB() != 1) {
        db.CloseDB();
        return Error("cannot open database " + path);
    }
    DWORD code = 0;
    int status = 0;
    if (script) {
        if (db.ExecSql(sql, code) != 1) status = Error("SQL failed: " + CodeText(code));
    } else {
        CSqlLiteQueryInternal q;
        if (sql.empty()) {
            status = Fail("empty SQL");
        } else if (db.ExecQuery(sql, q, code) == 1) {
            if (!PrintRows(q)) status = Error("reading rows failed");
        } else if (code == 0) {
            // ExecQuery does not report why a statement failed to compile. Run it as a script
            // to learn: a statement that does not compile is never run.
            if (db.ExecSql(sql, code) != 1)
                status = Error("SQL failed: " + CodeText(code));
            else
                status = Error("no SQL statement in the text");
        } else {
            status = Error("SQL failed: " + CodeText(code));
        }
        q.Finalize();
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
        {"sql", "sql DBFILE SQL | sql --exec DBFILE SQL",
         "run one SQL statement on a SQLite file and print its rows tab-separated (NULL as NULL); "
         "--exec runs a whole script",
         RunSql},
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
              ok ? std::to_string(before.size()) + " rows written" : CodeText(code));

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
              "blocked write gave up after " + std::to_string(ms.count()) + " ms with " + CodeText(code));
    std::string rollback = "ROLLBACK";
    holder.ExecSql(rollback, code);
    holder.CloseDB();

    demo.Step("database", "close", db.CloseDB() == 1, "no statement left open");
}

} // namespace zoth_cli
