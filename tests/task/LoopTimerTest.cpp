#include "TaskTestSupport.h"
#include "zoth/task/CThreadTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

using namespace task_test;

namespace {

class Counter : public ZOTH::CThreadTimer {
public:
    std::atomic<int> calls{0};
    std::atomic<std::condition_variable*> notifyInAction{nullptr};
    std::atomic<Clock::rep> firstCall{0};
    void OnTimer() override {
        Clock::rep none = 0;
        firstCall.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
        if (std::condition_variable* cond = notifyInAction.load())
            cond->notify_all(); // the loop is not in an exit wait now
        ++calls;
    }
};

// Notifies `cond` every 5 ms until no loop of `timers` runs; false if that takes over 10 s.
bool EndAll(std::condition_variable& cond, std::initializer_list<Counter*> timers) {
    return Eventually([&] {
        cond.notify_all();
        for (Counter* t : timers)
            if (t->GetRunningLoopCount() != 0) return false;
        return true;
    });
}

} // namespace

TEST(TaskLoopTimer, NotifyAllOnSharedPairEndsSeveralTimers) {
    std::mutex exitMutex;
    std::condition_variable exitCond;
    Counter a, b, c;
    auto started = Clock::now().time_since_epoch().count();
    for (Counter* t : {&a, &b, &c}) {
        t->SetTimerDuringTime(30);
        t->SetGlobalExitMutex(&exitMutex);
        t->SetGlobalConditionVariable(&exitCond);
        t->StartTimer();
    }
    ASSERT_TRUE(Eventually([&] { return a.calls >= 2 && b.calls >= 2 && c.calls >= 2; }));
    // The first action comes after a whole cycle: 20 + 30 + 20 ms at the least.
    EXPECT_GE(a.firstCall.load() - started,
              std::chrono::duration_cast<Clock::duration>(milliseconds(65)).count());
    ASSERT_TRUE(EndAll(exitCond, {&a, &b, &c}));
    int before = a.calls.load();
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(a.calls.load(), before); // ended for good

    // A new loop on the same object starts from scratch.
    a.StartTimer();
    ASSERT_TRUE(Eventually([&] { return a.calls.load() >= before + 2; }));
    ASSERT_TRUE(EndAll(exitCond, {&a}));
}

TEST(TaskLoopTimer, NotificationsOutsideExitWaitsAreNotSeen) {
    std::mutex exitMutex;
    std::condition_variable exitCond;
    Counter timer;
    timer.notifyInAction = &exitCond; // during OnTimer nobody waits on the pair
    timer.SetTimerDuringTime(0);      // with the pair, the two 20 ms waits remain
    timer.SetGlobalExitMutex(&exitMutex);
    timer.SetGlobalConditionVariable(&exitCond);
    timer.StartTimer();
    ASSERT_TRUE(Eventually([&] { return timer.calls.load() >= 5; }));
    EXPECT_EQ(timer.GetRunningLoopCount(), 1);
    timer.notifyInAction = nullptr;

    // A long pause: one notification in its middle is not seen either.
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

TEST(TaskLoopTimer, TwoStartsGiveTwoLoops) {
    std::mutex exitMutex;
    std::condition_variable exitCond;
    Counter timer;
    timer.SetTimerDuringTime(20);
    timer.SetLoopTime(7); // stored only
    timer.SetGlobalExitMutex(&exitMutex);
    timer.SetGlobalConditionVariable(&exitCond);
    timer.StartTimer();
    timer.StartTimer();
    EXPECT_EQ(timer.GetRunningLoopCount(), 2);
    ASSERT_TRUE(Eventually([&] { return timer.calls.load() >= 6; }));
    ASSERT_TRUE(EndAll(exitCond, {&timer}));
}

TEST(TaskLoopTimer, WithoutAFullPairTheLoopCannotEnd) {
    // Such a loop runs until the process ends, so its object and mutex are never freed.
    static std::mutex onlyMutex;
    static std::condition_variable unrelated;
    static std::vector<Counter*> neverFreed; // keeps them reachable for the leak checker
    Counter* timer = new Counter();
    neverFreed.push_back(timer);
    timer->SetTimerDuringTime(20);
    timer->SetGlobalExitMutex(&onlyMutex); // no condition variable: no exit waits
    timer->StartTimer();
    ASSERT_TRUE(Eventually([&] { return timer->calls.load() >= 3; }));
    auto end = Clock::now() + milliseconds(200);
    while (Clock::now() < end) {
        unrelated.notify_all();
        timer->StopTimer();
        std::this_thread::sleep_for(milliseconds(5));
    }
    int seen = timer->calls.load();
    ASSERT_TRUE(Eventually([&] { return timer->calls.load() > seen; }));
    EXPECT_EQ(timer->GetRunningLoopCount(), 1);
    timer->SetTimerDuringTime(500); // idle on for the rest of the run
}
