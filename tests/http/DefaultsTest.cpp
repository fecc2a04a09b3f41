// Transfers on objects whose limits nobody set: requests and uploads wait up to 30 s by default,
// downloads and probes up to their fixed 1000 s. A server that answers after 5 s proves more than
// a few seconds without a test that waits half a minute.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

TEST(HttpDefaults, UnsetLimitsOutlastAFiveSecondAnswer) {
    LoopbackServer server;
    auto slow = [&server](const httplib::Request&, httplib::Response& res) {
        server.Nap(5000);
        res.set_content("slow", "text/plain");
    };
    server.Http().Get("/slow", slow).Post("/slow", slow);
    ASSERT_TRUE(server.Start());
    TempDir dir;
    const std::string file = dir / "up.txt";
    std::ofstream(file) << "data";

    // Each on a fresh object and its own thread, so the four waits overlap.
    const std::string url = server.Url("/slow");
    const std::pair<const char*, std::function<int(CHttpClientCurl&)>> kinds[] = {
        {"request",
         [&](CHttpClientCurl& c) {
             std::string r;
             return c.HttpGet(url, "", "", r);
         }},
        {"upload",
         [&](CHttpClientCurl& c) {
             std::string r;
             return c.HttpPostFile(url, "", "", file, r);
         }},
        {"download", [&](CHttpClientCurl& c) { return c.DownloadFile(url, dir / "down.bin", ""); }},
        {"probe",
         [&](CHttpClientCurl& c) {
             c.TestNetSpeed(url, 60);
             return c.GetResultCode() == CURLE_OK ? 1 : 0;
         }},
    };
    CHttpClientCurl clients[std::size(kinds)];
    int results[std::size(kinds)] = {};
    std::vector<std::thread> threads;
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < std::size(kinds); ++i)
        threads.emplace_back([&, i] { results[i] = kinds[i].second(clients[i]); });
    for (auto& thread : threads)
        thread.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
    for (size_t i = 0; i < std::size(kinds); ++i) {
        SCOPED_TRACE(kinds[i].first);
        EXPECT_EQ(1, results[i]);
        EXPECT_EQ(CURLE_OK, clients[i].GetResultCode());
    }
}
