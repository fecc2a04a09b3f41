// Instructions per small GET, counted by callgrind in the caller's process only: the server runs in
// a forked child, and counting covers 1,000 requests after 300 uncounted ones.
//
//   small_get_instructions MODE SCHEME   MODE: library | raw | raw-same-work | poco   SCHEME: http | https
//
// library: one CHttpClientCurl repeating HttpGet (its handle kept across transfers); raw: one libcurl
// easy handle with the same options, set once; raw-same-work: that handle also keeping the head,
// with a stop callback, an error buffer and a share (bench/RawCurl.h); poco: one kept-alive
// HTTPClientSession. The server answers 64 bytes of application/octet-stream (so no content encoding
// is chosen) with keep-alive.
// scripts/count-instructions.sh runs every mode under callgrind and prints the table.
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <httplib.h>

#include "zoth/http/CHttpClientCurl.h"

#include "../RawCurl.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/StreamCopier.h>
#include <curl/curl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace {

constexpr int kWarmUp = 300, kCounted = 1000;

// Starts the server in a child process; returns its port, or 0.
int ServeInChild(bool tls, const std::string& cert, const std::string& key, pid_t& child) {
    int fds[2];
    if (pipe(fds) != 0) return 0;
    child = fork();
    if (child == 0) {
        std::unique_ptr<httplib::Server> server(tls ? new httplib::SSLServer(cert.c_str(), key.c_str())
                                                    : new httplib::Server);
        server->set_keep_alive_max_count(1000000);
        server->Get("/small", [](const httplib::Request&, httplib::Response& res) {
            res.set_content(std::string(64, 's'), "application/octet-stream");
        });
        int port = server->bind_to_any_port("127.0.0.1");
        if (write(fds[1], &port, sizeof port) != sizeof port) _exit(1);
        server->listen_after_bind();
        _exit(0);
    }
    int port = 0;
    if (read(fds[0], &port, sizeof port) != sizeof port) port = 0;
    close(fds[0]);
    close(fds[1]);
    return port;
}

// Runs `get` kWarmUp times uncounted, then kCounted times counted; the number that succeeded.
int Count(const std::function<bool()>& get) {
    for (int i = 0; i < kWarmUp; ++i)
        get();
    int ok = 0;
    CALLGRIND_START_INSTRUMENTATION;
    for (int i = 0; i < kCounted; ++i)
        ok += get() ? 1 : 0;
    CALLGRIND_STOP_INSTRUMENTATION;
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 5) {
        std::fprintf(stderr, "usage: %s library|raw|raw-same-work|poco http|https [CERT KEY]\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const bool tls = std::strcmp(argv[2], "https") == 0;
    if (tls && argc != 5) {
        std::fprintf(stderr, "https needs the server's certificate and key files\n");
        return 2;
    }
    pid_t child = -1;
    const int port = ServeInChild(tls, tls ? argv[3] : "", tls ? argv[4] : "", child);
    if (port <= 0) return 1;
    const std::string url =
        std::string(tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port) + "/small";

    std::string response;
    int ok = 0;
    if (mode == "library") {
        ZOTH::CHttpClientCurl client;
        ok = Count([&] { return client.HttpGet(url, "", "", response) == 1 && response.size() == 64; });
    } else if (mode == "raw") {
        curl_global_init(CURL_GLOBAL_ALL);
        CURL* curl = curl_easy_init();
        zoth_bench::SetRawOptions(curl, url, response);
        ok = Count([&] {
            response.clear();
            return curl_easy_perform(curl) == CURLE_OK && response.size() == 64;
        });
        curl_easy_cleanup(curl);
    } else if (mode == "raw-same-work") {
        curl_global_init(CURL_GLOBAL_ALL);
        CURLSH* share = curl_share_init(); // one thread: no lock callbacks needed
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        zoth_bench::SameWork work;
        CURL* curl = curl_easy_init();
        zoth_bench::SetRawOptions(curl, url, response);
        zoth_bench::SetSameWorkOptions(curl, work, share);
        ok = Count([&] {
            response.clear();
            work.headers.clear();
            return curl_easy_perform(curl) == CURLE_OK && response.size() == 64;
        });
        curl_easy_cleanup(curl);
    } else if (mode == "poco") {
        Poco::Net::Context::Ptr context(
            new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "", Poco::Net::Context::VERIFY_NONE));
        std::unique_ptr<Poco::Net::HTTPClientSession> session;
        if (tls)
            session = std::make_unique<Poco::Net::HTTPSClientSession>("127.0.0.1", port, context);
        else
            session = std::make_unique<Poco::Net::HTTPClientSession>("127.0.0.1", port);
        session->setKeepAlive(true);
        ok = Count([&] {
            Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/small",
                                           Poco::Net::HTTPMessage::HTTP_1_1);
            session->sendRequest(request);
            Poco::Net::HTTPResponse answer;
            response.clear();
            Poco::StreamCopier::copyToString(session->receiveResponse(answer), response);
            return answer.getStatus() == Poco::Net::HTTPResponse::HTTP_OK && response.size() == 64;
        });
    } else {
        std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    std::printf("%d of %d requests answered\n", ok, kCounted);
    return ok == kCounted ? 0 : 1;
}
