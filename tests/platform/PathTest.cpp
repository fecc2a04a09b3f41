// The layer's path calls: combining, cutting, existence, the executable and the special folders.
#include "PlatformTestSupport.h"
#include "TempDir.h"
#include "zoth/platform/Win32Path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <tuple>

namespace {

std::wstring Wide(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

} // namespace

// One separator, "." and ".." resolved (never above the root), an absolute second part wins, and an
// outcome of MAX_PATH characters or more gives null and an empty buffer.
TEST(PlatformPath, CombineJoinsResolvesAndLimits) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"/a/b", "c.txt", "/a/b/c.txt"},
        {"/a/b/", "c.txt", "/a/b/c.txt"},
        {"/a/b", "./c/../d", "/a/b/d"},
        {"/a/b", "../../../x", "/x"},
        {"/a/b", "/etc/passwd", "/etc/passwd"},
        {"/a/./b/..", nullptr, "/a"},
        {nullptr, "rel/./x", "rel/x"},
        {"rel", "../../up", "../up"},
        {"/a", "b/", "/a/b/"},
        {"/", "..", "/"},
        {nullptr, nullptr, nullptr},
    };
    for (auto [dir, file, expected] : cases) {
        char buffer[MAX_PATH + 1] = {};
        EXPECT_STREQ(PathCombineA(buffer, dir, file), expected)
            << (dir ? dir : "null") << " + " << (file ? file : "null");
    }
    char buffer[MAX_PATH + 1] = "/opt/app"; // the buffer may be the first part itself
    EXPECT_EQ(PathCombineA(buffer, buffer, "data"), buffer);
    EXPECT_STREQ(buffer, "/opt/app/data");

    std::string longDir = "/" + std::string(MAX_PATH - 4, 'd');
    ASSERT_NE(PathCombineA(buffer, longDir.c_str(), "x"), nullptr); // MAX_PATH - 1 characters fit
    EXPECT_EQ(buffer, longDir + "/x");
    EXPECT_EQ(PathCombineA(buffer, longDir.c_str(), "xy"), nullptr);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);

    wchar_t wide[MAX_PATH + 1] = {};
    ASSERT_NE(PathCombineW(wide, L"/a/\x00e9", L"../b\x4e2d"), nullptr);
    EXPECT_EQ(std::wstring(wide), L"/a/b\x4e2d");
    EXPECT_EQ(PathCombineW(wide, L"/", std::wstring(MAX_PATH, L'w').c_str()), nullptr);
}

TEST(PlatformPath, RemoveFileSpecCutsTheLastElement) {
    const std::tuple<std::string, std::string, BOOL> cases[] = {
        {"/a/b/c.txt", "/a/b", TRUE}, {"/a/b/", "/a/b", TRUE}, {"/a", "/", TRUE}, {"/", "/", FALSE},
        {"name", "", TRUE},           {"", "", FALSE}};
    for (auto [path, expected, cut] : cases) {
        std::string buffer = path;
        EXPECT_EQ(PathRemoveFileSpecA(buffer.data()), cut) << path;
        EXPECT_EQ(buffer.c_str(), expected) << path;
    }
    EXPECT_FALSE(PathRemoveFileSpecA(nullptr));
    wchar_t wide[] = L"/x/\x00e9\x00e9";
    EXPECT_TRUE(PathRemoveFileSpecW(wide));
    EXPECT_EQ(std::wstring(wide), L"/x");
}

TEST(PlatformPath, ExistenceAndShortNames) {
    zoth_test::TempDir dir;
    std::ofstream(dir / "\xc3\xbc") << "";
    std::wstring name = Wide(dir.Path()) + L"/\x00fc"; // ü, stored as UTF-8
    EXPECT_TRUE(PathFileExistsA((dir / "\xc3\xbc").c_str()));
    EXPECT_TRUE(PathFileExistsA(dir.Path().c_str()));
    EXPECT_FALSE(PathFileExistsA((dir / "none").c_str()));
    EXPECT_FALSE(PathFileExistsA(nullptr));
    EXPECT_TRUE(PathFileExistsW(name.c_str()));
    EXPECT_FALSE(PathFileExistsW(Wide(dir / "none").c_str()));

    wchar_t shortName[MAX_PATH] = {};
    EXPECT_EQ(GetShortPathNameW(name.c_str(), shortName, MAX_PATH), name.size());
    EXPECT_EQ(std::wstring(shortName), name);
    EXPECT_EQ(GetShortPathNameW(name.c_str(), shortName, 3), name.size() + 1); // the size needed
    EXPECT_FAILS_WITH(GetShortPathNameW((name + L"x").c_str(), shortName, MAX_PATH), 0u,
                      ERROR_FILE_NOT_FOUND);
}

TEST(PlatformPath, ModuleIsTheExecutableNotTheLibrary) {
    char self[MAX_PATH + 1] = {}, buffer[MAX_PATH + 1] = {}, small[5];
    ASSERT_GT(::readlink("/proc/self/exe", self, MAX_PATH), 0);
    DWORD n = GetModuleFileNameA(nullptr, buffer, MAX_PATH);
    EXPECT_STREQ(buffer, self);
    EXPECT_EQ(n, std::string(self).size());
    EXPECT_FAILS_WITH(GetModuleFileNameA(nullptr, small, sizeof small), 5u, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(small), std::string(self, 4)); // cut, with its terminator
    EXPECT_EQ(GetModuleFileNameA(reinterpret_cast<HMODULE>(buffer), buffer, MAX_PATH), 0u);
    wchar_t wide[MAX_PATH + 1] = {};
    EXPECT_EQ(GetModuleFileNameW(nullptr, wide, MAX_PATH), n);
    EXPECT_EQ(std::wstring(wide), Wide(self)); // the test's path is ASCII

    char system[MAX_PATH] = {};
    UINT length = GetSystemDirectoryA(system, MAX_PATH);
    EXPECT_EQ(std::string(system).size(), length);
    EXPECT_TRUE(PathFileExistsA(system));
    EXPECT_EQ(GetSystemDirectoryA(system, 2), length + 1);
}

TEST(PlatformPath, SpecialFoldersFollowXdg) {
    zoth_test::TempDir home;
    zoth_test::EnvScope homeScope("HOME", home.Path().c_str()), config("XDG_CONFIG_HOME", nullptr),
        data("XDG_DATA_HOME", nullptr);
    auto folder = [](int csidl) {
        PIDLIST_ABSOLUTE list = nullptr;
        if (SHGetSpecialFolderLocation(nullptr, csidl, &list) != S_OK || list == nullptr)
            return std::string("<none>");
        wchar_t path[MAX_PATH] = {};
        BOOL ok = SHGetPathFromIDListW(list, path);
        ILFree(list);
        return ok ? std::string(path, path + wcslen(path)) : std::string("<fail>"); // ASCII paths
    };
    EXPECT_EQ(folder(CSIDL_PROFILE), home.Path());
    EXPECT_EQ(folder(CSIDL_APPDATA), home / ".config");
    EXPECT_EQ(folder(CSIDL_LOCAL_APPDATA), home / ".local/share");
    EXPECT_EQ(folder(CSIDL_DESKTOPDIRECTORY), home / "Desktop");
    EXPECT_EQ(folder(CSIDL_PERSONAL), home / "Documents");

    // user-dirs.dirs moves the user folders; XDG_DATA_HOME moves the local data.
    ASSERT_EQ(::mkdir((home / ".config").c_str(), 0755), 0);
    std::ofstream(home / ".config/user-dirs.dirs") << "# comment\nXDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
                                                      "XDG_DOCUMENTS_DIR=\"/srv/docs\"\n";
    EXPECT_EQ(folder(CSIDL_DESKTOP), home / "Schreibtisch");
    EXPECT_EQ(folder(CSIDL_PERSONAL), "/srv/docs");
    zoth_test::EnvScope moved("XDG_DATA_HOME", "/var/data");
    EXPECT_EQ(folder(CSIDL_LOCAL_APPDATA), "/var/data");
    PIDLIST_ABSOLUTE list = reinterpret_cast<PIDLIST_ABSOLUTE>(&home);
    EXPECT_EQ(SHGetSpecialFolderLocation(nullptr, 0x7f, &list), E_INVALIDARG);
    EXPECT_EQ(list, nullptr);
}
