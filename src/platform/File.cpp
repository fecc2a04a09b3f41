// Files on POSIX behind the Win32 file calls: open with a creation disposition, read, write, seek,
// size and times, and the errno and time translations the other file sources share.
#include "platform/FileObject.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
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

bool SplitPath(const std::string& path, std::string& folder, std::string& name) {
    const size_t slash = path.rfind('/');
    folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    name = slash == std::string::npos ? path : path.substr(slash + 1);
    return !name.empty() && name != "." && name != "..";
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
