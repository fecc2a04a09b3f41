// Retries of idempotent transfers against a server that fails on request: which failures are tried
// again, how many times, the waits (backoff, Retry-After, budget) and a stop during a wait.
#include "zoth/http/CHttpClientCurl.h"

#include "FaultServer.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

using ZOTH::CHttpClientCurl;
using zoth_test::Directive;
using zoth_test::FaultServer;
using zoth_test::Payload;
using zoth_test::TempDir;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

std::string ReadAll(const std::string& path) {
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

} // namespace

// Each failure kind against downloads and GETs with three attempts and 20 ms waits: transient ones
// are tried until the good answer, the others once.
TEST(Retry, TransientFailuresAreTriedAgainOthersAreNot) {
    const std::string body = Payload(200000);
    FaultServer server(body);
    TempDir dir;
    const Directive good;
    const struct {
        const char* name;
        Directive fault;
        int requests; // to the end of the download
    } cases[] = {
        {"503", Directive().Status(503), 2},
        {"500", Directive().Status(500), 2},
        {"429", Directive().Status(429), 2},
        {"408", Directive().Status(408), 2},
        {"cut short", Directive().CloseAfter(1000), 2},
        {"404", Directive().Status(404), 1},
        {"403", Directive().Status(403), 1},
        {"chunked", Directive().Chunked(), 1}, // no length: refused, not transient
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const bool transient = c.requests == 2;
        const std::string target = dir / "file.bin";
        fs::remove(target);
        CHttpClientCurl client;
        client.SetRetryPolicy(3, 0, 20);
        server.Plan({c.fault, good});
        server.ResetCounts();
        EXPECT_EQ(client.DownloadFile(server.Url(), target, ""), transient ? 1 : 0);
        EXPECT_EQ(server.Requests(), c.requests);
        EXPECT_EQ(fs::exists(target), transient);
        if (transient) {
            EXPECT_EQ(ReadAll(target), body);
        }
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()),
                  transient ? 1 : 0);

        // GET: the status is no failure of the call, but a transient one is still tried again.
        server.Plan({c.fault, good});
        server.ResetCounts();
        std::string response;
        const int result = client.HttpGet(server.Url(), "", "", response);
        if (transient) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(response, body);
            EXPECT_EQ(server.Requests(), 2);
        } else {
            EXPECT_EQ(server.Requests(), 1);
        }
    }
}

// Attempts used up: the last attempt's result and code stand. POST is never sent twice; PUT is.
// Without a policy nothing is retried.
TEST(Retry, AttemptsMethodsAndTheLastResult) {
    FaultServer server(Payload(1000));
    TempDir dir;
    CHttpClientCurl plain;
    server.Plan({Directive().Status(503)});
    EXPECT_EQ(plain.DownloadFile(server.Url(), dir / "a", ""), 0);
    EXPECT_EQ(server.Requests(), 1);

    CHttpClientCurl client;
    client.SetRetryPolicy(4, 0, 10);
    server.ResetCounts();
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "a", ""), 0);
    EXPECT_EQ(server.Requests(), 4);
    EXPECT_EQ(client.GetResultCode(), CURLE_OK); // a status refusal keeps code 0

    server.Plan({Directive().CloseAfter(10)});
    server.ResetCounts();
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "a", ""), 0);
    EXPECT_EQ(server.Requests(), 4);
    EXPECT_EQ(client.GetResultCode(), CURLE_PARTIAL_FILE);

    std::string response;
    server.Plan({Directive().Status(503)});
    server.ResetCounts();
    EXPECT_EQ(client.HttpPost(server.Url(), "", "a=1", response), 1);
    EXPECT_EQ(server.Requests(), 1) << "POST is not idempotent";
    server.ResetCounts();
    EXPECT_EQ(client.HttpPut(server.Url(), "", "a=1", response), 1);
    EXPECT_EQ(server.Requests(), 4);
    EXPECT_EQ(response, "status 503") << "the last answer stands";

    // No server at all: a connect failure is transient too.
    FaultServer* gone = new FaultServer("");
    const std::string url = gone->Url();
    delete gone;
    CHttpClientCurl once;
    once.SetRetryPolicy(2, 0, 10);
    EXPECT_EQ(once.HttpGet(url, "", "", response), 0);
    EXPECT_EQ(once.GetResultCode(), CURLE_COULDNT_CONNECT);
    // A copy keeps the policy.
    CHttpClientCurl copy(client);
    server.ResetCounts();
    EXPECT_EQ(copy.DownloadFile(server.Url(), dir / "b", ""), 0);
    EXPECT_EQ(server.Requests(), 4);
}

// The waits: doubling from the first wait, Retry-After in seconds and as an HTTP date, a budget that
// stops a wait from starting, and a stop during a wait.
TEST(Retry, WaitsBudgetAndStop) {
    FaultServer server(Payload(1000));
    TempDir dir;
    std::string response;
    {
        // 100 + 200 ms of backoff (each up to a quarter longer) before the third attempt.
        CHttpClientCurl client;
        client.SetRetryPolicy(3, 0, 100);
        server.Plan({Directive().Status(503), Directive().Status(503), Directive()});
        const auto start = Clock::now();
        EXPECT_EQ(client.DownloadFile(server.Url(), dir / "a", ""), 1);
        EXPECT_GE(MsSince(start), 300);
        EXPECT_LT(MsSince(start), 5000);
    }
    {
        // Retry-After: 1 overrides a 10 ms backoff.
        CHttpClientCurl client;
        client.SetRetryPolicy(2, 0, 10);
        server.Plan({Directive().Status(503).RetryAfter("1"), Directive()});
        const auto start = Clock::now();
        EXPECT_EQ(client.HttpGet(server.Url(), "", "", response), 1);
        EXPECT_GE(MsSince(start), 1000);
        // As a date in the past: no wait beyond the backoff.
        server.Plan({Directive().Status(429).RetryAfter("Wed, 21 Oct 2015 07:28:00 GMT"), Directive()});
        const auto again = Clock::now();
        EXPECT_EQ(client.HttpGet(server.Url(), "", "", response), 1);
        EXPECT_EQ(response, Payload(1000));
        EXPECT_LT(MsSince(again), 1000);
    }
    {
        // A wait that would pass the budget is not started: one attempt, at once.
        CHttpClientCurl client;
        client.SetRetryPolicy(5, 3000, 10);
        server.Plan({Directive().Status(503).RetryAfter("30")});
        server.ResetCounts();
        const auto start = Clock::now();
        EXPECT_EQ(client.DownloadFile(server.Url(), dir / "a", ""), 0);
        EXPECT_EQ(server.Requests(), 1);
        EXPECT_LT(MsSince(start), 2500);
    }
    {
        // Stop during a 30 s wait: ends at once with 0 and code 23, and is used up.
        CHttpClientCurl client;
        client.SetRetryPolicy(3, 0, 30000);
        server.Plan({Directive().Status(503)});
        server.ResetCounts();
        std::thread stopper([&client] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            client.Stop();
        });
        const auto start = Clock::now();
        EXPECT_EQ(client.DownloadFile(server.Url(), dir / "a", ""), 0);
        stopper.join();
        EXPECT_LT(MsSince(start), 10000);
        EXPECT_EQ(client.GetResultCode(), CURLE_WRITE_ERROR);
        EXPECT_EQ(server.Requests(), 1);
        server.Plan({Directive()});
        EXPECT_EQ(client.DownloadFile(server.Url(), dir / "a", ""), 1) << "the stop was used up";

        server.Plan({Directive().Status(503)});
        server.ResetCounts();
        std::thread stopGet([&client] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            client.Stop();
        });
        EXPECT_EQ(client.HttpGet(server.Url(), "", "", response), 0);
        stopGet.join();
        EXPECT_EQ(client.GetResultCode(), CURLE_WRITE_ERROR);
        EXPECT_EQ(server.Requests(), 1);
    }
}
