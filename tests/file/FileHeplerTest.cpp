// CFileHepler on real files in temporary folders: content, size and digest (with the temporary-copy
// road), times and version numbers of PE images the tests build.
#include "FileTestUtil.h"
#include "PeBuilder.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

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
