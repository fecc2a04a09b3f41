// CPathHelper's path operations: names, joining, the executable's folder and the special folders.
#include "FileTestUtil.h"
#include "TempDir.h"
#include "zoth/file/CPathHelper.h"
#include "zoth/platform/Win32Path.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>

using ZOTH::CPathHelper;

namespace {

std::string ExecutablePath() {
    char buffer[PATH_MAX + 1] = {};
    ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

std::wstring Wide(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

} // namespace

TEST(FilePaths, NamesAndJoins) {
    EXPECT_EQ(CPathHelper::GetFileNameByPath("a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("/x/a.txt"), "a.txt");
    EXPECT_EQ(CPathHelper::GetFileNameByPath("/x/"), "");
    EXPECT_EQ(CPathHelper::GetFileNameByPath(""), "");
    // Only the platform separator counts.
    EXPECT_EQ(CPathHelper::GetFileNameByPath("C:\\x\\a.txt"), "C:\\x\\a.txt");

    EXPECT_EQ(CPathHelper::GetCombinPath("/base/dir", "sub/file.txt"), "/base/dir/sub/file.txt");
    EXPECT_EQ(CPathHelper::GetCombinPath("/base/dir/", "../x"), "/base/x");
    EXPECT_EQ(CPathHelper::GetCombinPath("/base", "/abs/path"), "/abs/path");
    EXPECT_EQ(CPathHelper::GetCombinPath(L"/base", L"./w\x00e9"), L"/base/w\x00e9");
    // Past MAX_PATH: the empty string, in both widths.
    std::string longName(MAX_PATH, 'n');
    EXPECT_EQ(CPathHelper::GetCombinPath("/base", longName), "");
    EXPECT_EQ(CPathHelper::GetCombinPath(L"/base", Wide(longName)), L"");
    EXPECT_EQ(CPathHelper::GetSystemDeskPath(), "/");
}

TEST(FilePaths, ExecutableNotLibrary) {
    std::string exe = ExecutablePath();
    EXPECT_EQ(CPathHelper::GetExePath(), exe);
    EXPECT_EQ(CPathHelper::GetExeDir(), exe.substr(0, exe.rfind('/')));
    // The library lies in another folder than this test program.
    Dl_info info;
    ASSERT_NE(::dladdr(reinterpret_cast<void*>(&CPathHelper::GetExeDir), &info), 0);
    std::string library = info.dli_fname;
    EXPECT_NE(library.find("ZOTHCommonDll"), std::string::npos) << library;
    EXPECT_NE(CPathHelper::GetExeDir(), library.substr(0, library.rfind('/')));
}

TEST(FilePaths, BesideTheExecutable) {
    std::string exeDir = CPathHelper::GetExeDir();
    ASSERT_FALSE(exeDir.empty());
    std::string name = "zoth-file-test-" + std::to_string(::getpid());
    std::string full = exeDir + "/" + name;

    std::string out = "untouched";
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name, out), 0);
    EXPECT_EQ(out, "untouched");
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, false), 0);
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(zoth_test::Exists(full));

    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1);
    EXPECT_EQ(out, full);
    struct stat st;
    ASSERT_EQ(::stat(full.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name, out, true), 1); // present now

    // Two missing levels are not created.
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + "/a/b", out, true), 0);
    EXPECT_FALSE(zoth_test::Exists(full + "/a"));

    // A name of several elements, and ".." resolved on the way.
    zoth_test::Spit(full + "/f.txt", "x");
    std::string found;
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name + "/f.txt", found), 1);
    EXPECT_EQ(found, full + "/f.txt");
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(name + "/../" + name + "/f.txt", found), 1);
    EXPECT_EQ(found, full + "/f.txt");
    // A file counts as present for the folder operation.
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(name + "/f.txt", found, false), 1);

    std::wstring wideOut = L"untouched";
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(Wide(name + "/none"), wideOut), 0);
    EXPECT_EQ(wideOut, L"untouched");
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(Wide(name + "/f.txt"), wideOut), 1);
    EXPECT_EQ(wideOut, Wide(full + "/f.txt"));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(Wide(name + "/w"), wideOut, true), 1);
    EXPECT_TRUE(zoth_test::Exists(full + "/w"));
    EXPECT_EQ(CPathHelper::GetFolderPathFromCurrentExePath(Wide(name + "/x/y"), wideOut, true), 0);

    // An outcome past MAX_PATH finds nothing.
    EXPECT_EQ(CPathHelper::GetFilePathFromFileDir(std::string(MAX_PATH, 'p'), found), 0);

    ::unlink((full + "/f.txt").c_str());
    ::rmdir((full + "/w").c_str());
    ::rmdir(full.c_str());
}

TEST(FilePaths, SpecialFoldersInShortForm) {
    zoth_test::TempDir home;
    std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("HOME", home.Path().c_str(), 1);
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::string savedConfig = config ? config : "";
    unsetenv("XDG_CONFIG_HOME");

    ASSERT_EQ(::mkdir((home / "Documents").c_str(), 0755), 0);
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_PERSONAL), Wide(home / "Documents"));
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_PROFILE), Wide(home.Path()));
    // The desktop folder does not exist: its short form cannot be had, so the result is empty.
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(CSIDL_DESKTOPDIRECTORY), L"");
    EXPECT_EQ(CPathHelper::GetSpecialFolderDirW(0x7f), L"");

    setenv("HOME", savedHome.c_str(), 1);
    if (config) setenv("XDG_CONFIG_HOME", savedConfig.c_str(), 1);
}
