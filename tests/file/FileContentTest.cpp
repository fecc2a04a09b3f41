// CFileHepler's content operations on real files in a temporary folder.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using ZOTH::CFileHepler;
using zoth_test::Exists;
using zoth_test::Slurp;
using zoth_test::Spit;

TEST(FileWrite, DispositionsAndAppends) {
    zoth_test::TempDir dir;
    std::string path = dir / "out.bin";

    // OPEN_EXISTING on a missing file fails and creates nothing; TRUNCATE_EXISTING likewise.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), path, OPEN_EXISTING), 0);
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), path, TRUNCATE_EXISTING), 0);
    EXPECT_FALSE(Exists(path));

    // Two OPEN_ALWAYS writes leave both runs, the second behind the first.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("first"), path, OPEN_ALWAYS), 1);
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("second"), path, OPEN_ALWAYS), 1);
    EXPECT_EQ(Slurp(path), "firstsecond");
    // OPEN_EXISTING appends as well.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("+"), path, OPEN_EXISTING), 1);
    EXPECT_EQ(Slurp(path), "firstsecond+");

    // CREATE_NEW refuses an existing file and leaves it as it was.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("new"), path, CREATE_NEW), 0);
    EXPECT_EQ(Slurp(path), "firstsecond+");

    // CREATE_ALWAYS and TRUNCATE_EXISTING start from an empty file.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("again"), path, CREATE_ALWAYS), 1);
    EXPECT_EQ(Slurp(path), "again");
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("cut"), path, TRUNCATE_EXISTING), 1);
    EXPECT_EQ(Slurp(path), "cut");

    // Zero bytes with CREATE_ALWAYS: an empty file and success.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string(), path, CREATE_ALWAYS), 1);
    EXPECT_TRUE(Exists(path));
    EXPECT_EQ(Slurp(path), "");

    // An unknown disposition, a missing parent folder and a folder as target all fail.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), dir / "other", 9), 0);
    EXPECT_FALSE(Exists(dir / "other"));
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), dir / "no/such/file", CREATE_ALWAYS), 0);
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), dir.Path(), OPEN_ALWAYS), 0);
}

TEST(FileWrite, PointerFormAndNulBytes) {
    zoth_test::TempDir dir;
    std::string path = dir / "nul.bin";
    std::string bytes("a\0b\0\0c", 6);
    EXPECT_EQ(CFileHepler::WriteDataToFile(bytes, path, CREATE_ALWAYS), 1);
    EXPECT_EQ(Slurp(path), bytes);

    char raw[] = {'\0', 'x', '\0', 'y'};
    EXPECT_EQ(CFileHepler::WriteDataToFile(raw, 3, path, OPEN_ALWAYS), 1); // only the first three
    EXPECT_EQ(Slurp(path), bytes + std::string("\0x\0", 3));
    // A negative length writes nothing and does not even truncate.
    EXPECT_EQ(CFileHepler::WriteDataToFile(raw, -1, path, CREATE_ALWAYS), 0);
    EXPECT_EQ(Slurp(path), bytes + std::string("\0x\0", 3));
    EXPECT_EQ(CFileHepler::WriteDataToFile(nullptr, 4, path, OPEN_ALWAYS), 0);
}

TEST(FileWrite, ReadOnlyFileRefusesWrites) {
    zoth_test::TempDir dir;
    std::string path = dir / "ro.txt";
    Spit(path, "keep");
    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
    // A file nobody may write stays as it is, whoever the caller is.
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), path, OPEN_ALWAYS), 0);
    EXPECT_EQ(CFileHepler::WriteDataToFile(std::string("x"), path, CREATE_ALWAYS), 0);
    EXPECT_EQ(Slurp(path), "keep");
}

TEST(FileRead, WholeFilesMissingAndEmpty) {
    zoth_test::TempDir dir;
    std::string data = "untouched";

    // A missing path reads as empty, and an empty file now exists there.
    std::string missing = dir / "missing.txt";
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(missing, data), 1);
    EXPECT_EQ(data, "");
    EXPECT_TRUE(Exists(missing));

    // Content with NUL bytes comes back whole.
    std::string bytes("\0\x01\xff\0tail", 8);
    Spit(dir / "nul.bin", bytes);
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir / "nul.bin", data), 1);
    EXPECT_EQ(data, bytes);

    // A bigger file, read in one call.
    std::string big(3 * 1024 * 1024 + 7, 'q');
    big[12345] = '\0';
    Spit(dir / "big.bin", big);
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir / "big.bin", data), 1);
    EXPECT_EQ(data, big);

    // Failures leave `data` as it was: a folder, a missing parent, a read-only file.
    data = "before";
    std::string fifo = dir / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(fifo, data), 0); // refused, not waited on
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir.Path(), data), 0);
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir / "no/such/file", data), 0);
    Spit(dir / "ro.txt", "ro");
    ASSERT_EQ(::chmod((dir / "ro.txt").c_str(), 0444), 0);
    EXPECT_EQ(CFileHepler::ReadDataByFilePath(dir / "ro.txt", data), 0);
    EXPECT_EQ(data, "before");
}
