// The HTTP commands of the zoth tool, run as a process against a loopback server: curl's conventions
// (-f, -L, -i, standard input), failures in words, refused input, and the speed line.
#include "CliRun.h"

#if !defined(_WIN32)
#define CPPHTTPLIB_OPENSSL_SUPPORT
#endif
#include <httplib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

namespace {

std::string NoCr(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

// A file or folder name for the tool, in a folder of the test's own.
class Folder {
public:
    Folder()
        : m_path(std::filesystem::temp_directory_path() /
                 ("zoth-cli-http-" + std::to_string(std::random_device{}()))) {
        std::filesystem::create_directories(m_path / "folder");
        std::ofstream(m_path / "upload.txt", std::ios::binary) << "file content 123";
    }
    ~Folder() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    std::string operator/(const char* name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

} // namespace

TEST(CliHttp, CommandsAsAProcess) {
    httplib::Server server;
    std::atomic<int> uploads{0};
    std::atomic<bool> stopping{false};
    server.set_keep_alive_timeout(1);
    server.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("hello", "text/plain");
    });
    server.Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("no such page", "text/plain");
    });
    server.Get("/moved", [](const httplib::Request&, httplib::Response& res) {
        res.status = 302;
        res.set_header("Location", "/hello");
        res.set_content("moved", "text/plain");
    });
    const auto echo = [](const httplib::Request& req, httplib::Response& res) {
        res.set_content(req.method + " [" + req.body + "]", "text/plain");
    };
    server.Post("/echo", echo);
    server.Put("/echo", echo);
    server.Post("/upload", [&](const httplib::Request& req, httplib::Response& res) {
        ++uploads;
        res.set_content("got " + req.get_file_value("file").content, "text/plain");
    });
    server.Get("/stream", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream", [&](size_t, httplib::DataSink& sink) {
            const std::string chunk(16 * 1024, 's');
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            return !stopping && sink.write(chunk.data(), chunk.size());
        });
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port, 0);
    std::thread serving([&] { server.listen_after_bind(); });
    while (!server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::string base = "http://127.0.0.1:" + std::to_string(port);
    // A port where nothing listens.
    int closed = 0;
    {
        httplib::Server gone;
        closed = gone.bind_to_any_port("127.0.0.1");
        std::thread listening([&] { gone.listen_after_bind(); });
        while (!gone.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        gone.stop(); // closes the socket: nothing listens there any more
        listening.join();
    }
    Folder dir;
    const std::string fileUrl =
        (dir / "upload.txt")[0] == '/' ? "file://" + dir / "upload.txt" : "file:///" + dir / "upload.txt";

    const struct {
        std::vector<std::string> args;
        std::string stdinData;
        int exitCode;
        std::string out; // the whole standard output, or with a leading '~' a part of it
        std::string err; // a part of standard error ("" when it must be empty)
        bool uploads;    // whether the server may receive an upload
    } cases[] = {
        {{"get", base + "/hello"}, "", 0, "hello", "", false},
        // A status of 400 or more is an answer: printed, exit 0; with -f it fails with code 22.
        {{"get", base + "/missing"}, "", 0, "no such page", "", false},
        {{"get", "-f", base + "/missing"}, "", 22, "", "HTTP status 404 Not Found", false},
        {{"get", base + "/missing", "--fail"}, "", 22, "", "HTTP status 404", false},
        {{"get", "-i", base + "/hello"}, "", 0, "~HTTP/1.1 200 OK", "", false},
        {{"get", "-i", base + "/hello"}, "", 0, "~\r\n\r\nhello", "", false},
        // Redirects: the answer unless -L.
        {{"get", base + "/moved"}, "", 0, "moved", "", false},
        {{"get", "-L", base + "/moved"}, "", 0, "hello", "", false},
        {{"get", "--location", "-f", base + "/moved"}, "", 0, "hello", "", false},
        // DATA, "-" or nothing: standard input.
        {{"post", base + "/echo", "a=1"}, "ignored", 0, "POST [a=1]", "", false},
        {{"post", base + "/echo"}, "from stdin", 0, "POST [from stdin]", "", false},
        {{"put", base + "/echo", "-"}, "put stdin", 0, "PUT [put stdin]", "", false},
        {{"put", base + "/echo"}, "", 0, "PUT []", "", false},
        // Failures in words.
        {{"get", fileUrl}, "", 1, "", "get failed: Unsupported protocol", false},
        {{"get", "http://127.0.0.1:" + std::to_string(closed) + "/"},
         "",
         1,
         "",
         "get failed: Couldn't connect to server",
         false},
        {{"download", base + "/missing", dir / "d1"}, "", 1, "", "download failed: HTTP status 404", false},
        {{"download", "-L", base + "/moved", dir / "d2"}, "", 0, "~: 5 bytes", "", false},
        // Usage errors name the argument.
        {{"get", base + "/hello", "extra"}, "", 2, "", "unexpected argument 'extra'", false},
        {{"get", "--bogus", base + "/hello"}, "", 2, "", "unknown option '--bogus'", false},
        {{"post", base + "/echo", "a", "b"}, "", 2, "", "unexpected argument 'b'", false},
        {{"download", base + "/hello"}, "", 2, "", "missing arguments", false},
        {{"download", "-f", base + "/hello", dir / "d3"}, "", 2, "", "unknown option '-f'", false},
        {{"speed", base + "/stream", "soon"}, "", 2, "", "'soon'", false},
        // Uploads: a folder or a missing file is refused before anything is sent.
        {{"upload", base + "/upload", dir / "folder"}, "", 1, "", "upload failed: cannot read", false},
        {{"upload", base + "/upload", dir / "none"}, "", 1, "", "upload failed: cannot read", false},
        {{"upload", base + "/upload", dir / "upload.txt"}, "", 0, "got file content 123", "", true},
        // Speed: bytes and time under a second, a true unit over one, never nan or inf.
        {{"speed", base + "/hello", "2"}, "", 0, "~5 bytes in ", "", false},
        {{"speed", base + "/stream", "1"}, "", 0, "~ Mbit/s (", "", false},
        {{"speed", base + "/missing", "1"}, "", 1, "", "speed probe failed: HTTP status 404", false},
        // Help: the description, then the usage, then the options.
        {{"get", "--help"}, "", 0, "~GET a URL and print the body\n\nusage: zoth get ", "", false},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const std::string& arg : c.args)
            line += arg + " ";
        SCOPED_TRACE(line);
        const int uploadsBefore = uploads;
        const CliResult r = RunZoth(c.args, c.stdinData);
        const std::string out = NoCr(r.out), err = NoCr(r.err);
        EXPECT_EQ(r.exitCode, c.exitCode) << err;
        if (!c.out.empty() && c.out[0] == '~') {
            EXPECT_NE(out.find(NoCr(c.out.substr(1))), std::string::npos) << out;
        } else {
            EXPECT_EQ(out, c.out);
        }
        if (c.err.empty()) {
            EXPECT_EQ(err, "");
        } else {
            EXPECT_NE(err.find(c.err), std::string::npos) << err;
        }
        for (const char* never : {"nan", "inf"}) {
            EXPECT_EQ(out.find(never), std::string::npos) << out;
        }
        if (!c.uploads) {
            EXPECT_EQ(uploads, uploadsBefore) << "the server received an upload";
        }
    }
    // -i prints one head: the redirect's own without -L; with -L the final response's alone, since
    // the client keeps no head of the hops it followed.
    const struct {
        std::vector<std::string> args;
        std::string firstLine;
    } heads[] = {
        {{"get", "-i", base + "/moved"}, "HTTP/1.1 302 Found\n"},
        {{"get", "-i", "-L", base + "/moved"}, "HTTP/1.1 200 OK\n"},
    };
    for (const auto& h : heads) {
        SCOPED_TRACE(h.args.size() == 4 ? "-i -L" : "-i");
        const std::string out = NoCr(RunZoth(h.args).out);
        EXPECT_EQ(out.rfind(h.firstLine, 0), 0u) << out;
        size_t count = 0;
        for (size_t at = out.find("HTTP/1."); at != std::string::npos; at = out.find("HTTP/1.", at + 1))
            ++count;
        EXPECT_EQ(count, 1u) << out;
        EXPECT_NE(out.find("\n\n"), std::string::npos) << "no blank line after the head: " << out;
    }

    // The help's options come after its usage line.
    const std::string help = NoCr(RunZoth({"post", "--help"}).out);
    EXPECT_LT(help.find("usage: zoth post"), help.find("-f, --fail"));

    stopping = true;
    server.stop();
    serving.join();
}
