// CPathHelper: one-level listings of a folder and deletion of a tree. Every walk skips "." and ".."
// by name and looks at every other entry, the first one delivered included. The deletions keep one
// search per level on the heap, never on the machine stack, and descend only into real folders,
// each opened inside its parent's open folder: a link is removed, never entered, and the root folder
// is never walked.
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include <cstring>
#include <unordered_set>
#include <vector>

namespace ZOTH {

namespace {

// Separators: the map forms and deletion paths use the platform's, the list forms and the deletion
// search pattern a literal "//".
const std::string kSeparator = ZOTH_PATH_SEPARATOR_TEXT;
const std::string kListSeparator = "//";

// The walks read only names and the directory bit: ask the search for nothing more.
const DWORD kNameAndType = FIND_FIRST_EX_LARGE_FETCH | FIND_FIRST_EX_NAME_AND_TYPE;

bool IsDotName(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// A folder link or junction (Windows) carries the directory bit beside the reparse-point bit.
bool IsRealDirectory(const _WIN32_FIND_DATAA& entry) {
    return (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
           (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

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
    do {
        if (IsDotName(entry.cFileName)) continue;
        bool directory = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (keep == Keep::Files && directory) continue;
        if (keep == Keep::Directories && !directory) continue;
        if (!filter.empty() && std::strstr(entry.cFileName, filter.c_str()) == nullptr) continue;
        add(entry.cFileName);
    } while (FindNextFileA(search, &entry));
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
// when `folder` is "", names the root, is no real folder (a link) or cannot be searched.
bool CPathHelper::DeleteTree(const std::string& folder, bool removeFolders) {
    if (folder.empty() || PathNamesRootA(folder.c_str())) return false;
    _WIN32_FIND_DATAA entry;
    HANDLE top = FindFirstFolderA(folder.c_str(), &entry, kNameAndType);
    if (top == INVALID_HANDLE_VALUE) return false;

    // One level of the walk: its search, the length of its folder's path in `path`, and the names it
    // passed over (kept folders, files that resisted). A search that had to let go of its folder starts
    // again when it takes it back, and must not go through those a second time.
    struct Level {
        HANDLE search;
        size_t length;
        std::unordered_set<std::string> passed;
    };
    std::vector<Level> levels;
    levels.push_back({top, folder.size(), {}});
    std::string path = folder; // the current level's folder, then + separator + the entry's name
    bool pending = true;       // `entry` holds an entry not yet looked at
    while (!levels.empty()) {
        Level& level = levels.back();
        if (!pending && !FindNextFileA(level.search, &entry)) {
            // The level is done: close it, then remove its folder inside the parent's.
            FindClose(level.search);
            levels.pop_back();
            if (levels.empty()) break;
            Level& parent = levels.back();
            std::string name = path.substr(parent.length + kSeparator.size());
            if (!removeFolders || !RemoveFoundDirectoryA(parent.search, path.c_str(), name.c_str()))
                parent.passed.insert(std::move(name));
            path.resize(parent.length);
            continue;
        }
        pending = false;
        if (IsDotName(entry.cFileName)) continue;
        if (!level.passed.empty() && level.passed.count(entry.cFileName) != 0) continue;
        path.append(kSeparator).append(entry.cFileName);
        const char* name = path.c_str() + level.length + kSeparator.size(); // stays put while `entry` changes
        bool gone;
        if (IsRealDirectory(entry)) {
            HANDLE sub = FindFirstFoundFolderA(level.search, path.c_str(), name, &entry, kNameAndType);
            if (sub != INVALID_HANDLE_VALUE) {
                levels.push_back({sub, path.size(), {}});
                pending = true;
                continue;
            }
            // Not entered: an empty folder that cannot be searched, or no longer a folder at all.
            gone = (removeFolders && RemoveFoundDirectoryA(level.search, path.c_str(), name)) ||
                   DeleteFoundFileA(level.search, path.c_str(), name);
        } else if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            gone = RemoveFoundDirectoryA(level.search, path.c_str(), name); // the link, not its target
        } else {
            gone = DeleteFoundFileA(level.search, path.c_str(), name);
        }
        if (!gone) level.passed.insert(name);
        path.resize(level.length);
    }
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
