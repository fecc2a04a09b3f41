// The `zoth sql` command, run as a real program on a real database file.
#include "TempDir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>

using zoth_test::TempDir;

namespace {

struct ToolRun {
    int status = -1;
    std::string out, err;
};

// The zoth tool of this build, or "" when the tool is not built.
std::string ZothPath() {
    const char* bin = std::getenv("ZOTH_TEST_BIN_DIR");
    if (bin == nullptr) return "";
    std::filesystem::path tool = std::filesystem::path(bin) / ".." / ".." / "tools" / "zoth" / "zoth";
    return std::filesystem::exists(tool) ? tool.string() : "";
}

// Runs `zoth <args>` (already quoted for the shell); stdout and stderr kept apart.
ToolRun Zoth(const TempDir& dir, const std::string& args) {
    ToolRun r;
    std::string errFile = dir / "stderr.txt";
    std::string command = "'" + ZothPath() + "' " + args + " 2>'" + errFile + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return r;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        r.out.append(buffer, n);
    int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::stringstream err;
    err << std::ifstream(errFile).rdbuf();
    r.err = err.str();
    return r;
}

} // namespace

TEST(DatabaseSqlCommand, PrintsRowsAndReportsFailures) {
    if (ZothPath().empty()) GTEST_SKIP() << "zoth tool not built";
    TempDir dir;
    std::string db = "'" + (dir / "cli.db") + "'";

    ToolRun r = Zoth(dir, "sql --exec " + db +
                              " \"CREATE TABLE t(a INTEGER, b TEXT, c REAL); "
                              "INSERT INTO t VALUES(1, 'x', NULL), (2, '', 2.5);\"");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out);

    r = Zoth(dir, "sql " + db + " 'SELECT a, b, c AS price FROM t ORDER BY a'");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("a\tb\tprice\n1\tx\tNULL\n2\t\t2.5\n", r.out); // NULL apart from the empty text

    r = Zoth(dir, "sql " + db + " 'SELECT a FROM t WHERE a > 5'");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("a\n", r.out);

    r = Zoth(dir, "sql " + db + " 'SELEC a FROM t'");
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("SQLite code 1")) << r.err;

    r = Zoth(dir, "sql " + db + " 'INSERT INTO t(a) SELECT abs(-9223372036854775808)'");
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("SQLite code 1")) << r.err;

    r = Zoth(dir, "sql " + db);
    EXPECT_EQ(2, r.status);
    r = Zoth(dir, "sql '" + (dir / "no-folder/x.db") + "' 'SELECT 1'");
    EXPECT_EQ(1, r.status);
    EXPECT_FALSE(std::filesystem::exists(dir / "no-folder"));
    EXPECT_EQ(1u, std::count(r.err.begin(), r.err.end(), '\n')) << r.err; // one line on stderr
}
