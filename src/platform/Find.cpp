// Directory searches behind FindFirstFileA / FindNextFileA / FindClose: a readdir walk that delivers
// "." and ".." first, filtered by a Windows wildcard pattern, with each entry described by lstat. Tree
// walks chain searches by descriptor (FindFirstFoundFolderA) and act on entries by name inside the
// folder a search holds open, so no path is resolved again below the top and no link is followed.
#include "platform/FileObject.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <typeinfo>

namespace {

using namespace ZOTH::platform;

constexpr DWORD kReparseTagSymlink = 0xA000000Cu;
constexpr DWORD kKnownFlags = FIND_FIRST_EX_LARGE_FETCH | FIND_FIRST_EX_NAME_AND_TYPE;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// A chain of sub-searches keeps at most this many folders open, far below the usual limit of 1024
// descriptors, whatever the depth of the tree.
constexpr int kHeldFolders = 32;

// What a search holds: no folder (a plain-name search), its folder open, its folder let go for a
// while to spare descriptors (its sub-search will take it back), or its folder lost for good.
enum class Hold { None, Open, Parked, Lost };

struct FindObject final : KernelObject {
    ~FindObject() override;
    DIR* dir = nullptr;
    std::string pattern; // the name part, with wildcards
    int dotsDelivered = 0;
    bool matchAll = false;    // "*" or "*.*": every name, no matching needed
    bool nameAndType = false; // FIND_FIRST_EX_NAME_AND_TYPE: describe entries from their dirent
    Hold hold = Hold::None;
    dev_t device = 0; // the folder's identity, recorded when it is let go
    ino_t inode = 0;
    FindObject* parent = nullptr; // the search this one was opened from by FindFirstFoundFolderA
    FindObject* child = nullptr;  // the sub-search open below this one
};

std::atomic<void (*)(unsigned long long, unsigned long long)> g_parkedHook{nullptr};

// Lets go of the folder of a search whose sub-searches run deep.
void Park(FindObject* search) {
    struct stat st;
    if (::fstat(::dirfd(search->dir), &st) != 0) return; // keep it open rather than lose it
    search->device = st.st_dev;
    search->inode = st.st_ino;
    ::closedir(search->dir);
    search->dir = nullptr;
    search->hold = Hold::Parked;
    if (auto hook = g_parkedHook.load(std::memory_order_acquire)) hook(st.st_dev, st.st_ino);
}

// Takes a parked folder back through ".." of its sub-search's folder `childFd`, if that is still
// the same folder; the search then starts again.
void Retake(FindObject* search, int childFd) {
    search->hold = Hold::Lost;
    int fd = childFd < 0 ? -1 : ::openat(childFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st;
    DIR* dir = nullptr;
    if (::fstat(fd, &st) == 0 && st.st_dev == search->device && st.st_ino == search->inode)
        dir = ::fdopendir(fd);
    if (dir == nullptr) {
        ::close(fd);
        return;
    }
    search->dir = dir;
    search->dotsDelivered = 0;
    search->hold = Hold::Open;
}

FindObject::~FindObject() {
    if (child != nullptr) child->parent = nullptr;
    if (parent != nullptr) {
        parent->child = nullptr;
        if (parent->hold == Hold::Parked) Retake(parent, dir != nullptr ? ::dirfd(dir) : -1);
    }
    if (dir != nullptr) ::closedir(dir);
}

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

// The descriptor to act on `name` of `search` relative to: its open folder, or AT_FDCWD (then by
// `path`) for a search that holds no folder or a name that is no plain entry. -1 with the last error
// set when the search's folder is not at hand.
int BaseOf(FindObject* search, const char* name) {
    bool plain = name[0] != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
                 std::strcmp(name, "..") != 0;
    switch (search->hold) {
    case Hold::Open:
        return plain ? ::dirfd(search->dir) : AT_FDCWD;
    case Hold::None:
        return AT_FDCWD;
    case Hold::Parked:
        SetLastError(ERROR_BUSY);
        return -1;
    case Hold::Lost:
        break;
    }
    SetLastError(ERROR_PATH_NOT_FOUND);
    return -1;
}

void SetFolderError(int error) {
    if (error == ELOOP || error == ENOTDIR)
        SetLastError(ERROR_DIRECTORY);
    else if (error == ENOENT)
        SetLastError(ERROR_PATH_NOT_FOUND);
    else
        SetLastErrorFromErrno(error);
}

bool ValidFlags(LPWIN32_FIND_DATAA data, DWORD flags) {
    if (data != nullptr && (flags & ~kKnownFlags) == 0) return true;
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
}

// Starts a search of every entry of the open folder `fd` (taken over, closed on failure).
FindObject* SearchFolder(int fd, LPWIN32_FIND_DATAA data, DWORD flags) {
    auto* search = new FindObject;
    search->dir = ::fdopendir(fd);
    if (search->dir == nullptr) {
        SetLastErrorFromErrno(errno);
        ::close(fd);
        delete search;
        return nullptr;
    }
    search->hold = Hold::Open;
    search->pattern = "*.*";
    search->matchAll = true;
    search->nameAndType = (flags & FIND_FIRST_EX_NAME_AND_TYPE) != 0;
    if (!Advance(search, data)) {
        delete search;
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    return search;
}

} // namespace

HANDLE FindFirstFileA(LPCSTR pattern, LPWIN32_FIND_DATAA data) {
    return FindFirstFileExA(pattern, FindExInfoStandard, data, FindExSearchNameMatch, nullptr, 0);
}

HANDLE FindFirstFileExA(LPCSTR pattern, FINDEX_INFO_LEVELS level, LPVOID output, FINDEX_SEARCH_OPS op,
                        LPVOID filter, DWORD flags) {
    auto* data = static_cast<LPWIN32_FIND_DATAA>(output);
    if (pattern == nullptr || data == nullptr || (level != FindExInfoStandard && level != FindExInfoBasic) ||
        op != FindExSearchNameMatch || filter != nullptr || (flags & ~kKnownFlags) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string full(pattern);
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
    search->hold = Hold::Open;
    search->pattern = name;
    search->matchAll = name == "*" || name == "*.*";
    search->nameAndType = (flags & FIND_FIRST_EX_NAME_AND_TYPE) != 0;
    if (name.find_first_of("*?") == std::string::npos) {
        // A plain name finds just that entry.
        search->dotsDelivered = 2;
        bool found = Describe(::dirfd(search->dir), name.c_str(), data);
        ::closedir(search->dir);
        search->dir = nullptr;
        search->hold = Hold::None;
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
    if (search->hold == Hold::Parked || search->hold == Hold::Lost) {
        SetLastError(search->hold == Hold::Parked ? ERROR_BUSY : ERROR_PATH_NOT_FOUND);
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
    int base = BaseOf(search, name);
    if (base == -1) return FALSE;
    return DeleteFileAt(base, base == AT_FDCWD ? path : name);
}

HANDLE FindFirstFolderA(LPCSTR folder, LPWIN32_FIND_DATAA data, DWORD flags) {
    if (folder == nullptr || !ValidFlags(data, flags)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    // A trailing separator would make the system follow a link named as the folder.
    std::string path(folder);
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    int fd = ::open(path.c_str(), kFolderFlags);
    if (fd < 0) {
        SetFolderError(errno);
        return INVALID_HANDLE_VALUE;
    }
    FindObject* search = SearchFolder(fd, data, flags);
    return search != nullptr ? search : INVALID_HANDLE_VALUE;
}

HANDLE FindFirstFoundFolderA(HANDLE handle, LPCSTR path, LPCSTR name, LPWIN32_FIND_DATAA data, DWORD flags) {
    auto* parent = AsSearch(handle);
    if (parent == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_HANDLE_VALUE;
    }
    if (path == nullptr || name == nullptr || !ValidFlags(data, flags)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (parent->child != nullptr) {
        SetLastError(ERROR_BUSY);
        return INVALID_HANDLE_VALUE;
    }
    int base = BaseOf(parent, name);
    if (base == -1) return INVALID_HANDLE_VALUE;
    // Keep the deepest folders of the chain open, the new one among them: the one that falls out of
    // the window is let go before the new one is opened, so the window is never exceeded, not even for
    // a moment. Should the new one fail to open, the ancestor is taken back as usual, when its own
    // sub-search closes.
    FindObject* ancestor = parent;
    for (int i = 1; i < kHeldFolders && ancestor != nullptr; ++i)
        ancestor = ancestor->parent;
    if (ancestor != nullptr && ancestor->hold == Hold::Open) Park(ancestor);
    int fd = ::openat(base, base == AT_FDCWD ? path : name, kFolderFlags);
    if (fd < 0) {
        SetFolderError(errno);
        return INVALID_HANDLE_VALUE;
    }
    FindObject* search = SearchFolder(fd, data, flags);
    if (search == nullptr) return INVALID_HANDLE_VALUE;
    search->parent = parent;
    parent->child = search;
    return search;
}

BOOL RemoveFoundDirectoryA(HANDLE handle, LPCSTR path, LPCSTR name) {
    auto* search = AsSearch(handle);
    if (search == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (path == nullptr || name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int base = BaseOf(search, name);
    if (base == -1) return FALSE;
    const char* target = base == AT_FDCWD ? path : name;
    // The type is checked where the removal happens, so a link that took the folder's place stays.
    struct stat st;
    if (::fstatat(base, target, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    if (!S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_DIRECTORY);
        return FALSE;
    }
    if (::unlinkat(base, target, AT_REMOVEDIR) != 0) {
        SetLastErrorFromErrno(errno == EEXIST ? ENOTEMPTY : errno);
        return FALSE;
    }
    return TRUE;
}

void ZothSetFolderParkedHookForTests(void (*hook)(unsigned long long device, unsigned long long inode)) {
    g_parkedHook.store(hook, std::memory_order_release);
}

BOOL FindClose(HANDLE handle) {
    auto* search = AsSearch(handle);
    if (search == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return search->Close();
}
