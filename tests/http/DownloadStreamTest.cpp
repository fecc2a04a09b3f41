// DownloadFile streaming into a temporary file beside the target: what the folder holds during and
// after each kind of transfer, the replaced file's mode, refused and linked targets, a write that
// fails midway, and bodies past 4 GiB.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"
#include "Portable.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Payload;
using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

std::string ReadAll(const std::string& path) {
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

void WriteAll(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

// The names in a folder, sorted.
std::vector<std::string> Names(const std::string& dir) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

#if !defined(_WIN32)
unsigned ModeOf(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : ~0u;
}
#endif

// Serves `body` in pieces of 64 KiB a few milliseconds apart, so that a client sees the transfer in
// progress many times (a client that finds more data waiting reads on without reporting progress).
void RoutePieces(LoopbackServer& server, const std::string& path, const std::string& body) {
    server.Http().Get(path, [&server, &body](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(body.size(), "application/octet-stream",
                                 [&server, &body](size_t offset, size_t length, httplib::DataSink& sink) {
                                     return (offset == 0 || server.Nap(2)) &&
                                            sink.write(body.data() + offset,
                                                       std::min<size_t>(length, 64 << 10));
                                 });
    });
}

// The routes every test here shares: /ok (the payload in pieces), and answers that must never
// become a file.
void RouteCommon(LoopbackServer& server, const std::string& payload) {
    RoutePieces(server, "/ok", payload);
    server.Http().Get("/404", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("not here", "text/plain");
    });
    server.Http().Get("/206", [](const httplib::Request&, httplib::Response& res) {
        res.status = 206;
        res.set_content("part!", "application/octet-stream");
    });
    server.Http().Get("/chunked", [&payload](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream",
                                         [&payload](size_t, httplib::DataSink& sink) {
                                             sink.write(payload.data(), payload.size());
                                             sink.done();
                                             return true;
                                         });
    });
    server.Http().Get("/short", [&payload](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(payload.size(), "application/octet-stream",
                                 [&payload](size_t offset, size_t, httplib::DataSink& sink) {
                                     return offset == 0 && sink.write(payload.data(), payload.size() / 2);
                                 });
    });
}

} // namespace

TEST(HttpDownloadStream, TemporaryFileBesideTheTargetOnlyWhileReceiving) {
    const std::string payload = Payload((2 << 20) + 17);
    LoopbackServer server;
    RouteCommon(server, payload);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string target = dir / "target.bin", kept = "keep me";

    // While the body arrives, it grows in one temporary file in the target's folder, and the target
    // still holds its old content.
    CHttpClientCurl client;
    std::vector<std::string> during;
    std::string targetDuring;
    uintmax_t tempBytesDuring = 0;
    client.SetProgressObserver([&](double total, double now) {
        if (now <= total / 2 || now >= total || !during.empty()) return;
        during = Names(dir.Path());
        targetDuring = ReadAll(target);
        for (const std::string& name : during)
            if (name != "target.bin") tempBytesDuring = fs::file_size(dir / name);
    });
    WriteAll(target, kept);
    ASSERT_EQ(1, client.DownloadFile(server.Url("/ok"), target, ""));
    ASSERT_EQ(during.size(), 2u);
    const std::string temp = during[0] == "target.bin" ? during[1] : during[0];
    EXPECT_EQ(temp.substr(0, 3), "zdl");
    // Named by the library itself on both systems, as GetTempFileName names its files.
    EXPECT_EQ(temp.substr(temp.size() - 4), ".TMP");
    EXPECT_EQ(targetDuring, kept);
    EXPECT_GT(tempBytesDuring, 0u);
    EXPECT_TRUE(ReadAll(target) == payload) << "content differs";
    EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"target.bin"});
    client.SetProgressObserver(nullptr);

    // Every refused answer leaves an existing target as it was and creates no new one; no
    // temporary file stays behind, whatever the failure.
    const struct {
        const char* path;
        CURLcode code;
    } failures[] = {
        {"/404", CURLE_OK}, {"/206", CURLE_OK}, {"/chunked", CURLE_OK}, {"/short", CURLE_PARTIAL_FILE}};
    for (const auto& c : failures) {
        SCOPED_TRACE(c.path);
        WriteAll(target, kept);
        EXPECT_EQ(0, client.DownloadFile(server.Url(c.path), target, ""));
        EXPECT_EQ(c.code, client.GetResultCode());
        EXPECT_EQ(ReadAll(target), kept);
        EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"target.bin"});
        EXPECT_EQ(0, client.DownloadFile(server.Url(c.path), dir / "fresh.bin", ""));
        EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"target.bin"});
    }

    // A stop midway ends the transfer: the same.
    WriteAll(target, kept);
    client.SetProgressObserver([&](double total, double now) {
        if (now > 0 && now < total) client.Stop();
    });
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), target, ""));
    EXPECT_EQ(ReadAll(target), kept);
    EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"target.bin"});

    // A server that is gone: nothing fetched, nothing left.
    client.SetProgressObserver(nullptr);
    server.Stop();
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), target, ""));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ(ReadAll(target), kept);
    EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"target.bin"});
}

TEST(HttpDownloadStream, ModesHardLinksRefusedTargetsAndSymbolicLinks) {
#if defined(_WIN32)
    GTEST_SKIP() << "Linux only: POSIX modes, umask, hard and symbolic links";
#else
    const std::string payload = Payload(300 * 1024 + 5);
    LoopbackServer server;
    RouteCommon(server, payload);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string kept = "keep me", url = server.Url("/ok");
    CHttpClientCurl client;

    // A replaced file keeps its permission bits; it is a new file, so another hard link to the old
    // one keeps the old content. A new file gets the mode any new file gets.
    const std::string target = dir / "target.bin", other = dir / "other.bin";
    WriteAll(target, kept);
    ASSERT_EQ(::chmod(target.c_str(), 0604), 0);
    ASSERT_EQ(::link(target.c_str(), other.c_str()), 0);
    EXPECT_EQ(1, client.DownloadFile(url, target, ""));
    EXPECT_TRUE(ReadAll(target) == payload) << "content differs";
    EXPECT_EQ(ModeOf(target), 0604u);
    EXPECT_EQ(ReadAll(other), kept);
    const mode_t mask = ::umask(022);
    ::umask(mask);
    EXPECT_EQ(1, client.DownloadFile(url, dir / "new.bin", ""));
    EXPECT_EQ(ModeOf(dir / "new.bin"), 0666u & ~mask);
    EXPECT_TRUE(ReadAll(dir / "new.bin") == payload) << "content differs";

    // Targets the file write refuses give 0 and stay as they were: a read-only file, a folder.
    const std::string readOnly = dir / "ro.bin", folder = dir / "folder";
    WriteAll(readOnly, kept);
    ASSERT_EQ(::chmod(readOnly.c_str(), 0444), 0);
    EXPECT_EQ(0, client.DownloadFile(url, readOnly, ""));
    EXPECT_EQ(ReadAll(readOnly), kept);
    EXPECT_EQ(ModeOf(readOnly), 0444u);
    fs::create_directory(folder);
    WriteAll(folder + "/inside", kept);
    EXPECT_EQ(0, client.DownloadFile(url, folder, ""));
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(Names(folder), std::vector<std::string>{"inside"});
    EXPECT_EQ((std::vector<std::string>{"folder", "new.bin", "other.bin", "ro.bin", "target.bin"}),
              Names(dir.Path()));

    // A symbolic link is written through: the link stays, the file it names is replaced, with its
    // mode, in its own folder. A link to a read-only file is refused like the file.
    fs::create_directory(dir / "real");
    const std::string real = dir / "real/file.bin", link = dir / "link.bin";
    WriteAll(real, kept);
    ASSERT_EQ(::chmod(real.c_str(), 0640), 0);
    ASSERT_EQ(::symlink("real/file.bin", link.c_str()), 0);
    EXPECT_EQ(1, client.DownloadFile(url, link, ""));
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::read_symlink(link), "real/file.bin");
    EXPECT_TRUE(ReadAll(real) == payload) << "content differs";
    EXPECT_EQ(ModeOf(real), 0640u);
    EXPECT_EQ(Names(dir / "real"), std::vector<std::string>{"file.bin"});
    ASSERT_EQ(::chmod(real.c_str(), 0444), 0);
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), link, ""));
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(ModeOf(real), 0444u);
    EXPECT_TRUE(ReadAll(real) == payload) << "content differs";
    EXPECT_EQ(Names(dir / "real"), std::vector<std::string>{"file.bin"});
#endif
}

// A write that fails midway (here a file-size limit the child process sets on itself, with SIGXFSZ
// ignored so that the write reports EFBIG) leaves the old file whole and no temporary file.
TEST(HttpDownloadStream, WriteFailingMidwayLeavesTheOldFileWhole) {
#if defined(_WIN32)
    GTEST_SKIP() << "Linux only: a file-size limit set with setrlimit in a forked child";
#else
    const std::string payload = Payload(1 << 20);
    LoopbackServer server;
    RouteCommon(server, payload);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string target = dir / "target.bin", old = Payload(200 * 1024).substr(100);
    WriteAll(target, old);
    const std::string url = server.Url("/ok");

    pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {128 << 10, 128 << 10};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(2);
        CHttpClientCurl client;
        const int result = client.DownloadFile(url, target, "");
        ::_exit(result == 0 && client.GetResultCode() == CURLE_WRITE_ERROR ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(ReadAll(target) == old) << "content differs";
    EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"target.bin"});

    // Without the limit the same download goes through.
    CHttpClientCurl client;
    EXPECT_EQ(1, client.DownloadFile(url, target, ""));
    EXPECT_TRUE(ReadAll(target) == payload) << "content differs";
#endif
}

// A body past 4 GiB arrives whole: its size, bytes on both sides of the 4 GiB mark, and what the
// observer was told. About 10 s in a release build, most of it writing the file; not run under the
// sanitizers, which would take minutes over the server's and libcurl's copies of 4 GiB.
TEST(HttpDownloadStream, BodiesOf4GiBAndMore) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "4 GiB through instrumented copies takes minutes";
#endif
    const uint64_t size = (uint64_t{4} << 30) + 4099;
    std::string pattern(257 << 10, '\0'); // byte i of the body is i % 251
    for (size_t i = 0; i < pattern.size(); ++i)
        pattern[i] = static_cast<char>(i % 251);
    LoopbackServer server;
    server.Http().Get("/huge", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(
            size, "application/octet-stream", [&](size_t offset, size_t length, httplib::DataSink& sink) {
                return sink.write(pattern.data() + offset % 251, std::min<size_t>(length, 256 << 10));
            });
    });
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string target = dir / "huge.bin";
    CHttpClientCurl client;
    double lastNow = 0;
    client.SetProgressObserver([&](double, double now) { lastNow = now; });
    client.SetDownloadDurable(false); // flushing 4 GiB would only add time here
    ASSERT_EQ(1, client.DownloadFile(server.Url("/huge"), target, ""));
    EXPECT_EQ(lastNow, static_cast<double>(size));
    EXPECT_EQ(fs::file_size(target), size);
    std::ifstream in(target, std::ios::binary);
    ASSERT_TRUE(in.is_open());
    for (uint64_t offset : {uint64_t{0}, (uint64_t{1} << 32) - 2, uint64_t{1} << 32, size - 3}) {
        unsigned char bytes[2] = {};
        in.clear();
        in.seekg(static_cast<std::streamoff>(offset));
        in.read(reinterpret_cast<char*>(bytes), 2);
        EXPECT_EQ(in.gcount(), offset + 2 <= size ? 2 : 1) << offset;
        EXPECT_EQ(bytes[0], offset % 251) << offset;
        EXPECT_EQ(bytes[1], (offset + 1) % 251) << offset;
    }
    in.close();
    EXPECT_EQ(Names(dir.Path()), std::vector<std::string>{"huge.bin"});
}
