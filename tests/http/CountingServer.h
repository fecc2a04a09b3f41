// A cpp-httplib server on 127.0.0.1 that counts the connections and TLS resumptions it saw, and
// test certificates made with the openssl tool (a CA of the test's own, leaves signed by it or by
// themselves). Declared before what its handlers use is gone: the destructor stops it first.
#pragma once

#include "zoth/http/CHttpClientCurl.h"

#if !defined(_WIN32) // on Windows cpp-httplib is built without OpenSSL: plain HTTP only
#define CPPHTTPLIB_OPENSSL_SUPPORT
#endif
#include <httplib.h>

#include "TempDir.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

namespace zoth_test {

struct CertFiles {
    std::string cert, key; // PEM files
};

// Makes a certificate `name` in dir with a new P-256 key: subject CN, the extension section
// `extensions` of the config below, signed by issuer or, without one, by itself.
inline CertFiles MakeCertificate(const TempDir& dir, const std::string& name, const std::string& cn,
                                 const std::string& extensions, const CertFiles* issuer = nullptr) {
    const std::string config = dir / "openssl.cnf";
    std::ofstream(config)
        << "[req]\ndistinguished_name = dn\nprompt = no\n[dn]\n"
           "[ca]\nbasicConstraints = critical,CA:TRUE\nkeyUsage = critical,keyCertSign,cRLSign\n"
           "subjectKeyIdentifier = hash\n"
           "[loopback]\nbasicConstraints = critical,CA:FALSE\nsubjectAltName = IP:127.0.0.1\n"
           "[other_host]\nbasicConstraints = critical,CA:FALSE\n"
           "subjectAltName = DNS:other.example\n";
    CertFiles files{dir / (name + ".pem"), dir / (name + ".key")};
    std::string command =
        "openssl req -x509 -config " + config + " -extensions " + extensions +
        " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj '/CN=" + cn + "' -keyout " +
        files.key + " -out " + files.cert;
    if (issuer != nullptr) command += " -CA " + issuer->cert + " -CAkey " + issuer->key;
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
        throw std::runtime_error("openssl made no certificate " + name);
    return files;
}

// Plain HTTP, or TLS with the given certificate. Every GET or POST answers "path:body" (an
// uploaded part named "file" stands for the body); a path that starts with /close ends its
// connection. A connection is known by its client port, which is not handed out again while the
// closed connection lingers. An idle connection is kept for keepAlive seconds: long enough that a
// slow moment of a loaded machine does not end one, and what the server's stop may have to wait
// out for a pooled connection that the destructor's plain clients cannot pick up.
class CountingServer {
public:
    explicit CountingServer(const CertFiles* tls = nullptr, int keepAlive = 5) {
        if (tls != nullptr) {
#if defined(_WIN32)
            throw std::runtime_error("no TLS server in a Windows test program (see TlsFixture.h)");
#else
            m_server = std::make_unique<httplib::SSLServer>(tls->cert.c_str(), tls->key.c_str());
            m_scheme = "https";
#endif
        } else {
            m_server = std::make_unique<httplib::Server>();
        }
        if (!m_server->is_valid()) throw std::runtime_error("server cannot be set up");
        m_server->set_keep_alive_max_count(1000000); // the default ends a connection after 5 requests
        m_server->set_keep_alive_timeout(keepAlive);
        m_server->set_tcp_nodelay(true);
        m_server->new_task_queue = [] { return new httplib::ThreadPool(24); }; // a worker per connection
        auto handler = [this](const httplib::Request& req, httplib::Response& res) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_ports.insert(req.remote_port);
                ++m_requests;
#if !defined(_WIN32)
                if (req.ssl != nullptr && SSL_session_reused(const_cast<SSL*>(req.ssl))) ++m_resumed;
#endif
            }
            if (req.path.rfind("/close", 0) == 0) res.set_header("Connection", "close");
            const std::string body = req.has_file("file") ? req.get_file_value("file").content : req.body;
            res.set_content(req.path + ":" + body, "text/plain");
        };
        m_server->Get(".*", handler).Post(".*", handler);
        m_port = m_server->bind_to_any_port("127.0.0.1");
        if (m_port <= 0) throw std::runtime_error("cannot listen on loopback");
        m_thread = std::thread([this] { m_server->listen_after_bind(); });
        while (!m_server->is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~CountingServer() {
        // The server's workers wait out the keep-alive time of every idle connection before they
        // stop; have the pooled ones of unverifying clients closed now instead.
        for (int i = 0; i < 16; ++i) {
            ZOTH::CHttpClientCurl client;
            std::string response;
            client.HttpGet(Url("/close"), "", "", response);
        }
        m_server->stop();
        m_thread.join();
        std::lock_guard<std::mutex> lock(m_mutex); // orders the last handler's writes first
    }
    CountingServer(const CountingServer&) = delete;
    CountingServer& operator=(const CountingServer&) = delete;

    std::string Url(const std::string& path) const {
        return m_scheme + "://127.0.0.1:" + std::to_string(m_port) + path;
    }
    size_t Connections() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ports.size();
    }
    int Requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }
    int Resumed() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_resumed;
    }

private:
    std::mutex m_mutex;
    std::set<int> m_ports;
    int m_requests = 0;
    int m_resumed = 0;
    std::string m_scheme = "http";
    int m_port = 0;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
};

} // namespace zoth_test
