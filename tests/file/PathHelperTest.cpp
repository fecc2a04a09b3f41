// CPathHelper: names and joins, paths beside the executable, special folders, listings of mixed
// folders and deletion of trees with links and stubborn files.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32Path.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

using ZOTH::CPathHelper;
using zoth_test::Exists;
using zoth_test::Spit;
using Map = std::map<std::string, std::string>;
using List = std::vector<std::string>;

namespace {

std::wstring Wide(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

// The names a listing holds, in order and each followed by a space, after checking that every path is
// `prefix` and the name.
std::string Names(const Map& listing, const std::string& prefix) {
    std::string names;
    for (const auto& [name, path] : listing) {
        EXPECT_EQ(path, prefix + name);
        names += name + " ";
    }
    return names;
}
std::string Names(const List& listing, const std::string& prefix) {
    Map byName;
    for (const std::string& path : listing) {
        EXPECT_EQ(path.rfind(prefix, 0), 0u) << path;
        byName[path.substr(prefix.size())] = path;
    }
    EXPECT_EQ(byName.size(), listing.size());
    return Names(byName, prefix);
}

void MakeDirs(const std::string& root, std::initializer_list<const char*> names) {
    for (const char* name : names)
        ASSERT_EQ(::mkdir((root + name).c_str(), 0755), 0) << name;
}

} // namespace

TEST(FilePaths, NamesJoinsAndTheExecutablesFolder) {
    EXPECT_EQ(CPathHelper::GetFileNameByPath("a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("/x/a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("/x/"), "");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("C:\\x\\a.txt"), "C:\\x\\a.txt"); // only the platform separator
    // Joining is the platform's (tested there); past MAX_PATH the result is empty, in both widths.
    EXPECT_EQ(CPathHelper::GetCombinPath("/base/dir/", "../x"), "/base/x");
    EXPECT_EQ(CPathHelper::GetCombinPath(L"/base", L"./w\x00e9"), L"/base/w\x00e9");
    std::string longName(MAX_PATH, 'n');
    EXPECT_EQ(CPathHelper::GetCombinPath("/base", longName), "");
    EXPECT_EQ(CPathHelper::GetCombinPath(L"/base", Wide(longName)), L"");
    EXPECT_EQ(CPathHelper::GetSystemDeskPath(), "/");
    char exe[PATH_MAX + 1] = {};
    ASSERT_GT(::readlink("/proc/self/exe", exe, PATH_MAX), 0);
    EXPECT_EQ(CPathHelper::GetExePath(), exe);
    EXPECT_EQ(CPathHelper::GetExeDir(), std::string(exe).substr(0, std::string(exe).rfind('/')));
}

TEST(FilePaths, BesideTheExecutable) {
    std::string name = "zoth-file-test-" + std::to_string(::getpid()),
                full = CPathHelper::GetExeDir() + "/" + name;
    std::string out = "untouched";
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name, out), 0);
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, false), 0);
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(Exists(full));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1);
    EXPECT_EQ(out, full);
    struct stat st;
    ASSERT_EQ(::stat(full.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1); // present now
    // Two missing levels are not created.
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + "/a/b", out, true), 0);
    EXPECT_FALSE(Exists(full + "/a"));

    // A name of several elements, ".." resolved on the way; a file counts as present for the folder.
    Spit(full + "/f.txt", "x");
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name + "/../" + name + "/f.txt", out), 1);
    EXPECT_EQ(out, full + "/f.txt");
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + "/f.txt", out, false), 1);
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(std::string(MAX_PATH, 'p'), out), 0); // past MAX_PATH
    std::wstring wideOut;
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(Wide(name + "/f.txt"), wideOut), 1);
    EXPECT_EQ(wideOut, Wide(full + "/f.txt"));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(Wide(name + "/w"), wideOut, true), 1);
    EXPECT_TRUE(Exists(full + "/w"));
    std::filesystem::remove_all(full);
}

TEST(FilePaths, SpecialFoldersInShortForm) {
    zoth_test::TempDir home;
    std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::string savedConfig = config ? config : "";
    setenv("HOME", home.Path().c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    MakeDirs(home.Path(), {"/Documents"});
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_PERSONAL), Wide(home / "Documents"));
    // The desktop folder does not exist: its short form cannot be had, so the result is empty.
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_DESKTOPDIRECTORY), L"");
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(0x7f), L"");
    setenv("HOME", savedHome.c_str(), 1);
    if (config) setenv("XDG_CONFIG_HOME", savedConfig.c_str(), 1);
}

TEST(FileListing, MixedFolders) {
    zoth_test::TempDir dir, outside;
    const std::string d = dir.Path();
    MakeDirs(d, {"/sub", "/.git"});
    for (const char* name : {"/a.txt", "/a.txt.bak", "/B.TXT", "/.hidden", "/noext", "/sub/inner.txt"})
        Spit(d + name, "x"); // a subfolder's files appear nowhere
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "link").c_str()), 0); // a link is no folder
    const std::string files = ".hidden B.TXT a.txt a.txt.bak link noext ";
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ""), d + "/"), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, ""), d + "//"), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d), d + "/"), ".git sub ");
    // The list of "directories" holds every entry, files too, and never the dots.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirList(d), d + "//"), ".git " + files + "sub ");
    // The filter is a plain, case-sensitive substring.
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ".txt"), d + "/"), "a.txt a.txt.bak ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "TXT"), d + "/"), "B.TXT ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "*"), d + "/"), "");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, "a."), d + "//"), "a.txt a.txt.bak ");
    // A trailing separator on the folder is kept, and so doubled.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d + "/"), d + "//"), ".git sub ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d + "/", "noext"), d + "///"), "noext ");

    // Only folders; one of each (the first entry is dropped unseen, whatever it is); nothing at all.
    zoth_test::TempDir folders, one, empty;
    MakeDirs(folders.Path(), {"/x", "/y"});
    MakeDirs(one.Path(), {"/d"});
    Spit(one / "f", "x");
    const struct {
        std::string folder;
        size_t files, dirs, fileList, dirList;
    } counts[] = {
        {folders.Path(), 0, 2, 0, 2},  {one.Path(), 1, 1, 1, 2}, {empty.Path(), 0, 0, 0, 0},
        {dir / "missing", 0, 0, 0, 0}, {one / "f", 0, 0, 0, 0},  {"", 0, 0, 0, 0},
    };
    for (const auto& c : counts) {
        EXPECT_EQ(CPathHelper::GetLocalFileMap(c.folder, "").size(), c.files) << c.folder;
        EXPECT_EQ(CPathHelper::GetLocalDirMap(c.folder).size(), c.dirs) << c.folder;
        EXPECT_EQ(CPathHelper::GetLocalFileList(c.folder, "").size(), c.fileList) << c.folder;
        EXPECT_EQ(CPathHelper::GetLocalDirList(c.folder).size(), c.dirList) << c.folder;
    }
}

TEST(FileDeletion, TreesWithAFileThatCannotBeRemoved) {
    zoth_test::TempDir dir;
    for (const std::string& missing : {dir / "missing", dir / "missing/"}) {
        EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(missing), 0);
        EXPECT_EQ(CPathHelper::DeleteDirectory(missing), 0);
    }
    const std::string root = dir / "tree";
    std::string deep = root + "/deep";
    MakeDirs(root, {"", "/keep", "/keep/deeper", "/gone", "/empty", "/deep"});
    for (int level = 0; level < 20; ++level, deep += "/d") { // a deep chain, with a file on every level
        MakeDirs(deep, {"/d"});
        Spit(deep + "/file", std::string(level, 'z'));
    }
    const char* files[] = {"/x1",      "/.dot", "/keep/x2",      "/keep/deeper/x3",
                           "/gone/x4", "/zz",   "/deep/d/d/file"};
    for (const char* f : files)
        Spit(root + f, "x");
    Spit(root + "/keep/deeper/ro", "ro"); // read-only: the platform refuses to delete it
    ASSERT_EQ(::chmod((root + "/keep/deeper/ro").c_str(), 0444), 0);

    // Files go and folders stay; the file that resists stops neither the walk nor the result.
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root + "/empty"), 1);
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    for (const char* f : files)
        EXPECT_FALSE(Exists(root + f)) << f;
    for (const char* d :
         {"", "/keep/deeper", "/gone", "/empty", "/deep/d/d/d/d/d/d/d/d/d/d", "/keep/deeper/ro"})
        EXPECT_TRUE(Exists(root + d)) << d;

    // The whole tree, depth first past the failure: the file and the folders above it remain, and
    // the result is 0; once the file gives way, everything goes.
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 0);
    for (const char* kept : {"", "/keep", "/keep/deeper", "/keep/deeper/ro"})
        EXPECT_TRUE(Exists(root + kept)) << kept;
    for (const char* gone : {"/gone", "/empty", "/deep"})
        EXPECT_FALSE(Exists(root + gone)) << gone;
    ASSERT_EQ(::chmod((root + "/keep/deeper/ro").c_str(), 0644), 0);
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
}

TEST(FileDeletion, LinksToOutsideFoldersAreNotFollowed) {
    zoth_test::TempDir dir, outside;
    MakeDirs(outside.Path(), {"/inner"});
    Spit(outside / "precious", "keep me");
    Spit(outside / "inner/also", "keep me too");
    const std::string root = dir / "tree";
    MakeDirs(root, {"", "/sub"});
    Spit(root + "/sub/f", "x");
    ASSERT_EQ(::symlink(outside.Path().c_str(), (root + "/sub/link").c_str()), 0);
    ASSERT_EQ(::symlink((outside / "precious").c_str(), (root + "/filelink").c_str()), 0);
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    EXPECT_FALSE(Exists(root + "/sub/link") || Exists(root + "/filelink")); // links are files of the tree
    EXPECT_TRUE(Exists(root + "/sub"));

    ASSERT_EQ(::symlink(outside.Path().c_str(), (root + "/sub/link").c_str()), 0);
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
    EXPECT_EQ(zoth_test::Slurp(outside / "precious"), "keep me");
    EXPECT_EQ(zoth_test::Slurp(outside / "inner/also"), "keep me too");
}
