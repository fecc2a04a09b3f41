// A loopback HTTP/1.1 server on a raw socket that misbehaves on request: each request takes the next
// directive of a queue (the last one repeats) and is answered as it says: cut off, stalled, dripped,
// a false length, chunked, a range ignored, 416, a changed validator, a redirect or an error status.
// It counts the requests and the body bytes it sent, and keeps each request's header text. It runs
// on POSIX sockets and on Winsock (Socket.h).
#pragma once

#include "Socket.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zoth_test {

struct Directive {
    int status = 200;     // an answer other than 200/206 sends its status with a short body
    long closeAfter = -1; // close the connection after this many body bytes
    long stallAfter = -1; // after this many body bytes, send nothing for stallMs
    int stallMs = 0;
    int dripMs = 0;           // one body byte every dripMs
    long lengthDelta = 0;     // Content-Length announced as the body's length plus this
    bool chunked = false;     // chunked, with no Content-Length
    bool ignoreRange = false; // a Range request gets the whole body with 200
    std::string etag = "\"v1\"";
    std::string retryAfter; // a Retry-After header when not empty
    std::string location;   // with a 3xx status

    // Chained setters: Directive().Status(503).RetryAfter("1").
    Directive& Status(int v) {
        status = v;
        return *this;
    }
    Directive& CloseAfter(long v) {
        closeAfter = v;
        return *this;
    }
    Directive& Stall(long after, int ms) {
        stallAfter = after;
        stallMs = ms;
        return *this;
    }
    Directive& Drip(int ms) {
        dripMs = ms;
        return *this;
    }
    Directive& LengthDelta(long v) {
        lengthDelta = v;
        return *this;
    }
    Directive& Chunked() {
        chunked = true;
        return *this;
    }
    Directive& IgnoreRange() {
        ignoreRange = true;
        return *this;
    }
    Directive& ETag(std::string v) {
        etag = std::move(v);
        return *this;
    }
    Directive& RetryAfter(std::string v) {
        retryAfter = std::move(v);
        return *this;
    }
    Directive& Location(std::string v) {
        location = std::move(v);
        return *this;
    }
};

class FaultServer {
public:
    explicit FaultServer(std::string body) : m_body(std::move(body)) {
        m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
#if !defined(_WIN32)
        // (On Windows SO_REUSEADDR would let another program take the port as well.)
        int one = 1;
        ::setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
#endif
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        SocketLength length = sizeof addr;
        if (!m_sockets.Ok() || m_listen == kNoSocket ||
            ::bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(m_listen, 16) != 0 ||
            ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &length) != 0)
            throw std::runtime_error("fault server: no socket");
        m_port = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~FaultServer() {
        m_stopping = true;
        m_thread.join();
        CloseSocket(m_listen);
    }

    // The directives of the next requests, in order; the last one stays for every later request.
    void Plan(std::vector<Directive> directives) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_plan.assign(directives.begin(), directives.end());
    }
    void SetBody(std::string body) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_body = std::move(body);
    }
    std::string Url(const std::string& path = "/file") const {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }
    int Requests() const {
        return m_requests;
    }
    long long BodyBytesSent() const {
        return m_bodyBytes;
    }
    std::vector<std::string> RequestHeaders() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_headers;
    }
    void ResetCounts() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests = 0;
        m_bodyBytes = 0;
        m_headers.clear();
    }

private:
    void Serve() {
        while (!m_stopping) {
            if (!Readable(m_listen, 20)) continue;
            const SocketFd fd = ::accept(m_listen, nullptr, nullptr);
            if (fd == kNoSocket) continue;
            NoDelay(fd);
            Answer(fd);
            CloseSocket(fd);
        }
    }

    // Reads the request head; "" when the client left or the server stops.
    std::string ReadHead(SocketFd fd) {
        std::string head;
        char buffer[4096];
        while (head.find("\r\n\r\n") == std::string::npos && !m_stopping) {
            if (!Readable(fd, 20)) continue;
            const long n = ReceiveSome(fd, buffer, sizeof buffer);
            if (n <= 0) return "";
            head.append(buffer, static_cast<size_t>(n));
        }
        // A request body is read too, so that closing the connection does not reset it.
        const size_t end = head.find("\r\n\r\n");
        const std::string length = HeaderValue(head, "Content-Length");
        const size_t want = end == std::string::npos || length.empty() ? 0 : end + 4 + std::stoul(length);
        while (head.size() < want && !m_stopping) {
            if (!Readable(fd, 20)) continue;
            const long n = ReceiveSome(fd, buffer, sizeof buffer);
            if (n <= 0) break;
            head.append(buffer, static_cast<size_t>(n));
        }
        return head;
    }

    static std::string HeaderValue(const std::string& head, const std::string& name) {
        const std::string key = "\r\n" + name + ": ";
        const size_t at = head.find(key);
        if (at == std::string::npos) return "";
        const size_t begin = at + key.size();
        return head.substr(begin, head.find("\r\n", begin) - begin);
    }

    bool Send(SocketFd fd, const char* data, size_t size) {
        while (size > 0) {
            const long n = SendSome(fd, data, size);
            if (n <= 0) return false;
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    void Answer(SocketFd fd) {
        const std::string head = ReadHead(fd);
        if (head.empty()) return;
        Directive d;
        std::string body;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_requests;
            m_headers.push_back(head);
            if (!m_plan.empty()) {
                d = m_plan.front();
                if (m_plan.size() > 1) m_plan.pop_front();
            }
            body = m_body;
        }
        std::string status = "200 OK", extra;
        size_t from = 0;
        const std::string range = HeaderValue(head, "Range"), ifRange = HeaderValue(head, "If-Range");
        if (d.status != 200) {
            status = std::to_string(d.status) + " Status";
            if (d.status == 416) extra += "Content-Range: bytes */" + std::to_string(body.size()) + "\r\n";
            body = d.status == 416 ? "" : "status " + std::to_string(d.status);
        } else if (range.rfind("bytes=", 0) == 0 && !d.ignoreRange &&
                   (ifRange.empty() || ifRange == d.etag)) {
            from = std::stoull(range.substr(6));
            if (from >= body.size()) {
                status = "416 Range Not Satisfiable";
                extra += "Content-Range: bytes */" + std::to_string(body.size()) + "\r\n";
                body.clear();
            } else {
                status = "206 Partial Content";
                extra += "Content-Range: bytes " + std::to_string(from) + "-" +
                         std::to_string(body.size() - 1) + "/" + std::to_string(body.size()) + "\r\n";
                body = body.substr(from);
            }
        }
        if (!d.retryAfter.empty()) extra += "Retry-After: " + d.retryAfter + "\r\n";
        if (!d.location.empty()) extra += "Location: " + d.location + "\r\n";
        std::string response =
            "HTTP/1.1 " + status + "\r\nETag: " + d.etag + "\r\nConnection: close\r\n" + extra;
        if (d.chunked)
            response += "Transfer-Encoding: chunked\r\n\r\n";
        else
            response += "Content-Length: " + std::to_string(static_cast<long>(body.size()) + d.lengthDelta) +
                        "\r\n\r\n";
        if (!Send(fd, response.data(), response.size())) return;
        if (head.rfind("HEAD ", 0) == 0) return;
        SendBody(fd, body, d);
    }

    void SendBody(SocketFd fd, const std::string& body, const Directive& d) {
        size_t sent = 0;
        const size_t piece = d.dripMs > 0 ? 1 : 16384;
        while (sent < body.size() && !m_stopping) {
            size_t n = std::min(piece, body.size() - sent);
            if (d.closeAfter >= 0) {
                if (sent >= static_cast<size_t>(d.closeAfter)) return;
                n = std::min(n, static_cast<size_t>(d.closeAfter) - sent);
            }
            if (d.stallAfter >= 0 && sent < static_cast<size_t>(d.stallAfter))
                n = std::min(n, static_cast<size_t>(d.stallAfter) - sent);
            // Counted before it is sent, so the count is complete by the time the client has the bytes.
            m_bodyBytes += static_cast<long long>(n);
            bool ok = true;
            if (d.chunked) {
                char size[32];
                std::snprintf(size, sizeof size, "%zx\r\n", n);
                ok = Send(fd, size, std::strlen(size)) && Send(fd, body.data() + sent, n) &&
                     Send(fd, "\r\n", 2);
            } else {
                ok = Send(fd, body.data() + sent, n);
            }
            if (!ok) {
                m_bodyBytes -= static_cast<long long>(n);
                return;
            }
            sent += n;
            if (d.stallAfter >= 0 && sent == static_cast<size_t>(d.stallAfter)) Nap(d.stallMs);
            if (d.dripMs > 0) Nap(d.dripMs);
        }
        if (d.chunked && sent == body.size() && d.closeAfter < 0) Send(fd, "0\r\n\r\n", 5);
    }

    void Nap(int ms) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!m_stopping && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }

    SocketLibrary m_sockets;
    std::string m_body;
    SocketFd m_listen = kNoSocket;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_requests{0};
    std::atomic<long long> m_bodyBytes{0};
    std::mutex m_mutex;
    std::deque<Directive> m_plan;
    std::vector<std::string> m_headers;
    std::thread m_thread;
};

} // namespace zoth_test
