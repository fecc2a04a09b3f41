// Big files against their peers, time and peak memory: GetFileMd5 vs md5sum (a 256 MiB file, and a
// 1 GiB sparse one), GetFileSha256 vs sha256sum (256 MiB), DownloadFile vs `curl -o` over loopback (256 MiB
// and 1 GiB).
//
// Time is measured in this process for the library and around a spawned process for the peer.
// Memory is measured in child processes: each contender runs once more in a process of its own
// under GNU time, which reports that process's peak resident size (peak_MiB). For the library the
// child is this program run again with --child; it also reports how far its peak rose above its
// resident size just before the call (growth_MiB), which is what the call itself costs.
// The data lives in a folder under /tmp that is removed at the end.
#include "zoth/file/CFileHepler.h"
#include "zoth/http/CHttpClientCurl.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string g_root;

constexpr uint64_t kMiB = uint64_t{1} << 20;

// ---- memory ---------------------------------------------------------------------------------

// A "VmXxx:" figure of /proc/self/status in KiB.
long StatusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t length = std::strlen(field);
    while (std::getline(status, line))
        if (line.compare(0, length, field) == 0) return std::atol(line.c_str() + length);
    return -1;
}

// Runs `work` with the peak resident size reset just before it; the rise of the peak above the
// resident size at that moment, in KiB.
template <class Work> long PeakGrowthKiB(Work work) {
    std::ofstream("/proc/self/clear_refs") << "5"; // resets VmHWM to the present VmRSS
    const long before = StatusKiB("VmRSS:");
    work();
    return StatusKiB("VmHWM:") - before;
}

struct Child {
    bool ok = false;
    std::string out;      // what it wrote to stdout
    double peakMiB = 0;   // its peak resident size, when measured
    double growthMiB = 0; // reported by a --child run of this program
};

// Spawns argv with stdout into a pipe and waits for it.
Child Spawn(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    int out[2];
    if (::pipe(out) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    Child child;
    char buffer[4096];
    for (ssize_t n; spawned == 0 && (n = ::read(out[0], buffer, sizeof buffer)) > 0;)
        child.out.append(buffer, static_cast<size_t>(n));
    ::close(out[0]);
    int status = 0;
    child.ok =
        spawned == 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return child;
}

// Spawns argv once under GNU time for its peak resident size. A process spawned from this one
// would start its peak from this process's size; GNU time is small, so its child's peak is its own.
Child Measure(const std::vector<std::string>& args) {
    const std::string report = g_root + "/maxrss.txt";
    std::vector<std::string> all = {"/usr/bin/time", "-f", "%M", "-o", report};
    all.insert(all.end(), args.begin(), args.end());
    Child child = Spawn(all);
    std::ifstream in(report);
    long kib = 0;
    in >> kib;
    child.peakMiB = static_cast<double>(kib) / 1024.0;
    child.growthMiB = static_cast<double>(std::atol(child.out.c_str())) / 1024.0;
    return child;
}

Child MeasureSelf(const std::vector<std::string>& args) {
    std::vector<std::string> all = {fs::read_symlink("/proc/self/exe").string(), "--child"};
    all.insert(all.end(), args.begin(), args.end());
    return Measure(all);
}

// The child side: one call, then its peak growth in KiB on stdout. Exit status 0 when it worked.
int RunChild(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[2] : "";
    bool ok = false;
    long growth = -1;
    if (what == "md5" && argc == 4) {
        growth = PeakGrowthKiB([&] { ok = ZOTH::CFileHepler::GetFileMd5(argv[3], "").size() == 32; });
    } else if (what == "sha256" && argc == 4) {
        growth = PeakGrowthKiB([&] { ok = ZOTH::CFileHepler::GetFileSha256(argv[3]).size() == 64; });
    } else if (what == "download" && argc == 6) {
        ZOTH::CHttpClientCurl client;
        client.SetDownloadDurable(std::strcmp(argv[5], "1") == 0);
        growth = PeakGrowthKiB([&] { ok = client.DownloadFile(argv[3], argv[4], "") == 1; });
    }
    std::printf("%ld\n", growth);
    return ok ? 0 : 1;
}

void ReportChild(benchmark::State& state, const Child& child, bool library) {
    if (!child.ok) state.SkipWithError("the contender failed in its own process");
    state.counters["peak_MiB"] = child.peakMiB;
    if (library) state.counters["growth_MiB"] = child.growthMiB;
}

// ---- files --------------------------------------------------------------------------------

std::string RandomFile(uint64_t mib) {
    const std::string path = g_root + "/random" + std::to_string(mib) + ".bin";
    if (fs::exists(path)) return path;
    std::vector<char> chunk(kMiB);
    uint32_t x = 12345;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (uint64_t i = 0; i < mib; ++i) {
        for (char& c : chunk)
            c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
        if (::write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) std::abort();
    }
    ::close(fd);
    ::sync(); // the first contender must not share the machine with the file's writeback
    return path;
}

std::string SparseFile(uint64_t mib) {
    const std::string path = g_root + "/sparse" + std::to_string(mib) + ".bin";
    if (fs::exists(path)) return path;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(mib * kMiB)) != 0 || ::pwrite(fd, "end", 3, 12345) != 3)
        std::abort();
    ::close(fd);
    return path;
}

std::string FileFor(benchmark::State& state) {
    return state.range(1) != 0 ? SparseFile(static_cast<uint64_t>(state.range(0)))
                               : RandomFile(static_cast<uint64_t>(state.range(0)));
}

// Arguments: size in MiB, sparse (1) or random (0).
void BM_GetFileMd5(benchmark::State& state) {
    const std::string path = FileFor(state);
    for (auto _ : state) {
        std::string md5 = ZOTH::CFileHepler::GetFileMd5(path, "");
        if (md5.size() != 32) state.SkipWithError("no digest");
        benchmark::DoNotOptimize(md5);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * int64_t{1 << 20});
    ReportChild(state, MeasureSelf({"md5", path}), true);
}

void BM_md5sum(benchmark::State& state) {
    const std::string path = FileFor(state);
    for (auto _ : state)
        if (!Spawn({"md5sum", path}).ok) state.SkipWithError("md5sum failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * int64_t{1 << 20});
    ReportChild(state, Measure({"md5sum", path}), false);
}

BENCHMARK(BM_GetFileMd5)
    ->ArgNames({"MiB", "sparse"})
    ->Args({256, 0})
    ->Args({1024, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_md5sum)
    ->ArgNames({"MiB", "sparse"})
    ->Args({256, 0})
    ->Args({1024, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

// Argument: size in MiB (a file of random bytes).
void BM_GetFileSha256(benchmark::State& state) {
    const std::string path = RandomFile(static_cast<uint64_t>(state.range(0)));
    for (auto _ : state) {
        std::string sha = ZOTH::CFileHepler::GetFileSha256(path);
        if (sha.size() != 64) state.SkipWithError("no digest");
        benchmark::DoNotOptimize(sha);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * int64_t{1 << 20});
    ReportChild(state, MeasureSelf({"sha256", path}), true);
}

void BM_sha256sum(benchmark::State& state) {
    const std::string path = RandomFile(static_cast<uint64_t>(state.range(0)));
    for (auto _ : state)
        if (!Spawn({"sha256sum", path}).ok) state.SkipWithError("sha256sum failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * int64_t{1 << 20});
    ReportChild(state, Measure({"sha256sum", path}), false);
}

BENCHMARK(BM_GetFileSha256)
    ->ArgName("MiB")
    ->Arg(256)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_sha256sum)
    ->ArgName("MiB")
    ->Arg(256)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

// ---- downloads ----------------------------------------------------------------------------

// A minimal HTTP/1.1 server on 127.0.0.1: "/<n>" answers n MiB of a repeating pattern, sent from
// one buffer, so that the server itself holds little. One thread per connection, keep-alive.
class BenchServer {
public:
    BenchServer() : m_pattern(kMiB, '\0') {
        for (size_t i = 0; i < m_pattern.size(); ++i)
            m_pattern[i] = static_cast<char>(i * 131 + i / 4093);
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        listen(m_listen, 64);
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
    std::string Url(uint64_t mib) const {
        return "http://127.0.0.1:" + std::to_string(m_port) + "/" + std::to_string(mib);
    }

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
            const uint64_t size = std::strtoull(in.c_str() + 5, nullptr, 10) * kMiB; // "GET /<n> ..."
            in.erase(0, end + 4);
            const std::string head =
                "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                std::to_string(size) + "\r\n\r\n";
            bool sent = SendAll(fd, head.data(), head.size());
            for (uint64_t done = 0; sent && done < size; done += kMiB)
                sent = SendAll(fd, m_pattern.data(), m_pattern.size());
            if (!sent) {
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

    std::string m_pattern;
    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

BenchServer& Server() {
    static BenchServer server;
    return server;
}

std::string Target() {
    return g_root + "/download.bin";
}

// Each download starts with no dirty pages waiting for the disk, so that neither contender is
// throttled for what the one before it wrote.
void SettleDisk(benchmark::State& state) {
    state.PauseTiming();
    fs::remove(Target());
    ::sync();
    state.ResumeTiming();
}

// Arguments: size in MiB, durable commit (1, the default) or not (0).
void BM_DownloadFile(benchmark::State& state) {
    const uint64_t mib = static_cast<uint64_t>(state.range(0));
    const bool durable = state.range(1) != 0;
    const std::string url = Server().Url(mib);
    for (auto _ : state) {
        SettleDisk(state);
        ZOTH::CHttpClientCurl client;
        client.SetDownloadDurable(durable);
        if (!client.DownloadFile(url, Target(), "")) state.SkipWithError("DownloadFile failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * mib * kMiB));
    ReportChild(state, MeasureSelf({"download", url, Target(), durable ? "1" : "0"}), true);
    if (fs::file_size(Target()) != mib * kMiB) state.SkipWithError("wrong size");
    fs::remove(Target());
}

void BM_curl_o(benchmark::State& state) {
    const uint64_t mib = static_cast<uint64_t>(state.range(0));
    const std::string url = Server().Url(mib);
    for (auto _ : state) {
        SettleDisk(state);
        if (!Spawn({"curl", "-s", "-o", Target(), url}).ok) state.SkipWithError("curl failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * mib * kMiB));
    ReportChild(state, Measure({"curl", "-s", "-o", Target(), url}), false);
    fs::remove(Target());
}

// The peer of a durable download: `curl -o`, then coreutils' `sync FILE` (an fsync of the file).
void BM_curl_o_sync(benchmark::State& state) {
    const uint64_t mib = static_cast<uint64_t>(state.range(0));
    const std::string url = Server().Url(mib);
    for (auto _ : state) {
        SettleDisk(state);
        if (!Spawn({"curl", "-s", "-o", Target(), url}).ok || !Spawn({"sync", Target()}).ok)
            state.SkipWithError("curl or sync failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * mib * kMiB));
    fs::remove(Target());
}

BENCHMARK(BM_DownloadFile)
    ->ArgNames({"MiB", "durable"})
    ->Args({256, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_curl_o_sync)
    ->ArgName("MiB")
    ->Arg(256)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_DownloadFile)
    ->ArgNames({"MiB", "durable"})
    ->Args({256, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_curl_o)->ArgName("MiB")->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_DownloadFile)
    ->ArgNames({"MiB", "durable"})
    ->Args({1024, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(BM_curl_o)->ArgName("MiB")->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--child") == 0) return RunChild(argc, argv);
    char pattern[] = "/tmp/zoth-bigfile-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return 1;
    g_root = pattern;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(g_root, ec);
    return 0;
}
