#include "TaskTestSupport.h"
#include "zoth/task/CTaskBase.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace task_test;

namespace {

// A task that counts its runs and completes after `runsToComplete` runs (never if 0). With
// `pollExit` its body loops until *exitFlag turns true (or a 5 s safety bound passes).
class CountingTask : public ZOTH::CTaskBase {
public:
    std::atomic<int> runs{0};
    std::atomic<bool> inBody{false};
    int runsToComplete = 1;
    bool pollExit = false;

    void ThreadWork(bool* exitFlag) override {
        inBody = true;
        if (pollExit) {
            auto end = Clock::now() + milliseconds(5000);
            while (!std::atomic_ref<bool>(*exitFlag).load() && Clock::now() < end)
                Sleep(2);
        }
        if (++runs == runsToComplete) std::atomic_ref<bool>(m_bTaskComplete).store(true);
        inBody = false;
    }
    const std::string& Id() const { return m_strTaskId; }
    HANDLE Thread() const { return m_hThread; }
    HANDLE StartEvent() const { return m_hStartEvent; }
    bool Exit() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bExit)).load(); }
    void SetComplete() { m_bTaskComplete = true; }
};

class PlainTask : public ZOTH::CTaskBase {
public:
    void ThreadWork(bool*) override {}
    const std::string& Id() const { return m_strTaskId; }
    HANDLE Thread() const { return m_hThread; }
    void SetComplete() { m_bTaskComplete = true; }
};

} // namespace

TEST(TaskTask, IdAndCompletion) {
    CountingTask task;
    EXPECT_FALSE(task.GetTaskCompleteStatus());
    task.runsToComplete = 2;
    ASSERT_TRUE(task.InitTask("job-1"));
    EXPECT_EQ(task.Id(), "job-1");
    task.StartTask();
    ASSERT_TRUE(Eventually([&] { return task.runs.load() == 1; }));
    EXPECT_FALSE(task.GetTaskCompleteStatus()); // ran, but did not report completion
    task.StartTask();
    ASSERT_TRUE(Eventually([&] { return task.runs.load() == 2; }));
    EXPECT_TRUE(task.GetTaskCompleteStatus());

    CountingTask unnamed;
    ASSERT_TRUE(unnamed.InitTask(""));
    EXPECT_EQ(unnamed.Id(), "");

    PlainTask idle; // never initialised: start and stop signal nothing
    idle.StartTask();
    idle.StopTask();
    EXPECT_FALSE(idle.GetTaskCompleteStatus());
}

TEST(TaskTask, StopTaskLeavesTheExitFlagAlone) {
    CountingTask task;
    task.pollExit = true;
    ASSERT_TRUE(task.InitTask("poller"));
    task.StartTask();
    ASSERT_TRUE(Eventually([&] { return task.inBody.load(); }));
    task.StopTask();
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_TRUE(task.inBody.load()); // a body that polls only the flag goes on
    EXPECT_FALSE(task.Exit());
    task.BreakThread(); // this one sets the flag
    EXPECT_EQ(WaitForSingleObject(task.Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(task.runs.load(), 1);
}

TEST(TaskTask, StartAfterStopEndsTheThreadWithoutRunning) {
    CountingTask task;
    ASSERT_TRUE(task.InitTask("once"));
    task.StartTask();
    ASSERT_TRUE(Eventually([&] { return task.runs.load() == 1; }));
    std::this_thread::sleep_for(milliseconds(20));
    task.StopTask();
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_NE(WaitForSingleObject(task.Thread(), 0), WAIT_OBJECT_0); // parked
    task.StartTask();
    EXPECT_EQ(WaitForSingleObject(task.Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(task.runs.load(), 1);
}

TEST(TaskTask, CopyCarriesIdAndCompletionButNoHandles) {
    PlainTask source;
    ASSERT_TRUE(source.InitTask("original"));
    source.SetComplete();
    PlainTask copy(source);
    EXPECT_EQ(copy.Id(), "original");
    EXPECT_TRUE(copy.GetTaskCompleteStatus());
    EXPECT_EQ(copy.Thread(), nullptr);

    PlainTask assigned;
    assigned = source;
    EXPECT_EQ(assigned.Id(), "original");
    EXPECT_TRUE(assigned.GetTaskCompleteStatus());
    EXPECT_EQ(assigned.Thread(), nullptr);
    PlainTask& alias = assigned;
    assigned = alias;
    EXPECT_EQ(assigned.Id(), "original");
}
