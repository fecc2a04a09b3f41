// GET, POST and PUT against a real loopback server: what the server saw, what came back, and how
// failures, time limits, stop requests, TLS, proxies and copies behave.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;

namespace {

struct Seen {
    std::string method, path, body;
    httplib::Headers headers;
    int count = 0;
    std::string Header(const char* name) const {
        return httplib::detail::get_header_value(headers, name, 0, "");
    }
};

// Serves /echo for every method and records the last request it saw (read it through Last()).
class Echo {
public:
    explicit Echo(LoopbackServer& server) {
        auto handler = [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_seen.method = req.method;
            m_seen.path = req.path;
            m_seen.body = req.body;
            m_seen.headers = req.headers;
            ++m_seen.count;
            res.set_content("echo:" + req.method + ":" + req.body, "text/plain");
        };
        server.Http().Get("/echo", handler);
        server.Http().Post("/echo", handler);
        server.Http().Put("/echo", handler);
    }
    // Taking the lock orders the last handler's writes before the fields go away.
    ~Echo() { std::lock_guard<std::mutex> lock(m_mutex); }
    Seen Last() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }

private:
    std::mutex m_mutex;
    Seen m_seen;
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST(HttpRequest, MethodsBodiesAndHeadersAsTheServerSawThem) {
    LoopbackServer server;
    Echo echo(server);
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    std::string response = "stale";
    client.SetCustomHeaders({"X-Token: abc 123", "X-Second: two"});
    ASSERT_EQ(1, client.HttpGet(server.Url("/echo"), "", "ignored body", response));
    EXPECT_EQ(CURLE_OK, client.GetResultCode());
    EXPECT_EQ("echo:GET:", response);
    EXPECT_EQ("GET", echo.Last().method);
    EXPECT_EQ("", echo.Last().body); // a GET carries no body
    EXPECT_EQ("abc 123", echo.Last().Header("X-Token"));
    EXPECT_EQ("two", echo.Last().Header("X-Second"));
    EXPECT_FALSE(echo.Last().headers.count("User-Agent")); // no agent of our own
    EXPECT_TRUE(echo.Last().headers.count("Accept-Encoding"));
    EXPECT_NE(std::string::npos, client.GetResponseHeaders().find("HTTP/1.1 200"));

    // Headers stay in force for the next requests; the answer is this request's alone.
    ASSERT_EQ(1, client.HttpPost(server.Url("/echo"), "", "a=1&b=2", response));
    EXPECT_EQ("echo:POST:a=1&b=2", response);
    EXPECT_EQ("POST", echo.Last().method);
    EXPECT_EQ("a=1&b=2", echo.Last().body);
    EXPECT_EQ("abc 123", echo.Last().Header("X-Token"));
    EXPECT_EQ(1u, [&] {
        std::string h = client.GetResponseHeaders();
        size_t n = 0;
        for (size_t p = h.find("HTTP/1.1"); p != std::string::npos; p = h.find("HTTP/1.1", p + 1))
            ++n;
        return n;
    }());

    ASSERT_EQ(1, client.HttpPut(server.Url("/echo"), "", "put body", response));
    EXPECT_EQ("PUT", echo.Last().method);
    EXPECT_EQ("put body", echo.Last().body);
    EXPECT_EQ("echo:PUT:put body", response);

    // An empty vector removes the headers; Clear does not.
    client.Clear();
    ASSERT_EQ(1, client.HttpGet(server.Url("/echo"), "", "", response));
    EXPECT_TRUE(echo.Last().headers.count("X-Token"));
    client.SetCustomHeaders({});
    ASSERT_EQ(1, client.HttpGet(server.Url("/echo"), "", "", response));
    EXPECT_FALSE(echo.Last().headers.count("X-Token"));

    // A method outside 1..3 makes libcurl's default request, without the body.
    ASSERT_EQ(1, client.ExecuteRequest(static_cast<ZOTH::EREQUEST_METHOD_tag>(7), server.Url("/echo"), "",
                                       "data", response));
    EXPECT_EQ("GET", echo.Last().method);
    EXPECT_EQ("", echo.Last().body);

    // Requests alone never touch the probe's ticks; the byte count adds up over all of them.
    EXPECT_EQ(0u, client.GetStartTime());
    EXPECT_EQ(0u, client.GetEndTime());
    EXPECT_EQ(std::string("echo:GET:").size() * 4 + std::string("echo:POST:a=1&b=2").size() +
                  std::string("echo:PUT:put body").size(),
              client.GetTotalSize());
}

TEST(HttpRequest, BodiesWithZeroBytesAndEmptyBodies) {
    const std::string binary("a\0b\0\xff", 5); // before the server, which reads it until it stops
    LoopbackServer server;
    Echo echo(server);
    server.Http().Get("/binary", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(binary, "application/octet-stream");
    });
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    std::string response;
    // postData goes only up to its first zero byte, since no size is given.
    ASSERT_EQ(1, client.HttpPost(server.Url("/echo"), "", std::string("abc\0def", 7), response));
    EXPECT_EQ("abc", echo.Last().body);
    EXPECT_EQ("3", echo.Last().Header("Content-Length"));
    ASSERT_EQ(1, client.HttpPut(server.Url("/echo"), "", std::string("\0xyz", 4), response));
    EXPECT_EQ("", echo.Last().body);

    ASSERT_EQ(1, client.HttpPost(server.Url("/echo"), "", "", response));
    EXPECT_EQ("POST", echo.Last().method);
    EXPECT_EQ("", echo.Last().body);
    EXPECT_EQ("0", echo.Last().Header("Content-Length"));
    ASSERT_EQ(1, client.HttpPut(server.Url("/echo"), "", "", response));
    EXPECT_EQ("PUT", echo.Last().method);

    // A response with zero bytes arrives whole.
    ASSERT_EQ(1, client.HttpGet(server.Url("/binary"), "", "", response));
    EXPECT_EQ(binary, response);
}

TEST(HttpRequest, ErrorStatusesAndRedirectsAreAnswers) {
    std::atomic<int> targetHits{0};
    LoopbackServer server;
    server.Http().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("no such page", "text/plain");
    });
    server.Http().Post("/broken", [](const httplib::Request&, httplib::Response& res) {
        res.status = 500;
        res.set_content("server fault", "text/plain");
    });
    server.Http().Get("/moved", [](const httplib::Request&, httplib::Response& res) {
        res.set_redirect("/target", 302);
        res.set_content("see /target", "text/plain");
    });
    server.Http().Get("/target", [&](const httplib::Request&, httplib::Response& res) {
        ++targetHits;
        res.set_content("target", "text/plain");
    });
    ASSERT_TRUE(server.Start());

    CHttpClientCurl client;
    std::string response;
    EXPECT_EQ(1, client.HttpGet(server.Url("/missing"), "", "", response));
    EXPECT_EQ("no such page", response);
    EXPECT_EQ(CURLE_OK, client.GetResultCode());
    EXPECT_EQ(1, client.HttpPost(server.Url("/broken"), "", "x", response));
    EXPECT_EQ("server fault", response);
    EXPECT_EQ(1, client.HttpGet(server.Url("/moved"), "", "", response));
    EXPECT_EQ("see /target", response);
    EXPECT_NE(std::string::npos, client.GetResponseHeaders().find("302"));
    EXPECT_EQ(0, targetHits.load());
}

TEST(HttpRequest, FailuresKeepOrSetTheRightState) {
    // A port that nothing listens on: bind one, then close it.
    int freePort;
    {
        LoopbackServer probe;
        ASSERT_TRUE(probe.Start());
        freePort = probe.Port();
    }
    CHttpClientCurl client;
    std::string response = "before";
    EXPECT_EQ(0, client.HttpGet("http://127.0.0.1:" + std::to_string(freePort) + "/", "", "", response));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ("", response); // emptied by the attempt

    // An empty url changes neither the response nor the last code.
    response = "kept";
    EXPECT_EQ(0, client.HttpGet("", "", "", response));
    EXPECT_EQ("kept", response);
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ(0, client.HttpPostFile("", "", "", "/nonexistent", response));
    EXPECT_EQ("kept", response);
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());

    // A scheme libcurl does not know ends the request at perform.
    EXPECT_EQ(0, client.HttpGet("nosuchscheme://127.0.0.1/", "", "", response));
    EXPECT_EQ(CURLE_UNSUPPORTED_PROTOCOL, client.GetResultCode());
}

TEST(HttpRequest, TimeLimitInWholeSeconds) {
    // One server per part, so that the handler left napping by the timed-out request is ended
    // before the next request comes.
    auto slowServer = [](LoopbackServer& server) {
        server.Http().Get("/slow", [&server](const httplib::Request& req, httplib::Response& res) {
            server.Nap(std::stoi(req.get_param_value("ms")));
            res.set_content("late", "text/plain");
        });
        return server.Start();
    };
    CHttpClientCurl client;
    std::string response = "x";
    {
        LoopbackServer server;
        ASSERT_TRUE(slowServer(server));
        client.SetTimeOutMax(1999); // one whole second
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, client.HttpGet(server.Url("/slow?ms=8000"), "", "", response));
        EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, client.GetResultCode());
        EXPECT_EQ("", response);
        EXPECT_LT(SecondsSince(start), 6.0); // ended by the limit, not by the server
    }

    // Below one second there is no limit on the transfer at all.
    LoopbackServer server;
    ASSERT_TRUE(slowServer(server));
    client.SetTimeOutMax(999);
    EXPECT_EQ(1, client.HttpGet(server.Url("/slow?ms=1300"), "", "", response));
    EXPECT_EQ("late", response);
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
            return server.Nap(20); // 20 s at most in all, far beyond the test's bound
        });
    });
    server.Http().Get("/small", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("fine", "text/plain");
    });
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
    EXPECT_LT(SecondsSince(start), 15.0);

    // The next request clears the stop flag by itself.
    EXPECT_EQ(1, client.HttpGet(server.Url("/small"), "", "", response));
    EXPECT_EQ("fine", response);
}

TEST(HttpRequest, HttpsWithSelfSignedCertificateAndProxy) {
    LoopbackServer tls(true);
    tls.Http().Get("/secure", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("over tls", "text/plain");
    });
    ASSERT_TRUE(tls.Start());
    CHttpClientCurl client;
    std::string response;
    ASSERT_EQ(1, client.HttpGet(tls.Url("/secure"), "", "", response)) << client.GetResultCode();
    EXPECT_EQ("over tls", response);

    LoopbackServer plain;
    Echo echo(plain);
    ASSERT_TRUE(plain.Start());
    zoth_test::ForwardProxy proxy;
    ASSERT_EQ(1, client.HttpPost(plain.Url("/echo?via=proxy"), proxy.Address(), "through", response));
    EXPECT_EQ("echo:POST:through", response);
    EXPECT_EQ("through", echo.Last().body);
    ASSERT_EQ(1u, proxy.RequestLines().size());
    EXPECT_EQ("POST " + plain.Url("/echo?via=proxy") + " HTTP/1.1", proxy.RequestLines()[0]);

    // Without a proxy argument the request goes straight to the server.
    ASSERT_EQ(1, client.HttpGet(plain.Url("/echo"), "", "", response));
    EXPECT_EQ(1u, proxy.RequestLines().size());
}

TEST(HttpRequest, CopiesStartWithoutHandlesAndKeepSettings) {
    LoopbackServer server;
    Echo echo(server);
    ASSERT_TRUE(server.Start());

    CHttpClientCurl original;
    std::string response;
    original.SetCustomHeaders({"X-Copy: yes"});
    ASSERT_EQ(1, original.HttpGet(server.Url("/echo"), "", "", response));

    CHttpClientCurl copy(original); // both own what they hold: sanitizers catch a shared handle
    EXPECT_EQ(original.GetTotalSize(), copy.GetTotalSize());
    EXPECT_EQ(original.GetResponseHeaders(), copy.GetResponseHeaders());
    CHttpClientCurl assigned;
    ASSERT_EQ(1, assigned.HttpGet(server.Url("/echo"), "", "", response));
    assigned = original;
    assigned = *&assigned;
    EXPECT_EQ(original.GetResponseHeaders(), assigned.GetResponseHeaders());

    ASSERT_EQ(1, copy.HttpPut(server.Url("/echo"), "", "from copy", response));
    EXPECT_EQ("yes", echo.Last().Header("X-Copy"));
    ASSERT_EQ(1, assigned.HttpGet(server.Url("/echo"), "", "", response));
    EXPECT_EQ("yes", echo.Last().Header("X-Copy"));
    ASSERT_EQ(1, original.HttpGet(server.Url("/echo"), "", "", response));
    EXPECT_EQ(5, echo.Last().count);
}
