// One object, many transfers of every kind in a row: each transfer must see exactly the options it
// would see on a new handle (no method, body, header, callback, proxy or TLS setting left over from
// the one before), while the connection is kept. And a forked child with an inherited object.
#include "zoth/http/CHttpClientCurl.h"

#include "CountingServer.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

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

TEST(KeptHandle, TlsVerificationAndReuseSwitchesApplyToTheNextTransfer) {
    TempDir dir;
    const zoth_test::CertFiles ca = zoth_test::MakeCertificate(dir, "ca", "Test CA", "ca");
    const zoth_test::CertFiles leaf = zoth_test::MakeCertificate(dir, "leaf", "127.0.0.1", "loopback", &ca);
    zoth_test::CountingServer server(&leaf);
    CHttpClientCurl client;
    std::string response;
    struct Step {
        const char* name;
        std::function<void()> set;
        int result;
        CURLcode code;
    };
    const Step steps[] = {
        {"unverified", [] {}, 1, CURLE_OK},
        {"verified against the system's store", [&] { client.SetTlsVerify(true); }, 0,
         CURLE_PEER_FAILED_VERIFICATION},
        {"verified against the test CA", [&] { client.SetTlsCaPath(ca.cert); }, 1, CURLE_OK},
        {"back to the system's store", [&] { client.SetTlsCaPath(""); }, 0, CURLE_PEER_FAILED_VERIFICATION},
        {"verification off", [&] { client.SetTlsVerify(false); }, 1, CURLE_OK},
        {"reuse off", [&] { client.SetConnectionReuse(false); }, 1, CURLE_OK},
        {"reuse off again", [] {}, 1, CURLE_OK},
        {"reuse on", [&] { client.SetConnectionReuse(true); }, 1, CURLE_OK},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        step.set();
        EXPECT_EQ(step.result, client.HttpGet(server.Url("/x"), "", "", response));
        EXPECT_EQ(step.code, client.GetResultCode());
    }
    // Unverified and verified-by-CA transfers may not share a connection, and each transfer without
    // reuse connects anew: at least four connections, and not one per transfer.
    EXPECT_GE(server.Connections(), 4u);
    EXPECT_LE(server.Connections(), 5u);

    // Many transfers on one kept handle: one connection more at most.
    const size_t before = server.Connections();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(1, client.HttpGet(server.Url("/y"), "", "", response)) << client.GetResultCode();
    EXPECT_EQ(before, server.Connections());
}

// A forked child inherits an object with a kept handle: it drops the handle unused and makes its
// own, and the parent's object goes on as before.
TEST(KeptHandle, ForkedChildDropsTheInheritedHandle) {
    LoopbackServer server;
    Recorder recorder(server);
    ASSERT_TRUE(server.Start());
    CHttpClientCurl client;
    std::string response;
    ASSERT_EQ(1, client.HttpGet(server.Url("/parent"), "", "", response));

    const pid_t child = ::fork();
    if (child == 0) {
        std::string answer;
        const bool ok = client.HttpPost(server.Url("/child"), "", "from child", answer) == 1 &&
                        answer == Recorder::Answer("POST", "from child");
        client.Clear();
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ("POST /child [from child] ", recorder.Last().Summary().substr(0, 25));

    ASSERT_EQ(1, client.HttpGet(server.Url("/parent-again"), "", "", response)) << client.GetResultCode();
    EXPECT_EQ(Recorder::Answer("GET", ""), response);
    client.Clear();
    ASSERT_EQ(1, client.HttpGet(server.Url("/after-clear"), "", "", response)) << client.GetResultCode();
}
