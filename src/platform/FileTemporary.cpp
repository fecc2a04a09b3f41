// The temporary file that takes a target's place once complete, on POSIX. Everything after its
// creation goes through two descriptors, the file's and its folder's: the owner and mode are set on
// the file itself, and its name is checked and renamed inside the folder it was made in, so another
// user who may rename entries there cannot make the process act on a file of their choosing.
#include "platform/FileObject.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace ZOTH::platform;

namespace {

struct TemporaryFile final : FileObject {
    TemporaryFile(int file, int dir, std::string tempName, std::string targetName, bool targetExisted)
        : FileObject(file, false), folder(dir), name(std::move(tempName)), target(std::move(targetName)),
          existed(targetExisted) {}
    ~TemporaryFile() override {
        if (!committed && NameIsStillMine()) ::unlinkat(folder, name.c_str(), 0);
        ::close(folder);
    }
    // True when the file's name in its folder still leads to this very file.
    bool NameIsStillMine() const {
        struct stat mine, named;
        return ::fstat(fd, &mine) == 0 && ::fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
               mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
    }

    int folder;         // the folder of the file and of its target, open for the file's whole life
    std::string name;   // the file's name in `folder`
    std::string target; // the target's name in `folder`
    bool existed;       // the target existed when the file was made
    bool committed = false;
};

// The process's umask, read without changing it: umask() sets it too, which races the file
// creation of other threads. 022 where the kernel does not tell it.
mode_t ProcessUmask() {
    mode_t mask = 022;
    FILE* status = std::fopen("/proc/self/status", "re");
    if (status == nullptr) return mask;
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) {
        unsigned value = 0;
        if (std::sscanf(line, "Umask: %o", &value) == 1) {
            mask = static_cast<mode_t>(value & 0777);
            break;
        }
    }
    std::fclose(status);
    return mask;
}

// The target's folder open, its name in it, and whether it exists; false with the last error when
// the target is refused.
bool OpenTarget(const char* target, int& dir, std::string& name, bool& exists) {
    std::string path(target);
    struct stat st;
    if (::lstat(target, &st) == 0 && S_ISLNK(st.st_mode)) {
        // A link stands for the existing file it leads to; a dangling one is never written through,
        // so a privileged caller cannot be led to create a file wherever a link points.
        char* real = ::realpath(target, nullptr);
        if (real == nullptr) {
            SetLastError(errno == ENOENT || errno == ENOTDIR ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
            return false;
        }
        path = real;
        std::free(real);
    }
    std::string folder;
    if (!SplitPath(path, folder, name)) {
        SetLastError(ERROR_ACCESS_DENIED); // names a folder
        return false;
    }
    dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        SetLastErrorFromErrno(errno == ENOENT ? ENOTDIR : errno); // a missing folder is a path error
        return false;
    }
    exists = ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    const int error = errno;
    bool refused = false;
    if (exists)
        refused = !S_ISREG(st.st_mode) || IsReadOnlyMode(st.st_mode) ||
                  ::faccessat(dir, name.c_str(), W_OK, AT_EACCESS) != 0;
    if (refused || (!exists && error != ENOENT)) {
        if (refused)
            SetLastError(ERROR_ACCESS_DENIED);
        else
            SetLastErrorFromErrno(error);
        ::close(dir);
        return false;
    }
    return true;
}

// Puts the file in its target's place; false with the last error, the target as it was.
bool Place(TemporaryFile& file) {
    struct stat mine, old;
    if (::fstat(file.fd, &mine) != 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    const bool replace = ::fstatat(file.folder, file.target.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (!replace && errno != ENOENT) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    if (replace && !file.existed) {
        SetLastError(ERROR_ALREADY_EXISTS); // appeared meanwhile: not replaced unseen
        return false;
    }
    if (replace && (!S_ISREG(old.st_mode) || IsReadOnlyMode(old.st_mode))) {
        SetLastError(ERROR_UNABLE_TO_REMOVE_REPLACED);
        return false;
    }
    // The owner can be kept only by a privileged caller; the permission bits always.
    if (replace && (old.st_uid != mine.st_uid || old.st_gid != mine.st_gid) &&
        ::fchown(file.fd, old.st_uid, old.st_gid) != 0 && errno != EPERM) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    if (::fchmod(file.fd, replace ? (old.st_mode & 07777) : (0666 & ~ProcessUmask())) != 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    if (!file.NameIsStillMine()) {
        SetLastError(ERROR_FILE_NOT_FOUND); // the name was taken away: whatever is there now stays
        return false;
    }
    const char* from = file.name.c_str();
    const char* to = file.target.c_str();
    int done;
    if (replace) {
        done = ::renameat(file.folder, from, file.folder, to);
    } else {
        done = ::renameat2(file.folder, from, file.folder, to, RENAME_NOREPLACE);
        // A file system without the no-replace rename: a new link fails on an existing name too.
        if (done != 0 && errno == EINVAL) {
            done = ::linkat(file.folder, from, file.folder, to, 0);
            if (done == 0) ::unlinkat(file.folder, from, 0);
        }
    }
    if (done != 0) {
        if (errno == EEXIST)
            SetLastError(ERROR_ALREADY_EXISTS);
        else
            SetLastErrorFromErrno(errno);
        return false;
    }
    file.committed = true;
    return true;
}

TemporaryFile* AsTemporaryFile(HANDLE handle) {
    auto* file = dynamic_cast<TemporaryFile*>(ObjectOf(handle));
    if (file == nullptr) SetLastError(ERROR_INVALID_HANDLE);
    return file;
}

} // namespace

HANDLE CreateTemporaryFileA(LPCSTR target, LPCSTR prefix) {
    if (target == nullptr || *target == '\0' || prefix == nullptr || std::strchr(prefix, '/') != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    int dir = -1;
    std::string name;
    bool exists = false;
    if (!OpenTarget(target, dir, name, exists)) return INVALID_HANDLE_VALUE;
    const std::string base = std::string(prefix).substr(0, 3);
    for (int attempt = 0; attempt < 100; ++attempt) {
        uint32_t number = 0;
        if (::getrandom(&number, sizeof number, 0) != sizeof number)
            number = static_cast<uint32_t>(::clock()) ^ static_cast<uint32_t>(::getpid()) << 16;
        char digits[16];
        std::snprintf(digits, sizeof digits, "%08X.TMP", number);
        const std::string temp = base + digits;
        int fd = ::openat(dir, temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) {
            SetLastErrorFromErrno(errno);
            ::close(dir);
            return INVALID_HANDLE_VALUE;
        }
        SetLastError(ERROR_SUCCESS);
        return new TemporaryFile(fd, dir, temp, name, exists);
    }
    ::close(dir);
    SetLastError(ERROR_FILE_EXISTS);
    return INVALID_HANDLE_VALUE;
}

BOOL CommitTemporaryFile(HANDLE handle) {
    return CommitTemporaryFileEx(handle, 0);
}

BOOL CommitTemporaryFileEx(HANDLE handle, DWORD flags) {
    TemporaryFile* file = AsTemporaryFile(handle);
    if (file == nullptr) return FALSE;
    bool placed = false;
    if ((flags & ~MOVEFILE_WRITE_THROUGH) != 0)
        SetLastError(ERROR_INVALID_PARAMETER);
    else
        placed = Place(*file);
    DWORD error = GetLastError();
    // The rename is in the folder's entries: they reach the disk with the folder's own flush.
    if (placed && (flags & MOVEFILE_WRITE_THROUGH) != 0 && ::fsync(file->folder) != 0) {
        SetLastErrorFromErrno(errno);
        error = GetLastError();
    }
    delete file; // deletes the file unless it took the target's place
    SetLastError(error);
    return placed ? TRUE : FALSE;
}

BOOL DiscardTemporaryFile(HANDLE handle) {
    TemporaryFile* file = AsTemporaryFile(handle);
    if (file == nullptr) return FALSE;
    delete file;
    return TRUE;
}

// ---- kept partial files of resumable downloads ----

namespace {

// The process's own partial: a plain file of the effective user, mode 0600, one link.
bool IsOwnKeptFile(int fd) {
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
           (st.st_mode & 07777) == 0600 && st.st_nlink == 1;
}

} // namespace

HANDLE OpenKeptTemporaryFileA(LPCSTR target, LPCSTR suffix, BOOL* reused) {
    if (target == nullptr || *target == '\0' || suffix == nullptr || *suffix == '\0' ||
        std::strchr(suffix, '/') != nullptr || reused == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    int dir = -1;
    std::string name;
    bool exists = false;
    if (!OpenTarget(target, dir, name, exists)) return INVALID_HANDLE_VALUE;
    const std::string kept = "." + name + suffix;
    for (int attempt = 0; attempt < 4; ++attempt) {
        int fd = ::openat(dir, kept.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        bool fresh = false;
        if (fd >= 0 && !IsOwnKeptFile(fd)) {
            // Not the process's own (another owner, mode or link count, a pipe): never reused.
            ::close(fd);
            ::unlinkat(dir, kept.c_str(), 0);
            continue;
        }
        if (fd < 0 && errno == ELOOP) { // a link in its place
            ::unlinkat(dir, kept.c_str(), 0);
            continue;
        }
        if (fd < 0 && errno == ENOENT) {
            fd = ::openat(dir, kept.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
            if (fd < 0 && errno == EEXIST) continue; // made meanwhile: look again
            fresh = true;
        }
        if (fd < 0) {
            SetLastErrorFromErrno(errno);
            ::close(dir);
            return INVALID_HANDLE_VALUE;
        }
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            ::close(fd);
            ::close(dir);
            SetLastError(ERROR_LOCK_VIOLATION);
            return INVALID_HANDLE_VALUE;
        }
        *reused = fresh ? FALSE : TRUE;
        SetLastError(ERROR_SUCCESS);
        return new TemporaryFile(fd, dir, kept, name, exists);
    }
    ::close(dir);
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

BOOL KeepTemporaryFile(HANDLE handle) {
    TemporaryFile* file = AsTemporaryFile(handle);
    if (file == nullptr) return FALSE;
    file->committed = true; // its name stays
    delete file;
    return TRUE;
}

BOOL DeleteKeptTemporaryFileA(LPCSTR target, LPCSTR suffix) {
    if (target == nullptr || *target == '\0' || suffix == nullptr || *suffix == '\0' ||
        std::strchr(suffix, '/') != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string folder, name;
    if (!SplitPath(target, folder, name)) {
        SetLastError(ERROR_INVALID_NAME);
        return FALSE;
    }
    int dir = -1;
    bool exists = false;
    // The folder the partial was made in: the one of the file a link leads to, else the path's own.
    if (!OpenTarget(target, dir, name, exists)) {
        dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir < 0) return TRUE; // no folder, no partial
    }
    const std::string kept = "." + name + suffix;
    const bool gone = ::unlinkat(dir, kept.c_str(), 0) == 0 || errno == ENOENT;
    if (!gone) SetLastErrorFromErrno(errno);
    ::close(dir);
    return gone ? TRUE : FALSE;
}
