// The WinINet calls of the platform layer, and the class's WinINet road on port 80.
#include "zoth/http/CHttpClientCurl.h"
#include "zoth/platform/Win32Inet.h"

#include "Portable.h"

#if defined(_WIN32)
#include "WinsockHttpServer.h" // cpp-httplib is not built for mingw: a Winsock server of the same face
#else
#include "LoopbackServer.h"
#endif

#include <gtest/gtest.h>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Payload;
using zoth_test::Recorder;

TEST(PlatformInet, CallsAgainstALoopbackServer) {
    const std::string big = Payload(5000);
    LoopbackServer server;
    Recorder recorder(server, big);
    ASSERT_TRUE(server.Start());

    HINTERNET internet = InternetOpenA("AgentX/1.0", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    HINTERNET connect = InternetConnectA(internet, "127.0.0.1", static_cast<INTERNET_PORT>(server.Port()),
                                         nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
    LPCSTR accept[] = {"text/plain", "*/*", nullptr};
    HINTERNET request = HttpOpenRequestA(connect, "GET", "/big?x=1", nullptr, nullptr, accept,
                                         INTERNET_FLAG_NO_CACHE_WRITE, 1);
    ASSERT_NE(nullptr, request);
    char buffer[300];
    DWORD read = 99;
    if (!zoth_test::kWindows) { // the layer refuses it; Windows' own WinINet is its own judge
        EXPECT_FALSE(InternetReadFile(request, buffer, sizeof(buffer), &read)); // nothing sent yet
    }
    ASSERT_TRUE(HttpSendRequestA(request, "X-Extra: 1\r\n", static_cast<DWORD>(-1), nullptr, 0));
    std::string body;
    int pieces = 0;
    for (; InternetReadFile(request, buffer, sizeof(buffer), &read) && read > 0; ++pieces)
        body.append(buffer, read);
    EXPECT_EQ(0u, read);
    EXPECT_EQ(big, body);
    EXPECT_EQ(17, pieces); // 16 full pieces of 300 and one of 200
    EXPECT_EQ("GET /big?x=1 [] AgentX/1.0 | text/plain, */*", recorder.Last().Summary());
    EXPECT_TRUE(InternetCloseHandle(request));

    // A POST body goes by its length, zero bytes included, with no content type of our own.
    request = HttpOpenRequestA(connect, "POST", "/post", nullptr, nullptr, nullptr, 0, 1);
    std::string data("a\0b", 3);
    ASSERT_TRUE(HttpSendRequestA(request, nullptr, 0, data.data(), static_cast<DWORD>(data.size())));
    EXPECT_EQ("POST /post [" + data + "] AgentX/1.0 | ", recorder.Last().Summary());
    EXPECT_TRUE(InternetCloseHandle(request));

    // Bad handles and arguments are refused, not crashed on.
    EXPECT_FALSE(InternetCloseHandle(nullptr));
    EXPECT_EQ(nullptr,
              InternetConnectA(nullptr, "127.0.0.1", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0));
    EXPECT_EQ(nullptr, HttpOpenRequestA(nullptr, "GET", "/", nullptr, nullptr, nullptr, 0, 0));
    EXPECT_FALSE(HttpSendRequestA(nullptr, nullptr, 0, nullptr, 0));
    EXPECT_FALSE(InternetReadFile(nullptr, buffer, sizeof(buffer), &read));
    if (!zoth_test::kWindows) { // the layer knows no proxy; Windows' WinINet does
        EXPECT_EQ(nullptr, InternetOpenA("a", 3 /* through a proxy */, "proxy:8080", nullptr, 0));
    }

    // Nothing listening: the send fails with a WinINet error.
    server.Stop();
    request = HttpOpenRequestA(connect, "GET", "/", nullptr, nullptr, nullptr, 0, 1);
    EXPECT_FALSE(HttpSendRequestA(request, nullptr, 0, nullptr, 0));
    EXPECT_EQ(ERROR_INTERNET_CANNOT_CONNECT, GetLastError());
    EXPECT_TRUE(InternetCloseHandle(request));
    EXPECT_TRUE(InternetCloseHandle(connect));
    EXPECT_TRUE(InternetCloseHandle(internet));
}

// A body cut short and odd object names through the layer's own road on Linux. On Windows the road is
// the system's WinINet, and the Winsock test server there cannot cut a body short.
#if !defined(_WIN32)
namespace {

// "/short" announces 3000 bytes, sends 1500 and closes; "/late" sends its head, then its body 1.5 s later.
void RouteCutAndLate(LoopbackServer& server) {
    server.Http().Get("/short", [](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(3000, "text/plain", [](size_t offset, size_t, httplib::DataSink& sink) {
            return offset == 0 && sink.write(std::string(1500, 's').data(), 1500);
        });
    });
    server.Http().Get("/late", [&server](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(4, "text/plain", [&server](size_t, size_t, httplib::DataSink& sink) {
            return server.Nap(1500) && sink.write("late", 4);
        });
    });
}

} // namespace

TEST(PlatformInet, CutShortBodiesAndOddObjectNames) {
    LoopbackServer server;
    RouteCutAndLate(server);
    server.Http().Get("/moved", [](const httplib::Request&, httplib::Response& res) {
        res.set_redirect("/moved-here", 302);
        res.set_content("the redirect's own page", "text/plain");
    });
    Recorder recorder(server);
    ASSERT_TRUE(server.Start());
    HINTERNET internet = InternetOpenA("Testing", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    HINTERNET connect = InternetConnectA(internet, "127.0.0.1", static_cast<INTERNET_PORT>(server.Port()),
                                         nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
    ASSERT_NE(nullptr, connect);
    char buffer[1024];
    DWORD read = 0;

    // The send succeeds on the head; the reads hand out the 1500 bytes that came, then fail.
    HINTERNET request = HttpOpenRequestA(connect, "GET", "/short", nullptr, nullptr, nullptr, 0, 1);
    ASSERT_TRUE(HttpSendRequestA(request, nullptr, 0, nullptr, 0)) << GetLastError();
    std::string body;
    BOOL ok = FALSE;
    while ((ok = InternetReadFile(request, buffer, sizeof(buffer), &read)) && read > 0)
        body.append(buffer, read);
    EXPECT_FALSE(ok);
    EXPECT_EQ(ERROR_INTERNET_CONNECTION_ABORTED, GetLastError());
    EXPECT_EQ(0u, read);
    EXPECT_EQ(std::string(1500, 's'), body);
    EXPECT_TRUE(InternetCloseHandle(request));

    // The send returns with the head, before the body has come.
    request = HttpOpenRequestA(connect, "GET", "/late", nullptr, nullptr, nullptr, 0, 1);
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(HttpSendRequestA(request, nullptr, 0, nullptr, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
    ASSERT_TRUE(InternetReadFile(request, buffer, sizeof(buffer), &read));
    EXPECT_EQ("late", std::string(buffer, read));
    EXPECT_TRUE(InternetCloseHandle(request)); // closed before the end was read

    // A redirect is followed: the head and body are those of where it leads.
    request = HttpOpenRequestA(connect, "GET", "/moved", nullptr, nullptr, nullptr, 0, 1);
    ASSERT_TRUE(HttpSendRequestA(request, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(InternetReadFile(request, buffer, sizeof(buffer), &read));
    EXPECT_EQ(Recorder::Answer("GET", ""), std::string(buffer, read));
    EXPECT_EQ("/moved-here", recorder.Last().target);
    EXPECT_TRUE(InternetCloseHandle(request));

    // Space, control bytes and bytes from 0x7F on go percent-encoded; escapes stay as they are.
    const std::pair<const char*, const char*> names[] = {
        {"/a b/c\x01"
         "d\x7f\xc3\xa9?q=x y#frag",
         "/a%20b/c%01d%7F%C3%A9?q=x%20y%23frag"},
        {"/already%20escaped%C3%A9?a=%2F", "/already%20escaped%C3%A9?a=%2F"},
        {"no-slash\t", "/no-slash%09"}};
    for (const auto& [name, target] : names) {
        SCOPED_TRACE(target);
        request = HttpOpenRequestA(connect, "GET", name, nullptr, nullptr, nullptr, 0, 1);
        ASSERT_TRUE(HttpSendRequestA(request, nullptr, 0, nullptr, 0)) << GetLastError();
        EXPECT_EQ(target, recorder.Last().target);
        EXPECT_TRUE(InternetCloseHandle(request));
    }
    EXPECT_TRUE(InternetCloseHandle(connect));
    EXPECT_TRUE(InternetCloseHandle(internet));
}
#endif // !_WIN32

TEST(HttpWininet, GetAndPostOnPort80) {
    const std::string big = Payload(4096 + 1000);
    LoopbackServer server;
#if !defined(_WIN32)
    RouteCutAndLate(server);
#endif
    Recorder recorder(server, big);
    // Port 80 may be held for a moment by a parallel test; wait a while before giving up.
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!server.Start(80)) {
        if (std::chrono::steady_clock::now() > until)
            GTEST_SKIP() << "port 80 on 127.0.0.1 cannot be bound here (not root, or taken)";
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    CHttpClientCurl client; // fresh: no InitCurl needed
    // Answers over 1024 bytes whole and in order; error statuses are answers; no byte, no change.
    const std::pair<const char*, std::string> gets[] = {
        {"/big", big}, {"/missing", "missing page"}, {"/nothing", "as passed"}};
    for (const auto& [path, answer] : gets) {
        SCOPED_TRACE(path);
        std::string response = "as passed";
        EXPECT_EQ(1, client.WininetHttpGet("127.0.0.1", path, response));
        EXPECT_EQ(answer, response);
        EXPECT_EQ("GET " + std::string(path) + " [] Testing | */*", recorder.Last().Summary());
    }
    std::string response = "as passed";
#if !defined(_WIN32)
    // A body cut short: 1 with what came. Odd object names go out percent-encoded.
    EXPECT_EQ(1, client.WininetHttpGet("127.0.0.1", "/short", response));
    EXPECT_EQ(std::string(1500, 's'), response);
    EXPECT_EQ(1, client.WininetHttpPost("127.0.0.1", "/caf\xe9 au lait", "", response));
    EXPECT_EQ("/caf%E9%20au%20lait", recorder.Last().target);
#endif
    const std::string data("k=v\0tail", 8);
    ASSERT_EQ(1, client.WininetHttpPost("127.0.0.1", "/submit?q=1", data, response));
    EXPECT_EQ(Recorder::Answer("POST", data), response);
    EXPECT_EQ("POST /submit?q=1 [" + data + "] Testing | Accept: */*", recorder.Last().Summary()); // as given
    ASSERT_EQ(1, client.WininetHttpPost("127.0.0.1", "/submit", "", response));
    EXPECT_EQ("", recorder.Last().body);

    // The one-argument lookup, pointed at loopback.
    const std::string saved = ZOTH::g_strLookupHost;
    ZOTH::g_strLookupHost = "127.0.0.1";
    EXPECT_EQ(1, client.WininetHttpGet(response));
    ZOTH::g_strLookupHost = saved;
    EXPECT_EQ(Recorder::Answer("GET", ""), response);
    EXPECT_EQ("GET /cityjson?ie=utf-8 [] Testing | */*", recorder.Last().Summary());
    EXPECT_EQ(0u, client.GetTotalSize()); // the road uses no field of the object

    // No server on the host: nothing was sent, result 0, response unchanged.
    server.Stop();
    response = "unchanged";
    EXPECT_EQ(0, client.WininetHttpGet("127.0.0.1", "/big", response));
    EXPECT_EQ(0, client.WininetHttpPost("127.0.0.1", "/x", "d", response));
    EXPECT_EQ("unchanged", response);
}
