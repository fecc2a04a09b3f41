// The wrapped C library calls (-Wl,--wrap=NAME routes the program's calls of NAME to __wrap_NAME,
// and __real_NAME reaches the C library). Only the armed thread is recorded or failed: the server
// thread of the test and libcurl (a shared library, not wrapped) are left alone.
#include "FileCallHook.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::mutex g_mutex;
bool g_armed = false;
pthread_t g_thread;
std::string g_failName;
int g_failIndex = -1, g_failErrno = 0;
bool g_failed = false;
std::vector<std::string> g_calls;
std::vector<std::pair<std::string, int>> g_counts;

// Records the call; true when it is the one to fail (errno is then set).
bool Hook(const char* name) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_armed || !pthread_equal(g_thread, pthread_self())) return false;
    g_calls.push_back(name);
    int index = 0;
    for (auto& c : g_counts)
        if (c.first == name) index = ++c.second;
    if (index == 0) g_counts.push_back({name, 0});
    if (g_failName == name && g_failIndex == index) {
        g_failed = true;
        errno = g_failErrno;
        return true;
    }
    return false;
}

// "fsync" of a folder is told apart from that of a file.
const char* FsyncName(int fd) {
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) ? "fsync(folder)" : "fsync";
}

} // namespace

namespace zoth_test {

void ArmFileCalls(const std::string& failName, int failIndex, int failErrno) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_armed = true;
    g_thread = pthread_self();
    g_failName = failName;
    g_failIndex = failIndex;
    g_failErrno = failErrno;
    g_failed = false;
    g_calls.clear();
    g_counts.clear();
}

std::vector<std::string> DisarmFileCalls() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_armed = false;
    return g_calls;
}

bool FileCallFailed() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_failed;
}

} // namespace zoth_test

extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_openat(int dir, const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
int __real_fdatasync(int fd);
int __real_fsync(int fd);
int __real_fchmod(int fd, mode_t mode);
int __real_fchown(int fd, uid_t uid, gid_t gid);
int __real_renameat(int from, const char* a, int to, const char* b);
int __real_renameat2(int from, const char* a, int to, const char* b, unsigned flags);
int __real_close(int fd);

int __wrap_open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    if (Hook("open")) return -1;
    return __real_open(path, flags, mode);
}
int __wrap_openat(int dir, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    if (Hook("openat")) return -1;
    return __real_openat(dir, path, flags, mode);
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return Hook("write") ? -1 : __real_write(fd, data, size);
}
int __wrap_fdatasync(int fd) {
    return Hook("fdatasync") ? -1 : __real_fdatasync(fd);
}
int __wrap_fsync(int fd) {
    return Hook(FsyncName(fd)) ? -1 : __real_fsync(fd);
}
int __wrap_fchmod(int fd, mode_t mode) {
    return Hook("fchmod") ? -1 : __real_fchmod(fd, mode);
}
int __wrap_fchown(int fd, uid_t uid, gid_t gid) {
    return Hook("fchown") ? -1 : __real_fchown(fd, uid, gid);
}
int __wrap_renameat(int from, const char* a, int to, const char* b) {
    return Hook("renameat") ? -1 : __real_renameat(from, a, to, b);
}
int __wrap_renameat2(int from, const char* a, int to, const char* b, unsigned flags) {
    return Hook("renameat2") ? -1 : __real_renameat2(from, a, to, b, flags);
}
int __wrap_close(int fd) {
    // A failed close still releases the descriptor, as Linux's does.
    if (Hook("close")) {
        const int error = errno;
        __real_close(fd);
        errno = error;
        return -1;
    }
    return __real_close(fd);
}
}
