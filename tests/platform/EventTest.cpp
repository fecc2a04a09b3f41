#include "zoth/platform/Win32Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// Polls `done` until it holds or `limit` passes; generous limits keep a loaded machine from failing.
template <class Pred> bool Eventually(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace

TEST(PlatformEvent, AutoResetSignalIsConsumedAndDoesNotAddUp) {
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT); // created non-signalled
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT); // the wait took the signal

    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT); // three signals counted as one
    EXPECT_TRUE(CloseHandle(event));
}

TEST(PlatformEvent, ManualResetStaysSignalledUntilReset) {
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, L"ignored name");
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(event));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    CloseHandle(event);

    HANDLE initiallySet = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WaitForSingleObject(initiallySet, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(initiallySet, 0), WAIT_TIMEOUT);
    CloseHandle(initiallySet);
}

TEST(PlatformEvent, TimedWaitLastsAtLeastItsTimeOut) {
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitForSingleObject(event, 60), WAIT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(55));
    CloseHandle(event);
}

TEST(PlatformEvent, WakesWaitersAcrossThreads) {
    // An auto-reset event releases one infinite waiter per signal; a manual-reset one releases all.
    HANDLE autoEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> released{0};
    std::thread a([&] {
        if (WaitForSingleObject(autoEvent, INFINITE) == WAIT_OBJECT_0) ++released;
    });
    std::thread b([&] {
        if (WaitForSingleObject(autoEvent, INFINITE) == WAIT_OBJECT_0) ++released;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    SetEvent(autoEvent);
    ASSERT_TRUE(Eventually([&] { return released.load() >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(released.load(), 1);
    SetEvent(autoEvent);
    a.join();
    b.join();
    EXPECT_EQ(released.load(), 2);
    EXPECT_EQ(WaitForSingleObject(autoEvent, 0), WAIT_TIMEOUT);
    CloseHandle(autoEvent);

    HANDLE manualEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> woken{0};
    std::thread waiters[3];
    for (auto& t : waiters)
        t = std::thread([&] {
            if (WaitForSingleObject(manualEvent, INFINITE) == WAIT_OBJECT_0) ++woken;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    SetEvent(manualEvent);
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(woken.load(), 3);
    CloseHandle(manualEvent);
}

TEST(PlatformEvent, BadHandlesFailCleanly) {
    SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(SetEvent(nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    int notAHandle = 0;
    EXPECT_FALSE(SetEvent(&notAHandle));
    EXPECT_EQ(WaitForSingleObject(&notAHandle, 10), WAIT_FAILED);
    EXPECT_EQ(WaitForSingleObject(nullptr, INFINITE), WAIT_FAILED); // no hang
    EXPECT_FALSE(ResetEvent(nullptr));
}

TEST(PlatformEvent, DuplicateSharesTheEventAndOutlivesTheOriginal) {
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE copy = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), &copy, 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, event);
    SetEvent(event);
    EXPECT_EQ(WaitForSingleObject(copy, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT); // one event, one signal

    // A waiter on the duplicate is released after the original handle is gone.
    std::atomic<DWORD> result{WAIT_FAILED};
    std::thread waiter([&] { result = WaitForSingleObject(copy, INFINITE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    HANDLE third = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), &third, 0, FALSE,
                                DUPLICATE_CLOSE_SOURCE));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_FAILED); // the source was closed
    SetEvent(third);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);
    CloseHandle(third);
    CloseHandle(copy);

    HANDLE none = nullptr;
    EXPECT_FALSE(DuplicateHandle(GetCurrentProcess(), nullptr, GetCurrentProcess(), &none, 0, FALSE, 0));
    EXPECT_EQ(none, nullptr);
}
