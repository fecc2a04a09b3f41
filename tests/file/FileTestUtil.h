// Helpers of the file tests: whole-file reads and writes through the standard library (so the checks
// do not lean on the code under test), md5sum as the peer, and checks run without root's privileges.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace zoth_test {

inline std::string Slurp(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

inline void Spit(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), std::streamsize(bytes.size()));
}

inline bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

inline std::string Md5sumOf(const std::string& path) {
    FILE* pipe = ::popen(("md5sum '" + path + "'").c_str(), "r");
    if (pipe == nullptr) return "";
    char digest[33] = {};
    size_t n = fread(digest, 1, 32, pipe);
    ::pclose(pipe);
    return std::string(digest, n);
}

// Runs `check` in a child process as the unprivileged user nobody (65534) when the test runs as root,
// else as the current user: 1 when `check` returned true, 0 when false, -1 when the child could not
// drop its privileges.
inline int RunUnprivileged(const std::function<bool()>& check) {
    pid_t child = ::fork();
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
        ::_exit(check() ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status) == 3 ? -1 : WEXITSTATUS(status) == 0 ? 1 : 0;
}

} // namespace zoth_test
