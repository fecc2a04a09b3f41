// DownloadFile writes only a complete 200 answer, and leaves the target alone on every fault.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

void WriteFile(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary) << data;
}

std::string Payload(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
    return data;
}

void AddDownloadRoutes(LoopbackServer& server, const std::string& payload) {
    auto& http = server.Http();
    http.Get("/ok", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(payload, "application/octet-stream");
    });
    http.Get("/empty",
             [](const httplib::Request&, httplib::Response& res) { res.set_content("", "text/plain"); });
    http.Get("/404", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("not here", "text/plain");
    });
    http.Get("/301", [](const httplib::Request&, httplib::Response& res) {
        res.set_redirect("/ok", 301);
        res.set_content("moved", "text/plain");
    });
    http.Get("/206", [](const httplib::Request&, httplib::Response& res) {
        res.status = 206;
        res.set_header("Content-Range", "bytes 0-4/10");
        res.set_content("part!", "application/octet-stream");
    });
    http.Get("/chunked", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream", [&](size_t, httplib::DataSink& sink) {
            sink.write(payload.data(), payload.size());
            sink.done();
            return true;
        });
    });
    // Announces 1000 bytes, sends 500 and closes the connection.
    http.Get("/short", [](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(1000, "application/octet-stream",
                                 [](size_t offset, size_t, httplib::DataSink& sink) {
                                     if (offset > 0) return false;
                                     std::string half(500, 'h');
                                     sink.write(half.data(), half.size());
                                     return true;
                                 });
    });
}

} // namespace

TEST(HttpDownload, CompleteAnswersAreWritten) {
    const std::string payload = Payload(300 * 1024 + 17);
    LoopbackServer server;
    AddDownloadRoutes(server, payload);
    ASSERT_TRUE(server.Start());
    TempDir dir;

    CHttpClientCurl client;
    double lastTotal = -1, lastNow = -1;
    client.SetProgressObserver([&](double total, double now) {
        lastTotal = total;
        lastNow = now;
    });
    WriteFile(dir / "target.bin", "old content that is longer than nothing");
    ASSERT_EQ(1, client.DownloadFile(server.Url("/ok"), dir / "target.bin", "unused"));
    EXPECT_EQ(CURLE_OK, client.GetResultCode());
    EXPECT_EQ(payload, ReadFile(dir / "target.bin")); // replaced whole, not appended to
    EXPECT_EQ(static_cast<double>(payload.size()), lastTotal);
    EXPECT_EQ(static_cast<double>(payload.size()), lastNow);

    // The same object downloads again: every transfer starts from an empty body.
    ASSERT_EQ(1, client.DownloadFile(server.Url("/ok"), dir / "again.bin", ""));
    EXPECT_EQ(payload, ReadFile(dir / "again.bin"));

    // 200 with length 0 makes an empty file.
    ASSERT_EQ(1, client.DownloadFile(server.Url("/empty"), dir / "empty.bin", ""));
    EXPECT_TRUE(std::filesystem::exists(dir / "empty.bin"));
    EXPECT_EQ(0u, std::filesystem::file_size(dir / "empty.bin"));
}

TEST(HttpDownload, FaultsLeaveTargetsUntouched) {
    const std::string payload = Payload(64 * 1024);
    LoopbackServer server;
    AddDownloadRoutes(server, payload);
    ASSERT_TRUE(server.Start());
    TempDir dir;

    struct Fault {
        const char* path;
        CURLcode code; // what GetResultCode tells afterwards
    };
    const Fault faults[] = {{"/404", CURLE_OK},
                            {"/301", CURLE_OK},
                            {"/206", CURLE_OK},
                            {"/chunked", CURLE_OK},
                            {"/short", CURLE_PARTIAL_FILE}};
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.path);
        CHttpClientCurl client;
        const std::string existing = dir / "existing.bin", fresh = dir / "fresh.bin";
        WriteFile(existing, "keep me");
        EXPECT_EQ(0, client.DownloadFile(server.Url(fault.path), existing, ""));
        EXPECT_EQ(fault.code, client.GetResultCode());
        EXPECT_EQ("keep me", ReadFile(existing));
        EXPECT_EQ(0, client.DownloadFile(server.Url(fault.path), fresh, ""));
        EXPECT_FALSE(std::filesystem::exists(fresh));
    }

    // A folder that does not exist is not created.
    CHttpClientCurl client;
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), dir / "missing/sub/file.bin", ""));
    EXPECT_FALSE(std::filesystem::exists(dir / "missing"));

    // Empty arguments make no transfer and keep the last code.
    EXPECT_EQ(0, client.DownloadFile("", dir / "x.bin", ""));
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), "", ""));
    EXPECT_EQ(CURLE_OK, client.GetResultCode());
    EXPECT_FALSE(std::filesystem::exists(dir / "x.bin"));

    // Nothing listening: libcurl's code, no file.
    server.Stop();
    EXPECT_EQ(0, client.DownloadFile(server.Url("/ok"), dir / "y.bin", ""));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_FALSE(std::filesystem::exists(dir / "y.bin"));
}

TEST(HttpDownload, CheckFileMd5OnlyTestsExistence) {
    TempDir dir;
    WriteFile(dir / "present.txt", "abc");
    CHttpClientCurl client;
    EXPECT_EQ(1, client.CheckFileMd5(dir / "present.txt", "900150983cd24fb0d6963f7d28e17f72"));
    EXPECT_EQ(1, client.CheckFileMd5(dir / "present.txt", "not a digest"));
    EXPECT_EQ(1, client.CheckFileMd5(dir.Path(), ""));
    EXPECT_EQ(0, client.CheckFileMd5(dir / "absent.txt", "900150983cd24fb0d6963f7d28e17f72"));
    EXPECT_EQ(0, client.CheckFileMd5("", ""));
}
