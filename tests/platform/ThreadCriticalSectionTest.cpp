#include "zoth/platform/Win32Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

TEST(PlatformCriticalSection, ReentrantForOwnerExclusiveForOthers) {
    CRITICAL_SECTION cs;
    ASSERT_TRUE(InitializeCriticalSectionEx(&cs, 0, 0));
    EnterCriticalSection(&cs);
    EnterCriticalSection(&cs); // the owner enters again without blocking

    std::atomic<bool> otherInside{false};
    std::thread other([&] {
        EnterCriticalSection(&cs);
        otherInside = true;
        LeaveCriticalSection(&cs);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(otherInside.load());
    LeaveCriticalSection(&cs);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(otherInside.load()); // still held once
    LeaveCriticalSection(&cs);
    other.join();
    EXPECT_TRUE(otherInside.load());
    DeleteCriticalSection(&cs);
    EXPECT_EQ(cs.Impl, nullptr);
}

TEST(PlatformCriticalSection, GuardsPlainData) {
    CRITICAL_SECTION cs;
    ASSERT_TRUE(InitializeCriticalSectionEx(&cs, 4000, 0));
    long counter = 0; // plain on purpose: the thread sanitizer sees any unguarded access
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            EnterCriticalSection(&cs);
            ++counter;
            LeaveCriticalSection(&cs);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000);
    DeleteCriticalSection(&cs);
}

TEST(PlatformCriticalSection, NullArgumentFails) {
    SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(InitializeCriticalSectionEx(nullptr, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    DeleteCriticalSection(nullptr); // no crash
}
