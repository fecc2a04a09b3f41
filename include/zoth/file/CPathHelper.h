// CPathHelper: static operations on paths and folders: paths relative to the executable's folder,
// one-level listings and recursive deletion. Paths go to the platform unchanged.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <map>
#include <string>
#include <vector>

namespace ZOTH {

class ZOTH_API CPathHelper {
public:
    CPathHelper();
    ~CPathHelper();
    CPathHelper& operator=(const CPathHelper& other);

    static std::string GetExePath(); // the executable's full path; "" on failure
    static std::string GetExeDir();  // its folder, no trailing separator; "" on failure
    // The text behind the last separator; the whole path when it has none.
    static std::string GetFileNameByPath(std::string path);
    // A CSIDL_ folder's path in short form; "" on failure.
    static std::wstring GetSpecialFolderDirW(unsigned int csidl);
    // The two parts joined, "." and ".." resolved; "" when the outcome does not fit MAX_PATH.
    static std::string GetCombinPath(std::string first, std::string second);
    static std::wstring GetCombinPath(std::wstring first, std::wstring second);
    // The full path of an existing `name` below the executable's folder. 1 found, 0 not.
    static int GetFilePathFromFileDir(const std::string& name, std::string& path);
    static int GetFilePathFromFileDir(const std::wstring& name, std::wstring& path);
    // The full path of `name` below the executable's folder; with `create` a missing last level is
    // created (never a chain of parents). 1 present, 0 not.
    static int GetFolderPathFromCurrentExePath(const std::string& name, std::string& path, bool create);
    static int GetFolderPathFromCurrentExePath(const std::wstring& name, std::wstring& path, bool create);
    // The system directory's drive ("C:"), or the root where paths have no drive; "" on failure.
    static std::string GetSystemDeskPath();

    // One-level listings. The filter is a case-sensitive substring of the name; "" admits everything.
    // Map forms join folder and name with the platform separator, list forms with "//".
    static std::map<std::string, std::string> GetLocalFileMap(std::string folder, std::string filter);
    static std::map<std::string, std::string> GetLocalDirMap(std::string folder);
    static std::vector<std::string> GetLocalFileList(std::string folder, std::string filter);
    static std::vector<std::string> GetLocalDirList(std::string folder); // files and folders

    // Deletes every file of the tree and keeps its folders. 1 if the search could start.
    static int DeleteFilesFromDirectory(std::string folder);
    // Deletes the tree, the folder itself last. 1 if the folder was removed.
    static int DeleteDirectory(std::string folder);

private:
    static int IsDirectory(const _WIN32_FIND_DATAA& entry);
    static int IsDot(const _WIN32_FIND_DATAA& entry);
    static bool DeleteTree(const std::string& folder, bool removeFolders);
};

} // namespace ZOTH
