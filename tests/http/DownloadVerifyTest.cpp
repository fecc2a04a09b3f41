// Verified downloads: the digest named by SetDownloadDigest or a binding md5 argument, checked while
// the body streams; a mismatch leaves the target as it was and no temporary file.
#include "zoth/http/CHttpClientCurl.h"

#include "Digest.h"
#include "FaultServer.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using ZOTH::CHttpClientCurl;
using zoth_test::Directive;
using zoth_test::FaultServer;
using zoth_test::HexDigest;
using zoth_test::Payload;
using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

std::string ReadAll(const std::string& path) {
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

size_t EntriesIn(const std::string& dir) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

} // namespace

TEST(DownloadVerify, DigestsMatchedAndMismatched) {
    const std::string body = Payload(3 * 100 * 1024 + 17); // several chunks of the write callback
    FaultServer server(body);
    TempDir dir;
    const std::string target = dir / "file.bin";
    const std::string sha = HexDigest("sha256", body), md5 = HexDigest("md5", body);
    std::string wrongSha = sha;
    wrongSha[10] = wrongSha[10] == '0' ? '1' : '0';
    std::string upperMd5 = md5;
    for (char& c : upperMd5)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const struct {
        const char* algorithm;
        std::string hex;
        int result;
        CURLcode code;
    } cases[] = {
        {"sha256", sha, 1, CURLE_OK},
        {"SHA256", wrongSha, 0, CURLE_BAD_CONTENT_ENCODING},
        {"md5", upperMd5, 1, CURLE_OK},
        {"md5", std::string(32, '0'), 0, CURLE_BAD_CONTENT_ENCODING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.algorithm) + " " + c.hex);
        std::ofstream(target, std::ios::binary | std::ios::trunc) << "old content";
        CHttpClientCurl client;
        ASSERT_EQ(client.SetDownloadDigest(c.algorithm, c.hex), 1);
        EXPECT_EQ(client.DownloadFile(server.Url(), target, ""), c.result);
        EXPECT_EQ(client.GetResultCode(), c.code);
        EXPECT_EQ(ReadAll(target), c.result == 1 ? body : "old content");
        EXPECT_EQ(EntriesIn(dir.Path()), 1u); // no temporary file left
    }
}

// A digest is used up by the next download whatever its outcome, travels with a copy, and is refused
// when malformed; the md5 argument binds only when asked to.
TEST(DownloadVerify, DigestIsUsedUpCopiedAndValidated) {
    const std::string body = Payload(5000);
    FaultServer server(body);
    TempDir dir;
    const std::string target = dir / "file.bin";
    const std::string wrong(64, 'a');
    CHttpClientCurl client;
    EXPECT_EQ(client.SetDownloadDigest("sha1", std::string(40, 'a')), 0);
    EXPECT_EQ(client.SetDownloadDigest("sha256", std::string(63, 'a')), 0);
    EXPECT_EQ(client.SetDownloadDigest("sha256", std::string(63, 'a') + "g"), 0);
    EXPECT_EQ(client.SetDownloadDigest("md5", wrong), 0); // a SHA-256 length for MD5
    EXPECT_EQ(client.DownloadFile(server.Url(), target, ""), 1) << "refused digests leave nothing pending";

    ASSERT_EQ(client.SetDownloadDigest("sha256", wrong), 1);
    CHttpClientCurl copy(client);
    EXPECT_EQ(copy.DownloadFile(server.Url(), dir / "copy.bin", ""), 0);
    EXPECT_EQ(copy.GetResultCode(), CURLE_BAD_CONTENT_ENCODING);
    EXPECT_EQ(copy.DownloadFile(server.Url(), dir / "copy.bin", ""), 1) << "used up by the failed download";
    // A failed transfer uses it up too.
    server.Plan({Directive().Status(404)});
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "x.bin", ""), 0);
    server.Plan({Directive()});
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "x.bin", ""), 1);
    // An empty algorithm drops a pending digest.
    ASSERT_EQ(client.SetDownloadDigest("sha256", wrong), 1);
    EXPECT_EQ(client.SetDownloadDigest("", ""), 1);
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "y.bin", ""), 1);

    // The md5 argument: ignored by default, binding after SetDownloadMd5Check(true).
    const std::string md5 = HexDigest("md5", body);
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "m.bin", std::string(32, 'f')), 1);
    client.SetDownloadMd5Check(true);
    const int requests = server.Requests();
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "n.bin", "not an md5"), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(server.Requests(), requests) << "a malformed md5 is refused before any request";
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "n.bin", std::string(32, 'f')), 0);
    EXPECT_EQ(client.GetResultCode(), CURLE_BAD_CONTENT_ENCODING);
    EXPECT_FALSE(fs::exists(dir / "n.bin"));
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "n.bin", md5), 1);
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "e.bin", ""), 1) << "an empty md5 binds nothing";
    // A named digest wins over the md5 argument.
    ASSERT_EQ(client.SetDownloadDigest("sha256", HexDigest("sha256", body)), 1);
    EXPECT_EQ(client.DownloadFile(server.Url(), dir / "w.bin", std::string(32, 'f')), 1);
}
