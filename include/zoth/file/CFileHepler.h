// CFileHepler: static operations on files: content, size, MD5, times and version numbers.
// Paths go to the platform unchanged. Reads open with write access and create a missing file.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <string>

namespace ZOTH {

class ZOTH_API CFileHepler {
public:
    CFileHepler();
    ~CFileHepler();
    CFileHepler& operator=(const CFileHepler& other);

    // Writes the bytes behind whatever the file holds after opening it with `disposition`
    // (CREATE_NEW .. TRUNCATE_EXISTING). 1 written, 0 failed. The string form writes strings of
    // any length, 2 GiB and more included.
    static int WriteDataToFile(std::string data, std::string path, unsigned int disposition);
    static int WriteDataToFile(char* data, int length, std::string path, unsigned int disposition);
    // Replaces `data` with the whole file, of any size. A missing file is created empty. 1 read;
    // 0 failed, `data` untouched (also when the content cannot be held in memory).
    static int ReadDataByFilePath(const std::string& path, std::string& data);
    // The whole 64-bit size in bytes, through a temporary copy at `tempPath` when the file cannot be
    // opened for writing. 0 on failure.
    static unsigned __int64 GetFileSize(const std::string& path, std::string tempPath);
    // 32 lower-case hex digits of the whole file, of any size, read in chunks in constant memory;
    // through a temporary copy when needed; "" on failure.
    static std::string GetFileMd5(const std::string& path, std::string tempPath);

    // Creation, last write and last access time in local time; each pointer may be null.
    static int GetFileTimeInfo(std::string path, _SYSTEMTIME* created, _SYSTEMTIME* written,
                               _SYSTEMTIME* accessed);
    static _SYSTEMTIME GetCurrentProcessModifyTime();
    static std::string GetCurrentProcessFileVersion();
    // ((a*256 + b)*256 + c)*256 + d in 32 bits; 0 on failure.
    static DWORD GetFileVersion(std::string path);
    static std::string GetExeFileVersion(std::string path); // "a.b.c.d"; "" on failure

private:
    static int GetFileModifyTime(std::string path, _SYSTEMTIME& written);
    static void GetSystemTimeFromUtcTime(const _FILETIME& utc, _SYSTEMTIME* local);
};

} // namespace ZOTH
