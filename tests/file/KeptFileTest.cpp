// The kept partial file of a resumable download, as both systems give it (this suite also runs on
// Windows): made, kept, reused, locked while held, cut back, committed durably, and removed.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using zoth_test::Slurp;
using zoth_test::Spit;

TEST(FileKept, MadeKeptReusedLockedCutAndCommitted) {
    zoth_test::TempDir dir;
    const std::string target = dir / "file.bin", kept = dir / ".file.bin.part";
    Spit(target, "old");
    BOOL reused = TRUE;
    HANDLE file = OpenKeptTemporaryFileA(target.c_str(), ".part", &reused);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(reused);
    DWORD done = 0;
    ASSERT_TRUE(WriteFile(file, "abcdef", 6, &done, nullptr));
    // Held: a second open is refused with the lock's error.
    BOOL other = FALSE;
    EXPECT_EQ(OpenKeptTemporaryFileA(target.c_str(), ".part", &other), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
    ASSERT_TRUE(KeepTemporaryFile(file));
    EXPECT_EQ(Slurp(kept), "abcdef");
    EXPECT_EQ(Slurp(target), "old");

    file = OpenKeptTemporaryFileA(target.c_str(), ".part", &reused);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(reused);
    // Cut back to 3 bytes, then more written behind them.
    EXPECT_EQ(SetFilePointer(file, 3, nullptr, FILE_BEGIN), 3u);
    ASSERT_TRUE(SetEndOfFile(file));
    ASSERT_TRUE(WriteFile(file, "XY", 2, &done, nullptr));
    ASSERT_TRUE(FlushFileBuffers(file));
    ASSERT_TRUE(CommitTemporaryFileEx(file, MOVEFILE_WRITE_THROUGH));
    EXPECT_EQ(Slurp(target), "abcXY");
    EXPECT_FALSE(zoth_test::Exists(kept));

    // Removed on request; none left is success too.
    file = OpenKeptTemporaryFileA(target.c_str(), ".part", &reused);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(KeepTemporaryFile(file));
    EXPECT_TRUE(zoth_test::Exists(kept));
    EXPECT_TRUE(DeleteKeptTemporaryFileA(target.c_str(), ".part"));
    EXPECT_FALSE(zoth_test::Exists(kept));
    EXPECT_TRUE(DeleteKeptTemporaryFileA(target.c_str(), ".part"));
    EXPECT_EQ(Slurp(target), "abcXY");
    // An unknown flag is refused, the file deleted and the target untouched.
    file = OpenKeptTemporaryFileA(target.c_str(), ".part", &reused);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(CommitTemporaryFileEx(file, 0x100));
    EXPECT_EQ(Slurp(target), "abcXY");
    EXPECT_FALSE(zoth_test::Exists(kept));
}
