// The temporary file that takes a target's place, as both systems give it (this suite also runs on
// Windows): a new target, a replaced one, a discarded file, and targets refused before anything is
// made.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using zoth_test::Exists;
using zoth_test::Spit;

namespace {

bool Write(HANDLE file, const std::string& data) {
    DWORD done = 0;
    return WriteFile(file, data.data(), static_cast<DWORD>(data.size()), &done, nullptr) &&
           done == data.size();
}

size_t Count(const std::string& dir) {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator()));
}

} // namespace

TEST(FileTemporary, TakesTheTargetsPlaceOrLeavesNothing) {
    zoth_test::TempDir dir;
    const std::string fresh = dir / "fresh.bin", replaced = dir / "replaced.bin";
    Spit(replaced, "old");

    HANDLE file = CreateTemporaryFileA(fresh.c_str(), "zdl");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Count(dir.Path()), 2u); // the target-to-be does not exist yet; the file does
    ASSERT_TRUE(Write(file, "new"));
    EXPECT_TRUE(CommitTemporaryFile(file));
    EXPECT_EQ(zoth_test::Slurp(fresh), "new");

    file = CreateTemporaryFileA(replaced.c_str(), "zdl");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write(file, "newer"));
    EXPECT_TRUE(CommitTemporaryFile(file));
    EXPECT_EQ(zoth_test::Slurp(replaced), "newer");

    file = CreateTemporaryFileA(replaced.c_str(), "zdl");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write(file, "dropped"));
    EXPECT_TRUE(DiscardTemporaryFile(file));
    EXPECT_EQ(zoth_test::Slurp(replaced), "newer");

    // A target that appeared meanwhile is not replaced unseen.
    const std::string appeared = dir / "appeared.bin";
    file = CreateTemporaryFileA(appeared.c_str(), "zdl");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    Spit(appeared, "someone else's");
    EXPECT_FALSE(CommitTemporaryFile(file));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(zoth_test::Slurp(appeared), "someone else's");
    EXPECT_EQ(Count(dir.Path()), 3u); // no temporary file left behind

    // Refused before anything is made: a folder, a missing folder.
    std::filesystem::create_directory(dir / "folder");
    EXPECT_EQ(CreateTemporaryFileA((dir / "folder").c_str(), "zdl"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(CreateTemporaryFileA((dir / "missing" + zoth_test::kSep + "x.bin").c_str(), "zdl"),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(Count(dir.Path()), 4u);
    EXPECT_TRUE(std::filesystem::is_empty(dir / "folder"));
    EXPECT_FALSE(Exists(dir / "missing"));
}
