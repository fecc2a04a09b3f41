// zoth commands and demo section of the http subsystem.
#include "Commands.h"
#include "ProxyFlags.h"

#include "zoth/file/CFileHepler.h"
#include "zoth/http/CHttpClientCurl.h"

// The demo's loopback server is cpp-httplib; the digest it checks the download against comes from
// OpenSSL on Linux and from the system's CNG on Windows (where cpp-httplib is built without OpenSSL).
#if defined(_WIN32)
#include <httplib.h>
// after httplib.h, which brings winsock2.h before windows.h
#include <bcrypt.h>
#else
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <httplib.h>
#include <openssl/evp.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace zoth_cli {

namespace {

using ZOTH::CHttpClientCurl;

int TransferFailed(const char* what, CHttpClientCurl& client) {
    return Error(std::string(what) + " failed: libcurl code " + std::to_string(client.GetResultCode()));
}

int PrintBody(const std::string& body) {
    std::fwrite(body.data(), 1, body.size(), stdout);
    return 0;
}

// Applies `--verify` and `--cacert FILE` (which implies --verify) from the front of args to client
// and leaves what follows them in rest. Empty when they were well formed, else the message for Fail.
std::string TakeTlsOptions(const Args& args, CHttpClientCurl& client, Args& rest) {
    size_t used = 0;
    while (used < args.size() && args[used].size() > 1 && args[used][0] == '-') {
        if (args[used] == "--verify") {
            client.SetTlsVerify(true);
            used += 1;
        } else if (args[used] == "--cacert") {
            if (used + 1 >= args.size() || args[used + 1].empty()) return "--cacert needs a FILE";
            client.SetTlsCaPath(args[used + 1]);
            used += 2;
        } else {
            // The proxy options and -v (ProxyFlags.cpp).
            std::string error;
            const int taken = TakeProxyOption(args, used, client, error);
            if (taken < 0) return error;
            if (taken == 0) return "unknown option " + args[used];
        }
    }
    rest.assign(args.begin() + static_cast<std::ptrdiff_t>(used), args.end());
    return "";
}

// `get|post|put [TLS options] URL [DATA]`: DATA "-" reads standard input.
int RunRequest(const Args& given, ZOTH::EREQUEST_METHOD_tag method, const char* name) {
    CHttpClientCurl client;
    Args args;
    const std::string bad = TakeTlsOptions(given, client, args);
    if (!bad.empty()) return Fail(bad);
    if (args.empty() || args.size() > 2) return Fail(std::string(name) + " needs URL [DATA]");
    if (int missing = NeedDll(name, kCurlDll)) return missing;
    std::string data = args.size() == 2 ? args[1] : "";
    if (data == "-") data = ReadStdin();
    std::string response;
    const std::string& proxy = ProxyArgument();
    int ok = method == ZOTH::EREQUEST_METHOD_GET    ? client.HttpGet(args[0], proxy, data, response)
             : method == ZOTH::EREQUEST_METHOD_POST ? client.HttpPost(args[0], proxy, data, response)
                                                    : client.HttpPut(args[0], proxy, data, response);
    ReportProxy(client);
    if (!ok) return TransferFailed(name, client);
    return PrintBody(response);
}

int RunGet(const Args& args) {
    return RunRequest(args, ZOTH::EREQUEST_METHOD_GET, "get");
}
int RunPost(const Args& args) {
    return RunRequest(args, ZOTH::EREQUEST_METHOD_POST, "post");
}
int RunPut(const Args& args) {
    return RunRequest(args, ZOTH::EREQUEST_METHOD_PUT, "put");
}

// A one-line bar on stderr, redrawn at most every 100 ms and when the count is complete.
class ProgressBar {
public:
    explicit ProgressBar(const char* unit = "bytes") : m_unit(unit) {}
    void operator()(double total, double now) {
        auto t = std::chrono::steady_clock::now();
        const bool complete = total > 0 && now >= total;
        if (now == m_lastNow || (t - m_last < std::chrono::milliseconds(100) && !complete)) return;
        m_last = t;
        m_lastNow = now;
        if (!m_started) {
            m_start = t;
            m_startNow = now;
            m_started = true;
        }
        const int width = 30;
        // The rate of this run: bytes counted as already there (a resumed part) are not received.
        const double seconds = std::chrono::duration<double>(t - m_start).count();
        const double rate = seconds > 0.2 ? (now - m_startNow) / seconds : 0.0;
        if (total > 0) {
            now = std::min(now, total);
            int filled = static_cast<int>(width * now / total);
            std::fprintf(stderr, "\r[%-*s] %5.1f%% %.0f/%.0f %s %s/s %s   ", width,
                         std::string(filled, '#').c_str(), 100.0 * now / total, now, total, m_unit,
                         Human(rate).c_str(),
                         rate > 0 ? ("ETA " + Clock((total - now) / rate)).c_str() : "ETA --:--");
        } else {
            std::fprintf(stderr, "\r%.0f %s %s/s   ", now, m_unit, Human(rate).c_str());
        }
        m_drawn = true;
    }
    // "12.3M": a byte count with a binary unit, as curl shows it.
    static std::string Human(double bytes) {
        const char* units = "BKMGT";
        int unit = 0;
        while (bytes >= 1024 && unit < 4) {
            bytes /= 1024;
            ++unit;
        }
        char text[32];
        std::snprintf(text, sizeof text, unit == 0 ? "%.0f%c" : "%.1f%c", bytes, units[unit]);
        return text;
    }
    // "1:02:03" or "02:03".
    static std::string Clock(double seconds) {
        const long s = static_cast<long>(seconds + 0.5);
        char text[32];
        if (s >= 3600)
            std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
        else
            std::snprintf(text, sizeof text, "%02ld:%02ld", s / 60, s % 60);
        return text;
    }
    // Ends the bar's line, if one was drawn.
    void Finish() {
        if (m_drawn) std::fprintf(stderr, "\n");
        m_drawn = false;
    }

private:
    const char* m_unit;
    std::chrono::steady_clock::time_point m_last{};
    double m_lastNow = -1;
    bool m_drawn = false;
    bool m_started = false;
    std::chrono::steady_clock::time_point m_start{};
    double m_startNow = 0;
};

// Takes the download's own options (--resume, --sha256 HEX, --md5 HEX, --retry N, --retry-max-time S) from
// the front of args and applies them; leaves the rest, TLS options included, in rest. Empty when
// they were well formed, else the message for Fail.
std::string TakeDownloadOptions(const Args& args, CHttpClientCurl& client, Args& rest) {
    int retries = 0;
    long maxSeconds = 0;
    rest.clear();
    size_t i = 0;
    for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
        const std::string& option = args[i];
        if (option == "--resume") {
            client.SetDownloadResume(true);
            continue;
        }
        if (option != "--sha256" && option != "--md5" && option != "--retry" &&
            option != "--retry-max-time") {
            rest.push_back(option);
            if (option == "--cacert" && i + 1 < args.size()) rest.push_back(args[++i]);
            continue;
        }
        if (i + 1 >= args.size()) return option + " needs a value";
        const std::string& value = args[++i];
        char* end = nullptr;
        if (option == "--sha256" || option == "--md5") {
            if (!client.SetDownloadDigest(option.substr(2), value))
                return option + ": not a digest: " + value;
        } else if (option == "--retry") {
            const long n = std::strtol(value.c_str(), &end, 10);
            if (*end != '\0' || value.empty() || n < 0 || n > 1000) return "--retry needs a count 0..1000";
            retries = static_cast<int>(n);
        } else {
            maxSeconds = std::strtol(value.c_str(), &end, 10);
            if (*end != '\0' || value.empty() || maxSeconds < 0 || maxSeconds > 86400 * 7)
                return "--retry-max-time needs seconds";
        }
    }
    rest.insert(rest.end(), args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
    if (retries > 0 || maxSeconds > 0)
        client.SetRetryPolicy(retries + 1, static_cast<DWORD>(maxSeconds * 1000));
    return "";
}

int RunDownload(const Args& given) {
    CHttpClientCurl client;
    Args args, options;
    std::string bad = TakeDownloadOptions(given, client, options);
    if (bad.empty()) bad = TakeTlsOptions(options, client, args);
    if (!bad.empty()) return Fail(bad);
    if (args.size() != 2) return Fail("download needs URL FILE");
    if (!ProxyArgument().empty()) return Fail("download takes no --proxy; --system-proxy applies");
    if (int missing = NeedDll("download", kCurlDll)) return missing;
    ProgressBar bar;
    const bool draw = isatty(STDOUT_FILENO);
    // A resumed download reports the kept bytes as done from its first progress call on.
    bool first = true;
    client.SetProgressObserver([&](double total, double now) {
        if (first && now > 0) std::fprintf(stderr, "resumed at %.0f bytes\n", now);
        first = false;
        if (draw) bar(total, now);
    });
    const int ok = client.DownloadFile(args[0], args[1], "");
    bar.Finish();
    ReportProxy(client);
    if (!ok) {
        if (client.GetResultCode() == CURLE_BAD_CONTENT_ENCODING)
            return Error("download failed: the content does not have the digest asked for; " + args[1] +
                         " left as it was");
        if (client.GetResultCode() != CURLE_OK) return TransferFailed("download", client);
        return Error("download failed: not a complete 200 answer, or " + args[1] + " cannot be written");
    }
    std::printf("%s: %u bytes\n", args[1].c_str(), static_cast<unsigned>(client.GetTotalSize()));
    return 0;
}

int RunUpload(const Args& given) {
    CHttpClientCurl client;
    Args args;
    const std::string bad = TakeTlsOptions(given, client, args);
    if (!bad.empty()) return Fail(bad);
    if (args.size() != 2) return Fail("upload needs URL FILE");
    if (int missing = NeedDll("upload", kCurlDll)) return missing;
    std::string response;
    const int ok = client.HttpPostFile(args[0], ProxyArgument(), "", args[1], response);
    ReportProxy(client);
    if (!ok) return TransferFailed("upload", client);
    return PrintBody(response);
}

int RunSpeed(const Args& given) {
    CHttpClientCurl client;
    Args args;
    const std::string bad = TakeTlsOptions(given, client, args);
    if (!bad.empty()) return Fail(bad);
    if (args.size() != 2) return Fail("speed needs URL SECONDS");
    if (!ProxyArgument().empty()) return Fail("speed takes no --proxy; --system-proxy applies");
    char* end = nullptr;
    long seconds = std::strtol(args[1].c_str(), &end, 10);
    if (end == args[1].c_str() || *end != '\0' || seconds <= 0 || seconds > 3600)
        return Fail("SECONDS must be a whole number from 1 to 3600");
    if (int missing = NeedDll("speed", kCurlDll)) return missing;
    // On a terminal the bar shows the probe's time running out.
    ProgressBar bar("ms");
    const auto start = std::chrono::steady_clock::now();
    if (isatty(STDOUT_FILENO))
        client.SetProgressObserver([&](double, double) {
            auto elapsed =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start);
            bar(seconds * 1000.0, elapsed.count());
        });
    client.TestNetSpeed(args[0], static_cast<int>(seconds));
    bar.Finish();
    ReportProxy(client);
    const CURLcode code = client.GetResultCode();
    // The limit ends a probe of a long stream with a write error: that is its ordinary end.
    if (code != CURLE_OK && code != CURLE_WRITE_ERROR) return TransferFailed("speed probe", client);
    std::printf("%.3f Mbit/s (%u bytes in %u ms)\n", client.GetNetSpeed(),
                static_cast<unsigned>(client.GetTotalSize()),
                static_cast<unsigned>(client.GetEndTime() - client.GetStartTime()));
    return 0;
}

int RunWget(const Args& args) {
    if (args.size() != 2) return Fail("wget needs HOST PATH");
    CHttpClientCurl client;
    std::string response;
    if (!client.WininetHttpGet(args[0], args[1], response))
        return Error("wget failed: no answer from " + args[0]);
    return PrintBody(response);
}

std::string Md5Hex(const std::string& data) {
    unsigned char digest[16] = {};
    unsigned int length = 0;
#if defined(_WIN32)
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_MD5_ALGORITHM, nullptr, 0) == 0) {
        if (BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0) == 0 &&
            BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char*>(data.data())),
                           static_cast<ULONG>(data.size()), 0) == 0 &&
            BCryptFinishHash(hash, digest, sizeof digest, 0) == 0)
            length = sizeof digest;
        if (hash != nullptr) BCryptDestroyHash(hash);
        BCryptCloseAlgorithmProvider(algorithm, 0);
    }
#else
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
#endif
    std::string hex;
    char two[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(two, sizeof(two), "%02x", digest[i]);
        hex += two;
    }
    return hex;
}

} // namespace

// Shown in the usage of every libcurl command.
#define TLS_OPTIONS_HELP                                                                                     \
    "\n  --verify       verify the HTTPS server's certificate and host name (system trust store)"            \
    "\n  --cacert FILE  trust the CA certificates in FILE (or a hashed folder) instead; implies --verify"    \
    "\nWithout them HTTPS is encrypted but not authenticated: any certificate is "                           \
    "accepted." PROXY_OPTIONS_HELP

std::vector<Command> HttpCommands() {
    return {
        {"get",
         "get [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] "
         "URL" TLS_OPTIONS_HELP,
         "GET a URL and print the body", RunGet},
        {"post",
         "post [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] URL "
         "[DATA|-]" TLS_OPTIONS_HELP,
         "POST DATA (or standard input) and print the body", RunPost},
        {"put",
         "put [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] URL "
         "[DATA|-]" TLS_OPTIONS_HELP,
         "PUT DATA (or standard input) and print the body", RunPut},
        {"download",
         "download [-v] [--proxy-user USER:PASS] [--system-proxy] [--resume] [--sha256 HEX] [--md5 HEX] "
         "[--retry N] [--retry-max-time S] [--verify] [--cacert FILE] URL FILE" TLS_OPTIONS_HELP,
         "download a URL whole into FILE (only a complete 200 answer, with the digest asked for); --retry "
         "tries a passing failure N more times within S seconds; --resume keeps what a cut download received "
         "and continues from there next time",
         RunDownload},
        {"upload",
         "upload [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] URL "
         "FILE" TLS_OPTIONS_HELP,
         "post FILE as a multipart form and print the answer", RunUpload},
        {"speed",
         "speed [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] URL "
         "SECONDS" TLS_OPTIONS_HELP,
         "measure download speed from URL for at most SECONDS", RunSpeed},
        {"wget", "wget HOST PATH", "plain HTTP GET of PATH from HOST on port 80", RunWget},
    };
}

void HttpDemo(Demo& demo) {
    if (!CanLoadDll(kCurlDll)) { // a Windows build that delay-loads a libcurl which is not there
        for (const char* step :
             {"GET /hello", "download 1.5 MiB + MD5 check", "multipart upload", "speed probe (1 s)"})
            demo.Skip("http", step, std::string(kCurlDll) + " cannot be loaded");
        return;
    }
    // An embedded server on 127.0.0.1, an ephemeral port, with the routes the steps need.
    std::string file(1536 * 1024, '\0');
    for (size_t i = 0; i < file.size(); ++i)
        file[i] = static_cast<char>((i * 7919) >> 3);
    std::string uploaded;
    std::mutex mutex;
    httplib::Server server;
    server.set_keep_alive_timeout(1);
    server.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("hello from the loopback server", "text/plain");
    });
    server.Get("/file", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(file, "application/octet-stream");
    });
    server.Post("/upload", [&](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard<std::mutex> lock(mutex);
        uploaded = req.has_file("file") ? req.get_file_value("file").content : "";
        res.set_content("received " + std::to_string(uploaded.size()) + " bytes", "text/plain");
    });
    std::atomic<bool> stopping{false};
    server.Get("/stream", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("application/octet-stream", [&](size_t, httplib::DataSink& sink) {
            std::string chunk(64 * 1024, 's');
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            return !stopping && sink.write(chunk.data(), chunk.size());
        });
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0) {
        demo.Step("http", "start loopback server", false, "cannot bind 127.0.0.1");
        return;
    }
    std::thread serving([&] { server.listen_after_bind(); });
    while (!server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::string base = "http://127.0.0.1:" + std::to_string(port);
    demo.Step("http", "start loopback server", true, base);

    CHttpClientCurl client;
    std::string response;
    int ok = client.HttpGet(base + "/hello", "", "", response);
    demo.Step("http", "GET /hello", ok && response == "hello from the loopback server",
              ok ? "\"" + response + "\"" : "libcurl code " + std::to_string(client.GetResultCode()));

    const std::string target = demo.WorkDir() + "/download.bin";
    ok = client.DownloadFile(base + "/file", target, "");
    const std::string expected = Md5Hex(file);
    const std::string actual =
        ok ? ZOTH::CFileHepler::GetFileMd5(target, demo.WorkDir() + "/download.tmp") : "";
    demo.Step("http", "download 1.5 MiB + MD5 check", ok && actual == expected,
              ok ? "md5 " + actual + (actual == expected ? " matches" : " differs from " + expected)
                 : "download failed, libcurl code " + std::to_string(client.GetResultCode()));

    const std::string source = demo.WorkDir() + "/upload.txt";
    std::ofstream(source, std::ios::binary) << "a file sent as multipart form data\n";
    ok = client.HttpPostFile(base + "/upload", "", "", source, response);
    bool same;
    {
        std::lock_guard<std::mutex> lock(mutex);
        same = uploaded == "a file sent as multipart form data\n";
    }
    demo.Step("http", "multipart upload", ok && same,
              ok ? response : "libcurl code " + std::to_string(client.GetResultCode()));

    client.TestNetSpeed(base + "/stream", 1);
    const double speed = client.GetNetSpeed();
    demo.Step("http", "speed probe (1 s)", client.GetResultCode() == CURLE_WRITE_ERROR && speed > 0,
              std::to_string(speed) + " Mbit/s over " + std::to_string(client.GetTotalSize()) + " bytes");

    stopping = true;
    server.stop();
    serving.join();
}

} // namespace zoth_cli
