#include "zoth/platform/Win32Format.h"

#include <gtest/gtest.h>

#include <string>

namespace {
int MeasureA(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int n = _vscprintf(format, args);
    va_end(args);
    return n;
}
int MeasureW(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    int n = _vscwprintf(format, args);
    va_end(args);
    return n;
}
} // namespace

TEST(PlatformFormat, MeasuresWithoutTerminator) {
    EXPECT_EQ(MeasureA(""), 0);
    EXPECT_EQ(MeasureA("%d-%s", 12345, "abc"), 9);
    EXPECT_EQ(MeasureA(nullptr), -1);
    EXPECT_EQ(MeasureW(L""), 0);
    EXPECT_EQ(MeasureW(L"%d-%ls", 12345, L"\u4e2d\u6587"), 8) << "counts wide characters, not bytes";
    EXPECT_EQ(MeasureW(L"%s", "narrow"), 6);
    std::wstring big(300000, L'x');
    EXPECT_EQ(MeasureW(L"%ls%ls", big.c_str(), big.c_str()), 600000);
    EXPECT_EQ(MeasureW(nullptr), -1);
}
