// Events, threads (with forced ends) and critical sections of the platform layer.
#include "PlatformTestSupport.h"
#include "zoth/platform/Win32Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Polls until `done` holds; the 10 s bound keeps a loaded machine from failing.
template <class Pred> bool Eventually(Pred done) {
    for (auto end = Clock::now() + std::chrono::seconds(10); !done();
         std::this_thread::sleep_for(milliseconds(2)))
        if (Clock::now() > end) return false;
    return true;
}

// What a test thread shares with its test. `mode` picks where the thread parks: 0 waits on the gate,
// 1 sleeps for ever, 2 spins (no call into the system) until `release`.
struct Shared {
    int mode = 0;
    std::atomic<int> value{0};
    std::atomic<bool> unwound{false}, release{false};
    HANDLE gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ~Shared() { CloseHandle(gate); }
};

unsigned Park(void* arg) {
    auto* shared = static_cast<Shared*>(arg);
    struct UnwindMark {
        Shared* shared;
        ~UnwindMark() { shared->unwound = true; }
    } mark{shared};
    shared->value = 1;
    if (shared->mode == 0) WaitForSingleObject(shared->gate, INFINITE);
    while (shared->mode == 1)
        Sleep(5);
    while (shared->mode == 2 && !shared->release.load())
        std::this_thread::yield();
    shared->value = 2;
    return 3;
}

HANDLE Start(Shared& shared, int mode, unsigned* id = nullptr) {
    shared.mode = mode;
    HANDLE thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Park, &shared, 0, id));
    EXPECT_TRUE(Eventually([&] { return shared.value == 1; }));
    return thread;
}

DWORD ExitCode(HANDLE thread) {
    DWORD code = 0xDEAD;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    return code;
}

} // namespace

// Auto-reset: the wait that sees a signal takes it, and signals do not add up. Manual-reset: it stays
// signalled until reset.
TEST(PlatformEvent, AutoAndManualResetSignals) {
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual reset" : "auto reset");
        HANDLE event = CreateEventW(nullptr, manual, FALSE, manual ? L"ignored name" : nullptr);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT); // created non-signalled
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(SetEvent(event));
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(event, 0), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        EXPECT_TRUE(ResetEvent(event));
        auto start = Clock::now();
        EXPECT_EQ(WaitForSingleObject(event, 60), WAIT_TIMEOUT);
        EXPECT_GE(Clock::now() - start, milliseconds(55)); // a timed wait lasts its time-out
        EXPECT_TRUE(CloseHandle(event));
    }
    HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0); // created signalled
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    CloseHandle(event);
}

// An auto-reset event releases one infinite waiter per signal; a manual-reset one releases all.
TEST(PlatformEvent, WakesWaitersAcrossThreads) {
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual reset" : "auto reset");
        HANDLE event = CreateEventW(nullptr, manual, FALSE, nullptr);
        std::atomic<int> released{0};
        std::thread waiters[3];
        for (auto& t : waiters)
            t = std::thread([&] { released += WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0; });
        std::this_thread::sleep_for(milliseconds(50));
        for (int signal = 1; signal <= 3; ++signal) {
            SetEvent(event);
            ASSERT_TRUE(Eventually([&] { return released.load() >= (manual ? 3 : signal); }));
            std::this_thread::sleep_for(milliseconds(100));
            EXPECT_EQ(released.load(), manual ? 3 : signal);
        }
        for (auto& t : waiters)
            t.join();
        EXPECT_EQ(WaitForSingleObject(event, 0), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        CloseHandle(event);
    }
}

// One event behind two handles: one signal, and a waiter on the copy outlives the closed original.
TEST(PlatformEvent, DuplicateSharesTheEventAndOutlivesTheOriginal) {
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr), copy = nullptr, third = nullptr;
    HANDLE self = GetCurrentProcess();
    ASSERT_TRUE(DuplicateHandle(self, event, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
    ASSERT_NE(copy, event);
    SetEvent(event);
    EXPECT_EQ(WaitForSingleObject(copy, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    std::atomic<DWORD> result{WAIT_FAILED};
    std::thread waiter([&] { result = WaitForSingleObject(copy, INFINITE); });
    std::this_thread::sleep_for(milliseconds(30));
    ASSERT_TRUE(DuplicateHandle(self, event, self, &third, 0, FALSE, DUPLICATE_CLOSE_SOURCE));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_FAILED); // the source was closed
    SetEvent(third);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);
    CloseHandle(third);
    CloseHandle(copy);
}

TEST(PlatformThread, WaitExitCodeAndClosedHandle) {
    Shared shared, other;
    unsigned id = 0;
    HANDLE thread = Start(shared, 0, &id);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(WaitForSingleObject(thread, 30), WAIT_TIMEOUT);
    EXPECT_EQ(ExitCode(thread), STILL_ACTIVE);
    SetEvent(shared.gate);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(thread), 3u);                          // what the entry returned
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0); // an ended thread stays signalled
    EXPECT_TRUE(CloseHandle(thread));
    // A running thread outlives its closed handle.
    EXPECT_TRUE(CloseHandle(Start(other, 0)));
    SetEvent(other.gate);
    EXPECT_TRUE(Eventually([&] { return other.unwound.load(); }));
    EXPECT_EQ(other.value.load(), 2);
    std::this_thread::sleep_for(milliseconds(20)); // its last steps, before `other` goes
}

// Bad handles and arguments fail at once, never hang, never start anything.
TEST(PlatformThread, BadHandlesAndArgumentsFail) {
    Shared shared;
    int notAHandle = 0;
    EXPECT_FAILS_WITH(SetEvent(nullptr), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(WaitForSingleObject(&notAHandle, 10), WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_EQ(WaitForSingleObject(nullptr, INFINITE), WAIT_FAILED);
    HANDLE none = nullptr;
    EXPECT_FALSE(DuplicateHandle(GetCurrentProcess(), nullptr, GetCurrentProcess(), &none, 0, FALSE, 0));
    EXPECT_EQ(none, nullptr);
    EXPECT_FAILS_WITH(_beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr), 0u, ERROR_INVALID_PARAMETER);
    EXPECT_EQ(_beginthreadex(nullptr, 0, Park, &shared, 4 /* suspended */, nullptr), 0u);
    EXPECT_EQ(shared.value.load(), 0);
    EXPECT_FALSE(TerminateThread(shared.gate, 0)); // an event is no thread
    EXPECT_FAILS_WITH(InitializeCriticalSectionEx(nullptr, 0, 0), FALSE, ERROR_INVALID_PARAMETER);
}

// Termination parks a thread wherever it is (waiting, sleeping or spinning) without unwinding it:
// on return it is ended for the handle and never runs on, even when what held it lets go.
TEST(PlatformThread, TerminateParksWaitingSleepingOrSpinningThread) {
    for (int mode : {0, 1, 2}) {
        SCOPED_TRACE(mode);
        auto shared = std::make_unique<Shared>(); // freed only if the thread can no longer touch it
        HANDLE thread = Start(*shared, mode);
        auto start = Clock::now();
        EXPECT_TRUE(TerminateThread(thread, 0xFFFFFFFF));
        EXPECT_LT(Clock::now() - start, milliseconds(1500));
        EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0); // ended when the call returns
        EXPECT_EQ(ExitCode(thread), 0xFFFFFFFFu);
        SetEvent(shared->gate);
        shared->release = true;
        std::this_thread::sleep_for(milliseconds(100));
        EXPECT_EQ(shared->value.load(), 1);      // it never went past where it was
        EXPECT_FALSE(shared->unwound.load());    // and no frame of it was unwound
        EXPECT_TRUE(TerminateThread(thread, 5)); // an ended thread: nothing more happens
        EXPECT_EQ(ExitCode(thread), 0xFFFFFFFFu);
        CloseHandle(thread);
        static_cast<void>(shared.release()); // a parked thread keeps what it held: its stack points here
    }
}

TEST(PlatformCriticalSection, ReentrantForOwnerExclusiveForOthers) {
    CRITICAL_SECTION cs;
    ASSERT_TRUE(InitializeCriticalSectionEx(&cs, 4000, 0));
    EnterCriticalSection(&cs);
    EnterCriticalSection(&cs); // the owner enters again without blocking
    long counter = 0;          // plain on purpose: the thread sanitizer sees any unguarded access
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            EnterCriticalSection(&cs);
            ++counter;
            LeaveCriticalSection(&cs);
        }
    };
    std::thread a(work), b(work);
    for (int held = 2; held > 0; --held) {
        std::this_thread::sleep_for(milliseconds(50));
        EXPECT_EQ(counter, 0) << "held " << held << " times";
        LeaveCriticalSection(&cs);
    }
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000);
    DeleteCriticalSection(&cs);
    EXPECT_EQ(cs.Impl, nullptr);
}
