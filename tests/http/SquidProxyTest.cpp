// Proxy credentials against a real squid: Basic, Digest and NTLM, for HTTP and for HTTPS through
// CONNECT, right and wrong; credentials never reach the origin or the header text; an object without
// credentials never rides an authenticated connection; a PAC script choosing between two squids.
#include "zoth/http/CHttpClientCurl.h"

#include "CountingServer.h"
#include "LoopbackServer.h"
#include "Portable.h"
#include "SquidProxy.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#if defined(ZOTH_TOOL_PATH)
#include "CliRun.h"
#endif

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::Recorder;
using zoth_test::ScopedEnv;
using zoth_test::SquidProxy;

namespace {

// What a transfer through the proxy gave.
struct Outcome {
    int result;
    CURLcode code;
    std::string status; // the last status line of the header text, "" when none
};

Outcome Get(CHttpClientCurl& client, const std::string& url, const std::string& proxy) {
    std::string response;
    const int result = client.HttpGet(url, proxy, "", response);
    const std::string headers = client.GetResponseHeaders();
    const size_t last = headers.rfind("HTTP/");
    const std::string status = last == std::string::npos ? "" : headers.substr(last, 12);
    return {result, client.GetResultCode(), status};
}

// The base64 of "user:password", as Basic would send it.
std::string Base64(const std::string& text) {
    static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < text.size(); i += 3) {
        unsigned v = static_cast<unsigned char>(text[i]) << 16;
        if (i + 1 < text.size()) v |= static_cast<unsigned char>(text[i + 1]) << 8;
        if (i + 2 < text.size()) v |= static_cast<unsigned char>(text[i + 2]);
        out += digits[(v >> 18) & 63];
        out += digits[(v >> 12) & 63];
        out += i + 1 < text.size() ? digits[(v >> 6) & 63] : '=';
        out += i + 2 < text.size() ? digits[v & 63] : '=';
    }
    return out;
}

// The squid's access log once it holds `line`, or after 10 s.
std::string WaitForLog(const SquidProxy& squid, const std::string& line) {
    for (int i = 0; i < 200 && squid.AccessLog().find(line) == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return squid.AccessLog();
}

} // namespace

TEST(SquidProxy, BasicDigestAndNtlmForHttpAndConnect) {
    LoopbackServer plain, tls(true);
    Recorder plainSeen(plain), tlsSeen(tls);
    ASSERT_TRUE(plain.Start());
    ASSERT_TRUE(tls.Start());
    const std::string require =
        "acl authed proxy_auth REQUIRED\nhttp_access allow authed\nhttp_access deny all\n";
    struct Scheme {
        const char* name;
        std::string config;
        std::vector<std::pair<std::string, std::string>> files;
        bool checksPassword;
    };
    const Scheme schemes[] = {
        {"Basic",
         "auth_param basic program /usr/lib/squid/basic_ncsa_auth DIR/passwd\nauth_param basic realm zoth\n" +
             require,
         // "secret" hashed with MD5-crypt, as htpasswd -m writes it
         {{"passwd", "alice:$1$zothsalt$g1mON80NIsxyBZ6Eujqew/\n"}},
         true},
        {"Digest",
         "auth_param digest program /usr/lib/squid/digest_file_auth DIR/digest\nauth_param digest realm "
         "zoth\n" +
             require,
         {{"digest", "alice:secret\n"}},
         true},
        {"NTLM",
         "auth_param ntlm program /usr/lib/squid/ntlm_fake_auth\nauth_param ntlm children 2\n" + require,
         {},
         false},
    };
    for (const Scheme& scheme : schemes) {
        SCOPED_TRACE(scheme.name);
        SquidProxy squid(scheme.config, scheme.files);
        REQUIRE_SQUID(squid);

        CHttpClientCurl client;
        client.SetProxyCredentials("alice", "secret");
        for (LoopbackServer* origin : {&plain, &tls}) {
            const Outcome got = Get(client, origin->Url("/right"), squid.Address());
            EXPECT_EQ(1, got.result) << got.code;
            EXPECT_EQ(CURLE_OK, got.code);
            EXPECT_EQ("HTTP/1.1 200", got.status);
            // The origin never sees them, nor does the header text.
            const zoth_test::Seen seen = (origin == &plain ? plainSeen : tlsSeen).Last();
            EXPECT_EQ("", seen.Header("Proxy-Authorization"));
            EXPECT_EQ("", seen.Header("Authorization"));
            const std::string headers = client.GetResponseHeaders();
            EXPECT_EQ(std::string::npos, headers.find("secret"));
            EXPECT_EQ(std::string::npos, headers.find(Base64("alice:secret")));
        }
        EXPECT_NE(std::string::npos, WaitForLog(squid, "alice").find("alice")) << squid.AccessLog();

        // An object without credentials, right after: refused by the proxy, for HTTP with its answer
        // (1, 407), for HTTPS as a failed CONNECT (0) rather than riding the authenticated tunnel.
        CHttpClientCurl stranger;
        Outcome got = Get(stranger, plain.Url("/stranger"), squid.Address());
        EXPECT_EQ(1, got.result);
        EXPECT_EQ("HTTP/1.1 407", got.status);
        got = Get(stranger, tls.Url("/stranger"), squid.Address());
        EXPECT_EQ(0, got.result);
        EXPECT_EQ(CURLE_RECV_ERROR, got.code);

        if (!scheme.checksPassword) continue;
        CHttpClientCurl wrong;
        wrong.SetProxyCredentials("alice", "wrong");
        got = Get(wrong, plain.Url("/wrong"), squid.Address());
        EXPECT_EQ(1, got.result);
        EXPECT_EQ(CURLE_OK, got.code);
        EXPECT_EQ("HTTP/1.1 407", got.status);
        got = Get(wrong, tls.Url("/wrong"), squid.Address());
        EXPECT_EQ(0, got.result);
        EXPECT_EQ(CURLE_RECV_ERROR, got.code);
    }
}

// A PAC script served on loopback sends alpha.test to one squid, beta.test to another and loopback
// direct; each squid's access log shows what went through it, HTTPS as CONNECT.
TEST(SquidProxy, PacScriptChoosesBetweenTwoSquidsAndDirect) {
    LoopbackServer plain, tls(true);
    Recorder plainSeen(plain), tlsSeen(tls);
    ASSERT_TRUE(plain.Start());
    ASSERT_TRUE(tls.Start());
    SquidProxy first("http_access allow all\n"), second("http_access allow all\n");
    REQUIRE_SQUID(first);
    REQUIRE_SQUID(second);
    LoopbackServer pac;
    const std::string pacUrl = zoth_test::ServePac(pac, {{"alpha.test", zoth_test::PacProxy(first.Port())},
                                                         {"beta.test", zoth_test::PacProxy(second.Port())}});
    ScopedEnv http("http_proxy", ("pac+" + pacUrl).c_str());
    ScopedEnv https("https_proxy", ("pac+" + pacUrl).c_str());

    const std::string plainPort = std::to_string(plain.Port()), tlsPort = std::to_string(tls.Port());
    CHttpClientCurl client;
    client.SetSystemProxy(true);
    // squid logs a CONNECT when its tunnel closes: these connections close with their handles.
    client.SetConnectionReuse(false);
    const struct {
        std::string url, proxy;
    } cases[] = {
        {"http://alpha.test:" + plainPort + "/one", first.Address()},
        {"https://alpha.test:" + tlsPort + "/two", first.Address()},
        {"http://beta.test:" + plainPort + "/three", second.Address()},
        {"https://beta.test:" + tlsPort + "/four", second.Address()},
        {plain.Url("/five"), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const Outcome got = Get(client, c.url, "");
        EXPECT_EQ(1, got.result) << got.code;
        EXPECT_EQ("HTTP/1.1 200", got.status);
        EXPECT_EQ(c.proxy, client.GetLastProxy());
    }
    client.Clear();
    const std::string one = WaitForLog(first, "CONNECT alpha.test:" + tlsPort);
    const std::string two = WaitForLog(second, "CONNECT beta.test:" + tlsPort);
    EXPECT_NE(std::string::npos, one.find("GET http://alpha.test:" + plainPort + "/one")) << one;
    EXPECT_NE(std::string::npos, one.find("CONNECT alpha.test:" + tlsPort)) << one;
    EXPECT_EQ(std::string::npos, one.find("beta.test")) << one;
    EXPECT_NE(std::string::npos, two.find("GET http://beta.test:" + plainPort + "/three")) << two;
    EXPECT_NE(std::string::npos, two.find("CONNECT beta.test:" + tlsPort)) << two;
    EXPECT_EQ(std::string::npos, two.find("alpha.test")) << two;
    EXPECT_EQ(std::string::npos, (one + two).find("/five"));
    EXPECT_EQ("GET /five [] ", plainSeen.Last().Summary().substr(0, 13));
}

// An https:// proxy: its certificate is verified as libcurl does by default, against the object's
// CA when one is set; credentials travel inside its TLS.
TEST(SquidProxy, HttpsProxyVerifiedAgainstTheObjectsCa) {
    zoth_test::TempDir certs;
    const zoth_test::CertFiles ca = zoth_test::MakeCertificate(certs, "ca", "Proxy CA", "ca");
    const zoth_test::CertFiles leaf = zoth_test::MakeCertificate(certs, "leaf", "127.0.0.1", "loopback", &ca);
    LoopbackServer plain;
    Recorder plainSeen(plain);
    ASSERT_TRUE(plain.Start());
    SquidProxy squid("auth_param basic program /usr/lib/squid/basic_ncsa_auth DIR/passwd\n"
                     "auth_param basic realm zoth\nacl authed proxy_auth REQUIRED\n"
                     "http_access allow authed\nhttp_access deny all\n",
                     {{"passwd", "alice:$1$zothsalt$g1mON80NIsxyBZ6Eujqew/\n"},
                      {"cert.pem", zoth_test::FileText(leaf.cert)},
                      {"key.pem", zoth_test::FileText(leaf.key)}},
                     "tls-cert=DIR/cert.pem tls-key=DIR/key.pem");
    REQUIRE_SQUID(squid);
    const struct {
        const char* name;
        bool trustCa;
        int result;
        CURLcode code;
    } cases[] = {
        {"the system's store does not know the proxy's CA", false, 0, CURLE_PEER_FAILED_VERIFICATION},
        {"the object's CA", true, 1, CURLE_OK},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CHttpClientCurl client;
        client.SetProxyCredentials("alice", "secret");
        if (c.trustCa) client.SetTlsCaPath(ca.cert);
        const Outcome got = Get(client, plain.Url("/through-tls"), squid.Address());
        EXPECT_EQ(c.result, got.result);
        EXPECT_EQ(c.code, got.code);
    }
    EXPECT_NE(std::string::npos, WaitForLog(squid, "alice").find("alice"));
    EXPECT_EQ("", plainSeen.Last().Header("Proxy-Authorization"));
}

#if defined(ZOTH_TOOL_PATH)
// `zoth get -v` through an authenticating squid: the body on stdout, the proxy it went through on
// stderr (no credentials in what it prints), and a malformed --proxy-user refused before any transfer.
TEST(SquidProxy, ZothToolTakesProxyOptions) {
    LoopbackServer plain;
    Recorder seen(plain);
    ASSERT_TRUE(plain.Start());
    SquidProxy squid("auth_param basic program /usr/lib/squid/basic_ncsa_auth DIR/passwd\n"
                     "auth_param basic realm zoth\nacl authed proxy_auth REQUIRED\n"
                     "http_access allow authed\nhttp_access deny all\n",
                     {{"passwd", "alice:$1$zothsalt$g1mON80NIsxyBZ6Eujqew/\n"}});
    REQUIRE_SQUID(squid);
    const std::string url = plain.Url("/cli");
    const struct {
        const char* name;
        std::vector<std::string> arguments;
        int exitCode;
        std::string out; // the body
        std::string err; // a line stderr must hold
    } cases[] = {
        {"through the squid",
         {"get", "-v", "--proxy", squid.Address(), "--proxy-user", "alice:secret", url},
         0,
         Recorder::Answer("GET", ""),
         "zoth: proxy: " + squid.Address() + "\n"},
        {"--proxy-user without a password", {"get", "--proxy-user", "alice", url}, 2, "", "needs USER:PASS"},
        {"direct", {"get", "-v", url}, 0, Recorder::Answer("GET", ""), "zoth: proxy: none (direct)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CliResult run = RunZoth(c.arguments);
        EXPECT_EQ(c.exitCode, run.exitCode) << run.err;
        EXPECT_EQ(c.out, run.out);
        EXPECT_NE(std::string::npos, run.err.find(c.err)) << run.err;
        EXPECT_EQ(std::string::npos, (run.out + run.err).find("secret"));
    }
    // The squid let the first request through as alice (after its 407 challenge).
    EXPECT_NE(std::string::npos, WaitForLog(squid, url + " alice").find("GET " + url + " alice"))
        << squid.AccessLog();
}
#endif
