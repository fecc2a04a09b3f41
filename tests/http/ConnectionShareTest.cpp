// Connection reuse through the process-wide share: every kind of transfer, the per-object switch,
// TLS sessions, and many threads at once. The server counts the connections it accepted.
#include "zoth/http/CHttpClientCurl.h"

#include "CountingServer.h"
#include "Portable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

using ZOTH::CHttpClientCurl;
using zoth_test::CertFiles;
using zoth_test::CountingServer;
using zoth_test::MakeCertificate;
using zoth_test::TempDir;

namespace {

// One transfer of each kind on `client`, each checked; the number of requests made.
int EveryKindOfTransfer(CHttpClientCurl& client, CountingServer& server, const TempDir& dir) {
    std::string response;
    EXPECT_EQ(1, client.HttpGet(server.Url("/get"), "", "", response)) << client.GetResultCode();
    EXPECT_EQ("/get:", response);
    EXPECT_EQ(1, client.HttpPost(server.Url("/post"), "", "posted", response)) << client.GetResultCode();
    EXPECT_EQ("/post:posted", response);
    EXPECT_EQ(1, client.DownloadFile(server.Url("/file"), dir / "file", "")) << client.GetResultCode();
    const std::string upload = dir / "upload.txt";
    std::ofstream(upload) << "uploaded";
    EXPECT_EQ(1, client.HttpPostFile(server.Url("/upload"), "", "", upload, response))
        << client.GetResultCode();
    EXPECT_EQ("/upload:uploaded", response);
    client.TestNetSpeed(server.Url("/probe"), 30); // a short body ends the probe before its limit
    EXPECT_EQ(CURLE_OK, client.GetResultCode());
    return 5;
}

// The schemes of the in-process servers: a Windows test program has plain HTTP only (its TLS is
// tested against Linux-side servers, TlsVerifyRemoteTest.cpp).
std::vector<bool> TlsModes() {
    return zoth_test::kWindows ? std::vector<bool>{false} : std::vector<bool>{false, true};
}

CertFiles ServerCertificate(const TempDir& dir) {
    return zoth_test::kWindows ? CertFiles{} : MakeCertificate(dir, "server", "127.0.0.1", "loopback");
}

} // namespace

TEST(ConnectionShare, FreshObjectsShareConnectionsUnlessSwitchedOff) {
    TempDir dir;
    const CertFiles cert = ServerCertificate(dir);
    for (bool tls : TlsModes()) {
        SCOPED_TRACE(tls ? "https" : "http");
        CountingServer server(tls ? &cert : nullptr);

        // Fresh objects, every kind of transfer: one connection, one TLS handshake.
        int requests = 0;
        for (int i = 0; i < 3; ++i) {
            CHttpClientCurl client;
            requests += EveryKindOfTransfer(client, server, dir);
        }
        EXPECT_EQ(requests, server.Requests());
        EXPECT_EQ(1u, server.Connections());

        // Switched off, each transfer connects anew; the switch is copied with the object.
        CHttpClientCurl alone;
        alone.SetConnectionReuse(false);
        CHttpClientCurl copy(alone), assigned;
        assigned = alone;
        for (CHttpClientCurl* each : {&alone, &copy, &assigned})
            requests += EveryKindOfTransfer(*each, server, dir);
        EXPECT_EQ(requests, server.Requests());
        EXPECT_EQ(1u + 15u, server.Connections());

        // Switched on again, the object is back on the pooled connection.
        alone.SetConnectionReuse(true);
        std::string response;
        EXPECT_EQ(1, alone.HttpGet(server.Url("/again"), "", "", response));
        EXPECT_EQ(16u, server.Connections());
        if (tls) {
            EXPECT_EQ(0, server.Resumed()); // no connection was closed under a transfer, none resumed
        }
    }
}

TEST(ConnectionShare, TlsSessionsAreResumedOnNewConnections) {
    if (zoth_test::kWindows) GTEST_SKIP() << "Linux only: counts resumptions in an in-process OpenSSL server";
    TempDir dir;
    const CertFiles cert = MakeCertificate(dir, "server", "127.0.0.1", "loopback");
    CountingServer server(&cert);
    std::string response;
    // The server closes every connection, so only the session cache can spare a full handshake.
    for (int i = 0; i < 4; ++i) {
        CHttpClientCurl client;
        ASSERT_EQ(1, client.HttpGet(server.Url("/close/" + std::to_string(i)), "", "", response))
            << client.GetResultCode();
        EXPECT_EQ("/close/" + std::to_string(i) + ":", response);
    }
    EXPECT_EQ(4u, server.Connections());
    EXPECT_EQ(3, server.Resumed());

    CHttpClientCurl alone; // its own session cache, which a new handle empties
    alone.SetConnectionReuse(false);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(1, alone.HttpGet(server.Url("/close/alone"), "", "", response));
    EXPECT_EQ(7u, server.Connections());
    EXPECT_EQ(3, server.Resumed());
}

TEST(ConnectionShare, ManyThreadsThroughOneShare) {
    // Threads start together, so the first use of the share may race too. Each checks that every
    // answer is its own: a connection handed to two transfers at once would mix them up.
    constexpr int kThreads = 8;
    TempDir dir;
    const CertFiles cert = ServerCertificate(dir);
    for (bool tls : TlsModes()) {
        SCOPED_TRACE(tls ? "https" : "http");
        const int perThread = tls ? 150 : 400;
        CountingServer server(tls ? &cert : nullptr);
        std::atomic<int> ready{0}, wrong{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                ++ready;
                while (ready.load() < kThreads)
                    std::this_thread::yield();
                for (int i = 0; i < perThread; ++i) {
                    CHttpClientCurl client;
                    const std::string body = std::to_string(t) + "-" + std::to_string(i);
                    std::string response;
                    if (client.HttpPost(server.Url("/t"), "", body, response) != 1 ||
                        response != "/t:" + body)
                        ++wrong;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(0, wrong.load());
        EXPECT_EQ(kThreads * perThread, server.Requests());
        // Without reuse every request would have had a connection of its own.
        EXPECT_LT(server.Connections(), static_cast<size_t>(kThreads * perThread / 4));
    }
}
