// CPathHelper's listings of mixed folders and its deletion of trees, links and stubborn files.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CPathHelper.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>

using ZOTH::CPathHelper;
using zoth_test::Exists;
using zoth_test::Spit;

namespace {

std::vector<std::string> Sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

void MakeDir(const std::string& path) {
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0) << path;
}

} // namespace

TEST(FileListing, MixedFolder) {
    zoth_test::TempDir dir, outside;
    const std::string d = dir.Path();
    for (const char* name : {"a.txt", "a.txt.bak", "B.TXT", ".hidden", "noext"})
        Spit(dir / name, "x");
    MakeDir(dir / "sub");
    MakeDir(dir / ".git");
    Spit(dir / "sub/inner.txt", "x"); // a subfolder's files appear nowhere
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "link").c_str()), 0);

    using Map = std::map<std::string, std::string>;
    EXPECT_EQ(CPathHelper::GetLocalFileMap(d, ""), (Map{{".hidden", d + "/.hidden"},
                                                        {"B.TXT", d + "/B.TXT"},
                                                        {"a.txt", d + "/a.txt"},
                                                        {"a.txt.bak", d + "/a.txt.bak"},
                                                        {"link", d + "/link"}, // a link is no folder
                                                        {"noext", d + "/noext"}}));
    EXPECT_EQ(CPathHelper::GetLocalDirMap(d), (Map{{".git", d + "/.git"}, {"sub", d + "/sub"}}));

    // The filter is a plain, case-sensitive substring.
    EXPECT_EQ(CPathHelper::GetLocalFileMap(d, ".txt"),
              (Map{{"a.txt", d + "/a.txt"}, {"a.txt.bak", d + "/a.txt.bak"}}));
    EXPECT_EQ(CPathHelper::GetLocalFileMap(d, "TXT"), (Map{{"B.TXT", d + "/B.TXT"}}));
    EXPECT_EQ(CPathHelper::GetLocalFileMap(d, "*"), Map{});

    EXPECT_EQ(Sorted(CPathHelper::GetLocalFileList(d, "a.")),
              (std::vector<std::string>{d + "//a.txt", d + "//a.txt.bak"}));
    EXPECT_EQ(Sorted(CPathHelper::GetLocalFileList(d, "")).size(), 6u);
    // The list of "directories" holds every entry, files too, and never the dots.
    EXPECT_EQ(Sorted(CPathHelper::GetLocalDirList(d)),
              (std::vector<std::string>{d + "//.git", d + "//.hidden", d + "//B.TXT", d + "//a.txt",
                                        d + "//a.txt.bak", d + "//link", d + "//noext", d + "//sub"}));

    // A trailing separator on the folder is kept, and so doubled.
    EXPECT_EQ(CPathHelper::GetLocalDirMap(d + "/"), (Map{{".git", d + "//.git"}, {"sub", d + "//sub"}}));
    EXPECT_EQ(Sorted(CPathHelper::GetLocalFileList(d + "/", "noext")),
              (std::vector<std::string>{d + "///noext"}));
}

TEST(FileListing, OnlyFoldersOneOfEachAndNothing) {
    zoth_test::TempDir dir;
    MakeDir(dir / "x");
    MakeDir(dir / "y");
    EXPECT_TRUE(CPathHelper::GetLocalFileMap(dir.Path(), "").empty());
    EXPECT_TRUE(CPathHelper::GetLocalFileList(dir.Path(), "").empty());
    EXPECT_EQ(CPathHelper::GetLocalDirMap(dir.Path()).size(), 2u);
    EXPECT_EQ(CPathHelper::GetLocalDirList(dir.Path()).size(), 2u);

    zoth_test::TempDir one;
    Spit(one / "f", "x");
    MakeDir(one / "d");
    EXPECT_EQ(CPathHelper::GetLocalFileMap(one.Path(), "").size(), 1u);
    EXPECT_EQ(CPathHelper::GetLocalDirMap(one.Path()).size(), 1u);
    EXPECT_EQ(CPathHelper::GetLocalFileList(one.Path(), "").size(), 1u);
    EXPECT_EQ(CPathHelper::GetLocalDirList(one.Path()).size(), 2u);

    // A missing folder, a file instead of a folder and an empty folder all give nothing.
    zoth_test::TempDir empty;
    EXPECT_TRUE(CPathHelper::GetLocalDirList("").empty());
    for (const std::string& p : {dir / "missing", one / "f", empty.Path()}) {
        EXPECT_TRUE(CPathHelper::GetLocalFileMap(p, "").empty()) << p;
        EXPECT_TRUE(CPathHelper::GetLocalDirMap(p).empty()) << p;
        EXPECT_TRUE(CPathHelper::GetLocalFileList(p, "").empty()) << p;
        EXPECT_TRUE(CPathHelper::GetLocalDirList(p).empty()) << p;
    }
}

TEST(FileDeletion, FilesGoFoldersStay) {
    zoth_test::TempDir dir;
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(dir / "missing"), 0);
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(dir / "missing/"), 0);
    MakeDir(dir / "empty");
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(dir / "empty"), 1);
    EXPECT_TRUE(Exists(dir / "empty"));

    std::string root = dir / "tree";
    MakeDir(root);
    MakeDir(root + "/a");
    MakeDir(root + "/a/b");
    MakeDir(root + "/c");
    for (const char* f : {"/f1", "/.dot", "/a/f2", "/a/b/f3", "/a/b/f4", "/c/f5"})
        Spit(root + f, "x");
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    for (const char* d : {"", "/a", "/a/b", "/c"})
        EXPECT_TRUE(Exists(root + d)) << d;
    for (const char* f : {"/f1", "/.dot", "/a/f2", "/a/b/f3", "/a/b/f4", "/c/f5"})
        EXPECT_FALSE(Exists(root + f)) << f;
}

TEST(FileDeletion, WholeTreesAndStubbornFiles) {
    zoth_test::TempDir dir;
    EXPECT_EQ(CPathHelper::DeleteDirectory(dir / "missing"), 0);

    // A deep tree goes entirely.
    std::string root = dir / "tree";
    std::string path = root;
    MakeDir(path);
    for (int level = 0; level < 20; ++level) {
        Spit(path + "/file" + std::to_string(level), std::string(level, 'z'));
        MakeDir(path + "/side");
        Spit(path + "/side/s", "s");
        path += "/d" + std::to_string(level);
        MakeDir(path);
    }
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));

    // A read-only file cannot be deleted: the walk goes on past it, the file and its folders remain,
    // and the result is 0.
    root = dir / "stubborn";
    MakeDir(root);
    MakeDir(root + "/keep");
    MakeDir(root + "/keep/deeper");
    MakeDir(root + "/gone");
    for (const char* f : {"/x1", "/keep/x2", "/keep/deeper/x3", "/gone/x4", "/zz"})
        Spit(root + f, "x");
    Spit(root + "/keep/deeper/ro", "ro");
    ASSERT_EQ(::chmod((root + "/keep/deeper/ro").c_str(), 0444), 0);
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 0);
    EXPECT_TRUE(Exists(root + "/keep/deeper/ro"));
    for (const char* kept : {"", "/keep", "/keep/deeper"})
        EXPECT_TRUE(Exists(root + kept)) << kept;
    for (const char* gone : {"/x1", "/keep/x2", "/keep/deeper/x3", "/gone", "/zz"})
        EXPECT_FALSE(Exists(root + gone)) << gone;
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1); // still resisted, still started
    EXPECT_TRUE(Exists(root + "/keep/deeper/ro"));
}

TEST(FileDeletion, LinksToOutsideFoldersAreNotFollowed) {
    zoth_test::TempDir dir, outside;
    Spit(outside / "precious", "keep me");
    MakeDir(outside / "inner");
    Spit(outside / "inner/also", "keep me too");

    std::string root = dir / "tree";
    MakeDir(root);
    MakeDir(root + "/sub");
    Spit(root + "/sub/f", "x");
    ASSERT_EQ(::symlink(outside.Path().c_str(), (root + "/sub/link").c_str()), 0);
    ASSERT_EQ(::symlink((outside / "precious").c_str(), (root + "/filelink").c_str()), 0);

    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    EXPECT_FALSE(Exists(root + "/sub/link")); // the links themselves are files of the tree
    EXPECT_FALSE(Exists(root + "/filelink"));
    EXPECT_TRUE(Exists(root + "/sub"));

    ASSERT_EQ(::symlink(outside.Path().c_str(), (root + "/sub/link").c_str()), 0);
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
    EXPECT_EQ(zoth_test::Slurp(outside / "precious"), "keep me");
    EXPECT_EQ(zoth_test::Slurp(outside / "inner/also"), "keep me too");
}
