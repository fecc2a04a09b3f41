// CFileHepler: a file's times in local time and its version from the version resource, with
// shortcuts for the running executable (never this library's own file).
#include "zoth/file/CFileHepler.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"
#include "zoth/platform/Win32Time.h"
#include "zoth/platform/Win32Version.h"
#include "zoth/text/STRING_UTIL.h"

#include <algorithm>
#include <vector>

namespace ZOTH {

namespace {

// The VS_FIXEDFILEINFO of a file into `fixed`; false when the file has none.
bool ReadFixedInfo(const std::string& path, VS_FIXEDFILEINFO& fixed) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
    if (size == 0) return false;
    // At least the customary 8096 bytes, and never less than the block needs.
    std::vector<char> buffer(std::max<size_t>(8096, size), 0);
    if (!GetFileVersionInfoA(path.c_str(), 0, size, buffer.data())) return false;
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!VerQueryValueA(buffer.data(), "\\", reinterpret_cast<LPVOID*>(&info), &length) || info == nullptr ||
        length < sizeof(VS_FIXEDFILEINFO))
        return false;
    fixed = *info;
    return true;
}

} // namespace

// Creation, last write and last access time in local time; out-pointers are written only on success.
int CFileHepler::GetFileTimeInfo(std::string path, _SYSTEMTIME* created, _SYSTEMTIME* written,
                                 _SYSTEMTIME* accessed) {
    if (!PathFileExistsA(path.c_str())) return 0;
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 0;
    _FILETIME creation = {}, lastAccess = {}, lastWrite = {};
    // GetFileTime takes access before write, the reverse of this operation's arguments.
    ::GetFileTime(file, &creation, &lastAccess, &lastWrite);
    CloseHandle(file);
    GetSystemTimeFromUtcTime(creation, created);
    GetSystemTimeFromUtcTime(lastWrite, written);
    GetSystemTimeFromUtcTime(lastAccess, accessed);
    return 1;
}

// The executable's last write time in local time; a zeroed record when it cannot be read.
_SYSTEMTIME CFileHepler::GetCurrentProcessModifyTime() {
    _SYSTEMTIME result = {};
    char buffer[MAX_PATH] = {};
    if (GetModuleFileNameA(nullptr, buffer, MAX_PATH) == 0) return result;
    GetFileTimeInfo(buffer, nullptr, &result, nullptr);
    return result;
}

// The executable's version text; "" on failure.
std::string CFileHepler::GetCurrentProcessFileVersion() {
    char buffer[MAX_PATH] = {};
    if (GetModuleFileNameA(nullptr, buffer, MAX_PATH) == 0) return "";
    return GetExeFileVersion(buffer);
}

// ((first * 256 + second) * 256 + third) * 256 + fourth in 32 bits: parts above 255 carry into their
// neighbours. 0 on failure.
DWORD CFileHepler::GetFileVersion(std::string path) {
    VS_FIXEDFILEINFO fixed;
    if (!ReadFixedInfo(path, fixed)) return 0;
    DWORD first = fixed.dwFileVersionMS >> 16, second = fixed.dwFileVersionMS & 0xFFFF;
    DWORD third = fixed.dwFileVersionLS >> 16, fourth = fixed.dwFileVersionLS & 0xFFFF;
    return ((first * 256 + second) * 256 + third) * 256 + fourth;
}

// "first.second.third.fourth", each part whole; "" on failure.
std::string CFileHepler::GetExeFileVersion(std::string path) {
    VS_FIXEDFILEINFO fixed;
    if (!ReadFixedInfo(path, fixed)) return "";
    return STRING_UTIL::StdFormatA("%d.%d.%d.%d", static_cast<int>(fixed.dwFileVersionMS >> 16),
                                   static_cast<int>(fixed.dwFileVersionMS & 0xFFFF),
                                   static_cast<int>(fixed.dwFileVersionLS >> 16),
                                   static_cast<int>(fixed.dwFileVersionLS & 0xFFFF));
}

// GetFileTimeInfo for the last write time alone.
int CFileHepler::GetFileModifyTime(std::string path, _SYSTEMTIME& written) {
    return GetFileTimeInfo(std::move(path), nullptr, &written, nullptr) ? 1 : 0;
}

// UTC to local time into `local`; nothing happens when `local` is null.
void CFileHepler::GetSystemTimeFromUtcTime(const _FILETIME& utc, _SYSTEMTIME* local) {
    if (local == nullptr) return;
    _FILETIME shifted = {};
    FileTimeToLocalFileTime(&utc, &shifted);
    FileTimeToSystemTime(&shifted, local);
}

} // namespace ZOTH
