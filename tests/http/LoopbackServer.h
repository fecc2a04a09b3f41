// Real cpp-httplib servers on 127.0.0.1 (plain, or TLS with a certificate made now) and a proxy.
// Declare what the handlers use before the server: they may run until its destructor has stopped it.
// On Windows cpp-httplib is built without OpenSSL: TLS servers run on the Linux side (TlsFixture.h).
#pragma once

#if !defined(_WIN32)
#define CPPHTTPLIB_OPENSSL_SUPPORT
#endif
#include <httplib.h>

#include "TempDir.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zoth_test {

// Bytes of every value in an order that shows a lost, doubled or swapped piece.
inline std::string Payload(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
    return data;
}

class LoopbackServer {
public:
    explicit LoopbackServer(bool tls = false) : m_scheme(tls ? "https" : "http") {
        if (tls) {
#if defined(_WIN32)
            throw std::runtime_error("no TLS server in a Windows test program (see TlsFixture.h)");
#else
            const std::string key = m_certDir / "key.pem", cert = m_certDir / "cert.pem";
            const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                                        "-nodes -days 2 -subj /CN=127.0.0.1 -keyout " +
                                        key + " -out " + cert + " >/dev/null 2>&1";
            if (std::system(command.c_str()) != 0) throw std::runtime_error("openssl made no certificate");
            m_server = std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str());
#endif
        } else {
            m_server = std::make_unique<httplib::Server>();
        }
        m_server->set_keep_alive_timeout(1); // idle keep-alive connections would hold Stop() for 5 s
    }
    ~LoopbackServer() {
        Stop();
    }

    httplib::Server& Http() {
        return *m_server;
    }

    // Binds 127.0.0.1 (port 0: any free port) and serves on a thread. false when the port is taken.
    bool Start(int port = 0) {
        m_port = port == 0 ? m_server->bind_to_any_port("127.0.0.1")
                           : (m_server->bind_to_port("127.0.0.1", port) ? port : -1);
        if (m_port <= 0) return false;
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

    int Port() const {
        return m_port;
    }
    std::string Url(const std::string& path) const {
        return m_scheme + "://127.0.0.1:" + std::to_string(m_port) + path;
    }

    // Sleeps in handlers; returns early (false) once the server is being stopped.
    bool Nap(int milliseconds) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (!m_stopping && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return !m_stopping;
    }

private:
    TempDir m_certDir;
    std::string m_scheme;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
};

// What a server saw of a request.
struct Seen {
    std::string method, target, body;
    httplib::Headers headers;
    std::string Header(const char* name) const {
        return httplib::detail::get_header_value(headers, name, 0, "");
    }
    // "METHOD target [body] agent | accept", and " +type" when a Content-Type came.
    std::string Summary() const {
        return method + " " + target + " [" + body + "] " + Header("User-Agent") + " | " + Header("Accept") +
               (headers.count("Content-Type") ? " +type" : "");
    }
};

// Answers GET, POST and PUT on every path not routed before it, and records the last request:
// /missing gives a 404 page, /nothing an empty body, /big `big`, anything else Answer(method, body).
class Recorder {
public:
    explicit Recorder(LoopbackServer& server, std::string big = "") : m_big(std::move(big)) {
        auto handler = [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_seen = {req.method, req.target, req.body, req.headers};
            res.status = req.path == "/missing" ? 404 : 200;
            res.set_content(req.path == "/missing"   ? "missing page"
                            : req.path == "/nothing" ? ""
                            : req.path == "/big"     ? m_big
                                                     : Answer(req.method, req.body),
                            "text/plain");
        };
        server.Http().Get(".*", handler).Post(".*", handler).Put(".*", handler);
    }
    ~Recorder() { std::lock_guard<std::mutex> lock(m_mutex); } // orders the last handler's writes first
    // The answer holds a zero byte, which must come back whole.
    static std::string Answer(const std::string& method, const std::string& body) {
        return method + ":" + body + std::string("\0!", 2);
    }
    Seen Last() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }

private:
    std::mutex m_mutex;
    std::string m_big;
    Seen m_seen;
};

// A PAC script's answer naming one proxy on loopback.
inline std::string PacProxy(int port) {
    return "PROXY 127.0.0.1:" + std::to_string(port);
}

// Serves at /proxy.pac of `server` (not started yet) a PAC script that answers each rule's host
// with its answer ("PROXY 127.0.0.1:N; DIRECT", ...) and every other host with "DIRECT", starts the
// server, and returns the script's URL. Throws when the server cannot listen.
inline std::string ServePac(LoopbackServer& server,
                            const std::vector<std::pair<std::string, std::string>>& rules) {
    std::string script = "function FindProxyForURL(url, host) {\n";
    for (const auto& [host, answer] : rules)
        script += "  if (host == '" + host + "') return '" + answer + "';\n";
    script += "  return 'DIRECT';\n}\n";
    server.Http().Get("/proxy.pac", [script](const httplib::Request&, httplib::Response& res) {
        res.set_content(script, "application/x-ns-proxy-autoconfig");
    });
    if (!server.Start()) throw std::runtime_error("the PAC server cannot listen");
    return server.Url("/proxy.pac");
}

// A forward proxy for plain HTTP POSTs: takes absolute-form requests to a loopback origin, sends
// them on in origin form and relays the answer.
class ForwardProxy {
public:
    ForwardProxy() {
        m_server.Http().Post(".*", [this](const httplib::Request& req, httplib::Response& res,
                                          const httplib::ContentReader& read) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_requestLines.push_back(req.method + " " + req.target + " " + req.version);
            }
            const std::string origin = "http://127.0.0.1:";
            const size_t slash = req.target.find('/', origin.size());
            if (req.target.rfind(origin, 0) != 0 || slash == std::string::npos) return void(res.status = 400);
            httplib::Request forward;
            forward.method = req.method;
            forward.path = req.target.substr(slash);
            static const std::set<std::string, httplib::detail::ci> hopByHop = {
                "Host",        "Content-Length", "Connection", "Expect",    "Proxy-Connection",
                "REMOTE_ADDR", "REMOTE_PORT",    "LOCAL_ADDR", "LOCAL_PORT"};
            for (const auto& [name, value] : req.headers)
                if (!hopByHop.count(name)) forward.headers.emplace(name, value);
            // httplib hands a multipart body only to per-part callbacks; unlabelled, it comes raw.
            const_cast<httplib::Request&>(req).headers.erase("Content-Type");
            read([&](const char* data, size_t size) { return forward.body.append(data, size), true; });
            httplib::Client client("127.0.0.1",
                                   std::stoi(req.target.substr(origin.size(), slash - origin.size())));
            httplib::Response answer;
            httplib::Error error;
            if (!client.send(forward, answer, error)) return void(res.status = 502);
            res.status = answer.status;
            res.set_content(answer.body, answer.get_header_value("Content-Type").c_str());
        });
        if (!m_server.Start()) throw std::runtime_error("proxy cannot listen");
    }

    std::string Address() const { return "http://127.0.0.1:" + std::to_string(m_server.Port()); }
    // Request lines as the proxy received them.
    std::vector<std::string> RequestLines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requestLines;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_requestLines;
    LoopbackServer m_server; // last: stopped before the fields its handler uses go away
};

} // namespace zoth_test
