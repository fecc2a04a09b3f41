#include "zoth/platform/Win32Types.h"

#include <gtest/gtest.h>

#include <thread>

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
    SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(CloseHandle(nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(PlatformCore, SleepAndTickCountAgree) {
    DWORD before = GetTickCount();
    Sleep(50);
    DWORD elapsed = GetTickCount() - before; // 32-bit arithmetic survives a wrap
    EXPECT_GE(elapsed, 45u);
    EXPECT_LT(elapsed, 5000u);
}

TEST(PlatformCore, TypesHaveWin32Sizes) {
    static_assert(sizeof(DWORD) == 4 && sizeof(WORD) == 2 && sizeof(LONG) == 4);
    static_assert(sizeof(__int64) == 8 && sizeof(unsigned __int64) == 8);
    static_assert(sizeof(_SYSTEMTIME) == 16 && sizeof(_FILETIME) == 8);
    EXPECT_NE(INVALID_HANDLE_VALUE, nullptr);
}
