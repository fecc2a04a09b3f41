// Real servers for the HTTP tests, all on 127.0.0.1: a cpp-httplib server (plain or TLS with a
// certificate made for the test) run on a thread of its own, and a small forward proxy for plain HTTP.
// Declare what the handlers use before the server: they may run until its destructor has stopped it.
#pragma once

#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <httplib.h>

#include "TempDir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zoth_test {

class LoopbackServer {
public:
    // tls: HTTPS with a self-signed certificate generated now.
    explicit LoopbackServer(bool tls = false) {
        if (tls) {
            const std::string key = m_certDir / "key.pem", cert = m_certDir / "cert.pem";
            const std::string command =
                "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                "-days 2 -subj /CN=127.0.0.1 -keyout " +
                key + " -out " + cert + " >/dev/null 2>&1";
            if (std::system(command.c_str()) != 0)
                throw std::runtime_error("openssl could not make a certificate");
            m_server = std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str());
        } else {
            m_server = std::make_unique<httplib::Server>();
        }
        m_scheme = tls ? "https" : "http";
        // Idle keep-alive connections would hold Stop() for the default 5 s.
        m_server->set_keep_alive_timeout(1);
    }
    ~LoopbackServer() { Stop(); }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    httplib::Server& Http() { return *m_server; }

    // Binds 127.0.0.1 (port 0: any free port) and serves on a thread. false when the port is taken.
    bool Start(int port = 0) {
        if (port == 0) {
            m_port = m_server->bind_to_any_port("127.0.0.1");
            if (m_port <= 0) return false;
        } else {
            if (!m_server->bind_to_port("127.0.0.1", port)) return false;
            m_port = port;
        }
        m_thread = std::thread([this] { m_server->listen_after_bind(); });
        while (!m_server->is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return true;
    }

    void Stop() {
        m_stopping = true;
        if (m_thread.joinable()) {
            m_server->stop();
            m_thread.join();
        }
    }

    int Port() const { return m_port; }
    std::string Url(const std::string& path) const {
        return m_scheme + "://127.0.0.1:" + std::to_string(m_port) + path;
    }

    // Sleeps in handlers; returns early (false) once the server is being stopped.
    bool Nap(int milliseconds) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (std::chrono::steady_clock::now() < end) {
            if (m_stopping) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return !m_stopping;
    }

private:
    TempDir m_certDir;
    std::unique_ptr<httplib::Server> m_server;
    std::string m_scheme;
    std::thread m_thread;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
};

// A forward proxy for plain HTTP: takes absolute-form requests, sends them on to the origin in
// origin form with "Connection: close", and relays the answer. One connection at a time.
class ForwardProxy {
public:
    ForwardProxy() {
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(m_listen, 16) != 0)
            throw std::runtime_error("proxy cannot listen");
        socklen_t length = sizeof(addr);
        getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &length);
        m_port = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Run(); });
    }
    ~ForwardProxy() {
        m_stopping = true;
        m_thread.join();
        close(m_listen);
    }

    std::string Address() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    // Request lines as the proxy received them.
    std::vector<std::string> RequestLines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requestLines;
    }

private:
    void Run() {
        while (!m_stopping) {
            pollfd p{m_listen, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            int client = accept(m_listen, nullptr, nullptr);
            if (client < 0) continue;
            Serve(client);
            close(client);
        }
    }

    static bool SendAll(int fd, const std::string& data) {
        size_t sent = 0;
        while (sent < data.size()) {
            ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return false;
            sent += static_cast<size_t>(n);
        }
        return true;
    }

    void Serve(int client) {
        std::string in;
        char buffer[16384];
        size_t headEnd;
        while ((headEnd = in.find("\r\n\r\n")) == std::string::npos) {
            ssize_t n = recv(client, buffer, sizeof(buffer), 0);
            if (n <= 0) return;
            in.append(buffer, static_cast<size_t>(n));
        }
        std::string head = in.substr(0, headEnd + 2);
        std::string body = in.substr(headEnd + 4);
        size_t lineEnd = head.find("\r\n");
        std::string requestLine = head.substr(0, lineEnd);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requestLines.push_back(requestLine);
        }
        // "METHOD http://127.0.0.1:PORT/path HTTP/1.1"
        size_t sp1 = requestLine.find(' '), sp2 = requestLine.rfind(' ');
        std::string target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
        const std::string prefix = "http://127.0.0.1:";
        if (target.compare(0, prefix.size(), prefix) != 0) return; // loopback only
        size_t slash = target.find('/', prefix.size());
        int port = std::stoi(target.substr(prefix.size(), slash - prefix.size()));
        std::string path = slash == std::string::npos ? "/" : target.substr(slash);

        size_t contentLength = 0;
        std::string headers;
        for (size_t pos = lineEnd + 2; pos < head.size();) {
            size_t end = head.find("\r\n", pos);
            std::string line = head.substr(pos, end - pos);
            pos = end + 2;
            std::string lower = line;
            for (char& c : lower)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (lower.rfind("proxy-connection:", 0) == 0 || lower.rfind("connection:", 0) == 0) continue;
            if (lower.rfind("content-length:", 0) == 0) contentLength = std::stoul(line.substr(15));
            headers += line + "\r\n";
        }
        while (body.size() < contentLength) {
            ssize_t n = recv(client, buffer, sizeof(buffer), 0);
            if (n <= 0) return;
            body.append(buffer, static_cast<size_t>(n));
        }

        int upstream = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        if (connect(upstream, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
            SendAll(upstream, requestLine.substr(0, sp1) + " " + path + requestLine.substr(sp2) + "\r\n" +
                                  headers + "Connection: close\r\n\r\n" + body)) {
            ssize_t n;
            while ((n = recv(upstream, buffer, sizeof(buffer), 0)) > 0)
                if (!SendAll(client, std::string(buffer, static_cast<size_t>(n)))) break;
        }
        close(upstream);
    }

    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<std::string> m_requestLines;
};

} // namespace zoth_test
