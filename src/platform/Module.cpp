// The executable's path, the system folder, and the user's special folders (XDG) behind the shell's
// item lists.
#include "platform/FileObject.h"
#include "platform/PathUnicode.h"
#include "zoth/platform/Win32Path.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

using namespace ZOTH::platform;

struct _ITEMIDLIST {
    std::string path;
};

namespace {

// Copies `text` into a buffer of `size` elements as GetModuleFileName does: truncated and terminated
// with ERROR_INSUFFICIENT_BUFFER when it does not fit.
template <class C> DWORD CopyOut(const std::basic_string<C>& text, C* buffer, DWORD size) {
    if (buffer == nullptr || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (text.size() < size) {
        std::memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(C));
        SetLastError(ERROR_SUCCESS);
        return static_cast<DWORD>(text.size());
    }
    std::memcpy(buffer, text.data(), (size - 1) * sizeof(C));
    buffer[size - 1] = 0;
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return size;
}

bool ExecutablePath(HMODULE module, std::string& path) {
    if (module != nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return false;
    }
    char buffer[PATH_MAX + 1];
    ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n <= 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    path.assign(buffer, static_cast<size_t>(n));
    return true;
}

std::string HomeFolder() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') return home;
    struct passwd entry;
    struct passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr)
        return found->pw_dir;
    return "";
}

// An XDG base folder from its variable (only an absolute value counts), else home + fallback.
std::string BaseFolder(const char* variable, const std::string& home, const char* fallback) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] == '/') return value;
    return home + fallback;
}

// A user folder from user-dirs.dirs (lines such as XDG_DESKTOP_DIR="$HOME/Desktop"), else home + fallback.
std::string UserFolder(const char* key, const std::string& home, const char* fallback) {
    std::ifstream dirs(BaseFolder("XDG_CONFIG_HOME", home, "/.config") + "/user-dirs.dirs");
    std::string line, prefix = std::string(key) + "=\"";
    while (std::getline(dirs, line)) {
        if (line.compare(0, prefix.size(), prefix) != 0) continue;
        size_t close = line.find('"', prefix.size());
        if (close == std::string::npos) break;
        std::string value = line.substr(prefix.size(), close - prefix.size());
        if (value.compare(0, 5, "$HOME") == 0) return home + value.substr(5);
        if (!value.empty() && value[0] == '/') return value;
        break;
    }
    return home + fallback;
}

} // namespace

DWORD GetModuleFileNameA(HMODULE module, LPSTR buffer, DWORD size) {
    std::string path;
    if (!ExecutablePath(module, path)) return 0;
    return CopyOut(path, buffer, size);
}

DWORD GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD size) {
    std::string path;
    if (!ExecutablePath(module, path)) return 0;
    return CopyOut(Utf8ToUtf16(path), buffer, size);
}

UINT GetSystemDirectoryA(LPSTR buffer, UINT size) {
    static const char kSystem[] = "/usr/lib";
    UINT length = sizeof kSystem - 1;
    if (buffer == nullptr || size <= length) return length + 1;
    std::memcpy(buffer, kSystem, sizeof kSystem);
    return length;
}

HRESULT SHGetSpecialFolderLocation(HWND, int csidl, PIDLIST_ABSOLUTE* list) {
    if (list == nullptr) return E_INVALIDARG;
    *list = nullptr;
    std::string home = HomeFolder();
    if (home.empty()) return E_FAIL;
    std::string path;
    switch (csidl & 0x00FF) { // the upper byte holds flags such as CSIDL_FLAG_CREATE
    case CSIDL_DESKTOP:
    case CSIDL_DESKTOPDIRECTORY:
        path = UserFolder("XDG_DESKTOP_DIR", home, "/Desktop");
        break;
    case CSIDL_PERSONAL:
        path = UserFolder("XDG_DOCUMENTS_DIR", home, "/Documents");
        break;
    case CSIDL_APPDATA:
        path = BaseFolder("XDG_CONFIG_HOME", home, "/.config");
        break;
    case CSIDL_LOCAL_APPDATA:
        path = BaseFolder("XDG_DATA_HOME", home, "/.local/share");
        break;
    case CSIDL_PROFILE:
        path = home;
        break;
    default:
        return E_INVALIDARG;
    }
    *list = new _ITEMIDLIST{path};
    return S_OK;
}

BOOL SHGetPathFromIDListW(PCIDLIST_ABSOLUTE list, LPWSTR path) {
    if (list == nullptr || path == nullptr) return FALSE;
    std::wstring wide = Utf8ToUtf16(list->path);
    if (wide.size() >= MAX_PATH) {
        path[0] = 0;
        return FALSE;
    }
    std::memcpy(path, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
    return TRUE;
}

void ILFree(PIDLIST_RELATIVE list) {
    delete list;
}
