// Directory searches behind FindFirstFileA / FindNextFileA / FindClose: a readdir walk that delivers
// "." and ".." first, filtered by a Windows wildcard pattern, with each entry described by lstat.
#include "platform/FileObject.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <typeinfo>

namespace {

using namespace ZOTH::platform;

constexpr DWORD kReparseTagSymlink = 0xA000000Cu;

struct FindObject final : KernelObject {
    ~FindObject() override {
        if (dir != nullptr) ::closedir(dir);
    }
    DIR* dir = nullptr;
    std::string pattern; // the name part, with wildcards
    int dotsDelivered = 0;
    bool matchAll = false;    // "*" or "*.*": every name, no matching needed
    bool nameAndType = false; // FIND_FIRST_EX_NAME_AND_TYPE: describe entries from their dirent
};

char Lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// '*' any run of characters, '?' one character, everything else itself without regard to ASCII case.
bool WildMatch(const char* p, const char* n) {
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*n != '\0') {
        if (*p == '*') {
            star = p++;
            resume = n;
        } else if (*p == '?' || (*p != '\0' && Lower(*p) == Lower(*n))) {
            ++p;
            ++n;
        } else if (star != nullptr) {
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (*p == '*')
        ++p;
    return *p == '\0';
}

// As Windows matches: "*.*" takes every name, and a trailing ".*" also takes a name without a dot.
bool Matches(const std::string& pattern, const char* name) {
    if (pattern == "*" || pattern == "*.*") return true;
    if (WildMatch(pattern.c_str(), name)) return true;
    size_t n = pattern.size();
    return n >= 2 && pattern[n - 2] == '.' && pattern[n - 1] == '*' && std::strchr(name, '.') == nullptr &&
           WildMatch(pattern.substr(0, n - 2).c_str(), name);
}

// Copies a name with its terminator, cut to the record's size; no padding of the rest.
void CopyName(WIN32_FIND_DATAA* data, const char* name) {
    size_t length = std::min(std::strlen(name), sizeof data->cFileName - 1);
    std::memcpy(data->cFileName, name, length);
    data->cFileName[length] = '\0';
}

// Describes `name` inside the folder `dirFd`; false when the entry has gone meanwhile.
bool Describe(int dirFd, const char* name, WIN32_FIND_DATAA* data) {
    struct statx sx;
    if (::statx(dirFd, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) return false;
    struct stat st {};
    st.st_mode = sx.stx_mode;
    std::memset(data, 0, sizeof *data);
    data->dwFileAttributes = AttributesOf(st);
    if (S_ISLNK(st.st_mode)) data->dwReserved0 = kReparseTagSymlink;
    const struct statx_timestamp& born = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_ctime;
    data->ftCreationTime = FileTimeFromUnix(born.tv_sec, born.tv_nsec);
    data->ftLastAccessTime = FileTimeFromUnix(sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec);
    data->ftLastWriteTime = FileTimeFromUnix(sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec);
    uint64_t size = S_ISDIR(st.st_mode) ? 0 : sx.stx_size;
    data->nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data->nFileSizeLow = static_cast<DWORD>(size);
    CopyName(data, name);
    return true;
}

// Name and type only, from the directory entry: no status call. False when the entry does not tell
// its type, so the caller describes it in full.
bool DescribeFromEntry(const struct dirent* entry, WIN32_FIND_DATAA* data) {
    DWORD attributes;
    switch (entry->d_type) {
    case DT_DIR:
        attributes = FILE_ATTRIBUTE_DIRECTORY;
        break;
    case DT_LNK:
        attributes = FILE_ATTRIBUTE_REPARSE_POINT;
        break;
    case DT_UNKNOWN:
        return false;
    default:
        attributes = FILE_ATTRIBUTE_NORMAL;
    }
    data->dwFileAttributes = attributes;
    data->ftCreationTime = data->ftLastAccessTime = data->ftLastWriteTime = FILETIME{0, 0};
    data->nFileSizeHigh = data->nFileSizeLow = 0;
    data->dwReserved0 = entry->d_type == DT_LNK ? kReparseTagSymlink : 0;
    data->dwReserved1 = 0;
    data->cAlternateFileName[0] = '\0';
    CopyName(data, entry->d_name);
    return true;
}

// The search behind a handle, or null for any other kind of handle. An exact type test: FindObject
// has no subclasses, and this is cheaper than a dynamic_cast on every entry.
FindObject* AsSearch(HANDLE handle) {
    KernelObject* object = ObjectOf(handle);
    return object != nullptr && typeid(*object) == typeid(FindObject) ? static_cast<FindObject*>(object)
                                                                      : nullptr;
}

// The next matching entry of the search; false at the end.
bool Advance(FindObject* search, WIN32_FIND_DATAA* data) {
    int fd = ::dirfd(search->dir);
    static const char* const kDots[] = {".", ".."};
    while (search->dotsDelivered < 2) {
        const char* dot = kDots[search->dotsDelivered++];
        if (Matches(search->pattern, dot) && Describe(fd, dot, data)) return true;
    }
    for (;;) {
        errno = 0;
        struct dirent* entry = ::readdir(search->dir);
        if (entry == nullptr) return false;
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        if (!search->matchAll && !Matches(search->pattern, name)) continue;
        if (search->nameAndType && DescribeFromEntry(entry, data)) return true;
        if (Describe(fd, name, data)) return true;
    }
}

} // namespace

HANDLE FindFirstFileA(LPCSTR pattern, LPWIN32_FIND_DATAA data) {
    return FindFirstFileExA(pattern, FindExInfoStandard, data, FindExSearchNameMatch, nullptr, 0);
}

HANDLE FindFirstFileExA(LPCSTR pattern, FINDEX_INFO_LEVELS level, LPVOID output, FINDEX_SEARCH_OPS op,
                        LPVOID filter, DWORD flags) {
    auto* data = static_cast<LPWIN32_FIND_DATAA>(output);
    const DWORD known = FIND_FIRST_EX_LARGE_FETCH | FIND_FIRST_EX_NAME_AND_TYPE;
    if (pattern == nullptr || data == nullptr || (level != FindExInfoStandard && level != FindExInfoBasic) ||
        op != FindExSearchNameMatch || filter != nullptr || (flags & ~known) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string full(pattern);
    // Two leading separators name a network share on Windows; the layer has none. Refusing them
    // also keeps "" + "//*.*" from turning into a search of the root folder.
    if (full.size() >= 2 && full[0] == '/' && full[1] == '/') {
        SetLastError(ERROR_BAD_NETPATH);
        return INVALID_HANDLE_VALUE;
    }
    size_t slash = full.rfind('/');
    std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : full.substr(0, slash);
    std::string name = slash == std::string::npos ? full : full.substr(slash + 1);
    if (name.empty()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    auto* search = new FindObject;
    search->dir = ::opendir(folder.c_str());
    if (search->dir == nullptr) {
        int error = errno;
        delete search;
        if (error == ENOENT || error == ENOTDIR)
            SetLastError(ERROR_PATH_NOT_FOUND);
        else
            SetLastErrorFromErrno(error);
        return INVALID_HANDLE_VALUE;
    }
    search->pattern = name;
    search->matchAll = name == "*" || name == "*.*";
    search->nameAndType = (flags & FIND_FIRST_EX_NAME_AND_TYPE) != 0;
    if (name.find_first_of("*?") == std::string::npos) {
        // A plain name finds just that entry.
        search->dotsDelivered = 2;
        bool found = Describe(::dirfd(search->dir), name.c_str(), data);
        ::closedir(search->dir);
        search->dir = nullptr;
        if (!found) {
            delete search;
            SetLastError(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        return search;
    }
    if (!Advance(search, data)) {
        delete search;
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    return search;
}

BOOL FindNextFileA(HANDLE handle, LPWIN32_FIND_DATAA data) {
    auto* search = AsSearch(handle);
    if (search == nullptr || data == nullptr) {
        SetLastError(search == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (search->dir == nullptr || !Advance(search, data)) {
        SetLastError(ERROR_NO_MORE_FILES);
        return FALSE;
    }
    return TRUE;
}

BOOL DeleteFoundFileA(HANDLE handle, LPCSTR path, LPCSTR name) {
    auto* search = AsSearch(handle);
    if (search == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (path == nullptr || name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // Only a plain entry name can be taken relative to the open folder; anything else, or a search
    // that holds no folder (a plain-name search), goes by the full path.
    bool plain = name[0] != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
                 std::strcmp(name, "..") != 0;
    if (search->dir == nullptr || !plain) return DeleteFileA(path);
    return DeleteFileAt(::dirfd(search->dir), name);
}

BOOL FindClose(HANDLE handle) {
    auto* search = AsSearch(handle);
    if (search == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return search->Close();
}
