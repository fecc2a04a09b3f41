// Opt-in TLS verification against loopback servers whose certificates come from a CA made here:
// who passes, every kind of transfer, copies, and no riding on unverified connections or sessions.
#include "zoth/http/CHttpClientCurl.h"

#include "CountingServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using ZOTH::CHttpClientCurl;
using zoth_test::CertFiles;
using zoth_test::CountingServer;
using zoth_test::MakeCertificate;
using zoth_test::TempDir;

namespace {

// Idle connections of verifying clients stay pooled until the server ends them.
constexpr int kKeepAlive = 2;

// A CA of the test's own, a certificate it signed for 127.0.0.1, one it signed for another host
// name, and a self-signed one for 127.0.0.1; the CA as a bundle file and as a hashed folder.
struct Pki {
    TempDir dir;
    CertFiles ca = MakeCertificate(dir, "ca", "ZOTH test CA", "ca");
    CertFiles good = MakeCertificate(dir, "good", "127.0.0.1", "loopback", &ca);
    CertFiles otherHost = MakeCertificate(dir, "other", "other.example", "other_host", &ca);
    CertFiles selfSigned = MakeCertificate(dir, "self", "127.0.0.1", "loopback");
    std::string caFolder = dir / "trusted";

    Pki() {
        std::filesystem::create_directory(caFolder);
        std::filesystem::copy_file(ca.cert, caFolder + "/ca.pem");
        if (std::system(("openssl rehash " + caFolder + " >/dev/null 2>&1").c_str()) != 0)
            throw std::runtime_error("openssl rehash failed");
    }
};

enum class Trust { Off, System, CaFile, CaFolder };

CHttpClientCurl Client(Trust trust, const Pki& pki) {
    CHttpClientCurl client;
    if (trust == Trust::System) client.SetTlsVerify(true);
    if (trust == Trust::CaFile) client.SetTlsCaPath(pki.ca.cert);
    if (trust == Trust::CaFolder) client.SetTlsCaPath(pki.caFolder);
    return client;
}

} // namespace

TEST(TlsVerify, OnlyACertificateFromATrustedCaForTheHostPasses) {
    Pki pki;
    CountingServer good(&pki.good, kKeepAlive), otherHost(&pki.otherHost, kKeepAlive),
        selfSigned(&pki.selfSigned, kKeepAlive);
    const struct {
        const char* name;
        CountingServer& server;
        bool trustedByCa;
    } servers[] = {{"signed for 127.0.0.1", good, true},
                   {"signed for other.example", otherHost, false},
                   {"self-signed", selfSigned, false}};
    const struct {
        const char* name;
        Trust trust;
    } trusts[] = {{"off (default)", Trust::Off},
                  {"system store", Trust::System},
                  {"CA file", Trust::CaFile},
                  {"CA folder", Trust::CaFolder}};
    for (const auto& t : trusts) {
        for (const auto& s : servers) {
            SCOPED_TRACE(std::string(t.name) + ", " + s.name);
            CHttpClientCurl client = Client(t.trust, pki);
            std::string response = "stale";
            const bool passes = t.trust == Trust::Off || (t.trust != Trust::System && s.trustedByCa);
            EXPECT_EQ(passes ? 1 : 0, client.HttpGet(s.server.Url("/hello"), "", "", response));
            EXPECT_EQ(passes ? CURLE_OK : CURLE_PEER_FAILED_VERIFICATION, client.GetResultCode());
            EXPECT_EQ(passes ? "/hello:" : "", response);
        }
    }
}

TEST(TlsVerify, EveryTransferKindVerifiesAndCopiesKeepTheSetting) {
    Pki pki;
    CountingServer good(&pki.good, kKeepAlive), selfSigned(&pki.selfSigned, kKeepAlive);
    const std::string upload = pki.dir / "upload.txt";
    std::ofstream(upload) << "part";

    CHttpClientCurl original;
    original.SetTlsCaPath(pki.ca.cert);
    CHttpClientCurl copy(original), assigned;
    assigned = original;
    for (CHttpClientCurl* client : {&original, &copy, &assigned}) {
        for (CountingServer* server : {&good, &selfSigned}) {
            const bool passes = server == &good;
            SCOPED_TRACE(passes ? "trusted server" : "self-signed server");
            const CURLcode expected = passes ? CURLE_OK : CURLE_PEER_FAILED_VERIFICATION;
            std::string response;
            EXPECT_EQ(passes, client->HttpGet(server->Url("/get"), "", "", response) == 1);
            EXPECT_EQ(expected, client->GetResultCode());
            EXPECT_EQ(passes, client->HttpPut(server->Url("/put"), "", "x", response) == 1);
            EXPECT_EQ(expected, client->GetResultCode());
            const std::string target = pki.dir / "download";
            EXPECT_EQ(passes, client->DownloadFile(server->Url("/file"), target, "") == 1);
            EXPECT_EQ(expected, client->GetResultCode());
            EXPECT_EQ(passes, std::filesystem::exists(target));
            std::filesystem::remove(target);
            EXPECT_EQ(passes, client->HttpPostFile(server->Url("/upload"), "", "", upload, response) == 1);
            EXPECT_EQ(expected, client->GetResultCode());
            EXPECT_EQ(passes ? "/upload:part" : "", response);
            client->TestNetSpeed(server->Url("/probe"), 30);
            EXPECT_EQ(expected, client->GetResultCode());
        }
    }

    // Verification off again: the CA is no longer asked. An empty CA path goes back to the system
    // store, which does not know the test's CA, and keeps verification on.
    std::string response;
    copy.SetTlsVerify(false);
    EXPECT_EQ(1, copy.HttpGet(selfSigned.Url("/off"), "", "", response));
    assigned.SetTlsCaPath("");
    EXPECT_EQ(0, assigned.HttpGet(good.Url("/system"), "", "", response));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, assigned.GetResultCode());
    EXPECT_EQ(1, original.HttpGet(good.Url("/still"), "", "", response)); // copies are independent
}

TEST(TlsVerify, UnverifiedConnectionsAndSessionsAreNeverReusedByAVerifiedTransfer) {
    Pki pki;
    CountingServer good(&pki.good, kKeepAlive), selfSigned(&pki.selfSigned, kKeepAlive);
    std::string response;

    // An unverified connection stays pooled; a verified transfer to the same server makes its own,
    // so it fails where the server's certificate does not verify...
    ASSERT_EQ(1, Client(Trust::Off, pki).HttpGet(selfSigned.Url("/plain"), "", "", response));
    CHttpClientCurl verified = Client(Trust::CaFile, pki);
    EXPECT_EQ(0, verified.HttpGet(selfSigned.Url("/verified"), "", "", response));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, verified.GetResultCode());
    // ...while the unverified one was there all along: the next unverified transfer rides it.
    ASSERT_EQ(1, Client(Trust::Off, pki).HttpGet(selfSigned.Url("/plain"), "", "", response));
    EXPECT_EQ(1u, selfSigned.Connections());

    // ...and where it verifies, it succeeds on a connection of its own.
    ASSERT_EQ(1, Client(Trust::Off, pki).HttpGet(good.Url("/plain"), "", "", response));
    EXPECT_EQ(1, Client(Trust::CaFile, pki).HttpGet(good.Url("/verified"), "", "", response));
    EXPECT_EQ(2u, good.Connections());

    // TLS sessions: the server closes every connection, so only a cached session could carry an
    // unverified handshake over to the verified transfer.
    ASSERT_EQ(1, Client(Trust::Off, pki).HttpGet(selfSigned.Url("/close/1"), "", "", response));
    const int resumedBefore = selfSigned.Resumed();
    verified = Client(Trust::CaFolder, pki);
    EXPECT_EQ(0, verified.HttpGet(selfSigned.Url("/close/2"), "", "", response));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, verified.GetResultCode());
    // The unverified session was cached all along: the next unverified transfer resumes it.
    ASSERT_EQ(1, Client(Trust::Off, pki).HttpGet(selfSigned.Url("/close/3"), "", "", response));
    EXPECT_EQ(resumedBefore + 1, selfSigned.Resumed());
}

// A download and the speed probe check the host name too, not only the CA: against the server whose
// certificate the trusted CA signed for another host, both fail with CURLE_PEER_FAILED_VERIFICATION
// before a request goes out, and the download leaves nothing in its folder. The same client fetches
// from the server signed for 127.0.0.1, so the failure is the host name's alone.
TEST(TlsVerify, DownloadsAndTheSpeedProbeCheckTheHostName) {
    Pki pki;
    CountingServer good(&pki.good, kKeepAlive), otherHost(&pki.otherHost, kKeepAlive);
    const std::string folder = pki.dir / "downloads";
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string target = folder + "/file";
    const struct {
        const char* name;
        Trust trust;
    } trusts[] = {{"CA file", Trust::CaFile}, {"CA folder", Trust::CaFolder}};
    for (const auto& t : trusts) {
        SCOPED_TRACE(t.name);
        CHttpClientCurl client = Client(t.trust, pki);
        EXPECT_EQ(0, client.DownloadFile(otherHost.Url("/file"), target, ""));
        EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, client.GetResultCode());
        EXPECT_TRUE(std::filesystem::is_empty(folder));
        client.TestNetSpeed(otherHost.Url("/probe"), 30);
        EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, client.GetResultCode());
        EXPECT_EQ(0.0, client.GetNetSpeed());

        EXPECT_EQ(1, client.DownloadFile(good.Url("/file"), target, ""));
        EXPECT_EQ(CURLE_OK, client.GetResultCode());
        EXPECT_TRUE(std::filesystem::exists(target));
        std::filesystem::remove(target);
    }
    EXPECT_EQ(0, otherHost.Requests());
}
