// The process-wide connection pool across fork: after a pooled request, a parent and its forked
// child each make requests at the same time and each gets its own answers, because the child never
// uses a connection it inherited. The server runs in a process of its own, so that neither side's
// fork copies it.
#include "zoth/http/CHttpClientCurl.h"

#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <httplib.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

using ZOTH::CHttpClientCurl;

namespace {

// An HTTP server in a forked process on 127.0.0.1 that answers "answer:<path>" after a short pause,
// so that requests sent at once from two processes are both on the wire before either answer.
class ServerProcess {
public:
    ServerProcess() {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(pipeFds[0]);
            httplib::Server server;
            server.set_keep_alive_max_count(1000000);
            server.set_keep_alive_timeout(30);
            server.Get(R"(/.*)", [](const httplib::Request& req, httplib::Response& res) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                res.set_content("answer:" + req.path, "text/plain");
            });
            int port = server.bind_to_any_port("127.0.0.1");
            if (::write(pipeFds[1], &port, sizeof port) != sizeof port) ::_exit(1);
            ::close(pipeFds[1]);
            server.listen_after_bind();
            ::_exit(0);
        }
        ::close(pipeFds[1]);
        if (m_pid < 0 || ::read(pipeFds[0], &m_port, sizeof m_port) != sizeof m_port) m_port = 0;
        ::close(pipeFds[0]);
    }
    ~ServerProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    bool Running() const { return m_port > 0; }
    std::string Url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }

private:
    pid_t m_pid = -1;
    int m_port = 0;
};

// 0 when a fresh client gets the answer to `path`, else 1.
int AskOnce(const ServerProcess& server, const std::string& path) {
    CHttpClientCurl client;
    std::string response;
    return client.HttpGet(server.Url(path), "", "", response) == 1 && response == "answer:" + path ? 0 : 1;
}

} // namespace

TEST(HttpForkedPool, ParentAndChildEachGetTheirOwnAnswers) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer stops the forked children of a process that has run threads";
#endif
    ServerProcess server;
    ASSERT_TRUE(server.Running());
    for (int round = 0; round < 20; ++round) {
        // A pooled connection waits in the parent's pool when the child is forked.
        ASSERT_EQ(AskOnce(server, "/warm/" + std::to_string(round)), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60); // a child that waits on an answer the parent took must not hang the suite
            int failed = 0;
            for (int i = 0; i < 3; ++i)
                failed |= AskOnce(server, "/child/" + std::to_string(round) + "/" + std::to_string(i));
            ::_exit(failed);
        }
        ASSERT_GT(child, 0);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(AskOnce(server, "/parent/" + std::to_string(round) + "/" + std::to_string(i)), 0)
                << "round " << round;
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "round " << round << ": status " << status;
    }
}
