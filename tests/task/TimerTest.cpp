#include "TaskTestSupport.h"
#include "zoth/task/CTimerBase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

using namespace task_test;

namespace {

// A timer whose body ticks every m_nTimerInterval ms until the wake event, the timer stop event,
// m_bTimerExit or *exitFlag tells it to go. It copies the wake handle at its start, so it never
// reads a field that the destructor is changing.
class Ticker : public ZOTH::CTimerBase {
public:
    std::atomic<int> passes{0};
    std::atomic<int> ticks{0};
    std::atomic<int> wakes{0};
    std::atomic<bool> waiting{false};

    void ThreadWork(bool* exitFlag) override {
        ++passes;
        HANDLE wake = m_hTimerWakeEvent;
        unsigned interval = m_nTimerInterval;
        for (;;) {
            waiting = true;
            DWORD result = WaitForSingleObject(wake, interval);
            waiting = false;
            if (result == WAIT_OBJECT_0) ++wakes;
            if (std::atomic_ref<bool>(m_bTimerExit).load() || std::atomic_ref<bool>(*exitFlag).load()) return;
            if (result == WAIT_OBJECT_0) return; // woken by BreakTimer: this pass is over
            ++ticks;
        }
    }
    using CTimerBase::BreakTimer;
    using CTimerBase::ClearEvents;
    using CTimerBase::InitEvents;
    HANDLE Wake() const { return m_hTimerWakeEvent; }
    HANDLE TimerStop() const { return m_hTimerStopEvent; }
    HANDLE StopEvent() const { return m_hStopEvent; }
    HANDLE Thread() const { return m_hThread; }
    unsigned Interval() const { return m_nTimerInterval; }
    bool TimerExit() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bTimerExit)).load(); }
    bool Exit() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bExit)).load(); }
};

class Idle : public ZOTH::CTimerBase {
public:
    void ThreadWork(bool*) override {}
    using CTimerBase::BreakTimer;
    using CTimerBase::ClearEvents;
    using CTimerBase::InitEvents;
    HANDLE Wake() const { return m_hTimerWakeEvent; }
    HANDLE TimerStop() const { return m_hTimerStopEvent; }
    HANDLE Thread() const { return m_hThread; }
    unsigned Interval() const { return m_nTimerInterval; }
    bool TimerExit() const { return m_bTimerExit; }
};

} // namespace

TEST(TaskTimer, FirstPassComesWithoutStart) {
    Ticker fresh;
    EXPECT_EQ(fresh.Interval(), 1000u);

    Ticker timer;
    ASSERT_TRUE(timer.InitTimerBase(0));
    EXPECT_EQ(timer.Interval(), 0u);
    EXPECT_NE(timer.Wake(), nullptr);
    EXPECT_NE(timer.TimerStop(), nullptr);
    EXPECT_NE(timer.Thread(), nullptr);
    ASSERT_TRUE(Eventually([&] { return timer.passes.load() == 1; }));
    ASSERT_TRUE(Eventually([&] { return timer.ticks.load() >= 3; })); // interval 0 ticks at once
}

TEST(TaskTimer, TicksAndBreakTimerEndsOnlyThePass) {
    Ticker timer;
    ASSERT_TRUE(timer.InitTimerBase(10));
    ASSERT_TRUE(Eventually([&] { return timer.ticks.load() >= 3; }));
    EXPECT_TRUE(timer.BreakTimer());
    ASSERT_TRUE(Eventually([&] { return timer.wakes.load() == 1; }));
    // The worker itself goes on: flags untouched, its stop event not signalled.
    EXPECT_FALSE(timer.Exit());
    EXPECT_FALSE(timer.TimerExit());
    EXPECT_EQ(WaitForSingleObject(timer.StopEvent(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(timer.TimerStop(), 0), WAIT_OBJECT_0);
    timer.StartThread(); // a second pass
    ASSERT_TRUE(Eventually([&] { return timer.passes.load() == 2; }));
}

TEST(TaskTimer, ClearAndRecreateEvents) {
    Idle timer;
    EXPECT_TRUE(timer.BreakTimer()); // nothing to signal yet
    EXPECT_TRUE(timer.ClearEvents());
    EXPECT_TRUE(timer.TimerExit());
    ASSERT_TRUE(timer.InitTimerBase(250));
    EXPECT_TRUE(timer.ClearEvents());
    EXPECT_EQ(timer.Wake(), nullptr);
    EXPECT_EQ(timer.TimerStop(), nullptr);
    EXPECT_TRUE(timer.ClearEvents()); // again: closes nothing
    EXPECT_TRUE(timer.BreakTimer());
    EXPECT_TRUE(timer.InitEvents());
    EXPECT_NE(timer.Wake(), nullptr);
    EXPECT_NE(timer.TimerStop(), nullptr);
    EXPECT_TRUE(timer.TimerExit()); // nothing sets it back
    EXPECT_EQ(WaitForSingleObject(timer.TimerStop(), 0), WAIT_TIMEOUT);
    timer.BreakTimer();
    EXPECT_EQ(WaitForSingleObject(timer.Wake(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(timer.TimerStop(), 0), WAIT_OBJECT_0);
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

    EXPECT_LT(TimeMs([] { Idle never; }), 400);
}

TEST(TaskTimer, CopiesCarryFlagAndIntervalWithoutHandles) {
    Idle source;
    ASSERT_TRUE(source.InitTimerBase(42));
    Idle copy(source);
    EXPECT_EQ(copy.Interval(), 42u);
    EXPECT_EQ(copy.Wake(), nullptr);
    EXPECT_EQ(copy.Thread(), nullptr);
    source.ClearEvents();
    Idle assigned;
    assigned = source;
    EXPECT_TRUE(assigned.TimerExit());
    EXPECT_EQ(assigned.Interval(), 42u);
    EXPECT_EQ(assigned.Wake(), nullptr);
}
