// The speed probe against a throttled stream, and the multipart upload as the server parsed it.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

namespace {

// Streams 16 KiB every 15.625 ms, 1 MiB/s, for up to 20 s or until the client goes.
void AddThrottledStream(LoopbackServer& server) {
    server.Http().Get("/throttled", [&](const httplib::Request&, httplib::Response& res) {
        auto start =
            std::make_shared<std::chrono::steady_clock::time_point>(std::chrono::steady_clock::now());
        res.set_chunked_content_provider(
            "application/octet-stream", [&server, start](size_t offset, httplib::DataSink& sink) {
                const std::string chunk(16 * 1024, 's');
                if (!sink.write(chunk.data(), chunk.size())) return false;
                // Keep to the schedule: chunk k+1 goes out at (k+1) * 15.625 ms.
                const auto due = *start + std::chrono::microseconds(
                                              static_cast<long>((offset / chunk.size() + 1) * 15625));
                const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
                    due - std::chrono::steady_clock::now());
                if (offset > 20u * 1024 * 1024) return false;
                return server.Nap(static_cast<int>(std::max<long>(0, wait.count())));
            });
    });
}

} // namespace

TEST(HttpSpeed, ProbeEndsAtTheLimitWithASaneSpeed) {
    const std::string big(3 * 1024 * 1024, 'b'); // before the server, which reads it until it stops
    LoopbackServer server;
    AddThrottledStream(server);
    server.Http().Get("/big", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(big, "application/octet-stream");
    });
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    std::string response;
    ASSERT_EQ(1, client.HttpGet(server.Url("/big"), "", "", response));
    EXPECT_EQ(big.size(), client.GetTotalSize());

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
    const double speed = client.GetNetSpeed(); // about 8 (1 MiB/s in units of 2^20 bit/s)
    EXPECT_GT(speed, 2.0);
    EXPECT_LT(speed, 16.0);

    // The probe kept nothing, and later requests keep their bodies again.
    ASSERT_EQ(1, client.HttpGet(server.Url("/big"), "", "", response));
    EXPECT_EQ(big, response);
}

TEST(HttpSpeed, ShortFilesBadArgumentsAndFailures) {
    const std::string small(100 * 1024, 'q');
    LoopbackServer server;
    server.Http().Get("/small", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(small, "application/octet-stream");
    });
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    EXPECT_EQ(0.0, client.GetNetSpeed()); // nothing to compute from
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), 5));
    EXPECT_EQ(CURLE_OK, client.GetResultCode()); // the file ended before the limit
    EXPECT_EQ(small.size(), client.GetTotalSize());
    EXPECT_NE(0u, client.GetEndTime());
    const double speed = client.GetNetSpeed();
    // Under a second: divided by zero seconds, infinite; otherwise 100 KiB over whole seconds.
    if (client.GetEndTime() - client.GetStartTime() < 1000)
        EXPECT_TRUE(std::isinf(speed));
    else
        EXPECT_LE(speed, 100 * 8.0 / 1024);

    // Bad arguments change none of the probe's figures.
    const DWORD start = client.GetStartTime(), end = client.GetEndTime(), total = client.GetTotalSize();
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), 0));
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), -3));
    EXPECT_EQ(0, client.TestNetSpeed("", 5));
    EXPECT_EQ(start, client.GetStartTime());
    EXPECT_EQ(end, client.GetEndTime());
    EXPECT_EQ(total, client.GetTotalSize());

    // A failure before any body leaves no end tick and no speed.
    server.Stop();
    EXPECT_EQ(0, client.TestNetSpeed(server.Url("/small"), 5));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ(0u, client.GetEndTime());
    EXPECT_EQ(0.0, client.GetNetSpeed());
}

TEST(HttpUpload, MultipartPartsInOrderAsTheServerParsedThem) {
    std::mutex mutex;
    std::vector<std::string> names, filenames, contents;
    std::string token, contentType;
    LoopbackServer server;
    server.Http().Post("/upload", [&](const httplib::Request& req, httplib::Response& res,
                                      const httplib::ContentReader& reader) {
        std::lock_guard<std::mutex> lock(mutex);
        token = req.get_header_value("X-Token");
        contentType = req.get_header_value("Content-Type");
        reader(
            [&](const httplib::MultipartFormData& part) {
                names.push_back(part.name);
                filenames.push_back(part.filename);
                contents.emplace_back();
                return true;
            },
            [&](const char* data, size_t length) {
                contents.back().append(data, length);
                return true;
            });
        res.set_content("stored " + std::to_string(names.size()), "text/plain");
    });
    ASSERT_TRUE(server.Start());
    TempDir dir;
    std::string fileData(70000, '\0');
    for (size_t i = 0; i < fileData.size(); ++i)
        fileData[i] = static_cast<char>(i % 251);
    std::ofstream(dir / "report.bin", std::ios::binary) << fileData;

    CHttpClientCurl client;
    client.SetCustomHeaders({"X-Token: t-42"});
    std::string response;
    ASSERT_EQ(1, client.HttpPostFile(server.Url("/upload"), "", "this does not reach the wire",
                                     dir / "report.bin", response));
    EXPECT_EQ("stored 2", response);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ("t-42", token);
    EXPECT_EQ(0u, contentType.rfind("multipart/form-data", 0));
    ASSERT_EQ((std::vector<std::string>{"reqformat", "file"}), names);
    EXPECT_EQ("plain", contents[0]);
    EXPECT_EQ("", filenames[0]);
    EXPECT_EQ("report.bin", filenames[1]);
    EXPECT_EQ(fileData, contents[1]);
}

TEST(HttpUpload, ProxyStopFlagAndUnreadableFile) {
    std::atomic<int> uploads{0};
    LoopbackServer server;
    server.Http().Post("/upload", [&](const httplib::Request& req, httplib::Response& res) {
        ++uploads;
        res.set_content(req.has_file("file") ? req.get_file_value("file").content : "none", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    TempDir dir;
    std::ofstream(dir / "note.txt") << "note body";

    CHttpClientCurl client;
    std::string response;
    zoth_test::ForwardProxy proxy;
    ASSERT_EQ(1, client.HttpPostFile(server.Url("/upload"), proxy.Address(), "", dir / "note.txt", response));
    EXPECT_EQ("note body", response);
    ASSERT_EQ(1u, proxy.RequestLines().size());
    EXPECT_EQ("POST " + server.Url("/upload") + " HTTP/1.1", proxy.RequestLines()[0]);

    // The upload honours a pending stop and does not clear it, unlike HttpPost.
    client.Stop();
    EXPECT_EQ(0, client.HttpPostFile(server.Url("/upload"), "", "", dir / "note.txt", response));
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
    EXPECT_EQ(1, client.HttpPost(server.Url("/upload"), "", "x=1", response));

    // A file that cannot be read fails the transfer itself.
    const int before = uploads;
    EXPECT_EQ(0, client.HttpPostFile(server.Url("/upload"), "", "", dir / "absent.txt", response));
    EXPECT_NE(CURLE_OK, client.GetResultCode());
    EXPECT_EQ("", response);
    EXPECT_EQ(before, uploads.load());
}
