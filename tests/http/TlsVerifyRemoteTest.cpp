// TLS on Windows (Schannel), against the Linux-side servers of TlsFixture.h: who passes with which
// trust, every kind of transfer, unverified connections never reused by a verifying transfer, and
// connections and TLS sessions shared by many threads.
#include "zoth/http/CHttpClientCurl.h"

#include "Portable.h"
#include "TempDir.h"
#include "TlsFixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

using ZOTH::CHttpClientCurl;
using zoth_test::TempDir;
using zoth_test::TlsFixture;

namespace {

#define NEED_FIXTURE(fixture)                                                                                \
    if (!(fixture).Present())                                                                                \
    GTEST_SKIP() << "no Linux-side TLS servers (ZOTH_TLS_FIXTURE): run through scripts/run-windows-tests.sh"

enum class Trust { Off, System, CaFile, OtherCa, CaFolder };

CHttpClientCurl Client(Trust trust, const TlsFixture& fixture) {
    CHttpClientCurl client;
    if (trust == Trust::System) client.SetTlsVerify(true);
    if (trust == Trust::CaFile) client.SetTlsCaPath(fixture.Value("ca"));
    if (trust == Trust::OtherCa) client.SetTlsCaPath(fixture.Value("other_ca"));
    if (trust == Trust::CaFolder) client.SetTlsCaPath(fixture.Value("ca_folder"));
    return client;
}

} // namespace

TEST(TlsVerifyRemote, OnlyACertificateFromATrustedCaForTheHostPasses) {
    const TlsFixture fixture;
    NEED_FIXTURE(fixture);
    const struct {
        const char* name;
        std::string url;
        bool trustedByCa;
    } servers[] = {
        {"signed for localhost", fixture.Url("good", "/hello"), true},
        // libcurl 7.88's Schannel code compares the host with the certificate's DNS names
        // only: one that names 127.0.0.1 as an IP address does not verify for it.
        {"signed for 127.0.0.1, reached by address", fixture.Url("good", "/hello", "127.0.0.1"), false},
        {"signed for other.example", fixture.Url("other_host", "/hello"), false},
        {"self-signed", fixture.Url("self_signed", "/hello"), false}};
    const struct {
        const char* name;
        Trust trust;
    } trusts[] = {{"off (default)", Trust::Off},
                  {"system store", Trust::System},
                  {"CA file", Trust::CaFile},
                  {"another CA's file", Trust::OtherCa},
                  {"CA folder", Trust::CaFolder}};
    for (const auto& t : trusts) {
        // Wine's Schannel accepts any chain when it checks against the system store; Windows refuses
        // these (the system store does not know the run's CA).
        if (t.trust == Trust::System && zoth_test::UnderWine()) continue;
        for (const auto& s : servers) {
            SCOPED_TRACE(std::string(t.name) + ", " + s.name);
            CHttpClientCurl client = Client(t.trust, fixture);
            std::string response = "stale";
            const bool passes = t.trust == Trust::Off ||
                                ((t.trust == Trust::CaFile || t.trust == Trust::CaFolder) && s.trustedByCa);
            EXPECT_EQ(passes ? 1 : 0, client.HttpGet(s.url, "", "", response));
            EXPECT_EQ(passes ? CURLE_OK : CURLE_PEER_FAILED_VERIFICATION, client.GetResultCode());
            EXPECT_EQ(passes ? "/hello:" : "", response);
        }
    }
}

TEST(TlsVerifyRemote, EveryTransferKindVerifies) {
    const TlsFixture fixture;
    NEED_FIXTURE(fixture);
    TempDir dir;
    const std::string upload = dir / "upload.txt";
    std::ofstream(upload) << "part";
    CHttpClientCurl client = Client(Trust::CaFile, fixture);
    for (const char* server : {"good", "self_signed"}) {
        const bool passes = std::string(server) == "good";
        SCOPED_TRACE(server);
        const CURLcode expected = passes ? CURLE_OK : CURLE_PEER_FAILED_VERIFICATION;
        std::string response;
        EXPECT_EQ(passes, client.HttpGet(fixture.Url(server, "/get"), "", "", response) == 1);
        EXPECT_EQ(expected, client.GetResultCode());
        EXPECT_EQ(passes, client.HttpPut(fixture.Url(server, "/put"), "", "x", response) == 1);
        EXPECT_EQ(expected, client.GetResultCode());
        EXPECT_EQ(passes ? "/put:x" : "", response);
        const std::string target = dir / "download";
        EXPECT_EQ(passes, client.DownloadFile(fixture.Url(server, "/big/300000"), target, "") == 1);
        EXPECT_EQ(expected, client.GetResultCode());
        EXPECT_EQ(passes ? 300000u : 0u,
                  std::filesystem::exists(target) ? std::filesystem::file_size(target) : 0u);
        std::filesystem::remove(target);
        EXPECT_EQ(passes, client.HttpPostFile(fixture.Url(server, "/upload"), "", "", upload, response) == 1);
        EXPECT_EQ(expected, client.GetResultCode());
        EXPECT_EQ(passes ? "/upload:part" : "", response);
        client.TestNetSpeed(fixture.Url(server, "/probe"), 30);
        EXPECT_EQ(expected, client.GetResultCode());
    }
}

// A download and the speed probe check the host name, not only the CA: the server whose certificate
// the trusted CA signed for another host fails them, and the download leaves nothing in its folder.
TEST(TlsVerifyRemote, DownloadsAndTheSpeedProbeCheckTheHostName) {
    const TlsFixture fixture;
    NEED_FIXTURE(fixture);
    TempDir dir;
    const std::string folder = dir / "downloads";
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string target = folder + "/file";
    for (Trust trust : {Trust::CaFile, Trust::CaFolder}) {
        SCOPED_TRACE(trust == Trust::CaFile ? "CA file" : "CA folder");
        CHttpClientCurl client = Client(trust, fixture);
        EXPECT_EQ(0, client.DownloadFile(fixture.Url("other_host", "/big/1000"), target, ""));
        EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, client.GetResultCode());
        EXPECT_TRUE(std::filesystem::is_empty(folder));
        client.TestNetSpeed(fixture.Url("other_host", "/big/1000"), 30);
        EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, client.GetResultCode());
        EXPECT_EQ(0.0, client.GetNetSpeed());
        EXPECT_EQ(1, client.DownloadFile(fixture.Url("good", "/big/1000"), target, ""));
        EXPECT_TRUE(std::filesystem::exists(target));
        std::filesystem::remove(target);
    }
}

TEST(TlsVerifyRemote, ACaFolderWithoutCertificatesIsRefused) {
    const TlsFixture fixture;
    NEED_FIXTURE(fixture);
    TempDir dir;
    std::ofstream(dir / "notes.txt") << "no certificate here";
    CHttpClientCurl client;
    client.SetTlsCaPath(dir.Path());
    std::string response = "stale";
    EXPECT_EQ(0, client.HttpGet(fixture.Url("good", "/hello"), "", "", response));
    EXPECT_EQ(CURLE_SSL_CACERT_BADFILE, client.GetResultCode());
    EXPECT_EQ("", response);
}

TEST(TlsVerifyRemote, UnverifiedConnectionsAreNeverReusedByAVerifiedTransfer) {
    const TlsFixture fixture;
    NEED_FIXTURE(fixture);
    std::string response;
    // An unverified transfer leaves its connection and session in the shared cache; a verifying one
    // to the same server must still check the certificate, and fail.
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(
            1, Client(Trust::Off, fixture).HttpGet(fixture.Url("self_signed", "/plain"), "", "", response));
        CHttpClientCurl verified = Client(i == 0 ? Trust::CaFile : Trust::CaFolder, fixture);
        EXPECT_EQ(0, verified.HttpGet(fixture.Url("self_signed", "/verified"), "", "", response));
        EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, verified.GetResultCode());
    }
}

TEST(TlsVerifyRemote, ManyThreadsShareVerifiedConnections) {
    const TlsFixture fixture;
    NEED_FIXTURE(fixture);
    constexpr int kThreads = 4, kPerThread = 25;
    std::atomic<int> ready{0}, wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < kThreads)
                std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i) {
                CHttpClientCurl client = Client(Trust::CaFile, fixture);
                const std::string body = std::to_string(t) + "-" + std::to_string(i);
                std::string response;
                if (client.HttpPost(fixture.Url("good", "/t"), "", body, response) != 1 ||
                    response != "/t:" + body)
                    ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, wrong.load());
}
