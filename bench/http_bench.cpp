// HTTP client throughput against a loopback server: small GETs on a fresh connection each against a
// raw libcurl loop with fresh handles (DownloadFile is measured in bigfile_bench).
#include "zoth/http/CHttpClientCurl.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

// A minimal HTTP/1.1 server on 127.0.0.1: "/big" answers 256 MiB, anything else 64 bytes. One
// thread per connection, keep-alive until the client closes, so both sides of a comparison meet
// the same server.
class BenchServer {
public:
    BenchServer() : m_big(256u << 20, 'B'), m_small(64, 's') {
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        listen(m_listen, 512);
        socklen_t length = sizeof(addr);
        getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &length);
        m_port = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Accept(); });
    }
    ~BenchServer() {
        m_stopping = true;
        m_thread.join();
        close(m_listen);
    }
    std::string Url(const char* path) const { return "http://127.0.0.1:" + std::to_string(m_port) + path; }

private:
    void Accept() {
        while (!m_stopping) {
            pollfd p{m_listen, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            int fd = accept(m_listen, nullptr, nullptr);
            if (fd >= 0) std::thread([this, fd] { Serve(fd); }).detach();
        }
    }
    void Serve(int fd) {
        std::string in;
        char buffer[4096];
        for (;;) {
            size_t end;
            while ((end = in.find("\r\n\r\n")) == std::string::npos) {
                ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
                if (n <= 0) {
                    close(fd);
                    return;
                }
                in.append(buffer, static_cast<size_t>(n));
            }
            const bool big = in.compare(0, 9, "GET /big ") == 0;
            in.erase(0, end + 4);
            const std::string& body = big ? m_big : m_small;
            std::string head =
                "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n";
            if (!SendAll(fd, head.data(), head.size()) || !SendAll(fd, body.data(), body.size())) {
                close(fd);
                return;
            }
        }
    }
    static bool SendAll(int fd, const char* data, size_t size) {
        while (size > 0) {
            ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
            if (n <= 0) return false;
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    std::string m_big, m_small;
    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

BenchServer& Server() {
    static BenchServer server;
    return server;
}

void BM_HttpGetSmallFreshConnection(benchmark::State& state) {
    const std::string url = Server().Url("/small");
    ZOTH::CHttpClientCurl client; // every HttpGet makes a new handle, so a new connection
    std::string response;
    for (auto _ : state) {
        if (!client.HttpGet(url, "", "", response)) state.SkipWithError("HttpGet failed");
        benchmark::DoNotOptimize(response.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HttpGetSmallFreshConnection)->UseRealTime()->MinTime(2.0);

size_t Append(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

void BM_RawCurlSmallFreshHandle(benchmark::State& state) {
    const std::string url = Server().Url("/small");
    std::string response;
    for (auto _ : state) {
        response.clear();
        CURL* curl = curl_easy_init();
        // The same request on the wire as HttpGet makes: same options, so only the wrapper differs.
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Append);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(&response));
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
        curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
        if (curl_easy_perform(curl) != CURLE_OK) state.SkipWithError("curl_easy_perform failed");
        curl_easy_cleanup(curl);
        benchmark::DoNotOptimize(response.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawCurlSmallFreshHandle)->UseRealTime()->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
