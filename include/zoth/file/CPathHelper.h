// CPathHelper: static operations on paths and folders: paths relative to the executable's folder,
// one-level listings and recursive deletion. Paths go to the platform unchanged.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <map>
#include <string>
#include <vector>

namespace ZOTH {

/// Static operations on paths and folders: paths beside the executable, special folders, one-level
/// listings and the deletion of a tree.
///
/// The class has no state; every operation is static and may be called from any thread. Paths use
/// the platform's separator and go to the platform unchanged. Walks never recurse on the machine
/// stack, never enter a symbolic link (or, on Windows, an entry marked as a reparse point), skip "."
/// and ".." by name, and never delete the root folder.
class ZOTH_API CPathHelper {
public:
    /// Does nothing: the class has no state.
    CPathHelper();
    /// Does nothing.
    ~CPathHelper();
    /// Does nothing and returns *this.
    CPathHelper& operator=(const CPathHelper& other);

    /// The running program's full path (not the library's); "" on failure.
    static std::string GetExePath();
    /// The running program's folder, no trailing separator; "" on failure.
    static std::string GetExeDir();
    /// The text behind the last separator; the whole path when it has none.
    static std::string GetFileNameByPath(std::string path);
    /// A CSIDL_ folder's path in short form (on Linux the XDG folder, short names being the long
    /// ones); "" on failure.
    static std::wstring GetSpecialFolderDirW(unsigned int csidl);
    /// The two parts joined with one separator, "." and ".." resolved; "" when the outcome does not
    /// fit MAX_PATH.
    static std::string GetCombinPath(std::string first, std::string second);
    /// The wide form of GetCombinPath, UTF-16 text.
    static std::wstring GetCombinPath(std::wstring first, std::wstring second);
    /// The full path of `name` below the executable's folder, into `path`. 1 when it exists; else 0
    /// and `path` untouched.
    static int GetFilePathFromFileDir(const std::string& name, std::string& path);
    /// The wide form of GetFilePathFromFileDir.
    static int GetFilePathFromFileDir(const std::wstring& name, std::wstring& path);
    /// The full path of folder `name` below the executable's folder, into `path`; with `create` a
    /// missing last level is created (never a chain of parents). 1 when it is there; else 0 and
    /// `path` untouched.
    static int GetFolderPathFromCurrentExePath(const std::string& name, std::string& path, bool create);
    /// The wide form of GetFolderPathFromCurrentExePath.
    static int GetFolderPathFromCurrentExePath(const std::wstring& name, std::wstring& path, bool create);
    /// The system directory's drive ("C:"), or the root where paths have no drive ("/"); "" on failure.
    static std::string GetSystemDeskPath();

    /// The files of `folder` (links included, subfolders not) whose name holds `filter`, a
    /// case-sensitive substring ("" admits every name): name -> folder + separator + name. Empty
    /// when the folder cannot be read.
    static std::map<std::string, std::string> GetLocalFileMap(std::string folder, std::string filter);
    /// The subfolders of `folder`: name -> folder + separator + name. Empty when it cannot be read.
    static std::map<std::string, std::string> GetLocalDirMap(std::string folder);
    /// As GetLocalFileMap, as a list of folder + "//" + name in the order the search delivers them.
    static std::vector<std::string> GetLocalFileList(std::string folder, std::string filter);
    /// Every entry of `folder`, files and subfolders alike, as folder + "//" + name.
    static std::vector<std::string> GetLocalDirList(std::string folder);

    /// Deletes every file of the tree below `folder` and keeps its folders, passing over what cannot
    /// be deleted (read-only files). 1 if the walk could start; 0 for "", a path naming the root, a
    /// link or anything but a real folder, whose content is never touched.
    static int DeleteFilesFromDirectory(std::string folder);
    /// Deletes the tree below `folder` depth first, the folder itself last, passing over what cannot
    /// be deleted. 1 only if the folder itself is gone; 0 for "", a path naming the root, a link or
    /// anything but a real folder, whose content is never touched.
    static int DeleteDirectory(std::string folder);

private:
    static int IsDirectory(const _WIN32_FIND_DATAA& entry);
    static int IsDot(const _WIN32_FIND_DATAA& entry);
    static bool DeleteTree(const std::string& folder, bool removeFolders);
};

} // namespace ZOTH
