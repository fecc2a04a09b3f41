// Connection reuse through the process-wide share: every kind of transfer, the per-object switch,
// TLS sessions, and many threads at once. The server counts the connections it accepted.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

namespace {

// A loopback server that tells how many connections and TLS resumptions it saw. A connection is
// known by its client port: a port is not handed out again while its closed connection lingers.
// Every GET or POST answers "path:body"; a path that starts with /close ends its connection.
class CountingServer {
public:
    explicit CountingServer(bool tls) : m_server(tls) {
        httplib::Server& http = m_server.Http();
        http.set_keep_alive_max_count(1000000); // the default ends a connection after 5 requests
        http.set_keep_alive_timeout(5);         // a slow moment of a loaded machine must not end one
        http.set_tcp_nodelay(true);
        http.new_task_queue = [] { return new httplib::ThreadPool(24); }; // a worker per open connection
        auto handler = [this](const httplib::Request& req, httplib::Response& res) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_ports.insert(req.remote_port);
                ++m_requests;
                if (req.ssl != nullptr && SSL_session_reused(const_cast<SSL*>(req.ssl))) ++m_resumed;
            }
            if (req.path.rfind("/close", 0) == 0) res.set_header("Connection", "close");
            const std::string body = req.has_file("file") ? req.get_file_value("file").content : req.body;
            res.set_content(req.path + ":" + body, "text/plain");
        };
        http.Get(".*", handler).Post(".*", handler);
        if (!m_server.Start()) throw std::runtime_error("cannot listen on loopback");
    }
    ~CountingServer() {
        // The server's workers wait out the keep-alive time of every idle connection before they
        // stop; have the pooled ones closed now instead.
        for (int i = 0; i < 16; ++i) {
            CHttpClientCurl client;
            std::string response;
            client.HttpGet(Url("/close"), "", "", response);
        }
        m_server.Stop();
        std::lock_guard<std::mutex> lock(m_mutex); // orders the last handler's writes first
    }

    std::string Url(const std::string& path) const { return m_server.Url(path); }
    size_t Connections() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ports.size();
    }
    int Requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }
    int Resumed() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_resumed;
    }

private:
    std::mutex m_mutex;
    std::set<int> m_ports;
    int m_requests = 0;
    int m_resumed = 0;
    LoopbackServer m_server; // last: stopped before the fields its handler uses go away
};

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

} // namespace

TEST(ConnectionShare, FreshObjectsShareConnectionsUnlessSwitchedOff) {
    TempDir dir;
    for (bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "https" : "http");
        CountingServer server(tls);

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
    CountingServer server(true);
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
    for (bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "https" : "http");
        const int perThread = tls ? 150 : 400;
        CountingServer server(tls);
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
