// CPathHelper: names and joins, paths beside the executable, special folders, listings of mixed
// folders and deletion of trees with links and stubborn files.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32Path.h"
#include "zoth/platform/Win32Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

using ZOTH::CPathHelper;
using zoth_test::Exists;
using zoth_test::Spit;
using Map = std::map<std::string, std::string>;
using List = std::vector<std::string>;

namespace {

// The platform's separator, as the library writes it into the paths it builds.
const std::string S(1, zoth_test::kSep);

// `path` with "/" written as the platform's separator.
std::string N(std::string path) {
    std::replace(path.begin(), path.end(), '/', zoth_test::kSep);
    return path;
}

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
        ASSERT_TRUE(std::filesystem::create_directory(root + name)) << name;
}

// A symbolic link, or a skip where the system cannot make one.
#define MAKE_LINK_OR_SKIP(target, link)                                                                      \
    do {                                                                                                     \
        const bool made = zoth_test::MakeLink(target, link);                                                 \
        if (!made && zoth_test::kWindows) GTEST_SKIP() << "no symbolic links here (Wine cannot make them)";  \
        ASSERT_TRUE(made);                                                                                   \
    } while (0)

} // namespace

TEST(FilePaths, NamesJoinsAndTheExecutablesFolder) {
    EXPECT_EQ(CPathHelper::GetFileNameByPath("a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath(N("/x/a.txt")), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath(N("/x/")), "");
    if (!zoth_test::kWindows) { // only the platform separator
        EXPECT_EQ(CPathHelper::GetFileNameByPath("C:\\x\\a.txt"), "C:\\x\\a.txt");
    }
    // Joining is the platform's (tested there); past MAX_PATH the result is empty, in both widths.
    EXPECT_EQ(CPathHelper::GetCombinPath(N("/base/dir/"), N("../x")), N("/base/x"));
    EXPECT_EQ(CPathHelper::GetCombinPath(Wide(N("/base")), Wide(N("./w")) + L"\x00e9"),
              Wide(N("/base/w")) + L"\x00e9");
    std::string longName(MAX_PATH, 'n');
    EXPECT_EQ(CPathHelper::GetCombinPath(N("/base"), longName), "");
    EXPECT_EQ(CPathHelper::GetCombinPath(Wide(N("/base")), Wide(longName)), L"");
    // The system folder's drive ("C:" on Windows; "/" where there are no drives).
    EXPECT_EQ(CPathHelper::GetSystemDeskPath(), zoth_test::kWindows ? "C:" : "/");
    const std::string exe = zoth_test::SelfExe();
    ASSERT_FALSE(exe.empty());
    EXPECT_EQ(CPathHelper::GetExePath(), exe);
    EXPECT_EQ(CPathHelper::GetExeDir(), exe.substr(0, exe.rfind(zoth_test::kSep)));
}

TEST(FilePaths, BesideTheExecutable) {
    std::string name = "zoth-file-test-" + std::to_string(zoth_test::ProcessId()),
                full = CPathHelper::GetExeDir() + S + name;
    std::string out = "untouched";
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name, out), 0);
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, false), 0);
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(Exists(full));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1);
    EXPECT_EQ(out, full);
    EXPECT_TRUE(std::filesystem::is_directory(full));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1); // present now
    // Two missing levels are not created.
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + N("/a/b"), out, true), 0);
    EXPECT_FALSE(Exists(full + N("/a")));

    // A name of several elements, ".." resolved on the way; a file counts as present for the folder.
    Spit(full + N("/f.txt"), "x");
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name + N("/../") + name + N("/f.txt"), out), 1);
    EXPECT_EQ(out, full + N("/f.txt"));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + N("/f.txt"), out, false), 1);
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(std::string(MAX_PATH, 'p'), out), 0); // past MAX_PATH
    std::wstring wideOut;
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(Wide(name + N("/f.txt")), wideOut), 1);
    EXPECT_EQ(wideOut, Wide(full + N("/f.txt")));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(Wide(name + N("/w")), wideOut, true), 1);
    EXPECT_TRUE(Exists(full + N("/w")));
    std::filesystem::remove_all(full);
}

TEST(FilePaths, SpecialFoldersInShortForm) {
    if (zoth_test::kWindows) GTEST_SKIP() << "the XDG user folders below $HOME are Linux's";
    zoth_test::TempDir home;
    zoth_test::ScopedEnv homeVariable("HOME", home.Path().c_str());
    zoth_test::ScopedEnv config("XDG_CONFIG_HOME", nullptr);
    MakeDirs(home.Path(), {"/Documents"});
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_PERSONAL), Wide(home / "Documents"));
    // The desktop folder does not exist: its short form cannot be had, so the result is empty.
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_DESKTOPDIRECTORY), L"");
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(0x7f), L"");
}

TEST(FileListing, MixedFolders) {
    zoth_test::TempDir dir, outside;
    const std::string d = dir.Path();
    MakeDirs(d, {"/sub", "/.git"});
    for (const char* name : {"/a.txt", "/a.txt.bak", "/B.TXT", "/.hidden", "/noext", "/sub/inner.txt"})
        Spit(d + name, "x"); // a subfolder's files appear nowhere
    // A link to a folder is listed, never entered: on Linux the layer reports it as no folder; on
    // Windows the search reports it as a folder (and a reparse point). Where no link can be made
    // (Windows without the privilege), the listing goes on without one.
    const bool linked = zoth_test::MakeLink(outside.Path(), dir / "link");
    ASSERT_TRUE(linked || zoth_test::kWindows);
    const std::string asFile = linked && !zoth_test::kWindows ? "link " : "",
                      asFolder = linked && zoth_test::kWindows ? "link " : "";
    const std::string files = ".hidden B.TXT a.txt a.txt.bak " + asFile + "noext ";
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ""), d + S), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, ""), d + "//"), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d), d + S), ".git " + asFolder + "sub ");
    // The list of "directories" holds every entry, files too, and never the dots.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirList(d), d + "//"),
              ".git .hidden B.TXT a.txt a.txt.bak " + std::string(linked ? "link " : "") + "noext sub ");
    // The filter is a plain, case-sensitive substring.
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ".txt"), d + S), "a.txt a.txt.bak ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "TXT"), d + S), "B.TXT ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "*"), d + S), "");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, "a."), d + "//"), "a.txt a.txt.bak ");
    // A trailing separator on the folder is kept, and so doubled.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d + S), d + S + S), ".git " + asFolder + "sub ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d + S, "noext"), d + S + "//"), "noext ");

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
    ASSERT_TRUE(zoth_test::SetReadOnly(root + "/keep/deeper/ro"));

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
    ASSERT_TRUE(zoth_test::SetReadOnly(root + "/keep/deeper/ro", false));
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
}

TEST(FileDeletion, LinksToOutsideFoldersAreNotFollowed) {
    // Under Wine the walks, which do not yet pass over entries marked FILE_ATTRIBUTE_REPARSE_POINT,
    // would enter the link and empty the folder outside.
    if (zoth_test::kWindows) GTEST_SKIP() << "walks do not pass over reparse points yet";
    zoth_test::TempDir dir, outside;
    MakeDirs(outside.Path(), {"/inner"});
    Spit(outside / "precious", "keep me");
    Spit(outside / "inner/also", "keep me too");
    const std::string root = dir / "tree";
    MakeDirs(root, {"", "/sub"});
    Spit(root + "/sub/f", "x");
    MAKE_LINK_OR_SKIP(outside.Path(), root + "/sub/link");
    MAKE_LINK_OR_SKIP(outside / "precious", root + "/filelink");
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    EXPECT_FALSE(Exists(root + "/sub/link") || Exists(root + "/filelink")); // links are files of the tree
    EXPECT_TRUE(Exists(root + "/sub"));

    MAKE_LINK_OR_SKIP(outside.Path(), root + "/sub/link");
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
    EXPECT_EQ(zoth_test::Slurp(outside / "precious"), "keep me");
    EXPECT_EQ(zoth_test::Slurp(outside / "inner/also"), "keep me too");
}

// A name with characters of the ANSI code page (1252: "grüße.txt") is written, read, listed and
// deleted. On Windows the ...A calls convert it to the file system's UTF-16 name; elsewhere the bytes
// are the name.
TEST(FileNames, AnsiCodePageCharacters) {
    if (zoth_test::kWindows && GetACP() != 1252) GTEST_SKIP() << "the ANSI code page is not 1252 here";
    zoth_test::TempDir dir;
    const std::string name = "gr\xFC\xDF"
                             "e.txt",
                      path = dir / name;
    EXPECT_EQ(ZOTH::CFileHepler::WriteDataToFile(std::string("umlaut"), path, CREATE_ALWAYS), 1);
    std::string data;
    EXPECT_EQ(ZOTH::CFileHepler::ReadDataByFilePath(path, data), 1);
    EXPECT_EQ(data, "umlaut");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(dir.Path(), ""), dir.Path() + S), name + " ");
    if (zoth_test::kWindows) { // the file system holds the name in UTF-16
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(dir.Path()) / L"gr\u00fc\u00dfe.txt"));
    }
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(dir.Path()), 1);
    EXPECT_FALSE(Exists(path));
}
