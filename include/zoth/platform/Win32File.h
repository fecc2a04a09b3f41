// The Win32 file, directory, search and file-time calls the library is written against. On Windows
// they come from <windows.h>; elsewhere the platform layer implements them on POSIX.
//
// How the layer maps Windows behaviour onto POSIX:
// - A file is read-only (FILE_ATTRIBUTE_READONLY) when nobody has a write permission bit on it. Such a
//   file refuses write access and deletion, as on Windows, whoever the caller is. Apart from that,
//   access is what the operating system grants the caller.
// - Sharing flags have no POSIX meaning and are accepted as given.
// - Symbolic links are never followed by searches: a link is reported as FILE_ATTRIBUTE_REPARSE_POINT
//   and never with FILE_ATTRIBUTE_DIRECTORY, so a walk removes the link and not its target. The
//   walk calls below (FindFirstFolderA, the *Found* calls) never pass through a link either.
// - Creation time is the birth time where the file system reports it, else the change time.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <windows.h>
#else

#include <cstddef>

#define ERROR_INVALID_FUNCTION 1u
#define ERROR_BAD_FORMAT 11u
#define ERROR_GEN_FAILURE 31u
#define ERROR_BAD_NETPATH 53u
#define ERROR_HANDLE_EOF 38u
#define ERROR_DISK_FULL 112u
#define ERROR_BUSY 170u
#define ERROR_INVALID_NAME 123u
#define ERROR_NEGATIVE_SEEK 131u
#define ERROR_FILENAME_EXCED_RANGE 206u
#define ERROR_DIRECTORY 267u

typedef LONG* PLONG;
typedef struct _OVERLAPPED OVERLAPPED, *LPOVERLAPPED; // never dereferenced: no overlapped I/O
typedef const FILETIME* LPCFILETIME;

// Opens or creates a file. Pipes and sockets are refused (ERROR_ACCESS_DENIED) rather than waited on.
// `access` is GENERIC_READ and/or GENERIC_WRITE; `disposition` is one of CREATE_NEW .. TRUNCATE_EXISTING;
// FILE_FLAG_BACKUP_SEMANTICS lets a directory open (for its times). A file created with
// FILE_ATTRIBUTE_READONLY in `flags` gets no write permission. INVALID_HANDLE_VALUE and the last error on
// failure.
ZOTH_API HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                            DWORD disposition, DWORD flags, HANDLE templateFile);

// Reads up to `count` bytes from the file position; fewer only at the end of the file. `read` may be
// null. FALSE and the last error on failure.
ZOTH_API BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD read, LPOVERLAPPED overlapped);

// Writes all `count` bytes at the file position. `written` may be null.
ZOTH_API BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD written, LPOVERLAPPED overlapped);

// Moves the file position by `distance` (64 bits when `distanceHigh` is given) from FILE_BEGIN,
// FILE_CURRENT or FILE_END. The low 32 bits of the new position, its high part in *distanceHigh;
// INVALID_SET_FILE_POINTER with a last error other than ERROR_SUCCESS on failure.
ZOTH_API DWORD SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method);

// The size's low 32 bits (high part in *sizeHigh when given). INVALID_FILE_SIZE on failure, which a
// caller tells from a real size by a last error other than ERROR_SUCCESS.
ZOTH_API DWORD GetFileSize(HANDLE file, LPDWORD sizeHigh);

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

// The whole 64-bit size in size->QuadPart. FALSE and the last error on failure.
ZOTH_API BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER size);

// Creates a new empty, writable file "<folder>/<prefix><digits>.TMP" under a name no other file has
// (the first three characters of `prefix`, eight hex digits), and writes that path to `name` (room
// for MAX_PATH characters). Only `unique` 0 is supported. The nonzero number in the name, or 0 and
// the last error.
ZOTH_API UINT GetTempFileNameA(LPCSTR folder, LPCSTR prefix, UINT unique, LPSTR name);

#define FILE_NAME_NORMALIZED 0x0u
#define VOLUME_NAME_DOS 0x0u
// The absolute path of the file an open handle refers to, links resolved. The number of characters
// written without the NUL; when `size` is too small, the size needed with the NUL and nothing
// written; 0 and the last error on failure.
ZOTH_API DWORD GetFinalPathNameByHandleA(HANDLE file, LPSTR path, DWORD size, DWORD flags);

#define ERROR_UNABLE_TO_REMOVE_REPLACED 1175u
// Puts `replacement` in the place of the existing file `replaced`, which is gone afterwards (no
// backup; `backup`, `exclude` and `reserved` must be null, `flags` 0). The new file takes the
// permission bits (and, where allowed, the owner) of the one it replaces; a hard link to the old file
// keeps the old content. The name itself is replaced: a link named `replaced` is not followed. A
// missing `replaced` is ERROR_FILE_NOT_FOUND; a read-only file, a folder or anything else that is no
// file (a device) is ERROR_UNABLE_TO_REMOVE_REPLACED and stays as it was.
ZOTH_API BOOL ReplaceFileA(LPCSTR replaced, LPCSTR replacement, LPCSTR backup, DWORD flags, LPVOID exclude,
                           LPVOID reserved);

#define MOVEFILE_REPLACE_EXISTING 0x1u
// Renames a file within one file system, in one step. Without MOVEFILE_REPLACE_EXISTING an existing
// `target` is ERROR_ALREADY_EXISTS; other flags are ERROR_INVALID_PARAMETER.
ZOTH_API BOOL MoveFileExA(LPCSTR existing, LPCSTR target, DWORD flags);

// The creation, last access and last write times in UTC; any pointer may be null.
ZOTH_API BOOL GetFileTime(HANDLE file, LPFILETIME creation, LPFILETIME lastAccess, LPFILETIME lastWrite);

// Copies a file with its permission bits and last write time. With `failIfExists` an existing target
// is an error (ERROR_FILE_EXISTS). A failed copy leaves no target file behind.
ZOTH_API BOOL CopyFileA(LPCSTR existing, LPCSTR target, BOOL failIfExists);

// Deletes a file or a symbolic link (never a directory, never a read-only file).
ZOTH_API BOOL DeleteFileA(LPCSTR name);

// Creates one directory; a missing parent is ERROR_PATH_NOT_FOUND, an existing name
// ERROR_ALREADY_EXISTS. The wide form takes UTF-16 units.
ZOTH_API BOOL CreateDirectoryA(LPCSTR name, LPSECURITY_ATTRIBUTES security);
ZOTH_API BOOL CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES security);

// Removes an empty directory.
ZOTH_API BOOL RemoveDirectoryA(LPCSTR name);

// Starts a search for `pattern`: a folder, a separator and a name with the wildcards * and ?, matched
// without regard to ASCII case; "*.*" matches every name. A folder delivers "." first and ".."
// second (each only when it can be described), then its entries. Entries may be deleted while the
// search runs. Ends with ERROR_FILE_NOT_FOUND when nothing matches, ERROR_PATH_NOT_FOUND when the
// folder is missing. Repeated separators count as one: "//*.*" searches the root folder.
ZOTH_API HANDLE FindFirstFileA(LPCSTR pattern, LPWIN32_FIND_DATAA data);
typedef enum _FINDEX_INFO_LEVELS {
    FindExInfoStandard,
    FindExInfoBasic,
    FindExInfoMaxInfoLevel
} FINDEX_INFO_LEVELS;
typedef enum _FINDEX_SEARCH_OPS {
    FindExSearchNameMatch,
    FindExSearchLimitToDirectories,
    FindExSearchLimitToDevices,
    FindExSearchMaxSearchOp
} FINDEX_SEARCH_OPS;
#define FIND_FIRST_EX_LARGE_FETCH 0x00000002u
// The layer's own flag: fill only cFileName and the directory / reparse-point attributes, from the
// directory entry itself. Times and sizes stay 0 and read-only is not reported, which spares one
// status call per entry. Where the entry does not tell its type, the entry is described in full.
#define FIND_FIRST_EX_NAME_AND_TYPE 0x10000000u
// FindFirstFileA with a choice of detail. Levels Standard and Basic are alike (there are no short
// names); a search op other than FindExSearchNameMatch, a non-null filter, or flags other than the
// two above give ERROR_INVALID_PARAMETER.
ZOTH_API HANDLE FindFirstFileExA(LPCSTR pattern, FINDEX_INFO_LEVELS level, LPVOID data, FINDEX_SEARCH_OPS op,
                                 LPVOID filter, DWORD flags);
// The next entry; FALSE with ERROR_NO_MORE_FILES after the last.
ZOTH_API BOOL FindNextFileA(HANDLE search, LPWIN32_FIND_DATAA data);
ZOTH_API BOOL FindClose(HANDLE search);
// The layer's own call: DeleteFileA for an entry the search has just delivered, `path` being its full
// path and `name` its cFileName. The entry is found inside the folder the search holds open, without
// resolving the folder's path again: a tree walk then costs one path lookup per folder instead of two
// per file, and a folder renamed or replaced by a link during the walk cannot redirect it.
ZOTH_API BOOL DeleteFoundFileA(HANDLE search, LPCSTR path, LPCSTR name);

// The layer's own calls for tree walks that hold one search per level on the heap.
//
// Searches every entry of `folder` (as "*.*" does), which must itself be a folder and not a link:
// trailing separators are ignored, and a link, whatever it points at, is ERROR_DIRECTORY.
ZOTH_API HANDLE FindFirstFolderA(LPCSTR folder, LPWIN32_FIND_DATAA data, DWORD flags);
// Searches every entry of the subfolder that `search` has just delivered (`path` its full path,
// `name` its cFileName), opened inside the folder the search holds open without following a link: an
// entry that is no longer a folder (a folder swapped for a link) is ERROR_DIRECTORY. One sub-search
// per search at a time. To stay within the open-file limit, a deep chain of sub-searches keeps only
// its 32 deepest folders open, at every moment: an ancestor that had to let go of its folder (its
// calls then fail with ERROR_BUSY) takes it back when its sub-search closes, through "..", and only
// if it is still the same folder (else ERROR_PATH_NOT_FOUND from then on). Taken back, its search
// starts again at ".", so entries it delivered before and that are still there come again.
ZOTH_API HANDLE FindFirstFoundFolderA(HANDLE search, LPCSTR path, LPCSTR name, LPWIN32_FIND_DATAA data,
                                      DWORD flags);
// RemoveDirectoryA for an empty subfolder that `search` has just delivered, found inside the folder
// the search holds open (never through a link).
ZOTH_API BOOL RemoveFoundDirectoryA(HANDLE search, LPCSTR path, LPCSTR name);
// For tests only: `hook` (null for none) is called on the walking thread each time a chain of
// sub-searches lets go of an ancestor's folder, with that folder's device and inode, so that a test
// can change the tree at that very moment.
ZOTH_API void ZothSetFolderParkedHookForTests(void (*hook)(unsigned long long device,
                                                           unsigned long long inode));

// UTC to local time, with the time zone's offset of the present moment (as on Windows), whatever the
// offset was at the time converted: a summer time read in winter gets the winter offset.
ZOTH_API BOOL FileTimeToLocalFileTime(const FILETIME* utc, LPFILETIME local);

#define MEM_COMMIT 0x00001000u
#define MEM_RESERVE 0x00002000u
#define MEM_RELEASE 0x00008000u
#define PAGE_READWRITE 0x04u
typedef size_t SIZE_T;

// Zero-filled memory straight from the system, for buffers that hold a whole file: large ones are
// backed by huge pages where the system offers them, so filling them costs few page faults. Only
// MEM_COMMIT | MEM_RESERVE with PAGE_READWRITE at a system-chosen address is supported. Null on failure.
ZOTH_API LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect);
// Releases a whole block from VirtualAlloc (`size` 0, MEM_RELEASE).
ZOTH_API BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type);

#endif // _WIN32

// Windows fills every search entry from the directory itself at no extra cost: no flag needed there.
#ifndef FIND_FIRST_EX_NAME_AND_TYPE
#define FIND_FIRST_EX_NAME_AND_TYPE 0u
#endif

#if defined(_WIN32)
#include <string>

// Windows works by path: the search only names the entry. A folder link or junction (a reparse
// point) is never searched; RemoveDirectoryA removes such a link itself, not what it points at.
inline BOOL DeleteFoundFileA(HANDLE, LPCSTR path, LPCSTR) {
    return DeleteFileA(path);
}
inline HANDLE FindFirstFolderA(LPCSTR folder, LPWIN32_FIND_DATAA data, DWORD flags) {
    DWORD attributes = GetFileAttributesA(folder);
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
        (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        SetLastError(ERROR_DIRECTORY);
        return INVALID_HANDLE_VALUE;
    }
    std::string pattern = std::string(folder) + "\\*.*";
    return FindFirstFileExA(pattern.c_str(), FindExInfoBasic, data, FindExSearchNameMatch, nullptr, flags);
}
inline HANDLE FindFirstFoundFolderA(HANDLE, LPCSTR path, LPCSTR, LPWIN32_FIND_DATAA data, DWORD flags) {
    return FindFirstFolderA(path, data, flags);
}
inline BOOL RemoveFoundDirectoryA(HANDLE, LPCSTR path, LPCSTR) {
    return RemoveDirectoryA(path);
}
#endif
