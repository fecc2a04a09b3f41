#include "zoth/platform/Win32Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct Shared {
    std::atomic<int> value{0};
    HANDLE gate = nullptr;
    std::atomic<bool> unwound{false};
    std::atomic<bool> release{false};
};

unsigned StoreAndReturn(void* arg) {
    static_cast<Shared*>(arg)->value = 42;
    return 7;
}

struct UnwindMark {
    Shared* shared;
    ~UnwindMark() { shared->unwound = true; }
};

unsigned WaitOnGate(void* arg) {
    auto* shared = static_cast<Shared*>(arg);
    UnwindMark mark{shared};
    shared->value = 1;
    WaitForSingleObject(shared->gate, INFINITE);
    shared->value = 2;
    return 0;
}

unsigned SleepForever(void* arg) {
    auto* shared = static_cast<Shared*>(arg);
    UnwindMark mark{shared};
    shared->value = 1;
    for (;;)
        Sleep(5);
}

unsigned SpinUntilReleased(void* arg) {
    auto* shared = static_cast<Shared*>(arg);
    shared->value = 1;
    while (!shared->release.load())
        std::this_thread::yield(); // no cancellation point
    shared->value = 2;
    return 3;
}

HANDLE Start(unsigned (*entry)(void*), void* arg, unsigned* id = nullptr) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, entry, arg, 0, id));
}

bool Eventually(const std::atomic<int>& value, int wanted) {
    auto end = Clock::now() + std::chrono::seconds(10);
    while (value.load() != wanted && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return value.load() == wanted;
}

} // namespace

TEST(PlatformThread, RunsEntryAndCanBeWaitedOn) {
    Shared shared;
    unsigned id = 0;
    HANDLE thread = Start(StoreAndReturn, &shared, &id);
    ASSERT_NE(thread, nullptr);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(shared.value.load(), 42);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 7u);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0); // an ended thread stays signalled
    EXPECT_TRUE(CloseHandle(thread));

    unsigned id2 = 0;
    HANDLE second = Start(StoreAndReturn, &shared, &id2);
    EXPECT_NE(id2, id);
    WaitForSingleObject(second, INFINITE);
    CloseHandle(second);
}

TEST(PlatformThread, RejectsBadArguments) {
    EXPECT_EQ(_beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    Shared shared;
    EXPECT_EQ(_beginthreadex(nullptr, 0, StoreAndReturn, &shared, 4 /* suspended */, nullptr), 0u);
    EXPECT_EQ(shared.value.load(), 0);
    EXPECT_FALSE(TerminateThread(nullptr, 0));
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(TerminateThread(event, 0)); // not a thread
    DWORD code = 0;
    EXPECT_FALSE(GetExitCodeThread(event, &code));
    CloseHandle(event);
}

TEST(PlatformThread, RunningThreadOutlivesItsClosedHandle) {
    Shared shared;
    shared.gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE thread = Start(WaitOnGate, &shared);
    ASSERT_TRUE(Eventually(shared.value, 1));
    EXPECT_EQ(WaitForSingleObject(thread, 30), WAIT_TIMEOUT);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_TRUE(CloseHandle(thread));
    SetEvent(shared.gate);
    EXPECT_TRUE(Eventually(shared.value, 2));
    // The thread's last step runs after the value is set; give it time before the gate goes.
    auto end = Clock::now() + std::chrono::seconds(10);
    while (!shared.unwound.load() && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_TRUE(shared.unwound.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    CloseHandle(shared.gate);
}

TEST(PlatformThread, TerminateEndsWaitingOrSleepingThreadWithoutWaiting) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer builds leave a terminated thread running";
#endif
    for (auto entry : {WaitOnGate, SleepForever}) {
        Shared shared;
        shared.gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        HANDLE thread = Start(entry, &shared);
        ASSERT_TRUE(Eventually(shared.value, 1));
        auto start = Clock::now();
        EXPECT_TRUE(TerminateThread(thread, 0xFFFFFFFF));
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(500));
        EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeThread(thread, &code));
        EXPECT_EQ(code, 0xFFFFFFFFu);
        EXPECT_TRUE(shared.unwound.load());      // its stack was unwound, so its objects were released
        EXPECT_EQ(shared.value.load(), 1);       // it never went past the wait
        EXPECT_TRUE(TerminateThread(thread, 5)); // an ended thread: nothing more happens
        GetExitCodeThread(thread, &code);
        EXPECT_EQ(code, 0xFFFFFFFFu);
        CloseHandle(thread);
        CloseHandle(shared.gate);
    }
}

TEST(PlatformThread, TerminateOfBusyThreadReturnsAtOnce) {
    // A thread that never reaches a cancellation point cannot be stopped on POSIX, but the caller
    // is not held up; the thread ends when it next returns.
    Shared shared;
    HANDLE thread = Start(SpinUntilReleased, &shared);
    ASSERT_TRUE(Eventually(shared.value, 1));
    auto start = Clock::now();
    EXPECT_TRUE(TerminateThread(thread, 9));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(WaitForSingleObject(thread, 50), WAIT_TIMEOUT);
    shared.release = true;
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 9u); // a terminated thread reports the code it was given
    CloseHandle(thread);
}
