// Helpers of the file tests: whole-file reads and writes through the standard library (so the checks
// do not lean on the code under test), md5sum (Windows: the system's CryptoAPI) as the peer, and
// checks run without root's privileges.
#pragma once

#include "Portable.h"

#if defined(_WIN32)
#include <wincrypt.h>
#else
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <cstdio>
#include <filesystem>
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

// Whether anything is at `path`, a link included (not followed).
inline bool Exists(const std::string& path) {
    std::error_code ec;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ec));
}

// Removes a file, read-only or not. True on success.
inline bool RemoveFile(const std::string& path) {
    if (kWindows) SetReadOnly(path, false); // Windows refuses to delete a read-only file
    std::error_code ec;
    return std::filesystem::remove(path, ec);
}

// The digest of a file by the peer tool: md5sum / sha256sum, or the system's CryptoAPI on Windows.
inline std::string PeerDigestOf(const std::string& path, bool sha256) {
#if defined(_WIN32)
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    HCRYPTPROV provider = 0;
    HCRYPTHASH hash = 0;
    BYTE digest[32];
    DWORD length = sizeof digest;
    std::string hex;
    if (CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT) &&
        CryptCreateHash(provider, sha256 ? CALG_SHA_256 : CALG_MD5, 0, 0, &hash) &&
        CryptHashData(hash, reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()),
                      0) &&
        CryptGetHashParam(hash, HP_HASHVAL, digest, &length, 0)) {
        char two[3];
        for (DWORD i = 0; i < length; ++i) {
            std::snprintf(two, sizeof two, "%02x", digest[i]);
            hex += two;
        }
    }
    if (hash) CryptDestroyHash(hash);
    if (provider) CryptReleaseContext(provider, 0);
    return hex;
#else
    FILE* pipe = ::popen(((sha256 ? "sha256sum '" : "md5sum '") + path + "'").c_str(), "r");
    if (pipe == nullptr) return "";
    char digest[65] = {};
    size_t n = fread(digest, 1, sha256 ? 64 : 32, pipe);
    ::pclose(pipe);
    return std::string(digest, n);
#endif
}

inline std::string Md5sumOf(const std::string& path) {
    return PeerDigestOf(path, false);
}

inline std::string Sha256sumOf(const std::string& path) {
    return PeerDigestOf(path, true);
}

// Whether the test runs with root's privileges (never on Windows, which has no root).
inline bool IsRoot() {
#if defined(_WIN32)
    return false;
#else
    return ::geteuid() == 0;
#endif
}

// Runs `check` in a child process as the unprivileged user nobody (65534) when the test runs as root,
// else as the current user: 1 when `check` returned true, 0 when false, -1 when the child could not
// drop its privileges. POSIX users only: -1 on Windows.
inline int RunUnprivileged(const std::function<bool()>& check) {
#if defined(_WIN32)
    (void)check;
    return -1;
#else
    pid_t child = ::fork();
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
        ::_exit(check() ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status) == 3 ? -1 : WEXITSTATUS(status) == 0 ? 1 : 0;
#endif
}

} // namespace zoth_test
