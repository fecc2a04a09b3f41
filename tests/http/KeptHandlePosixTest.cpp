// The kept handle with TLS settings switched between transfers (a TLS server of OpenSSL's in the
// test), and a forked child with an inherited object: the parts of the kept-handle suite that stand
// on OpenSSL's in-process servers and fork, so they run on Linux only.
#include "zoth/http/CHttpClientCurl.h"

#include "CountingServer.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Recorder;
using zoth_test::TempDir;

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
