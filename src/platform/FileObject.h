// Pieces shared by the layer's file, search, path and version calls: the kernel object behind a file
// handle, the errno to Win32 error mapping, and POSIX times as file-time ticks.
#pragma once

#include "platform/KernelObject.h"
#include "zoth/platform/Win32File.h"

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace ZOTH::platform {

struct FileObject : KernelObject {
    explicit FileObject(int descriptor, bool directory) : fd(descriptor), isDirectory(directory) {}
    ~FileObject() override;
    int fd;
    bool isDirectory;
};

// The open file behind `handle`, or null (with ERROR_INVALID_HANDLE) if it is no file handle.
FileObject* FileOf(HANDLE handle);

// Translates errno into the nearest Win32 error and makes it the last error.
void SetLastErrorFromErrno(int error);

// 100-nanosecond ticks since 1601-01-01 for a POSIX time.
FILETIME FileTimeFromUnix(int64_t seconds, int64_t nanoseconds);

// The Win32 attributes of an entry as lstat describes it (links are not followed).
DWORD AttributesOf(const struct stat& st);

// DeleteFileA for `name` relative to the folder `dirFd` (AT_FDCWD: the working folder).
BOOL DeleteFileAt(int dirFd, const char* name);

// Splits `path` into its folder ("." for a bare name, "/" at the root) and its last component.
// False when there is no last component to name a file by: "", a trailing separator, "." or "..".
bool SplitPath(const std::string& path, std::string& folder, std::string& name);

// `path` with "." components, repeated and trailing separators and every ".." that follows a named
// component resolved in the text, as Win32 resolves a path before it opens anything: "lnk/." is
// "lnk", "a/lnk/x/.." is "a/lnk". Leading ".." of a relative path stay; "" becomes ".".
std::string ResolvePathText(const std::string& path);

// True when nobody may write the file: the layer's read-only attribute.
inline bool IsReadOnlyMode(mode_t mode) {
    return !S_ISLNK(mode) && !S_ISDIR(mode) && (mode & 0222) == 0;
}

} // namespace ZOTH::platform
