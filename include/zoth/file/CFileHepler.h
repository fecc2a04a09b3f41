// CFileHepler: static operations on files: content, size, MD5, times and version numbers.
// Paths go to the platform unchanged. Reads open with write access and create a missing file.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <string>

namespace ZOTH {

/// Static operations on one file: its content, size, MD5 digest, times and version numbers.
///
/// The class has no state; every operation is static and may be called from any thread (two calls
/// on the same file race as the file system lets them). Paths go to the platform unchanged (the
/// platform's separator, at most MAX_PATH bytes). Results report success only: 1/0, a value or an
/// empty string; the platform's error code is not kept. Reads open the file with write access and
/// create a missing file; a file that cannot be opened for writing is read through a temporary copy
/// where a `tempPath` is given.
class ZOTH_API CFileHepler {
public:
    /// Does nothing: the class has no state.
    CFileHepler();
    /// Does nothing.
    ~CFileHepler();
    /// Does nothing and returns *this.
    CFileHepler& operator=(const CFileHepler& other);

    /// Opens `path` with `disposition` (CREATE_NEW, CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS or
    /// TRUNCATE_EXISTING) and writes the bytes of `data` after whatever the file then holds. Writes
    /// strings of any length, 2 GiB and more included. 1 when every byte was written, else 0.
    static int WriteDataToFile(std::string data, std::string path, unsigned int disposition);
    /// As the string form, for `length` bytes at `data`; a negative length gives 0 and opens nothing.
    static int WriteDataToFile(char* data, int length, std::string path, unsigned int disposition);
    /// Replaces `data` with the whole content of the file, of any size; a missing file is created
    /// empty. 1 read; 0 failed, with `data` untouched (also when the content cannot be held in memory).
    static int ReadDataByFilePath(const std::string& path, std::string& data);
    /// The file's whole 64-bit size in bytes; through a temporary copy at `tempPath` (removed after)
    /// when the file cannot be opened for writing. 0 on failure.
    static unsigned __int64 GetFileSize(const std::string& path, std::string tempPath);
    /// 32 lower-case hex digits of the MD5 of the whole file, of any size, read in pieces in
    /// constant memory; through a temporary copy at `tempPath` when the file cannot be opened for
    /// writing. "" on failure.
    static std::string GetFileMd5(const std::string& path, std::string tempPath);
    /// 64 lower-case hex digits of the SHA-256 of the whole file, of any size, read once in pieces
    /// in constant memory through a read-only open. "" when the file cannot be opened or read whole.
    static std::string GetFileSha256(const std::string& path);

    /// The file's (or folder's) creation, last write and last access times, in local time with the
    /// time zone's present offset; a null pointer skips its time. 1 read; 0 failed (a missing path
    /// or one that cannot be opened), the records untouched.
    static int GetFileTimeInfo(std::string path, _SYSTEMTIME* created, _SYSTEMTIME* written,
                               _SYSTEMTIME* accessed);
    /// The running program's last write time in local time; a zeroed record when it cannot be read.
    static _SYSTEMTIME GetCurrentProcessModifyTime();
    /// The running program's file version "a.b.c.d"; "" when it has none (any ELF program).
    static std::string GetCurrentProcessFileVersion();
    /// The file version of a PE file (.exe, .dll) packed as ((a*256 + b)*256 + c)*256 + d in 32
    /// bits, a part above 255 carrying into its neighbour. 0 on failure or without a version.
    static DWORD GetFileVersion(std::string path);
    /// The file version of a PE file as "a.b.c.d", each part whole. "" on failure or without one.
    static std::string GetExeFileVersion(std::string path);

private:
    static int GetFileModifyTime(std::string path, _SYSTEMTIME& written);
    static void GetSystemTimeFromUtcTime(const _FILETIME& utc, _SYSTEMTIME* local);
};

} // namespace ZOTH
