// The loopback HTTP server of the WinINet tests on Windows, with the face of tests/http/LoopbackServer.h
// (cpp-httplib is not built for mingw): a real Winsock server on 127.0.0.1 that serves one connection
// at a time, reads requests with a Content-Length body, and answers with Connection: close.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace zoth_test {

// Bytes of every value in an order that shows a lost, doubled or swapped piece.
inline std::string Payload(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
    return data;
}

// Header names compare without regard to ASCII case.
struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    }
};

// What a server saw of a request.
struct Seen {
    std::string method, target, body;
    std::map<std::string, std::string, NoCase> headers;
    std::string Header(const char* name) const {
        auto it = headers.find(name);
        return it == headers.end() ? "" : it->second;
    }
    // "METHOD target [body] agent | accept", and " +type" when a Content-Type came.
    std::string Summary() const {
        return method + " " + target + " [" + body + "] " + Header("User-Agent") + " | " + Header("Accept") +
               (headers.count("Content-Type") ? " +type" : "");
    }
};

class LoopbackServer {
public:
    struct Answer {
        int status = 200;
        std::string body;
    };
    using Handler = std::function<Answer(const Seen&)>;

    LoopbackServer() {
        WSADATA data;
        m_wsaStarted = WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }
    ~LoopbackServer() {
        Stop();
        if (m_wsaStarted) WSACleanup();
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    void Handle(Handler handler) { m_handler = std::move(handler); }

    // Binds 127.0.0.1 (port 0: any free port) and serves on a thread. false when the port is taken.
    bool Start(int port = 0) {
        if (!m_wsaStarted || m_listener != INVALID_SOCKET) return false;
        SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        if (listener == INVALID_SOCKET) return false;
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<u_short>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int length = sizeof address;
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener, 16) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            closesocket(listener);
            return false;
        }
        m_port = ntohs(address.sin_port);
        m_listener = listener;
        m_stopping = false;
        m_thread = std::thread([this] { Serve(); });
        return true;
    }
    // Stops serving and closes the listening socket: later connections are refused.
    void Stop() {
        m_stopping = true;
        if (m_thread.joinable()) m_thread.join();
        if (m_listener != INVALID_SOCKET) closesocket(m_listener);
        m_listener = INVALID_SOCKET;
    }

    int Port() const { return m_port; }

private:
    void Serve() {
        while (!m_stopping) {
            fd_set ready;
            FD_ZERO(&ready);
            FD_SET(m_listener, &ready);
            timeval wait = {0, 20000}; // looks at the stop flag every 20 ms
            if (select(0, &ready, nullptr, nullptr, &wait) <= 0) continue;
            SOCKET client = accept(m_listener, nullptr, nullptr);
            if (client == INVALID_SOCKET) continue;
            Exchange(client);
            closesocket(client);
        }
    }

    // Reads one request, answers it and returns; false when the request was incomplete.
    bool Exchange(SOCKET client) {
        DWORD timeout = 10000;
        setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
        std::string data;
        size_t headEnd;
        while ((headEnd = data.find("\r\n\r\n")) == std::string::npos)
            if (!Receive(client, data)) return false;
        Seen seen;
        const std::string head = data.substr(0, headEnd);
        size_t lineEnd = head.find("\r\n");
        const std::string requestLine = head.substr(0, lineEnd);
        const size_t space1 = requestLine.find(' '), space2 = requestLine.rfind(' ');
        if (space1 == std::string::npos || space2 == space1) return false;
        seen.method = requestLine.substr(0, space1);
        seen.target = requestLine.substr(space1 + 1, space2 - space1 - 1);
        while (lineEnd != std::string::npos) {
            const size_t start = lineEnd + 2;
            lineEnd = head.find("\r\n", start);
            const std::string line =
                head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
            const size_t colon = line.find(':');
            if (colon == std::string::npos) continue;
            const size_t value = line.find_first_not_of(' ', colon + 1);
            seen.headers[line.substr(0, colon)] = value == std::string::npos ? "" : line.substr(value);
        }
        const size_t bodyLength = seen.headers.count("Content-Length")
                                      ? static_cast<size_t>(std::stoul(seen.Header("Content-Length")))
                                      : 0;
        while (data.size() < headEnd + 4 + bodyLength)
            if (!Receive(client, data)) return false;
        seen.body = data.substr(headEnd + 4, bodyLength);

        Answer answer = m_handler ? m_handler(seen) : Answer{404, ""};
        std::string response =
            "HTTP/1.1 " + std::to_string(answer.status) + (answer.status == 200 ? " OK" : " Not Found") +
            "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(answer.body.size()) +
            "\r\nConnection: close\r\n\r\n" + answer.body;
        for (size_t sent = 0; sent < response.size();) {
            const int n = send(client, response.data() + sent, static_cast<int>(response.size() - sent), 0);
            if (n <= 0) return false;
            sent += static_cast<size_t>(n);
        }
        shutdown(client, SD_SEND);
        return true;
    }

    static bool Receive(SOCKET client, std::string& data) {
        char buffer[4096];
        const int n = recv(client, buffer, sizeof buffer, 0);
        if (n <= 0) return false;
        data.append(buffer, static_cast<size_t>(n));
        return true;
    }

    bool m_wsaStarted = false;
    SOCKET m_listener = INVALID_SOCKET;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    Handler m_handler;
    std::thread m_thread;
};

// Answers every request and records the last one: /missing gives a 404 page, /nothing an empty
// body, /big `big`, anything else Answer(method, body).
class Recorder {
public:
    explicit Recorder(LoopbackServer& server, std::string big = "") : m_big(std::move(big)) {
        server.Handle([this](const Seen& seen) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_seen = seen;
            const std::string path = seen.target.substr(0, seen.target.find('?'));
            if (path == "/missing") return LoopbackServer::Answer{404, "missing page"};
            return LoopbackServer::Answer{200, path == "/nothing" ? ""
                                               : path == "/big"   ? m_big
                                                                  : Answer(seen.method, seen.body)};
        });
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

} // namespace zoth_test
