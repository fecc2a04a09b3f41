/// \file
/// The Win32 path, module and shell-folder calls the library is written against. On Windows they come
/// from the system headers; elsewhere the platform layer implements them: the separator is "/",
/// MAX_PATH is PATH_MAX, the executable is /proc/self/exe, special folders are the XDG user folders
/// and a short path name is the long name.
#pragma once

#include "zoth/platform/Win32File.h"

#if defined(_WIN32)
#include <windows.h>
#include <objbase.h>
#include <shlobj.h>
#include <shlwapi.h>

// The platform's path separator, for code that builds paths itself.
#define ZOTH_PATH_SEPARATOR '\\'
#define ZOTH_PATH_SEPARATOR_TEXT "\\"
#define ZOTH_PATH_SEPARATOR_WIDE L"\\"

// The layer's own call (see below): the full form of the path is a drive's or a share's root.
inline BOOL PathNamesRootA(LPCSTR path) {
    char full[MAX_PATH];
    DWORD length = path == nullptr ? 0 : GetFullPathNameA(path, MAX_PATH, full, nullptr);
    return length > 0 && length < MAX_PATH && PathIsRootA(full);
}

#else

#define ZOTH_PATH_SEPARATOR '/'
#define ZOTH_PATH_SEPARATOR_TEXT "/"
#define ZOTH_PATH_SEPARATOR_WIDE L"/"

#define ERROR_MOD_NOT_FOUND 126u
#define E_INVALIDARG ((HRESULT)0x80070057)

typedef void* HMODULE;
typedef void* HWND;
typedef struct _ITEMIDLIST ITEMIDLIST; // opaque: the layer keeps the folder's path in it
typedef ITEMIDLIST* LPITEMIDLIST;
typedef ITEMIDLIST* PIDLIST_ABSOLUTE;
typedef const ITEMIDLIST* PCIDLIST_ABSOLUTE;
typedef ITEMIDLIST* PIDLIST_RELATIVE;

/// The layer's own call: TRUE when `path` names the root folder, by its text ("/", "//", "/.",
/// "/x/..") or because it leads there (a link to "/", "." in the root). Nothing is opened. "" does not
/// name the root.
ZOTH_API BOOL PathNamesRootA(LPCSTR path);

/// True when a file or directory exists at `path` (links are followed).
ZOTH_API BOOL PathFileExistsA(LPCSTR path);
ZOTH_API BOOL PathFileExistsW(LPCWSTR path);

/// Joins `dir` and `file` with one separator into `dest` (room for MAX_PATH characters), resolving "."
/// and ".." elements; an absolute `file` stands alone. Returns `dest`, or null (with `dest` emptied)
/// when the outcome does not fit MAX_PATH. `dest` may be the same buffer as `dir` or `file`.
ZOTH_API LPSTR PathCombineA(LPSTR dest, LPCSTR dir, LPCSTR file);
ZOTH_API LPWSTR PathCombineW(LPWSTR dest, LPCWSTR dir, LPCWSTR file);

/// Cuts the last element and its separator off `path` in place ("/a/b" -> "/a", "/a" -> "/",
/// "a" -> ""). TRUE if something was cut.
ZOTH_API BOOL PathRemoveFileSpecA(LPSTR path);
ZOTH_API BOOL PathRemoveFileSpecW(LPWSTR path);

/// With a null module, the full path of the process's executable (not of this library). A buffer that
/// is too small gets the truncated, terminated path, the result `size` and ERROR_INSUFFICIENT_BUFFER.
/// 0 on failure; another module than null is ERROR_MOD_NOT_FOUND.
ZOTH_API DWORD GetModuleFileNameA(HMODULE module, LPSTR buffer, DWORD size);
ZOTH_API DWORD GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD size);

/// The system library folder. The length without the terminator, or the size needed when `size` is
/// too small.
ZOTH_API UINT GetSystemDirectoryA(LPSTR buffer, UINT size);

/// An item list for a CSIDL_ folder (the XDG user folders, $HOME for the profile); release it with
/// ILFree. E_INVALIDARG for an unknown folder, with *list null.
ZOTH_API HRESULT SHGetSpecialFolderLocation(HWND owner, int csidl, PIDLIST_ABSOLUTE* list);
/// The path of an item list into `path` (room for MAX_PATH units).
ZOTH_API BOOL SHGetPathFromIDListW(PCIDLIST_ABSOLUTE list, LPWSTR path);
ZOTH_API void ILFree(PIDLIST_RELATIVE list);

/// The short form of an existing path, which is the path itself. The length, or the size needed
/// when `size` is too small; 0 with ERROR_FILE_NOT_FOUND when nothing is there.
ZOTH_API DWORD GetShortPathNameW(LPCWSTR longPath, LPWSTR shortPath, DWORD size);

#endif // _WIN32
