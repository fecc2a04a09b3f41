// Files move both ways between the library and the real sqlite3 command-line shell.
#include "DatabaseTestSupport.h"
#include "TempDir.h"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>

using ZOTH::CSqlLiteQueryInternal;
using zoth_test::OpenDb;
using zoth_test::TempDir;

namespace {

// Runs the SQL script `sql` with `sqlite3 -batch [options] DB` and returns what it printed; the
// exit status must be 0.
std::string RunShell(const TempDir& dir, const std::string& db, const std::string& options,
                     const std::string& sql) {
    std::string script = dir / "script.sql";
    std::ofstream(script, std::ios::binary) << sql;
    std::string command = "sqlite3 -batch " + options + " '" + db + "' < '" + script + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return "popen failed";
    std::string out;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        out.append(buffer, n);
    int status = pclose(pipe);
    EXPECT_EQ(0, status) << out;
    return out;
}

} // namespace

TEST(DatabaseShell, LibraryReadsWhatTheShellWrote) {
    TempDir dir;
    std::string path = dir / "from-shell.db";
    RunShell(dir, path, "",
             "CREATE TABLE items(id INTEGER PRIMARY KEY, price REAL, name TEXT, note TEXT, data BLOB);\n"
             "INSERT INTO items VALUES(1, 9.75, 'caf\xC3\xA9', NULL, X'DEADBEEF');\n"
             "INSERT INTO items VALUES(2, -0.5, '', 'n', NULL);\n"
             "INSERT INTO items VALUES(3000000000, 1e300, 'tab\tand\nline', 'x', X'');\n");

    OpenDb c(path);
    CSqlLiteQueryInternal q;
    ASSERT_EQ(100u, c.Query("SELECT id, price, name, note, data FROM items ORDER BY id", q));
    ASSERT_EQ(5, q.GetCols());
    std::string decl;
    ASSERT_TRUE(q.FieldDeclType(1, decl));
    EXPECT_EQ("REAL", decl);

    __int64 id = 0;
    double price = 0;
    std::string name, note;
    int type = 0;
    ASSERT_TRUE(q.GetInt64Field("id", id));
    ASSERT_TRUE(q.GetFloatField("price", price));
    ASSERT_TRUE(q.GetStringField("name", name));
    EXPECT_EQ(1, id);
    EXPECT_EQ(9.75, price);
    EXPECT_EQ("caf\xC3\xA9", name); // UTF-8 as stored
    EXPECT_TRUE(q.FieldIsNull("note"));
    ASSERT_TRUE(q.FieldDataType(4, type));
    EXPECT_EQ(SQLITE_BLOB, type);
    std::string blob;
    ASSERT_TRUE(q.GetStringField(4, blob));
    EXPECT_EQ("\xDE\xAD\xBE\xEF", blob);

    q.NextRow();
    ASSERT_FALSE(q.Eof());
    ASSERT_TRUE(q.GetFloatField(1, price));
    EXPECT_EQ(-0.5, price);
    ASSERT_TRUE(q.GetStringField(2, name));
    EXPECT_EQ("", name);
    EXPECT_TRUE(q.FieldIsNull(4));

    q.NextRow();
    ASSERT_FALSE(q.Eof());
    ASSERT_TRUE(q.GetInt64Field(0, id));
    EXPECT_EQ(3000000000LL, id);
    ASSERT_TRUE(q.GetFloatField(1, price));
    EXPECT_EQ(1e300, price);
    ASSERT_TRUE(q.GetStringField(2, name));
    EXPECT_EQ("tab\tand\nline", name);
    q.NextRow();
    EXPECT_TRUE(q.Eof());
}

TEST(DatabaseShell, ShellReadsWhatTheLibraryWrote) {
    TempDir dir;
    std::string path = dir / "from-library.db";
    {
        OpenDb c(path);
        c.Exec("CREATE TABLE log(id INTEGER PRIMARY KEY, level REAL, msg TEXT, extra TEXT);"
               "BEGIN;"
               "INSERT INTO log VALUES(1, 0.25, 'start', NULL);"
               "INSERT INTO log VALUES(2, 3.5, '\xE2\x82\xAC 10', '');"
               "INSERT INTO log VALUES(-3, -1e-3, 'it''s', 'z');"
               "COMMIT;");
        EXPECT_EQ(1, c.db.CloseDB());
    }
    EXPECT_EQ("ok\n", RunShell(dir, path, "", "PRAGMA integrity_check;\n"));
    EXPECT_EQ("-3|-0.001|it's|z\n"
              "1|0.25|start|<null>\n"
              "2|3.5|\xE2\x82\xAC 10|\n",
              RunShell(dir, path, "-separator '|' -nullvalue '<null>'",
                       "SELECT id, level, msg, extra FROM log ORDER BY id;\n"));
}
