// zoth commands and demo section of the http subsystem: the requests and the command table here,
// the file transfers and the probe in HttpTransfers.cpp, the shared options in HttpOptions.cpp.
#include "HttpOptions.h"

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

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <thread>

namespace zoth_cli {

namespace {

using ZOTH::CHttpClientCurl;

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
