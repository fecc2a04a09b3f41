// A real squid on 127.0.0.1, started by a test in a folder of its own and stopped with it. squid
// drops its privileges to the user `proxy`, so the folder is handed to that user. Names resolve
// only from the folder's hosts file, and every name used there points at 127.0.0.1.
#pragma once

#include "TempDir.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zoth_test {

class SquidProxy {
public:
    // Starts squid with `config` (lines of squid.conf; "DIR" stands for its folder) after the
    // common lines: loopback port, logs in the folder, no cache, the hosts file. `files` (name and
    // content) are written to the folder first. With `tls` (squid's tls-cert= and tls-key= options)
    // it is an https:// proxy. Ready() tells whether it came up; Why() says why not.
    explicit SquidProxy(const std::string& config,
                        const std::vector<std::pair<std::string, std::string>>& files = {},
                        const std::string& tls = "")
        : m_scheme(tls.empty() ? "http" : "https") {
        const passwd* proxy = ::getpwnam("proxy");
        if (::access("/usr/sbin/squid", X_OK) != 0 || proxy == nullptr) {
            m_why = "squid is not installed (squid-openssl)";
            return;
        }
        if (::chown(m_dir.Path().c_str(), proxy->pw_uid, proxy->pw_gid) != 0) {
            m_why = "cannot hand the folder to the user proxy";
            return;
        }
        std::ofstream(m_dir / "hosts") << "127.0.0.1 localhost alpha.test beta.test origin.test\n";
        for (const auto& [name, content] : files)
            std::ofstream(m_dir / name) << content;
        for (int attempt = 0; attempt < 3 && m_pid <= 0; ++attempt) {
            m_port = FreePort();
            std::string text =
                (tls.empty() ? "http_port 127.0.0.1:" : "https_port 127.0.0.1:") + std::to_string(m_port) +
                " " + tls +
                "\n"
                "pid_filename DIR/squid.pid\ncache_log DIR/cache.log\n"
                "access_log stdio:DIR/access.log\ncache deny all\ncache_mem 8 MB\n"
                "coredump_dir DIR\nnetdb_filename none\ncache_effective_user proxy\n"
                "shutdown_lifetime 0 seconds\nhosts_file DIR/hosts\ndns_nameservers 127.0.0.1\n"
                "forwarded_for delete\nvia off\n" +
                config;
            for (size_t at; (at = text.find("DIR")) != std::string::npos;)
                text.replace(at, 3, m_dir.Path());
            std::ofstream(m_dir / "squid.conf") << text;
            Start();
        }
    }
    ~SquidProxy() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGTERM);
        for (int i = 0; i < 100; ++i) {
            if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    SquidProxy(const SquidProxy&) = delete;
    SquidProxy& operator=(const SquidProxy&) = delete;

    bool Ready() const { return m_pid > 0; }
    const std::string& Why() const { return m_why; }
    const TempDir& Dir() const { return m_dir; }
    int Port() const { return m_port; }
    std::string Address() const { return m_scheme + "://127.0.0.1:" + std::to_string(m_port); }
    // The access log so far: one line per request, with the user name when one authenticated.
    std::string AccessLog() const { return FileText(m_dir / "access.log"); }

private:
    static int FreePort() {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(addr);
        int port = 0;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0)
            port = ntohs(addr.sin_port);
        ::close(fd);
        return port;
    }
    static bool Accepts(int port) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        ::close(fd);
        return connected;
    }
    // Runs squid in the foreground as a child and waits (up to 20 s) until its port accepts.
    void Start() {
        const std::string conf = m_dir / "squid.conf", log = m_dir / "squid.out";
        const pid_t pid = ::fork();
        if (pid == 0) {
            const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            ::execl("/usr/sbin/squid", "squid", "-N", "-f", conf.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid < 0) {
            m_why = "fork failed";
            return;
        }
        for (int i = 0; i < 400; ++i) {
            if (Accepts(m_port)) {
                m_pid = pid;
                return;
            }
            if (::waitpid(pid, nullptr, WNOHANG) == pid) break; // it gave up: the port, most likely
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        m_why = "squid did not start: " + FileText(log).substr(0, 400);
    }

    TempDir m_dir;
    std::string m_scheme;
    std::string m_why;
    int m_port = 0;
    pid_t m_pid = -1;
};

} // namespace zoth_test

// Skips the test when squid cannot run here, with the reason; under CI=true that fails it instead.
#define REQUIRE_SQUID(squid)                                                                                 \
    do {                                                                                                     \
        if (!(squid).Ready()) {                                                                              \
            const char* ci = std::getenv("CI");                                                              \
            if (ci != nullptr && std::string(ci) == "true") FAIL() << (squid).Why();                         \
            GTEST_SKIP() << (squid).Why();                                                                   \
        }                                                                                                    \
    } while (0)
