// One object, many transfers of every kind in a row: each transfer must see exactly the options it
// would see on a new handle (no method, body, header, callback, proxy or TLS setting left over from
// the one before), while the connection is kept.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

using ZOTH::CHttpClientCurl;
using zoth_test::ForwardProxy;
using zoth_test::LoopbackServer;
using zoth_test::Recorder;
using zoth_test::TempDir;

TEST(KeptHandle, EveryTransferSeesOnlyItsOwnOptions) {
    LoopbackServer server;
    Recorder recorder(server);
    ASSERT_TRUE(server.Start());
    ForwardProxy proxy;
    TempDir dir;
    const std::string upload = dir / "upload.txt", downloaded = dir / "downloaded.txt";
    std::ofstream(upload) << "uploaded";

    CHttpClientCurl client;
    std::string response;
    struct Step {
        const char* name;
        std::function<int()> run;
        std::string answer;  // what `response` holds afterwards
        std::string summary; // what the server saw (Seen::Summary), "" when not checked
        std::string custom;  // the X-Test header the server saw
    };
    const std::string agentless = " | */*";
    const Step steps[] = {
        {"POST with a header",
         [&] {
             client.SetCustomHeaders({"X-Test: one"});
             return client.HttpPost(server.Url("/a"), "", "first", response);
         },
         Recorder::Answer("POST", "first"), "POST /a [first] " + agentless + " +type", "one"},
        {"GET after it: no body, no header",
         [&] {
             client.SetCustomHeaders({});
             return client.HttpGet(server.Url("/b"), "", "ignored", response);
         },
         Recorder::Answer("GET", ""), "GET /b [] " + agentless, ""},
        {"PUT", [&] { return client.HttpPut(server.Url("/c"), "", "second", response); },
         Recorder::Answer("PUT", "second"), "PUT /c [second] " + agentless + " +type", ""},
        {"GET after PUT", [&] { return client.HttpGet(server.Url("/d"), "", "", response); },
         Recorder::Answer("GET", ""), "GET /d [] " + agentless, ""},
        {"POST through a proxy",
         [&] { return client.HttpPost(server.Url("/e"), proxy.Address(), "proxied", response); },
         Recorder::Answer("POST", "proxied"), "", ""},
        {"POST after it goes direct",
         [&] { return client.HttpPost(server.Url("/f"), "", "direct", response); },
         Recorder::Answer("POST", "direct"), "POST /f [direct] " + agentless + " +type", ""},
        {"download", [&] { return client.DownloadFile(server.Url("/g"), downloaded, ""); }, "",
         "GET /g [] " + agentless, ""},
        {"GET after a download: the body comes to the object",
         [&] { return client.HttpGet(server.Url("/h"), "", "", response); }, Recorder::Answer("GET", ""),
         "GET /h [] " + agentless, ""},
        {"upload", [&] { return client.HttpPostFile(server.Url("/i"), "", "", upload, response); }, "", "",
         ""},
        {"GET after an upload: no form", [&] { return client.HttpGet(server.Url("/j"), "", "", response); },
         Recorder::Answer("GET", ""), "GET /j [] " + agentless, ""},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        response = "stale";
        ASSERT_EQ(1, step.run()) << client.GetResultCode();
        if (!step.answer.empty()) {
            EXPECT_EQ(step.answer, response);
        }
        const zoth_test::Seen seen = recorder.Last();
        if (!step.summary.empty()) {
            EXPECT_EQ(step.summary, seen.Summary());
        }
        EXPECT_EQ(step.custom, seen.Header("X-Test"));
    }
    EXPECT_EQ(Recorder::Answer("GET", ""), zoth_test::FileText(downloaded));
    EXPECT_EQ(1u, proxy.RequestLines().size()); // only the one POST went through the proxy
}
