// The few socket calls a raw loopback test server needs, on POSIX sockets and on Winsock alike: a
// socket type, closing, waiting until readable, sending without SIGPIPE, receiving. Winsock is
// started for as long as a SocketLibrary lives (libcurl starts it too, but a server may come first).
#pragma once

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <cstddef>

namespace zoth_test {

#if defined(_WIN32)
using SocketFd = SOCKET;
constexpr SocketFd kNoSocket = INVALID_SOCKET;
using SocketLength = int;
#else
using SocketFd = int;
constexpr SocketFd kNoSocket = -1;
using SocketLength = socklen_t;
#endif

// Winsock started for the object's life; nothing to do on POSIX. Ok() is false when it failed.
class SocketLibrary {
public:
    SocketLibrary() {
#if defined(_WIN32)
        WSADATA data;
        m_ok = WSAStartup(MAKEWORD(2, 2), &data) == 0;
#endif
    }
    ~SocketLibrary() {
#if defined(_WIN32)
        if (m_ok) WSACleanup();
#endif
    }
    SocketLibrary(const SocketLibrary&) = delete;
    SocketLibrary& operator=(const SocketLibrary&) = delete;
    bool Ok() const {
        return m_ok;
    }

private:
    bool m_ok = true;
};

inline void CloseSocket(SocketFd fd) {
#if defined(_WIN32)
    ::closesocket(fd);
#else
    ::close(fd);
#endif
}

// Whether `fd` has something to read (or a connection to accept) within `ms` milliseconds.
inline bool Readable(SocketFd fd, int ms) {
#if defined(_WIN32)
    WSAPOLLFD p{fd, POLLRDNORM, 0};
    return ::WSAPoll(&p, 1, ms) > 0;
#else
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, ms) > 0;
#endif
}

// One send of at most `size` bytes: the count sent, or <= 0 when the peer is gone (never SIGPIPE).
inline long SendSome(SocketFd fd, const char* data, size_t size) {
#if defined(_WIN32)
    return ::send(fd, data, static_cast<int>(size > 1 << 30 ? 1 << 30 : size), 0);
#else
    return static_cast<long>(::send(fd, data, size, MSG_NOSIGNAL));
#endif
}

// One receive into `buffer`: the count read, 0 at the end, < 0 on an error.
inline long ReceiveSome(SocketFd fd, char* buffer, size_t size) {
#if defined(_WIN32)
    return ::recv(fd, buffer, static_cast<int>(size), 0);
#else
    return static_cast<long>(::recv(fd, buffer, size, 0));
#endif
}

// Turns off Nagle's delay, so small pieces (a dripped byte) leave at once.
inline void NoDelay(SocketFd fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

} // namespace zoth_test
