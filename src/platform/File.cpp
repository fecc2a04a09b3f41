// Files on POSIX behind the Win32 file calls: open with a creation disposition, read, write, seek,
// size, times, copy, delete, and directory creation and removal.
#include "platform/FileObject.h"
#include "platform/PathUnicode.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ZOTH::platform {

FileObject::~FileObject() {
    if (fd >= 0) ::close(fd);
}

FileObject* FileOf(HANDLE handle) {
    auto* file = dynamic_cast<FileObject*>(ObjectOf(handle));
    if (file == nullptr) SetLastError(ERROR_INVALID_HANDLE);
    return file;
}

void SetLastErrorFromErrno(int error) {
    DWORD code;
    switch (error) {
    case 0:
        code = ERROR_SUCCESS;
        break;
    case ENOENT:
        code = ERROR_FILE_NOT_FOUND;
        break;
    case ENOTDIR:
        code = ERROR_PATH_NOT_FOUND;
        break;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ETXTBSY:
        code = ERROR_ACCESS_DENIED;
        break;
    case EEXIST:
        code = ERROR_FILE_EXISTS;
        break;
    case ENOTEMPTY:
        code = ERROR_DIR_NOT_EMPTY;
        break;
    case ENAMETOOLONG:
        code = ERROR_FILENAME_EXCED_RANGE;
        break;
    case ENOMEM:
        code = ERROR_NOT_ENOUGH_MEMORY;
        break;
    case ENOSPC:
    case EDQUOT:
        code = ERROR_DISK_FULL;
        break;
    case EBADF:
        code = ERROR_INVALID_HANDLE;
        break;
    case EINVAL:
        code = ERROR_INVALID_PARAMETER;
        break;
    case EBUSY:
        code = ERROR_SHARING_VIOLATION;
        break;
    case EFBIG:
    case EOVERFLOW:
        code = ERROR_NOT_SUPPORTED;
        break;
    default:
        code = ERROR_GEN_FAILURE;
        break;
    }
    SetLastError(code);
}

FILETIME FileTimeFromUnix(int64_t seconds, int64_t nanoseconds) {
    // 11644473600 seconds lie between 1601-01-01 and 1970-01-01.
    int64_t ticks = (seconds + 11644473600LL) * 10000000LL + nanoseconds / 100;
    if (ticks < 0) ticks = 0;
    FILETIME result;
    result.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks));
    result.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32);
    return result;
}

DWORD AttributesOf(const struct stat& st) {
    DWORD attributes = 0;
    if (S_ISLNK(st.st_mode)) attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    if (S_ISDIR(st.st_mode)) attributes |= FILE_ATTRIBUTE_DIRECTORY;
    if (IsReadOnlyMode(st.st_mode)) attributes |= FILE_ATTRIBUTE_READONLY;
    return attributes == 0 ? FILE_ATTRIBUTE_NORMAL : attributes;
}

// The status check is made at the same place as the unlink (the same folder descriptor), so a walk
// that deletes by name inside an open folder never follows a path that changed meanwhile.
BOOL DeleteFileAt(int dirFd, const char* name) {
    struct stat st;
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (S_ISDIR(st.st_mode) || IsReadOnlyMode(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::unlinkat(dirFd, name, 0) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    return TRUE;
}

} // namespace ZOTH::platform

using namespace ZOTH::platform;

namespace {

bool WantsWrite(DWORD access) {
    return (access & GENERIC_WRITE) != 0;
}

} // namespace

HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD flags,
                   HANDLE) {
    if (name == nullptr || *name == '\0') {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    int openFlags = O_CLOEXEC | O_NONBLOCK; // a pipe must not block the open
    if ((access & GENERIC_READ) && WantsWrite(access))
        openFlags |= O_RDWR;
    else if (WantsWrite(access))
        openFlags |= O_WRONLY;
    else
        openFlags |= O_RDONLY;
    switch (disposition) {
    case CREATE_NEW:
        openFlags |= O_CREAT | O_EXCL;
        break;
    case CREATE_ALWAYS:
        openFlags |= O_CREAT | O_TRUNC;
        break;
    case OPEN_EXISTING:
        break;
    case OPEN_ALWAYS:
        openFlags |= O_CREAT;
        break;
    case TRUNCATE_EXISTING:
        if (!WantsWrite(access)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
        }
        openFlags |= O_TRUNC;
        break;
    default:
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }

    // A file nobody may write refuses write access even to a privileged caller, as a file with the
    // read-only attribute does on Windows.
    struct stat st;
    bool exists = ::stat(name, &st) == 0;
    if (exists && WantsWrite(access) && IsReadOnlyMode(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    if (exists && S_ISDIR(st.st_mode)) {
        if (!(flags & FILE_FLAG_BACKUP_SEMANTICS) || disposition == CREATE_NEW) {
            SetLastError(disposition == CREATE_NEW ? ERROR_FILE_EXISTS : ERROR_ACCESS_DENIED);
            return INVALID_HANDLE_VALUE;
        }
        // A directory opens for its metadata only; POSIX does not open one for writing.
        openFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK;
    }

    mode_t mode = (flags & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
    int fd;
    do {
        fd = ::open(name, openFlags, mode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return INVALID_HANDLE_VALUE;
    }
    struct stat opened;
    if (::fstat(fd, &opened) != 0 || S_ISFIFO(opened.st_mode) || S_ISSOCK(opened.st_mode)) {
        ::close(fd);
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    bool isDirectory = S_ISDIR(opened.st_mode);
    SetLastError((exists && (disposition == OPEN_ALWAYS || disposition == CREATE_ALWAYS))
                     ? ERROR_ALREADY_EXISTS
                     : ERROR_SUCCESS);
    return new FileObject(fd, isDirectory);
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD read, LPOVERLAPPED) {
    FileObject* object = FileOf(file);
    if (read != nullptr) *read = 0;
    if (object == nullptr) return FALSE;
    if (object->isDirectory) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    if (buffer == nullptr && count > 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    DWORD done = 0;
    while (done < count) {
        ssize_t n = ::read(object->fd, static_cast<char*>(buffer) + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            SetLastErrorFromErrno(errno);
            return FALSE;
        }
        if (n == 0) break; // end of file
        done += static_cast<DWORD>(n);
    }
    if (read != nullptr) *read = done;
    return TRUE;
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD written, LPOVERLAPPED) {
    FileObject* object = FileOf(file);
    if (written != nullptr) *written = 0;
    if (object == nullptr) return FALSE;
    if (object->isDirectory) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (buffer == nullptr && count > 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    DWORD done = 0;
    while (done < count) {
        ssize_t n = ::write(object->fd, static_cast<const char*>(buffer) + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            SetLastErrorFromErrno(errno);
            if (written != nullptr) *written = done;
            return FALSE;
        }
        done += static_cast<DWORD>(n);
    }
    if (written != nullptr) *written = done;
    return TRUE;
}

DWORD SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return INVALID_SET_FILE_POINTER;
    int whence;
    switch (method) {
    case FILE_BEGIN:
        whence = SEEK_SET;
        break;
    case FILE_CURRENT:
        whence = SEEK_CUR;
        break;
    case FILE_END:
        whence = SEEK_END;
        break;
    default:
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    // Without a high part the distance is a signed 32-bit value; with one, the two make 64 bits.
    int64_t offset = distance;
    if (distanceHigh != nullptr)
        offset = static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(*distanceHigh)) << 32) |
                                      static_cast<uint32_t>(distance));
    off_t position = ::lseek(object->fd, static_cast<off_t>(offset), whence);
    if (position < 0) {
        if (errno == EINVAL)
            SetLastError(ERROR_NEGATIVE_SEEK);
        else
            SetLastErrorFromErrno(errno);
        return INVALID_SET_FILE_POINTER;
    }
    uint64_t unsignedPosition = static_cast<uint64_t>(position);
    if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(unsignedPosition >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(unsignedPosition);
}

DWORD GetFileSize(HANDLE file, LPDWORD sizeHigh) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return INVALID_FILE_SIZE;
    struct stat st;
    if (::fstat(object->fd, &st) != 0) {
        SetLastErrorFromErrno(errno);
        return INVALID_FILE_SIZE;
    }
    uint64_t size = object->isDirectory ? 0 : static_cast<uint64_t>(st.st_size);
    if (sizeHigh != nullptr) *sizeHigh = static_cast<DWORD>(size >> 32);
    SetLastError(ERROR_SUCCESS); // tells a size whose low part is all ones from a failure
    return static_cast<DWORD>(size);
}

BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER size) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return FALSE;
    if (size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    struct stat st;
    if (::fstat(object->fd, &st) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    size->QuadPart = object->isDirectory ? 0 : static_cast<LONGLONG>(st.st_size);
    return TRUE;
}

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
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) {
            SetLastErrorFromErrno(errno == ENOENT ? ENOTDIR : errno); // a missing folder is a path error
            return 0;
        }
        // A file made under a umask that leaves nobody a write bit would count as read-only and
        // could neither be written nor deleted; Windows makes a plain, writable file.
        struct stat made;
        if (::fstat(fd, &made) == 0 && IsReadOnlyMode(made.st_mode))
            ::fchmod(fd, (made.st_mode & 07777) | 0200);
        ::close(fd);
        std::memcpy(name, path.c_str(), path.size() + 1);
        SetLastError(ERROR_SUCCESS);
        return number;
    }
    SetLastError(ERROR_FILE_EXISTS);
    return 0;
}

DWORD GetFinalPathNameByHandleA(HANDLE file, LPSTR path, DWORD size, DWORD flags) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return 0;
    if (flags != (FILE_NAME_NORMALIZED | VOLUME_NAME_DOS) || (path == nullptr && size > 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    // The kernel keeps the path an open descriptor refers to, links already resolved.
    char target[PATH_MAX + 1];
    const std::string link = "/proc/self/fd/" + std::to_string(object->fd);
    ssize_t n = ::readlink(link.c_str(), target, PATH_MAX);
    if (n <= 0 || target[0] != '/') { // not a file in the tree (a pipe, a socket)
        SetLastError(ERROR_PATH_NOT_FOUND);
        return 0;
    }
    const DWORD length = static_cast<DWORD>(n);
    if (length >= size) return length + 1;
    std::memcpy(path, target, length);
    path[length] = '\0';
    return length;
}

BOOL ReplaceFileA(LPCSTR replaced, LPCSTR replacement, LPCSTR backup, DWORD flags, LPVOID exclude,
                  LPVOID reserved) {
    if (replaced == nullptr || replacement == nullptr || backup != nullptr || flags != 0 ||
        exclude != nullptr || reserved != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    struct stat old;
    if (::lstat(replaced, &old) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    // Only a file or a link is replaced: never a folder, a device or a pipe.
    if ((!S_ISREG(old.st_mode) && !S_ISLNK(old.st_mode)) || IsReadOnlyMode(old.st_mode)) {
        SetLastError(ERROR_UNABLE_TO_REMOVE_REPLACED);
        return FALSE;
    }
    if (!S_ISLNK(old.st_mode)) {
        // The owner can be kept only by a privileged caller; the permission bits always.
        if (::chown(replacement, old.st_uid, old.st_gid) != 0 && errno != EPERM) {
            SetLastErrorFromErrno(errno);
            return FALSE;
        }
        if (::chmod(replacement, old.st_mode & 07777) != 0) {
            SetLastErrorFromErrno(errno);
            return FALSE;
        }
    }
    if (::rename(replacement, replaced) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
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

BOOL GetFileTime(HANDLE file, LPFILETIME creation, LPFILETIME lastAccess, LPFILETIME lastWrite) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return FALSE;
    struct statx sx;
    if (::statx(object->fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (creation != nullptr) {
        const struct statx_timestamp& born = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_ctime;
        *creation = FileTimeFromUnix(born.tv_sec, born.tv_nsec);
    }
    if (lastAccess != nullptr) *lastAccess = FileTimeFromUnix(sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec);
    if (lastWrite != nullptr) *lastWrite = FileTimeFromUnix(sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec);
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
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (failIfExists ? O_EXCL : O_TRUNC);
    int to = ::open(target, flags, 0600);
    if (to < 0) {
        SetLastErrorFromErrno(errno);
        ::close(from);
        return FALSE;
    }
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
        ::unlink(target);
        SetLastErrorFromErrno(error);
        return FALSE;
    }
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL DeleteFileA(LPCSTR name) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return ZOTH::platform::DeleteFileAt(AT_FDCWD, name);
}

BOOL CreateDirectoryA(LPCSTR name, LPSECURITY_ATTRIBUTES) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (::mkdir(name, 0777) != 0) {
        int error = errno;
        if (error == EEXIST)
            SetLastError(ERROR_ALREADY_EXISTS);
        else if (error == ENOENT)
            SetLastError(ERROR_PATH_NOT_FOUND);
        else
            SetLastErrorFromErrno(error);
        return FALSE;
    }
    return TRUE;
}

BOOL CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES security) {
    std::string narrow;
    if (!Utf16ToUtf8(name, narrow)) {
        SetLastError(name == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_NAME);
        return FALSE;
    }
    return CreateDirectoryA(narrow.c_str(), security);
}

BOOL RemoveDirectoryA(LPCSTR name) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    struct stat st;
    if (::lstat(name, &st) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (!S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_DIRECTORY);
        return FALSE;
    }
    if (::rmdir(name) != 0) {
        SetLastErrorFromErrno(errno == EEXIST ? ENOTEMPTY : errno);
        return FALSE;
    }
    return TRUE;
}

BOOL FileTimeToLocalFileTime(const FILETIME* utc, LPFILETIME local) {
    if (utc == nullptr || local == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    uint64_t ticks = (static_cast<uint64_t>(utc->dwHighDateTime) << 32) | utc->dwLowDateTime;
    if (ticks > 0x7FFFFFFFFFFFFFFFULL) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // The offset of now, not of the time converted: Windows applies today's rule to every time.
    time_t now = ::time(nullptr);
    struct tm parts;
    if (::localtime_r(&now, &parts) == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int64_t shifted = static_cast<int64_t>(ticks) + static_cast<int64_t>(parts.tm_gmtoff) * 10000000LL;
    if (shifted < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    local->dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(shifted));
    local->dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(shifted) >> 32);
    return TRUE;
}
