// Runs the zoth tool as a process: arguments, standard input, and what it printed and returned.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <winsock2.h> // before <windows.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

struct CliResult {
    int exitCode;
    std::string out;
    std::string err;
};

namespace zoth_cli_test {

// The tool: beside the test program on Windows (bin/ holds both), else where the build put it.
inline std::string ZothPath() {
#if defined(_WIN32)
    char self[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    return (std::filesystem::path(self).parent_path() / "zoth.exe").string();
#else
    return ZOTH_TOOL_PATH;
#endif
}

// Standard input and the two outputs go through files of the run's own: no pipe can fill up and
// stall the child while the parent waits for it.
class RunFiles {
public:
    RunFiles() {
        std::random_device random;
        const auto base = std::filesystem::temp_directory_path();
        for (int attempt = 0; attempt < 100 && m_dir.empty(); ++attempt) {
            const auto dir = base / ("zoth-cli-" + std::to_string(random()));
            if (std::filesystem::create_directory(dir)) m_dir = dir;
        }
        if (m_dir.empty()) throw std::runtime_error("no temporary folder for the run");
    }
    ~RunFiles() {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
    std::string Path(const char* name) const { return (m_dir / name).string(); }
    std::string Read(const char* name) const {
        std::ifstream in(Path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::filesystem::path m_dir;
};

#if defined(_WIN32)
// One argument quoted as the C runtime splits a command line.
inline std::string Quote(const std::string& arg) {
    if (!arg.empty() && arg.find_first_of(" \t\"") == std::string::npos) return arg;
    std::string quoted = "\"";
    size_t slashes = 0;
    for (char c : arg) {
        if (c == '\\') {
            ++slashes;
            continue;
        }
        quoted.append(c == '"' ? slashes * 2 + 1 : slashes, '\\');
        slashes = 0;
        quoted += c;
    }
    quoted.append(slashes * 2, '\\');
    return quoted + "\"";
}
#endif

} // namespace zoth_cli_test

// Runs zoth with args and stdinData on its standard input; waits for it to end.
inline CliResult RunZoth(const std::vector<std::string>& args, const std::string& stdinData = "") {
    using namespace zoth_cli_test;
    RunFiles files;
    std::ofstream(files.Path("in"), std::ios::binary) << stdinData;
    const std::string tool = ZothPath();
    CliResult result{-1, "", ""};
#if defined(_WIN32)
    std::string line = Quote(tool);
    for (const std::string& arg : args)
        line += " " + Quote(arg);
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    const auto open = [&](const char* name, bool write) {
        return CreateFileA(files.Path(name).c_str(), write ? GENERIC_WRITE : GENERIC_READ, FILE_SHARE_READ,
                           &inherit, write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    };
    HANDLE in = open("in", false), out = open("out", true), err = open("err", true);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in;
    startup.hStdOutput = out;
    startup.hStdError = err;
    PROCESS_INFORMATION process{};
    if (CreateProcessA(tool.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                       &process)) {
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        result.exitCode = static_cast<int>(code);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    for (HANDLE h : {in, out, err})
        if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
#else
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, files.Path("in").c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, files.Path("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, files.Path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    std::vector<char*> argv{const_cast<char*>(tool.c_str())};
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv.data(), environ) == 0) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0) {
        }
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    posix_spawn_file_actions_destroy(&actions);
#endif
    result.out = files.Read("out");
    result.err = files.Read("err");
    return result;
}
