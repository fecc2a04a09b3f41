// The body's buffer grows with what arrives: an announced length that never comes leaves no large
// reservation in the object, and bodies of every size still arrive whole.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Payload;

namespace {

// The process's address space in KiB: a reserved but untouched buffer shows here, not in its RSS.
long long VmSizeKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmSize:", 0) == 0) return std::stoll(line.substr(7));
    return -1;
}

} // namespace

TEST(HttpBody, SizedFromWhatArrivesNotFromTheAnnouncedLength) {
    const std::string big = Payload(9 * 1024 * 1024 + 123);
    LoopbackServer server;
    // "/liar/N" announces 10^12 bytes, sends N and closes.
    server.Http().Get(R"(/liar/(\d+))", [&](const httplib::Request& req, httplib::Response& res) {
        const size_t sent = std::stoul(req.matches[1]);
        res.set_content_provider(1000000000000ull, "application/octet-stream",
                                 [&big, sent](size_t offset, size_t, httplib::DataSink& sink) {
                                     if (offset >= sent) return false; // cut short
                                     const size_t piece = std::min<size_t>(64 * 1024, sent - offset);
                                     return sink.write(big.data() + offset, piece);
                                 });
    });
    server.Http().Get("/honest", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(big, "application/octet-stream");
    });
    server.Http().Get("/chunked", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider(
            "application/octet-stream", [&](size_t offset, httplib::DataSink& sink) {
                if (offset >= big.size()) return sink.done(), true;
                return sink.write(big.data() + offset, std::min<size_t>(100 * 1000, big.size() - offset));
            });
    });
    ASSERT_TRUE(server.Start());

    // Bodies of every size arrive whole, announced or not, on one object.
    CHttpClientCurl client;
    std::string response;
    for (const char* path : {"/honest", "/chunked", "/honest"}) {
        SCOPED_TRACE(path);
        ASSERT_EQ(1, client.HttpGet(server.Url(path), "", "", response));
        EXPECT_EQ(big, response);
    }

    for (const int sent : {10, 6 * 1024 * 1024}) {
        SCOPED_TRACE(sent);
        CHttpClientCurl liarClient;
        ASSERT_EQ(1, liarClient.HttpGet(server.Url("/honest"), "", "", response)); // libcurl and threads warm
        const long long before = VmSizeKiB();
        EXPECT_EQ(0, liarClient.HttpGet(server.Url("/liar/" + std::to_string(sent)), "", "", response));
        EXPECT_EQ(CURLE_PARTIAL_FILE, liarClient.GetResultCode());
        EXPECT_EQ(static_cast<DWORD>(9 * 1024 * 1024 + 123 + sent), liarClient.GetTotalSize());
        // The object lives on with what came; a reservation for the announced length (capped at
        // 1 GiB or not) would show as a gigabyte more address space.
        const long long grown = VmSizeKiB() - before;
        EXPECT_LT(grown, 512 * 1024) << "KiB of address space kept after a cut-short body";
    }
}
