// Deletion of one file and creation and removal of one directory on POSIX.
#include "platform/FileObject.h"
#include "platform/PathUnicode.h"

#include <cerrno>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace ZOTH::platform;

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
    // As Win32 does, "." and repeated separators are resolved in the text: "d/." removes d, and a
    // link named with a trailing "/." is a link, never the folder it leads to.
    const std::string path = ResolvePathText(name);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (!S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_DIRECTORY);
        return FALSE;
    }
    if (::rmdir(path.c_str()) != 0) {
        SetLastErrorFromErrno(errno == EEXIST ? ENOTEMPTY : errno);
        return FALSE;
    }
    return TRUE;
}
