// What an object tells of its latest transfer's connection: reused or new, and the TLS version, for
// plain HTTP and TLS, first and second request on one object; and what `zoth get -v` prints of it.
#include "zoth/http/CHttpClientCurl.h"

#include "CountingServer.h"
#include "Portable.h"
#include "TlsFixture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#if defined(ZOTH_TOOL_PATH)
#include "CliRun.h"
#endif

using ZOTH::CHttpClientCurl;

namespace {

// A loopback server over TLS: in the program on Linux (OpenSSL's), the Linux-side one of the
// Windows test script under Wine. `url` is "" where there is none.
struct TlsServer {
    std::string url;
#if !defined(_WIN32)
    zoth_test::TempDir dir;
    std::unique_ptr<zoth_test::CountingServer> server;
    TlsServer() {
        const zoth_test::CertFiles leaf = zoth_test::MakeCertificate(dir, "leaf", "127.0.0.1", "loopback");
        server = std::make_unique<zoth_test::CountingServer>(&leaf);
        url = server->Url("/tls");
    }
#else
    TlsServer() {
        const zoth_test::TlsFixture fixture;
        if (fixture.Present()) url = fixture.Url("good", "/tls");
    }
#endif
};

// A port on loopback that nothing listens on.
std::string RefusedUrl() {
    std::string url;
    {
        zoth_test::CountingServer closed;
        url = closed.Url("/nobody");
    }
    return url;
}

} // namespace

TEST(TransferInfo, ReusedOrNewAndTlsVersionOfFirstAndSecondRequest) {
    zoth_test::CountingServer plain;
    TlsServer tls;
    if (tls.url.empty())
        GTEST_SKIP() << "no TLS server (under Wine: run through scripts/run-windows-tests.sh)";
    // The version the test servers speak: OpenSSL's server offers TLS 1.3; Wine's Schannel may
    // settle on 1.2 with the Linux-side server.
    const std::string wanted = zoth_test::kWindows ? "TLSv1." : "TLSv1.3";

    CHttpClientCurl fresh;
    EXPECT_EQ(-1, fresh.GetLastConnectionReused()) << "no transfer yet";
    EXPECT_EQ("", fresh.GetLastTlsVersion());

    const struct {
        const char* name;
        std::string url;
        bool reuse;
        int reused[2]; // first and second request on one object
        bool tls;
    } cases[] = {
        {"plain HTTP", plain.Url("/a"), true, {0, 1}, false},
        {"TLS", tls.url, true, {0, 1}, true},
        {"plain HTTP, reuse off", plain.Url("/b"), false, {0, 0}, false},
        {"TLS, reuse off", tls.url, false, {0, 0}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CHttpClientCurl client;
        client.SetConnectionReuse(c.reuse);
        for (int i = 0; i < 2; ++i) {
            SCOPED_TRACE(i == 0 ? "first request" : "second request");
            std::string response;
            ASSERT_EQ(1, client.HttpGet(c.url, "", "", response)) << client.GetResultCode();
            if (i == 0 && c.tls && zoth_test::kWindows) {
                // The Linux-side server is the whole program's: the pool may hold a connection to it.
                EXPECT_GE(client.GetLastConnectionReused(), 0);
            } else {
                EXPECT_EQ(c.reused[i], client.GetLastConnectionReused());
            }
            const std::string version = client.GetLastTlsVersion();
            if (c.tls) {
                EXPECT_EQ(0u, version.rfind(wanted, 0)) << version;
            } else {
                EXPECT_EQ("", version);
            }
        }
        // A copy takes the last results with the rest.
        CHttpClientCurl copy(client);
        EXPECT_EQ(client.GetLastConnectionReused(), copy.GetLastConnectionReused());
        EXPECT_EQ(client.GetLastTlsVersion(), copy.GetLastTlsVersion());
    }

    // A transfer that reaches no server forgets what the one before found.
    CHttpClientCurl client;
    std::string response;
    ASSERT_EQ(1, client.HttpGet(tls.url, "", "", response));
    EXPECT_EQ(0, client.HttpGet(RefusedUrl(), "", "", response));
    EXPECT_EQ(CURLE_COULDNT_CONNECT, client.GetResultCode());
    EXPECT_EQ(-1, client.GetLastConnectionReused());
    EXPECT_EQ("", client.GetLastTlsVersion());
}

#if !defined(_WIN32) && defined(ZOTH_TOOL_PATH) // the Windows test script runs zoth.exe -v itself
// `zoth get -v`: the body alone on stdout; the proxy, the connection and the TLS version on stderr;
// credentials nowhere; the exit code of a transfer that worked and of one that did not.
TEST(TransferInfo, ZothToolSaysConnectionAndTlsVersion) {
    zoth_test::CountingServer plain;
    TlsServer tls;
    const std::string refused = RefusedUrl();
    const struct {
        const char* name;
        std::vector<std::string> arguments;
        int exitCode;
        std::string out;   // the body
        std::string lines; // what stderr must hold, in order; "" when no -v line at all
    } cases[] = {
        {"TLS",
         {"get", "-v", "--proxy-user", "alice:secret", tls.url},
         0,
         "/tls:",
         "zoth: proxy: none (direct)\nzoth: connection: new\nzoth: tls: TLSv1.3\n"},
        {"plain",
         {"get", "-v", plain.Url("/p")},
         0,
         "/p:",
         "zoth: proxy: none (direct)\nzoth: connection: new\nzoth: tls: none\n"},
        {"no server", {"get", "-v", refused}, 1, "", "zoth: connection: none\nzoth: tls: none\n"},
        {"without -v", {"get", plain.Url("/q")}, 0, "/q:", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CliResult run = RunZoth(c.arguments);
        EXPECT_EQ(c.exitCode, run.exitCode) << run.err;
        EXPECT_EQ(c.out, run.out);
        if (c.lines.empty()) {
            EXPECT_EQ(std::string::npos, run.err.find("zoth: ")) << run.err;
        } else {
            EXPECT_NE(std::string::npos, run.err.find(c.lines)) << run.err;
        }
        if (c.exitCode != 0) {
            EXPECT_NE(std::string::npos, run.err.find("zoth: get failed: ")) << run.err;
        }
        EXPECT_EQ(std::string::npos, (run.out + run.err).find("secret"));
    }
}
#endif
