#include "TaskTestSupport.h"
#include "zoth/task/CTesselControlBase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

using namespace task_test;
using ZOTH::CTaskBase;

namespace {

std::atomic<int> g_destroyed{0};

// A task that completes on its first run unless told not to, records the order of the StopTask
// calls it gets, and may call back into a registry from its StopTask override.
class Job : public CTaskBase {
public:
    bool completes = true;
    std::atomic<int> runs{0};
    std::vector<std::string>* stopLog = nullptr;
    std::function<void()> onStop;

    std::atomic<Clock::rep>* destroyedAt = nullptr;

    ~Job() override {
        ++g_destroyed;
        if (destroyedAt) *destroyedAt = Clock::now().time_since_epoch().count();
    }
    void ThreadWork(bool*) override {
        ++runs;
        if (completes) std::atomic_ref<bool>(m_bTaskComplete).store(true);
    }
    void StopTask() override {
        if (stopLog) stopLog->push_back(m_strTaskId);
        if (onStop) onStop();
        CTaskBase::StopTask();
    }
    HANDLE Thread() const { return m_hThread; }
    bool Exit() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bExit)).load(); }
};

std::shared_ptr<Job> MakeJob(const std::string& id, bool completes = true) {
    auto job = std::make_shared<Job>();
    job->completes = completes;
    EXPECT_TRUE(job->InitTask(id));
    return job;
}

// A control class that opens the protected operations to the tests.
class Registry : public ZOTH::CTesselControlBase {
public:
    using CTesselControlBase::AddTaskMap;
    using CTesselControlBase::CreateTaskId;
    using CTesselControlBase::DeleteTaskById;
    using CTesselControlBase::GetTaskById;
    using CTesselControlBase::StartTask;
    int overrideCalls = 0; // only the test thread calls StopAllTask here
    bool countStopAll = false;

    bool StopAllTask() override {
        if (countStopAll) ++overrideCalls;
        return CTesselControlBase::StopAllTask();
    }
    size_t Size() {
        EnterCriticalSection(&m_csTask);
        size_t n = m_mapTask.size();
        LeaveCriticalSection(&m_csTask);
        return n;
    }
    bool Closed() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bStopAddTask)).load(); }
};

} // namespace

TEST(TaskRegistry, KeysAndLookups) {
    Registry registry;
    auto first = MakeJob("k");
    auto second = MakeJob("k");
    EXPECT_TRUE(registry.AddTaskMap(first, "k"));
    EXPECT_TRUE(registry.AddTaskMap(second, "k")); // accepted, but the earlier task stays
    EXPECT_EQ(registry.GetTaskById("k"), first);
    EXPECT_EQ(registry.Size(), 1u);

    EXPECT_TRUE(registry.AddTaskMap(MakeJob(""), ""));   // the empty key is a key
    EXPECT_TRUE(registry.AddTaskMap(MakeJob("K"), "K")); // keys differ by case
    EXPECT_NE(registry.GetTaskById("K"), registry.GetTaskById("k"));
    EXPECT_NE(registry.GetTaskById(""), nullptr);
    EXPECT_EQ(registry.GetTaskById("absent"), nullptr);

    EXPECT_TRUE(registry.AddTaskMap(nullptr, "null")); // a null entry is accepted
    EXPECT_EQ(registry.GetTaskById("null"), nullptr);
    EXPECT_EQ(registry.Size(), 4u);

    EXPECT_TRUE(registry.DeleteTaskById("absent"));
    EXPECT_EQ(registry.Size(), 4u);
    EXPECT_TRUE(registry.DeleteTaskById("k"));
    EXPECT_EQ(registry.GetTaskById("k"), nullptr);
    EXPECT_EQ(registry.Size(), 3u);

    std::string a = registry.CreateTaskId(), b = registry.CreateTaskId();
    EXPECT_EQ(a.size(), 32u);
    EXPECT_EQ(a.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_NE(a, b);
}

TEST(TaskRegistry, StopAllErasesCompletedTasksOnly) {
    Registry registry;
    auto done = MakeJob("done");
    auto stubborn = MakeJob("stubborn", false);
    auto idle = MakeJob("idle"); // never started, so never complete
    registry.AddTaskMap(done, "done");
    registry.AddTaskMap(stubborn, "stubborn");
    registry.AddTaskMap(idle, "idle");
    registry.AddTaskMap(nullptr, "null");
    EXPECT_TRUE(registry.StartTask(done));
    EXPECT_TRUE(registry.StartTask(stubborn));
    ASSERT_TRUE(Eventually([&] { return done->runs.load() == 1 && stubborn->runs.load() == 1; }));
    std::weak_ptr<CTaskBase> doneWatch = done;
    done.reset(); // only the registry holds it now

    int destroyedBefore = g_destroyed.load();
    long long ms = TimeMs([&] { EXPECT_TRUE(registry.StopAllTask()); });
    EXPECT_GE(ms, 195);
    EXPECT_TRUE(doneWatch.expired());
    EXPECT_EQ(g_destroyed.load(), destroyedBefore + 1);
    EXPECT_EQ(registry.GetTaskById("stubborn"), stubborn); // stays, stopped and flagged
    EXPECT_TRUE(stubborn->Exit());
    EXPECT_NE(registry.GetTaskById("idle"), nullptr);
    EXPECT_EQ(registry.Size(), 3u); // the null entry survives too
    EXPECT_TRUE(registry.DeleteTaskById("null"));
    EXPECT_EQ(registry.Size(), 2u);

    // StopAllTask alone leaves the registry open.
    EXPECT_FALSE(registry.Closed());
    EXPECT_TRUE(registry.AddTaskMap(MakeJob("late"), "late"));
    EXPECT_TRUE(registry.StartTask(registry.GetTaskById("late")));

    Registry empty;
    EXPECT_GE(TimeMs([&] { EXPECT_TRUE(empty.StopAllTask()); }), 195);
}

TEST(TaskRegistry, TaskKeptByCallerLeavesWithoutBeingDestroyed) {
    Registry registry;
    auto job = MakeJob("kept");
    registry.AddTaskMap(job, "kept");
    registry.StartTask(job);
    ASSERT_TRUE(Eventually([&] { return job->runs.load() == 1; }));
    int destroyedBefore = g_destroyed.load();
    registry.StopAllTask();
    EXPECT_EQ(registry.GetTaskById("kept"), nullptr);
    EXPECT_EQ(g_destroyed.load(), destroyedBefore);
    job->StartTask(); // its thread stays stopped: the start ends it without a run
    EXPECT_EQ(WaitForSingleObject(job->Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(job->runs.load(), 1);
}

TEST(TaskRegistry, CompletedTaskStaysUntilSomethingErasesIt) {
    Registry registry;
    auto job = MakeJob("finished");
    registry.AddTaskMap(job, "finished");
    registry.StartTask(job);
    ASSERT_TRUE(Eventually([&] { return job->GetTaskCompleteStatus(); }));
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(registry.GetTaskById("finished"), job); // the registry does not watch its tasks
}

TEST(TaskRegistry, PassesGoInKeyOrder) {
    std::vector<std::string> log; // outlives the registry, whose destructor stops the tasks again
    Registry registry;
    std::vector<std::string> keys = {"b", "a", "\xff", "A", "ab", ""};
    for (const auto& key : keys) {
        auto job = MakeJob(key);
        job->stopLog = &log;
        registry.AddTaskMap(job, key);
    }
    registry.StopAllTask();
    std::vector<std::string> expected = {"", "A", "a", "ab", "b", "\xff"}; // unsigned bytes
    EXPECT_EQ(log, expected);
}

TEST(TaskRegistry, ClosedRegistryRefusesAddAndStart) {
    Registry registry;
    registry.countStopAll = true;
    auto job = MakeJob("j", false);
    registry.AddTaskMap(job, "j");
    EXPECT_TRUE(registry.SetStopAddTask());
    EXPECT_EQ(registry.overrideCalls, 1); // through the virtual table
    EXPECT_TRUE(registry.Closed());
    EXPECT_FALSE(registry.AddTaskMap(MakeJob("x"), "x"));
    EXPECT_EQ(registry.GetTaskById("x"), nullptr);
    auto other = MakeJob("other");
    EXPECT_FALSE(registry.StartTask(other));
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(other->runs.load(), 0);
    EXPECT_EQ(registry.GetTaskById("j"), job); // lookups go on
    EXPECT_TRUE(registry.StopAllTask());
    EXPECT_TRUE(registry.SetStopAddTask());
    EXPECT_EQ(registry.overrideCalls, 3);
    EXPECT_TRUE(registry.DeleteTaskById("j"));
    EXPECT_EQ(registry.Size(), 0u);
}

TEST(TaskRegistry, DestructorStopsAndDropsEverything) {
    int destroyedBefore = g_destroyed.load();
    std::shared_ptr<Job> keep;
    long long ms;
    {
        auto registry = std::make_unique<Registry>();
        registry->countStopAll = true;
        for (int i = 0; i < 5; ++i) {
            auto job = MakeJob("t" + std::to_string(i), i % 2 == 0);
            registry->AddTaskMap(job, "t" + std::to_string(i));
            registry->StartTask(job);
            if (i == 1) keep = job;
        }
        ASSERT_TRUE(Eventually([&] { return keep->runs.load() == 1; }));
        ms = TimeMs([&] { registry.reset(); });
        // the base StopAllTask ran; the override was gone (its counter went with the object)
    }
    EXPECT_GE(ms, 195);
    EXPECT_LT(ms, 5000);
    EXPECT_EQ(g_destroyed.load(), destroyedBefore + 4); // all but the one kept by the caller
    EXPECT_TRUE(keep->Exit());
}

TEST(TaskRegistry, StopTaskOverrideMayCallBackIntoTheRegistry) {
    Registry registry;
    auto job = MakeJob("reentrant");
    std::atomic<bool> found{false};
    job->onStop = [&] { found = registry.GetTaskById("reentrant") != nullptr; }; // lock is held
    registry.AddTaskMap(job, "reentrant");
    std::atomic<bool> finished{false};
    std::thread stopper([&] {
        registry.StopAllTask();
        finished = true;
    });
    EXPECT_TRUE(Eventually([&] { return finished.load(); })); // no deadlock
    stopper.join();
    EXPECT_TRUE(found.load());
    job->onStop = nullptr;
}

TEST(TaskRegistry, LockIsHeldAcrossTheSleep) {
    // A lookup that starts during the first pass can only get in after the sleep and the second
    // pass, in which the completed task is destroyed, still under the lock.
    Registry registry;
    std::atomic<bool> insideStop{false};
    std::atomic<Clock::rep> destroyedAt{0};
    {
        auto job = MakeJob("probe");
        job->onStop = [&] { insideStop = true; };
        job->destroyedAt = &destroyedAt;
        registry.AddTaskMap(job, "probe");
        registry.StartTask(job);
        ASSERT_TRUE(Eventually([&] { return job->GetTaskCompleteStatus(); }));
    } // the registry holds the only reference
    std::thread stopper([&] { registry.StopAllTask(); });
    ASSERT_TRUE(Eventually([&] { return insideStop.load(); }));
    EXPECT_EQ(registry.GetTaskById("probe"), nullptr); // blocks until StopAllTask leaves the lock
    Clock::rep gotIn = Clock::now().time_since_epoch().count();
    stopper.join();
    ASSERT_NE(destroyedAt.load(), 0);
    EXPECT_GE(gotIn, destroyedAt.load());
}

TEST(TaskRegistry, CopiesShareTasksWithLocksOfTheirOwn) {
    Registry source;
    auto job = MakeJob("shared");
    source.AddTaskMap(job, "shared");
    Registry copy(source);
    EXPECT_EQ(copy.GetTaskById("shared"), job);
    EXPECT_TRUE(copy.DeleteTaskById("shared"));
    EXPECT_EQ(source.GetTaskById("shared"), job); // maps are separate

    Registry closed;
    closed.SetStopAddTask();
    Registry target;
    target.AddTaskMap(MakeJob("mine"), "mine");
    static_cast<ZOTH::CTesselControlBase&>(target) = closed;
    EXPECT_TRUE(target.Closed());
    EXPECT_EQ(target.Size(), 0u);
    static_cast<ZOTH::CTesselControlBase&>(target) = source;
    EXPECT_FALSE(target.Closed()); // assignment from an open registry opens it again
    EXPECT_EQ(target.GetTaskById("shared"), job);
}
