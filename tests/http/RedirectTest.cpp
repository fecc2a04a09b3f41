// Redirects: unfollowed by default; followed on request by browser rules (method, body, origin
// credentials, no step down to http, allowed schemes, a hop limit) on every libcurl road.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

namespace {

// "/to?code=N&where=URL" redirects with status N to URL; "/loop" to itself; any other path answers
// "METHOD path [body] auth=... cookie=... other=..." as the request came.
void Route(LoopbackServer& server, std::atomic<int>& hits) {
    auto handler = [&hits](const httplib::Request& req, httplib::Response& res) {
        ++hits;
        if (req.path == "/to") {
            res.status = std::stoi(req.get_param_value("code"));
            res.set_header("Location", req.get_param_value("where"));
            res.set_content("redirect page", "text/plain");
            return;
        }
        if (req.path == "/loop") {
            res.status = 302;
            res.set_header("Location", "/loop");
            return;
        }
        std::string body = req.body;
        if (req.is_multipart_form_data()) body = "form:" + req.get_file_value("file").content;
        res.set_content(
            req.method + " " + req.path + " [" + body + "] auth=" + req.get_header_value("Authorization") +
                " cookie=" + req.get_header_value("Cookie") + " other=" + req.get_header_value("X-Other"),
            "text/plain");
    };
    server.Http().Get(".*", handler).Post(".*", handler).Put(".*", handler);
}

std::string Redirect(LoopbackServer& from, int code, const std::string& where) {
    std::string encoded;
    for (unsigned char c : where) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%%%02X", c);
        encoded += std::isalnum(c) ? std::string(1, static_cast<char>(c)) : std::string(hex);
    }
    return from.Url("/to?code=" + std::to_string(code) + "&where=" + encoded);
}

} // namespace

TEST(Redirect, FollowedByBrowserRulesOnRequest) {
    LoopbackServer server, other; // two origins: the same host on two ports
    std::atomic<int> hits{0}, otherHits{0};
    Route(server, hits);
    Route(other, otherHits);
    ASSERT_TRUE(server.Start());
    ASSERT_TRUE(other.Start());
    // Names in any case: still the same headers.
    const std::vector<std::string> headers = {"authorization: Bearer s3cret", "COOKIE: session=42",
                                              "X-Other: kept"};
    const std::string all = "auth=Bearer s3cret cookie=session=42 other=kept";
    const std::string stripped = "auth= cookie= other=kept";

    using Call = int (CHttpClientCurl::*)(std::string, std::string, std::string, std::string&);
    const struct {
        const char* name;
        Call call;
        int code;
        bool crossOrigin;
        std::string answer; // the final response's body
    } cases[] = {
        {"GET 302", &CHttpClientCurl::HttpGet, 302, false, "GET /end [] " + all},
        {"POST 301 becomes GET", &CHttpClientCurl::HttpPost, 301, false, "GET /end [] " + all},
        {"POST 302 becomes GET", &CHttpClientCurl::HttpPost, 302, false, "GET /end [] " + all},
        {"POST 303 becomes GET", &CHttpClientCurl::HttpPost, 303, false, "GET /end [] " + all},
        {"POST 307 kept", &CHttpClientCurl::HttpPost, 307, false, "POST /end [body] " + all},
        {"POST 308 kept", &CHttpClientCurl::HttpPost, 308, false, "POST /end [body] " + all},
        {"PUT 303 becomes GET", &CHttpClientCurl::HttpPut, 303, false, "GET /end [] " + all},
        {"PUT 301 kept", &CHttpClientCurl::HttpPut, 301, false, "PUT /end [body] " + all},
        {"PUT 307 kept", &CHttpClientCurl::HttpPut, 307, false, "PUT /end [body] " + all},
        {"GET 302 to another origin", &CHttpClientCurl::HttpGet, 302, true, "GET /end [] " + stripped},
        {"POST 307 to another origin", &CHttpClientCurl::HttpPost, 307, true, "POST /end [body] " + stripped},
        {"POST 303 to another origin", &CHttpClientCurl::HttpPost, 303, true, "GET /end [] " + stripped},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string where = (c.crossOrigin ? other : server).Url("/end");
        CHttpClientCurl client;
        client.SetCustomHeaders(headers);
        std::string out;
        // Unfollowed by default: the redirect is the answer.
        EXPECT_EQ((client.*c.call)(Redirect(server, c.code, where), "", "body", out), 1);
        EXPECT_EQ(client.GetStatusCode(), c.code);
        EXPECT_EQ(out, "redirect page");
        client.SetFollowRedirects(true);
        EXPECT_EQ((client.*c.call)(Redirect(server, c.code, where), "", "body", out), 1);
        EXPECT_EQ(client.GetStatusCode(), 200);
        EXPECT_EQ(out, c.answer);
        EXPECT_EQ(client.GetErrorText(), "");
        // The caller's headers come back for the next request to the first origin.
        EXPECT_EQ(client.HttpGet(server.Url("/again"), "", "", out), 1);
        EXPECT_EQ(out, "GET /again [] " + all);
    }

    // A chain that went to another origin does not get the credentials back when it returns.
    CHttpClientCurl client;
    client.SetCustomHeaders(headers);
    client.SetFollowRedirects(true);
    std::string out;
    const std::string back = Redirect(other, 302, server.Url("/end"));
    EXPECT_EQ(client.HttpGet(Redirect(server, 302, back), "", "", out), 1);
    EXPECT_EQ(out, "GET /end [] " + stripped);

    // The hop limit: three redirects followed, the fourth refused.
    client.SetFollowRedirects(true, 3);
    hits = 0;
    EXPECT_EQ(client.HttpGet(server.Url("/loop"), "", "", out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_TOO_MANY_REDIRECTS);
    EXPECT_EQ(hits, 4);
    EXPECT_NE(client.GetErrorText().find("more than 3"), std::string::npos) << client.GetErrorText();
    client.SetFollowRedirects(true, 0);
    EXPECT_EQ(client.HttpGet(Redirect(server, 302, server.Url("/end")), "", "", out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_TOO_MANY_REDIRECTS);

    // A redirect to a scheme not allowed is not followed, nor is one without a Location.
    client.SetFollowRedirects(true);
    EXPECT_EQ(client.HttpGet(Redirect(server, 302, "file:///etc/passwd"), "", "", out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_NE(client.GetErrorText().find("file:///etc/passwd"), std::string::npos) << client.GetErrorText();
    EXPECT_EQ(client.HttpGet(Redirect(server, 302, ""), "", "", out), 1);
    EXPECT_EQ(client.GetStatusCode(), 302);
}

TEST(Redirect, DownloadUploadAndProbeFollowToo) {
    LoopbackServer server;
    std::atomic<int> hits{0};
    const std::string payload = zoth_test::Payload(200 * 1024);
    server.Http().Get("/file", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(payload, "application/octet-stream");
    });
    Route(server, hits);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string target = dir / "file.bin", source = dir / "source.txt";
    std::ofstream(source, std::ios::binary) << "form body";

    CHttpClientCurl client;
    EXPECT_EQ(client.DownloadFile(Redirect(server, 302, server.Url("/file")), target, ""), 0);
    EXPECT_EQ(client.GetStatusCode(), 302);
    EXPECT_FALSE(std::filesystem::exists(target));
    client.SetFollowRedirects(true);
    EXPECT_EQ(
        client.DownloadFile(Redirect(server, 301, Redirect(server, 307, server.Url("/file"))), target, ""),
        1);
    std::ifstream in(target, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), payload);

    std::string out;
    EXPECT_EQ(client.HttpPostFile(Redirect(server, 307, server.Url("/end")), "", "", source, out), 1);
    EXPECT_EQ(out, "POST /end [form:form body] auth= cookie= other=");
    EXPECT_EQ(client.HttpPostFile(Redirect(server, 303, server.Url("/end")), "", "", source, out), 1);
    EXPECT_EQ(out, "GET /end [] auth= cookie= other=");

    client.TestNetSpeed(Redirect(server, 302, server.Url("/file")), 5);
    EXPECT_EQ(client.GetResultCode(), CURLE_OK);
    EXPECT_EQ(client.GetStatusCode(), 200);
    EXPECT_EQ(client.GetTotalSize(), payload.size());
}

TEST(Redirect, RefusedAlikeOnEveryRoad) {
    LoopbackServer server;
    std::atomic<int> hits{0};
    Route(server, hits);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string source = dir / "source.txt", target = dir / "target.bin";
    std::ofstream(source, std::ios::binary) << "form body";

    // Each road runs one operation on a URL and gives its result; `answered` is its result when the
    // redirect itself is the answer (a download saves only a 200; the probe always gives 0).
    using Run = std::function<int(CHttpClientCurl&, const std::string&)>;
    const struct {
        const char* name;
        Run run;
        int answered;
    } roads[] = {
        {"request",
         [](CHttpClientCurl& c, const std::string& url) {
             std::string out;
             return c.HttpGet(url, "", "", out);
         },
         1},
        {"download",
         [&](CHttpClientCurl& c, const std::string& url) { return c.DownloadFile(url, target, ""); }, 0},
        {"upload",
         [&](CHttpClientCurl& c, const std::string& url) {
             std::string out;
             return c.HttpPostFile(url, "", "", source, out);
         },
         1},
        {"probe", [](CHttpClientCurl& c, const std::string& url) { return c.TestNetSpeed(url, 5); }, 0},
    };
    const struct {
        const char* name;
        std::string url;
        int hits; // requests the server saw
        CURLcode code;
        const char* says; // in the error text of a refusal; null for none
    } cases[] = {
        {"two hops allowed, the third refused", server.Url("/loop"), 3, CURLE_TOO_MANY_REDIRECTS,
         "more than 2"},
        {"a scheme not allowed", Redirect(server, 302, "file:///etc/passwd"), 1, CURLE_UNSUPPORTED_PROTOCOL,
         "file:///etc/passwd"},
        {"no Location: the answer", Redirect(server, 302, ""), 1, CURLE_OK, nullptr},
    };
    for (const auto& road : roads) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(road.name) + ": " + c.name);
            CHttpClientCurl client;
            client.SetFollowRedirects(true, 2);
            hits = 0;
            EXPECT_EQ(road.run(client, c.url), c.code == CURLE_OK ? road.answered : 0);
            EXPECT_EQ(client.GetResultCode(), c.code);
            EXPECT_EQ(client.GetStatusCode(), 302); // the last response's
            EXPECT_EQ(hits, c.hits);
            if (c.says != nullptr) {
                EXPECT_NE(client.GetErrorText().find(c.says), std::string::npos) << client.GetErrorText();
            }
            EXPECT_FALSE(std::filesystem::exists(target));
        }
    }
}

#if !defined(_WIN32) // Windows test programs have no in-process TLS server (TlsFixture.h)
TEST(Redirect, NeverFromHttpsToHttp) {
    LoopbackServer tls(true), plain;
    std::atomic<int> tlsHits{0}, plainHits{0};
    Route(tls, tlsHits);
    Route(plain, plainHits);
    ASSERT_TRUE(tls.Start());
    ASSERT_TRUE(plain.Start());
    CHttpClientCurl client;
    client.SetFollowRedirects(true);
    std::string out;
    // Up is followed; down is refused before the http server is asked.
    EXPECT_EQ(client.HttpGet(Redirect(plain, 302, tls.Url("/end")), "", "", out), 1);
    EXPECT_EQ(out, "GET /end [] auth= cookie= other=");
    plainHits = 0;
    EXPECT_EQ(client.HttpGet(Redirect(tls, 302, plain.Url("/end")), "", "", out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_NE(client.GetErrorText().find("from https to http"), std::string::npos) << client.GetErrorText();
    EXPECT_EQ(plainHits, 0);
    // Also in the middle of a chain that began on http.
    EXPECT_EQ(client.HttpGet(Redirect(plain, 302, Redirect(tls, 302, plain.Url("/end"))), "", "", out), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_EQ(plainHits, 1);
}
#endif
