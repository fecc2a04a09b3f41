// CPathHelper: names and joins, paths beside the executable, special folders, listings of mixed
// folders and of the root, and deletion of trees with links, stubborn files, unsearchable folders,
// depths past the path limit and links swapped in while the walk runs; the root is never deleted.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32Path.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

using ZOTH::CPathHelper;
using zoth_test::Exists;
using zoth_test::Spit;
using Map = std::map<std::string, std::string>;
using List = std::vector<std::string>;

namespace {

std::wstring Wide(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

// The names a listing holds, in order and each followed by a space, after checking that every path is
// `prefix` and the name.
std::string Names(const Map& listing, const std::string& prefix) {
    std::string names;
    for (const auto& [name, path] : listing) {
        EXPECT_EQ(path, prefix + name);
        names += name + " ";
    }
    return names;
}
std::string Names(const List& listing, const std::string& prefix) {
    Map byName;
    for (const std::string& path : listing) {
        EXPECT_EQ(path.rfind(prefix, 0), 0u) << path;
        byName[path.substr(prefix.size())] = path;
    }
    EXPECT_EQ(byName.size(), listing.size());
    return Names(byName, prefix);
}

void MakeDirs(const std::string& root, std::initializer_list<const char*> names) {
    for (const char* name : names)
        ASSERT_EQ(::mkdir((root + name).c_str(), 0755), 0) << name;
}

// Runs `body` in a child process, on a thread with a stack of `stackSize` bytes: its exit code, or 128
// plus the signal that ended it. A crash then fails the test instead of the whole suite.
int RunInChild(const std::function<int()>& body, size_t stackSize = 1 << 20) {
    pid_t child = ::fork();
    if (child == 0) {
        struct Call {
            const std::function<int()>* body;
            int result;
        } call{&body, -1};
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, stackSize);
        pthread_t thread;
        auto run = [](void* argument) -> void* {
            auto* c = static_cast<Call*>(argument);
            c->result = (*c->body)();
            return nullptr;
        };
        if (pthread_create(&thread, &attributes, run, &call) != 0) ::_exit(126);
        pthread_join(thread, nullptr);
        ::_exit(call.result);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A chain top/name/name/.../name of `levels` folders below `top`, made level by level with mkdirat so
// that it may go deeper than the path limit, with an empty file "f" in every tenth folder and a
// read-only file "ro" at the bottom when asked.
void MakeChain(const std::string& top, int levels, const char* name, bool readOnlyAtTheBottom) {
    ASSERT_EQ(::mkdir(top.c_str(), 0755), 0);
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY);
    for (int level = 0; level < levels; ++level) {
        ASSERT_EQ(::mkdirat(fd, name, 0755), 0) << level;
        int next = ::openat(fd, name, O_RDONLY | O_DIRECTORY);
        ::close(fd);
        ASSERT_GE(fd = next, 0) << level;
        if (level % 10 == 0) ::close(::openat(fd, "f", O_CREAT | O_WRONLY, 0644));
    }
    if (readOnlyAtTheBottom) ::close(::openat(fd, "ro", O_CREAT | O_WRONLY, 0444));
    ::close(fd);
}

// How many levels of a chain from MakeChain are left, and whether its read-only file is among them.
std::pair<int, bool> ChainLeft(const std::string& top, const char* name, bool makeWritable = false) {
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY);
    int levels = 0;
    for (int next; fd >= 0 && (next = ::openat(fd, name, O_RDONLY | O_DIRECTORY)) >= 0; ++levels) {
        ::close(fd);
        fd = next;
    }
    bool readOnly = fd >= 0 && ::faccessat(fd, "ro", F_OK, 0) == 0;
    if (readOnly && makeWritable) ::fchmodat(fd, "ro", 0644, 0);
    if (fd >= 0) ::close(fd);
    return {levels, readOnly};
}

} // namespace

TEST(FilePaths, NamesJoinsAndTheExecutablesFolder) {
    EXPECT_EQ(CPathHelper::GetFileNameByPath("a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("/x/a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("/x/"), "");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("C:\\x\\a.txt"), "C:\\x\\a.txt"); // only the platform separator
    // Joining is the platform's (tested there); past MAX_PATH the result is empty, in both widths.
    EXPECT_EQ(CPathHelper::GetCombinPath("/base/dir/", "../x"), "/base/x");
    EXPECT_EQ(CPathHelper::GetCombinPath(L"/base", L"./w\x00e9"), L"/base/w\x00e9");
    std::string longName(MAX_PATH, 'n');
    EXPECT_EQ(CPathHelper::GetCombinPath("/base", longName), "");
    EXPECT_EQ(CPathHelper::GetCombinPath(L"/base", Wide(longName)), L"");
    EXPECT_EQ(CPathHelper::GetSystemDeskPath(), "/");
    char exe[PATH_MAX + 1] = {};
    ASSERT_GT(::readlink("/proc/self/exe", exe, PATH_MAX), 0);
    EXPECT_EQ(CPathHelper::GetExePath(), exe);
    EXPECT_EQ(CPathHelper::GetExeDir(), std::string(exe).substr(0, std::string(exe).rfind('/')));
}

TEST(FilePaths, BesideTheExecutable) {
    std::string name = "zoth-file-test-" + std::to_string(::getpid()),
                full = CPathHelper::GetExeDir() + "/" + name;
    std::string out = "untouched";
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name, out), 0);
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, false), 0);
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(Exists(full));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1);
    EXPECT_EQ(out, full);
    struct stat st;
    ASSERT_EQ(::stat(full.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1); // present now
    // Two missing levels are not created.
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + "/a/b", out, true), 0);
    EXPECT_FALSE(Exists(full + "/a"));

    // A name of several elements, ".." resolved on the way; a file counts as present for the folder.
    Spit(full + "/f.txt", "x");
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name + "/../" + name + "/f.txt", out), 1);
    EXPECT_EQ(out, full + "/f.txt");
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + "/f.txt", out, false), 1);
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(std::string(MAX_PATH, 'p'), out), 0); // past MAX_PATH
    std::wstring wideOut;
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(Wide(name + "/f.txt"), wideOut), 1);
    EXPECT_EQ(wideOut, Wide(full + "/f.txt"));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(Wide(name + "/w"), wideOut, true), 1);
    EXPECT_TRUE(Exists(full + "/w"));
    std::filesystem::remove_all(full);
}

TEST(FilePaths, SpecialFoldersInShortForm) {
    zoth_test::TempDir home;
    std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::string savedConfig = config ? config : "";
    setenv("HOME", home.Path().c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    MakeDirs(home.Path(), {"/Documents"});
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_PERSONAL), Wide(home / "Documents"));
    // The desktop folder does not exist: its short form cannot be had, so the result is empty.
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_DESKTOPDIRECTORY), L"");
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(0x7f), L"");
    setenv("HOME", savedHome.c_str(), 1);
    if (config) setenv("XDG_CONFIG_HOME", savedConfig.c_str(), 1);
}

TEST(FileListing, MixedFolders) {
    zoth_test::TempDir dir, outside;
    const std::string d = dir.Path();
    MakeDirs(d, {"/sub", "/.git"});
    for (const char* name : {"/a.txt", "/a.txt.bak", "/B.TXT", "/.hidden", "/noext", "/sub/inner.txt"})
        Spit(d + name, "x"); // a subfolder's files appear nowhere
    ASSERT_EQ(::symlink(outside.Path().c_str(), (dir / "link").c_str()), 0); // a link is no folder
    const std::string files = ".hidden B.TXT a.txt a.txt.bak link noext ";
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ""), d + "/"), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, ""), d + "//"), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d), d + "/"), ".git sub ");
    // The list of "directories" holds every entry, files too, and never the dots.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirList(d), d + "//"), ".git " + files + "sub ");
    // The filter is a plain, case-sensitive substring.
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ".txt"), d + "/"), "a.txt a.txt.bak ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "TXT"), d + "/"), "B.TXT ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "*"), d + "/"), "");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, "a."), d + "//"), "a.txt a.txt.bak ");
    // A trailing separator on the folder is kept, and so doubled.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d + "/"), d + "//"), ".git sub ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d + "/", "noext"), d + "///"), "noext ");

    // Only folders; one of each; nothing at all.
    zoth_test::TempDir folders, one, empty;
    MakeDirs(folders.Path(), {"/x", "/y"});
    MakeDirs(one.Path(), {"/d"});
    Spit(one / "f", "x");
    const struct {
        std::string folder;
        size_t files, dirs, fileList, dirList;
    } counts[] = {
        {folders.Path(), 0, 2, 0, 2},  {one.Path(), 1, 1, 1, 2}, {empty.Path(), 0, 0, 0, 0},
        {dir / "missing", 0, 0, 0, 0}, {one / "f", 0, 0, 0, 0},  {"", 0, 0, 0, 0},
    };
    for (const auto& c : counts) {
        EXPECT_EQ(CPathHelper::GetLocalFileMap(c.folder, "").size(), c.files) << c.folder;
        EXPECT_EQ(CPathHelper::GetLocalDirMap(c.folder).size(), c.dirs) << c.folder;
        EXPECT_EQ(CPathHelper::GetLocalFileList(c.folder, "").size(), c.fileList) << c.folder;
        EXPECT_EQ(CPathHelper::GetLocalDirList(c.folder).size(), c.dirList) << c.folder;
    }
}

TEST(FileDeletion, TreesWithAFileThatCannotBeRemoved) {
    zoth_test::TempDir dir;
    for (const std::string& missing : {dir / "missing", dir / "missing/"}) {
        EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(missing), 0);
        EXPECT_EQ(CPathHelper::DeleteDirectory(missing), 0);
    }
    const std::string root = dir / "tree";
    std::string deep = root + "/deep";
    MakeDirs(root, {"", "/keep", "/keep/deeper", "/gone", "/empty", "/deep"});
    for (int level = 0; level < 20; ++level, deep += "/d") { // a deep chain, with a file on every level
        MakeDirs(deep, {"/d"});
        Spit(deep + "/file", std::string(level, 'z'));
    }
    const char* files[] = {"/x1",      "/.dot", "/keep/x2",      "/keep/deeper/x3",
                           "/gone/x4", "/zz",   "/deep/d/d/file"};
    for (const char* f : files)
        Spit(root + f, "x");
    Spit(root + "/keep/deeper/ro", "ro"); // read-only: the platform refuses to delete it
    ASSERT_EQ(::chmod((root + "/keep/deeper/ro").c_str(), 0444), 0);

    // Files go and folders stay; the file that resists stops neither the walk nor the result.
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root + "/empty"), 1);
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    for (const char* f : files)
        EXPECT_FALSE(Exists(root + f)) << f;
    for (const char* d :
         {"", "/keep/deeper", "/gone", "/empty", "/deep/d/d/d/d/d/d/d/d/d/d", "/keep/deeper/ro"})
        EXPECT_TRUE(Exists(root + d)) << d;

    // The whole tree, depth first past the failure: the file and the folders above it remain, and
    // the result is 0; once the file gives way, everything goes.
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 0);
    for (const char* kept : {"", "/keep", "/keep/deeper", "/keep/deeper/ro"})
        EXPECT_TRUE(Exists(root + kept)) << kept;
    for (const char* gone : {"/gone", "/empty", "/deep"})
        EXPECT_FALSE(Exists(root + gone)) << gone;
    ASSERT_EQ(::chmod((root + "/keep/deeper/ro").c_str(), 0644), 0);
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
}

TEST(FileDeletion, LinksToOutsideFoldersAreNotFollowed) {
    zoth_test::TempDir dir, outside;
    MakeDirs(outside.Path(), {"/inner"});
    Spit(outside / "precious", "keep me");
    Spit(outside / "inner/also", "keep me too");
    const std::string root = dir / "tree";
    MakeDirs(root, {"", "/sub"});
    Spit(root + "/sub/f", "x");
    ASSERT_EQ(::symlink(outside.Path().c_str(), (root + "/sub/link").c_str()), 0);
    ASSERT_EQ(::symlink((outside / "precious").c_str(), (root + "/filelink").c_str()), 0);
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    EXPECT_FALSE(Exists(root + "/sub/link") || Exists(root + "/filelink")); // links are files of the tree
    EXPECT_TRUE(Exists(root + "/sub"));

    ASSERT_EQ(::symlink(outside.Path().c_str(), (root + "/sub/link").c_str()), 0);
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
    EXPECT_EQ(zoth_test::Slurp(outside / "precious"), "keep me");
    EXPECT_EQ(zoth_test::Slurp(outside / "inner/also"), "keep me too");
}

// No walk recurses on the machine stack: a tree as deep as the path limit allows goes in full on a
// thread with a 1 MiB stack, and a tree deeper than the path limit goes entry by entry, with few
// descriptors, the result 1 exactly when the top folder is gone.
TEST(FileDeletion, TreesAsDeepAsThePathLimitAndDeeperOnASmallStack) {
    zoth_test::TempDir dir;
    const std::string fits = dir / "fits", deeper = dir / "deeper";
    const int fitting = static_cast<int>(PATH_MAX - 1 - fits.size() - 2) / 2; // top/d/.../d/f < PATH_MAX
    MakeChain(fits, fitting, "d", false);
    ASSERT_EQ(ChainLeft(fits, "d").first, fitting);
    EXPECT_EQ(RunInChild([&] {
                  if (CPathHelper::DeleteFilesFromDirectory(fits) != 1) return 1;
                  if (ChainLeft(fits, "d").first != fitting) return 2; // folders stay
                  if (Exists(fits + "/d/f")) return 3;
                  return CPathHelper::DeleteDirectory(fits) == 1 && !Exists(fits) ? 0 : 4;
              }),
              0);

    // Long names reach past the path limit in fewer levels (each folder is slow to remove on some
    // disks), but still far more levels than the descriptors the process may open.
    const int levels = 200;
    const std::string name(40, 'n'); // 200 * 41 characters of path
    MakeChain(deeper, levels, name.c_str(), true);
    EXPECT_EQ(RunInChild([&] {
                  const rlimit few = {64, 64};
                  if (::setrlimit(RLIMIT_NOFILE, &few) != 0) return 10;
                  // The read-only file at the bottom keeps every folder above it, and the result is 0.
                  if (CPathHelper::DeleteDirectory(deeper) != 0) return 1;
                  if (ChainLeft(deeper, name.c_str()) != std::make_pair(levels, true)) return 2;
                  if (CPathHelper::DeleteFilesFromDirectory(deeper) != 1) return 3;
                  if (ChainLeft(deeper, name.c_str(), true) != std::make_pair(levels, true)) return 4;
                  return CPathHelper::DeleteDirectory(deeper) == 1 && !Exists(deeper) ? 0 : 5;
              }),
              0);
}

// A link named as the folder is not walked, whatever it points at, and a folder swapped for a link
// while the walk runs cannot lead it out of the tree: nothing outside loses a byte.
TEST(FileDeletion, LinksNamedAsTheFolderOrSwappedInDuringTheWalk) {
    zoth_test::TempDir dir, outside;
    MakeDirs(outside.Path(), {"/inner"});
    const std::map<std::string, std::string> precious = {
        {"/p1", "one"}, {"/p2", "two"}, {"/inner/p3", "three"}};
    for (const auto& [name, bytes] : precious)
        Spit(outside.Path() + name, bytes);
    auto outsideIntact = [&] {
        for (const auto& [name, bytes] : precious)
            if (zoth_test::Slurp(outside.Path() + name) != bytes) return false;
        return true;
    };
    const std::string link = dir / "link", fileLink = dir / "filelink";
    ASSERT_EQ(::symlink(outside.Path().c_str(), link.c_str()), 0);
    ASSERT_EQ(::symlink((outside.Path() + "/p1").c_str(), fileLink.c_str()), 0);
    for (const std::string& named : {link, link + "/", link + "//", fileLink}) {
        EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(named), 0) << named;
        EXPECT_EQ(CPathHelper::DeleteDirectory(named), 0) << named;
    }
    EXPECT_TRUE(Exists(link));
    EXPECT_TRUE(outsideIntact());

    // Each "aN" is a folder of the tree and "bN" a link out of it; a second thread keeps exchanging them.
    const std::string tree = dir / "tree";
    const int pairs = 8;
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        MakeDirs(tree, {""});
        for (int pair = 0; pair < pairs; ++pair) {
            const std::string a = tree + "/a" + std::to_string(pair), b = tree + "/b" + std::to_string(pair);
            MakeDirs(a, {"", "/sub"});
            for (const char* name : {"/x1", "/x2", "/sub/x3"})
                Spit(a + name, "x");
            Spit(tree + "/f" + std::to_string(pair), "x");
            ASSERT_EQ(::symlink(outside.Path().c_str(), b.c_str()), 0);
        }
        std::atomic<bool> stop{false};
        std::thread swapper([&] {
            for (int pair = 0; !stop.load(); pair = (pair + 1) % pairs) {
                const std::string a = tree + "/a" + std::to_string(pair),
                                  b = tree + "/b" + std::to_string(pair);
                ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
            }
        });
        if (round % 2 == 0)
            CPathHelper::DeleteDirectory(tree);
        else
            CPathHelper::DeleteFilesFromDirectory(tree);
        stop = true;
        swapper.join();
        EXPECT_TRUE(outsideIntact()) << "round " << round;
        std::filesystem::remove_all(tree); // never follows the link
    }
}

// Listing the root folder works; emptying or deleting it never does: "" and every path that names the
// root give 0 before anything is opened. Checked inside a jail (chroot), so that a fault could only
// ever reach the jail.
TEST(FileDeletion, TheRootIsListedButNeverDeleted) {
    EXPECT_EQ(CPathHelper::GetLocalDirMap("/").count("tmp"), 1u);
    EXPECT_EQ(CPathHelper::GetLocalDirMap("/").at("tmp"), "//tmp");
    List rootList = CPathHelper::GetLocalDirList("/");
    EXPECT_EQ(std::count(rootList.begin(), rootList.end(), "///tmp"), 1);
    EXPECT_EQ(CPathHelper::GetLocalFileMap("/", "").count("tmp"), 0u);

    zoth_test::TempDir jail;
    MakeDirs(jail.Path(), {"/x", "/tmp"});
    for (const char* name : {"/jail-marker", "/x/inner", "/tmp/t"})
        Spit(jail.Path() + name, "x");
    ASSERT_EQ(::symlink("/", (jail / "rootlink").c_str()), 0);
    int result = RunInChild([&] {
        int watch = ::inotify_init1(IN_NONBLOCK);
        if (watch < 0 || ::inotify_add_watch(watch, jail.Path().c_str(), IN_OPEN | IN_DELETE) < 0) return 20;
        if (::geteuid() != 0 && ::unshare(CLONE_NEWUSER) != 0) return 77;
        if (::chroot(jail.Path().c_str()) != 0 || ::chdir("/") != 0) return 21;
        if (!Exists("/jail-marker") || Exists(jail.Path())) return 22; // inside the jail, for sure
        for (const char* root : {"", "/", "//", "/.", "/./", "/x/..", "/tmp/..", "/x/../..", "/rootlink",
                                 "/rootlink/", ".", "x/.."}) {
            if (CPathHelper::DeleteFilesFromDirectory(root) != 0) return 1;
            if (CPathHelper::DeleteDirectory(root) != 0) return 2;
        }
        char events[4096];
        if (::read(watch, events, sizeof events) > 0) return 3; // the root was opened or lost an entry
        return Exists("/x/inner") && Exists("/tmp/t") ? 0 : 4;
    });
    if (result == 77 && ::geteuid() != 0) GTEST_SKIP() << "no user namespace for a jail";
    EXPECT_EQ(result, 0);
}

// "." and ".." are skipped by name, never by position: in a folder that may be read but not searched
// they cannot be described and are not delivered, and every real entry still counts. Run as the
// unprivileged user nobody when the suite runs as root.
TEST(FileListing, AFolderThatMayBeReadButNotSearched) {
    zoth_test::TempDir dir;
    ASSERT_EQ(::chmod(dir.Path().c_str(), 0755), 0);
    const std::string d = dir / "readable";
    MakeDirs(d, {"", "/sub", "/sub2"});
    for (const char* name : {"/a.txt", "/b"})
        Spit(d + name, "x");
    ASSERT_EQ(::chmod(d.c_str(), 0444), 0);
    EXPECT_EQ(zoth_test::RunUnprivileged([&] {
                  return Names(CPathHelper::GetLocalFileMap(d, ""), d + "/") == "a.txt b " &&
                         Names(CPathHelper::GetLocalFileList(d, ""), d + "//") == "a.txt b " &&
                         Names(CPathHelper::GetLocalDirMap(d), d + "/") == "sub sub2 " &&
                         Names(CPathHelper::GetLocalDirList(d), d + "//") == "a.txt b sub sub2 " &&
                         CPathHelper::DeleteFilesFromDirectory(d) == 1 &&
                         CPathHelper::DeleteDirectory(d) == 0;
              }),
              1);
    EXPECT_TRUE(Exists(d + "/a.txt") && Exists(d + "/b") && Exists(d + "/sub2")); // nothing could go
}
