// CPathHelper: names and joins, paths beside the executable, special folders, listings of mixed
// folders and of the root, and deletion of trees with links, stubborn files, unsearchable folders,
// depths past the path limit and links swapped in while the walk runs; the root is never deleted.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32Path.h"
#include "zoth/platform/Win32Text.h"

#include <gtest/gtest.h>

#if !defined(_WIN32) // the walks' own system calls, for the Linux-only cases below
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

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

// The platform's separator, as the library writes it into the paths it builds.
const std::string S(1, zoth_test::kSep);

// `path` with "/" written as the platform's separator.
std::string N(std::string path) {
    std::replace(path.begin(), path.end(), '/', zoth_test::kSep);
    return path;
}

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
        ASSERT_TRUE(std::filesystem::create_directory(root + name)) << name;
}

// A symbolic link, or a skip where the system cannot make one.
#define MAKE_LINK_OR_SKIP(target, link)                                                                      \
    do {                                                                                                     \
        const bool made = zoth_test::MakeLink(target, link);                                                 \
        if (!made && zoth_test::kWindows) GTEST_SKIP() << "no symbolic links here (Wine cannot make them)";  \
        ASSERT_TRUE(made);                                                                                   \
    } while (0)

#if !defined(_WIN32)
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
#endif // !_WIN32

} // namespace

TEST(FilePaths, NamesJoinsAndTheExecutablesFolder) {
    EXPECT_EQ(CPathHelper::GetFileNameByPath("a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath(N("/x/a.txt")), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath(N("/x/")), "");
    if (!zoth_test::kWindows) { // only the platform separator
        EXPECT_EQ(CPathHelper::GetFileNameByPath("C:\\x\\a.txt"), "C:\\x\\a.txt");
    }
    // Joining is the platform's (tested there); past MAX_PATH the result is empty, in both widths.
    EXPECT_EQ(CPathHelper::GetCombinPath(N("/base/dir/"), N("../x")), N("/base/x"));
    EXPECT_EQ(CPathHelper::GetCombinPath(Wide(N("/base")), Wide(N("./w")) + L"\x00e9"),
              Wide(N("/base/w")) + L"\x00e9");
    std::string longName(MAX_PATH, 'n');
    EXPECT_EQ(CPathHelper::GetCombinPath(N("/base"), longName), "");
    EXPECT_EQ(CPathHelper::GetCombinPath(Wide(N("/base")), Wide(longName)), L"");
    // The system folder's drive ("C:" on Windows; "/" where there are no drives).
    EXPECT_EQ(CPathHelper::GetSystemDeskPath(), zoth_test::kWindows ? "C:" : "/");
    const std::string exe = zoth_test::SelfExe();
    ASSERT_FALSE(exe.empty());
    EXPECT_EQ(CPathHelper::GetExePath(), exe);
    EXPECT_EQ(CPathHelper::GetExeDir(), exe.substr(0, exe.rfind(zoth_test::kSep)));
}

TEST(FilePaths, BesideTheExecutable) {
    std::string name = "zoth-file-test-" + std::to_string(zoth_test::ProcessId()),
                full = CPathHelper::GetExeDir() + S + name;
    std::string out = "untouched";
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name, out), 0);
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, false), 0);
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(Exists(full));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1);
    EXPECT_EQ(out, full);
    EXPECT_TRUE(std::filesystem::is_directory(full));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1); // present now
    // Two missing levels are not created.
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + N("/a/b"), out, true), 0);
    EXPECT_FALSE(Exists(full + N("/a")));

    // A name of several elements, ".." resolved on the way; a file counts as present for the folder.
    Spit(full + N("/f.txt"), "x");
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name + N("/../") + name + N("/f.txt"), out), 1);
    EXPECT_EQ(out, full + N("/f.txt"));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + N("/f.txt"), out, false), 1);
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(std::string(MAX_PATH, 'p'), out), 0); // past MAX_PATH
    std::wstring wideOut;
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(Wide(name + N("/f.txt")), wideOut), 1);
    EXPECT_EQ(wideOut, Wide(full + N("/f.txt")));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(Wide(name + N("/w")), wideOut, true), 1);
    EXPECT_TRUE(Exists(full + N("/w")));
    std::filesystem::remove_all(full);
}

TEST(FilePaths, SpecialFoldersInShortForm) {
    if (zoth_test::kWindows) GTEST_SKIP() << "the XDG user folders below $HOME are Linux's";
    zoth_test::TempDir home;
    zoth_test::ScopedEnv homeVariable("HOME", home.Path().c_str());
    zoth_test::ScopedEnv config("XDG_CONFIG_HOME", nullptr);
    MakeDirs(home.Path(), {"/Documents"});
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_PERSONAL), Wide(home / "Documents"));
    // The desktop folder does not exist: its short form cannot be had, so the result is empty.
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_DESKTOPDIRECTORY), L"");
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(0x7f), L"");
}

TEST(FileListing, MixedFolders) {
    zoth_test::TempDir dir, outside;
    const std::string d = dir.Path();
    MakeDirs(d, {"/sub", "/.git"});
    for (const char* name : {"/a.txt", "/a.txt.bak", "/B.TXT", "/.hidden", "/noext", "/sub/inner.txt"})
        Spit(d + name, "x"); // a subfolder's files appear nowhere
    // A link to a folder is listed, never entered: on Linux the layer reports it as no folder; on
    // Windows the search reports it as a folder (and a reparse point). Where no link can be made
    // (Windows without the privilege), the listing goes on without one.
    const bool linked = zoth_test::MakeLink(outside.Path(), dir / "link");
    ASSERT_TRUE(linked || zoth_test::kWindows);
    const std::string asFile = linked && !zoth_test::kWindows ? "link " : "",
                      asFolder = linked && zoth_test::kWindows ? "link " : "";
    const std::string files = ".hidden B.TXT a.txt a.txt.bak " + asFile + "noext ";
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ""), d + S), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, ""), d + "//"), files);
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d), d + S), ".git " + asFolder + "sub ");
    // The list of "directories" holds every entry, files too, and never the dots.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirList(d), d + "//"),
              ".git .hidden B.TXT a.txt a.txt.bak " + std::string(linked ? "link " : "") + "noext sub ");
    // The filter is a plain, case-sensitive substring.
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, ".txt"), d + S), "a.txt a.txt.bak ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "TXT"), d + S), "B.TXT ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(d, "*"), d + S), "");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d, "a."), d + "//"), "a.txt a.txt.bak ");
    // A trailing separator on the folder is kept, and so doubled.
    EXPECT_EQ(Names(CPathHelper::GetLocalDirMap(d + S), d + S + S), ".git " + asFolder + "sub ");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileList(d + S, "noext"), d + S + "//"), "noext ");

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
    ASSERT_TRUE(zoth_test::SetReadOnly(root + "/keep/deeper/ro"));

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
    ASSERT_TRUE(zoth_test::SetReadOnly(root + "/keep/deeper/ro", false));
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
}

TEST(FileDeletion, LinksToOutsideFoldersAreNotFollowed) {
    // The walk passes over a link there too (a reparse point), but deleting the link itself goes
    // wrong under Wine: its DeleteFileA and RemoveDirectoryA act on a Unix link's target, where
    // Windows removes the link.
    if (zoth_test::UnderWine()) GTEST_SKIP() << "Wine deletes a Unix link's target, not the link";
    zoth_test::TempDir dir, outside;
    MakeDirs(outside.Path(), {"/inner"});
    Spit(outside / "precious", "keep me");
    Spit(outside / "inner/also", "keep me too");
    const std::string root = dir / "tree";
    MakeDirs(root, {"", "/sub"});
    Spit(root + "/sub/f", "x");
    MAKE_LINK_OR_SKIP(outside.Path(), root + "/sub/link");
    MAKE_LINK_OR_SKIP(outside / "precious", root + "/filelink");
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(root), 1);
    EXPECT_FALSE(Exists(root + "/sub/link") || Exists(root + "/filelink")); // links are files of the tree
    EXPECT_TRUE(Exists(root + "/sub"));

    MAKE_LINK_OR_SKIP(outside.Path(), root + "/sub/link");
    EXPECT_EQ(CPathHelper::DeleteDirectory(root), 1);
    EXPECT_FALSE(Exists(root));
    EXPECT_EQ(zoth_test::Slurp(outside / "precious"), "keep me");
    EXPECT_EQ(zoth_test::Slurp(outside / "inner/also"), "keep me too");
}

// A name with characters of the ANSI code page (1252: "grüße.txt") is written, read, listed and
// deleted. On Windows the ...A calls convert it to the file system's UTF-16 name; elsewhere the bytes
// are the name.
TEST(FileNames, AnsiCodePageCharacters) {
    if (zoth_test::kWindows && GetACP() != 1252) GTEST_SKIP() << "the ANSI code page is not 1252 here";
    zoth_test::TempDir dir;
    const std::string name = "gr\xFC\xDF"
                             "e.txt",
                      path = dir / name;
    EXPECT_EQ(ZOTH::CFileHepler::WriteDataToFile(std::string("umlaut"), path, CREATE_ALWAYS), 1);
    std::string data;
    EXPECT_EQ(ZOTH::CFileHepler::ReadDataByFilePath(path, data), 1);
    EXPECT_EQ(data, "umlaut");
    EXPECT_EQ(Names(CPathHelper::GetLocalFileMap(dir.Path(), ""), dir.Path() + S), name + " ");
    if (zoth_test::kWindows) { // the file system holds the name in UTF-16
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(dir.Path()) / L"gr\u00fc\u00dfe.txt"));
    }
    EXPECT_EQ(CPathHelper::DeleteFilesFromDirectory(dir.Path()), 1);
    EXPECT_FALSE(Exists(path));
}

// Deep trees, links swapped by a second thread, a chroot jail and an unprivileged user: these cases
// use Linux's own calls.
#if !defined(_WIN32)
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
#endif // !_WIN32
