// The forced end of a body that ignores its stop, whatever the body holds: a catch (...), a
// noexcept frame, a destructor that blocks. Each shape runs in a child process of its own (on
// POSIX), so a forced end that aborts the process is a failed test, not a dead test run.
#include "TaskTestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <future>
#include <memory>
#include <vector>

#if !defined(_WIN32)
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

using namespace task_test;

namespace {

enum Shape { kCatchAll, kNoexceptFrame, kBlockingDestructor };
const char* Name(Shape shape) {
    return shape == kCatchAll        ? "catch (...)"
           : shape == kNoexceptFrame ? "noexcept frame"
                                     : "blocking destructor";
}

constexpr DWORD kBodySleepMs = 1500; // well past the destructor's 500 ms
std::atomic<bool> g_entered{false}, g_ranOn{false};

void SleepInNoexcept() noexcept {
    Sleep(kBodySleepMs);
}

// A body that ignores the stop inside one of the shapes; anything it runs after its sleep marks
// g_ranOn, which a forced end must prevent.
class Holder : public ZOTH::CSimpleThread {
public:
    explicit Holder(Shape shape) : m_shape(shape) {}
    void ThreadWork(bool*) override {
        g_entered = true;
        switch (m_shape) {
        case kCatchAll:
            try {
                Sleep(kBodySleepMs);
            } catch (...) {
            }
            break;
        case kNoexceptFrame:
            SleepInNoexcept();
            break;
        case kBlockingDestructor: {
            // The future of std::async waits for its task in its destructor.
            auto pending = std::async(std::launch::async, [] { Sleep(kBodySleepMs); });
            break;
        }
        }
        g_ranOn = true;
    }

private:
    Shape m_shape;
};

// Runs one shape to its forced end; empty when all went as it must, else what went wrong.
std::string ForceEnd(Shape shape) {
    auto holder = std::make_unique<Holder>(shape);
    if (!holder->InitThread()) return "InitThread failed";
    holder->StartThread();
    if (!Eventually([] { return g_entered.load(); })) return "the body never ran";
    long long ms = TimeMs([&] { holder.reset(); });
    if (ms < 450 || ms > 5000) return "destructor took " + std::to_string(ms) + " ms";
    Sleep(kBodySleepMs + 500); // the body's sleep is over by now
    if (g_ranOn.load()) return "the body ran on after its forced end";
    return "";
}

// ForceEnd in a child process: an abort there shows as a failure here. Windows has no fork, and its
// TerminateThread unwinds nothing, so the shape runs in this process.
std::string ForceEndIsolated(Shape shape) {
#if defined(_WIN32)
    return ForceEnd(shape);
#else
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return "pipe failed";
    pid_t child = fork();
    if (child < 0) return "fork failed";
    if (child == 0) {
        close(pipeFds[0]);
        std::string result = ForceEnd(shape);
        int code = write(pipeFds[1], result.data(), result.size()) < 0 ? 3 : result.empty() ? 0 : 1;
#if defined(__SANITIZE_THREAD__)
        // Past the thread sanitizer's exit checks: the parked body never joins the thread of its
        // std::async, which it would report as a leak. That leak is the forced end's known cost.
        syscall(SYS_exit_group, code);
#endif
        _exit(code);
    }
    close(pipeFds[1]);
    std::string told;
    char buffer[256];
    for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;)
        told.append(buffer, static_cast<size_t>(n));
    close(pipeFds[0]);
    int status = 0;
    if (waitpid(child, &status, 0) != child) return "waitpid failed";
    if (WIFSIGNALED(status)) return "the process died of signal " + std::to_string(WTERMSIG(status));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return told.empty() ? "exit status " + std::to_string(WEXITSTATUS(status)) : told;
    return "";
#endif
}

} // namespace

TEST(TaskForcedEnd, NeverAbortsAndNeverRunsTheBodyOn) {
    for (Shape shape : {kCatchAll, kNoexceptFrame, kBlockingDestructor}) {
        SCOPED_TRACE(Name(shape));
        g_entered = false;
        g_ranOn = false;
        EXPECT_EQ("", ForceEndIsolated(shape));
    }
}
