// CFileHepler on real files in temporary folders: content, size and digest (with the temporary-copy
// road), times and version numbers of PE images the tests build.
#include "FileTestUtil.h"
#include "PeBuilder.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <vector>

using ZOTH::CFileHepler;
using zoth_test::Exists;
using zoth_test::Md5sumOf;
using zoth_test::Slurp;
using zoth_test::Spit;
using std::string_literals::operator""s;

TEST(FileWrite, DispositionsAppendsAndNulBytes) {
    zoth_test::TempDir dir;
    std::string path = dir / "out.bin";
    // Each write lands behind what the file holds after its open (the dispositions are the platform's
    // and tested there); a null content: the file is still missing.
    const struct {
        const char *data, *content;
        unsigned int disposition;
        int result;
    } steps[] = {
        {"x", nullptr, OPEN_EXISTING, 0},          {"first", "first", OPEN_ALWAYS, 1},
        {"second", "firstsecond", OPEN_ALWAYS, 1}, {"+", "firstsecond+", OPEN_EXISTING, 1},
        {"again", "again", CREATE_ALWAYS, 1},      {"", "", CREATE_ALWAYS, 1},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(std::string(s.data) + " with disposition " + std::to_string(s.disposition));
        EXPECT_EQ(CFileHepler::WriteDataToFile(std::string(s.data), path, s.disposition), s.result);
        EXPECT_EQ(Exists(path), s.content != nullptr);
        EXPECT_EQ(Slurp(path), s.content ? s.content : "");
    }
    // NUL bytes are written like any other; the pointer form writes `length` bytes, none for a
    // negative length (without even truncating) or a null pointer.
    EXPECT_EQ(CFileHepler::WriteDataToFile("a\0b\0\0c"s, path, CREATE_ALWAYS), 1);
    char raw[] = {'\0', 'x', '\0', 'y'};
    EXPECT_EQ(CFileHepler::WriteDataToFile(raw, 3, path, OPEN_ALWAYS), 1);
    EXPECT_EQ(CFileHepler::WriteDataToFile(raw, -1, path, CREATE_ALWAYS), 0);
    EXPECT_EQ(CFileHepler::WriteDataToFile(nullptr, 4, path, OPEN_ALWAYS), 0);
    EXPECT_EQ(Slurp(path), "a\0b\0\0c\0x\0"s);

    // A missing parent folder, a folder as target, and a file nobody may write (whoever the caller).
    EXPECT_EQ(CFileHepler::WriteDataToFile("x"s, dir / "no/such/file", CREATE_ALWAYS), 0);
    EXPECT_EQ(CFileHepler::WriteDataToFile("x"s, dir.Path(), OPEN_ALWAYS), 0);
    if (!zoth_test::ReadOnlyRefusesWrites()) return; // Wine run by root writes read-only files
    ASSERT_TRUE(zoth_test::SetReadOnly(path));
    EXPECT_EQ(CFileHepler::WriteDataToFile("x"s, path, OPEN_ALWAYS), 0);
    EXPECT_EQ(CFileHepler::WriteDataToFile("x"s, path, CREATE_ALWAYS), 0);
    EXPECT_EQ(Slurp(path), "a\0b\0\0c\0x\0"s);
}

TEST(FileRead, WholeFilesMissingPathsAndFailures) {
    zoth_test::TempDir dir;
    std::string data = "untouched";
    // A missing path reads as empty, and an empty file now exists there.
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir / "missing", data), 1);
    EXPECT_EQ(data, "");
    EXPECT_TRUE(Exists(dir / "missing"));
    // NUL bytes, and a file of several MiB, come back whole in one call.
    std::string big(3 * 1024 * 1024 + 7, 'q');
    big.replace(0, 8, "\0\x01\xff\0tail"s);
    Spit(dir / "big.bin", big);
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir / "big.bin", data), 1);
    EXPECT_EQ(data, big);

    // Failures leave `data` as it was: a folder, a missing parent, a read-only file.
    data = "before";
    Spit(dir / "ro.txt", "ro");
    ASSERT_TRUE(zoth_test::SetReadOnly(dir / "ro.txt"));
    for (const std::string& p : {dir.Path(), dir / "no/such/file", dir / "ro.txt"}) {
        if (p == dir / "ro.txt" && !zoth_test::ReadOnlyRefusesWrites()) continue; // Wine run by root
        EXPECT_EQ(CFileHepler::ReadDataByFilePath(p, data), 0) << p;
    }
    EXPECT_EQ(data, "before");
}

TEST(FileSizeDigest, OrdinaryAndMissingFiles) {
    zoth_test::TempDir dir;
    std::string path = dir / "data.bin", bytes = "abc\0def\0\0"s + std::string(100000, '\x7f');
    Spit(path, bytes);
    EXPECT_EQ(CFileHepler::GetFileSize(path, ""), bytes.size());
    EXPECT_EQ(CFileHepler::GetFileMd5(path, ""), Md5sumOf(path)); // every byte, NULs included
    Spit(dir / "abc", "abc");
    EXPECT_EQ(CFileHepler::GetFileMd5(dir / "abc", ""), "900150983cd24fb0d6963f7d28e17f72");

    // Missing paths: the read open creates an empty file, of size 0 and the empty digest.
    EXPECT_EQ(CFileHepler::GetFileSize(dir / "missing1", ""), 0u);
    EXPECT_EQ(CFileHepler::GetFileMd5(dir / "missing2", ""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_TRUE(Exists(dir / "missing1") && Exists(dir / "missing2"));
    // A missing folder on the way cannot be created: 0 and "", and no copy is made.
    EXPECT_EQ(CFileHepler::GetFileSize(dir / "no/file", dir / "tmp"), 0u);
    EXPECT_EQ(CFileHepler::GetFileMd5(dir / "no/file", dir / "tmp"), "");
    EXPECT_FALSE(Exists(dir / "tmp"));

    // When the first open works, GetFileSize still deletes whatever lies at the temporary path;
    // GetFileMd5 leaves it alone.
    Spit(dir / "temp", "stale");
    EXPECT_EQ(CFileHepler::GetFileMd5(path, dir / "temp"), Md5sumOf(path));
    EXPECT_TRUE(Exists(dir / "temp"));
    EXPECT_EQ(CFileHepler::GetFileSize(path, dir / "temp"), bytes.size());
    EXPECT_FALSE(Exists(dir / "temp"));
}

TEST(FileSizeDigest, ReadOnlyFileLeavesAReadOnlyCopy) {
    if (!zoth_test::ReadOnlyRefusesWrites())
        GTEST_SKIP() << "read-only files are writable here (Wine run by root)";
    zoth_test::TempDir dir;
    std::string path = dir / "ro.txt", temp = dir / "ro.copy";
    Spit(path, "read only");
    ASSERT_TRUE(zoth_test::SetReadOnly(path));
    EXPECT_EQ(CFileHepler::GetFileMd5(path, ""), "");
    EXPECT_EQ(CFileHepler::GetFileSize(path, ""), 0u);
    // The copy keeps the permission bits (the read-only attribute), so it fails the read open too,
    // and stays behind.
    EXPECT_EQ(CFileHepler::GetFileMd5(path, temp), "");
    EXPECT_TRUE(zoth_test::IsReadOnly(temp));
    // GetFileSize first deletes the old copy, which a read-only file resists, so the copy fails.
    EXPECT_EQ(CFileHepler::GetFileSize(path, temp), 0u);
    EXPECT_TRUE(Exists(temp));
    ASSERT_TRUE(zoth_test::RemoveFile(temp));
    EXPECT_EQ(CFileHepler::GetFileSize(path, temp), 0u);
    EXPECT_TRUE(Exists(temp)); // its own new read-only copy remains
}

// A file the caller may read but not write: another user's file with mode 0644, checked in a child
// process that has dropped root's privileges.
TEST(FileSizeDigest, FileReadableButNotWritableGoesThroughTheCopy) {
    if (zoth_test::kWindows) GTEST_SKIP() << "POSIX users and permission bits";
    if (!zoth_test::IsRoot()) GTEST_SKIP() << "needs root to create a file that the test user cannot write";
    using std::filesystem::perms;
    zoth_test::TempDir dir;
    std::filesystem::permissions(dir.Path(), perms::all); // the unprivileged child writes its copies here
    std::string path = dir / "locked.bin", bytes = "locked\0content"s;
    Spit(path, bytes);
    std::filesystem::permissions(path, perms::owner_read | perms::owner_write | perms::group_read |
                                           perms::others_read);
    const std::string expected = Md5sumOf(path), md5Temp = dir / "md5.copy", sizeTemp = dir / "size.copy";
    EXPECT_EQ(zoth_test::RunUnprivileged([&] {
                  std::string data = "kept";
                  return CFileHepler::ReadDataByFilePath(path, data) == 0 && data == "kept" &&
                         CFileHepler::GetFileMd5(path, "") == "" && CFileHepler::GetFileSize(path, "") == 0 &&
                         CFileHepler::WriteDataToFile("x"s, path, OPEN_ALWAYS) == 0 &&
                         CFileHepler::GetFileMd5(path, md5Temp) == expected &&
                         CFileHepler::GetFileSize(path, sizeTemp) == bytes.size();
              }),
              1);
    EXPECT_EQ(Slurp(md5Temp), bytes); // the digest's copy stays
    EXPECT_FALSE(Exists(sizeTemp));   // the size's copy is gone
    EXPECT_EQ(Slurp(path), bytes);
}

// The digest reads in chunks: sizes around the chunk and block boundaries give md5sum's digest.
TEST(FileSizeDigest, DigestMatchesMd5sumAcrossChunkSizes) {
    zoth_test::TempDir dir;
    std::string bytes(3 * (256 << 10) + 70, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 977) & 0xff);
    for (size_t size :
         {size_t{55}, size_t{64}, size_t{65}, size_t{64 << 10} - 1, size_t{64 << 10}, size_t{(64 << 10) + 1},
          size_t{256 << 10} - 1, size_t{(256 << 10) + 1}, size_t{512 << 10}, bytes.size()}) {
        SCOPED_TRACE(size);
        const std::string path = dir / ("f" + std::to_string(size));
        Spit(path, bytes.substr(0, size));
        EXPECT_EQ(CFileHepler::GetFileMd5(path, ""), Md5sumOf(path));
        EXPECT_EQ(CFileHepler::GetFileSize(path, ""), size);
    }
}

// Sparse files, md5sum and a child process with an address-space limit: these cases are Linux's.
#if !defined(_WIN32)
namespace {

std::string StatSizeOf(const std::string& path) {
    FILE* pipe = ::popen(("stat -c %s '" + path + "'").c_str(), "r");
    if (pipe == nullptr) return "";
    char text[32] = {};
    size_t n = fread(text, 1, sizeof text - 1, pipe);
    ::pclose(pipe);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == ' '))
        --n;
    return std::string(text, n);
}

// A sparse file of `size` bytes with `marker` written at each offset, so that a digest or read that
// wraps at 4 GiB or stops early sees different bytes.
bool MakeSparse(const std::string& path, uint64_t size, const std::vector<uint64_t>& offsets) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
    for (uint64_t offset : offsets) {
        const std::string marker = "marker@" + std::to_string(offset);
        const size_t n = static_cast<size_t>(std::min<uint64_t>(marker.size(), size - offset));
        ok = ok && ::pwrite(fd, marker.data(), n, static_cast<off_t>(offset)) == static_cast<ssize_t>(n);
    }
    return ::close(fd) == 0 && ok;
}

} // namespace

// Sizes past 32 bits: the true size and the digest of every byte of a 5 GiB sparse file (md5sum runs
// beside it), and a file of exactly 2^32 - 1 bytes, whose size is no failure. Digesting 5 GiB takes
// about 10 s in a release build; the slower sanitizer builds keep it (about 30 s under ASan) except
// ThreadSanitizer, which has nothing to look at in a single-threaded digest.
TEST(FileSizeDigest, FilesOf4GiBAndMoreHaveTheirTrueSizeAndDigest) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "single-threaded and slow under ThreadSanitizer; run in the other builds";
#endif
    zoth_test::TempDir dir;
    const uint64_t big = (uint64_t{5} << 30) + 12345;
    const std::string path = dir / "big.sparse";
    ASSERT_TRUE(
        MakeSparse(path, big, {0, 0xFFFFFFF0u, uint64_t{1} << 32, (uint64_t{1} << 32) + 4096, big - 3}));
    FILE* md5sum = ::popen(("md5sum '" + path + "'").c_str(), "r");
    ASSERT_NE(md5sum, nullptr);
    EXPECT_EQ(std::to_string(CFileHepler::GetFileSize(path, "")), StatSizeOf(path));
    EXPECT_EQ(CFileHepler::GetFileSize(path, ""), big);
    const std::string ours = CFileHepler::GetFileMd5(path, "");
    char expected[33] = {};
    EXPECT_EQ(fread(expected, 1, 32, md5sum), 32u);
    ::pclose(md5sum);
    EXPECT_EQ(ours, expected);

    const std::string edge = dir / "edge.sparse";
    ASSERT_TRUE(MakeSparse(edge, 0xFFFFFFFFu, {0xFFFFFFF0u}));
    EXPECT_EQ(CFileHepler::GetFileSize(edge, ""), 0xFFFFFFFFu);
    EXPECT_EQ(StatSizeOf(edge), "4294967295");
}

// Strings of 2 GiB and more are written whole and read back whole (several calls each), and a file
// too big to hold leaves the string as it was. Needs some 4.5 GiB of memory: not run under the
// sanitizers, whose shadow memory doubles that and which refuse an address-space limit.
TEST(FileReadWrite, TwoGiBStringsAndFilesTooBigToHold) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "needs gigabytes of plain memory";
#endif
    zoth_test::TempDir dir;
    const std::string path = dir / "two.bin";
    const size_t size = (size_t{1} << 31) + 3;
    const std::vector<size_t> offsets = {0, (size_t{1} << 31) - 1, size_t{1} << 31, size - 1};
    {
        std::string data(size, 'z');
        for (size_t offset : offsets)
            data[offset] = static_cast<char>('a' + offset % 23);
        ASSERT_EQ(CFileHepler::WriteDataToFile(std::move(data), path, CREATE_ALWAYS), 1);
    }
    EXPECT_EQ(StatSizeOf(path), std::to_string(size));
    {
        std::string back;
        ASSERT_EQ(CFileHepler::ReadDataByFilePath(path, back), 1);
        ASSERT_EQ(back.size(), size);
        for (size_t offset : offsets)
            EXPECT_EQ(back[offset], static_cast<char>('a' + offset % 23)) << offset;
        EXPECT_EQ(back.find_first_not_of('z', 1), size_t{(1u << 31) - 1});
    }
    ASSERT_EQ(::unlink(path.c_str()), 0);

    // With the address space limited to less than the file, the read fails cleanly.
    const std::string huge = dir / "huge.sparse";
    ASSERT_TRUE(MakeSparse(huge, uint64_t{3} << 30, {0}));
    pid_t child = ::fork();
    if (child == 0) {
        struct rlimit limit = {uint64_t{2} << 30, uint64_t{2} << 30};
        std::string data = "kept";
        const bool ok = ::setrlimit(RLIMIT_AS, &limit) == 0 &&
                        CFileHepler::ReadDataByFilePath(huge, data) == 0 && data == "kept";
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
#endif // !_WIN32

TEST(FileTimes, CrossedOverOrderAndLocalTime) {
    zoth_test::ScopedTimeZone zone(9); // nine hours ahead of UTC, no summer time (Windows: its own)
    auto text = [](const _SYSTEMTIME& t) {
        char buffer[64];
        snprintf(buffer, sizeof buffer, "%04u-%02u-%02u %02u:%02u:%02u", t.wYear, t.wMonth, t.wDay, t.wHour,
                 t.wMinute, t.wSecond);
        return std::string(buffer);
    };
    // Seconds since 1970 UTC as local time text: with nine hours, 1000000000 is "2001-09-09 10:46:40".
    auto local = [&](time_t seconds) {
        const time_t shifted = seconds + zone.OffsetMinutes() * 60;
        char buffer[64];
        std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", std::gmtime(&shifted));
        return std::string(buffer);
    };
    zoth_test::TempDir dir;
    std::string path = dir / "t.txt";
    Spit(path, "x");
    // Last write 2001-09-09 01:46:40 UTC, last access one day and one hour later.
    ASSERT_TRUE(zoth_test::SetFileTimes(path, 1000000000, 1000000000 + 90000));
    _SYSTEMTIME created = {}, written = {}, accessed = {}, onlyWritten = {};
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(path, &created, &written, &accessed), 1);
    EXPECT_EQ(text(written), local(1000000000));          // the write time in the third argument
    EXPECT_EQ(text(accessed), local(1000000000 + 90000)); // the access time in the fourth
    if (!zoth_test::UnderWine()) { // Wine reports the earliest of the file's times as its creation
        EXPECT_GE(created.wYear, 2024);
    }
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(path, nullptr, &onlyWritten, nullptr), 1);
    EXPECT_EQ(text(onlyWritten), local(1000000000));
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(dir.Path(), &created, nullptr, nullptr), 1); // a folder too
    // A missing path: 0, nothing created, nothing written.
    created.wYear = 1999;
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(dir / "missing", &created, &created, &created), 0);
    EXPECT_EQ(created.wYear, 1999);
    EXPECT_FALSE(Exists(dir / "missing"));

    // The running program's last write time.
    ASSERT_EQ(CFileHepler::GetFileTimeInfo(zoth_test::SelfExe(), nullptr, &written, nullptr), 1);
    EXPECT_EQ(text(CFileHepler::GetCurrentProcessModifyTime()), text(written));
}

TEST(FileVersion, PackedNumberCarriesTextDoesNot) {
    zoth_test::TempDir dir;
    const struct {
        zoth_test::PeVersion version;
        DWORD packed;
        const char* text;
    } images[] = {
        {{1, 2, 3, 4, false}, 0x01020304u, "1.2.3.4"},
        {{10, 0, 19041, 1, true}, 0x0A4A6101u, "10.0.19041.1"},
        // Every field at its maximum: the text keeps them whole, the number wraps in 32 bits.
        {{65535, 65535, 65535, 65535, false},
         ((65535u * 256 + 65535u) * 256 + 65535u) * 256 + 65535u,
         "65535.65535.65535.65535"},
    };
    for (const auto& image : images) {
        Spit(dir / "v.dll", zoth_test::BuildPe(image.version));
        EXPECT_EQ(CFileHepler::GetFileVersion(dir / "v.dll"), image.packed) << image.text;
        EXPECT_EQ(CFileHepler::GetExeFileVersion(dir / "v.dll"), image.text);
    }

    // No version resource, no file, a truncated or a corrupt image: 0 and "", never a crash.
    std::string cut = zoth_test::BuildPe(), corrupt = cut;
    cut.resize(cut.size() - 1);
    zoth_test::PutU32(corrupt, zoth_test::kPeDataEntryOffset + 4, 0xFFFFFFFFu); // data size past the section
    Spit(dir / "plain.txt", "no version here");
    Spit(dir / "cut.dll", cut);
    Spit(dir / "corrupt.dll", corrupt);
    for (const char* name : {"plain.txt", "missing.dll", "cut.dll", "corrupt.dll"}) {
        EXPECT_EQ(CFileHepler::GetFileVersion(dir / name), 0u) << name;
        EXPECT_EQ(CFileHepler::GetExeFileVersion(dir / name), "") << name;
    }
    EXPECT_FALSE(Exists(dir / "missing.dll"));
    EXPECT_EQ(CFileHepler::GetCurrentProcessFileVersion(), ""); // the test program has no version resource
}
