// CPathHelper: one-level listings of a folder and depth-first deletion of a tree. Every walk drops the
// first entry the search delivers unseen (on an ordinary folder that is "."), and links are never
// entered because the platform reports them without the directory attribute.
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include <cstring>

namespace ZOTH {

namespace {

// Separators: the map forms and deletion paths use the platform's, the list forms and the deletion
// search pattern a literal "//".
const std::string kSeparator = ZOTH_PATH_SEPARATOR_TEXT;
const std::string kListSeparator = "//";

// The walks read only names and the directory bit: ask the search for nothing more.
const DWORD kNameAndType = FIND_FIRST_EX_LARGE_FETCH | FIND_FIRST_EX_NAME_AND_TYPE;

// prefix + name with one allocation: `prefix + name` would copy the prefix and then regrow.
std::string Join(const std::string& prefix, const char* name) {
    size_t length = std::strlen(name);
    std::string path;
    path.reserve(prefix.size() + length);
    path.append(prefix).append(name, length);
    return path;
}

enum class Keep { Files, Directories, Everything };

// The shared walk of the four listings: calls `add(name)` for every entry that counts.
template <class Add>
void Walk(const std::string& folder, const std::string& pattern, Keep keep, const std::string& filter,
          Add add) {
    if (!PathFileExistsA(folder.c_str())) return;
    _WIN32_FIND_DATAA entry;
    HANDLE search = FindFirstFileExA(pattern.c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr,
                                     kNameAndType);
    if (search == INVALID_HANDLE_VALUE) return;
    while (FindNextFileA(search, &entry)) {
        bool directory = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (directory && (std::strcmp(entry.cFileName, ".") == 0 || std::strcmp(entry.cFileName, "..") == 0))
            continue;
        if (keep == Keep::Files && directory) continue;
        if (keep == Keep::Directories && !directory) continue;
        if (!filter.empty() && std::strstr(entry.cFileName, filter.c_str()) == nullptr) continue;
        add(entry.cFileName);
    }
    FindClose(search);
}

} // namespace

int CPathHelper::IsDirectory(const _WIN32_FIND_DATAA& entry) {
    return (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? 1 : 0;
}

int CPathHelper::IsDot(const _WIN32_FIND_DATAA& entry) {
    return IsDirectory(entry) &&
                   (std::strcmp(entry.cFileName, ".") == 0 || std::strcmp(entry.cFileName, "..") == 0)
               ? 1
               : 0;
}

// Name -> folder + separator + name, for the files whose name holds `filter`.
std::map<std::string, std::string> CPathHelper::GetLocalFileMap(std::string folder, std::string filter) {
    std::map<std::string, std::string> result;
    Walk(folder, folder + kSeparator + "*.*", Keep::Files, filter,
         [&](const char* name) { result[name] = Join(folder + kSeparator, name); });
    return result;
}

// Name -> folder + separator + name, for the subfolders.
std::map<std::string, std::string> CPathHelper::GetLocalDirMap(std::string folder) {
    std::map<std::string, std::string> result;
    Walk(folder, folder + kSeparator + "*.*", Keep::Directories, "",
         [&](const char* name) { result[name] = Join(folder + kSeparator, name); });
    return result;
}

// folder + "//" + name for the files whose name holds `filter`, in the order of the search.
std::vector<std::string> CPathHelper::GetLocalFileList(std::string folder, std::string filter) {
    std::vector<std::string> result;
    std::string prefix = folder + kListSeparator;
    Walk(folder, prefix + "*.*", Keep::Files, filter,
         [&](const char* name) { result.push_back(Join(prefix, name)); });
    return result;
}

// folder + "//" + name for every entry, files and folders alike.
std::vector<std::string> CPathHelper::GetLocalDirList(std::string folder) {
    std::vector<std::string> result;
    std::string prefix = folder + kListSeparator;
    Walk(folder, prefix + "*.*", Keep::Everything, "",
         [&](const char* name) { result.push_back(Join(prefix, name)); });
    return result;
}

// The depth-first deletion behind DeleteFilesFromDirectory (folders kept) and DeleteDirectory
// (`removeFolders`: each emptied subfolder removed after its walk). Failures are passed over. False
// when the search of `folder` did not start.
bool CPathHelper::DeleteTree(const std::string& folder, bool removeFolders) {
    _WIN32_FIND_DATAA entry;
    HANDLE search = FindFirstFileExA((folder + kListSeparator + "*.*").c_str(), FindExInfoBasic, &entry,
                                     FindExSearchNameMatch, nullptr, kNameAndType);
    if (search == INVALID_HANDLE_VALUE) return false;
    std::string prefix = folder + kSeparator;
    while (FindNextFileA(search, &entry)) {
        if (IsDot(entry)) continue;
        std::string path = Join(prefix, entry.cFileName);
        if (!IsDirectory(entry))
            DeleteFoundFileA(search, path.c_str(), entry.cFileName);
        else if (DeleteTree(path, removeFolders) && removeFolders)
            RemoveDirectoryA(path.c_str());
    }
    FindClose(search);
    return true;
}

// Deletes the files of the tree depth first, passing over what cannot be deleted. 1 if the search
// of `folder` started.
int CPathHelper::DeleteFilesFromDirectory(std::string folder) {
    return DeleteTree(folder, false) ? 1 : 0;
}

// Deletes the tree depth first, the folder itself last. 1 only if the folder itself was removed.
int CPathHelper::DeleteDirectory(std::string folder) {
    return DeleteTree(folder, true) && RemoveDirectoryA(folder.c_str()) ? 1 : 0;
}

} // namespace ZOTH
