// Last error, handles, ticks, the measuring formatters and GUIDs of the platform layer.
#include "PlatformTestSupport.h"
#include "zoth/platform/Win32Format.h"
#include "zoth/platform/Win32Guid.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>

// Records shared with Windows code must keep their Win32 layout.
static_assert(sizeof(DWORD) == 4 && sizeof(WORD) == 2 && sizeof(LONG) == 4 && sizeof(__int64) == 8);
static_assert(sizeof(_SYSTEMTIME) == 16 && sizeof(_FILETIME) == 8 && sizeof(GUID) == 16);

namespace {

// The length `format` with the arguments would have, through _vscprintf or _vscwprintf.
template <class Char> int Measure(const Char* format, ...) {
    va_list args;
    va_start(args, format);
    int n;
    if constexpr (sizeof(Char) == 1)
        n = _vscprintf(format, args);
    else
        n = _vscwprintf(format, args);
    va_end(args);
    return n;
}

} // namespace

TEST(PlatformCore, LastErrorIsPerThread) {
    SetLastError(ERROR_ACCESS_DENIED);
    DWORD seenByOther = 12345;
    std::thread other([&] {
        seenByOther = GetLastError();
        SetLastError(ERROR_FILE_NOT_FOUND);
    });
    other.join();
    EXPECT_EQ(seenByOther, ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST(PlatformCore, CloseHandleRejectsNullAndInvalid) {
    EXPECT_FAILS_WITH(CloseHandle(nullptr), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(CloseHandle(INVALID_HANDLE_VALUE), FALSE, ERROR_INVALID_HANDLE);
}

TEST(PlatformCore, SleepAndTickCountAgree) {
    DWORD before = GetTickCount();
    Sleep(50);
    DWORD elapsed = GetTickCount() - before; // 32-bit arithmetic survives a wrap
    EXPECT_GE(elapsed, 45u);
    EXPECT_LT(elapsed, 5000u);
}

TEST(PlatformFormat, MeasuresCharactersWithoutTerminator) {
    EXPECT_EQ(Measure(""), 0);
    EXPECT_EQ(Measure("%d-%s", 12345, "abc"), 9);
    EXPECT_EQ(Measure<char>(nullptr), -1);
    EXPECT_EQ(Measure(L"%d-%ls", 12345, L"\u4e2d\u6587"), 8) << "wide characters, not bytes";
    EXPECT_EQ(Measure(L"%s", "narrow"), 6);
    std::wstring big(300000, L'x');
    EXPECT_EQ(Measure(L"%ls%ls", big.c_str(), big.c_str()), 600000);
    EXPECT_EQ(Measure<wchar_t>(nullptr), -1);
}

// Version 4 with the RFC 4122 variant, all distinct, and each of the 122 random bits set in about half
// of them: a stuck bit or a repeating source shows.
TEST(PlatformGuid, VersionFourDistinctAndEveryRandomBitVaries) {
    EXPECT_EQ(CoCreateGuid(nullptr), E_INVALIDARG);
    const int rounds = 2000;
    std::set<std::string> seen;
    int ones[128] = {}, varying = 0;
    for (int i = 0; i < rounds; ++i) {
        GUID g = {};
        ASSERT_EQ(CoCreateGuid(&g), S_OK);
        EXPECT_EQ(g.Data3 >> 12, 4);
        EXPECT_EQ(g.Data4[0] >> 6, 2);
        std::string raw(reinterpret_cast<const char*>(&g), sizeof g);
        seen.insert(raw);
        for (int bit = 0; bit < 128; ++bit)
            ones[bit] += (raw[bit / 8] >> (bit % 8)) & 1;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(rounds));
    for (int count : ones)
        varying += count > rounds / 4 && count < rounds * 3 / 4;
    EXPECT_EQ(varying, 122);
}
