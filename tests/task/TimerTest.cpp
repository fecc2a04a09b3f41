// The event timer (CTimerBase) and the loop timer (CThreadTimer).
#include "TaskTestSupport.h"
#include "zoth/task/CThreadTimer.h"
#include "zoth/task/CTimerBase.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>

using namespace task_test;

namespace {

// Ticks every m_nTimerInterval ms until the wake event, m_bTimerExit or *exitFlag tells it to go. It
// copies the wake handle at its start, so it never reads a field that the destructor is changing.
class Ticker : public ZOTH::CTimerBase {
public:
    std::atomic<int> passes{0}, ticks{0}, wakes{0};
    std::atomic<bool> waiting{false};

    Ticker() = default;
    Ticker(const Ticker& other) : CTimerBase(other) {}
    void ThreadWork(bool* exitFlag) override {
        ++passes;
        HANDLE wake = m_hTimerWakeEvent;
        for (unsigned interval = m_nTimerInterval;; ++ticks) {
            waiting = true;
            DWORD result = WaitForSingleObject(wake, interval);
            waiting = false;
            if (result == WAIT_OBJECT_0) ++wakes;
            if (Load(m_bTimerExit) || Load(*exitFlag) || result == WAIT_OBJECT_0) return;
        }
    }
    using CTimerBase::BreakTimer;
    using CTimerBase::ClearEvents;
    using CTimerBase::InitEvents;
    HANDLE Wake() const { return m_hTimerWakeEvent; }
    HANDLE TimerStop() const { return m_hTimerStopEvent; }
    HANDLE Thread() const { return m_hThread; }
    bool TimerExit() const { return Load(m_bTimerExit); }
};

class Counter : public ZOTH::CThreadTimer {
public:
    std::atomic<int> calls{0};
    std::atomic<std::condition_variable*> notifyInAction{nullptr};
    void OnTimer() override {
        if (std::condition_variable* cond = notifyInAction.load())
            cond->notify_all(); // the loop is not in an exit wait now
        ++calls;
    }
    void Use(std::mutex* mutex, std::condition_variable* cond, unsigned pause) {
        SetGlobalExitMutex(mutex);
        SetGlobalConditionVariable(cond);
        SetTimerDuringTime(pause);
    }
};

// Notifies `cond` every 2 ms until no loop of `timers` runs; false if that takes over 10 s.
bool EndAll(std::condition_variable& cond, std::initializer_list<Counter*> timers) {
    return Eventually([&] {
        cond.notify_all();
        for (Counter* t : timers)
            if (t->GetRunningLoopCount() != 0) return false;
        return true;
    });
}

} // namespace

TEST(TaskTimer, FirstPassComesWithoutStartAndBreakTimerEndsOnlyThePass) {
    Ticker timer;
    ASSERT_TRUE(timer.InitTimerBase(10));
    ASSERT_TRUE(Eventually([&] { return timer.passes.load() == 1 && timer.ticks.load() >= 3; }));
    EXPECT_TRUE(timer.BreakTimer());
    ASSERT_TRUE(Eventually([&] { return timer.wakes.load() == 1; }));
    EXPECT_FALSE(timer.TimerExit()); // the worker goes on: a second pass starts as usual
    EXPECT_EQ(WaitForSingleObject(timer.TimerStop(), 0), WAIT_OBJECT_0);
    timer.StartThread();
    ASSERT_TRUE(Eventually([&] { return timer.passes.load() == 2; }));
}

TEST(TaskTimer, EventsClearedAndMadeAgain) {
    Ticker timer;                    // no thread: the events alone
    EXPECT_TRUE(timer.BreakTimer()); // nothing to signal yet
    ASSERT_TRUE(timer.InitEvents());
    EXPECT_TRUE(timer.ClearEvents());
    EXPECT_TRUE(timer.TimerExit());
    EXPECT_EQ(timer.Wake(), nullptr);
    EXPECT_TRUE(timer.ClearEvents()); // again: closes nothing
    ASSERT_TRUE(timer.InitEvents());
    EXPECT_TRUE(timer.TimerExit()); // nothing sets it back
    Ticker copy(timer);             // carries the flag, not the handles
    EXPECT_TRUE(copy.TimerExit());
    EXPECT_EQ(copy.Wake(), nullptr);
}

TEST(TaskTimer, DestroyingWakesAWaitingBody) {
    auto timer = std::make_unique<Ticker>();
    ASSERT_TRUE(timer->InitTimerBase(60000)); // the body waits a minute unless woken
    ASSERT_TRUE(Eventually([&] { return timer->waiting.load(); }));
    HANDLE thread = Dup(timer->Thread());
    EXPECT_LT(TimeMs([&] { timer.reset(); }), 400);
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(thread), 1u); // no forced end
    CloseHandle(thread);
}

TEST(TaskLoopTimer, NotifyAllOnSharedPairEndsSeveralTimers) {
    std::mutex exitMutex;
    std::condition_variable exitCond;
    Counter a, b, c;
    for (Counter* t : {&a, &b, &c}) {
        t->Use(&exitMutex, &exitCond, 30);
        t->StartTimer();
    }
    long long firstMs = TimeMs([&] { EXPECT_TRUE(Eventually([&] { return c.calls >= 1; })); });
    EXPECT_GE(firstMs, 60); // a whole cycle comes first: 20 + 30 + 20 ms
    ASSERT_TRUE(Eventually([&] { return a.calls >= 2 && b.calls >= 2 && c.calls >= 2; }));
    ASSERT_TRUE(EndAll(exitCond, {&a, &b, &c}));
    int before = a.calls.load();
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(a.calls.load(), before); // ended for good

    // New loops on the same object start from scratch, one per start, on detached threads.
    a.StartTimer();
    a.StartTimer();
    EXPECT_EQ(a.GetRunningLoopCount(), 2);
    ASSERT_TRUE(Eventually([&] { return a.calls.load() >= before + 4; }));
    ASSERT_TRUE(EndAll(exitCond, {&a}));
}

TEST(TaskLoopTimer, NotificationsOutsideExitWaitsAreNotSeen) {
    std::mutex exitMutex;
    std::condition_variable exitCond;
    Counter timer;
    timer.notifyInAction = &exitCond; // during OnTimer nobody waits on the pair
    timer.Use(&exitMutex, &exitCond, 0);
    timer.StartTimer();
    ASSERT_TRUE(Eventually([&] { return timer.calls.load() >= 5; }));
    EXPECT_EQ(timer.GetRunningLoopCount(), 1);
    timer.notifyInAction = nullptr;

    // Nor during the pause, which waits on the timer's own condition variable.
    timer.SetTimerDuringTime(1000);
    int seen = timer.calls.load();
    ASSERT_TRUE(Eventually([&] { return timer.calls.load() > seen; })); // the next pause is 1000 ms
    std::this_thread::sleep_for(milliseconds(300));
    exitCond.notify_all();
    timer.StopTimer(); // does nothing
    ASSERT_TRUE(Eventually([&] { return timer.calls.load() > seen + 1; }));
    EXPECT_EQ(timer.GetRunningLoopCount(), 1);
    timer.SetTimerDuringTime(10);
    ASSERT_TRUE(EndAll(exitCond, {&timer}));
}
