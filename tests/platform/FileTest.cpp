// The layer's file calls on real files: dispositions, positions, sizes, times, copies, deletion.
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

std::string Slurp(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

mode_t Mode(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

HANDLE Open(const std::string& path, DWORD disposition, DWORD access = GENERIC_READ | GENERIC_WRITE,
            DWORD flags = FILE_ATTRIBUTE_NORMAL) {
    return CreateFileA(path.c_str(), access, FILE_SHARE_READ, nullptr, disposition, flags, nullptr);
}

using zoth_test::kTicksPerSecond;
using zoth_test::kUnixEpochTicks;
using zoth_test::Ticks;

} // namespace

TEST(PlatformFile, CreationDispositions) {
    zoth_test::TempDir dir;
    std::string path = dir / "f";
    for (DWORD missing : {DWORD(OPEN_EXISTING), DWORD(TRUNCATE_EXISTING)})
        EXPECT_FAILS_WITH(Open(path, missing), INVALID_HANDLE_VALUE, ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(Exists(path));
    HANDLE h = Open(path, CREATE_NEW);
    DWORD n = 0;
    EXPECT_TRUE(WriteFile(h, "hello", 5, &n, nullptr));
    EXPECT_EQ(n, 5u);
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_FAILS_WITH(Open(path, CREATE_NEW), INVALID_HANDLE_VALUE, ERROR_FILE_EXISTS);
    h = Open(path, OPEN_ALWAYS);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(GetFileSize(h, nullptr), 5u);
    CloseHandle(h);
    h = Open(path, TRUNCATE_EXISTING);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u);
    CloseHandle(h);
    // TRUNCATE_EXISTING needs write access; unknown dispositions and a missing parent fail.
    EXPECT_FAILS_WITH(Open(path, TRUNCATE_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE,
                      ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Open(path, 0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(path, 6), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(dir / "a/b", CREATE_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(Exists(dir / "a"));
}

TEST(PlatformFile, ReadWriteSeekAndSize) {
    zoth_test::TempDir dir;
    HANDLE h = Open(dir / "f", CREATE_ALWAYS);
    ASSERT_TRUE(WriteFile(h, "0123456789", 10, nullptr, nullptr));
    EXPECT_EQ(SetFilePointer(h, 2, nullptr, FILE_BEGIN), 2u);
    char buf[16] = {};
    DWORD n = 0;
    EXPECT_TRUE(ReadFile(h, buf, 3, &n, nullptr));
    EXPECT_EQ(std::string(buf, n), "234");
    EXPECT_EQ(SetFilePointer(h, -1, nullptr, FILE_CURRENT), 4u);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_END), 10u);
    EXPECT_TRUE(ReadFile(h, buf, sizeof buf, &n, nullptr)); // at the end: success with 0 bytes
    EXPECT_EQ(n, 0u);
    // A position before the start fails and keeps the old one.
    EXPECT_FAILS_WITH(SetFilePointer(h, -20, nullptr, FILE_END), INVALID_SET_FILE_POINTER,
                      ERROR_NEGATIVE_SEEK);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 10u);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, 7), INVALID_SET_FILE_POINTER);
    // 5 GiB + 3 (a sparse file): the high parts carry the rest, GetFileSize gives the low 32 bits.
    LONG high = 1;
    EXPECT_EQ(SetFilePointer(h, 0x40000003, &high, FILE_BEGIN), 0x40000003u);
    EXPECT_EQ(high, 1);
    EXPECT_TRUE(WriteFile(h, "z", 1, &n, nullptr));
    DWORD sizeHigh = 0;
    EXPECT_EQ(GetFileSize(h, &sizeHigh), 0x40000004u);
    EXPECT_EQ(sizeHigh, 1u);
    CloseHandle(h);
    EXPECT_FAILS_WITH(ReadFile(nullptr, buf, 1, &n, nullptr), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(GetFileSize(nullptr, nullptr), INVALID_FILE_SIZE, ERROR_INVALID_HANDLE);
}

// A file nobody may write refuses write access and deletion whoever asks, root included.
TEST(PlatformFile, ReadOnlyFilesRefuseWritingAndDeletion) {
    zoth_test::TempDir dir;
    std::string path = dir / "ro";
    HANDLE h = Open(path, CREATE_NEW, GENERIC_WRITE, FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(WriteFile(h, "abc", 3, nullptr, nullptr)); // the creating handle may still write
    CloseHandle(h);
    EXPECT_EQ(Mode(path) & 0222, 0u);
    EXPECT_FAILS_WITH(Open(path, OPEN_EXISTING), INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(path, OPEN_ALWAYS, GENERIC_WRITE), INVALID_HANDLE_VALUE);
    h = Open(path, OPEN_EXISTING, GENERIC_READ);
    char buf[4] = {};
    DWORD n = 0;
    EXPECT_TRUE(ReadFile(h, buf, 4, &n, nullptr));
    EXPECT_EQ(std::string(buf, n), "abc");
    EXPECT_FALSE(WriteFile(h, "x", 1, &n, nullptr)); // a handle without write access
    CloseHandle(h);
    EXPECT_FAILS_WITH(DeleteFileA(path.c_str()), FALSE, ERROR_ACCESS_DENIED);
    EXPECT_TRUE(Exists(path));
}

TEST(PlatformFile, TimesOfFilesAndOfFoldersOpenedWithBackupSemantics) {
    zoth_test::TempDir dir;
    std::string path = dir / "t";
    CloseHandle(Open(path, CREATE_ALWAYS));
    // Write time 10^9.5 s after 1970, access time 2 days later.
    struct timespec times[2] = {{1000000000 + 172800, 0}, {1000000000, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    HANDLE h = Open(path, OPEN_EXISTING, GENERIC_READ);
    FILETIME c{}, a{}, w{};
    auto unix = [](uint64_t seconds) { return kUnixEpochTicks + seconds * kTicksPerSecond; };
    EXPECT_TRUE(GetFileTime(h, &c, &a, &w));
    EXPECT_EQ(Ticks(w), unix(1000000000) + kTicksPerSecond / 2);
    EXPECT_EQ(Ticks(a), unix(1000000000 + 172800));
    EXPECT_GT(Ticks(c), unix(1700000000)); // created just now
    CloseHandle(h);
    EXPECT_FALSE(GetFileTime(nullptr, &c, &a, &w));
    EXPECT_FAILS_WITH(Open(dir.Path(), OPEN_EXISTING, GENERIC_READ, 0), INVALID_HANDLE_VALUE,
                      ERROR_ACCESS_DENIED);
    h = Open(dir.Path(), OPEN_EXISTING, GENERIC_READ, FILE_FLAG_BACKUP_SEMANTICS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(GetFileTime(h, nullptr, nullptr, &w));
    EXPECT_GT(Ticks(w), unix(1700000000));
    EXPECT_FALSE(ReadFile(h, &c, 1, nullptr, nullptr));
    CloseHandle(h);
}

TEST(PlatformFile, CopyKeepsModeAndRespectsFailIfExists) {
    zoth_test::TempDir dir;
    std::string src = dir / "src", dst = dir / "dst", ro = dir / "ro";
    std::string content(200000, 'c');
    content[5] = '\0';
    std::ofstream(src, std::ios::binary) << content;
    ASSERT_EQ(::chmod(src.c_str(), 0640), 0);
    EXPECT_TRUE(CopyFileA(src.c_str(), dst.c_str(), TRUE));
    EXPECT_EQ(Slurp(dst), content);
    EXPECT_EQ(Mode(dst), 0640u);
    struct stat a, b;
    ASSERT_EQ(::stat(src.c_str(), &a) | ::stat(dst.c_str(), &b), 0);
    EXPECT_EQ(b.st_mtim.tv_sec, a.st_mtim.tv_sec);
    EXPECT_FAILS_WITH(CopyFileA(src.c_str(), dst.c_str(), TRUE), FALSE, ERROR_FILE_EXISTS);
    std::ofstream(dst, std::ios::trunc) << "short";
    EXPECT_TRUE(CopyFileA(src.c_str(), dst.c_str(), FALSE));
    EXPECT_EQ(Slurp(dst), content);
    EXPECT_FALSE(CopyFileA(src.c_str(), src.c_str(), FALSE)); // never empties the source
    EXPECT_EQ(Slurp(src), content);
    // A read-only source gives a read-only copy, which cannot be overwritten afterwards.
    ASSERT_EQ(::chmod(src.c_str(), 0444), 0);
    EXPECT_TRUE(CopyFileA(src.c_str(), ro.c_str(), TRUE));
    EXPECT_EQ(Mode(ro), 0444u);
    EXPECT_FALSE(CopyFileA(dst.c_str(), ro.c_str(), FALSE));
    // Missing source, a folder as source, a missing target folder: nothing appears.
    EXPECT_FAILS_WITH(CopyFileA((dir / "none").c_str(), (dir / "x").c_str(), TRUE), FALSE,
                      ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(CopyFileA(dir.Path().c_str(), (dir / "x").c_str(), TRUE));
    EXPECT_FALSE(CopyFileA(src.c_str(), (dir / "no/x").c_str(), TRUE));
    EXPECT_FALSE(Exists(dir / "x"));
}

TEST(PlatformFile, DeleteAndDirectories) {
    zoth_test::TempDir dir, outside;
    std::string sub = dir / "sub";
    EXPECT_TRUE(CreateDirectoryA(sub.c_str(), nullptr));
    EXPECT_FAILS_WITH(CreateDirectoryA(sub.c_str(), nullptr), FALSE, ERROR_ALREADY_EXISTS);
    EXPECT_FAILS_WITH(CreateDirectoryA((dir / "a/b").c_str(), nullptr), FALSE, ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(Exists(dir / "a")); // two missing levels: none created
    // Wide names are UTF-16 units, stored as UTF-8; a lone surrogate is refused.
    std::wstring wide = std::wstring(dir.Path().begin(), dir.Path().end()) + L"/\x00e9t\x00e9-\xd83d\xde00";
    EXPECT_TRUE(CreateDirectoryW(wide.c_str(), nullptr));
    EXPECT_TRUE(Exists(dir / "\xc3\xa9t\xc3\xa9-\xf0\x9f\x98\x80"));
    EXPECT_FALSE(CreateDirectoryW(wide.substr(0, wide.size() - 1).c_str(), nullptr));

    std::ofstream(sub + "/f") << "x";
    EXPECT_FAILS_WITH(RemoveDirectoryA(sub.c_str()), FALSE, ERROR_DIR_NOT_EMPTY);
    EXPECT_FAILS_WITH(DeleteFileA(sub.c_str()), FALSE, ERROR_ACCESS_DENIED); // a folder is no file
    EXPECT_FALSE(RemoveDirectoryA((sub + "/f").c_str()));                    // a file is no folder
    EXPECT_TRUE(DeleteFileA((sub + "/f").c_str()));
    EXPECT_FAILS_WITH(DeleteFileA((sub + "/f").c_str()), FALSE, ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(RemoveDirectoryA(sub.c_str()));
    EXPECT_FALSE(Exists(sub));
    // A link to a folder outside is deleted as a file, and the folder and its files stay.
    std::ofstream(outside / "keep") << "k";
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "link").c_str()), 0);
    EXPECT_FALSE(RemoveDirectoryA((dir / "link").c_str()));
    EXPECT_TRUE(DeleteFileA((dir / "link").c_str()));
    EXPECT_FALSE(Exists(dir / "link"));
    EXPECT_TRUE(Exists(outside / "keep"));
}

// Whole-file reads rely on zeroed buffers, writable to the last byte.
TEST(PlatformFile, SystemBuffersAreZeroedAndReleased) {
    for (SIZE_T size : {SIZE_T(1), SIZE_T(4096), SIZE_T(5) << 20}) {
        auto* bytes =
            static_cast<char*>(VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(bytes[0] | bytes[size - 1], 0) << size;
        bytes[size - 1] = 'x';
        EXPECT_TRUE(VirtualFree(bytes, 0, MEM_RELEASE));
    }
    EXPECT_EQ(VirtualAlloc(nullptr, 0, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE), nullptr);
    EXPECT_FAILS_WITH(VirtualAlloc(nullptr, 16, MEM_COMMIT, PAGE_READWRITE), nullptr,
                      ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(VirtualFree(nullptr, 0, MEM_RELEASE));
}

// Each of these would block for ever if the layer opened the pipe the ordinary way.
TEST(PlatformFile, PipesAreRefusedNotWaitedOn) {
    zoth_test::TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0666), 0);
    EXPECT_FAILS_WITH(Open(dir / "pipe", OPEN_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE,
                      ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(dir / "pipe", OPEN_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(CopyFileA((dir / "pipe").c_str(), (dir / "copy").c_str(), TRUE));
    EXPECT_FALSE(Exists(dir / "copy"));
}
