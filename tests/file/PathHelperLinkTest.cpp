// CPathHelper's deletions against a link in the path: "." and ".." after a link are resolved in the
// text, so the link is refused rather than followed; a folder named through a link stays listable;
// and the root guard holds while a link to the root is swapped in and out of the path.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CPathHelper.h"

#include <gtest/gtest.h>

#if !defined(_WIN32) // links, jails and renameat2: the cases below are Linux's
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

using ZOTH::CPathHelper;
using zoth_test::Exists;
using zoth_test::Spit;

namespace {

// Runs `body` in a forked child and gives its exit code (128 + signal when killed). The child ends
// with _exit, so nothing of the parent's state runs twice.
template <class Body> int InChild(Body body) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(body());
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

TEST(FileDeletionLinks, DotsAfterALinkNeverReachItsTarget) {
    zoth_test::TempDir t;
    std::filesystem::create_directories(t / "dir");
    std::filesystem::create_directories(t / "victim/sub");
    const std::map<std::string, std::string> precious = {{"/victim/f1", "one"}, {"/victim/sub/f2", "two"}};
    for (const auto& [name, bytes] : precious)
        Spit(t.Path() + name, bytes);
    const std::string lnk = t / "dir/lnk";
    ASSERT_EQ(::symlink("../victim", lnk.c_str()), 0);
    for (const std::string& named : {lnk + "/.", lnk + "/./", lnk + "/x/..", lnk + "//.", lnk + "/.//",
                                     lnk + "/x/../.", lnk, lnk + "/", lnk + "//"}) {
        EXPECT_EQ(CPathHelper::DeleteDirectory(named), 0) << named;
        EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(named), 0) << named;
    }
    for (const auto& [name, bytes] : precious)
        EXPECT_EQ(zoth_test::Slurp(t.Path() + name), bytes) << name;
    EXPECT_TRUE(std::filesystem::is_symlink(lnk));

    // A folder named through a link is still listed; only a walk never goes through one.
    EXPECT_EQ(CPathHelper::GetLocalFileMap(lnk, "").count("f1"), 1u);
    EXPECT_EQ(CPathHelper::GetLocalDirMap(lnk + "/.").count("sub"), 1u);
    EXPECT_EQ(CPathHelper::GetLocalFileList(lnk, "").size(), 1u);

    // A real folder named with dots is the folder itself, as on Windows.
    for (const std::string& named : {t / "dir/real/.", t / "dir/real/./", t / "dir/real/x/.."}) {
        std::filesystem::create_directories(t / "dir/real/inner");
        Spit(t / "dir/real/inner/f", "x");
        EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(named), 1) << named;
        EXPECT_FALSE(Exists(t / "dir/real/inner/f")) << named;
        EXPECT_EQ(CPathHelper::DeleteDirectory(named), 1) << named;
        EXPECT_FALSE(Exists(t / "dir/real")) << named;
    }
}

// In a jail (chroot) holding an empty folder /a/sw and a link /a/other -> "/", a thread keeps
// exchanging the two while the main thread empties "/a/sw/.": the jail's root keeps every file. The
// jail is a plain folder (no mount points), and the child checks that the chroot took effect
// before its first deletion.
TEST(FileDeletionLinks, RootSurvivesALinkSwappedInDuringTheCheck) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    const auto duration = std::chrono::seconds(5);
#else
    const auto duration = std::chrono::seconds(20);
#endif
    const long maxCalls = 100000;
    zoth_test::TempDir jail;
    std::filesystem::create_directories(jail / "a/sw");
    std::filesystem::create_directories(jail / "b");
    ASSERT_EQ(::symlink("/", (jail / "a/other").c_str()), 0);
    for (const char* name : {"/canary", "/b/inner"})
        Spit(jail.Path() + name, "x");
    struct stat realRoot, top;
    ASSERT_EQ(::stat("/", &realRoot), 0);
    ASSERT_EQ(::stat(jail.Path().c_str(), &top), 0);
    for (const char* folder : {"/a", "/a/sw", "/b"}) {
        struct stat st;
        ASSERT_EQ(::stat((jail.Path() + folder).c_str(), &st), 0);
        ASSERT_EQ(st.st_dev, top.st_dev) << folder << " is a mount point";
    }

    const int result = InChild([&] {
        if (::geteuid() != 0 && ::unshare(CLONE_NEWUSER) != 0) return 77;
        if (::chroot(jail.Path().c_str()) != 0 || ::chdir("/") != 0) return 21;
        struct stat root;
        if (::stat("/", &root) != 0 || (root.st_dev == realRoot.st_dev && root.st_ino == realRoot.st_ino))
            return 22;
        if (!Exists("/canary")) return 23;
        std::atomic<bool> stop{false};
        std::thread swapper([&] {
            while (!stop.load())
                ::renameat2(AT_FDCWD, "/a/sw", AT_FDCWD, "/a/other", RENAME_EXCHANGE);
        });
        const auto end = std::chrono::steady_clock::now() + duration;
        long calls = 0;
        while (calls < maxCalls && std::chrono::steady_clock::now() < end && Exists("/canary")) {
            CPathHelper::DeleteFilesFromDirectory("/a/sw/.");
            ++calls;
        }
        stop = true;
        swapper.join();
        return Exists("/canary") && Exists("/b/inner") ? 0 : 1;
    });
    if (result == 77) GTEST_SKIP() << "no user namespace for a jail";
    EXPECT_EQ(result, 0) << "1: the jail's root lost files; 2x: the jail could not be set up";
    EXPECT_TRUE(Exists(jail / "canary"));
}

#endif // !_WIN32
