// The layer's path calls: combining, cutting, existence, the executable and the special folders.
#include "TempDir.h"
#include "zoth/platform/Win32Path.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string Combine(const char* dir, const char* file) {
    char buffer[MAX_PATH + 1] = {};
    char* result = PathCombineA(buffer, dir, file);
    return result == nullptr ? "<null>" : std::string(result);
}

std::string Cut(std::string path, BOOL* cut = nullptr) {
    path.push_back('\0');
    BOOL result = PathRemoveFileSpecA(path.data());
    if (cut != nullptr) *cut = result;
    return path.c_str();
}

std::wstring Wide(const std::string& narrow) {
    return std::wstring(narrow.begin(), narrow.end()); // ASCII only
}

} // namespace

TEST(PlatformPath, CombineJoinsResolvesAndLimits) {
    EXPECT_EQ(Combine("/a/b", "c.txt"), "/a/b/c.txt");
    EXPECT_EQ(Combine("/a/b/", "c.txt"), "/a/b/c.txt"); // one separator
    EXPECT_EQ(Combine("/a/b", "./c/../d"), "/a/b/d");
    EXPECT_EQ(Combine("/a/b", "../../../x"), "/x"); // not above the root
    EXPECT_EQ(Combine("/a/b", "/etc/passwd"), "/etc/passwd");
    EXPECT_EQ(Combine("/a/./b/..", nullptr), "/a");
    EXPECT_EQ(Combine(nullptr, "rel/./x"), "rel/x");
    EXPECT_EQ(Combine("rel", "../../up"), "../up");
    EXPECT_EQ(Combine("/a", "b/"), "/a/b/");
    EXPECT_EQ(Combine("/", ".."), "/");
    EXPECT_EQ(Combine(nullptr, nullptr), "<null>");

    // The buffer may be the first part itself.
    char buffer[MAX_PATH + 1] = "/opt/app";
    EXPECT_EQ(PathCombineA(buffer, buffer, "data"), buffer);
    EXPECT_STREQ(buffer, "/opt/app/data");

    // An outcome of MAX_PATH characters or more does not fit; one less does.
    std::string longDir = "/" + std::string(MAX_PATH - 4, 'd');
    EXPECT_TRUE(Combine(longDir.c_str(), "x") == longDir + "/x"); // MAX_PATH - 1 characters
    char full[MAX_PATH + 1] = "junk";
    EXPECT_EQ(PathCombineA(full, longDir.c_str(), "xy"), nullptr);
    EXPECT_STREQ(full, "");
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);

    wchar_t wide[MAX_PATH + 1] = {};
    ASSERT_NE(PathCombineW(wide, L"/a/\x00e9", L"../b\x4e2d"), nullptr);
    EXPECT_EQ(std::wstring(wide), L"/a/b\x4e2d");
    std::wstring longWide(MAX_PATH, L'w');
    EXPECT_EQ(PathCombineW(wide, L"/", longWide.c_str()), nullptr);
}

TEST(PlatformPath, RemoveFileSpecCutsTheLastElement) {
    BOOL cut = FALSE;
    EXPECT_EQ(Cut("/a/b/c.txt", &cut), "/a/b");
    EXPECT_TRUE(cut);
    EXPECT_EQ(Cut("/a/b/"), "/a/b");
    EXPECT_EQ(Cut("/a"), "/");
    EXPECT_EQ(Cut("/", &cut), "/");
    EXPECT_FALSE(cut);
    EXPECT_EQ(Cut("name", &cut), "");
    EXPECT_TRUE(cut);
    EXPECT_EQ(Cut("", &cut), "");
    EXPECT_FALSE(cut);
    EXPECT_FALSE(PathRemoveFileSpecA(nullptr));
    wchar_t wide[] = L"/x/\x00e9\x00e9";
    EXPECT_TRUE(PathRemoveFileSpecW(wide));
    EXPECT_EQ(std::wstring(wide), L"/x");
}

TEST(PlatformPath, ExistenceAndShortNames) {
    zoth_test::TempDir dir;
    std::ofstream(dir / "f") << "x";
    EXPECT_TRUE(PathFileExistsA((dir / "f").c_str()));
    EXPECT_TRUE(PathFileExistsA(dir.Path().c_str()));
    EXPECT_FALSE(PathFileExistsA((dir / "none").c_str()));
    EXPECT_FALSE(PathFileExistsA(nullptr));
    EXPECT_TRUE(PathFileExistsW(Wide(dir / "f").c_str()));
    EXPECT_FALSE(PathFileExistsW(Wide(dir / "none").c_str()));

    std::wstring name = Wide(dir.Path()) + L"/\x00fc";
    std::ofstream(dir / "\xc3\xbc") << "";
    EXPECT_TRUE(PathFileExistsW(name.c_str()));
    wchar_t shortName[MAX_PATH] = {};
    EXPECT_EQ(GetShortPathNameW(name.c_str(), shortName, MAX_PATH), name.size());
    EXPECT_EQ(std::wstring(shortName), name);
    EXPECT_EQ(GetShortPathNameW(name.c_str(), shortName, 3), name.size() + 1); // the size needed
    EXPECT_EQ(GetShortPathNameW((name + L"x").c_str(), shortName, MAX_PATH), 0u);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(PlatformPath, ModuleIsTheExecutable) {
    char buffer[MAX_PATH + 1] = {};
    DWORD n = GetModuleFileNameA(nullptr, buffer, MAX_PATH);
    ASSERT_GT(n, 0u);
    EXPECT_EQ(std::string(buffer).size(), n);
    // The test program, not the library it loads.
    EXPECT_NE(std::string(buffer).find("platform_tests"), std::string::npos) << buffer;
    char self[MAX_PATH + 1] = {};
    ASSERT_GT(::readlink("/proc/self/exe", self, MAX_PATH), 0);
    EXPECT_STREQ(buffer, self);

    char small[5];
    EXPECT_EQ(GetModuleFileNameA(nullptr, small, sizeof small), 5u);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(small), std::string(buffer, 4));
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
    std::string savedHome = getenv("HOME") ? getenv("HOME") : "";
    const char* savedConfig = getenv("XDG_CONFIG_HOME");
    std::string savedConfigValue = savedConfig ? savedConfig : "";
    setenv("HOME", home.Path().c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");

    auto folder = [](int csidl) {
        PIDLIST_ABSOLUTE list = nullptr;
        if (SHGetSpecialFolderLocation(nullptr, csidl, &list) != S_OK || list == nullptr)
            return std::string("<none>");
        wchar_t path[MAX_PATH] = {};
        BOOL ok = SHGetPathFromIDListW(list, path);
        ILFree(list);
        if (!ok) return std::string("<fail>");
        std::string narrow;
        for (const wchar_t* p = path; *p; ++p)
            narrow += static_cast<char>(*p);
        return narrow;
    };
    EXPECT_EQ(folder(CSIDL_PROFILE), home.Path());
    EXPECT_EQ(folder(CSIDL_APPDATA), home / ".config");
    EXPECT_EQ(folder(CSIDL_LOCAL_APPDATA), home / ".local/share");
    EXPECT_EQ(folder(CSIDL_DESKTOPDIRECTORY), home / "Desktop");
    EXPECT_EQ(folder(CSIDL_PERSONAL), home / "Documents");
    EXPECT_EQ(folder(0x7f), "<none>");

    // user-dirs.dirs moves the user folders.
    ASSERT_EQ(::mkdir((home / ".config").c_str(), 0755), 0);
    std::ofstream(home / ".config/user-dirs.dirs") << "# comment\nXDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
                                                      "XDG_DOCUMENTS_DIR=\"/srv/docs\"\n";
    EXPECT_EQ(folder(CSIDL_DESKTOP), home / "Schreibtisch");
    EXPECT_EQ(folder(CSIDL_PERSONAL), "/srv/docs");
    setenv("XDG_DATA_HOME", "/var/data", 1);
    EXPECT_EQ(folder(CSIDL_LOCAL_APPDATA), "/var/data");

    PIDLIST_ABSOLUTE list = reinterpret_cast<PIDLIST_ABSOLUTE>(&home);
    EXPECT_EQ(SHGetSpecialFolderLocation(nullptr, 0x7f, &list), E_INVALIDARG);
    EXPECT_EQ(list, nullptr);

    setenv("HOME", savedHome.c_str(), 1);
    unsetenv("XDG_DATA_HOME");
    if (savedConfig) setenv("XDG_CONFIG_HOME", savedConfigValue.c_str(), 1);
}
