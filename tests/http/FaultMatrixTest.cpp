// Every misbehaviour of the fault server against a plain download and a retried one (three attempts,
// the fault on the first request only): the target is the old file or the whole new one and nothing
// else, no temporary file stays, and the result and code say what happened. Every download names the
// body's SHA-256, so a body that is complete by its announced length but not the real one is caught
// too. docs/testing.md has this table.
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
using zoth_test::Payload;
using zoth_test::TempDir;
namespace fs = std::filesystem;

namespace {

std::string ReadAll(const std::string& path) {
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

std::string Sha256Hex(const std::string& data) {
    return zoth_test::HexDigest("sha256", data);
}

struct Outcome {
    int result;
    CURLcode code;
};

} // namespace

// The same directives against a resumed request: a first download with resume on is cut halfway, then
// the second meets the directive. The partial is kept exactly when the second ends without the file
// and what it has is still sound; "kept" says so.
TEST(FaultMatrix, ResumedDownloads) {
    const std::string body = Payload(300 * 1024 + 5), shortBody = Payload(200);
    FaultServer server(body);
    const struct {
        const char* name;
        Directive fault;
        Outcome resumed;
        bool kept;
    } cases[] = {
        {"close after 1000 bytes", Directive().CloseAfter(1000), {0, CURLE_PARTIAL_FILE}, true},
        {"stall 300 ms after 1000 bytes", Directive().Stall(1000, 300), {1, CURLE_OK}, false},
        {"drip a byte every 2 ms", Directive().Drip(2), {1, CURLE_OK}, false},
        {"Content-Length 10 too long", Directive().LengthDelta(10), {0, CURLE_PARTIAL_FILE}, true},
        {"Content-Length 10 too short", Directive().LengthDelta(-10), {0, CURLE_OK}, false},
        {"200 instead of 206", Directive().IgnoreRange(), {1, CURLE_OK}, false},
        {"416", Directive().Status(416), {0, CURLE_OK}, true},
        {"changed ETag", Directive().ETag("\"v2\""), {1, CURLE_OK}, false},
        {"chunked, no length", Directive().Chunked(), {0, CURLE_OK}, false},
        {"redirect", Directive().Status(302).Location(server.Url("/elsewhere")), {0, CURLE_OK}, true},
        {"503", Directive().Status(503), {0, CURLE_OK}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string& expected = c.fault.dripMs > 0 ? shortBody : body;
        server.SetBody(expected);
        TempDir dir;
        const std::string target = dir / "file.bin";
        std::ofstream(target, std::ios::binary) << "old content";
        CHttpClientCurl client;
        client.SetDownloadResume(true);
        server.Plan({Directive().CloseAfter(static_cast<long>(expected.size() / 2)), c.fault, Directive()});
        ASSERT_EQ(client.DownloadFile(server.Url(), target, ""), 0);
        ASSERT_EQ(client.SetDownloadDigest("sha256", Sha256Hex(expected)), 1);
        EXPECT_EQ(client.DownloadFile(server.Url(), target, ""), c.resumed.result);
        EXPECT_EQ(client.GetResultCode(), c.resumed.code);
        EXPECT_EQ(ReadAll(target), c.resumed.result == 1 ? expected : "old content");
        EXPECT_EQ(fs::exists(dir / ".file.bin.zdl-part"), c.kept);
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()),
                  c.kept ? 2 : 1);
        // Whatever was kept, the next plain answer ends with the whole file.
        EXPECT_EQ(client.DownloadFile(server.Url(), target, ""), 1);
        EXPECT_EQ(ReadAll(target), expected);
    }
}

TEST(FaultMatrix, PlainAndRetriedDownloads) {
    const std::string body = Payload(300 * 1024 + 5);
    FaultServer server(body);
    const std::string redirect = server.Url("/elsewhere");
    const struct {
        const char* name;
        Directive fault;
        Outcome plain, retried;
    } cases[] = {
        {"close after 1000 bytes", Directive().CloseAfter(1000), {0, CURLE_PARTIAL_FILE}, {1, CURLE_OK}},
        {"stall 300 ms after 1000 bytes", Directive().Stall(1000, 300), {1, CURLE_OK}, {1, CURLE_OK}},
        {"drip a byte every 2 ms", Directive().Drip(2), {1, CURLE_OK}, {1, CURLE_OK}},
        {"Content-Length 10 too long", Directive().LengthDelta(10), {0, CURLE_PARTIAL_FILE}, {1, CURLE_OK}},
        {"Content-Length 10 too short",
         Directive().LengthDelta(-10),
         {0, CURLE_BAD_CONTENT_ENCODING},
         {0, CURLE_BAD_CONTENT_ENCODING}},
        {"200 instead of 206", Directive().IgnoreRange(), {1, CURLE_OK}, {1, CURLE_OK}},
        {"416", Directive().Status(416), {0, CURLE_OK}, {0, CURLE_OK}},
        {"changed ETag", Directive().ETag("\"v2\""), {1, CURLE_OK}, {1, CURLE_OK}},
        {"chunked, no length", Directive().Chunked(), {0, CURLE_OK}, {0, CURLE_OK}},
        {"redirect", Directive().Status(302).Location(redirect), {0, CURLE_OK}, {0, CURLE_OK}},
        {"503", Directive().Status(503), {0, CURLE_OK}, {1, CURLE_OK}},
    };
    // Drips are slow: the dripped cases use a short body.
    const std::string shortBody = Payload(200);
    for (const auto& c : cases) {
        const bool drip = c.fault.dripMs > 0;
        const std::string& expected = drip ? shortBody : body;
        server.SetBody(expected);
        for (bool retried : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (retried ? ", retried" : ", plain"));
            TempDir dir;
            const std::string target = dir / "file.bin";
            std::ofstream(target, std::ios::binary) << "old content";
            CHttpClientCurl client;
            if (retried) client.SetRetryPolicy(3, 0, 10);
            ASSERT_EQ(client.SetDownloadDigest("sha256", Sha256Hex(expected)), 1);
            server.Plan({c.fault, Directive()});
            const Outcome want = retried ? c.retried : c.plain;
            EXPECT_EQ(client.DownloadFile(server.Url(), target, ""), want.result);
            EXPECT_EQ(client.GetResultCode(), want.code);
            EXPECT_EQ(ReadAll(target), want.result == 1 ? expected : "old content");
            EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()), 1);
        }
    }
}
