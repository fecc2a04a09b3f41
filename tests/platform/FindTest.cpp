// The layer's directory search: dots first, Windows wildcards, links, deletion during the walk, and
// the calls that tree walks are built on.
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, DWORD>>; // name and attributes, in search order
using Attributes = std::map<std::string, DWORD>;

Entries Walk(const std::string& pattern, DWORD exFlags = 0) {
    Entries out;
    WIN32_FIND_DATAA data;
    HANDLE search = exFlags == 0 ? FindFirstFileA(pattern.c_str(), &data)
                                 : FindFirstFileExA(pattern.c_str(), FindExInfoBasic, &data,
                                                    FindExSearchNameMatch, nullptr, exFlags);
    if (search == INVALID_HANDLE_VALUE) return out;
    do
        out.emplace_back(data.cFileName, data.dwFileAttributes);
    while (FindNextFileA(search, &data));
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    EXPECT_TRUE(FindClose(search));
    return out;
}

std::set<std::string> Names(const std::string& pattern) {
    std::set<std::string> names;
    for (const auto& entry : Walk(pattern))
        names.insert(entry.first);
    return names;
}

const DWORD kDir = FILE_ATTRIBUTE_DIRECTORY, kFile = FILE_ATTRIBUTE_NORMAL;

} // namespace

// "." and ".." first, then each entry once with its attributes, nothing from inside subfolders. Links,
// even to folders, are never directories, so walks remove the link and not its target.
TEST(PlatformFind, DotsFirstThenEntriesWithAttributes) {
    zoth_test::TempDir dir, outside;
    std::ofstream(dir / "a.txt") << "12345";
    std::ofstream(dir / ".hidden") << "";
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0755), 0);
    std::ofstream(dir / "sub/inner") << "";
    std::ofstream(dir / "ro") << "r";
    ASSERT_EQ(::chmod((dir / "ro").c_str(), 0444), 0);
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "dirlink").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "gone").c_str(), (dir / "dangling").c_str()), 0);
    const Attributes expected = {
        {".", kDir},
        {"..", kDir},
        {"sub", kDir},
        {"a.txt", kFile},
        {".hidden", kFile},
        {"ro", FILE_ATTRIBUTE_READONLY},
        {"dirlink", FILE_ATTRIBUTE_REPARSE_POINT},
        {"dangling", FILE_ATTRIBUTE_REPARSE_POINT},
    };
    for (const char* separator : {"/", "//"}) {
        Entries all = Walk(dir.Path() + separator + "*.*");
        ASSERT_EQ(all.size(), expected.size()) << separator;
        EXPECT_EQ(all[0].first, ".");
        EXPECT_EQ(all[1].first, "..");
        EXPECT_EQ(Attributes(all.begin(), all.end()), expected) << separator;
    }
    // The name-and-type search gives the same entries in the same order; only read-only is left out.
    Entries full = Walk(dir / "*.*"),
            quick = Walk(dir / "*.*", FIND_FIRST_EX_LARGE_FETCH | FIND_FIRST_EX_NAME_AND_TYPE);
    ASSERT_EQ(quick.size(), full.size());
    for (size_t i = 0; i < full.size(); ++i)
        EXPECT_EQ(quick[i], full[i].first == "ro" ? std::make_pair(full[i].first, kFile) : full[i]);

    WIN32_FIND_DATAA data; // a plain name finds itself, described in full
    HANDLE search = FindFirstFileA((dir / "a.txt").c_str(), &data);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(data.cFileName, "a.txt");
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_NE(data.ftLastWriteTime.dwHighDateTime, 0u);
    EXPECT_FALSE(FindNextFileA(search, &data));
    FindClose(search);
}

TEST(PlatformFind, WildcardsAndMisses) {
    zoth_test::TempDir dir;
    for (const char* name : {"a.txt", "B.TXT", "a.txt.bak", "abc", "ab", "x.log"})
        std::ofstream(dir / name) << "";
    const std::pair<const char*, std::set<std::string>> cases[] = {
        {"*.txt", {"a.txt", "B.TXT"}}, // any ASCII case
        {"a?c", {"abc"}},
        {"a*", {"a.txt", "a.txt.bak", "abc", "ab"}},
        {"ab.*", {"ab"}}, // ".*" also takes a name without a dot
        {"*", {".", "..", "a.txt", "B.TXT", "a.txt.bak", "abc", "ab", "x.log"}}};
    for (const auto& [pattern, names] : cases)
        EXPECT_EQ(Names(dir / pattern), names) << pattern;

    const std::pair<std::string, DWORD> misses[] = {{dir / "*.none", ERROR_FILE_NOT_FOUND},
                                                    {dir / "nothing", ERROR_FILE_NOT_FOUND},
                                                    {dir / "missing/*.*", ERROR_PATH_NOT_FOUND},
                                                    {dir / "a.txt/*.*", ERROR_PATH_NOT_FOUND}};
    WIN32_FIND_DATAA data;
    for (const auto& [pattern, error] : misses) {
        SCOPED_TRACE(pattern);
        EXPECT_FAILS_WITH(FindFirstFileA(pattern.c_str(), &data), INVALID_HANDLE_VALUE, error);
    }
    // The root folder, with one separator or several.
    for (const char* root : {"/*", "//*.*", "///*.*"}) {
        EXPECT_EQ(Walk(root).at(0).first, ".") << root;
        EXPECT_EQ(Names(root).count("tmp"), 1u) << root;
    }
    EXPECT_EQ(FindFirstFileA(nullptr, &data), INVALID_HANDLE_VALUE);
    EXPECT_FAILS_WITH(FindNextFileA(nullptr, &data), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_FALSE(FindClose(INVALID_HANDLE_VALUE));
    std::string all = dir / "*.*";
    EXPECT_FAILS_WITH(
        FindFirstFileExA(all.c_str(), FindExInfoMaxInfoLevel, &data, FindExSearchNameMatch, nullptr, 0),
        INVALID_HANDLE_VALUE, ERROR_INVALID_PARAMETER);
    EXPECT_FAILS_WITH(
        FindFirstFileExA(all.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr, 0x4u),
        INVALID_HANDLE_VALUE, ERROR_INVALID_PARAMETER);
}

TEST(PlatformFind, EntriesMayBeDeletedDuringTheWalk) {
    zoth_test::TempDir dir;
    const int count = 3000; // more than one buffer of directory entries
    for (int i = 0; i < count; ++i)
        std::ofstream(dir / ("f" + std::to_string(i))) << "";
    WIN32_FIND_DATAA data;
    HANDLE search = FindFirstFileA((dir / "*.*").c_str(), &data);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    std::set<std::string> seen;
    while (FindNextFileA(search, &data)) {
        std::string name = data.cFileName;
        if (name == "..") continue;
        EXPECT_TRUE(seen.insert(name).second) << "delivered twice: " << name;
        EXPECT_TRUE(DeleteFileA((dir / name).c_str())) << name;
    }
    FindClose(search);
    EXPECT_EQ(seen.size(), static_cast<size_t>(count));
    EXPECT_EQ(Names(dir / "*.*"), (std::set<std::string>{".", ".."}));
}

// DeleteFoundFileA keeps DeleteFileA's rules but unlinks inside the folder the search holds open: once
// that folder's path is moved away and replaced by a link elsewhere, the deletes still land in the
// walked folder, never behind the link.
TEST(PlatformFind, DeleteFoundFileStaysInTheSearchedFolder) {
    zoth_test::TempDir root;
    std::string walked = root / "walked", moved = root / "moved", elsewhere = root / "elsewhere";
    ASSERT_EQ(::mkdir(walked.c_str(), 0755) | ::mkdir(elsewhere.c_str(), 0755), 0);
    for (const char* name : {"a.txt", "b.txt"}) {
        std::ofstream(walked + "/" + name) << "in the tree";
        std::ofstream(elsewhere + "/" + name) << "must survive";
    }
    std::ofstream(walked + "/readonly.txt") << "x";
    ASSERT_EQ(::chmod((walked + "/readonly.txt").c_str(), 0444), 0);
    ASSERT_EQ(::mkdir((walked + "/sub").c_str(), 0755), 0);

    WIN32_FIND_DATAA data;
    HANDLE search = FindFirstFileExA((walked + "/*.*").c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                                     nullptr, FIND_FIRST_EX_NAME_AND_TYPE);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    ASSERT_EQ(::rename(walked.c_str(), moved.c_str()), 0);
    ASSERT_EQ(::symlink(elsewhere.c_str(), walked.c_str()), 0);
    std::set<std::string> deleted, refused;
    while (FindNextFileA(search, &data)) {
        std::string name = data.cFileName;
        if (name == "..") continue;
        if (DeleteFoundFileA(search, (walked + "/" + name).c_str(), data.cFileName))
            deleted.insert(name);
        else
            refused.insert(name + ":" + std::to_string(GetLastError()));
    }
    EXPECT_EQ(deleted, (std::set<std::string>{"a.txt", "b.txt"}));
    EXPECT_EQ(refused, (std::set<std::string>{"readonly.txt:" + std::to_string(ERROR_ACCESS_DENIED),
                                              "sub:" + std::to_string(ERROR_ACCESS_DENIED)}));
    EXPECT_EQ(Names(moved + "/*.*"), (std::set<std::string>{".", "..", "readonly.txt", "sub"}));
    EXPECT_EQ(Names(elsewhere + "/*.*"), (std::set<std::string>{".", "..", "a.txt", "b.txt"}));

    // A name that is no plain entry goes by the full path; a handle that is no search is refused.
    std::ofstream(elsewhere + "/c.txt") << "";
    EXPECT_TRUE(DeleteFoundFileA(search, (elsewhere + "/c.txt").c_str(), "../elsewhere/c.txt"));
    EXPECT_NE(::access((elsewhere + "/c.txt").c_str(), F_OK), 0);
    EXPECT_TRUE(FindClose(search));
    EXPECT_FAILS_WITH(DeleteFoundFileA(INVALID_HANDLE_VALUE, (elsewhere + "/a.txt").c_str(), "a.txt"), FALSE,
                      ERROR_INVALID_HANDLE);
    EXPECT_EQ(::access((elsewhere + "/a.txt").c_str(), F_OK), 0);
}

// The walk calls act inside the folders their searches hold open and never pass through a link: not
// as the folder searched, not as an entry swapped for a link after its parent was read, not when the
// held folder's own path is taken over by a link.
TEST(PlatformFind, WalkCallsNeverPassThroughALink) {
    zoth_test::TempDir root, elsewhere;
    const std::string tree = root / "tree", held = root / "held";
    for (const std::string& folder : {tree, tree + "/sub", tree + "/empty", tree + "/full",
                                      elsewhere / "empty", elsewhere / "full", elsewhere / "sub"})
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0) << folder;
    std::ofstream(tree + "/sub/inner") << "";
    std::ofstream(tree + "/full/f") << "";
    std::ofstream(elsewhere / "keep") << "keep";
    ASSERT_EQ(::symlink(elsewhere.Path().c_str(), (root / "link").c_str()), 0);

    WIN32_FIND_DATAA data;
    for (const std::string& link : {root / "link", root / "link/", root / "link//"})
        EXPECT_FAILS_WITH(FindFirstFolderA(link.c_str(), &data, 0), INVALID_HANDLE_VALUE, ERROR_DIRECTORY);
    EXPECT_FAILS_WITH(FindFirstFolderA((tree + "/sub/inner").c_str(), &data, 0), INVALID_HANDLE_VALUE,
                      ERROR_DIRECTORY);
    EXPECT_FAILS_WITH(FindFirstFolderA((root / "missing").c_str(), &data, 0), INVALID_HANDLE_VALUE,
                      ERROR_PATH_NOT_FOUND);
    EXPECT_FAILS_WITH(FindFirstFolderA(tree.c_str(), &data, 0x4u), INVALID_HANDLE_VALUE,
                      ERROR_INVALID_PARAMETER);

    HANDLE top = FindFirstFolderA((tree + "/").c_str(), &data, FIND_FIRST_EX_NAME_AND_TYPE);
    ASSERT_NE(top, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(data.cFileName, ".");
    // From here on the tree's path leads elsewhere; the calls still work in the folder held open.
    ASSERT_EQ(::rename(tree.c_str(), held.c_str()), 0);
    ASSERT_EQ(::symlink(elsewhere.Path().c_str(), tree.c_str()), 0);
    HANDLE sub = FindFirstFoundFolderA(top, (tree + "/sub").c_str(), "sub", &data, 0);
    ASSERT_NE(sub, INVALID_HANDLE_VALUE);
    std::set<std::string> names;
    do
        names.insert(data.cFileName);
    while (FindNextFileA(sub, &data));
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "inner"}));
    EXPECT_FAILS_WITH(FindFirstFoundFolderA(top, (tree + "/full").c_str(), "full", &data, 0),
                      INVALID_HANDLE_VALUE, ERROR_BUSY); // one sub-search at a time
    EXPECT_TRUE(FindClose(sub));
    EXPECT_TRUE(RemoveFoundDirectoryA(top, (tree + "/empty").c_str(), "empty"));
    EXPECT_FALSE(RemoveFoundDirectoryA(top, (tree + "/full").c_str(), "full")); // not empty
    EXPECT_NE(::access((held + "/empty").c_str(), F_OK), 0);
    EXPECT_EQ(::access((held + "/full/f").c_str(), F_OK), 0);

    // An entry swapped for a link: neither searched nor removed as a folder; only deleted as a link.
    ASSERT_EQ(::rename((held + "/sub").c_str(), (root / "sub").c_str()), 0);
    ASSERT_EQ(::symlink(elsewhere.Path().c_str(), (held + "/sub").c_str()), 0);
    EXPECT_FAILS_WITH(FindFirstFoundFolderA(top, (tree + "/sub").c_str(), "sub", &data, 0),
                      INVALID_HANDLE_VALUE, ERROR_DIRECTORY);
    EXPECT_FAILS_WITH(RemoveFoundDirectoryA(top, (tree + "/sub").c_str(), "sub"), FALSE, ERROR_DIRECTORY);
    EXPECT_TRUE(DeleteFoundFileA(top, (tree + "/sub").c_str(), "sub"));
    EXPECT_TRUE(FindClose(top));
    EXPECT_EQ(Names(elsewhere / "*"), (std::set<std::string>{".", "..", "empty", "full", "keep", "sub"}));
    EXPECT_FAILS_WITH(RemoveFoundDirectoryA(INVALID_HANDLE_VALUE, elsewhere.Path().c_str(), "empty"), FALSE,
                      ERROR_INVALID_HANDLE);
}

// A chain of sub-searches as deep as a tree goes holds only a few folders open. An ancestor that let
// go of its folder refuses calls until its sub-search closes, then takes the folder back through ".."
// and starts again, unless ".." no longer leads to that same folder: then it stays lost.
TEST(PlatformFind, DeepChainsHoldFewFoldersAndTakeThemBackOnlyIfUnchanged) {
    auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    zoth_test::TempDir root;
    const int depth = 100;
    std::string path = root / "c";
    std::vector<std::string> paths;
    for (int level = 0; level <= depth; ++level, path += "/c") {
        ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
        std::ofstream(path + "/f") << "";
        paths.push_back(path);
    }
    const auto before = openFiles();
    WIN32_FIND_DATAA data;
    std::vector<HANDLE> chain{FindFirstFolderA(paths[0].c_str(), &data, 0)};
    for (int level = 1; level <= depth; ++level) {
        chain.push_back(FindFirstFoundFolderA(chain.back(), paths[level].c_str(), "c", &data, 0));
        ASSERT_NE(chain.back(), INVALID_HANDLE_VALUE) << level;
    }
    EXPECT_LE(openFiles() - before, 32); // the window the README states
    EXPECT_FAILS_WITH(FindNextFileA(chain[0], &data), FALSE, ERROR_BUSY);
    EXPECT_FAILS_WITH(DeleteFoundFileA(chain[0], (paths[0] + "/f").c_str(), "f"), FALSE, ERROR_BUSY);
    EXPECT_EQ(::access((paths[0] + "/f").c_str(), F_OK), 0);

    // Level 10 is moved out of level 9: closing level 10's search cannot take level 9 back.
    ASSERT_EQ(::rename(paths[10].c_str(), (root / "away").c_str()), 0);
    for (int level = depth; level >= 1; --level) {
        EXPECT_TRUE(FindClose(chain[level]));
        std::set<std::string> names;
        SetLastError(ERROR_SUCCESS);
        while (FindNextFileA(chain[level - 1], &data))
            names.insert(data.cFileName);
        if (level > 10) {
            EXPECT_TRUE(names.count("c") == 1 && names.count("f") == 1) << level;
        } else {
            EXPECT_TRUE(names.empty()) << level; // lost: nothing more from it, never from elsewhere
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND)) << level;
            EXPECT_FAILS_WITH(DeleteFoundFileA(chain[level - 1], (paths[level - 1] + "/f").c_str(), "f"),
                              FALSE, ERROR_PATH_NOT_FOUND);
        }
    }
    EXPECT_TRUE(FindClose(chain[0]));
    EXPECT_EQ(openFiles(), before);
    for (int level = 0; level < 10; ++level)
        EXPECT_EQ(::access((paths[level] + "/f").c_str(), F_OK), 0) << level;
}

// Only the text or the target of a path is looked at; nothing is opened.
TEST(PlatformFind, PathNamesRootByTextOrWhereItLeads) {
    zoth_test::TempDir dir;
    ASSERT_EQ(::symlink("/", (dir / "toroot").c_str()), 0);
    ASSERT_EQ(::symlink("/tmp", (dir / "totmp").c_str()), 0);
    for (const std::string& root :
         {std::string("/"), std::string("//"), std::string("///"), std::string("/."), std::string("/./"),
          std::string("/x/.."), std::string("/tmp/.."), std::string("/tmp/../.."),
          std::string("/no/such/../.."), dir / "toroot", dir / "toroot/", dir / "totmp/.."})
        EXPECT_TRUE(PathNamesRootA(root.c_str())) << root;
    for (const std::string& other :
         {std::string(""), std::string("/tmp"), std::string("/tmp/"), std::string("/tmp/x/.."),
          std::string("relative/.."), dir.Path(), dir / "totmp", dir / "missing/.."})
        EXPECT_FALSE(PathNamesRootA(other.c_str())) << other;
    EXPECT_FALSE(PathNamesRootA(nullptr));
}
