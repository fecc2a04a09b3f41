// The layer's calls for big files and for putting a file in another's place: 64-bit sizes, unique
// temporary names, the final path of a handle, replacing and renaming.
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string Slurp(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

void Spit(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

mode_t Mode(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

HANDLE OpenRead(const std::string& path) {
    return CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

} // namespace

TEST(PlatformFileBig, SizeExTempNamesAndFinalPaths) {
    zoth_test::TempDir dir;
    // A sparse file past 4 GiB: the whole size, where GetFileSize gives the low part.
    const std::string big = dir / "big";
    int fd = ::open(big.c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, (off_t{5} << 30) + 7), 0);
    ::close(fd);
    HANDLE file = OpenRead(big);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    LARGE_INTEGER size = {};
    EXPECT_TRUE(GetFileSizeEx(file, &size));
    EXPECT_EQ(size.QuadPart, (LONGLONG{5} << 30) + 7);
    DWORD high = 0;
    EXPECT_EQ(GetFileSize(file, &high), (1u << 30) + 7);
    EXPECT_EQ(high, 1u);
    EXPECT_FAILS_WITH(GetFileSizeEx(file, nullptr), FALSE, ERROR_INVALID_PARAMETER);
    CloseHandle(file);

    // Temporary names: new, distinct, writable files in the folder, three characters of the prefix.
    char first[MAX_PATH + 1] = {}, second[MAX_PATH + 1] = {};
    EXPECT_NE(GetTempFileNameA(dir.Path().c_str(), "abcdef", 0, first), 0u);
    EXPECT_NE(GetTempFileNameA(dir.Path().c_str(), "abcdef", 0, second), 0u);
    EXPECT_STRNE(first, second);
    const std::string name = first;
    EXPECT_EQ(name.substr(0, dir.Path().size() + 4), dir.Path() + "/abc");
    EXPECT_EQ(name.size(), dir.Path().size() + 1 + 3 + 8 + 4);
    EXPECT_EQ(name.substr(name.size() - 4), ".TMP");
    EXPECT_EQ(Slurp(name), "");
    HANDLE temp =
        CreateFileA(first, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(temp, INVALID_HANDLE_VALUE);
    CloseHandle(temp);
    char none[MAX_PATH + 1] = {};
    EXPECT_FAILS_WITH(GetTempFileNameA((dir / "missing").c_str(), "x", 0, none), 0u, ERROR_PATH_NOT_FOUND);
    EXPECT_FAILS_WITH(GetTempFileNameA(dir.Path().c_str(), "x", 7, none), 0u, ERROR_INVALID_PARAMETER);

    // The final path of a handle opened through a link names the file itself; a short buffer gets
    // the size it needs and nothing else.
    ASSERT_EQ(::symlink("big", (dir / "link").c_str()), 0);
    file = OpenRead(dir / "link");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    char path[MAX_PATH + 1] = {};
    const std::string expected = std::string(::realpath(big.c_str(), path));
    std::fill(path, path + sizeof path, 'x');
    EXPECT_EQ(GetFinalPathNameByHandleA(file, path, 4, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS),
              expected.size() + 1);
    EXPECT_EQ(path[0], 'x');
    EXPECT_EQ(GetFinalPathNameByHandleA(file, path, sizeof path, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS),
              expected.size());
    EXPECT_EQ(std::string(path), expected);
    CloseHandle(file);
}

TEST(PlatformFileBig, ReplaceKeepsModeAndRefusesWhatItMayNotReplace) {
    zoth_test::TempDir dir;
    const std::string target = dir / "target", fresh = dir / "fresh", other = dir / "other";
    Spit(target, "old");
    ASSERT_EQ(::chmod(target.c_str(), 0604), 0);
    ASSERT_EQ(::link(target.c_str(), other.c_str()), 0);
    Spit(fresh, "new");
    ASSERT_EQ(::chmod(fresh.c_str(), 0600), 0);
    EXPECT_TRUE(ReplaceFileA(target.c_str(), fresh.c_str(), nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(Slurp(target), "new");
    EXPECT_EQ(Mode(target), 0604u);
    EXPECT_EQ(Slurp(other), "old"); // a hard link keeps the file that was replaced
    EXPECT_EQ(::access(fresh.c_str(), F_OK), -1);

    // Missing, read-only and folder targets: refused, and both sides stay as they were.
    Spit(fresh, "new");
    EXPECT_FAILS_WITH(ReplaceFileA((dir / "none").c_str(), fresh.c_str(), nullptr, 0, nullptr, nullptr),
                      FALSE, ERROR_FILE_NOT_FOUND);
    ASSERT_EQ(::chmod(other.c_str(), 0444), 0);
    EXPECT_FAILS_WITH(ReplaceFileA(other.c_str(), fresh.c_str(), nullptr, 0, nullptr, nullptr), FALSE,
                      ERROR_UNABLE_TO_REMOVE_REPLACED);
    EXPECT_EQ(Slurp(other), "old");
    ASSERT_EQ(::mkdir((dir / "folder").c_str(), 0755), 0);
    EXPECT_FAILS_WITH(ReplaceFileA((dir / "folder").c_str(), fresh.c_str(), nullptr, 0, nullptr, nullptr),
                      FALSE, ERROR_UNABLE_TO_REMOVE_REPLACED);
    EXPECT_EQ(Slurp(fresh), "new");
    EXPECT_FAILS_WITH(ReplaceFileA(target.c_str(), fresh.c_str(), other.c_str(), 0, nullptr, nullptr), FALSE,
                      ERROR_INVALID_PARAMETER);

    // Renames: without MOVEFILE_REPLACE_EXISTING an existing name is kept; with it, replaced.
    EXPECT_FAILS_WITH(MoveFileExA(fresh.c_str(), target.c_str(), 0), FALSE, ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Slurp(target), "new");
    EXPECT_EQ(Slurp(fresh), "new");
    Spit(fresh, "newer");
    EXPECT_TRUE(MoveFileExA(fresh.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(Slurp(target), "newer");
    EXPECT_TRUE(MoveFileExA(target.c_str(), (dir / "moved").c_str(), 0));
    EXPECT_EQ(Slurp(dir / "moved"), "newer");
    EXPECT_EQ(::access(target.c_str(), F_OK), -1);
    EXPECT_FAILS_WITH(MoveFileExA((dir / "moved").c_str(), target.c_str(), 0x8), FALSE,
                      ERROR_INVALID_PARAMETER);
}
