// The zoth tool as a user meets it, run as a process: exit codes, what it prints, and that a failure
// is never reported as success nor an argument passed over. Commands of every subsystem but HTTP.
#include "CliRun.h"
#include "Portable.h"
#include "TempDir.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

struct Case {
    std::vector<std::string> args; // "{name}" stands for a path of the fixture below
    std::string stdinData;
    int exitCode;
    const char* outIs = nullptr;     // the whole of standard output
    const char* outStarts = nullptr; // how standard output begins
    const char* outHas = nullptr;    // text standard output holds
    const char* errHas = nullptr;    // text standard error holds (placeholders replaced)
    bool posixOnly = false;          // needs what a Windows test cannot make (a symbolic link)
};

void Write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Every "{name}" in `text` replaced by its path.
std::string Fill(std::string text, const std::map<std::string, std::string>& paths) {
    for (const auto& [name, path] : paths)
        for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + path.size()))
            text.replace(at, name.size(), path);
    return text;
}

} // namespace

TEST(ZothCli, EveryCommandSaysWhatHappenedAndRefusesWhatItCannotUse) {
    TempDir dir;
    const std::map<std::string, std::string> paths = {
        {"{file}", dir / "file.txt"},
        {"{folder}", dir / "folder"},
        {"{missing}", dir / "missing"},
        {"{link}", dir / "link"},
        {"{tree}", dir / "tree"},
        {"{ro}", dir / "tree" + zoth_test::kSep + "sub" + zoth_test::kSep + "ro.txt"},
        {"{gone}", dir / "gone"},
        {"{db}", dir / "cli.db"},
        {"{root}", zoth_test::kWindows ? "C:\\" : "/"},
    };
    auto path = [&](const char* name) { return paths.at(name); };
    Write(path("{file}"), "abc");
    fs::create_directories(path("{folder}") + zoth_test::kSep + "sub");
    Write(path("{folder}") + zoth_test::kSep + "a.txt", "a");
    fs::create_directories(path("{tree}") + zoth_test::kSep + "sub");
    Write(path("{tree}") + zoth_test::kSep + "other.txt", "other");
    Write(path("{ro}"), "read-only");
    fs::permissions(path("{ro}"), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    fs::create_directories(path("{gone}") + zoth_test::kSep + "deep" + zoth_test::kSep + "er");
    Write(path("{gone}") + zoth_test::kSep + "deep" + zoth_test::kSep + "f", "f");
    if (!zoth_test::kWindows) fs::create_directory_symlink(path("{folder}"), path("{link}"));

    const std::string abc = "900150983cd24fb0d6963f7d28e17f72";
    const Case cases[] = {
        // Help: what the command does first, then how to call it and its options.
        {{"md5", "--help"}, "", 0, nullptr, "MD5 of a file", "options:\n  -s TEXT"},
        {{"help", "rmtree"}, "", 0, nullptr, "delete DIR with everything in it", "usage: zoth rmtree DIR"},
        {{"sql", "-h"}, "", 0, nullptr, "run every SQL statement", "usage: zoth sql [--exec] DBFILE SQL"},
        {{"tasks", "--help"}, "", 0, nullptr, "run N tasks", "usage: zoth tasks N [WORK_MS]"},
        {{"demo", "--help"}, "", 0, nullptr, "walk every subsystem", "usage: zoth demo"},
        {{"md5", "--help", "extra"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'extra'"},
        {{"--version", "x"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'x'"},
        {{"demo", "x"}, "", 2, nullptr, nullptr, nullptr, "demo: unexpected argument 'x'"},
        {{"frobnicate"}, "", 2, nullptr, nullptr, nullptr, "unknown command 'frobnicate'"},
        {{"--frobnicate"}, "", 2, nullptr, nullptr, nullptr, "unknown option '--frobnicate'"},
        // md5
        {{"md5", "-s", "abc"}, "", 0, "900150983cd24fb0d6963f7d28e17f72\n"},
        {{"md5", "-"}, "abc", 0, "900150983cd24fb0d6963f7d28e17f72  -\n"},
        {{"md5", "{file}"}, "", 0, nullptr, "900150983cd24fb0d6963f7d28e17f72  "},
        {{"md5", "-s"}, "", 2, nullptr, nullptr, nullptr, "md5: -s needs TEXT"},
        {{"md5", "-s", "abc", "def"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'def'"},
        {{"md5", "{file}", "extra"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'extra'"},
        {{"md5", "-x"}, "", 2, nullptr, nullptr, nullptr, "md5: unknown option '-x'"},
        {{"md5"}, "", 2, nullptr, nullptr, nullptr, "md5: needs FILE"},
        {{"md5", "{missing}"}, "", 1, nullptr, nullptr, nullptr, "no such file: {missing}"},
        {{"md5", "{folder}"}, "", 1, nullptr, nullptr, nullptr, "{folder} is a folder"},
        // ls
        {{"ls", "{folder}"}, "", 0, "sub/\na.txt\n"},
        {{"ls", "{file}"}, "", 1, nullptr, nullptr, nullptr, "not a folder: {file}"},
        {{"ls", "{missing}"}, "", 1, nullptr, nullptr, nullptr, "no such folder: {missing}"},
        {{"ls", "{folder}", ".txt", "extra"},
         "",
         2,
         nullptr,
         nullptr,
         nullptr,
         "unexpected argument 'extra'"},
        {{"ls", "-l"}, "", 2, nullptr, nullptr, nullptr, "ls: unknown option '-l'"},
        // rmtree: why it refused, or what resisted and why
        {{"rmtree", "{root}"}, "", 1, nullptr, nullptr, nullptr, "refusing to remove the root folder"},
        {{"rmtree", "{link}"}, "", 1, nullptr, nullptr, nullptr, "{link} is a link", true},
        {{"rmtree", "{link}/"}, "", 1, nullptr, nullptr, nullptr, "is a link", true},
        {{"rmtree", "{file}"}, "", 1, nullptr, nullptr, nullptr, "not a folder: {file}"},
        {{"rmtree", "{missing}"}, "", 1, nullptr, nullptr, nullptr, "no such folder: {missing}"},
        {{"rmtree", "{folder}" + std::string(1, zoth_test::kSep) + ".."},
         "",
         1,
         nullptr,
         nullptr,
         nullptr,
         "refusing to remove '..'"},
        {{"rmtree", "{tree}"}, "", 1, nullptr, nullptr, nullptr, "could not remove {ro}: it is read-only"},
        {{"rmtree", "{gone}"}, "", 0, ""},
        {{"rmtree", "{gone}", "{tree}"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument '{tree}'"},
        // version, stat
        {{"version", "{folder}"}, "", 1, nullptr, nullptr, nullptr, "{folder} is a folder"},
        {{"version", "{file}"}, "", 1, nullptr, nullptr, nullptr, "{file} has no version resource"},
        {{"version", "{file}", "x"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'x'"},
        {{"stat", "{file}"}, "", 0, nullptr, "created:  ", "\nwritten:  "},
        {{"stat", "{missing}"}, "", 1, nullptr, nullptr, nullptr, "no such file or folder: {missing}"},
        {{"stat", "{file}", "x"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'x'"},
        // text
        {{"base64", "encode", "abc"}, "", 0, "YWJj\n"},
        {{"base64", "decode"}, "YWJj\n", 0, "abc"},
        {{"base64", "decode", "YQ=="}, "", 0, "a"},
        {{"base64", "decode", "===="}, "", 1, "", nullptr, nullptr, "not valid Base64 text"},
        {{"base64", "decode", "YWJj===="}, "", 1, "", nullptr, nullptr, "not valid Base64 text"},
        {{"base64", "decode"}, "YWJj====\n", 1, nullptr, nullptr, nullptr, "not valid Base64 text"},
        {{"base64", "encode", "a", "b"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'b'"},
        {{"base64", "frob"}, "", 2, nullptr, nullptr, nullptr, "unknown mode 'frob'"},
        {{"url", "decode", "a%zzb"}, "", 1, nullptr, nullptr, nullptr, "'%zz' at byte 2 is no escape"},
        {{"url", "decode", "a%4"}, "", 1, nullptr, nullptr, nullptr, "'%4' at byte 2 is no escape"},
        {{"url", "decode", "a%41+b"}, "", 0, "aA b\n"},
        {{"url", "domain", "http://"}, "", 1, nullptr, nullptr, nullptr, "no host in 'http://'"},
        {{"url", "domain", "https://example.com:8443/x"}, "", 0, "example.com:8443\n"},
        {{"url", "encode"}, "", 2, nullptr, nullptr, nullptr, "url: encode needs TEXT"},
        {{"url", "encode", "a", "b"}, "", 2, nullptr, nullptr, nullptr, "unexpected argument 'b'"},
        {{"guid", "x"}, "", 2, nullptr, nullptr, nullptr, "guid: unexpected argument 'x'"},
        {{"time", "1", "2"}, "", 2, nullptr, nullptr, nullptr, "time: unexpected argument '2'"},
        {{"time", "soon"}, "", 2, nullptr, nullptr, nullptr, "TICKS must be a whole number, not 'soon'"},
        // tasks and timers
        {{"tasks", "2", "0"}, "", 0, nullptr, "started 2 tasks", "closed the registry: 0 task(s) left"},
        {{"tasks", "2", "0", "x"}, "", 2, nullptr, nullptr, nullptr, "tasks: unexpected argument 'x'"},
        {{"tasks", "0"}, "", 2, nullptr, nullptr, nullptr, "N must be 1..1000, not '0'"},
        {{"timer", "2", "10"}, "", 0, nullptr, "tick 1 at ", "2 ticks in"},
        {{"timer", "many"}, "", 2, nullptr, nullptr, nullptr, "TICKS must be 1..1000, not 'many'"},
        // sql: every statement, every byte, SQLite's words
        {{"sql", "{db}", "CREATE TABLE t(a, b); INSERT INTO t VALUES(1, 'x'); INSERT INTO t VALUES(2, 'y')"},
         "",
         0,
         ""},
        {{"sql", "{db}", "SELECT count(*) AS n FROM t"}, "", 0, "n\n2\n"},
        {{"sql", "{db}",
          "INSERT INTO t VALUES(3, x'00ff10'), (4, 'a\tb\nc\\d' || char(0) || 'e'), (5, NULL)"},
         "",
         0,
         ""},
        {{"sql", "{db}", "SELECT a, b AS 'the\tname' FROM t WHERE a >= 3 ORDER BY a"},
         "",
         0,
         "a\tthe\\tname\n3\tx'00ff10'\n4\ta\\tb\\nc\\\\d\\0e\n5\tNULL\n"},
        {{"sql", "{db}", "SELECT 1 AS one; SELECT 'a;b' AS two -- ; not a statement\n; ;"},
         "",
         0,
         "one\n1\n\ntwo\na;b\n"},
        {{"sql", "{db}", "SELEC 1"},
         "",
         1,
         nullptr,
         nullptr,
         nullptr,
         "SQL failed: near \"SELEC\": syntax error"},
        {{"sql", "{db}", "SELECT * FROM nothere"},
         "",
         1,
         nullptr,
         nullptr,
         nullptr,
         "no such table: nothere"},
        {{"sql", "{db}", "INSERT INTO t VALUES(6, 'z'); SELECT * FROM nothere; INSERT INTO t VALUES(7, 'w')"},
         "",
         1,
         nullptr,
         nullptr,
         nullptr,
         "in statement 2 of 3 (the ones before it have run): no such table: nothere"},
        {{"sql", "{db}", "SELECT group_concat(a) AS ran FROM t WHERE a IN (6, 7)"}, "", 0, "ran\n6\n"},
        {{"sql", "{db}",
          "CREATE TRIGGER tr AFTER INSERT ON t BEGIN INSERT INTO log VALUES(new.a); INSERT INTO log "
          "VALUES(-new.a); END; CREATE TABLE log(a); INSERT INTO t VALUES(8, 'v'); SELECT a FROM log"},
         "",
         0,
         "a\n8\n-8\n"},
        {{"sql", "{db}",
          "SELECT abs(a - 9223372036854775807 - 3) AS v FROM (SELECT 1 AS a UNION ALL SELECT 2)"},
         "",
         1,
         nullptr,
         "v\n",
         nullptr,
         "reading rows failed: integer overflow"},
        {{"sql", "--exec", "{db}", "INSERT INTO nothere VALUES(1)"},
         "",
         1,
         nullptr,
         nullptr,
         nullptr,
         "no such table: nothere (SQLite code 1)"},
        {{"sql", "{db}", "  ; -- only a comment"}, "", 2, nullptr, nullptr, nullptr, "no SQL statement"},
        {{"sql", "{db}", "SELECT 1", "extra"},
         "",
         2,
         nullptr,
         nullptr,
         nullptr,
         "unexpected argument 'extra'"},
        {{"sql", "--frob", "{db}", "SELECT 1"}, "", 2, nullptr, nullptr, nullptr, "unknown option '--frob'"},
        {{"sql", "{db}"}, "", 2, nullptr, nullptr, nullptr, "sql: needs DBFILE and SQL"},
        {{"sql", "{missing}" + std::string(1, zoth_test::kSep) + "x.db", "SELECT 1"},
         "",
         1,
         nullptr,
         nullptr,
         nullptr,
         "cannot open database {missing}"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args;
        std::string line = "zoth";
        for (const std::string& arg : c.args) {
            args.push_back(Fill(arg, paths));
            line += " " + args.back();
        }
        SCOPED_TRACE(line);
        if (c.posixOnly && zoth_test::kWindows) continue;
        const CliResult r = RunZoth(args, c.stdinData);
        EXPECT_EQ(c.exitCode, r.exitCode) << r.err;
        EXPECT_TRUE(!c.outIs || r.out == c.outIs) << "stdout: " << r.out;
        EXPECT_TRUE(!c.outStarts || r.out.rfind(c.outStarts, 0) == 0) << "stdout: " << r.out;
        EXPECT_TRUE(!c.outHas || r.out.find(c.outHas) != std::string::npos) << "stdout: " << r.out;
        EXPECT_TRUE(!c.errHas || r.err.find(Fill(c.errHas, paths)) != std::string::npos)
            << "stderr: " << r.err;
        if (c.exitCode == 0) {
            EXPECT_EQ("", r.err);
        } else { // one line that starts with the tool's name
            EXPECT_EQ(0u, r.err.rfind("zoth: ", 0)) << r.err;
            EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
        }
    }
    // What the refusals left alone, and what the removals took.
    EXPECT_TRUE(fs::exists(path("{folder}") + zoth_test::kSep + "a.txt"));
    EXPECT_TRUE(zoth_test::kWindows || fs::is_symlink(path("{link}")));
    EXPECT_TRUE(fs::exists(path("{file}")));
    EXPECT_TRUE(fs::exists(path("{ro}")));
    EXPECT_FALSE(fs::exists(path("{tree}") + zoth_test::kSep + "other.txt"));
    EXPECT_FALSE(fs::exists(path("{gone}")));
}
