// CFileHepler: writing bytes, reading a whole file, a file's size and its MD5 digest. Reads open the
// file for reading and writing and create it when missing; size and digest fall back to a temporary
// copy for a file that such an open cannot reach.
#include "zoth/file/CFileHepler.h"
#include "zoth/platform/Win32File.h"
#include "zoth/text/STRING_UTIL.h"

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
// A negative length is refused before the file is touched.
int CFileHepler::WriteDataToFile(char* data, int length, std::string path, unsigned int disposition) {
    if (length < 0) return 0;
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

namespace {

// A zero-filled buffer of the system's, released when it goes out of scope.
class WholeFile {
public:
    ~WholeFile() {
        if (m_bytes != nullptr) VirtualFree(m_bytes, 0, MEM_RELEASE);
    }
    bool Allocate(DWORD size) {
        m_bytes = static_cast<char*>(
            VirtualAlloc(nullptr, static_cast<SIZE_T>(size) + 1, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
        m_size = size;
        return m_bytes != nullptr;
    }
    char* Bytes() const { return m_bytes; }
    DWORD Size() const { return m_size; }

private:
    char* m_bytes = nullptr;
    DWORD m_size = 0;
};

// The read open, the size's low 32 bits, a buffer of size + 1 zeroed bytes and one ReadFile that must
// deliver all of them. The file is closed on every path.
bool ReadWholeFile(const std::string& path, WholeFile& content) {
    HANDLE file = ReadOpen(path);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD size = ::GetFileSize(file, nullptr);
    DWORD read = 0;
    bool ok = size != INVALID_FILE_SIZE && content.Allocate(size) &&
              ReadFile(file, content.Bytes(), size, &read, nullptr) && read == size;
    CloseHandle(file);
    return ok;
}

} // namespace

// Replaces `data` with the whole file (low 32 bits of its size). `data` is untouched on failure.
int CFileHepler::ReadDataByFilePath(const std::string& path, std::string& data) {
    WholeFile content;
    if (!ReadWholeFile(path, content)) return 0;
    data.assign(content.Bytes(), content.Size());
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

namespace {

// MD5 over the whole content in one call, as 32 lower-case hex digits.
std::string Digest(const WholeFile& content) {
    unsigned char digest[16] = {};
    STRING_UTIL::Buffer2Md5(reinterpret_cast<unsigned char*>(content.Bytes()), content.Size(), digest);
    return STRING_UTIL::Hex2String(digest, 16);
}

} // namespace

// MD5 of the whole file as 32 lower-case hex digits; through a copy at `tempPath` only after the
// first read failed, and that copy stays on disk.
std::string CFileHepler::GetFileMd5(const std::string& path, std::string tempPath) {
    // The steps of ReadDataByFilePath, keeping the content in the system buffer: the digest reads it
    // there, and a second copy of a large file would cost as much as the digest itself.
    WholeFile content;
    if (!ReadWholeFile(path, content)) {
        if (tempPath.empty()) return "";
        DeleteFileA(tempPath.c_str());
        if (!CopyFileA(path.c_str(), tempPath.c_str(), TRUE)) return "";
        WholeFile copy;
        if (!ReadWholeFile(tempPath, copy)) return "";
        return Digest(copy);
    }
    return Digest(content);
}

} // namespace ZOTH
