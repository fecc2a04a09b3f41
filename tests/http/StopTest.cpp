// Stop(): it ends every kind of transfer within about a second, also one that receives nothing, and
// a stop is used up by the transfer it ends.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// "/stall" (GET and POST) answers nothing for 20 s, or until the server stops; "/ok" answers at once.
struct StallServer {
    std::atomic<int> stalled{0}; // handlers that have begun to stall
    LoopbackServer server;

    StallServer() {
        auto stall = [this](const httplib::Request&, httplib::Response& res) {
            ++stalled;
            server.Nap(20000);
            res.set_content("late", "text/plain");
        };
        auto ok = [](const httplib::Request&, httplib::Response& res) {
            res.set_content("fine", "text/plain");
        };
        server.Http().Get("/stall", stall).Post("/stall", stall).Get("/ok", ok).Post("/ok", ok);
        if (!server.Start()) throw std::runtime_error("no loopback server");
    }
};

// One transfer of each kind; `path` is "/stall" or "/ok". The result is what the operation gave,
// except for the probe, which always gives 0: there it is 1 when libcurl finished the transfer.
struct Kind {
    const char* name;
    std::function<int(CHttpClientCurl&, const std::string& url)> run;
};

std::vector<Kind> Kinds(const TempDir& dir) {
    const std::string upload = dir / "upload.txt", target = dir / "target.bin";
    std::ofstream(upload) << "file body";
    return {
        {"request",
         [](CHttpClientCurl& c, const std::string& url) {
             std::string response;
             return c.HttpGet(url, "", "", response);
         }},
        {"download",
         [target](CHttpClientCurl& c, const std::string& url) {
             fs::remove(target);
             const int result = c.DownloadFile(url, target, "");
             EXPECT_EQ(result == 1, fs::exists(target));
             return result;
         }},
        {"upload",
         [upload](CHttpClientCurl& c, const std::string& url) {
             std::string response;
             return c.HttpPostFile(url, "", "", upload, response);
         }},
        {"probe",
         [](CHttpClientCurl& c, const std::string& url) {
             EXPECT_EQ(0, c.TestNetSpeed(url, 1));
             return c.GetResultCode() == CURLE_OK ? 1 : 0;
         }},
    };
}

} // namespace

TEST(HttpStop, EndsEveryKindOfStalledTransferWithinAboutASecond) {
    StallServer stall;
    TempDir dir;
    CHttpClientCurl client; // one object for all: no stop outlives the transfer it ended
    for (const Kind& kind : Kinds(dir)) {
        SCOPED_TRACE(kind.name);
        const int before = stall.stalled;
        std::atomic<Clock::rep> stoppedAt{0};
        std::thread stopper([&] {
            while (stall.stalled == before)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the client now waits for bytes
            stoppedAt = Clock::now().time_since_epoch().count();
            client.Stop();
        });
        EXPECT_EQ(0, kind.run(client, stall.server.Url("/stall")));
        const auto returned = Clock::now();
        stopper.join();
        EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
        // libcurl calls the progress callback about once a second while nothing arrives; the stall
        // itself lasts 20 s and the limits are 30 s and 1000 s.
        const double afterStop =
            std::chrono::duration<double>(returned.time_since_epoch() - Clock::duration(stoppedAt.load()))
                .count();
        EXPECT_LT(afterStop, 5.0);
        // The stop was used up: the same kind of transfer works next.
        EXPECT_EQ(1, kind.run(client, stall.server.Url("/ok")));
    }
}

TEST(HttpStop, AStopBetweenTransfersEndsTheNextDownloadUploadOrProbeOnly) {
    StallServer stall;
    TempDir dir;
    CHttpClientCurl client;
    for (const Kind& kind : Kinds(dir)) {
        SCOPED_TRACE(kind.name);
        client.Stop();
        const auto start = Clock::now();
        const int stopped = kind.run(client, stall.server.Url("/ok"));
        if (std::string(kind.name) == "request") {
            EXPECT_EQ(1, stopped); // GET, POST and PUT clear a stop before they start
            EXPECT_EQ(CURLE_OK, client.GetResultCode());
        } else {
            EXPECT_EQ(0, stopped); // ended at once
            EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
            EXPECT_LT(SecondsSince(start), 2.0);
        }
        // Used up by that one transfer: the next two work.
        EXPECT_EQ(1, kind.run(client, stall.server.Url("/ok")));
        EXPECT_EQ(1, kind.run(client, stall.server.Url("/ok")));
    }

    // ExecuteRequest clears nothing: a stop made before it ends it, and only it.
    std::string response;
    client.Stop();
    EXPECT_EQ(0,
              client.ExecuteRequest(ZOTH::EREQUEST_METHOD_POST, stall.server.Url("/ok"), "", "x", response));
    EXPECT_EQ(CURLE_WRITE_ERROR, client.GetResultCode());
    EXPECT_EQ(1,
              client.ExecuteRequest(ZOTH::EREQUEST_METHOD_POST, stall.server.Url("/ok"), "", "x", response));
    EXPECT_EQ("fine", response);
}
