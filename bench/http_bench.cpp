// HTTP client throughput against the bench's own loopback server (BenchServer below: a minimal
// HTTP/1.1 server, keep-alive, one thread per connection; TLS by OpenSSL with an RSA-2048
// certificate, the common kind): small GETs, one fresh CHttpClientCurl per request and one object
// repeating its requests, against raw
// libcurl loops (a fresh handle on a share, a fresh handle alone, one kept handle: the ceiling) and
// POCO's HTTPClientSession (fresh, kept alive), over HTTP and HTTPS, on one thread and on eight. The
// ratios come last.
// (DownloadFile is measured in bigfile_bench.)
#include "zoth/http/CHttpClientCurl.h"

#include "RawCurl.h"

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/StreamCopier.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// A minimal HTTP/1.1 server on 127.0.0.1: every path answers 64 bytes. One thread per connection, keep-alive
// until the client closes, so every contender meets the same server. With tls it speaks HTTPS with a
// throwaway certificate made by the openssl tool.
class BenchServer {
public:
    explicit BenchServer(bool tls = false) : m_small(64, 's') {
        if (tls) m_tls = MakeTlsContext();
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
    std::string Url(const char* path) const {
        return std::string(m_tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(m_port) + path;
    }
    int Port() const { return m_port; }

private:
    static SSL_CTX* MakeTlsContext() {
        const std::string key = "/tmp/zoth_http_bench_key.pem", cert = "/tmp/zoth_http_bench_cert.pem";
        const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
                                    "-keyout " +
                                    key + " -out " + cert + " >/dev/null 2>&1";
        SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
        const bool ready = std::system(command.c_str()) == 0 &&
                           SSL_CTX_use_certificate_file(ctx, cert.c_str(), SSL_FILETYPE_PEM) == 1 &&
                           SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) == 1;
        std::remove(key.c_str());
        std::remove(cert.c_str());
        if (!ready) {
            std::fprintf(stderr, "bench: no TLS certificate\n");
            std::exit(1);
        }
        return ctx; // lives as long as the process: connection threads are detached
    }
    void Accept() {
        while (!m_stopping) {
            pollfd p{m_listen, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            int fd = accept(m_listen, nullptr, nullptr);
            if (fd < 0) continue;
            int one = 1; // small answers go out at once, as a production server sends them
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
            std::thread([this, fd] { Serve(fd); }).detach();
        }
    }
    void Serve(int fd) {
        SSL* ssl = nullptr;
        if (m_tls != nullptr) {
            ssl = SSL_new(m_tls);
            SSL_set_fd(ssl, fd);
            if (SSL_accept(ssl) != 1) return Close(fd, ssl);
        }
        std::string in;
        char buffer[4096];
        for (;;) {
            size_t end;
            while ((end = in.find("\r\n\r\n")) == std::string::npos) {
                ssize_t n = ssl != nullptr ? SSL_read(ssl, buffer, sizeof(buffer))
                                           : recv(fd, buffer, sizeof(buffer), 0);
                if (n <= 0) return Close(fd, ssl);
                in.append(buffer, static_cast<size_t>(n));
            }
            in.erase(0, end + 4);
            std::string answer = // one write for head and body
                "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                std::to_string(m_small.size()) + "\r\n\r\n" + m_small;
            if (!SendAll(fd, ssl, answer.data(), answer.size())) return Close(fd, ssl);
        }
    }
    static void Close(int fd, SSL* ssl) {
        if (ssl != nullptr) SSL_free(ssl);
        close(fd);
    }
    static bool SendAll(int fd, SSL* ssl, const char* data, size_t size) {
        while (size > 0) {
            ssize_t n = ssl != nullptr ? SSL_write(ssl, data, static_cast<int>(size))
                                       : send(fd, data, size, MSG_NOSIGNAL);
            if (n <= 0) return false;
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    std::string m_small;
    SSL_CTX* m_tls = nullptr;
    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

BenchServer& Server() {
    static BenchServer server;
    return server;
}

BenchServer& TlsServer() {
    static BenchServer server(true);
    return server;
}

BenchServer& ServerFor(bool tls) {
    return tls ? TlsServer() : Server();
}

// Small GETs. Each contender makes one request per call and says whether the 64 bytes came back.

// The library as a client uses it: a fresh object per request; reuse false is the fresh-connection
// figure (a new TCP and TLS handshake each time).
bool LibraryGet(const std::string& url, bool reuse) {
    ZOTH::CHttpClientCurl client;
    if (!reuse) client.SetConnectionReuse(false);
    std::string response;
    return client.HttpGet(url, "", "", response) == 1 && response.size() == 64;
}

// A share of the raw loop's own, locked per data kind like the library's, with room for eight
// threads' connections: the best that a new handle per transfer allows.
class RawShare {
public:
    RawShare() : m_share(curl_share_init()) {
        curl_share_setopt(m_share, CURLSHOPT_LOCKFUNC, &Lock);
        curl_share_setopt(m_share, CURLSHOPT_UNLOCKFUNC, &Unlock);
        curl_share_setopt(m_share, CURLSHOPT_USERDATA, static_cast<void*>(this));
        curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
        curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(m_share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }
    CURLSH* Handle() const { return m_share; }

private:
    static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
        static_cast<RawShare*>(user)->m_locks[data].lock();
    }
    static void Unlock(CURL*, curl_lock_data data, void* user) {
        static_cast<RawShare*>(user)->m_locks[data].unlock();
    }
    CURLSH* m_share;
    std::mutex m_locks[CURL_LOCK_DATA_LAST];
};

CURLSH* TheRawShare() {
    static RawShare* share = new RawShare; // never released, as the library's
    return share->Handle();
}

// A fresh handle per request, on the raw share or (share null) on its own.
bool RawFreshGet(const std::string& url, CURLSH* share) {
    std::string response;
    CURL* curl = curl_easy_init();
    zoth_bench::SetRawOptions(curl, url, response);
    if (share != nullptr) {
        curl_easy_setopt(curl, CURLOPT_SHARE, share);
        curl_easy_setopt(curl, CURLOPT_MAXCONNECTS, 64L);
    }
    const bool ok = curl_easy_perform(curl) == CURLE_OK && response.size() == 64;
    curl_easy_cleanup(curl);
    return ok;
}

Poco::Net::Context::Ptr PocoContext() {
    static Poco::Net::Context::Ptr context = [] {
        Poco::Net::initializeSSL();
        return Poco::Net::Context::Ptr(
            new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "", Poco::Net::Context::VERIFY_NONE));
    }();
    return context;
}

std::unique_ptr<Poco::Net::HTTPClientSession> PocoSession(bool tls) {
    const int port = ServerFor(tls).Port();
    if (tls) return std::make_unique<Poco::Net::HTTPSClientSession>("127.0.0.1", port, PocoContext());
    return std::make_unique<Poco::Net::HTTPClientSession>("127.0.0.1", port);
}

bool PocoGet(Poco::Net::HTTPClientSession& session) {
    try {
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/small",
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        session.sendRequest(request);
        Poco::Net::HTTPResponse answer;
        std::istream& body = session.receiveResponse(answer);
        std::string response;
        Poco::StreamCopier::copyToString(body, response);
        return answer.getStatus() == Poco::Net::HTTPResponse::HTTP_OK && response.size() == 64;
    } catch (const Poco::Exception&) {
        return false; // POCO reports failures by exception
    }
}

template <typename Get> void RunGets(benchmark::State& state, Get get) {
    for (auto _ : state)
        if (!get()) return state.SkipWithError("request failed");
    state.SetItemsProcessed(state.iterations());
}

void BM_SmallGetLibraryFreshObjects(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    RunGets(state, [&] { return LibraryGet(url, true); });
}
// One object repeating its requests: its handle is kept across them.
void BM_SmallGetLibraryOneObject(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    ZOTH::CHttpClientCurl client;
    std::string response;
    RunGets(state, [&] { return client.HttpGet(url, "", "", response) == 1 && response.size() == 64; });
}
void BM_SmallGetLibraryReuseOff(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    RunGets(state, [&] { return LibraryGet(url, false); });
}
void BM_SmallGetRawFreshHandleOnShare(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    RunGets(state, [&] { return RawFreshGet(url, TheRawShare()); });
}
void BM_SmallGetRawFreshHandleAlone(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    RunGets(state, [&] { return RawFreshGet(url, nullptr); });
}
void BM_SmallGetRawKeptHandle(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    std::string response;
    CURL* curl = curl_easy_init();
    zoth_bench::SetRawOptions(curl, url, response);
    RunGets(state, [&] {
        response.clear();
        return curl_easy_perform(curl) == CURLE_OK && response.size() == 64;
    });
    curl_easy_cleanup(curl);
}
// The same kept handle doing the object's other per-transfer work (head kept, stop callback, error
// text, shared pool): what is left between it and the object is the reset and the options set anew.
void BM_SmallGetRawKeptHandleSameWork(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    std::string response;
    zoth_bench::SameWork work;
    CURL* curl = curl_easy_init();
    zoth_bench::SetRawOptions(curl, url, response);
    zoth_bench::SetSameWorkOptions(curl, work, TheRawShare());
    RunGets(state, [&] {
        response.clear();
        work.headers.clear();
        return curl_easy_perform(curl) == CURLE_OK && response.size() == 64;
    });
    curl_easy_cleanup(curl);
}
void BM_SmallGetPocoFreshSession(benchmark::State& state, bool tls) {
    ServerFor(tls);
    RunGets(state, [&] { return PocoGet(*PocoSession(tls)); });
}
void BM_SmallGetPocoKeptSession(benchmark::State& state, bool tls) {
    auto session = PocoSession(tls);
    session->setKeepAlive(true);
    RunGets(state, [&] { return PocoGet(*session); });
}

#define SMALL_GET(name)                                                                                      \
    BENCHMARK_CAPTURE(name, http, false)->UseRealTime();                                                     \
    BENCHMARK_CAPTURE(name, https, true)->UseRealTime()
SMALL_GET(BM_SmallGetLibraryFreshObjects);
SMALL_GET(BM_SmallGetLibraryOneObject);
SMALL_GET(BM_SmallGetLibraryReuseOff);
SMALL_GET(BM_SmallGetRawFreshHandleOnShare);
SMALL_GET(BM_SmallGetRawFreshHandleAlone);
SMALL_GET(BM_SmallGetRawKeptHandle);
SMALL_GET(BM_SmallGetRawKeptHandleSameWork);
SMALL_GET(BM_SmallGetPocoFreshSession);
SMALL_GET(BM_SmallGetPocoKeptSession);

// Eight threads of 1,000 requests each, all started together; items are requests.
constexpr int kThreads = 8, kPerThread = 1000;
template <typename Get> void RunEightThreads(benchmark::State& state, Get get) {
    std::atomic<int> failed{0};
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < kPerThread; ++i)
                    if (!get()) ++failed;
            });
        for (std::thread& thread : threads)
            thread.join();
    }
    if (failed != 0) state.SkipWithError("requests failed");
    state.SetItemsProcessed(state.iterations() * kThreads * kPerThread);
}
void BM_EightThreadsLibraryFreshObjects(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    RunEightThreads(state, [&] { return LibraryGet(url, true); });
}
void BM_EightThreadsRawFreshHandleOnShare(benchmark::State& state, bool tls) {
    const std::string url = ServerFor(tls).Url("/small");
    RunEightThreads(state, [&] { return RawFreshGet(url, TheRawShare()); });
}
#define EIGHT_THREADS(name)                                                                                  \
    BENCHMARK_CAPTURE(name, http, false)->UseRealTime()->Iterations(1)->Unit(benchmark::kMillisecond);       \
    BENCHMARK_CAPTURE(name, https, true)->UseRealTime()->Iterations(1)->Unit(benchmark::kMillisecond)
EIGHT_THREADS(BM_EightThreadsLibraryFreshObjects);
EIGHT_THREADS(BM_EightThreadsRawFreshHandleOnShare);

// Keeps each benchmark's rate and its CPU time per request on the calling thread (the medians when
// it was repeated), so the ratios can be printed from the same run. The rate is what the targets
// speak of; the CPU time is the steadier figure on a busy machine, where the rate swings with
// how soon the server's and the client's threads get a core. Short runs, repeated and interleaved,
// keep most of those swings out of the ratios:
//   bench_http_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
class RateReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            auto rate = run.counters.find("items_per_second");
            if (run.error_occurred || rate == run.counters.end()) continue;
            const std::string& name = run.run_name.function_name; // "BM_Name/http"
            const Figures figures{rate->second.value, run.GetAdjustedCPUTime()};
            if (run.run_type != Run::RT_Aggregate)
                m_single[name] = figures;
            else if (run.aggregate_name == "median")
                m_medians[name] = figures;
        }
    }
    // a / b in rate and, on one thread, in requests per CPU second of the calling thread.
    void Ratio(const std::string& a, const std::string& b, const char* target, bool cpu = true) const {
        const Figures x = Find(a), y = Find(b);
        if (x.rate == 0 || y.rate == 0) return;
        std::printf("  %-42s / %-42s %7.2fx", a.c_str(), b.c_str(), x.rate / y.rate);
        if (cpu && x.cpu > 0)
            std::printf("  (CPU %5.2fx)", y.cpu / x.cpu);
        else
            std::printf("  %12s", "");
        std::printf("  %s\n", target);
    }

private:
    struct Figures {
        double rate = 0, cpu = 0;
    };
    Figures Find(const std::string& name) const {
        auto median = m_medians.find(name);
        if (median != m_medians.end()) return median->second;
        auto single = m_single.find(name);
        return single == m_single.end() ? Figures{} : single->second;
    }
    std::map<std::string, Figures> m_single, m_medians;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf(
        "\nRatios from this run, library / peer (rate; CPU: requests per CPU second of the caller):\n");
    for (const char* p : {"http", "https"}) {
        const std::string lib = std::string("BM_SmallGetLibraryFreshObjects/") + p;
        const bool tls = std::string(p) == "https";
        reporter.Ratio(lib, std::string("BM_SmallGetLibraryReuseOff/") + p,
                       tls ? "target >= 15x" : "target >= 1.5x");
        reporter.Ratio(lib, std::string("BM_SmallGetRawFreshHandleOnShare/") + p, "target >= 0.9x");
        reporter.Ratio(lib, std::string("BM_SmallGetRawFreshHandleAlone/") + p, "");
        reporter.Ratio(lib, std::string("BM_SmallGetRawKeptHandle/") + p, "(ceiling)");
        reporter.Ratio(lib, std::string("BM_SmallGetPocoFreshSession/") + p, "");
        reporter.Ratio(lib, std::string("BM_SmallGetPocoKeptSession/") + p, "");
        const std::string one = std::string("BM_SmallGetLibraryOneObject/") + p;
        reporter.Ratio(one, std::string("BM_SmallGetRawKeptHandle/") + p, "target >= 0.95x");
        reporter.Ratio(one, std::string("BM_SmallGetRawKeptHandleSameWork/") + p,
                       "(reset and options alone)");
        reporter.Ratio(one, std::string("BM_SmallGetPocoKeptSession/") + p, "");
        reporter.Ratio(std::string("BM_EightThreadsLibraryFreshObjects/") + p,
                       std::string("BM_EightThreadsRawFreshHandleOnShare/") + p, "target >= 0.9x", false);
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("peak resident memory: %ld MiB\n", usage.ru_maxrss / 1024);
    benchmark::Shutdown();
    return 0;
}
