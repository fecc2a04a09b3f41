// CFileHepler's times (local time, crossed-over argument order) and version numbers from PE images.
#include "FileTestUtil.h"
#include "PeBuilder.h"
#include "TempDir.h"
#include "zoth/file/CFileHepler.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>

using ZOTH::CFileHepler;

namespace {

// Runs the test body in a fixed time zone and restores the old one afterwards.
class ZoneGuard {
public:
    explicit ZoneGuard(const char* zone) {
        const char* old = std::getenv("TZ");
        m_had = old != nullptr;
        if (m_had) m_old = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneGuard() {
        if (m_had)
            setenv("TZ", m_old.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool m_had = false;
    std::string m_old;
};

std::string Text(const _SYSTEMTIME& t) {
    char buffer[64];
    snprintf(buffer, sizeof buffer, "%04u-%02u-%02u %02u:%02u:%02u", t.wYear, t.wMonth, t.wDay, t.wHour,
             t.wMinute, t.wSecond);
    return buffer;
}

} // namespace

TEST(FileTimes, CrossedOverOrderAndLocalTime) {
    ZoneGuard zone("JST-9"); // nine hours ahead of UTC, no summer time
    zoth_test::TempDir dir;
    std::string path = dir / "t.txt";
    zoth_test::Spit(path, "x");
    // Last write 2001-09-09 01:46:40 UTC, last access one day and one hour later.
    struct timespec times[2] = {{1000000000 + 90000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

    _SYSTEMTIME created = {}, written = {}, accessed = {};
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(path, &created, &written, &accessed), 1);
    EXPECT_EQ(Text(written), "2001-09-09 10:46:40");  // the write time in the third argument
    EXPECT_EQ(Text(accessed), "2001-09-10 11:46:40"); // the access time in the fourth
    EXPECT_GE(created.wYear, 2024);
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(path, nullptr, nullptr, nullptr), 1);
    _SYSTEMTIME onlyWritten = {};
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(path, nullptr, &onlyWritten, nullptr), 1);
    EXPECT_EQ(Text(onlyWritten), "2001-09-09 10:46:40");

    // A directory works too.
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(dir.Path(), &created, nullptr, nullptr), 1);

    // A missing path: 0, nothing created, nothing written.
    _SYSTEMTIME untouched = {};
    untouched.wYear = 1999;
    EXPECT_EQ(CFileHepler::GetFileTimeInfo(dir / "missing", &untouched, &untouched, &untouched), 0);
    EXPECT_EQ(untouched.wYear, 1999);
    EXPECT_FALSE(zoth_test::Exists(dir / "missing"));
}

TEST(FileTimes, CurrentProcessIsTheExecutable) {
    ZoneGuard zone("UTC0");
    struct stat st;
    ASSERT_EQ(::stat("/proc/self/exe", &st), 0);
    time_t seconds = st.st_mtim.tv_sec;
    struct tm parts;
    gmtime_r(&seconds, &parts);
    _SYSTEMTIME t = CFileHepler::GetCurrentProcessModifyTime();
    EXPECT_EQ(t.wYear, parts.tm_year + 1900);
    EXPECT_EQ(t.wMonth, parts.tm_mon + 1);
    EXPECT_EQ(t.wDay, parts.tm_mday);
    EXPECT_EQ(t.wHour, parts.tm_hour);
    EXPECT_EQ(t.wMinute, parts.tm_min);
    EXPECT_EQ(t.wSecond, parts.tm_sec);
    // An ELF program carries no version resource.
    EXPECT_EQ(CFileHepler::GetCurrentProcessFileVersion(), "");
}

TEST(FileVersion, PackedNumberCarriesTextDoesNot) {
    zoth_test::TempDir dir;
    zoth_test::Spit(dir / "a.dll", zoth_test::BuildPe({1, 2, 3, 4, false}));
    EXPECT_EQ(CFileHepler::GetFileVersion(dir / "a.dll"), 0x01020304u);
    EXPECT_EQ(CFileHepler::GetExeFileVersion(dir / "a.dll"), "1.2.3.4");

    zoth_test::Spit(dir / "win.dll", zoth_test::BuildPe({10, 0, 19041, 1, true}));
    EXPECT_EQ(CFileHepler::GetFileVersion(dir / "win.dll"), 0x0A4A6101u);
    EXPECT_EQ(CFileHepler::GetExeFileVersion(dir / "win.dll"), "10.0.19041.1");

    // Every part at its maximum: the text keeps them whole, the packed number wraps in 32 bits.
    zoth_test::Spit(dir / "max.exe", zoth_test::BuildPe({65535, 65535, 65535, 65535, false}));
    EXPECT_EQ(CFileHepler::GetExeFileVersion(dir / "max.exe"), "65535.65535.65535.65535");
    uint32_t packed = ((65535u * 256 + 65535u) * 256 + 65535u) * 256 + 65535u;
    EXPECT_EQ(CFileHepler::GetFileVersion(dir / "max.exe"), packed);

    // No version resource, no file, a damaged image: 0 and "".
    zoth_test::Spit(dir / "plain.txt", "no version here");
    std::string damaged = zoth_test::BuildPe();
    damaged.resize(damaged.size() - 1);
    zoth_test::Spit(dir / "cut.dll", damaged);
    for (const std::string& name :
         {std::string("plain.txt"), std::string("missing.dll"), std::string("cut.dll")}) {
        EXPECT_EQ(CFileHepler::GetFileVersion(dir / name), 0u) << name;
        EXPECT_EQ(CFileHepler::GetExeFileVersion(dir / name), "") << name;
    }
    EXPECT_FALSE(zoth_test::Exists(dir / "missing.dll"));
}
