// CFileHepler: writing bytes, reading a whole file, a file's size and its MD5 digest. Reads open the
// file for reading and writing and create it when missing; size and digest fall back to a temporary
// copy for a file that such an open cannot reach.
#include "zoth/file/CFileHepler.h"
#include "zoth/platform/Win32File.h"
#include "zoth/text/STRING_UTIL.h"

#include <exception>

namespace ZOTH {

CFileHepler::CFileHepler() = default;
CFileHepler::~CFileHepler() = default;
CFileHepler& CFileHepler::operator=(const CFileHepler&) {
    return *this;
}

namespace {

// The open that every read of this class uses: read and write access, creating a missing file.
HANDLE ReadOpen(const std::string& path) {
    return CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

} // namespace

// Opens with `disposition`, then writes behind the file's content. 1 if the write call succeeded.
int CFileHepler::WriteDataToFile(char* data, int length, std::string path, unsigned int disposition) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 0;
    SetFilePointer(file, 0, nullptr, FILE_END);
    DWORD written = 0;
    BOOL ok = WriteFile(file, data, static_cast<DWORD>(length), &written, nullptr);
    CloseHandle(file);
    return ok ? 1 : 0;
}

// The same with the bytes of a string, NUL bytes included.
int CFileHepler::WriteDataToFile(std::string data, std::string path, unsigned int disposition) {
    return WriteDataToFile(data.data(), static_cast<int>(data.size()), std::move(path), disposition);
}

// Replaces `data` with the whole file (low 32 bits of its size). `data` is untouched on failure.
int CFileHepler::ReadDataByFilePath(const std::string& path, std::string& data) {
    HANDLE file = ReadOpen(path);
    if (file == INVALID_HANDLE_VALUE) return 0;
    DWORD size = ::GetFileSize(file, nullptr);
    if (size == INVALID_FILE_SIZE) {
        CloseHandle(file);
        return 0;
    }
    // The buffer becomes `data` itself on success, so the content is held once, not twice.
    std::string buffer;
    try {
        buffer.resize(size);
    } catch (const std::exception&) {
        CloseHandle(file);
        return 0;
    }
    DWORD read = 0;
    if (!ReadFile(file, buffer.data(), size, &read, nullptr) || read != size) {
        CloseHandle(file);
        return 0;
    }
    data.swap(buffer);
    CloseHandle(file);
    return 1;
}

// Size through the read open, else through a copy at `tempPath`; a non-empty `tempPath` is always
// deleted at the end, whoever put a file there.
unsigned __int64 CFileHepler::GetFileSize(const std::string& path, std::string tempPath) {
    HANDLE file = ReadOpen(path);
    if (file == INVALID_HANDLE_VALUE) {
        if (tempPath.empty()) return 0;
        DeleteFileA(tempPath.c_str());
        if (!CopyFileA(path.c_str(), tempPath.c_str(), TRUE)) return 0;
        file = ReadOpen(tempPath);
        if (file == INVALID_HANDLE_VALUE) return 0;
    }
    DWORD size = ::GetFileSize(file, nullptr);
    if (size == INVALID_FILE_SIZE) {
        CloseHandle(file);
        return 0;
    }
    CloseHandle(file);
    if (!tempPath.empty()) DeleteFileA(tempPath.c_str());
    return size;
}

// MD5 of the whole file as 32 lower-case hex digits; through a copy at `tempPath` only after the
// first read failed, and that copy stays on disk.
std::string CFileHepler::GetFileMd5(const std::string& path, std::string tempPath) {
    std::string content;
    if (!ReadDataByFilePath(path, content)) {
        if (tempPath.empty()) return "";
        DeleteFileA(tempPath.c_str());
        if (!CopyFileA(path.c_str(), tempPath.c_str(), TRUE)) return "";
        if (!ReadDataByFilePath(tempPath, content)) return "";
    }
    unsigned char digest[16] = {};
    STRING_UTIL::Buffer2Md5(reinterpret_cast<unsigned char*>(content.data()),
                            static_cast<unsigned int>(content.size()), digest);
    return STRING_UTIL::Hex2String(digest, 16);
}

} // namespace ZOTH
