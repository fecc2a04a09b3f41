// Deletion of trees deeper than the window of folders a walk keeps open: the window holds at every
// moment of the walk, and an ancestor that let go of its folder is taken back only if it is still
// the same folder, so a subtree moved out of the tree during the walk cannot lead the deletion out.
// Linux only (hence the suites' names): the window and the taking back belong to the platform
// layer's walk by descriptors; Windows walks by path, one search handle per level.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32File.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

using ZOTH::CPathHelper;
using zoth_test::Exists;

namespace {

// The folders a walk keeps open at most, as the README states.
constexpr int kWindow = 32;
// Under the address sanitizer, its runtime's undefined-behaviour checks test whether memory can be
// read through a pipe of their own (two descriptors, closed at once): granted besides the window.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kRuntimeSpare = 2;
#else
constexpr int kRuntimeSpare = 0;
#endif

// top/d/d/.../d, `levels` folders below `top`, with a file "f" on every level, top included.
void MakeDeepChain(const std::string& top, int levels) {
    std::string path = top;
    for (int level = 0; level <= levels; ++level, path += "/d") {
        ASSERT_TRUE(std::filesystem::create_directory(path)) << level;
        zoth_test::Spit(path + "/f", "x");
    }
}

// top/d/.../d with `level` times "/d".
std::string Level(const std::string& top, int level) {
    std::string path = top;
    for (int i = 0; i < level; ++i)
        path += "/d";
    return path;
}

// Runs `body` in a child process: its exit code, or 128 plus the signal that ended it.
int InChild(const std::function<int()>& body) {
    pid_t child = ::fork();
    if (child == 0) ::_exit(body());
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Lowers the limit of open files so that exactly `more` descriptors can still be opened besides
// those already open: the lowest `more` free numbers stay below the limit.
bool AllowOnly(int more) {
    int limit = 0;
    for (int free = 0; free < more; ++limit)
        if (::fcntl(limit, F_GETFD) == -1 && errno == EBADF) ++free;
    const rlimit few = {static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
    return ::setrlimit(RLIMIT_NOFILE, &few) == 0;
}

} // namespace

// The system refuses every descriptor past the window, so a walk that held one folder more at any
// moment (even between opening a folder and letting go of an ancestor) would leave a level unwalked.
TEST(DeepWalkLinux, A200LevelWalkNeverHoldsMoreThan32FoldersOpen) {
    zoth_test::TempDir dir;
    const std::string top = dir / "top";
    const int levels = 200;
    ASSERT_NO_FATAL_FAILURE(MakeDeepChain(top, levels));
    // Each walk runs in a child process whose limit of open files leaves room for the window only.
    auto windowed = [&](int (*walk)(std::string)) {
        return InChild([&] { return AllowOnly(kWindow + kRuntimeSpare) ? walk(top) : 10; });
    };
    EXPECT_EQ(windowed(&CPathHelper::DeleteFilesFromDirectory), 1);
    for (int level = 0; level <= levels; ++level) {
        ASSERT_TRUE(Exists(Level(top, level))) << level; // folders stay
        ASSERT_FALSE(Exists(Level(top, level) + "/f")) << level;
    }
    zoth_test::Spit(Level(top, levels) + "/f", "x");
    EXPECT_EQ(windowed(&CPathHelper::DeleteDirectory), 1);
    EXPECT_FALSE(Exists(top));
}

namespace {

// What the hook below does: when the folder `device`/`inode` is let go, `from` is moved to `to`.
struct MoveWhenParked {
    dev_t device = 0;
    ino_t inode = 0;
    std::string from, to;
    bool moved = false;
} g_move;

void MoveOnPark(unsigned long long device, unsigned long long inode) {
    if (g_move.moved || device != g_move.device || inode != g_move.inode) return;
    g_move.moved = ::rename(g_move.from.c_str(), g_move.to.c_str()) == 0;
}

} // namespace

// While the walk runs below level k + 32, level k has let go of its folder, and level k + 1 with all
// below it is moved into a folder outside the tree. Level k cannot take its folder back through the
// moved level's ".." (that is the outside folder now): it and every level above it stop there, and
// nothing outside the tree loses an entry. The outside folder sits deep enough that even a walk
// taking back whatever ".." leads to would stay inside this test's own folder.
TEST(DeepWalkLinux, ASubtreeMovedOutWhileItsAncestorLetGoOfItsFolder) {
    zoth_test::TempDir dir;
    const std::string top = dir / "tree";
    std::string outside = dir.Path();
    for (int i = 0; i < 8; ++i)
        outside += "/o";
    ASSERT_TRUE(std::filesystem::create_directories(outside + "/sub"));
    std::map<std::string, std::string> precious; // path -> bytes, along the outside chain and below it
    for (std::string path = outside; path != dir.Path(); path = std::filesystem::path(path).parent_path())
        precious[path + "/p"] = path;
    precious[outside + "/sub/p"] = "sub";
    for (const auto& [path, bytes] : precious)
        zoth_test::Spit(path, bytes);

    const struct {
        int k; // the level whose folder is let go when its subtree moves
        bool removeFolders;
    } cases[] = {{0, true}, {5, true}, {5, false}};
    const int levels = 40; // deep enough that levels 0 to 8 let go of their folders
    for (const auto& c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.k) +
                     (c.removeFolders ? ", DeleteDirectory" : ", files only"));
        ASSERT_NO_FATAL_FAILURE(MakeDeepChain(top, levels));
        struct stat st;
        ASSERT_EQ(::stat(Level(top, c.k).c_str(), &st), 0);
        g_move = {st.st_dev, st.st_ino, Level(top, c.k + 1), outside + "/moved", false};
        ZothSetFolderParkedHookForTests(&MoveOnPark);
        const int result =
            c.removeFolders ? CPathHelper::DeleteDirectory(top) : CPathHelper::DeleteFilesFromDirectory(top);
        ZothSetFolderParkedHookForTests(nullptr);
        ASSERT_TRUE(g_move.moved);

        for (const auto& [path, bytes] : precious)
            EXPECT_EQ(zoth_test::Slurp(path), bytes) << path;
        EXPECT_TRUE(Exists(outside + "/sub"));
        EXPECT_TRUE(Exists(outside + "/moved"));
        // Above level k the walk stopped: those levels stay. Level 0 is the top, which DeleteDirectory
        // may still remove if nothing is left in it; either way, 1 exactly when the top is gone.
        EXPECT_TRUE(c.k == 0 || Exists(Level(top, c.k)));
        EXPECT_EQ(result, c.removeFolders && Exists(top) ? 0 : 1);
        std::filesystem::remove_all(top);
        std::filesystem::remove_all(outside + "/moved");
    }
}
#endif // !_WIN32
