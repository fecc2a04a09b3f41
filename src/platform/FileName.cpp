// Files made and named on POSIX: temporary names, replacement, renames and copies.
#include "platform/FileObject.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace ZOTH::platform;

UINT GetTempFileNameA(LPCSTR folder, LPCSTR prefix, UINT unique, LPSTR name) {
    if (folder == nullptr || prefix == nullptr || name == nullptr || unique != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    // Windows takes at most three characters of the prefix.
    const std::string base = std::string(folder) + "/" + std::string(prefix).substr(0, 3);
    for (int attempt = 0; attempt < 100; ++attempt) {
        uint32_t number = 0;
        if (::getrandom(&number, sizeof number, 0) != sizeof number)
            number = static_cast<uint32_t>(::clock()) ^ static_cast<uint32_t>(::getpid()) << 16;
        if (number == 0) continue;
        char digits[16];
        std::snprintf(digits, sizeof digits, "%08X.TMP", number);
        const std::string path = base + digits;
        if (path.size() >= MAX_PATH) {
            SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return 0;
        }
        // Private to the caller, as every file the layer makes: the caller sets the mode it wants.
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) {
            SetLastErrorFromErrno(errno == ENOENT ? ENOTDIR : errno); // a missing folder is a path error
            return 0;
        }
        // A umask that takes the owner's write bit would leave a read-only file, which could neither
        // be written nor deleted; Windows makes a plain, writable file.
        struct stat made;
        if (::fstat(fd, &made) == 0 && IsReadOnlyMode(made.st_mode)) ::fchmod(fd, 0600);
        ::close(fd);
        std::memcpy(name, path.c_str(), path.size() + 1);
        SetLastError(ERROR_SUCCESS);
        return number;
    }
    SetLastError(ERROR_FILE_EXISTS);
    return 0;
}

BOOL ReplaceFileA(LPCSTR replaced, LPCSTR replacement, LPCSTR backup, DWORD flags, LPVOID exclude,
                  LPVOID reserved) {
    if (replaced == nullptr || replacement == nullptr || backup != nullptr || flags != 0 ||
        exclude != nullptr || reserved != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // Both names are looked up once, in folders held open; the owner and mode are set on the opened
    // replacement, and it is renamed only while its name still leads to that very file.
    std::string toFolder, toName, fromFolder, fromName;
    if (!SplitPath(replaced, toFolder, toName) || !SplitPath(replacement, fromFolder, fromName)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    struct Descriptors {
        int to = -1, from = -1, file = -1;
        ~Descriptors() {
            for (int fd : {file, from, to})
                if (fd >= 0) ::close(fd);
        }
    } d;
    auto fail = [](DWORD error) {
        SetLastError(error);
        return FALSE;
    };
    auto failErrno = [](int error) {
        SetLastErrorFromErrno(error);
        return FALSE;
    };
    d.to = ::open(toFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (d.to >= 0) d.from = ::open(fromFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (d.to < 0 || d.from < 0) return failErrno(errno == ENOENT ? ENOTDIR : errno);
    struct stat old, mine, named;
    if (::fstatat(d.to, toName.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0) return failErrno(errno);
    // Only a file or a link is replaced: never a folder, a device or a pipe.
    if ((!S_ISREG(old.st_mode) && !S_ISLNK(old.st_mode)) || IsReadOnlyMode(old.st_mode))
        return fail(ERROR_UNABLE_TO_REMOVE_REPLACED);
    d.file = ::openat(d.from, fromName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (d.file < 0) return failErrno(errno == ELOOP ? EACCES : errno);
    if (::fstat(d.file, &mine) != 0 || !S_ISREG(mine.st_mode)) return fail(ERROR_ACCESS_DENIED);
    if (!S_ISLNK(old.st_mode)) {
        // The owner can be kept only by a privileged caller; the permission bits always.
        if ((old.st_uid != mine.st_uid || old.st_gid != mine.st_gid) &&
            ::fchown(d.file, old.st_uid, old.st_gid) != 0 && errno != EPERM)
            return failErrno(errno);
        if (::fchmod(d.file, old.st_mode & 07777) != 0) return failErrno(errno);
    }
    if (::fstatat(d.from, fromName.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        named.st_dev != mine.st_dev || named.st_ino != mine.st_ino)
        return fail(ERROR_FILE_NOT_FOUND);
    if (::renameat(d.from, fromName.c_str(), d.to, toName.c_str()) != 0) return failErrno(errno);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL MoveFileExA(LPCSTR existing, LPCSTR target, DWORD flags) {
    if (existing == nullptr || target == nullptr || (flags & ~MOVEFILE_REPLACE_EXISTING) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int done;
    if (flags & MOVEFILE_REPLACE_EXISTING) {
        done = ::rename(existing, target);
    } else {
        done = ::renameat2(AT_FDCWD, existing, AT_FDCWD, target, RENAME_NOREPLACE);
        // A file system without the no-replace rename: a new link fails on an existing name too.
        if (done != 0 && errno == EINVAL) {
            done = ::link(existing, target);
            if (done == 0) ::unlink(existing);
        }
    }
    if (done != 0) {
        const int error = errno;
        if (error == EEXIST)
            SetLastError(ERROR_ALREADY_EXISTS);
        else
            SetLastErrorFromErrno(error);
        return FALSE;
    }
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

namespace {

// Moves the whole content of `from` to `to`, in the kernel where it can.
bool CopyContent(int from, int to) {
    for (;;) {
        ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
        if (n == 0) return true;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return false;
        break; // fall back to plain reads and writes
    }
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = ::write(to, buffer + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) return false;
            done += w;
        }
    }
}

} // namespace

BOOL CopyFileA(LPCSTR existing, LPCSTR target, BOOL failIfExists) {
    if (existing == nullptr || target == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int from = ::open(existing, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (from < 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    struct stat st;
    if (::fstat(from, &st) != 0 || !S_ISREG(st.st_mode)) { // no folders, pipes or devices
        SetLastError(ERROR_ACCESS_DENIED);
        ::close(from);
        return FALSE;
    }
    struct stat old;
    if (!failIfExists && ::stat(target, &old) == 0) {
        if (IsReadOnlyMode(old.st_mode) || S_ISDIR(old.st_mode)) {
            SetLastError(ERROR_ACCESS_DENIED);
            ::close(from);
            return FALSE;
        }
        if (old.st_dev == st.st_dev && old.st_ino == st.st_ino) {
            SetLastError(ERROR_SHARING_VIOLATION); // copying a file onto itself would empty it
            ::close(from);
            return FALSE;
        }
    }
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (failIfExists ? O_EXCL | O_NOFOLLOW : O_TRUNC);
    int to = ::open(target, flags, 0600);
    if (to < 0) {
        SetLastErrorFromErrno(errno);
        ::close(from);
        return FALSE;
    }
    struct stat made;
    const bool known = ::fstat(to, &made) == 0;
    bool ok = CopyContent(from, to);
    int error = errno;
    if (ok) {
        // The copy takes the source's permission bits (so a read-only source gives a read-only copy)
        // and its last write time.
        struct timespec times[2] = {st.st_atim, st.st_mtim};
        ok = ::fchmod(to, st.st_mode & 07777) == 0 && ::futimens(to, times) == 0;
        error = errno;
    }
    ::close(from);
    if (::close(to) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        // Only the file this call made or truncated goes, never whatever took its name since.
        struct stat named;
        if (known && ::lstat(target, &named) == 0 && made.st_dev == named.st_dev &&
            made.st_ino == named.st_ino)
            ::unlink(target);
        SetLastErrorFromErrno(error);
        return FALSE;
    }
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}
