// GET, POST and PUT against a loopback server; failures, time limits, Stop, TLS, proxy and copies.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"
#include "Portable.h"
#include "TlsFixture.h"

#include <gtest/gtest.h>

#include <future>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Recorder;
using zoth_test::Seen;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

using Call = int (CHttpClientCurl::*)(std::string, std::string, std::string, std::string&);

} // namespace

TEST(HttpRequest, MethodsBodiesAndHeadersAsTheServerSawThem) {
    LoopbackServer server;
    Recorder echo(server);
    ASSERT_TRUE(server.Start());
    CHttpClientCurl client;
    client.SetCustomHeaders({"X-Token: abc 123", "X-Second: two"});
    // postData goes up to its first zero byte (no size is given); a GET sends none.
    const struct {
        Call call;
        std::string method, postData, sent;
    } cases[] = {
        {&CHttpClientCurl::HttpGet, "GET", "ignored body", ""},
        {&CHttpClientCurl::HttpPost, "POST", "a=1&b=2", "a=1&b=2"},
        {&CHttpClientCurl::HttpPut, "PUT", "put body", "put body"},
        {&CHttpClientCurl::HttpPost, "POST", std::string("abc\0def", 7), "abc"},
        {&CHttpClientCurl::HttpPut, "PUT", std::string("\0xyz", 4), ""},
        {&CHttpClientCurl::HttpPost, "POST", "", ""},
    };
    size_t total = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method + " " + c.sent);
        std::string response = "stale";
        ASSERT_EQ(1, (client.*c.call)(server.Url("/echo"), "", c.postData, response));
        EXPECT_EQ(CURLE_OK, client.GetResultCode());
        EXPECT_EQ(Recorder::Answer(c.method, c.sent), response); // whole, zero byte included
        const Seen seen = echo.Last();
        EXPECT_EQ(c.method, seen.method);
        EXPECT_EQ(c.sent, seen.body);
        EXPECT_EQ("abc 123", seen.Header("X-Token")); // headers stay in force
        EXPECT_EQ("two", seen.Header("X-Second"));
        EXPECT_EQ("", seen.Header("User-Agent")); // no agent of our own
        EXPECT_NE("", seen.Header("Accept-Encoding"));
        const std::string headers = client.GetResponseHeaders(); // this answer's alone
        EXPECT_EQ(0u, headers.find("HTTP/1.1 200"));
        EXPECT_EQ(std::string::npos, headers.find("HTTP/1.1", 1));
        total += response.size();
    }
    EXPECT_EQ(total, client.GetTotalSize()); // the byte count adds up over all requests

    // Clear keeps the headers; an empty vector removes them.
    std::string response;
    client.Clear();
    ASSERT_EQ(1, client.HttpGet(server.Url("/echo"), "", "", response));
    EXPECT_EQ("abc 123", echo.Last().Header("X-Token"));
    client.SetCustomHeaders({});
    ASSERT_EQ(1, client.HttpGet(server.Url("/echo"), "", "", response));
    EXPECT_EQ("", echo.Last().Header("X-Token"));

    // A method outside 1..3 makes libcurl's default request, without the body.
    ASSERT_EQ(1, client.ExecuteRequest(static_cast<ZOTH::EREQUEST_METHOD_tag>(7), server.Url("/echo"), "",
                                       "data", response));
    EXPECT_EQ("GET", echo.Last().method);
    EXPECT_EQ("", echo.Last().body);

    // Copies keep the headers but own no handle of the source (the sanitizers catch a shared one).
    client.SetCustomHeaders({"X-Copy: yes"});
    CHttpClientCurl copy(client), assigned;
    ASSERT_EQ(1, assigned.HttpGet(server.Url("/echo"), "", "", response));
    assigned = client;
    for (CHttpClientCurl* each : {&copy, &assigned, &client}) {
        ASSERT_EQ(1, each->HttpPut(server.Url("/echo"), "", "again", response));
        EXPECT_EQ("yes", echo.Last().Header("X-Copy"));
    }
}

// The library offers the list of encodings libcurl's own "" stands for, worked out once per process,
// on a new handle and on a kept one, and decodes what the server then compresses.
TEST(HttpRequest, OffersLibcurlsOwnEncodingsAndDecodesThem) {
    std::string big;
    for (int i = 0; big.size() < 100000; ++i)
        big += "line " + std::to_string(i) + " of a text that compresses well\n";
    LoopbackServer server;
    Recorder echo(server, big);
    ASSERT_TRUE(server.Start());

    CURL* raw = curl_easy_init();
    ASSERT_NE(nullptr, raw);
    const std::string url = server.Url("/echo");
    curl_easy_setopt(raw, CURLOPT_URL, url.c_str());
    curl_easy_setopt(raw, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(
        raw, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t count, void*) { return size * count; });
    ASSERT_EQ(CURLE_OK, curl_easy_perform(raw));
    curl_easy_cleanup(raw);
    const std::string offered = echo.Last().Header("Accept-Encoding");
    ASSERT_NE("", offered);

    CHttpClientCurl client;
    std::string response;
    for (int round = 0; round < 2; ++round) { // a new handle, then the kept one
        SCOPED_TRACE(round);
        ASSERT_EQ(1, client.HttpGet(url, "", "", response));
        EXPECT_EQ(offered, echo.Last().Header("Accept-Encoding"));
        ASSERT_EQ(1, client.HttpGet(server.Url("/big"), "", "", response));
        EXPECT_EQ(big, response); // decoded, whether or not the server compressed it
    }
}

TEST(HttpRequest, ErrorStatusesRedirectsAndFailures) {
    std::atomic<int> targetHits{0};
    LoopbackServer server;
    server.Http().Get(R"(/status/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.status = std::stoi(req.matches[1]);
        if (res.status / 100 == 3) res.set_header("Location", "/target");
        res.set_content("status " + req.matches[1].str(), "text/plain");
    });
    server.Http().Get("/target", [&](const httplib::Request&, httplib::Response&) { ++targetHits; });
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    std::string response;
    for (int status : {404, 500, 503, 301, 302}) {
        SCOPED_TRACE(status);
        EXPECT_EQ(1, client.HttpGet(server.Url("/status/" + std::to_string(status)), "", "", response));
        EXPECT_EQ("status " + std::to_string(status), response);
        EXPECT_EQ(CURLE_OK, client.GetResultCode());
    }
    EXPECT_EQ(0, targetHits.load()); // redirects are not followed

    // Nothing listening: libcurl's code, and the response emptied by the attempt.
    server.Stop();
    response = "before";
    EXPECT_EQ(0, client.HttpGet(server.Url("/status/200"), "", "", response));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ("", response);
    // An empty url changes neither the response nor the last code.
    response = "kept";
    EXPECT_EQ(0, client.HttpGet("", "", "", response));
    EXPECT_EQ(0, client.HttpPostFile("", "", "", "/nonexistent", response));
    EXPECT_EQ("kept", response);
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
}

TEST(HttpRequest, TimeLimitInWholeSeconds) {
    // Limit in ms, how long the server naps, and the result: under 1000 ms there is no limit.
    const struct {
        DWORD limit;
        int nap;
        int result;
    } cases[] = {{1999, 8000, 0}, {999, 1300, 1}};
    CHttpClientCurl client;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.limit);
        LoopbackServer server; // one per case: its destructor ends the handler left napping
        server.Http().Get("/slow", [&](const httplib::Request&, httplib::Response& res) {
            server.Nap(c.nap);
            res.set_content("late", "text/plain");
        });
        ASSERT_TRUE(server.Start());
        client.SetTimeOutMax(c.limit);
        std::string response = "x";
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.result, client.HttpGet(server.Url("/slow"), "", "", response));
        EXPECT_EQ(c.result ? CURLE_OK : CURLE_OPERATION_TIMEDOUT, client.GetResultCode());
        EXPECT_EQ(c.result ? "late" : "", response);
        EXPECT_LT(SecondsSince(start), 6.0); // the 8 s nap was cut by the 1 s limit
    }
}

TEST(HttpRequest, StopFromAnotherThreadEndsTheTransfer) {
    std::promise<void> streaming;
    std::atomic<bool> signalled{false};
    LoopbackServer server;
    server.Http().Get("/stream", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream", [&](size_t, httplib::DataSink& sink) {
            std::string chunk(1024, 'z');
            if (!sink.write(chunk.data(), chunk.size())) return false;
            if (!signalled.exchange(true)) streaming.set_value();
            return server.Nap(20);
        });
    });
    Recorder echo(server);
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    std::thread stopper([&] {
        streaming.get_future().wait();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        client.Stop();
    });
    std::string response;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, client.HttpGet(server.Url("/stream"), "", "", response));
    stopper.join();
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
    EXPECT_LT(SecondsSince(start), 15.0); // the stream goes on for minutes otherwise
    EXPECT_EQ(1, client.HttpGet(server.Url("/echo"), "", "", response)); // the next request clears the stop
}

TEST(HttpRequest, HttpsWithSelfSignedCertificateAndProxy) {
    CHttpClientCurl client;
    std::string response;
    if (zoth_test::kWindows) { // no TLS server in a Windows program: the Linux side's, when present
        const zoth_test::TlsFixture fixture;
        if (fixture.Present()) {
            ASSERT_EQ(1, client.HttpPost(fixture.Url("self_signed", "/echo"), "", "over tls", response))
                << client.GetResultCode();
            EXPECT_EQ("/echo:over tls", response);
        }
    } else {
        LoopbackServer tls(true);
        Recorder secure(tls);
        ASSERT_TRUE(tls.Start());
        ASSERT_EQ(1, client.HttpPost(tls.Url("/echo"), "", "over tls", response)) << client.GetResultCode();
        EXPECT_EQ(Recorder::Answer("POST", "over tls"), response);
    }

    LoopbackServer plain;
    Recorder echo(plain);
    ASSERT_TRUE(plain.Start());
    zoth_test::ForwardProxy proxy;
    ASSERT_EQ(1, client.HttpPost(plain.Url("/echo?via=proxy"), proxy.Address(), "through", response));
    EXPECT_EQ(Recorder::Answer("POST", "through"), response);
    EXPECT_EQ("through", echo.Last().body);
    EXPECT_EQ(std::vector<std::string>{"POST " + plain.Url("/echo?via=proxy") + " HTTP/1.1"},
              proxy.RequestLines());
    ASSERT_EQ(1, client.HttpPost(plain.Url("/echo"), "", "direct", response)); // no proxy argument
    EXPECT_EQ(1u, proxy.RequestLines().size());
}
