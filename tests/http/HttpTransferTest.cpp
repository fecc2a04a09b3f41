// DownloadFile's no-partial-file promise, the speed probe, and the multipart upload as parsed.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Payload;
using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

std::string ReadFile(const std::string& path) {
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

void WriteFile(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary) << data;
}

void Route(LoopbackServer& server, const std::string& path, int status, const std::string& body) {
    server.Http().Get(path, [=](const httplib::Request&, httplib::Response& res) {
        res.status = status;
        res.set_content(body, "application/octet-stream");
    });
}

} // namespace

TEST(HttpDownload, WritesOnlyCompleteAnswersAndLeavesTargetsOnFaults) {
    const std::string payload = Payload(300 * 1024 + 17);
    LoopbackServer server;
    Route(server, "/ok", 200, payload);
    Route(server, "/empty", 200, "");
    Route(server, "/404", 404, "not here");
    Route(server, "/206", 206, "part!");
    server.Http().Get("/301",
                      [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/ok", 301); });
    server.Http().Get("/chunked", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream", [&](size_t, httplib::DataSink& sink) {
            sink.write(payload.data(), payload.size());
            sink.done();
            return true;
        });
    });
    server.Http().Get("/short", [](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(
            1000, "application/octet-stream", [](size_t offset, size_t, httplib::DataSink& sink) {
                return offset == 0 && sink.write(std::string(500, 'h').data(), 500); // then closes
            });
    });
    ASSERT_TRUE(server.Start());
    TempDir dir;

    CHttpClientCurl client; // one for all: each transfer starts from an empty body
    double lastTotal = -1, lastNow = -1;
    client.SetProgressObserver([&](double total, double now) { lastTotal = total, lastNow = now; });
    const std::string kept = "keep me", empty;
    const struct {
        const char* path;
        CURLcode code;
        const std::string& content; // of the target afterwards
    } cases[] = {{"/ok", CURLE_OK, payload},
                 {"/empty", CURLE_OK, empty},
                 {"/404", CURLE_OK, kept},
                 {"/301", CURLE_OK, kept},
                 {"/206", CURLE_OK, kept},
                 {"/chunked", CURLE_OK, kept},
                 {"/short", CURLE_PARTIAL_FILE, kept}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const bool written = &c.content != &kept;
        const std::string existing = dir / "existing.bin", fresh = dir / "fresh.bin";
        WriteFile(existing, kept);
        fs::remove(fresh);
        EXPECT_EQ(written ? 1 : 0, client.DownloadFile(server.Url(c.path), existing, "unused"));
        EXPECT_EQ(c.code, client.GetResultCode());
        EXPECT_EQ(c.content, ReadFile(existing)); // replaced whole, or untouched
        EXPECT_EQ(written ? 1 : 0, client.DownloadFile(server.Url(c.path), fresh, ""));
        EXPECT_EQ(written, fs::exists(fresh));
        if (written) {
            EXPECT_EQ(c.content, ReadFile(fresh));
            EXPECT_EQ(static_cast<double>(c.content.size()), lastNow); // the observer saw it all
            EXPECT_EQ(lastTotal, lastNow);
        }
    }

    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), dir / "missing/sub/file.bin", ""));
    EXPECT_FALSE(fs::exists(dir / "missing"));            // no folder is created
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode()); // refused before any request
    // Empty arguments make no transfer and keep the last code.
    EXPECT_EQ(0, client.DownloadFile("", dir / "x.bin", ""));
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), "", ""));
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
    server.Stop();
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), dir / "x.bin", ""));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_FALSE(fs::exists(dir / "x.bin"));

    // CheckFileMd5 tells only whether the path exists; the digest is not looked at.
    EXPECT_EQ(1, client.CheckFileMd5(dir / "existing.bin", "not a digest"));
    EXPECT_EQ(1, client.CheckFileMd5(dir.Path(), ""));
    EXPECT_EQ(0, client.CheckFileMd5(dir / "x.bin", "900150983cd24fb0d6963f7d28e17f72"));
    EXPECT_EQ(0, client.CheckFileMd5("", ""));
}

TEST(HttpSpeed, ProbeEndsAtTheLimitWithASaneSpeed) {
    const std::string big(3 * 1024 * 1024, 'b');
    LoopbackServer server;
    Route(server, "/big", 200, big);
    Route(server, "/small", 200, std::string(100 * 1024, 'q'));
    // Streams 16 KiB every 16 ms (about 1 MiB/s) for up to 20 s, or until the client goes.
    server.Http().Get("/throttled", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider(
            "application/octet-stream", [&](size_t offset, httplib::DataSink& sink) {
                const std::string chunk(16 * 1024, 's');
                return offset < 20u * 1024 * 1024 && sink.write(chunk.data(), chunk.size()) && server.Nap(16);
            });
    });
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    EXPECT_EQ(0.0, client.GetNetSpeed()); // nothing to compute from
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), 5));
    EXPECT_EQ(CURLE_OK, client.GetResultCode()); // the file ended before the limit
    EXPECT_EQ(100u * 1024, client.GetTotalSize());
    // Under a second it divides by zero seconds: infinite; otherwise 100 KiB over whole seconds.
    if (client.GetEndTime() - client.GetStartTime() < 1000)
        EXPECT_TRUE(std::isinf(client.GetNetSpeed()));
    else
        EXPECT_LE(client.GetNetSpeed(), 100 * 8.0 / 1024);
    // Bad arguments change none of the probe's figures.
    const DWORD startTick = client.GetStartTime(), endTick = client.GetEndTime();
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), 0));
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), -3));
    EXPECT_EQ(0, client.TestNetSpeed("", 5));
    EXPECT_EQ(startTick, client.GetStartTime());
    EXPECT_EQ(endTick, client.GetEndTime());
    EXPECT_EQ(100u * 1024, client.GetTotalSize());

    std::string response;
    ASSERT_EQ(1, client.HttpGet(server.Url("/big"), "", "", response));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/throttled"), 2));
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
    EXPECT_GE(elapsed, 1.9);
    EXPECT_LT(elapsed, 10.0);
    EXPECT_GE(client.GetEndTime() - client.GetStartTime(), 2000u);
    // The probe counts from zero: the 3 MiB of the request above are not in it.
    EXPECT_GT(client.GetTotalSize(), 512u * 1024);
    EXPECT_LT(client.GetTotalSize(), 2900u * 1024);
    EXPECT_GT(client.GetNetSpeed(), 2.0); // about 8: 1 MiB/s in units of 2^20 bit/s
    EXPECT_LT(client.GetNetSpeed(), 16.0);
    ASSERT_EQ(1, client.HttpGet(server.Url("/big"), "", "", response)); // later requests keep bodies
    EXPECT_EQ(big, response);

    // A failure before any body leaves no end tick and no speed.
    server.Stop();
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), 5));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ(0u, client.GetEndTime());
    EXPECT_EQ(0.0, client.GetNetSpeed());
}

TEST(HttpUpload, MultipartPartsInOrderThroughProxyStopAndUnreadableFile) {
    std::mutex mutex; // the parts as the server parsed them: name, file name, content
    std::vector<std::array<std::string, 3>> parts;
    std::string token;
    std::atomic<int> uploads{0};
    LoopbackServer server;
    server.Http().Post("/upload", [&](const httplib::Request& req, httplib::Response& res,
                                      const httplib::ContentReader& reader) {
        std::lock_guard<std::mutex> lock(mutex);
        token = req.get_header_value("X-Token");
        ++uploads;
        parts.clear();
        reader(
            [&](const httplib::MultipartFormData& part) {
                return parts.push_back({part.name, part.filename, ""}), true;
            },
            [&](const char* data, size_t length) { return parts.back()[2].append(data, length), true; });
        res.set_content("stored " + std::to_string(parts.size()), "text/plain");
    });
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string fileData = Payload(70000);
    WriteFile(dir / "report.bin", fileData);

    CHttpClientCurl client;
    client.SetCustomHeaders({"X-Token: t-42"});
    zoth_test::ForwardProxy proxy;
    for (const std::string via : {"", "proxy"}) {
        SCOPED_TRACE(via);
        std::string response;
        ASSERT_EQ(1, client.HttpPostFile(server.Url("/upload"), via.empty() ? "" : proxy.Address(),
                                         "this does not reach the wire", dir / "report.bin", response));
        EXPECT_EQ("stored 2", response);
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("t-42", token);
        ASSERT_EQ(2u, parts.size());
        EXPECT_EQ((std::array<std::string, 3>{"reqformat", "", "plain"}), parts[0]);
        EXPECT_EQ((std::array<std::string, 3>{"file", "report.bin", fileData}), parts[1]);
    }
    EXPECT_EQ(std::vector<std::string>{"POST " + server.Url("/upload") + " HTTP/1.1"}, proxy.RequestLines());

    // The upload honours a pending stop and does not clear it, unlike HttpPost.
    std::string response;
    client.Stop();
    EXPECT_EQ(0, client.HttpPostFile(server.Url("/upload"), "", "", dir / "report.bin", response));
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
    EXPECT_EQ(1, client.HttpPost(server.Url("/elsewhere"), "", "x=1", response));

    // A file that cannot be read fails the transfer itself, before the server sees it.
    const int before = uploads;
    EXPECT_EQ(0, client.HttpPostFile(server.Url("/upload"), "", "", dir / "absent.txt", response));
    EXPECT_NE(CURLE_OK, client.GetResultCode());
    EXPECT_EQ("", response);
#if !defined(_WIN32)
    // A pipe would block the open with no writer; it is refused at once rather than waited on.
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(0, client.HttpPostFile(server.Url("/upload"), "", "", dir / "pipe", response));
    EXPECT_EQ(CURLE_READ_ERROR, client.GetResultCode());
#endif
    EXPECT_EQ(before, uploads.load());
}
