// The library next to other processes and real programs: write locks held elsewhere, files shared
// with the sqlite3 shell both ways, and the `zoth sql` command.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sstream>
#include <thread>

using ZOTH::CSqlLiteQueryInternal;
using zoth_test::OpenDb;
using zoth_test::Quote;
using zoth_test::RunCommand;
using zoth_test::ScalarInt;
using zoth_test::TempDir;

namespace {

// A blocked write (ExecSql, or ExecQuery into `query`) gives up with 0 and SQLITE_BUSY after about
// 210 ms (21 sleeps of 10 ms). Wide bounds: the lower shows the wait, the upper that it gave up.
void ExpectBusy(OpenDb& conn, std::string sql, CSqlLiteQueryInternal* query = nullptr) {
    DWORD code = zoth_test::kUntouched;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, query ? conn.db.ExecQuery(sql, *query, code) : conn.db.ExecSql(sql, code));
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_EQ(static_cast<DWORD>(SQLITE_BUSY), code);
    EXPECT_GE(ms.count(), 150);
    EXPECT_LT(ms.count(), 2000);
    std::printf("    blocked write gave up after %lld ms\n", static_cast<long long>(ms.count()));
}

// True once another party holds a write lock: a connection without busy handling cannot begin one.
bool WriteLockIsHeld(const std::string& path) {
    sqlite3* probe = nullptr;
    bool held = false;
    if (sqlite3_open(path.c_str(), &probe) == SQLITE_OK) {
        held = sqlite3_exec(probe, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_BUSY;
        if (!held) sqlite3_exec(probe, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    sqlite3_close(probe);
    return held;
}

// Runs the script `sql` with `sqlite3 -batch [options] DB`, expects exit status 0, returns the output.
std::string RunShell(const TempDir& dir, const std::string& db, const std::string& options,
                     const std::string& sql) {
    std::ofstream(dir / "script.sql", std::ios::binary) << sql;
    std::string out, script = " < " + Quote(dir / "script.sql") + " 2>&1";
    EXPECT_EQ(0, RunCommand("sqlite3 -batch " + options + " " + Quote(db) + script, out)) << out;
    return out;
}

// The zoth tool of this build, or "" when the tool is not built. On Windows every program of the
// build is in one folder.
std::string ZothPath() {
    if (zoth_test::kWindows) {
        std::filesystem::path tool = std::filesystem::path(zoth_test::SelfExe()).parent_path() / "zoth.exe";
        return std::filesystem::exists(tool) ? tool.string() : "";
    }
    const char* bin = std::getenv("ZOTH_TEST_BIN_DIR");
    std::filesystem::path tool = std::filesystem::path(bin ? bin : "/nonexistent") / "../../tools/zoth/zoth";
    return std::filesystem::exists(tool) ? tool.string() : "";
}

} // namespace

TEST(DatabaseBusy, WriteBlockedByAnotherConnectionGivesUp) {
    TempDir dir;
    OpenDb holder(dir / "busy.db"), writer(dir / "busy.db");
    holder.Exec("CREATE TABLE t(x)");
    holder.Exec("BEGIN IMMEDIATE; INSERT INTO t VALUES(1);");
    ExpectBusy(writer, "INSERT INTO t VALUES(2)");
    CSqlLiteQueryInternal q;
    ExpectBusy(writer, "INSERT INTO t VALUES(3)", &q);
    EXPECT_EQ(0, q.GetCols()); // the failed first step leaves the cursor alone
    // Reading needs no write lock, and once the holder commits the write goes through.
    EXPECT_EQ(0, ScalarInt(writer, "SELECT count(*) FROM t"));
    holder.Exec("COMMIT");
    writer.Exec("INSERT INTO t VALUES(4)");
    EXPECT_EQ(5, ScalarInt(writer, "SELECT sum(x) FROM t"));
}

TEST(DatabaseBusy, WriteBlockedByTheSqliteShellGivesUp) {
    TempDir dir;
    std::string path = dir / "shell-busy.db";
    OpenDb writer(path);
    writer.Exec("CREATE TABLE t(x)");
    // The real sqlite3 shell takes a write lock and keeps it while it waits for more input.
    FILE* shell = zoth_test::OpenPipe("sqlite3 " + Quote(path), "w");
    ASSERT_NE(nullptr, shell);
    std::fputs(".timeout 5000\nBEGIN IMMEDIATE;\nINSERT INTO t VALUES(100);\n", shell);
    std::fflush(shell);
    bool held = false;
    for (int i = 0; i < 500 && !(held = WriteLockIsHeld(path)); ++i) // up to 10 s on a loaded machine
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(held) << "the shell never took its lock";
    if (held) ExpectBusy(writer, "INSERT INTO t VALUES(1)");
    // End of input: the shell exits and its open transaction is rolled back.
    EXPECT_EQ(0, zoth_test::ClosePipe(shell));
    writer.Exec("INSERT INTO t VALUES(1)");
    EXPECT_EQ(1, ScalarInt(writer, "SELECT sum(x) FROM t"));
}

TEST(DatabaseShell, LibraryReadsWhatTheShellWrote) {
    TempDir dir;
    std::string path = dir / "from-shell.db";
    RunShell(dir, path, "",
             "CREATE TABLE items(id INTEGER PRIMARY KEY, price REAL, name TEXT, note TEXT, data BLOB);\n"
             "INSERT INTO items VALUES(1, 9.75, 'caf\xC3\xA9', NULL, X'DEADBEEF');\n"
             "INSERT INTO items VALUES(2, -0.5, '', 'n', NULL);\n"
             "INSERT INTO items VALUES(3000000000, 1e300, 'tab\tand\nline', 'x', X'');\n");
    const struct {
        __int64 id;
        double price;
        const char *name, *data; // data nullptr: SQL NULL
        bool noteIsNull;
    } rows[] = {
        {1, 9.75, "caf\xC3\xA9", "\xDE\xAD\xBE\xEF", true},
        {2, -0.5, "", nullptr, false},
        {3000000000LL, 1e300, "tab\tand\nline", "", false},
    };
    OpenDb c(path);
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT id, price, name, note, data FROM items ORDER BY id", q));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.id);
        ASSERT_FALSE(q.Eof());
        __int64 id = 0;
        double price = 0;
        std::string name, data;
        int type = 0;
        EXPECT_TRUE(q.GetInt64Field("id", id) && q.GetFloatField("price", price) &&
                    q.GetStringField("name", name) && q.FieldDataType(4, type));
        EXPECT_EQ(row.id, id);
        EXPECT_EQ(row.price, price);
        EXPECT_EQ(row.name, name); // UTF-8 as stored
        EXPECT_EQ(row.noteIsNull, q.FieldIsNull("note"));
        EXPECT_EQ(row.data ? SQLITE_BLOB : SQLITE_NULL, type);
        EXPECT_EQ(row.data != nullptr, q.GetStringField(4, data));
        EXPECT_EQ(row.data ? row.data : "", data);
        q.NextRow();
    }
    EXPECT_TRUE(q.Eof());
}

TEST(DatabaseShell, ShellReadsWhatTheLibraryWrote) {
    TempDir dir;
    std::string path = dir / "from-library.db";
    {
        OpenDb c(path);
        c.Exec("CREATE TABLE log(id INTEGER PRIMARY KEY, level REAL, msg TEXT, extra TEXT); BEGIN;"
               "INSERT INTO log VALUES(1, 0.25, 'start', NULL);"
               "INSERT INTO log VALUES(2, 3.5, '\xE2\x82\xAC 10', '');"
               "INSERT INTO log VALUES(-3, -1e-3, 'it''s', 'z'); COMMIT;");
        EXPECT_EQ(1, c.db.CloseDB());
    }
    EXPECT_EQ("ok\n-3|-0.001|it's|z\n1|0.25|start|<null>\n2|3.5|\xE2\x82\xAC 10|\n",
              RunShell(dir, path, "-separator " + Quote("|") + " -nullvalue " + Quote("<null>"),
                       "PRAGMA integrity_check;\nSELECT id, level, msg, extra FROM log ORDER BY id;\n"));
}

TEST(DatabaseSqlCommand, PrintsRowsAndReportsFailures) {
    if (ZothPath().empty()) GTEST_SKIP() << "zoth tool not built";
    TempDir dir;
    const std::string db = " " + Quote(dir / "cli.db") + " ";
    const struct {
        std::string args;
        int status;
        const char *out, *err; // err: text stderr must hold; nullptr: not checked
    } runs[] = {
        {"--exec" + db +
             Quote("CREATE TABLE t(a INTEGER, b TEXT, c REAL); "
                   "INSERT INTO t VALUES(1, 'x', NULL), (2, '', 2.5);"),
         0, "", nullptr},
        // NULL shown apart from the empty text
        {db + Quote("SELECT a, b, c AS price FROM t ORDER BY a"), 0, "a\tb\tprice\n1\tx\tNULL\n2\t\t2.5\n",
         nullptr},
        {db + Quote("SELECT a FROM t WHERE a > 5"), 0, "a\n", nullptr},
        {db + Quote("SELEC a FROM t"), 1, nullptr, "near \"SELEC\": syntax error"},
        {db + Quote("INSERT INTO t(a) SELECT abs(-9223372036854775808)"), 1, nullptr,
         "integer overflow (SQLite code 1)"},
        {db, 2, nullptr, nullptr},
        {Quote(dir / "no-folder/x.db") + " " + Quote("SELECT 1"), 1, nullptr, nullptr},
    };
    std::string out, err;
    for (const auto& run : runs) {
        SCOPED_TRACE(run.args);
        EXPECT_EQ(run.status,
                  RunCommand(Quote(ZothPath()) + " sql " + run.args + " 2>" + Quote(dir / "err"), out));
        std::stringstream text;
        text << std::ifstream(dir / "err").rdbuf();
        err = text.str();
        EXPECT_TRUE(!run.out || out == run.out) << out;
        EXPECT_TRUE(!run.err || err.find(run.err) != std::string::npos) << err;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "no-folder"));
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err; // one line on stderr
}
