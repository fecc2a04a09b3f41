// The README's tour, compiled as a client compiles it. Each snippet sits between "// README tour NAME"
// and "// README end" lines (a snippet may be split over several such regions, e.g. its classes at
// namespace scope and its statements in a test); ReadmeMatchesTheseSnippets checks that the README's
// block after "<!-- tour NAME -->" is exactly those lines, so the README shows code that builds.
// clang-format leaves the regions as the README shows them.
// Snippets that would reach beyond loopback (HTTP to example hosts, fixed ports) are compiled only.
#include "zoth/zoth.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_workRuns{0};

// The README's placeholder for a task's work.
void DoTheWork(bool* exitFlag) {
    (void)exitFlag;
    ++g_workRuns;
}

// clang-format off
// README tour task
class Fetch : public ZOTH::CTaskBase {
    void ThreadWork(bool* exitFlag) override {
        DoTheWork(exitFlag);                      // your work; it may watch *exitFlag to end early
        std::atomic_ref<bool>(m_bTaskComplete).store(true);
    }
};

class Control : public ZOTH::CTesselControlBase {
public:
    // Registers and starts one task; the caller keeps it to wait for its completion.
    std::shared_ptr<Fetch> Run() {
        auto task = std::make_shared<Fetch>();
        std::string id = CreateTaskId();          // 32 upper-case hex digits
        if (!task->InitTask(id) || !AddTaskMap(task, id)) return nullptr;
        StartTask(task);                          // one start signal = one run of the body
        return task;
    }
};
// README end
// clang-format on

// A folder of its own for the snippets that write files, made the working folder for one test.
class InTemporaryFolder {
public:
    InTemporaryFolder() {
        m_old = std::filesystem::current_path();
        m_dir = std::filesystem::temp_directory_path() / ("zoth-tour-" + ZOTH::STRING_UTIL::GetGuid());
        std::filesystem::create_directories(m_dir);
        std::filesystem::current_path(m_dir);
    }
    ~InTemporaryFolder() {
        std::error_code ec;
        std::filesystem::current_path(m_old, ec);
        std::filesystem::remove_all(m_dir, ec);
    }

private:
    std::filesystem::path m_old;
    std::filesystem::path m_dir;
};

} // namespace

// Compiled, never called: these reach hosts and ports that are not this test's.
void TourHttpCompiledOnly() {
    // clang-format off
    // README tour http
    ZOTH::CHttpClientCurl http;
    http.SetCustomHeaders({"Accept: application/json"});   // stays in force until replaced
    http.SetTimeOutMax(10000);                             // ms, applied in whole seconds
    std::string body;
    if (!http.HttpGet("https://example.test/api", "", "", body))
        printf("failed: curl code %d\n", http.GetResultCode());

    // Streamed into a temporary file beside the target, which takes the target's place only when the
    // answer is status 200 and exactly as long as announced; constant memory whatever the size.
    http.DownloadFile("http://127.0.0.1:8080/big.bin", "/tmp/big.bin", "");
    http.HttpPostFile("http://127.0.0.1:8080/upload", "", "", "/tmp/big.bin", body); // parts "reqformat", "file"
    http.TestNetSpeed("http://127.0.0.1:8080/stream", 5);  // then GetNetSpeed(): Mibit/s
    http.WininetHttpGet("127.0.0.1", "/status", body);     // plain HTTP, port 80
    // README end
    // clang-format on
}

void TourProxiesCompiledOnly() {
    // clang-format off
    // README tour proxies
    ZOTH::CHttpClientCurl http;
    http.SetSystemProxy(true);                   // the system's settings, for every libcurl transfer
    http.SetProxyCredentials("alice", "secret"); // any scheme the proxy asks for
    http.DownloadFile("https://updates.example/app.msi", "app.msi", "");
    printf("went through %s\n", http.GetLastProxy().c_str()); // "" when direct; never credentials
    // README end
    // clang-format on
}

void TourUpdaterCompiledOnly(const std::string& url, const std::string& expectedHex) {
    // clang-format off
    // README tour updater
    ZOTH::CHttpClientCurl http;
    http.SetRetryPolicy(5, 120000);              // at most 5 transfers within 2 minutes, waits included
    http.SetDownloadDigest("sha256", expectedHex); // used up by the next download, whatever its outcome
    if (!http.DownloadFile(url, "/opt/app/update.bin", ""))
        printf("failed: curl code %d\n", http.GetResultCode());
    // README end
    // clang-format on
}

// The task snippet, run again and again: its body runs every time, and the registry closes after.
TEST(Tour, TaskSnippetRunsItsBodyEveryTime) {
    constexpr int kRuns = 5;
    g_workRuns = 0;
    for (int run = 0; run < kRuns; ++run) {
        // clang-format off
        // README tour task
        Control control;
        std::shared_ptr<Fetch> task = control.Run();
        while (task && !task->GetTaskCompleteStatus())  // wait: a stop before the body runs cancels it
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        control.SetStopAddTask();                       // close the registry, stop all, drop completed tasks
        // README end
        // clang-format on
        ASSERT_TRUE(task) << "run " << run << ": the task could not be started";
        EXPECT_TRUE(task->GetTaskCompleteStatus());
    }
    EXPECT_EQ(g_workRuns.load(), kRuns);
}

TEST(Tour, DatabaseSnippetWritesAndReads) {
    InTemporaryFolder folder;
    int rowsSeen = 0;
    // clang-format off
    // README tour database
    ZOTH::CDataBaseInfo info;
    std::string path = "app.db";
    info.SetDataBaseFilePath(path);
    ZOTH::CSqlLiteInternal db;
    db.Init(info);
    db.OpenSqlDB();                                   // a blocked write gives up after about 210 ms
    DWORD code = 0;
    std::string sql = "CREATE TABLE IF NOT EXISTS t(id INTEGER, name TEXT)";
    db.ExecSql(sql, code);
    std::string insert = "INSERT INTO t VALUES (1, 'one'), (2, NULL)";
    db.ExecSql(insert, code);
    ZOTH::CSqlLiteQueryInternal rows;
    std::string query = "SELECT id, name FROM t";
    if (db.ExecQuery(query, rows, code)) {            // code 100: on the first row, 101: no rows
        for (; !rows.Eof(); rows.NextRow()) {
            int id; std::string name;
            rows.GetIntField(0, id);
            if (!rows.GetStringField("name", name))   // false for SQL NULL
                name = "(null)";
            printf("%d %s\n", id, name.c_str());
            // README end
            // clang-format on
            ++rowsSeen;
            EXPECT_EQ(name, id == 1 ? "one" : "(null)");
            // clang-format off
            // README tour database
        }
        rows.Finalize();
    }
    db.CloseDB();                                     // the destructor does not close the connection
    // README end
    // clang-format on
    EXPECT_EQ(rowsSeen, 2);
}

TEST(Tour, FilesSnippetWritesReadsAndLists) {
    InTemporaryFolder folder;
    // clang-format off
    // README tour files
    using ZOTH::CFileHepler; using ZOTH::CPathHelper;
    std::string dir = std::filesystem::current_path().string();
    CFileHepler::WriteDataToFile(std::string("bytes"), dir + "/a.txt", CREATE_ALWAYS);
    std::string data;
    CFileHepler::ReadDataByFilePath(dir + "/a.txt", data); // a missing file is created empty
    std::string md5 = CFileHepler::GetFileMd5(dir + "/a.txt", dir + "/a.copy");
    auto files = CPathHelper::GetLocalFileMap(dir, ".txt");  // name -> dir + "/name", substring filter
    CPathHelper::DeleteDirectory(dir + "/tree");             // depth first, never through links
    std::string exeDir = CPathHelper::GetExeDir();           // the program's folder, not the library's
    // README end
    // clang-format on
    EXPECT_EQ(data, "bytes");
    EXPECT_EQ(md5, "4b3a6218bb3e3a7303e8a171a60fcf92"); // md5 -s bytes
    EXPECT_EQ(files.count("a.txt"), 1u);
    EXPECT_FALSE(exeDir.empty());
}

TEST(Tour, TextSnippetConverts) {
    // clang-format off
    // README tour text
    using ZOTH::STRING_UTIL;
    std::wstring wide = STRING_UTIL::Utf82Unicode("grüße");   // UTF-16 code units
    std::string ansi = STRING_UTIL::Unicode2Asci(wide);         // the ANSI code page (1252 by default)
    std::string b64 = STRING_UTIL::Base64Encode(std::string("\0\1\2", 3));
    auto params = STRING_UTIL::Url2Params("http://h/p?x=1&y=2");
    std::vector<std::string> parts;
    STRING_UTIL::SplitStringA("a,,b", ',', parts, 1);           // "a", "", "b"
    std::string now = ZOTH::CTimeHelper::GetCurrentDateTime();  // "2020-2-3 4:5:6"
    // README end
    // clang-format on
    EXPECT_EQ(wide.size(), 5u);
    EXPECT_EQ(ansi, std::string("gr\xfc\xdf") + "e"); // Windows-1252
    EXPECT_EQ(b64, "AAEC");
    EXPECT_EQ(params["x"], "1");
    EXPECT_EQ(params["y"], "2");
    EXPECT_EQ(parts, (std::vector<std::string>{"a", "", "b"}));
    EXPECT_FALSE(now.empty());
}

#ifndef _WIN32 // the comparison runs on Linux, where the source tree is at hand
namespace {

std::string Trimmed(const std::string& line) {
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    const auto last = line.find_last_not_of(" \t\r");
    return line.substr(first, last - first + 1);
}

// NAME -> the snippet's lines, trimmed, blank lines left out: from the README's fenced block after
// "<!-- tour NAME -->", or from this file's regions "// README tour NAME" ... "// README end".
std::map<std::string, std::vector<std::string>> ReadBlocks(const char* path, bool readme) {
    std::ifstream in(path);
    std::map<std::string, std::vector<std::string>> blocks;
    std::string line, name;
    bool inside = false;
    const std::string readmeMark = "<!-- tour ", sourceMark = "// README tour ";
    while (std::getline(in, line)) {
        const std::string t = Trimmed(line);
        if (readme) {
            if (t.rfind(readmeMark, 0) == 0 && t.size() > readmeMark.size() + 4) {
                name = t.substr(readmeMark.size(), t.size() - readmeMark.size() - 4);
                blocks[name];
            } else if (!name.empty() && t.rfind("```", 0) == 0) {
                if (inside) name.clear();
                inside = !inside;
            } else if (inside && !t.empty()) {
                blocks[name].push_back(t);
            }
        } else {
            if (t.rfind(sourceMark, 0) == 0) {
                name = t.substr(sourceMark.size());
            } else if (t == "// README end") {
                name.clear();
            } else if (!name.empty() && !t.empty()) {
                blocks[name].push_back(t);
            }
        }
    }
    return blocks;
}

} // namespace
#endif

// The README shows exactly the code above: every tour block of the README is here, and every
// snippet here is in the README, line for line (indentation and blank lines aside).
TEST(Tour, ReadmeMatchesTheseSnippets) {
#ifdef _WIN32
    GTEST_SKIP() << "compared on Linux, where the source tree is at hand";
#else
    const auto readme = ReadBlocks(ZOTH_README_PATH, true);
    const auto source = ReadBlocks(ZOTH_TOUR_SOURCE_PATH, false);
    ASSERT_FALSE(source.empty()) << "cannot read " << ZOTH_TOUR_SOURCE_PATH;
    ASSERT_FALSE(readme.empty()) << "no <!-- tour NAME --> block in " << ZOTH_README_PATH;
    for (const auto& [name, lines] : source) {
        auto it = readme.find(name);
        ASSERT_NE(it, readme.end()) << "README.md lacks the tour block \"" << name << "\"";
        std::ostringstream want, got;
        for (const auto& l : lines)
            want << l << '\n';
        for (const auto& l : it->second)
            got << l << '\n';
        EXPECT_EQ(got.str(), want.str())
            << "README.md's tour block \"" << name << "\" differs from " << ZOTH_TOUR_SOURCE_PATH;
    }
    for (const auto& [name, lines] : readme)
        EXPECT_TRUE(source.count(name)) << "README.md's tour block \"" << name << "\" is not compiled here";
#endif
}
