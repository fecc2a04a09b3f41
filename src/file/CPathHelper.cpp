// CPathHelper: paths of the executable, names, special folders, joining, and paths relative to the
// executable's folder. The executable is the process's program, never this library.
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include <cwchar>

namespace ZOTH {

CPathHelper::CPathHelper() = default;
CPathHelper::~CPathHelper() = default;
CPathHelper& CPathHelper::operator=(const CPathHelper&) {
    return *this;
}

namespace {

// The narrow and wide twins of the platform calls, so one template serves both widths.
DWORD ModuleFileName(char* buffer, DWORD size) {
    return GetModuleFileNameA(nullptr, buffer, size);
}
DWORD ModuleFileName(wchar_t* buffer, DWORD size) {
    return GetModuleFileNameW(nullptr, buffer, size);
}
BOOL RemoveFileSpec(char* path) {
    return PathRemoveFileSpecA(path);
}
BOOL RemoveFileSpec(wchar_t* path) {
    return PathRemoveFileSpecW(path);
}
char* Combine(char* dest, const char* dir, const char* file) {
    return PathCombineA(dest, dir, file);
}
wchar_t* Combine(wchar_t* dest, const wchar_t* dir, const wchar_t* file) {
    return PathCombineW(dest, dir, file);
}
BOOL Exists(const char* path) {
    return PathFileExistsA(path);
}
BOOL Exists(const wchar_t* path) {
    return PathFileExistsW(path);
}
BOOL MakeDirectory(const char* path) {
    return CreateDirectoryA(path, nullptr);
}
BOOL MakeDirectory(const wchar_t* path) {
    return CreateDirectoryW(path, nullptr);
}

template <class C>
std::basic_string<C> CombinePath(const std::basic_string<C>& first, const std::basic_string<C>& second) {
    C buffer[MAX_PATH + 1] = {};
    if (Combine(buffer, first.c_str(), second.c_str()) == nullptr) return {};
    return buffer;
}

// `name` joined to the executable's folder into `buffer`; false when a step fails.
template <class C> bool PathBesideExecutable(const std::basic_string<C>& name, C (&buffer)[MAX_PATH + 1]) {
    if (ModuleFileName(buffer, MAX_PATH) == 0) return false;
    if (!RemoveFileSpec(buffer)) return false;
    return Combine(buffer, buffer, name.c_str()) != nullptr;
}

template <class C> int FilePathFromFileDir(const std::basic_string<C>& name, std::basic_string<C>& path) {
    C buffer[MAX_PATH + 1] = {};
    if (!PathBesideExecutable(name, buffer) || !Exists(buffer)) return 0;
    path = buffer;
    return 1;
}

template <class C>
int FolderPathFromCurrentExePath(const std::basic_string<C>& name, std::basic_string<C>& path, bool create) {
    C buffer[MAX_PATH + 1] = {};
    if (!PathBesideExecutable(name, buffer)) return 0;
    if (!Exists(buffer)) {
        if (!create || !MakeDirectory(buffer)) return 0;
    }
    path = buffer;
    return 1;
}

} // namespace

std::string CPathHelper::GetExePath() {
    char buffer[MAX_PATH + 1] = {};
    if (GetModuleFileNameA(nullptr, buffer, MAX_PATH) == 0) return "";
    return buffer;
}

std::string CPathHelper::GetExeDir() {
    char buffer[MAX_PATH + 1] = {};
    if (GetModuleFileNameA(nullptr, buffer, MAX_PATH) == 0 || !PathRemoveFileSpecA(buffer)) return "";
    return buffer;
}

// Only the platform separator counts; the extension stays on the name.
std::string CPathHelper::GetFileNameByPath(std::string path) {
    if (path.empty()) return "";
    size_t separator = path.rfind(ZOTH_PATH_SEPARATOR);
    if (separator == std::string::npos) return path;
    return path.substr(separator + 1);
}

// The short form of the folder's path; "" after any failure, also of the short-name step alone.
std::wstring CPathHelper::GetSpecialFolderDirW(unsigned int csidl) {
    wchar_t longPath[MAX_PATH] = {};
    wchar_t shortPath[MAX_PATH] = {};
    PIDLIST_ABSOLUTE list = nullptr;
    SHGetSpecialFolderLocation(nullptr, static_cast<int>(csidl), &list);
    if (list == nullptr) return L"";
    if (!SHGetPathFromIDListW(list, longPath)) {
        ILFree(list);
        return L"";
    }
    GetShortPathNameW(longPath, shortPath, MAX_PATH);
    ILFree(list);
    return shortPath;
}

std::string CPathHelper::GetCombinPath(std::string first, std::string second) {
    return CombinePath(first, second);
}

std::wstring CPathHelper::GetCombinPath(std::wstring first, std::wstring second) {
    return CombinePath(first, second);
}

int CPathHelper::GetFilePathFromFileDir(const std::string& name, std::string& path) {
    return FilePathFromFileDir(name, path);
}

int CPathHelper::GetFilePathFromFileDir(const std::wstring& name, std::wstring& path) {
    return FilePathFromFileDir(name, path);
}

int CPathHelper::GetFolderPathFromCurrentExePath(const std::string& name, std::string& path, bool create) {
    return FolderPathFromCurrentExePath(name, path, create);
}

int CPathHelper::GetFolderPathFromCurrentExePath(const std::wstring& name, std::wstring& path, bool create) {
    return FolderPathFromCurrentExePath(name, path, create);
}

// The text ahead of the system directory's first separator: its drive. A system directory on a root
// without a drive letter gives that root.
std::string CPathHelper::GetSystemDeskPath() {
    char buffer[MAX_PATH] = {};
    GetSystemDirectoryA(buffer, MAX_PATH);
    if (!PathFileExistsA(buffer)) return "";
    std::string system = buffer;
    size_t separator = system.find(ZOTH_PATH_SEPARATOR);
    if (separator == std::string::npos) return system;
    if (separator == 0) return ZOTH_PATH_SEPARATOR_TEXT;
    return system.substr(0, separator);
}

} // namespace ZOTH
