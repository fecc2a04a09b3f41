// The layer's file calls against real files: dispositions, positions, sizes, times, copies, deletion.
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

HANDLE Open(const std::string& path, DWORD disposition, DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

uint64_t Ticks(const FILETIME& t) {
    return (static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

} // namespace

TEST(PlatformFile, CreationDispositions) {
    zoth_test::TempDir dir;
    std::string path = dir / "f";

    EXPECT_EQ(Open(path, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(path, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(Exists(path));

    HANDLE h = Open(path, CREATE_NEW);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD n = 0;
    EXPECT_TRUE(WriteFile(h, "hello", 5, &n, nullptr));
    EXPECT_EQ(n, 5u);
    EXPECT_TRUE(CloseHandle(h));

    EXPECT_EQ(Open(path, CREATE_NEW), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);

    h = Open(path, OPEN_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(GetFileSize(h, nullptr), 5u);
    CloseHandle(h);

    h = Open(path, TRUNCATE_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u);
    CloseHandle(h);

    // TRUNCATE_EXISTING needs write access; an unknown disposition is a bad parameter.
    EXPECT_EQ(Open(path, TRUNCATE_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Open(path, 0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(Open(path, 6), INVALID_HANDLE_VALUE);

    // A missing parent folder.
    EXPECT_EQ(Open(dir / "a/b", CREATE_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(Exists(dir / "a"));
}

TEST(PlatformFile, ReadWriteSeekAndSize) {
    zoth_test::TempDir dir;
    std::string path = dir / "f";
    HANDLE h = Open(path, CREATE_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(WriteFile(h, "0123456789", 10, nullptr, nullptr));

    EXPECT_EQ(SetFilePointer(h, 2, nullptr, FILE_BEGIN), 2u);
    char buf[16] = {};
    DWORD n = 0;
    EXPECT_TRUE(ReadFile(h, buf, 3, &n, nullptr));
    EXPECT_EQ(std::string(buf, n), "234");
    EXPECT_EQ(SetFilePointer(h, -1, nullptr, FILE_CURRENT), 4u);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_END), 10u);
    // Reading at the end succeeds with 0 bytes.
    EXPECT_TRUE(ReadFile(h, buf, sizeof buf, &n, nullptr));
    EXPECT_EQ(n, 0u);
    // A position before the start fails and keeps the old one.
    EXPECT_EQ(SetFilePointer(h, -20, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_NEGATIVE_SEEK);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 10u);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, 7), INVALID_SET_FILE_POINTER);

    // A 64-bit position: 5 GiB + 3 past the start (a sparse file).
    LONG high = 1;
    EXPECT_EQ(SetFilePointer(h, 0x40000003, &high, FILE_BEGIN), 0x40000003u);
    EXPECT_EQ(high, 1);
    EXPECT_TRUE(WriteFile(h, "z", 1, &n, nullptr));
    DWORD sizeHigh = 0;
    EXPECT_EQ(GetFileSize(h, &sizeHigh), 0x40000004u);
    EXPECT_EQ(sizeHigh, 1u);
    EXPECT_EQ(GetFileSize(h, nullptr), 0x40000004u); // the low part alone
    CloseHandle(h);

    // Invalid handles everywhere.
    EXPECT_FALSE(ReadFile(nullptr, buf, 1, &n, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(WriteFile(INVALID_HANDLE_VALUE, "x", 1, &n, nullptr));
    EXPECT_EQ(GetFileSize(nullptr, nullptr), INVALID_FILE_SIZE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(SetFilePointer(nullptr, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
}

TEST(PlatformFile, ReadOnlyFilesAndReadAccess) {
    zoth_test::TempDir dir;
    std::string path = dir / "ro";
    HANDLE h =
        CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_READONLY, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(WriteFile(h, "abc", 3, nullptr, nullptr)); // the creating handle may still write
    CloseHandle(h);
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0222, 0u);

    EXPECT_EQ(Open(path, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(path, OPEN_ALWAYS, GENERIC_WRITE), INVALID_HANDLE_VALUE);
    h = Open(path, OPEN_EXISTING, GENERIC_READ);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    char buf[4] = {};
    DWORD n = 0;
    EXPECT_TRUE(ReadFile(h, buf, 4, &n, nullptr));
    EXPECT_EQ(std::string(buf, n), "abc");
    // A handle without write access cannot write.
    EXPECT_FALSE(WriteFile(h, "x", 1, &n, nullptr));
    CloseHandle(h);
    EXPECT_FALSE(DeleteFileA(path.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(Exists(path));
}

TEST(PlatformFile, DirectoriesOpenOnlyWithBackupSemantics) {
    zoth_test::TempDir dir;
    EXPECT_EQ(
        CreateFileA(dir.Path().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr),
        INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    HANDLE h = CreateFileA(dir.Path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    FILETIME c{}, a{}, w{};
    EXPECT_TRUE(GetFileTime(h, &c, &a, &w));
    EXPECT_GT(Ticks(w), 0u);
    char buf[4];
    DWORD n = 0;
    EXPECT_FALSE(ReadFile(h, buf, 4, &n, nullptr));
    CloseHandle(h);
}

TEST(PlatformFile, TimesFollowTheFile) {
    zoth_test::TempDir dir;
    std::string path = dir / "t";
    HANDLE h = Open(path, CREATE_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    CloseHandle(h);
    // Write time 2001-09-09 01:46:40 UTC (10^9 s), access time 2 days later.
    struct timespec times[2] = {{1000000000 + 172800, 0}, {1000000000, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    h = Open(path, OPEN_EXISTING, GENERIC_READ);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    FILETIME c{}, a{}, w{};
    EXPECT_TRUE(GetFileTime(h, &c, &a, &w));
    const uint64_t epoch = 116444736000000000ULL; // 1970-01-01 in ticks
    EXPECT_EQ(Ticks(w), epoch + 10000000ULL * 1000000000ULL + 5000000ULL);
    EXPECT_EQ(Ticks(a), epoch + 10000000ULL * (1000000000ULL + 172800ULL));
    EXPECT_GT(Ticks(c), epoch + 10000000ULL * 1700000000ULL); // created just now
    EXPECT_TRUE(GetFileTime(h, nullptr, nullptr, nullptr));
    CloseHandle(h);
    EXPECT_FALSE(GetFileTime(nullptr, &c, &a, &w));
}

TEST(PlatformFile, LocalFileTimeUsesTheZoneOffset) {
    const char* saved = getenv("TZ");
    std::string savedValue = saved ? saved : "";
    FILETIME utc{}, local{};
    uint64_t ticks = 116444736000000000ULL + 10000000ULL * 1000000000ULL; // 2001-09-09 01:46:40 UTC
    utc.dwLowDateTime = static_cast<DWORD>(ticks);
    utc.dwHighDateTime = static_cast<DWORD>(ticks >> 32);

    setenv("TZ", "UTC0", 1);
    tzset();
    ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
    EXPECT_EQ(Ticks(local), ticks);
    // Central Europe in September: summer time, two hours ahead; in January one hour.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
    EXPECT_EQ(Ticks(local), ticks + 2 * 3600 * 10000000ULL);
    uint64_t january = ticks - 240ULL * 86400 * 10000000ULL;
    utc.dwLowDateTime = static_cast<DWORD>(january);
    utc.dwHighDateTime = static_cast<DWORD>(january >> 32);
    ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
    EXPECT_EQ(Ticks(local), january + 3600 * 10000000ULL);
    EXPECT_FALSE(FileTimeToLocalFileTime(nullptr, &local));
    utc.dwHighDateTime = 0xFFFFFFFFu;
    EXPECT_FALSE(FileTimeToLocalFileTime(&utc, &local));

    if (saved)
        setenv("TZ", savedValue.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(PlatformFile, CopyKeepsModeAndRespectsFailIfExists) {
    zoth_test::TempDir dir;
    std::string src = dir / "src", dst = dir / "dst";
    std::string content(200000, 'c');
    content[5] = '\0';
    HANDLE h = Open(src, CREATE_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    WriteFile(h, content.data(), static_cast<DWORD>(content.size()), nullptr, nullptr);
    CloseHandle(h);
    ASSERT_EQ(::chmod(src.c_str(), 0640), 0);

    EXPECT_TRUE(CopyFileA(src.c_str(), dst.c_str(), TRUE));
    EXPECT_EQ(Slurp(dst), content);
    struct stat a, b;
    ASSERT_EQ(::stat(src.c_str(), &a), 0);
    ASSERT_EQ(::stat(dst.c_str(), &b), 0);
    EXPECT_EQ(b.st_mode & 07777, 0640u);
    EXPECT_EQ(b.st_mtim.tv_sec, a.st_mtim.tv_sec);

    EXPECT_FALSE(CopyFileA(src.c_str(), dst.c_str(), TRUE));
    EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);
    std::ofstream(dst, std::ios::trunc) << "short";
    EXPECT_TRUE(CopyFileA(src.c_str(), dst.c_str(), FALSE));
    EXPECT_EQ(Slurp(dst), content);
    EXPECT_FALSE(CopyFileA(src.c_str(), src.c_str(), FALSE)); // never empties the source
    EXPECT_EQ(Slurp(src), content);

    // A read-only source gives a read-only copy, which cannot be overwritten afterwards.
    ASSERT_EQ(::chmod(src.c_str(), 0444), 0);
    std::string ro = dir / "ro";
    EXPECT_TRUE(CopyFileA(src.c_str(), ro.c_str(), TRUE));
    ASSERT_EQ(::stat(ro.c_str(), &b), 0);
    EXPECT_EQ(b.st_mode & 07777, 0444u);
    EXPECT_FALSE(CopyFileA(dst.c_str(), ro.c_str(), FALSE));

    // Missing source, a folder as source, a missing target folder: nothing appears.
    EXPECT_FALSE(CopyFileA((dir / "none").c_str(), (dir / "x").c_str(), TRUE));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(CopyFileA(dir.Path().c_str(), (dir / "x").c_str(), TRUE));
    EXPECT_FALSE(CopyFileA(src.c_str(), (dir / "no/x").c_str(), TRUE));
    EXPECT_FALSE(Exists(dir / "x"));
}

TEST(PlatformFile, DeleteAndDirectories) {
    zoth_test::TempDir dir;
    std::string sub = dir / "sub";
    EXPECT_TRUE(CreateDirectoryA(sub.c_str(), nullptr));
    EXPECT_FALSE(CreateDirectoryA(sub.c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(CreateDirectoryA((dir / "a/b").c_str(), nullptr)); // one level only
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(Exists(dir / "a"));

    // Wide names are UTF-16 units, stored as UTF-8.
    std::wstring wide;
    for (char c : dir.Path())
        wide += static_cast<wchar_t>(c);
    wide += L"/\x00e9t\x00e9-\xd83d\xde00";
    EXPECT_TRUE(CreateDirectoryW(wide.c_str(), nullptr));
    EXPECT_TRUE(Exists(dir / "\xc3\xa9t\xc3\xa9-\xf0\x9f\x98\x80"));
    std::wstring lone = std::wstring(wide.begin(), wide.end() - 1); // ends in a lone high surrogate
    EXPECT_FALSE(CreateDirectoryW(lone.c_str(), nullptr));

    std::ofstream(sub + "/f") << "x";
    EXPECT_FALSE(RemoveDirectoryA(sub.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_DIR_NOT_EMPTY);
    EXPECT_FALSE(DeleteFileA(sub.c_str())); // a folder is no file
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(RemoveDirectoryA((sub + "/f").c_str())); // a file is no folder
    EXPECT_TRUE(DeleteFileA((sub + "/f").c_str()));
    EXPECT_FALSE(DeleteFileA((sub + "/f").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(RemoveDirectoryA(sub.c_str()));
    EXPECT_FALSE(Exists(sub));

    // A link to a folder is deleted as a file, and its target stays.
    std::string target = dir / "target";
    ASSERT_TRUE(CreateDirectoryA(target.c_str(), nullptr));
    std::ofstream(target + "/keep") << "k";
    ASSERT_EQ(::symlink(target.c_str(), (dir / "link").c_str()), 0);
    EXPECT_FALSE(RemoveDirectoryA((dir / "link").c_str()));
    EXPECT_TRUE(DeleteFileA((dir / "link").c_str()));
    EXPECT_FALSE(Exists(dir / "link"));
    EXPECT_TRUE(Exists(target + "/keep"));
}

TEST(PlatformFile, SystemBuffersAreZeroedAndReleased) {
    for (SIZE_T size : {SIZE_T(1), SIZE_T(4096), SIZE_T(5) << 20}) {
        auto* bytes = static_cast<unsigned char*>(
            VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(bytes[0], 0);
        EXPECT_EQ(bytes[size - 1], 0);
        bytes[size - 1] = 0xAB; // writable to the last byte
        EXPECT_TRUE(VirtualFree(bytes, 0, MEM_RELEASE));
    }
    EXPECT_EQ(VirtualAlloc(nullptr, 0, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE), nullptr);
    EXPECT_EQ(VirtualAlloc(nullptr, 16, MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(VirtualFree(nullptr, 0, MEM_RELEASE));
}

TEST(PlatformFile, PipesAreRefusedNotWaitedOn) {
    zoth_test::TempDir dir;
    std::string fifo = dir / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    // Each of these would block for ever if the layer opened the pipe the ordinary way.
    EXPECT_EQ(Open(fifo, OPEN_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(fifo, OPEN_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(CopyFileA(fifo.c_str(), (dir / "copy").c_str(), TRUE));
    EXPECT_FALSE(Exists(dir / "copy"));
}
