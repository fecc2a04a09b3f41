// CFileHepler's size and digest, with and without the temporary-copy road.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using ZOTH::CFileHepler;
using zoth_test::Exists;
using zoth_test::Md5sumOf;
using zoth_test::Spit;

namespace {
const std::string kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";
}

TEST(FileSizeDigest, OrdinaryFiles) {
    zoth_test::TempDir dir;
    std::string path = dir / "data.bin";
    std::string bytes("abc\0def\0\0", 9);
    bytes += std::string(100000, '\x7f');
    Spit(path, bytes);
    EXPECT_EQ(CFileHepler::GetFileSize(path, ""), bytes.size());
    std::string md5 = CFileHepler::GetFileMd5(path, "");
    EXPECT_EQ(md5, Md5sumOf(path)); // covers every byte, NUL bytes included
    EXPECT_EQ(md5.size(), 32u);

    Spit(dir / "abc", "abc");
    EXPECT_EQ(CFileHepler::GetFileMd5(dir / "abc", ""), "900150983cd24fb0d6963f7d28e17f72");

    // Missing paths: the read open creates an empty file, which has size 0 and the empty digest.
    EXPECT_EQ(CFileHepler::GetFileSize(dir / "missing1", ""), 0u);
    EXPECT_TRUE(Exists(dir / "missing1"));
    EXPECT_EQ(CFileHepler::GetFileMd5(dir / "missing2", ""), kEmptyMd5);
    EXPECT_TRUE(Exists(dir / "missing2"));

    // A missing folder on the way cannot be created: 0 and "".
    EXPECT_EQ(CFileHepler::GetFileSize(dir / "no/file", dir / "tmp"), 0u);
    EXPECT_EQ(CFileHepler::GetFileMd5(dir / "no/file", dir / "tmp"), "");
    EXPECT_FALSE(Exists(dir / "tmp"));
}

TEST(FileSizeDigest, TemporaryPathWhenTheFirstOpenWorks) {
    zoth_test::TempDir dir;
    std::string path = dir / "data.txt", temp = dir / "temp.copy";
    Spit(path, "twelve bytes");
    // GetFileSize deletes whatever lies at the temporary path; GetFileMd5 leaves it alone.
    Spit(temp, "stale");
    EXPECT_EQ(CFileHepler::GetFileMd5(path, temp), Md5sumOf(path));
    EXPECT_TRUE(Exists(temp));
    EXPECT_EQ(CFileHepler::GetFileSize(path, temp), 12u);
    EXPECT_FALSE(Exists(temp));
}

TEST(FileSizeDigest, ReadOnlyFileLeavesItsReadOnlyCopy) {
    zoth_test::TempDir dir;
    std::string path = dir / "ro.txt", temp = dir / "ro.copy";
    Spit(path, "read only");
    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);

    EXPECT_EQ(CFileHepler::GetFileMd5(path, ""), "");
    EXPECT_EQ(CFileHepler::GetFileSize(path, ""), 0u);
    EXPECT_FALSE(Exists(temp));

    // The copy is read-only as well, fails the read open too, and stays behind.
    EXPECT_EQ(CFileHepler::GetFileMd5(path, temp), "");
    EXPECT_TRUE(Exists(temp));
    struct stat st;
    ASSERT_EQ(::stat(temp.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0444u);
    // GetFileSize first deletes the old copy, which a read-only file resists: the copy then fails.
    EXPECT_EQ(CFileHepler::GetFileSize(path, temp), 0u);
    EXPECT_TRUE(Exists(temp));
    ASSERT_EQ(::chmod(temp.c_str(), 0644), 0);
    ASSERT_EQ(::unlink(temp.c_str()), 0);
    EXPECT_EQ(CFileHepler::GetFileSize(path, temp), 0u);
    EXPECT_TRUE(Exists(temp)); // the new read-only copy remains
}

// A file the caller may read but not write: another user's file with mode 0644. The checks run in a
// child process that has dropped root's privileges.
TEST(FileSizeDigest, FileReadableButNotWritableGoesThroughTheCopy) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a file that the test user cannot write";
    zoth_test::TempDir dir;
    ASSERT_EQ(::chmod(dir.Path().c_str(), 0777), 0); // the unprivileged child writes its copies here
    std::string path = dir / "locked.bin";
    std::string bytes("locked\0content", 14);
    Spit(path, bytes);
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    const std::string expected = Md5sumOf(path);
    std::string md5Temp = dir / "md5.copy", sizeTemp = dir / "size.copy";

    EXPECT_EQ(zoth_test::RunUnprivileged([&] {
                  std::string data = "kept";
                  return CFileHepler::ReadDataByFilePath(path, data) == 0 && data == "kept" &&
                         CFileHepler::GetFileMd5(path, "") == "" && CFileHepler::GetFileSize(path, "") == 0 &&
                         CFileHepler::WriteDataToFile(std::string("x"), path, OPEN_ALWAYS) == 0;
              }),
              1);
    EXPECT_EQ(zoth_test::RunUnprivileged([&] { return CFileHepler::GetFileMd5(path, md5Temp) == expected; }),
              1);
    EXPECT_TRUE(Exists(md5Temp)); // the digest's copy stays
    EXPECT_EQ(zoth_test::Slurp(md5Temp), bytes);
    EXPECT_EQ(
        zoth_test::RunUnprivileged([&] { return CFileHepler::GetFileSize(path, sizeTemp) == bytes.size(); }),
        1);
    EXPECT_FALSE(Exists(sizeTemp)); // the size's copy is gone
    EXPECT_EQ(zoth_test::Slurp(path), bytes);
}
