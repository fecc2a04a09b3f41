// The WinINet calls of the platform layer, and the class's WinINet road on port 80.
#include "zoth/http/CHttpClientCurl.h"
#include "zoth/platform/Win32Inet.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <chrono>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;

namespace {

struct Seen {
    std::string method, target, body, agent, accept, contentType;
    bool hasContentType = false;
    int count = 0;
};

// Records every request in `seen` and answers by path: /big gives `big`, /missing a 404 page,
// /nothing an empty body, anything else "ok".
void AddRoutes(LoopbackServer& server, std::mutex& mutex, Seen& seen, const std::string& big) {
    auto handler = [&](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.method = req.method;
        seen.target = req.target;
        seen.body = req.body;
        seen.agent = req.get_header_value("User-Agent");
        seen.accept = req.get_header_value("Accept");
        seen.hasContentType = req.has_header("Content-Type");
        ++seen.count;
        if (req.path == "/big") {
            res.set_content(big, "text/plain");
        } else if (req.path == "/missing") {
            res.status = 404;
            res.set_content("missing page", "text/plain");
        } else if (req.path == "/nothing") {
            res.set_content("", "text/plain");
        } else {
            res.set_content("ok", "text/plain");
        }
    };
    server.Http().Get(".*", handler);
    server.Http().Post(".*", handler);
}

std::string Pattern(size_t size) {
    std::string text;
    for (size_t i = 0; text.size() < size; ++i)
        text += std::to_string(i) + ",";
    text.resize(size);
    return text;
}

// Port 80 may be held for a moment by a parallel test; wait a while before giving up.
bool StartOnPort80(LoopbackServer& server) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!server.Start(80)) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

} // namespace

TEST(PlatformInet, CallsAgainstALoopbackServer) {
    std::mutex mutex;
    Seen seen;
    const std::string big = Pattern(5000);
    LoopbackServer server;
    AddRoutes(server, mutex, seen, big);
    ASSERT_TRUE(server.Start());

    HINTERNET internet = InternetOpenA("AgentX/1.0", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    ASSERT_NE(nullptr, internet);
    HINTERNET connect = InternetConnectA(internet, "127.0.0.1", static_cast<INTERNET_PORT>(server.Port()),
                                         nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
    ASSERT_NE(nullptr, connect);
    LPCSTR accept[] = {"text/plain", "*/*", nullptr};
    HINTERNET request = HttpOpenRequestA(connect, "GET", "/big?x=1", nullptr, nullptr, accept,
                                         INTERNET_FLAG_NO_CACHE_WRITE, 1);
    ASSERT_NE(nullptr, request);

    char buffer[300];
    DWORD read = 99;
    EXPECT_FALSE(InternetReadFile(request, buffer, sizeof(buffer), &read)); // nothing sent yet
    ASSERT_TRUE(HttpSendRequestA(request, "X-Extra: 1\r\n", static_cast<DWORD>(-1), nullptr, 0));
    std::string body;
    int pieces = 0;
    while (InternetReadFile(request, buffer, sizeof(buffer), &read) && read > 0) {
        EXPECT_LE(read, sizeof(buffer));
        body.append(buffer, read);
        ++pieces;
    }
    EXPECT_EQ(0u, read);
    EXPECT_EQ(big, body);
    EXPECT_EQ(17, pieces); // 16 full pieces of 300 and one of 200
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("GET", seen.method);
        EXPECT_EQ("/big?x=1", seen.target);
        EXPECT_EQ("AgentX/1.0", seen.agent);
        EXPECT_EQ("text/plain, */*", seen.accept);
    }
    EXPECT_TRUE(InternetCloseHandle(request));

    // A POST body goes by its length, zero bytes included, with no content type of our own.
    request = HttpOpenRequestA(connect, "POST", "/post", nullptr, nullptr, nullptr, 0, 1);
    ASSERT_NE(nullptr, request);
    std::string data("a\0b", 3);
    ASSERT_TRUE(HttpSendRequestA(request, nullptr, 0, data.data(), static_cast<DWORD>(data.size())));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("POST", seen.method);
        EXPECT_EQ(data, seen.body);
        EXPECT_FALSE(seen.hasContentType);
        EXPECT_EQ("", seen.accept);
    }
    EXPECT_TRUE(InternetCloseHandle(request));
    EXPECT_TRUE(InternetCloseHandle(connect));
    EXPECT_TRUE(InternetCloseHandle(internet));

    // Bad handles and arguments are refused, not crashed on.
    EXPECT_FALSE(InternetCloseHandle(nullptr));
    EXPECT_EQ(nullptr,
              InternetConnectA(nullptr, "127.0.0.1", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0));
    EXPECT_EQ(nullptr, HttpOpenRequestA(nullptr, "GET", "/", nullptr, nullptr, nullptr, 0, 0));
    EXPECT_FALSE(HttpSendRequestA(nullptr, nullptr, 0, nullptr, 0));
    EXPECT_FALSE(InternetReadFile(nullptr, buffer, sizeof(buffer), &read));
    EXPECT_EQ(nullptr, InternetOpenA("a", 3 /* through a proxy */, "proxy:8080", nullptr, 0));

    // Nothing listening: the send fails with a WinINet error.
    const int port = server.Port();
    server.Stop();
    internet = InternetOpenA("AgentX/1.0", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    connect = InternetConnectA(internet, "127.0.0.1", static_cast<INTERNET_PORT>(port), nullptr, nullptr,
                               INTERNET_SERVICE_HTTP, 0, 0);
    request = HttpOpenRequestA(connect, "GET", "/", nullptr, nullptr, nullptr, 0, 1);
    ASSERT_NE(nullptr, request);
    EXPECT_FALSE(HttpSendRequestA(request, nullptr, 0, nullptr, 0));
    EXPECT_EQ(ERROR_INTERNET_CANNOT_CONNECT, GetLastError());
    InternetCloseHandle(request);
    InternetCloseHandle(connect);
    InternetCloseHandle(internet);
}

TEST(HttpWininet, GetAndPostOnPort80) {
    std::mutex mutex;
    Seen seen;
    const std::string big = Pattern(4096 + 1000);
    LoopbackServer server;
    AddRoutes(server, mutex, seen, big);
    if (!StartOnPort80(server))
        GTEST_SKIP() << "port 80 on 127.0.0.1 cannot be bound here (not root, or taken)";

    CHttpClientCurl client; // fresh: no InitCurl needed
    std::string response = "previous";
    ASSERT_EQ(1, client.WininetHttpGet("127.0.0.1", "/big", response));
    EXPECT_EQ(big, response); // more than 1024 bytes, whole and in order
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("GET", seen.method);
        EXPECT_EQ("Testing", seen.agent);
        EXPECT_EQ("*/*", seen.accept);
    }

    EXPECT_EQ(1, client.WininetHttpGet("127.0.0.1", "/missing", response));
    EXPECT_EQ("missing page", response);

    response = "as passed";
    EXPECT_EQ(1, client.WininetHttpGet("127.0.0.1", "/nothing", response));
    EXPECT_EQ("as passed", response);

    const std::string data("k=v\0tail", 8);
    ASSERT_EQ(1, client.WininetHttpPost("127.0.0.1", "/submit?q=1", data, response));
    EXPECT_EQ("ok", response);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("POST", seen.method);
        EXPECT_EQ("/submit?q=1", seen.target);
        EXPECT_EQ(data, seen.body);
        EXPECT_FALSE(seen.hasContentType);
        EXPECT_EQ("Accept: */*", seen.accept); // the list entry as given
    }
    ASSERT_EQ(1, client.WininetHttpPost("127.0.0.1", "/submit", "", response));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("POST", seen.method);
        EXPECT_EQ("", seen.body);
    }

    // The one-argument lookup, pointed at loopback.
    const std::string saved = ZOTH::g_strLookupHost;
    ZOTH::g_strLookupHost = "127.0.0.1";
    EXPECT_EQ(1, client.WininetHttpGet(response));
    ZOTH::g_strLookupHost = saved;
    EXPECT_EQ("ok", response);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ("/cityjson?ie=utf-8", seen.target);
        EXPECT_EQ("Testing", seen.agent);
    }

    // The road uses no field of the object.
    EXPECT_EQ(CURLE_OK, client.GetResultCode());
    EXPECT_EQ(0u, client.GetTotalSize());

    // No server on the host: nothing was sent, result 0, response unchanged.
    server.Stop();
    response = "unchanged";
    EXPECT_EQ(0, client.WininetHttpGet("127.0.0.1", "/big", response));
    EXPECT_EQ("unchanged", response);
    EXPECT_EQ(0, client.WininetHttpPost("127.0.0.1", "/x", "d", response));
}
