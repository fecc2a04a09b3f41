// Path text calls: existence, joining with "." and ".." resolved, cutting the last element, and the
// short name (which on this platform is the long name).
#include "platform/FileObject.h"
#include "platform/PathUnicode.h"
#include "zoth/platform/Win32Path.h"

#include <sys/stat.h>

#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

using namespace ZOTH::platform;

namespace {

template <class C> size_t Length(const C* text) {
    size_t n = 0;
    while (text[n] != 0)
        ++n;
    return n;
}

// Resolves "." and ".." and collapses repeated separators. ".." above the root stays at the root;
// above the start of a relative path it is kept.
template <class C> std::basic_string<C> Canonical(const std::basic_string<C>& path) {
    const C sep = static_cast<C>('/');
    bool absolute = !path.empty() && path[0] == sep;
    bool trailing = path.size() > 1 && path.back() == sep;
    std::vector<std::basic_string<C>> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(sep, start);
        if (end == std::basic_string<C>::npos) end = path.size();
        std::basic_string<C> part = path.substr(start, end - start);
        bool dot = part.size() == 1 && part[0] == '.';
        bool dotdot = part.size() == 2 && part[0] == '.' && part[1] == '.';
        if (part.empty() || dot) {
        } else if (dotdot) {
            bool topIsUp = !parts.empty() && parts.back().size() == 2 && parts.back()[0] == '.' &&
                           parts.back()[1] == '.';
            if (!parts.empty() && !topIsUp)
                parts.pop_back();
            else if (!absolute)
                parts.push_back(part);
        } else {
            parts.push_back(part);
        }
        start = end + 1;
    }
    std::basic_string<C> out;
    if (absolute) out += sep;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += sep;
        out += parts[i];
    }
    if (trailing && !parts.empty()) out += sep;
    if (out.empty()) out += static_cast<C>('.');
    return out;
}

template <class C> C* Combine(C* dest, const C* dir, const C* file) {
    if (dest == nullptr || (dir == nullptr && file == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        if (dest != nullptr) dest[0] = 0;
        return nullptr;
    }
    const C sep = static_cast<C>('/');
    std::basic_string<C> first = dir ? dir : std::basic_string<C>(),
                         second = file ? file : std::basic_string<C>();
    std::basic_string<C> joined;
    if (!second.empty() && second[0] == sep)
        joined = second; // an absolute second part stands alone
    else if (second.empty())
        joined = first;
    else if (first.empty())
        joined = second;
    else
        joined = first + sep + second;
    std::basic_string<C> result = Canonical(joined);
    if (result.size() >= MAX_PATH) {
        dest[0] = 0;
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return nullptr;
    }
    std::memcpy(dest, result.c_str(), (result.size() + 1) * sizeof(C));
    return dest;
}

template <class C> BOOL RemoveFileSpec(C* path) {
    if (path == nullptr || path[0] == 0) return FALSE;
    size_t n = Length(path);
    size_t slash = n;
    while (slash > 0 && path[slash - 1] != static_cast<C>('/'))
        --slash;
    if (slash == 0) { // a bare name: nothing is left
        path[0] = 0;
        return TRUE;
    }
    if (slash == 1) { // directly below the root: the root stays
        if (n == 1) return FALSE;
        path[1] = 0;
        return TRUE;
    }
    path[slash - 1] = 0;
    return TRUE;
}

} // namespace

namespace ZOTH::platform {

std::string ResolvePathText(const std::string& path) {
    std::string resolved = Canonical(path);
    if (resolved.size() > 1 && resolved.back() == '/') resolved.pop_back();
    return resolved;
}

} // namespace ZOTH::platform

// By text first, then by identity: stat follows the whole path, links included, and opens nothing.
BOOL PathNamesRootA(LPCSTR path) {
    if (path == nullptr || path[0] == '\0') return FALSE;
    if (path[0] == '/' && Canonical(std::string(path)) == "/") return TRUE;
    struct stat st, root;
    return ::stat(path, &st) == 0 && ::stat("/", &root) == 0 && st.st_dev == root.st_dev &&
                   st.st_ino == root.st_ino
               ? TRUE
               : FALSE;
}

BOOL PathFileExistsA(LPCSTR path) {
    struct stat st;
    if (path == nullptr || ::stat(path, &st) != 0) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    return TRUE;
}

BOOL PathFileExistsW(LPCWSTR path) {
    std::string narrow;
    if (!Utf16ToUtf8(path, narrow)) {
        SetLastError(ERROR_INVALID_NAME);
        return FALSE;
    }
    return PathFileExistsA(narrow.c_str());
}

LPSTR PathCombineA(LPSTR dest, LPCSTR dir, LPCSTR file) {
    return Combine(dest, dir, file);
}

LPWSTR PathCombineW(LPWSTR dest, LPCWSTR dir, LPCWSTR file) {
    return Combine(dest, dir, file);
}

BOOL PathRemoveFileSpecA(LPSTR path) {
    return RemoveFileSpec(path);
}

BOOL PathRemoveFileSpecW(LPWSTR path) {
    return RemoveFileSpec(path);
}

DWORD GetShortPathNameW(LPCWSTR longPath, LPWSTR shortPath, DWORD size) {
    std::string narrow;
    if (!Utf16ToUtf8(longPath, narrow)) {
        SetLastError(longPath == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_NAME);
        return 0;
    }
    struct stat st;
    if (::stat(narrow.c_str(), &st) != 0) {
        SetLastErrorFromErrno(errno);
        return 0;
    }
    size_t n = Length(longPath);
    if (shortPath == nullptr || size <= n) return static_cast<DWORD>(n + 1);
    std::memmove(shortPath, longPath, (n + 1) * sizeof(wchar_t));
    return static_cast<DWORD>(n);
}
