// The temporary file that takes a target's place once complete, on Windows: made with CREATE_NEW
// and then only handled through its handle. It is renamed and deleted by handle
// (SetFileInformationByHandle), so its name is never opened again; the target's path is kept beside
// the handle until the commit. The rest of the platform layer is not built on Windows: this file is.
#if defined(_WIN32)
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include <aclapi.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Pending {
    std::wstring target; // the full path the file takes the place of
    bool existed;        // the target existed when the file was made
};

std::mutex g_lock;
std::map<HANDLE, Pending>& PendingFiles() {
    static std::map<HANDLE, Pending> files;
    return files;
}

std::wstring Wide(const std::string& text) {
    int n = MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, nullptr, 0);
    std::wstring wide(n > 0 ? n : 1, L'\0');
    if (n > 0) MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, wide.data(), n);
    wide.resize(wcslen(wide.c_str()));
    return wide;
}

// The full path of the file the target stands for: a link leads to the existing file it names.
// False with the last error for a refused target.
bool ResolveTarget(const char* target, std::string& path, bool& exists) {
    DWORD attributes = GetFileAttributesA(target);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND) return false;
        char full[MAX_PATH];
        DWORD n = GetFullPathNameA(target, MAX_PATH, full, nullptr);
        if (n == 0 || n >= MAX_PATH) return false;
        path = full;
        exists = false;
        return true;
    }
    if ((attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    // Opening for writing proves the caller may write it and follows a link to its file; a
    // dangling link fails here.
    HANDLE file = CreateFileA(target, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    std::vector<char> final(MAX_PATH + 1);
    DWORD n = GetFinalPathNameByHandleA(file, final.data(), static_cast<DWORD>(final.size()), 0);
    CloseHandle(file);
    if (n == 0 || n >= final.size()) return false;
    path.assign(final.data(), n);
    if (path.rfind("\\\\?\\", 0) == 0 && path.rfind("\\\\?\\UNC\\", 0) != 0) path.erase(0, 4);
    exists = true;
    return true;
}

// Renames the open file to `target` by its handle; the name is never looked up again.
bool RenameByHandle(HANDLE file, const std::wstring& target, bool replace) {
    const size_t bytes = sizeof(FILE_RENAME_INFO) + target.size() * sizeof(wchar_t);
    std::vector<unsigned char> buffer(bytes, 0);
    auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    info->ReplaceIfExists = replace ? TRUE : FALSE;
    info->RootDirectory = nullptr;
    info->FileNameLength = static_cast<DWORD>(target.size() * sizeof(wchar_t));
    std::copy(target.begin(), target.end(), info->FileName);
    return SetFileInformationByHandle(file, FileRenameInfo, info, static_cast<DWORD>(bytes)) != FALSE;
}

void DeleteByHandle(HANDLE file) {
    FILE_DISPOSITION_INFO info{TRUE};
    SetFileInformationByHandle(file, FileDispositionInfo, &info, sizeof info);
}

// Takes the pending entry of `file` out of the table; false for an unknown handle.
bool TakePending(HANDLE file, Pending& pending) {
    std::lock_guard<std::mutex> guard(g_lock);
    auto it = PendingFiles().find(file);
    if (it == PendingFiles().end()) return false;
    pending = std::move(it->second);
    PendingFiles().erase(it);
    return true;
}

} // namespace

HANDLE CreateTemporaryFileA(LPCSTR target, LPCSTR prefix) {
    if (target == nullptr || *target == '\0' || prefix == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string path;
    bool exists = false;
    if (!ResolveTarget(target, path, exists)) return INVALID_HANDLE_VALUE;
    std::string folder = path;
    size_t slash = folder.find_last_of("\\/");
    if (slash == std::string::npos || slash + 1 == folder.size()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    folder.resize(slash);
    const std::string base = folder + "\\" + std::string(prefix).substr(0, 3);
    for (int attempt = 0; attempt < 100; ++attempt) {
        GUID guid;
        if (CoCreateGuid(&guid) != S_OK) break;
        char digits[16];
        std::snprintf(digits, sizeof digits, "%08lX.TMP", static_cast<unsigned long>(guid.Data1));
        HANDLE file = CreateFileA((base + digits).c_str(), GENERIC_READ | GENERIC_WRITE | DELETE,
                                  FILE_SHARE_READ, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_FILE_EXISTS) continue;
        if (file == INVALID_HANDLE_VALUE) return INVALID_HANDLE_VALUE;
        std::lock_guard<std::mutex> guard(g_lock);
        PendingFiles()[file] = Pending{Wide(path), exists};
        SetLastError(ERROR_SUCCESS);
        return file;
    }
    SetLastError(ERROR_FILE_EXISTS);
    return INVALID_HANDLE_VALUE;
}

BOOL CommitTemporaryFile(HANDLE file) {
    return CommitTemporaryFileEx(file, 0);
}

BOOL CommitTemporaryFileEx(HANDLE file, DWORD flags) {
    Pending pending;
    if (!TakePending(file, pending)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    DWORD attributes = GetFileAttributesW(pending.target.c_str());
    bool placed;
    DWORD error;
    if (attributes != INVALID_FILE_ATTRIBUTES && !pending.existed) {
        placed = false;
        error = ERROR_ALREADY_EXISTS; // appeared meanwhile: not replaced unseen
    } else if (attributes != INVALID_FILE_ATTRIBUTES &&
               (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0) {
        placed = false;
        error = ERROR_UNABLE_TO_REMOVE_REPLACED;
    } else if ((flags & ~MOVEFILE_WRITE_THROUGH) != 0) {
        placed = false;
        error = ERROR_INVALID_PARAMETER;
    } else {
        placed = RenameByHandle(file, pending.target, attributes != INVALID_FILE_ATTRIBUTES);
        error = placed ? ERROR_SUCCESS : GetLastError();
        // The rename is metadata of the file: flushing its handle after the rename writes it through
        // (what MOVEFILE_WRITE_THROUGH does for MoveFileEx).
        if (placed && (flags & MOVEFILE_WRITE_THROUGH) != 0 && !FlushFileBuffers(file))
            error = GetLastError();
    }
    if (!placed) DeleteByHandle(file);
    CloseHandle(file);
    SetLastError(error);
    return placed ? TRUE : FALSE;
}

BOOL DiscardTemporaryFile(HANDLE file) {
    Pending pending;
    if (!TakePending(file, pending)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    DeleteByHandle(file);
    return CloseHandle(file);
}
// ---- kept partial files of resumable downloads ----

namespace {

// The kept file's full path for `target`, or false with the last error.
bool KeptPath(const char* target, const char* suffix, std::string& kept, bool& exists) {
    std::string path;
    if (!ResolveTarget(target, path, exists)) return false;
    const size_t slash = path.find_last_of("\\/");
    if (slash == std::string::npos || slash + 1 == path.size()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    kept = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + suffix;
    return true;
}

// Whether the open file belongs to the caller: its owner is the process token's user, or the owner
// the token gives the files it makes (an elevated administrator's files belong to Administrators).
bool OwnedByCaller(HANDLE file) {
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                        &descriptor) != ERROR_SUCCESS)
        return false;
    bool own = false;
    HANDLE token = nullptr;
    if (owner != nullptr && OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        for (TOKEN_INFORMATION_CLASS kind : {TokenUser, TokenOwner}) {
            DWORD size = 0;
            GetTokenInformation(token, kind, nullptr, 0, &size);
            std::vector<unsigned char> buffer(size);
            if (size == 0 || !GetTokenInformation(token, kind, buffer.data(), size, &size)) continue;
            PSID sid = kind == TokenUser ? reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid
                                         : reinterpret_cast<TOKEN_OWNER*>(buffer.data())->Owner;
            own = own || EqualSid(owner, sid);
        }
        CloseHandle(token);
    }
    LocalFree(descriptor);
    return own;
}

} // namespace

HANDLE OpenKeptTemporaryFileA(LPCSTR target, LPCSTR suffix, BOOL* reused) {
    if (target == nullptr || *target == '\0' || suffix == nullptr || *suffix == '\0' || reused == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string kept, path;
    bool exists = false;
    if (!KeptPath(target, suffix, kept, exists) || !ResolveTarget(target, path, exists))
        return INVALID_HANDLE_VALUE;
    for (int attempt = 0; attempt < 4; ++attempt) {
        // No sharing at all: the open itself is the lock.
        HANDLE file = CreateFileA(kept.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            if (GetLastError() == ERROR_SHARING_VIOLATION) SetLastError(ERROR_LOCK_VIOLATION);
            return INVALID_HANDLE_VALUE;
        }
        const bool existed = GetLastError() == ERROR_ALREADY_EXISTS;
        BY_HANDLE_FILE_INFORMATION info;
        if (!GetFileInformationByHandle(file, &info) ||
            (info.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0 ||
            info.nNumberOfLinks != 1 || (existed && !OwnedByCaller(file))) {
            DeleteByHandle(file);
            CloseHandle(file);
            continue;
        }
        std::lock_guard<std::mutex> guard(g_lock);
        PendingFiles()[file] = Pending{Wide(path), exists};
        *reused = existed ? TRUE : FALSE;
        SetLastError(ERROR_SUCCESS);
        return file;
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

BOOL KeepTemporaryFile(HANDLE file) {
    Pending pending;
    if (!TakePending(file, pending)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return CloseHandle(file);
}

BOOL DeleteKeptTemporaryFileA(LPCSTR target, LPCSTR suffix) {
    if (target == nullptr || *target == '\0' || suffix == nullptr || *suffix == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string kept;
    bool exists = false;
    if (!KeptPath(target, suffix, kept, exists)) {
        // A target refused for writing: its partial sits beside the path as given.
        kept = target;
        const size_t slash = kept.find_last_of("\\/");
        const size_t at = slash == std::string::npos ? 0 : slash + 1;
        kept.insert(at, ".");
        kept += suffix;
    }
    if (DeleteFileA(kept.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND) return TRUE;
    return FALSE;
}
#endif // _WIN32
