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

// "get failed: Couldn't connect to server: Failed to connect to ... (libcurl code 7)".
int TransferFailed(const char* what, CHttpClientCurl& client) {
    std::string text = client.GetErrorText();
    const CURLcode code = client.GetResultCode();
    if (text.empty()) text = curl_easy_strerror(code);
    if (code != CURLE_OK) text += " (libcurl code " + std::to_string(code) + ")";
    return Error(std::string(what) + " failed: " + text);
}

int PrintBody(const std::string& body) {
    std::fwrite(body.data(), 1, body.size(), stdout);
    return 0;
}

// curl's conventions beside the TLS and proxy options.
struct HttpFlags {
    bool fail = false;    // -f, --fail: a status of 400 or more exits 22, the body unprinted
    bool include = false; // -i, --include: the response head before the body
};

// Which options a command takes beyond the TLS and proxy options and -L.
enum : unsigned { kResponseFlags = 1, kDownloadFlags = 2 };

// A download's own options: --resume, --sha256 HEX, --md5 HEX, --retry N, --retry-max-time S. 1 when
// args[i] is one (i moves past its value), 0 when not, -1 when malformed (message in error).
int TakeDownloadOption(const Args& args, size_t& i, CHttpClientCurl& client, int& retries, long& maxSeconds,
                       std::string& error) {
    const std::string& option = args[i];
    if (option == "--resume") {
        client.SetDownloadResume(true);
        return 1;
    }
    if (option != "--sha256" && option != "--md5" && option != "--retry" && option != "--retry-max-time")
        return 0;
    if (i + 1 >= args.size()) {
        error = option + " needs a value";
        return -1;
    }
    const std::string& value = args[++i];
    char* end = nullptr;
    if (option == "--sha256" || option == "--md5") {
        if (!client.SetDownloadDigest(option.substr(2), value)) error = option + ": not a digest: " + value;
    } else if (option == "--retry") {
        const long n = std::strtol(value.c_str(), &end, 10);
        if (*end != '\0' || value.empty() || n < 0 || n > 1000) error = "--retry needs a count 0..1000";
        retries = static_cast<int>(n);
    } else {
        maxSeconds = std::strtol(value.c_str(), &end, 10);
        if (*end != '\0' || value.empty() || maxSeconds < 0 || maxSeconds > 86400 * 7)
            error = "--retry-max-time needs seconds";
    }
    return error.empty() ? 1 : -1;
}

// Takes the options wherever they stand before a "--" and applies them to client; the other
// arguments go to positional in order ("-" alone is one: standard input). Empty when well formed,
// else the message for Fail, naming the argument.
std::string TakeOptions(const Args& args, unsigned accept, CHttpClientCurl& client, HttpFlags& flags,
                        Args& positional) {
    int retries = 0;
    long maxSeconds = 0;
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        std::string error;
        if (arg == "--") {
            optionsEnded = true;
        } else if (arg == "--verify") {
            client.SetTlsVerify(true);
        } else if (arg == "--cacert") {
            if (i + 1 >= args.size() || args[i + 1].empty()) return "--cacert needs a FILE";
            client.SetTlsCaPath(args[++i]);
        } else if (arg == "-L" || arg == "--location") {
            client.SetFollowRedirects(true);
        } else if ((accept & kResponseFlags) && (arg == "-f" || arg == "--fail")) {
            flags.fail = true;
        } else if ((accept & kResponseFlags) && (arg == "-i" || arg == "--include")) {
            flags.include = true;
        } else if ((accept & kDownloadFlags) &&
                   TakeDownloadOption(args, i, client, retries, maxSeconds, error) != 0) {
            if (!error.empty()) return error;
        } else {
            // The proxy options and -v (ProxyFlags.cpp).
            size_t used = i;
            const int taken = TakeProxyOption(args, used, client, error);
            if (taken < 0) return error;
            if (taken == 0) return "unknown option '" + arg + "'";
            i = used - 1;
        }
    }
    if (retries > 0 || maxSeconds > 0)
        client.SetRetryPolicy(retries + 1, static_cast<DWORD>(maxSeconds * 1000));
    return "";
}

// Fails unless positional holds from `least` to `most` arguments, naming what is missing or extra.
std::string CheckCount(const Args& positional, size_t least, size_t most, const char* usage) {
    if (positional.size() > most)
        return "unexpected argument '" + positional[most] + "' (usage: " + usage + ")";
    if (positional.size() < least) return std::string("missing arguments (usage: ") + usage + ")";
    return "";
}

// The answer of a request or an upload by curl's conventions: a status of 400 or more under -f is a
// failure with exit code 22; -i puts the head before the body.
int Answer(const char* name, CHttpClientCurl& client, const HttpFlags& flags, const std::string& body) {
    if (flags.fail && client.GetStatusCode() >= 400) {
        std::fprintf(stderr, "zoth: %s failed: %s\n", name, client.GetErrorText().c_str());
        return 22;
    }
    if (flags.include) std::fputs(client.GetResponseHeaders().c_str(), stdout);
    return PrintBody(body);
}

// `get|post|put [options] URL [DATA]`: no DATA (or "-") reads standard input for post and put.
int RunRequest(const Args& given, ZOTH::EREQUEST_METHOD_tag method, const char* name) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    const bool get = method == ZOTH::EREQUEST_METHOD_GET;
    std::string bad = TakeOptions(given, kResponseFlags, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 1, get ? 1 : 2, get ? "get URL" : "post|put URL [DATA|-]");
    if (!bad.empty()) return Fail(bad);
    if (int missing = NeedDll(name, kCurlDll)) return missing;
    std::string data;
    if (!get) data = args.size() == 2 && args[1] != "-" ? args[1] : ReadStdin();
    std::string response;
    const std::string& proxy = ProxyArgument();
    int ok = get                                    ? client.HttpGet(args[0], proxy, data, response)
             : method == ZOTH::EREQUEST_METHOD_POST ? client.HttpPost(args[0], proxy, data, response)
                                                    : client.HttpPut(args[0], proxy, data, response);
    ReportProxy(client);
    if (!ok) return TransferFailed(name, client);
    return Answer(name, client, flags, response);
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

int RunDownload(const Args& given) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    std::string bad = TakeOptions(given, kDownloadFlags, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 2, 2, "download URL FILE");
    if (!bad.empty()) return Fail(bad);
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
    if (!ok) return TransferFailed("download", client);
    std::printf("%s: %u bytes\n", args[1].c_str(), static_cast<unsigned>(client.GetTotalSize()));
    return 0;
}

// The file is checked by the library before anything is sent: a folder or an unreadable file fails.
int RunUpload(const Args& given) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    std::string bad = TakeOptions(given, kResponseFlags, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 2, 2, "upload URL FILE");
    if (!bad.empty()) return Fail(bad);
    if (int missing = NeedDll("upload", kCurlDll)) return missing;
    std::string response;
    const int ok = client.HttpPostFile(args[0], ProxyArgument(), "", args[1], response);
    ReportProxy(client);
    if (!ok) return TransferFailed("upload", client);
    return Answer("upload", client, flags, response);
}

// "12.345 Mbit/s (1543210 bytes in 1000 ms)", in 10^6 bit per second; a probe that received for less
// than a second gives bytes and time only, which say more than a rate of so short a sample.
std::string SpeedLine(DWORD bytes, DWORD ms) {
    char line[128];
    if (bytes == 0)
        std::snprintf(line, sizeof line, "no data received");
    else if (ms < 1000)
        std::snprintf(line, sizeof line, "%u bytes in %u ms (under a second: no rate given)",
                      static_cast<unsigned>(bytes), static_cast<unsigned>(ms));
    else
        std::snprintf(line, sizeof line, "%.3f Mbit/s (%u bytes in %u ms; 1 Mbit = 10^6 bit)",
                      bytes * 8.0 / (ms / 1000.0) / 1e6, static_cast<unsigned>(bytes),
                      static_cast<unsigned>(ms));
    return line;
}

int RunSpeed(const Args& given) {
    CHttpClientCurl client;
    HttpFlags flags;
    Args args;
    std::string bad = TakeOptions(given, 0, client, flags, args);
    if (bad.empty()) bad = CheckCount(args, 2, 2, "speed URL SECONDS");
    if (!bad.empty()) return Fail(bad);
    if (!ProxyArgument().empty()) return Fail("speed takes no --proxy; --system-proxy applies");
    char* end = nullptr;
    long seconds = std::strtol(args[1].c_str(), &end, 10);
    if (end == args[1].c_str() || *end != '\0' || seconds <= 0 || seconds > 3600)
        return Fail("SECONDS must be a whole number from 1 to 3600, not '" + args[1] + "'");
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
    // The time limit ending a long stream is the probe's ordinary end and no failure; an error status
    // is one: its page says nothing of the speed.
    if (!client.GetErrorText().empty()) return TransferFailed("speed probe", client);
    const DWORD bytes = client.GetTotalSize();
    std::printf("%s\n",
                SpeedLine(bytes, bytes > 0 ? client.GetEndTime() - client.GetStartTime() : 0).c_str());
    return 0;
}

int RunWget(const Args& args) {
    const std::string bad = CheckCount(args, 2, 2, "wget HOST PATH");
    if (!bad.empty()) return Fail(bad);
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
    "\n  -L, --location follow redirects as a browser does (https never to http, credentials kept"           \
    "\n                 to the first origin, at most 10)"                                                    \
    "\n  --verify       verify the HTTPS server's certificate and host name (system trust store)"            \
    "\n  --cacert FILE  trust the CA certificates in FILE (or a hashed folder) instead; implies --verify"    \
    "\nWithout them HTTPS is encrypted but not authenticated: any certificate is "                           \
    "accepted. Only http:// and https:// URLs are taken." PROXY_OPTIONS_HELP
#define RESPONSE_OPTIONS_HELP                                                                                \
    "\n  -f, --fail     a status of 400 or more prints the status on stderr, not the body, and exits 22"     \
    "\n  -i, --include  print the response head before the body"
#define DOWNLOAD_OPTIONS_HELP                                                                                \
    "\n  --resume       keep what a cut download received and continue from there next time"                 \
    "\n  --sha256 HEX, --md5 HEX  the digest the file must have; else FILE is left as it was"                \
    "\n  --retry N      try a passing failure (no connection, timeout, 408, 429, 5xx) N more times"          \
    "\n  --retry-max-time S  within S seconds"
#define COMMON_OPTIONS                                                                                       \
    "[-L] [-v] [--proxy URL] [--proxy-user USER:PASS] [--system-proxy] [--verify] [--cacert FILE] "

std::vector<Command> HttpCommands() {
    return {
        {"get", "get [-f] [-i] " COMMON_OPTIONS "URL\n\noptions:" RESPONSE_OPTIONS_HELP TLS_OPTIONS_HELP,
         "GET a URL and print the body", RunGet},
        {"post",
         "post [-f] [-i] " COMMON_OPTIONS "URL [DATA|-]\n\noptions:" RESPONSE_OPTIONS_HELP TLS_OPTIONS_HELP,
         "POST DATA (standard input when it is missing or -) and print the body", RunPost},
        {"put",
         "put [-f] [-i] " COMMON_OPTIONS "URL [DATA|-]\n\noptions:" RESPONSE_OPTIONS_HELP TLS_OPTIONS_HELP,
         "PUT DATA (standard input when it is missing or -) and print the body", RunPut},
        {"download",
         "download [--resume] [--sha256 HEX] [--md5 HEX] [--retry N] [--retry-max-time S] " COMMON_OPTIONS
         "URL FILE\n\noptions:" DOWNLOAD_OPTIONS_HELP TLS_OPTIONS_HELP,
         "download a URL whole into FILE (only a complete 200 answer, with the digest asked for)",
         RunDownload},
        {"upload",
         "upload [-f] [-i] " COMMON_OPTIONS "URL FILE\n\noptions:" RESPONSE_OPTIONS_HELP TLS_OPTIONS_HELP,
         "post FILE as a multipart form and print the answer (a folder or unreadable FILE is refused)",
         RunUpload},
        {"speed", "speed " COMMON_OPTIONS "URL SECONDS\n\noptions:" TLS_OPTIONS_HELP,
         "measure download speed from URL for at most SECONDS, in Mbit/s (10^6 bit/s)", RunSpeed},
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
              ok ? "\"" + response + "\"" : client.GetErrorText());

    const std::string target = demo.WorkDir() + "/download.bin";
    ok = client.DownloadFile(base + "/file", target, "");
    const std::string expected = Md5Hex(file);
    const std::string actual =
        ok ? ZOTH::CFileHepler::GetFileMd5(target, demo.WorkDir() + "/download.tmp") : "";
    demo.Step("http", "download 1.5 MiB + MD5 check", ok && actual == expected,
              ok ? "md5 " + actual + (actual == expected ? " matches" : " differs from " + expected)
                 : "download failed: " + client.GetErrorText());

    const std::string source = demo.WorkDir() + "/upload.txt";
    std::ofstream(source, std::ios::binary) << "a file sent as multipart form data\n";
    ok = client.HttpPostFile(base + "/upload", "", "", source, response);
    bool same;
    {
        std::lock_guard<std::mutex> lock(mutex);
        same = uploaded == "a file sent as multipart form data\n";
    }
    demo.Step("http", "multipart upload", ok && same, ok ? response : client.GetErrorText());

    client.TestNetSpeed(base + "/stream", 1);
    const double speed = client.GetNetSpeed();
    demo.Step("http", "speed probe (1 s)", client.GetResultCode() == CURLE_WRITE_ERROR && speed > 0,
              std::to_string(speed) + " Mbit/s over " + std::to_string(client.GetTotalSize()) + " bytes");

    stopping = true;
    server.stop();
    serving.join();
}

} // namespace zoth_cli
