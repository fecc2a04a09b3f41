// The status and the words of an operation's outcome, and the schemes a transfer may use.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

namespace {

// A port on 127.0.0.1 where nothing listens: a server's, after it stopped.
int ClosedPort() {
    LoopbackServer gone;
    if (!gone.Start()) return 0;
    const int port = gone.Port();
    gone.Stop();
    return port;
}

// "file://" URL of a local path, with forward slashes (a Windows path keeps its drive letter).
std::string FileUrl(const std::string& path) {
    std::string url = path;
    for (char& c : url)
        if (c == '\\') c = '/';
    return url[0] == '/' ? "file://" + url : "file:///" + url;
}

} // namespace

TEST(ErrorText, StatusAndWordsOfEachOperation) {
    LoopbackServer server;
    std::atomic<int> uploads{0};
    const std::string body = "twelve bytes";
    server.Http().Get(
        "/ok", [&](const httplib::Request&, httplib::Response& res) { res.set_content(body, "text/plain"); });
    server.Http().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("no such page", "text/plain");
    });
    server.Http().Get("/stream", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream", [&](size_t, httplib::DataSink& sink) {
            const std::string chunk(16 * 1024, 's');
            return server.Nap(5) && sink.write(chunk.data(), chunk.size());
        });
    });
    server.Http().Post("/upload", [&](const httplib::Request&, httplib::Response& res) {
        ++uploads;
        res.set_content("stored", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    const int closed = ClosedPort();
    ASSERT_GT(closed, 0);
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(closed) + "/";
    TempDir dir;
    const std::string target = dir / "target.bin";
    const std::string source = dir / "source.txt";
    std::ofstream(source, std::ios::binary) << "upload me";
    std::filesystem::create_directory(dir / "folder");

    using Op = std::function<int(CHttpClientCurl&, std::string&)>;
    const auto get = [](std::string url) {
        return Op([url](CHttpClientCurl& c, std::string& out) { return c.HttpGet(url, "", "", out); });
    };
    const auto download = [&](std::string url) {
        return Op(
            [url, &target](CHttpClientCurl& c, std::string&) { return c.DownloadFile(url, target, ""); });
    };
    const auto upload = [&](std::string file) {
        return Op([&server, file](CHttpClientCurl& c, std::string& out) {
            return c.HttpPostFile(server.Url("/upload"), "", "", file, out);
        });
    };
    const auto probe = [](std::string url) {
        return Op([url](CHttpClientCurl& c, std::string&) { return c.TestNetSpeed(url, 1); });
    };
    const std::string wrongSha(64, 'a');
    const struct {
        const char* name;
        Op op;
        int result;
        CURLcode code;
        long status;
        std::vector<std::string> words; // each in the text, in order; none: the text is ""
    } cases[] = {
        {"get 200", get(server.Url("/ok")), 1, CURLE_OK, 200, {}},
        {"get 404", get(server.Url("/missing")), 1, CURLE_OK, 404, {"HTTP status 404 Not Found"}},
        {"get refused",
         get(nowhere),
         0,
         CURLE_COULDNT_CONNECT,
         0,
         {"Couldn't connect to server: ", "127.0.0.1 port " + std::to_string(closed)}},
        {"download 200", download(server.Url("/ok")), 1, CURLE_OK, 200, {}},
        {"download 404",
         download(server.Url("/missing")),
         0,
         CURLE_OK,
         404,
         {"HTTP status 404 Not Found", "only a 200 answer", "left as it was"}},
        {"download digest",
         Op([&](CHttpClientCurl& c, std::string&) {
             c.SetDownloadDigest("sha256", wrongSha);
             return c.DownloadFile(server.Url("/ok"), target, "");
         }),
         0,
         CURLE_BAD_CONTENT_ENCODING,
         200,
         {"digest is ", "not " + wrongSha, "left as it was"}},
        {"download into a folder",
         Op([&](CHttpClientCurl& c, std::string&) {
             return c.DownloadFile(server.Url("/ok"), dir / "folder", "");
         }),
         0,
         CURLE_WRITE_ERROR,
         0,
         {"cannot write ", "nothing fetched"}},
        {"download refused",
         download(nowhere),
         0,
         CURLE_COULDNT_CONNECT,
         0,
         {"Couldn't connect to server: "}},
        {"upload", upload(source), 1, CURLE_OK, 200, {}},
        {"upload a folder", upload(dir / "folder"), 0, CURLE_READ_ERROR, 0, {"cannot read ", "nothing sent"}},
        {"upload a missing file", upload(dir / "none"), 0, CURLE_READ_ERROR, 0, {"cannot read "}},
        {"probe to its limit", probe(server.Url("/stream")), 0, CURLE_WRITE_ERROR, 200, {}},
        {"probe refused", probe(nowhere), 0, CURLE_COULDNT_CONNECT, 0, {"Couldn't connect to server: "}},
        {"stopped before",
         Op([&](CHttpClientCurl& c, std::string&) {
             c.Stop();
             return c.DownloadFile(server.Url("/ok"), target, "");
         }),
         0,
         CURLE_WRITE_ERROR,
         0,
         {"Stopped"}},
    };
    // One object through every case: each operation's report replaces the one before.
    CHttpClientCurl client;
    EXPECT_EQ(client.GetStatusCode(), 0);
    EXPECT_EQ(client.GetErrorText(), "");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int uploadsBefore = uploads;
        std::string out;
        EXPECT_EQ(c.op(client, out), c.result);
        EXPECT_EQ(client.GetResultCode(), c.code);
        EXPECT_EQ(client.GetStatusCode(), c.status);
        const std::string text = client.GetErrorText();
        if (c.words.empty()) {
            EXPECT_EQ(text, "");
        }
        size_t at = 0;
        for (const std::string& word : c.words) {
            const size_t found = text.find(word, at);
            EXPECT_NE(found, std::string::npos) << "\"" << word << "\" not in \"" << text << "\"";
            if (found != std::string::npos) at = found + word.size();
        }
        if (std::string(c.name).rfind("upload a", 0) == 0) {
            EXPECT_EQ(uploads, uploadsBefore) << "sent anyway";
        }
        // A copy tells the same.
        CHttpClientCurl copy(client);
        EXPECT_EQ(copy.GetStatusCode(), c.status);
        EXPECT_EQ(copy.GetErrorText(), text);
    }
}

TEST(ErrorText, OnlyHttpAndHttpsUnlessWidened) {
    LoopbackServer server;
    std::atomic<int> requests{0};
    server.Http().Post("/upload", [&](const httplib::Request&, httplib::Response& res) {
        ++requests;
        res.set_content("stored", "text/plain");
    });
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string secret = dir / "secret.txt";
    std::ofstream(secret, std::ios::binary) << "local secret";
    const std::string url = FileUrl(secret);
    const std::string target = dir / "copy.txt";

    CHttpClientCurl client;
    std::string out = "untouched";
    // Every libcurl road refuses another scheme before anything is read.
    const struct {
        const char* name;
        std::function<int()> run;
    } roads[] = {
        {"get", [&] { return client.HttpGet(url, "", "", out); }},
        {"post", [&] { return client.HttpPost(url, "", "data", out); }},
        {"put", [&] { return client.HttpPut(url, "", "data", out); }},
        {"download", [&] { return client.DownloadFile(url, target, ""); }},
        {"upload", [&] { return client.HttpPostFile(url, "", "", secret, out); }},
        {"probe", [&] { return client.TestNetSpeed(url, 1); }},
        {"ftp",
         [&] {
             return client.HttpGet("ftp://127.0.0.1:" + std::to_string(server.Port()) + "/", "", "", out);
         }},
    };
    for (const auto& road : roads) {
        SCOPED_TRACE(road.name);
        EXPECT_EQ(road.run(), 0);
        EXPECT_EQ(client.GetResultCode(), CURLE_UNSUPPORTED_PROTOCOL);
        EXPECT_EQ(client.GetStatusCode(), 0);
        EXPECT_NE(client.GetErrorText().find("Unsupported protocol"), std::string::npos)
            << client.GetErrorText();
        EXPECT_EQ(out.find("local secret"), std::string::npos);
        EXPECT_EQ(client.GetTotalSize(), 0u);
    }
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_EQ(requests, 0);

    // A caller who needs file:// says so; http stays allowed only when named.
    client.SetAllowedSchemes("http,file");
    EXPECT_EQ(client.HttpGet(url, "", "", out), 1);
    EXPECT_EQ(out, "local secret");
    EXPECT_EQ(client.HttpPostFile(server.Url("/upload"), "", "", secret, out), 1);
    EXPECT_EQ(requests, 1);
    client.SetAllowedSchemes("file");
    EXPECT_EQ(client.HttpPostFile(server.Url("/upload"), "", "", secret, out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_UNSUPPORTED_PROTOCOL);
    // An empty list goes back to http and https.
    client.SetAllowedSchemes("");
    EXPECT_EQ(client.HttpGet(url, "", "", out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_EQ(client.HttpPostFile(server.Url("/upload"), "", "", secret, out), 1);
    EXPECT_EQ(requests, 2);
}
