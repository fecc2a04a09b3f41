// What the tests need of the system beside the library, on Linux and on Windows alike: environment
// variables, the time zone, read-only files, file times, links and the running program's path. The
// tests use these rather than POSIX or Win32 calls of their own, so one test source runs on both.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

#if defined(_WIN32)
#include <winsock2.h> // before <windows.h>, as the library's own headers include them
#include <windows.h>

#include <process.h>
#else
#include <climits>
#include <fcntl.h>
#include <sys/wait.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace zoth_test {

// Whether the test program runs on Windows (or Wine).
constexpr bool kWindows =
#if defined(_WIN32)
    true;
#else
    false;
#endif

// Whether the Windows program runs under Wine, which differs from Windows in a few places the tests
// name where they meet one.
inline bool UnderWine() {
#if defined(_WIN32)
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return false;
#endif
}

// Whether a DLL the library delay-loads on Windows (libcurl-x64.dll, sqlite3.dll) can be loaded: a
// call into one that cannot ends the program. Elsewhere the libraries are linked as usual.
inline bool DllLoads(const char* dll) {
#if defined(_WIN32)
    HMODULE module = LoadLibraryA(dll);
    if (module != nullptr) FreeLibrary(module);
    return module != nullptr;
#else
    (void)dll;
    return true;
#endif
}

// The platform's path separator, as the library writes it.
constexpr char kSep = kWindows ? '\\' : '/';

inline void SetEnv(const char* name, const std::string& value) {
#if defined(_WIN32)
    _putenv_s(name, value.c_str());
#else
    setenv(name, value.c_str(), 1);
#endif
}

inline void UnsetEnv(const char* name) {
#if defined(_WIN32)
    _putenv_s(name, "");
#else
    unsetenv(name);
#endif
}

// Sets an environment variable for the scope and puts the old value (or its absence) back after.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        const char* old = std::getenv(name);
        m_had = old != nullptr;
        if (m_had) m_old = old;
        value ? SetEnv(name, value) : UnsetEnv(name);
    }
    ~ScopedEnv() { m_had ? SetEnv(m_name, m_old) : UnsetEnv(m_name); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* m_name;
    bool m_had = false;
    std::string m_old;
};

// A local time zone `hours` ahead of UTC, without summer time, for the scope. POSIX takes it from
// TZ. Windows takes the local zone from the system's settings only, which a test cannot change, so
// there the zone stays as it is: OffsetMinutes() says which offset local times carry either way.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(int hours)
        : m_tz("TZ", kWindows ? nullptr
                              : ("UTC" + std::string(hours > 0 ? "-" : "+") +
                                 std::to_string(hours > 0 ? hours : -hours))
                                    .c_str()),
          m_hours(hours) {
        tzset();
    }
    ~ScopedTimeZone() { tzset(); }
    // The offset of local time from UTC at this moment, in minutes.
    int OffsetMinutes() const {
#if defined(_WIN32)
        TIME_ZONE_INFORMATION zone;
        const DWORD kind = GetTimeZoneInformation(&zone);
        LONG bias = zone.Bias;
        if (kind == TIME_ZONE_ID_DAYLIGHT) bias += zone.DaylightBias;
        if (kind == TIME_ZONE_ID_STANDARD) bias += zone.StandardBias;
        return -static_cast<int>(bias);
#else
        return m_hours * 60;
#endif
    }

private:
    ScopedEnv m_tz;
    int m_hours;
};

// Gives a file the read-only attribute (Windows) or takes every write permission bit (POSIX); false
// clears it again. True on success.
inline bool SetReadOnly(const std::string& path, bool readOnly = true) {
#if defined(_WIN32)
    DWORD attributes = GetFileAttributesA(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return false;
    attributes = readOnly ? (attributes | FILE_ATTRIBUTE_READONLY) : (attributes & ~FILE_ATTRIBUTE_READONLY);
    return SetFileAttributesA(path.c_str(), attributes) != 0;
#else
    return ::chmod(path.c_str(), readOnly ? 0444 : 0644) == 0;
#endif
}

// Whether a file carries the read-only attribute (Windows) or has no write permission bit (POSIX).
inline bool IsReadOnly(const std::string& path) {
#if defined(_WIN32)
    const DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0;
#else
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && (st.st_mode & 0222) == 0;
#endif
}

// Whether a read-only file refuses to be opened for writing. The platform layer refuses it whoever
// the caller is, as Windows does; Wine maps the attribute onto the Unix permission bits, which root
// passes by, so under Wine run by root it does not hold.
inline bool ReadOnlyRefusesWrites() {
#if defined(_WIN32)
    static const bool refuses = [] {
        char folder[MAX_PATH], path[MAX_PATH];
        if (GetTempPathA(MAX_PATH, folder) == 0 || GetTempFileNameA(folder, "zro", 0, path) == 0) return true;
        SetFileAttributesA(path, FILE_ATTRIBUTE_READONLY);
        HANDLE file = CreateFileA(path, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        const bool refused = file == INVALID_HANDLE_VALUE;
        if (!refused) CloseHandle(file);
        SetFileAttributesA(path, FILE_ATTRIBUTE_NORMAL);
        DeleteFileA(path);
        return refused;
    }();
    return refuses;
#else
    return true;
#endif
}

// Sets a file's last write and last access times, in seconds since 1970 UTC. True on success.
inline bool SetFileTimes(const std::string& path, int64_t lastWrite, int64_t lastAccess) {
#if defined(_WIN32)
    auto ticks = [](int64_t seconds) {
        const uint64_t t = static_cast<uint64_t>(seconds) * 10000000u + 116444736000000000u;
        FILETIME ft;
        ft.dwLowDateTime = static_cast<DWORD>(t);
        ft.dwHighDateTime = static_cast<DWORD>(t >> 32);
        return ft;
    };
    HANDLE file = CreateFileA(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    const FILETIME access = ticks(lastAccess), write = ticks(lastWrite);
    const bool ok = SetFileTime(file, nullptr, &access, &write) != 0;
    CloseHandle(file);
    return ok;
#else
    struct timespec times[2] = {{static_cast<time_t>(lastAccess), 0}, {static_cast<time_t>(lastWrite), 0}};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
#endif
}

// A symbolic link at `link` to the folder or file `target`. Wine cannot make one through the Win32
// call, but shows a Unix link as a reparse point (a link to a folder as FILE_ATTRIBUTE_DIRECTORY |
// FILE_ATTRIBUTE_REPARSE_POINT), so there the link is made by the Unix `ln` (through Wine's
// `start /unix`). False where neither works (Windows without the privilege).
inline bool MakeLink(const std::string& target, const std::string& link) {
    std::error_code ec;
    if (std::filesystem::is_directory(target, ec))
        std::filesystem::create_directory_symlink(target, link, ec);
    else
        std::filesystem::create_symlink(target, link, ec);
    if (!ec) return true;
#if defined(_WIN32)
    using UnixName = char*(__cdecl*)(LPCWSTR);
    auto unixName = reinterpret_cast<UnixName>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name")));
    if (unixName == nullptr) return false;
    auto wide = [](const std::string& path) { return std::filesystem::path(path).wstring(); };
    char* unixTarget = unixName(wide(target).c_str());
    char* unixLink = unixName(wide(link).c_str());
    if (unixTarget != nullptr && unixLink != nullptr)
        _spawnlp(_P_WAIT, "start.exe", "start.exe", "/wait", "/unix", "/bin/ln", "-s", unixTarget, unixLink,
                 nullptr);
    HeapFree(GetProcessHeap(), 0, unixTarget);
    HeapFree(GetProcessHeap(), 0, unixLink);
    // `start` may return before the Unix program has run: wait for the link to show, up to 5 s.
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
    for (int i = 0; i < 500 && attributes == INVALID_FILE_ATTRIBUTES; ++i) {
        attributes = GetFileAttributesA(link.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) Sleep(10);
    }
    // Wine shows a link to a file as the file itself.
    return attributes != INVALID_FILE_ATTRIBUTES &&
           ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || !std::filesystem::is_directory(target, ec));
#else
    return false;
#endif
}

// The running process's id.
inline unsigned long ProcessId() {
#if defined(_WIN32)
    return GetCurrentProcessId();
#else
    return static_cast<unsigned long>(::getpid());
#endif
}

// The full path of the running program.
inline std::string SelfExe() {
#if defined(_WIN32)
    char path[MAX_PATH] = {};
    const DWORD n = GetModuleFileNameA(nullptr, path, MAX_PATH);
    return std::string(path, n);
#else
    char path[PATH_MAX] = {};
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : "";
#endif
}

// One argument for the system's shell, quoted: in single quotes for a POSIX shell, in double quotes
// for cmd.exe (the tests pass no double quote in an argument).
inline std::string Quote(const std::string& arg) {
#if defined(_WIN32)
    return "\"" + arg + "\"";
#else
    std::string quoted = "'";
    for (char c : arg)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
#endif
}

// A pipe to or from a command line of the system's shell (mode "r" or "w"), as popen opens it.
// cmd.exe drops the first and the last quote of a line that starts with one: the line goes in a
// pair of its own.
inline FILE* OpenPipe(const std::string& command, const char* mode) {
#if defined(_WIN32)
    return _popen(("\"" + command + "\"").c_str(), mode[0] == 'w' ? "wb" : "rb");
#else
    return popen(command.c_str(), mode);
#endif
}

// Closes a pipe of OpenPipe: the command's exit status, -1 when it did not exit.
inline int ClosePipe(FILE* pipe) {
#if defined(_WIN32)
    return _pclose(pipe);
#else
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
}

} // namespace zoth_test
