// HttpPostFile sends the file it opened and checked: a name swapped for another file after the check
// changes nothing on the wire, a file that shrinks while it is sent fails the upload, and the form
// keeps its parts, file names and types.
#include "zoth/http/CHttpClientCurl.h"

#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <vector>

using ZOTH::CHttpClientCurl;
using zoth_test::LoopbackServer;
using zoth_test::TempDir;

namespace {

// A server whose "/upload" keeps the form's file part, and which runs `beforeBody` when a client
// asks to go on (Expect: 100-continue): after the client has sent its headers, before it sends the
// body. That is the moment between the upload's check and the reading of the body.
struct UploadServer {
    LoopbackServer server;
    std::mutex mutex;
    httplib::MultipartFormData part;
    std::string reqformat;
    int uploads = 0;
    std::function<void()> beforeBody;

    UploadServer() {
        server.Http().set_expect_100_continue_handler([this](const httplib::Request&, httplib::Response&) {
            if (beforeBody) beforeBody();
            return 100;
        });
        server.Http().Post("/upload", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard<std::mutex> lock(mutex);
            ++uploads;
            part = req.get_file_value("file");
            reqformat = req.get_file_value("reqformat").content;
            res.set_content("stored", "text/plain");
        });
    }
};

void Write(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

} // namespace

TEST(UploadSource, NameSwappedAfterTheCheckDoesNotChangeWhatIsSent) {
    UploadServer up;
    TempDir dir;
    const std::string name = dir / "report.txt", secret = dir / "secret.txt", swap = dir / "swap";
    Write(name, "public bytes");
    Write(secret, "SECRET BYTES"); // as long as the file, so a swap would not show by its length
    std::atomic<bool> swapped{false};
    // Another user who can write to the folder puts a link to another file in the name's place.
    // (Windows refuses the rename while the upload holds the file open: the swap fails there.)
    up.beforeBody = [&] {
        std::error_code ec;
        if (zoth_test::kWindows)
            std::filesystem::copy_file(secret, swap, ec);
        else
            std::filesystem::create_symlink(secret, swap, ec);
        if (!ec) std::filesystem::rename(swap, name, ec);
        swapped = !ec;
    };
    ASSERT_TRUE(up.server.Start());
    CHttpClientCurl client;
    client.SetCustomHeaders({"Expect: 100-continue"});
    std::string response;
    ASSERT_EQ(1, client.HttpPostFile(up.server.Url("/upload"), "", "", name, response));
    EXPECT_EQ("stored", response);
    EXPECT_TRUE(swapped || zoth_test::kWindows);
    std::lock_guard<std::mutex> lock(up.mutex);
    EXPECT_EQ("public bytes", up.part.content);
    EXPECT_EQ("report.txt", up.part.filename);
}

TEST(UploadSource, FileShrinkingWhileSentFailsTheUpload) {
    UploadServer up;
    TempDir dir;
    const std::string name = dir / "log.bin";
    Write(name, std::string(300 * 1024, 'x'));
    std::atomic<bool> shrunk{false};
    up.beforeBody = [&] {
        std::error_code ec;
        std::filesystem::resize_file(name, 1000, ec);
        shrunk = !ec;
    };
    ASSERT_TRUE(up.server.Start());
    CHttpClientCurl client;
    client.SetCustomHeaders({"Expect: 100-continue"});
    client.SetTimeOutMax(20000); // bounds the wait should the upload keep the server waiting
    std::string response;
    EXPECT_EQ(0, client.HttpPostFile(up.server.Url("/upload"), "", "", name, response));
    EXPECT_TRUE(shrunk);
    EXPECT_EQ(CURLE_READ_ERROR, client.GetResultCode());
    EXPECT_NE(client.GetErrorText().find("changed while it was sent"), std::string::npos)
        << client.GetErrorText();
    EXPECT_EQ("", response);
    std::lock_guard<std::mutex> lock(up.mutex);
    EXPECT_EQ(0, up.uploads);
}

TEST(UploadSource, WhatIsNoPlainFileIsRefusedBeforeAnythingIsSent) {
    UploadServer up;
    ASSERT_TRUE(up.server.Start());
    TempDir dir;
    std::filesystem::create_directory(dir / "folder");
    std::vector<std::string> paths = {dir / "folder", dir / "missing.txt"};
    // A device opens and reads, but gives more than its size of 0: sending it would never end.
    if (!zoth_test::kWindows) paths.push_back("/dev/zero");
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        CHttpClientCurl client;
        std::string response = "old";
        EXPECT_EQ(0, client.HttpPostFile(up.server.Url("/upload"), "", "", path, response));
        EXPECT_EQ(CURLE_READ_ERROR, client.GetResultCode());
        EXPECT_EQ("cannot read " + path +
                      " (missing, a folder, unreadable or not a plain file); nothing sent",
                  client.GetErrorText());
        EXPECT_EQ("", response);
    }
    std::lock_guard<std::mutex> lock(up.mutex);
    EXPECT_EQ(0, up.uploads);
}

TEST(UploadSource, FormOnTheWire) {
    UploadServer up;
    ASSERT_TRUE(up.server.Start());
    TempDir dir;
    const std::string big = zoth_test::Payload(3 * 1024 * 1024 + 17); // many reads, a size past 2^21
    const struct {
        const char* file;
        std::string data;
        const char* type; // the part's Content-Type, guessed from the extension
    } cases[] = {
        {"notes.txt", "plain text\n", "text/plain"},
        {"image.PNG", std::string("\x89PNG\r\n\x1a\n\0\0", 10), "image/png"},
        {"page.html", "<p>hi</p>", "text/html"},
        {"old.HTM", "<p>", "text/html"},
        {"a.gif", "GIF89a", "image/gif"},
        {"b.jpg", "jpg", "image/jpeg"},
        {"c.jpeg", "jpeg", "image/jpeg"},
        {"d.svg", "<svg/>", "image/svg+xml"},
        {"e.pdf", "%PDF", "application/pdf"},
        {"f.xml", "<x/>", "application/xml"},
        {"g.json", "{}", "application/octet-stream"},
        {"txt", "no dot", "application/octet-stream"},
        {"archive.bin", big, "application/octet-stream"},
        {"no-extension", "data", "application/octet-stream"},
        {"empty.dat", "", "application/octet-stream"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string path = dir / c.file;
        Write(path, c.data);
        CHttpClientCurl client;
        std::string response;
        ASSERT_EQ(1, client.HttpPostFile(up.server.Url("/upload"), "", "", path, response));
        EXPECT_EQ("stored", response);
        std::lock_guard<std::mutex> lock(up.mutex);
        EXPECT_EQ("plain", up.reqformat);
        EXPECT_EQ(c.file, up.part.filename);
        EXPECT_EQ(c.type, up.part.content_type);
        EXPECT_TRUE(up.part.content == c.data) << up.part.content.size() << " bytes, not " << c.data.size();
    }
}
