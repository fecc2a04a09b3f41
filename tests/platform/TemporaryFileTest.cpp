// The temporary file that takes a target's place: refused targets, what the file is while written,
// the mode and owner it ends with, and a name that changed under it between creation and commit.
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32File.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace fs = std::filesystem;

namespace {

std::string Slurp(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

size_t Count(const std::string& dir) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

struct stat StatOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

bool Write(HANDLE file, const std::string& data) {
    DWORD done = 0;
    return WriteFile(file, data.data(), static_cast<DWORD>(data.size()), &done, nullptr) &&
           done == data.size();
}

// The one entry of `dir` whose name starts with "zdl".
std::string TemporaryIn(const std::string& dir) {
    for (const fs::directory_entry& entry : fs::directory_iterator(dir))
        if (entry.path().filename().string().rfind("zdl", 0) == 0) return entry.path().string();
    return "";
}

mode_t ProcessUmask() {
    const mode_t mask = ::umask(022); // the test's own thread only: nothing else runs here
    ::umask(mask);
    return mask;
}

} // namespace

TEST(TemporaryFile, RefusesTargetsItMustNotReplace) {
    zoth_test::TempDir dir;
    fs::create_directory(dir / "folder");
    fs::create_symlink("nowhere", dir / "dangling");
    std::ofstream(dir / "readonly") << "x";
    ::chmod((dir / "readonly").c_str(), 0444);
    ::mkfifo((dir / "fifo").c_str(), 0666);
    struct Case {
        std::string target;
        DWORD error;
    } const cases[] = {
        {dir / "folder", ERROR_ACCESS_DENIED},         {dir / "folder/", ERROR_ACCESS_DENIED},
        {dir / "dangling", ERROR_FILE_NOT_FOUND},      {dir / "readonly", ERROR_ACCESS_DENIED},
        {dir / "fifo", ERROR_ACCESS_DENIED},           {dir / "missing/file", ERROR_PATH_NOT_FOUND},
        {dir / "readonly/file", ERROR_PATH_NOT_FOUND},
    };
    for (const Case& c : cases)
        EXPECT_FAILS_WITH(CreateTemporaryFileA(c.target.c_str(), "zdl"), INVALID_HANDLE_VALUE, c.error);
    EXPECT_FAILS_WITH(CreateTemporaryFileA(nullptr, "zdl"), INVALID_HANDLE_VALUE, ERROR_INVALID_PARAMETER);
    EXPECT_FAILS_WITH(CreateTemporaryFileA((dir / "t").c_str(), "a/b"), INVALID_HANDLE_VALUE,
                      ERROR_INVALID_PARAMETER);
    EXPECT_FAILS_WITH(CommitTemporaryFile(INVALID_HANDLE_VALUE), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_EQ(Count(dir.Path()), 4u); // nothing was made
    EXPECT_FALSE(fs::exists(dir / "nowhere"));
}

TEST(TemporaryFile, PrivateWhileWrittenThenTakesTheTargetsPlace) {
    zoth_test::TempDir dir;
    const std::string fresh = dir / "fresh", replaced = dir / "replaced", linked = dir / "linked";
    std::ofstream(replaced) << "old";
    ::chmod(replaced.c_str(), 0640);
    std::ofstream(dir / "real") << "old";
    fs::create_symlink("real", linked);

    // A new target: 0600 while written, then 0666 less the umask; the umask stays as it was.
    const mode_t mask = ProcessUmask();
    HANDLE file = CreateTemporaryFileA(fresh.c_str(), "zdlong");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    const std::string temp = TemporaryIn(dir.Path());
    EXPECT_EQ(fs::path(temp).filename().string().size(), 3u + 8u + 4u); // "zdl" + hex digits + ".TMP"
    EXPECT_EQ(StatOf(temp).st_mode & 07777, 0600u);
    ASSERT_TRUE(Write(file, "new"));
    EXPECT_TRUE(CommitTemporaryFile(file));
    EXPECT_EQ(Slurp(fresh), "new");
    EXPECT_EQ(StatOf(fresh).st_mode & 07777, 0666u & ~mask);
    EXPECT_EQ(ProcessUmask(), mask);
    EXPECT_FALSE(fs::exists(temp));

    // A replaced target keeps its mode; a link to a file stays a link and its file is replaced.
    file = CreateTemporaryFileA(replaced.c_str(), "zdl");
    ASSERT_TRUE(Write(file, "newer"));
    EXPECT_TRUE(CommitTemporaryFile(file));
    EXPECT_EQ(Slurp(replaced), "newer");
    EXPECT_EQ(StatOf(replaced).st_mode & 07777, 0640u);
    file = CreateTemporaryFileA(linked.c_str(), "zdl");
    ASSERT_TRUE(Write(file, "through"));
    EXPECT_TRUE(CommitTemporaryFile(file));
    EXPECT_TRUE(fs::is_symlink(linked));
    EXPECT_EQ(Slurp(dir / "real"), "through");

    // Discarded, or refused at the commit, the file leaves nothing behind.
    file = CreateTemporaryFileA(replaced.c_str(), "zdl");
    ASSERT_TRUE(Write(file, "dropped"));
    EXPECT_TRUE(DiscardTemporaryFile(file));
    const std::string appeared = dir / "appeared";
    file = CreateTemporaryFileA(appeared.c_str(), "zdl");
    std::ofstream(appeared) << "someone else's";
    EXPECT_FAILS_WITH(CommitTemporaryFile(file), FALSE, ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Slurp(appeared), "someone else's");
    file = CreateTemporaryFileA(replaced.c_str(), "zdl");
    ::chmod(replaced.c_str(), 0444);
    EXPECT_FAILS_WITH(CommitTemporaryFile(file), FALSE, ERROR_UNABLE_TO_REMOVE_REPLACED);
    EXPECT_EQ(Slurp(replaced), "newer");
    EXPECT_EQ(TemporaryIn(dir.Path()), "");
}

// Between creation and commit, another user moves the file away and plants a link at its name: the
// commit acts on neither the link nor the file it leads to.
TEST(TemporaryFile, NameTakenAwayIsNeverFollowed) {
    zoth_test::TempDir dir;
    const std::string target = dir / "target", victim = dir / "victim";
    std::ofstream(target) << "old";
    ::chmod(target.c_str(), 0644);
    std::ofstream(victim) << "victim";
    ::chmod(victim.c_str(), 0600);
    if (::geteuid() == 0) ::chown(target.c_str(), 65534, 65534);
    const struct stat before = StatOf(victim);

    HANDLE file = CreateTemporaryFileA(target.c_str(), "zdl");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write(file, "new"));
    const std::string temp = TemporaryIn(dir.Path());
    ASSERT_EQ(::rename(temp.c_str(), (dir / "moved").c_str()), 0);
    ASSERT_EQ(::symlink(victim.c_str(), temp.c_str()), 0);
    EXPECT_FAILS_WITH(CommitTemporaryFile(file), FALSE, ERROR_FILE_NOT_FOUND);

    const struct stat after = StatOf(victim);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(Slurp(victim), "victim");
    EXPECT_TRUE(S_ISREG(StatOf(target).st_mode));
    EXPECT_EQ(Slurp(target), "old");
    EXPECT_TRUE(fs::is_symlink(temp)); // left alone, as is the moved file
    EXPECT_EQ(Slurp(dir / "moved"), "new");

    // ReplaceFileA keeps the same rules: a replacement that is a link is refused, and the file it
    // leads to keeps its owner and mode.
    EXPECT_FAILS_WITH(ReplaceFileA(target.c_str(), temp.c_str(), nullptr, 0, nullptr, nullptr), FALSE,
                      ERROR_ACCESS_DENIED);
    const struct stat untouched = StatOf(victim);
    EXPECT_EQ(untouched.st_uid, before.st_uid);
    EXPECT_EQ(untouched.st_mode, before.st_mode);
    EXPECT_TRUE(S_ISREG(StatOf(target).st_mode));
    EXPECT_EQ(Slurp(target), "old");
}
