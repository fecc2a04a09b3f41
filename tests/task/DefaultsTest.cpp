// Timers whose interval nobody set: 1000 ms, for the loop timer's pause and the event timer's interval.
#include "TaskTestSupport.h"
#include "zoth/task/CThreadTimer.h"
#include "zoth/task/CTimerBase.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

using namespace task_test;

namespace {

class Ticks : public ZOTH::CThreadTimer {
public:
    std::atomic<Clock::rep> firstAt{0};
    void OnTimer() override {
        Clock::rep none = 0;
        firstAt.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
    }
    int LoopTime() const { return m_loopTime; }
};

class Idle : public ZOTH::CTimerBase {
public:
    void ThreadWork(bool*) override {}
    unsigned Interval() const { return m_nTimerInterval; }
};

} // namespace

TEST(TaskDefaults, TimersPauseASecondUnlessTold) {
    Idle idle;
    EXPECT_EQ(1000u, idle.Interval());

    std::mutex exitMutex;
    std::condition_variable exitCond;
    Ticks timer;
    EXPECT_EQ(1, timer.LoopTime());
    timer.SetGlobalExitMutex(&exitMutex);
    timer.SetGlobalConditionVariable(&exitCond);
    const auto start = Clock::now();
    timer.StartTimer();
    ASSERT_TRUE(Eventually([&] { return timer.firstAt.load() != 0; }));
    const auto first = Clock::duration(timer.firstAt.load()) - start.time_since_epoch();
    EXPECT_GE(first, milliseconds(1000)); // 20 ms exit wait, the 1000 ms pause, another exit wait
    EXPECT_LT(first, milliseconds(8000));
    ASSERT_TRUE(Eventually([&] {
        exitCond.notify_all();
        return timer.GetRunningLoopCount() == 0;
    }));
}
