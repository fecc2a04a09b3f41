// DownloadFile against a hostile or careless target folder: targets refused before any request,
// a link planted at the temporary file's name while the download is held, and the temporary file
// kept from other users while it is written. On Windows the temporary file is held open without
// FILE_SHARE_WRITE or FILE_SHARE_DELETE while written: nobody can rename, delete or write it, which
// the tests there check in place of the link planted by another user and the mode bits.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Payload;
using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

#if !defined(_WIN32)
constexpr uid_t kNobody = 65534;
#endif

std::string ReadAll(const std::string& path) {
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

// Serves /held: the first half of the body, then nothing more until Release().
class HeldServer {
public:
    explicit HeldServer(std::string body) : m_body(std::move(body)) {
        m_server.Http().Get("/held", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content_provider(m_body.size(), "application/octet-stream",
                                     [this](size_t offset, size_t, httplib::DataSink& sink) {
                                         const size_t half = m_body.size() / 2;
                                         if (offset == 0) return sink.write(m_body.data(), half);
                                         std::unique_lock<std::mutex> lock(m_mutex);
                                         m_sentHalf = true;
                                         m_changed.notify_all();
                                         m_changed.wait(lock, [this] { return m_released; });
                                         return sink.write(m_body.data() + offset, m_body.size() - offset);
                                     });
        });
        m_server.Http().Get("/any", [this](const httplib::Request&, httplib::Response& res) {
            ++m_requests;
            res.set_content("body", "application/octet-stream");
        });
    }
    ~HeldServer() {
        Release();
        m_server.Stop();
    }
    bool Start() { return m_server.Start(); }
    std::string Url(const std::string& path) const { return m_server.Url(path); }
    int Requests() const { return m_requests; }
    // Waits (generously) until the first half has gone out and the server holds the rest.
    bool WaitHeld() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(30), [this] { return m_sentHalf; });
    }
    void Release() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }

private:
    std::string m_body;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_sentHalf = false, m_released = false;
    std::atomic<int> m_requests{0};
    LoopbackServer m_server; // last: stopped before what its handlers use is gone
};

// The one temporary file in `dir` besides the names in `known`, or "".
std::string TemporaryName(const std::string& dir, const std::string& known) {
    for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (known.find("|" + name + "|") == std::string::npos) return name;
    }
    return "";
}

} // namespace

TEST(HttpDownloadTarget, RefusedTargetsFailBeforeAnyRequest) {
    HeldServer server("unused");
    ASSERT_TRUE(server.Start());
    TempDir dir;
    fs::create_directory(dir / "folder");
    // A link whose file is then removed (Wine makes links only from the Unix side, to a file that is).
    std::ofstream(dir / "nowhere.bin") << "gone";
    ASSERT_TRUE(zoth_test::MakeLink(dir / "nowhere.bin", dir / "dangling"));
    fs::remove(dir / "nowhere.bin");
    std::ofstream(dir / "readonly.bin") << "old";
    ASSERT_TRUE(zoth_test::SetReadOnly(dir / "readonly.bin"));
    struct Case {
        const char* what;
        std::string target;
    } const cases[] = {
        {"a folder", dir / "folder"},
        {"a dangling link", dir / "dangling"},
        {"a read-only file", dir / "readonly.bin"},
        {"a missing folder", dir / "missing" + "/file.bin"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // Wine reports a dangling Unix link as no file at all, so the download takes its place there;
        // Windows shows the link itself (FILE_ATTRIBUTE_REPARSE_POINT), and opening it fails.
        if (zoth_test::UnderWine() && c.target == dir / "dangling") continue;
        CHttpClientCurl client;
        EXPECT_EQ(client.DownloadFile(server.Url("/any"), c.target, ""), 0);
        EXPECT_EQ(client.GetResultCode(), CURLE_WRITE_ERROR);
    }
    EXPECT_EQ(server.Requests(), 0);
    // Nothing was made, and the link still leads nowhere.
    EXPECT_FALSE(fs::exists(dir / "nowhere.bin"));
    EXPECT_EQ(ReadAll(dir / "readonly.bin"), "old");
    EXPECT_TRUE(fs::is_empty(dir / "folder"));
    // (Wine lists no dangling link in a folder.)
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()),
              zoth_test::UnderWine() ? 2 : 3);
}

// Another user who may rename entries in the target's folder moves the temporary file away while
// the download is held, and puts a link to a file of the test's own at its name. On Windows the
// move itself is refused while the file is open.
TEST(HttpDownloadTarget, LinkPlantedAtTheTemporaryNameIsNeverActedOn) {
    const std::string body = Payload(256 << 10);
    HeldServer server(body);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string target = dir / "target.bin", victim = dir / "victim.bin";
    std::ofstream(target) << "old target";
    std::ofstream(victim) << "victim";
#if defined(_WIN32)
    CHttpClientCurl client;
    int result = -1;
    std::thread download([&] { result = client.DownloadFile(server.Url("/held"), target, ""); });
    ASSERT_TRUE(server.WaitHeld());
    const std::string temp = TemporaryName(dir.Path(), "|target.bin|victim.bin|");
    ASSERT_FALSE(temp.empty());
    EXPECT_FALSE(MoveFileExA((dir / temp).c_str(), (dir / "moved").c_str(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_FALSE(DeleteFileA((dir / temp).c_str()));
    server.Release();
    download.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(ReadAll(target), body);
    EXPECT_EQ(ReadAll(victim), "victim");
    EXPECT_FALSE(fs::exists(dir / "moved"));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()), 2);
#else
    ::chmod(victim.c_str(), 0600);
    const bool root = ::geteuid() == 0;
    if (root) ::chown(target.c_str(), kNobody, kNobody); // the download would hand that owner on
    struct stat victimBefore;
    ASSERT_EQ(::stat(victim.c_str(), &victimBefore), 0);

    CHttpClientCurl client;
    int result = -1;
    std::thread download([&] { result = client.DownloadFile(server.Url("/held"), target, ""); });
    ASSERT_TRUE(server.WaitHeld());
    const std::string temp = TemporaryName(dir.Path(), "|target.bin|victim.bin|");
    ASSERT_FALSE(temp.empty());
    ASSERT_EQ(::rename((dir / temp).c_str(), (dir / "moved").c_str()), 0);
    ASSERT_EQ(::symlink(victim.c_str(), (dir / temp).c_str()), 0);
    server.Release();
    download.join();

    EXPECT_EQ(result, 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_WRITE_ERROR);
    struct stat victimAfter, targetAfter;
    ASSERT_EQ(::stat(victim.c_str(), &victimAfter), 0);
    EXPECT_EQ(victimAfter.st_uid, victimBefore.st_uid);
    EXPECT_EQ(victimAfter.st_gid, victimBefore.st_gid);
    EXPECT_EQ(victimAfter.st_mode, victimBefore.st_mode);
    EXPECT_EQ(ReadAll(victim), "victim");
    ASSERT_EQ(::lstat(target.c_str(), &targetAfter), 0);
    EXPECT_TRUE(S_ISREG(targetAfter.st_mode));
    EXPECT_EQ(ReadAll(target), "old target");
    // The planted link is left where it was put, and the moved file is the download's.
    EXPECT_TRUE(fs::is_symlink(dir / temp));
    EXPECT_EQ(ReadAll(dir / "moved"), body);
#endif
}

// While the body is written, the temporary file is the caller's alone: mode 0600, and another user
// (a forked child running as nobody) cannot open it. On Windows no other opener may write it.
TEST(HttpDownloadTarget, TemporaryFileIsPrivateWhileWritten) {
    const std::string body = Payload(256 << 10);
    HeldServer server(body);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string target = dir / "target.bin";
#if defined(_WIN32)
    std::ofstream(target) << "old";
    CHttpClientCurl client;
    int result = -1;
    std::thread download([&] { result = client.DownloadFile(server.Url("/held"), target, ""); });
    ASSERT_TRUE(server.WaitHeld());
    const std::string temp = dir / TemporaryName(dir.Path(), "|target.bin|");
    HANDLE other =
        CreateFileA(temp.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(other, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    if (other != INVALID_HANDLE_VALUE) CloseHandle(other);
    server.Release();
    download.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(ReadAll(target), body);
#else
    ::chmod(dir.Path().c_str(), 0755);
    std::ofstream(target) << "old";
    ::chmod(target.c_str(), 0644);

    CHttpClientCurl client;
    int result = -1;
    std::thread download([&] { result = client.DownloadFile(server.Url("/held"), target, ""); });
    ASSERT_TRUE(server.WaitHeld());
    const std::string temp = dir / TemporaryName(dir.Path(), "|target.bin|");
    struct stat st;
    ASSERT_EQ(::stat(temp.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    int status = -1;
    if (::geteuid() == 0) {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) ::_exit(2);
            const int fd = ::open(temp.c_str(), O_RDONLY);
            ::_exit(fd < 0 && errno == EACCES ? 0 : 1);
        }
        ASSERT_GT(child, 0);
        ASSERT_EQ(::waitpid(child, &status, 0), child);
    }
    server.Release();
    download.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(ReadAll(target), body);
    EXPECT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u); // the replaced file's mode carries over
    if (::geteuid() != 0) GTEST_SKIP() << "the check as another user needs root to switch users";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: another user opened the file; 2: the child could not switch";
#endif
}
