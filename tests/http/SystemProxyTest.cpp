// The system's proxy, opted into per object: a PAC script served on loopback and named by the
// environment (never WPAD) picks a proxy, a list to try in order, or a direct connection by host,
// for every kind of transfer; the proxy argument still wins; GetLastProxy tells which was used.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"
#include "Portable.h"
#include "RelayProxy.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::PacProxy;
using zoth_test::Recorder;
using zoth_test::RelayProxy;
using zoth_test::ScopedEnv;
using zoth_test::TempDir;

namespace {

// A port on 127.0.0.1 where nothing listens (bound, then closed).
int DeadPort() {
    LoopbackServer server;
    if (!server.Start()) return 9;
    return server.Port();
}

} // namespace

TEST(SystemProxy, PacScriptChoosesProxyListOrDirectByHost) {
    LoopbackServer origin;
    Recorder recorder(origin);
    ASSERT_TRUE(origin.Start());
    RelayProxy first, second;
    const int dead = DeadPort();
    LoopbackServer pac;
    const std::string pacUrl = zoth_test::ServePac(
        pac, {{"alpha.test", PacProxy(first.Port())},
              {"beta.test", PacProxy(dead) + "; " + PacProxy(second.Port()) + "; DIRECT"}});
    ScopedEnv env("http_proxy", ("pac+" + pacUrl).c_str());

    const std::string port = std::to_string(origin.Port());
    const std::string alpha = "http://alpha.test:" + port, beta = "http://beta.test:" + port;
    const std::string firstUrl = "http://127.0.0.1:" + std::to_string(first.Port());
    const std::string secondUrl = "http://127.0.0.1:" + std::to_string(second.Port());
    TempDir dir;
    const std::string upload = dir / "upload.txt";
    std::ofstream(upload) << "uploaded";

    CHttpClientCurl client;
    client.SetSystemProxy(true);
    std::string response;
    struct Case {
        const char* name;
        std::function<int()> run;
        std::string proxy; // GetLastProxy afterwards
    };
    const Case cases[] = {
        {"GET, first proxy", [&] { return client.HttpGet(alpha + "/get", "", "", response); }, firstUrl},
        {"POST, second proxy after a dead one",
         [&] { return client.HttpPost(beta + "/post", "", "body", response); }, secondUrl},
        {"download", [&] { return client.DownloadFile(alpha + "/file", dir / "file", ""); }, firstUrl},
        {"upload", [&] { return client.HttpPostFile(beta + "/upload", "", "", upload, response); },
         secondUrl},
        {"probe",
         [&] {
             client.TestNetSpeed(alpha + "/probe", 30);
             return client.GetResultCode() == CURLE_OK ? 1 : 0;
         },
         firstUrl},
        {"loopback host: direct", [&] { return client.HttpGet(origin.Url("/direct"), "", "", response); },
         ""},
        {"the proxy argument wins",
         [&] { return client.HttpGet(alpha + "/argument", secondUrl, "", response); }, secondUrl},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(1, c.run()) << client.GetResultCode();
        EXPECT_EQ(c.proxy, client.GetLastProxy());
    }
    EXPECT_EQ((std::vector<std::string>{"GET " + alpha + "/get", "GET " + alpha + "/file",
                                        "GET " + alpha + "/probe"}),
              first.Seen());
    EXPECT_EQ((std::vector<std::string>{"POST " + beta + "/post", "POST " + beta + "/upload",
                                        "GET " + alpha + "/argument"}),
              second.Seen());

    // A copy asks the system too; an object that did not opt in takes only the proxy argument (the
    // environment's "pac+" URL is no proxy libcurl can use, so it fails rather than go direct).
    CHttpClientCurl copy(client);
    EXPECT_EQ(1, copy.HttpGet(alpha + "/copy", "", "", response)) << copy.GetResultCode();
    EXPECT_EQ(firstUrl, copy.GetLastProxy());
    CHttpClientCurl plain;
    EXPECT_EQ(0, plain.HttpGet(origin.Url("/plain"), "", "", response));
    EXPECT_EQ("", plain.GetLastProxy());
    EXPECT_EQ(4u, first.Seen().size());
}

TEST(SystemProxy, CredentialsOfTheSystemsProxyAreUsedButNeverReported) {
    LoopbackServer origin;
    Recorder recorder(origin);
    ASSERT_TRUE(origin.Start());
    RelayProxy proxy;
    const std::string address = "127.0.0.1:" + std::to_string(proxy.Port());
    ScopedEnv env("http_proxy", ("http://user:secret@" + address).c_str());
    CHttpClientCurl client;
    client.SetSystemProxy(true);
    std::string response;
    ASSERT_EQ(1,
              client.HttpGet("http://named.test:" + std::to_string(origin.Port()) + "/x", "", "", response))
        << client.GetResultCode();
    EXPECT_EQ(1u, proxy.Seen().size());
    EXPECT_EQ(std::string::npos, client.GetLastProxy().find("secret"));
    EXPECT_NE(std::string::npos, client.GetLastProxy().find(address));

    // A proxy argument's credentials are stripped the same way.
    const std::string stripped = "http://" + address;
    const std::string arguments[] = {"http://user:secret@" + address, "user:secret@" + address,
                                     "http://user@" + address};
    const std::string expected[] = {stripped, address, stripped};
    for (size_t i = 0; i < std::size(arguments); ++i) {
        EXPECT_EQ(1, client.HttpGet("http://named.test:" + std::to_string(origin.Port()) + "/y", arguments[i],
                                    "", response))
            << arguments[i];
        EXPECT_EQ(expected[i], client.GetLastProxy());
    }
}
