// The layer's directory search: dots first, Windows wildcards, links, deletion during the walk.
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

struct Entry {
    std::string name;
    DWORD attributes;
};

std::vector<Entry> Walk(const std::string& pattern) {
    std::vector<Entry> out;
    WIN32_FIND_DATAA data;
    HANDLE search = FindFirstFileA(pattern.c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) return out;
    do {
        out.push_back({data.cFileName, data.dwFileAttributes});
    } while (FindNextFileA(search, &data));
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    EXPECT_TRUE(FindClose(search));
    return out;
}

std::set<std::string> Names(const std::vector<Entry>& entries) {
    std::set<std::string> names;
    for (const Entry& e : entries)
        names.insert(e.name);
    return names;
}

} // namespace

TEST(PlatformFind, DotsFirstThenEntriesWithAttributes) {
    zoth_test::TempDir dir;
    std::ofstream(dir / "a.txt") << "12345";
    std::ofstream(dir / "noext") << "";
    std::ofstream(dir / ".hidden") << "";
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0755), 0);
    std::ofstream(dir / "sub/inner") << "";
    std::ofstream(dir / "ro") << "r";
    ASSERT_EQ(::chmod((dir / "ro").c_str(), 0444), 0);

    for (const char* sep : {"/", "//"}) {
        std::vector<Entry> all = Walk(dir.Path() + sep + "*.*");
        ASSERT_GE(all.size(), 2u);
        EXPECT_EQ(all[0].name, ".");
        EXPECT_EQ(all[1].name, "..");
        EXPECT_TRUE(all[0].attributes & FILE_ATTRIBUTE_DIRECTORY);
        EXPECT_TRUE(all[1].attributes & FILE_ATTRIBUTE_DIRECTORY);
        EXPECT_EQ(Names(all), (std::set<std::string>{".", "..", "a.txt", "noext", ".hidden", "sub", "ro"}));
        EXPECT_EQ(all.size(), 7u); // each once; nothing from inside sub
        for (const Entry& e : all) {
            DWORD expected = e.name == "sub"                   ? FILE_ATTRIBUTE_DIRECTORY
                             : e.name == "ro"                  ? FILE_ATTRIBUTE_READONLY
                             : e.name == "." || e.name == ".." ? FILE_ATTRIBUTE_DIRECTORY
                                                               : FILE_ATTRIBUTE_NORMAL;
            EXPECT_EQ(e.attributes, expected) << e.name;
        }
    }

    WIN32_FIND_DATAA data;
    HANDLE search = FindFirstFileA((dir / "a.txt").c_str(), &data); // a plain name finds itself
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(data.cFileName, "a.txt");
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_EQ(data.nFileSizeHigh, 0u);
    EXPECT_NE(data.ftLastWriteTime.dwHighDateTime, 0u);
    EXPECT_FALSE(FindNextFileA(search, &data));
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    FindClose(search);
}

TEST(PlatformFind, WildcardsAndMisses) {
    zoth_test::TempDir dir;
    for (const char* name : {"a.txt", "B.TXT", "a.txt.bak", "abc", "ab", "x.log"})
        std::ofstream(dir / name) << "";

    EXPECT_EQ(Names(Walk(dir / "*.txt")), (std::set<std::string>{"a.txt", "B.TXT"})); // any ASCII case
    EXPECT_EQ(Names(Walk(dir / "a?c")), (std::set<std::string>{"abc"}));
    EXPECT_EQ(Names(Walk(dir / "a*")), (std::set<std::string>{"a.txt", "a.txt.bak", "abc", "ab"}));
    EXPECT_EQ(Names(Walk(dir / "ab.*")), (std::set<std::string>{"ab"})); // ".*" takes a name without a dot
    EXPECT_EQ(Names(Walk(dir / "*")).size(), 8u);                        // six files and the dots

    WIN32_FIND_DATAA data;
    EXPECT_EQ(FindFirstFileA((dir / "*.none").c_str(), &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(FindFirstFileA((dir / "missing/*.*").c_str(), &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(FindFirstFileA((dir / "a.txt/*.*").c_str(), &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(FindFirstFileA((dir / "nothing").c_str(), &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(FindFirstFileA(nullptr, &data), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(FindNextFileA(nullptr, &data));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(FindClose(INVALID_HANDLE_VALUE));
}

TEST(PlatformFind, LinksAreNoDirectories) {
    zoth_test::TempDir dir, outside;
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "dirlink").c_str()), 0);
    ASSERT_EQ(::symlink((dir / "gone").c_str(), (dir / "dangling").c_str()), 0);
    std::vector<Entry> all = Walk(dir / "*.*");
    EXPECT_EQ(Names(all), (std::set<std::string>{".", "..", "dirlink", "dangling"}));
    for (const Entry& e : all) {
        if (e.name == "dirlink" || e.name == "dangling") {
            EXPECT_FALSE(e.attributes & FILE_ATTRIBUTE_DIRECTORY) << e.name;
            EXPECT_TRUE(e.attributes & FILE_ATTRIBUTE_REPARSE_POINT) << e.name;
        }
    }
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
        if (name == "." || name == "..") continue;
        EXPECT_TRUE(seen.insert(name).second) << "delivered twice: " << name;
        EXPECT_TRUE(DeleteFileA((dir / name).c_str())) << name;
    }
    FindClose(search);
    EXPECT_EQ(seen.size(), static_cast<size_t>(count));
    EXPECT_EQ(Walk(dir / "*.*").size(), 2u); // only the dots remain
}

TEST(PlatformFind, TwoLeadingSeparatorsAreNoRootSearch) {
    WIN32_FIND_DATAA data;
    // What an empty folder name plus "//*.*" gives: refused, never a walk of "/".
    EXPECT_EQ(FindFirstFileA("//*.*", &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_BAD_NETPATH);
    EXPECT_EQ(FindFirstFileA("///*.*", &data), INVALID_HANDLE_VALUE);
    HANDLE search = FindFirstFileA("/*", &data); // one separator is the root, as usual
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(data.cFileName, ".");
    FindClose(search);
}

// The name-and-type search delivers the same entries, in the same order, with the same directory and
// link bits as the full one; only times, sizes and read-only are left out.
TEST(PlatformFind, NameAndTypeSearchAgreesWithTheFullOne) {
    zoth_test::TempDir dir, outside;
    std::ofstream(dir / "a.txt") << "abc";
    std::ofstream(dir / "readonly.txt") << "x";
    ASSERT_EQ(::chmod((dir / "readonly.txt").c_str(), 0444), 0);
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0755), 0);
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "dirlink").c_str()), 0);

    auto walk = [](HANDLE search, WIN32_FIND_DATAA& data) {
        std::vector<Entry> out;
        if (search == INVALID_HANDLE_VALUE) return out;
        do {
            out.push_back({data.cFileName, data.dwFileAttributes});
        } while (FindNextFileA(search, &data));
        FindClose(search);
        return out;
    };
    std::string pattern = dir / "*.*";
    WIN32_FIND_DATAA data;
    std::vector<Entry> full = walk(FindFirstFileA(pattern.c_str(), &data), data);
    std::vector<Entry> quick =
        walk(FindFirstFileExA(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr,
                              FIND_FIRST_EX_LARGE_FETCH | FIND_FIRST_EX_NAME_AND_TYPE),
             data);
    ASSERT_EQ(full.size(), 6u);
    ASSERT_EQ(quick.size(), full.size());
    const DWORD typeBits = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    for (size_t i = 0; i < full.size(); ++i) {
        EXPECT_EQ(quick[i].name, full[i].name);
        EXPECT_EQ(quick[i].attributes & typeBits, full[i].attributes & typeBits) << full[i].name;
        if (full[i].name == "readonly.txt") {
            EXPECT_TRUE(full[i].attributes & FILE_ATTRIBUTE_READONLY);
        }
    }

    EXPECT_EQ(
        FindFirstFileExA(pattern.c_str(), FindExInfoMaxInfoLevel, &data, FindExSearchNameMatch, nullptr, 0),
        INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(FindFirstFileExA(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr, 0x4u),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

// Deleting what a search delivers: DeleteFileA's rules, taken inside the folder the search opened.
// Once the folder's path has been moved away and replaced by a link elsewhere, the deletion still
// lands in the folder being walked, never behind the link.
TEST(PlatformFind, DeleteFoundFileStaysInTheSearchedFolder) {
    zoth_test::TempDir root;
    std::string walked = root / "walked", moved = root / "moved", elsewhere = root / "elsewhere";
    ASSERT_EQ(::mkdir(walked.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(elsewhere.c_str(), 0755), 0);
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
        if (name == "." || name == "..") continue;
        if (DeleteFoundFileA(search, (walked + "/" + name).c_str(), data.cFileName))
            deleted.insert(name);
        else
            refused.insert(name + ":" + std::to_string(GetLastError()));
    }
    EXPECT_EQ(deleted, (std::set<std::string>{"a.txt", "b.txt"}));
    EXPECT_EQ(refused, (std::set<std::string>{"readonly.txt:" + std::to_string(ERROR_ACCESS_DENIED),
                                              "sub:" + std::to_string(ERROR_ACCESS_DENIED)}));
    EXPECT_EQ(Names(Walk(moved + "/*.*")), (std::set<std::string>{".", "..", "readonly.txt", "sub"}));
    EXPECT_EQ(Names(Walk(elsewhere + "/*.*")), (std::set<std::string>{".", "..", "a.txt", "b.txt"}));

    // A name that is no plain entry goes by the full path; a handle that is no search is refused.
    std::ofstream(elsewhere + "/c.txt") << "";
    EXPECT_TRUE(DeleteFoundFileA(search, (elsewhere + "/c.txt").c_str(), "../elsewhere/c.txt"));
    EXPECT_FALSE(::access((elsewhere + "/c.txt").c_str(), F_OK) == 0);
    EXPECT_TRUE(FindClose(search));
    EXPECT_FALSE(DeleteFoundFileA(INVALID_HANDLE_VALUE, (elsewhere + "/a.txt").c_str(), "a.txt"));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(::access((elsewhere + "/a.txt").c_str(), F_OK), 0);
}
