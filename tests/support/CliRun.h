// Runs the zoth tool of this build as a process of its own: arguments passed as they are (no shell
// between), standard input fed from a string, standard output and error caught apart.
#pragma once

#include <string>
#include <vector>

#if defined(_WIN32)
#include <winsock2.h>
#include <windows.h>

#include <filesystem>
#include <thread>
#else
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

#ifndef ZOTH_TOOL_PATH
#error "ZOTH_TOOL_PATH must name the zoth tool (the test folder's CMakeLists.txt defines it)"
#endif

namespace zoth_test {

struct CliResult {
    int exitCode;    // the tool's exit code; 128 + N when signal N ended it, -1 when it did not start
    std::string out; // standard output (on Windows with CR LF read back as LF)
    std::string err; // standard error, the same way
};

namespace cli_detail {

constexpr int kLimitSeconds = 120; // a tool that hangs is ended and fails the test, not the run

#if defined(_WIN32)
// The tool beside the test program (where the Windows run keeps both), else the build's path.
inline std::string ToolPath() {
    char self[MAX_PATH] = {};
    DWORD n = GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::filesystem::path beside = std::filesystem::path(std::string(self, n)).parent_path() / "zoth.exe";
    std::error_code ec;
    return std::filesystem::exists(beside, ec) ? beside.string() : std::string(ZOTH_TOOL_PATH);
}

// One argument of a command line as the C runtime splits it again: quoted, with the backslashes
// before a quote doubled.
inline std::string Quoted(const std::string& arg) {
    if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) return arg;
    std::string out = "\"";
    size_t slashes = 0;
    for (char ch : arg) {
        if (ch == '\\') {
            ++slashes;
            continue;
        }
        out.append(ch == '"' ? 2 * slashes + 1 : slashes, '\\');
        slashes = 0;
        out += ch;
    }
    out.append(2 * slashes, '\\');
    return out + "\"";
}

inline std::string Unix(std::string text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i)
        if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) out += text[i];
    return out;
}

inline void Drain(HANDLE pipe, std::string& into) {
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) && got > 0)
        into.append(buffer, got);
}
#else
inline void Close(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}
#endif

} // namespace cli_detail

// Runs `zoth ARGS...` with `stdinData` on its standard input and waits for it to end.
inline CliResult RunZoth(const std::vector<std::string>& args, const std::string& stdinData = "") {
    CliResult result{-1, "", ""};
#if defined(_WIN32)
    using namespace cli_detail;
    std::string line = Quoted(ToolPath());
    for (const std::string& arg : args)
        line += " " + Quoted(arg);
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE inRead, inWrite, outRead, outWrite, errRead, errWrite;
    if (!CreatePipe(&inRead, &inWrite, &inherit, 0)) return result;
    CreatePipe(&outRead, &outWrite, &inherit, 0);
    CreatePipe(&errRead, &errWrite, &inherit, 0);
    // The test's own ends stay with the test.
    SetHandleInformation(inWrite, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = inRead;
    startup.hStdOutput = outWrite;
    startup.hStdError = errWrite;
    PROCESS_INFORMATION process{};
    BOOL started = CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                                  nullptr, &startup, &process);
    CloseHandle(inRead);
    CloseHandle(outWrite);
    CloseHandle(errWrite);
    if (started) {
        std::thread feeder([&] {
            DWORD written = 0;
            for (size_t at = 0; at < stdinData.size(); at += written)
                if (!WriteFile(inWrite, stdinData.data() + at, static_cast<DWORD>(stdinData.size() - at),
                               &written, nullptr))
                    break;
            CloseHandle(inWrite);
        });
        std::thread errReader([&] { Drain(errRead, result.err); });
        Drain(outRead, result.out);
        if (WaitForSingleObject(process.hProcess, kLimitSeconds * 1000) != WAIT_OBJECT_0)
            TerminateProcess(process.hProcess, 124);
        errReader.join();
        feeder.join();
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        result.exitCode = static_cast<int>(code);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    } else {
        CloseHandle(inWrite);
    }
    CloseHandle(outRead);
    CloseHandle(errRead);
    result.out = Unix(result.out);
    result.err = Unix(result.err);
    return result;
#else
    using cli_detail::Close;
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        for (int* p : {in, out, err}) {
            Close(p[0]);
            Close(p[1]);
        }
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<std::string> argv{ZOTH_TOOL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& arg : argv)
        pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, ZOTH_TOOL_PATH, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Close(in[0]);
    Close(out[1]);
    Close(err[1]);
    if (spawned != 0) {
        Close(in[1]);
        Close(out[0]);
        Close(err[0]);
        return result;
    }
    // Feed and drain at once: either side may fill its pipe while the other waits.
    std::signal(SIGPIPE, SIG_IGN); // a tool that stops reading early must not end the test
    size_t fed = 0;
    if (stdinData.empty())
        Close(in[1]);
    else
        ::fcntl(in[1], F_SETFL, ::fcntl(in[1], F_GETFL) | O_NONBLOCK); // a full pipe must not block us
    const time_t deadline = std::time(nullptr) + cli_detail::kLimitSeconds;
    while (out[0] >= 0 || err[0] >= 0) {
        pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
        if (::poll(fds, 3, 1000) < 0 && errno != EINTR) break;
        if (std::time(nullptr) > deadline) {
            ::kill(pid, SIGKILL);
            break;
        }
        for (int k = 0; k < 2; ++k) {
            if (fds[k].fd < 0 || (fds[k].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char buffer[4096];
            ssize_t got = ::read(fds[k].fd, buffer, sizeof buffer);
            if (got > 0)
                (k == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(got));
            else if (got == 0 || errno != EINTR)
                Close(k == 0 ? out[0] : err[0]);
        }
        if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
            ssize_t put = ::write(in[1], stdinData.data() + fed, stdinData.size() - fed);
            if (put > 0) fed += static_cast<size_t>(put);
            if ((put < 0 && errno != EAGAIN && errno != EINTR) || fed == stdinData.size()) Close(in[1]);
        }
    }
    Close(in[1]);
    Close(out[0]);
    Close(err[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.exitCode = 128 + WTERMSIG(status);
    return result;
#endif
}

} // namespace zoth_test

using zoth_test::CliResult;
using zoth_test::RunZoth;
