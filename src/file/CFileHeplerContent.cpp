// CFileHepler: writing bytes, reading a whole file, a file's size and its MD5 digest. Reads open the
// file for reading and writing and create it when missing; size and digest fall back to a temporary
// copy for a file that such an open cannot reach. Sizes are 64-bit throughout, and the digest reads
// the file in chunks, so files of 4 GiB and more are measured and digested whole.
#include "zoth/file/CFileHepler.h"
#include "zoth/platform/Win32File.h"
#include "zoth/text/STRING_UTIL.h"

#include "text/Md5.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

namespace ZOTH {

CFileHepler::CFileHepler() = default;
CFileHepler::~CFileHepler() = default;
CFileHepler& CFileHepler::operator=(const CFileHepler&) {
    return *this;
}

namespace {

// The most one ReadFile or WriteFile is asked for: DWORD counts, and a string under 2 GiB still
// goes out in a single call.
constexpr uint64_t kMaxCall = uint64_t{1} << 31;

// The open that every read of this class uses: read and write access, creating a missing file.
HANDLE ReadOpen(const std::string& path) {
    return CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Opens with `disposition` and writes all `length` bytes behind the file's content. 1 if every write
// call succeeded.
int WriteBytes(const char* data, uint64_t length, const std::string& path, unsigned int disposition) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 0;
    SetFilePointer(file, 0, nullptr, FILE_END);
    BOOL ok = TRUE;
    uint64_t done = 0;
    do {
        const DWORD count = static_cast<DWORD>(std::min(length - done, kMaxCall));
        DWORD written = 0;
        ok = WriteFile(file, data + done, count, &written, nullptr);
        done += count;
    } while (ok && done < length);
    CloseHandle(file);
    return ok ? 1 : 0;
}

} // namespace

// Opens with `disposition`, then writes behind the file's content. 1 if the write call succeeded.
// A negative length is refused before the file is touched.
int CFileHepler::WriteDataToFile(char* data, int length, std::string path, unsigned int disposition) {
    if (length < 0) return 0;
    return WriteBytes(data, static_cast<uint64_t>(length), path, disposition);
}

// The same with every byte of a string, NUL bytes included, whatever its length.
int CFileHepler::WriteDataToFile(std::string data, std::string path, unsigned int disposition) {
    return WriteBytes(data.data(), data.size(), path, disposition);
}

namespace {

// A zero-filled buffer of the system's, released when it goes out of scope.
class WholeFile {
public:
    ~WholeFile() {
        if (m_bytes != nullptr) VirtualFree(m_bytes, 0, MEM_RELEASE);
    }
    bool Allocate(uint64_t size) {
        if (size >= std::string().max_size()) return false;
        m_bytes = static_cast<char*>(
            VirtualAlloc(nullptr, static_cast<SIZE_T>(size) + 1, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
        m_size = static_cast<size_t>(size);
        return m_bytes != nullptr;
    }
    char* Bytes() const { return m_bytes; }
    size_t Size() const { return m_size; }

private:
    char* m_bytes = nullptr;
    size_t m_size = 0;
};

// Reads exactly `size` bytes from the file position into `into`, in calls of at most kMaxCall bytes.
// False when a call fails or the file ends early.
bool ReadExactly(HANDLE file, char* into, uint64_t size) {
    for (uint64_t done = 0; done < size;) {
        const DWORD count = static_cast<DWORD>(std::min(size - done, kMaxCall));
        DWORD read = 0;
        if (!ReadFile(file, into + done, count, &read, nullptr) || read != count) return false;
        done += count;
    }
    return true;
}

// The read open, the 64-bit size, a buffer of size + 1 zeroed bytes and reads that must deliver all
// of them. The file is closed on every path.
bool ReadWholeFile(const std::string& path, WholeFile& content) {
    HANDLE file = ReadOpen(path);
    if (file == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size;
    bool ok = GetFileSizeEx(file, &size) && content.Allocate(static_cast<uint64_t>(size.QuadPart)) &&
              ReadExactly(file, content.Bytes(), content.Size());
    CloseHandle(file);
    return ok;
}

} // namespace

// Replaces `data` with the whole file. 0 and `data` untouched when it cannot be read or held.
int CFileHepler::ReadDataByFilePath(const std::string& path, std::string& data) {
    WholeFile content;
    if (!ReadWholeFile(path, content)) return 0;
    try {
        data.assign(content.Bytes(), content.Size());
    } catch (const std::bad_alloc&) {
        return 0; // assign leaves the string as it was when it cannot grow
    } catch (const std::length_error&) {
        return 0;
    }
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
    LARGE_INTEGER size;
    if (!GetFileSizeEx(file, &size)) {
        CloseHandle(file);
        return 0;
    }
    CloseHandle(file);
    if (!tempPath.empty()) DeleteFileA(tempPath.c_str());
    return static_cast<unsigned __int64>(size.QuadPart);
}

namespace {

// Small enough to stay in the first-level cache between the read that fills it and the digest that
// reads it: pieces of 256 KiB cost the kernel three times as much copying time, 64 KiB no more than
// md5sum's 32 KiB with half the calls.
constexpr DWORD kDigestChunk = 64u << 10;

// The MD5 of the file at `path` as 32 lower-case hex digits, read through the read open in chunks:
// the bytes the size announced at the start, all of them. False when the open or any read fails, or
// the file ends early, as the whole-file read fails in those cases.
bool DigestFile(const std::string& path, unsigned char* chunk, std::string& hex) {
    HANDLE file = ReadOpen(path);
    if (file == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size;
    bool ok = GetFileSizeEx(file, &size) != FALSE;
    text::Md5Context context;
    text::Md5Init(context);
    for (uint64_t left = ok ? static_cast<uint64_t>(size.QuadPart) : 0; ok && left > 0;) {
        const DWORD count = static_cast<DWORD>(std::min<uint64_t>(left, kDigestChunk));
        DWORD read = 0;
        ok = ReadFile(file, chunk, count, &read, nullptr) && read == count;
        if (ok) text::Md5Update(context, chunk, count);
        left -= count;
    }
    CloseHandle(file);
    if (!ok) return false;
    text::Md5Final(context);
    hex = STRING_UTIL::Hex2String(context.digest, 16);
    return true;
}

} // namespace

// MD5 of the whole file as 32 lower-case hex digits; through a copy at `tempPath` only after the
// first read failed, and that copy stays on disk. Memory stays one chunk whatever the file's size.
std::string CFileHepler::GetFileMd5(const std::string& path, std::string tempPath) {
    std::unique_ptr<unsigned char[]> chunk(new unsigned char[kDigestChunk]);
    std::string hex;
    if (DigestFile(path, chunk.get(), hex)) return hex;
    if (tempPath.empty()) return "";
    DeleteFileA(tempPath.c_str());
    if (!CopyFileA(path.c_str(), tempPath.c_str(), TRUE)) return "";
    if (!DigestFile(tempPath, chunk.get(), hex)) return "";
    return hex;
}

} // namespace ZOTH
