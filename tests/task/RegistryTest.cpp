// CTesselControlBase: keys, StopAllTask's two passes, closing, destructor, lock, and a soak.
#include "TaskTestSupport.h"
#include "zoth/task/CTesselControlBase.h"

#include <gtest/gtest.h>

#include <vector>

using namespace task_test;
using ZOTH::CTaskBase;

namespace {

std::shared_ptr<Probe> MakeJob(const std::string& id, bool completes = true) {
    auto job = std::make_shared<Probe>();
    job->completes = completes;
    EXPECT_TRUE(job->InitTask(id));
    return job;
}

// Opens the protected operations to the tests.
class Registry : public ZOTH::CTesselControlBase {
public:
    using CTesselControlBase::AddTaskMap;
    using CTesselControlBase::CreateTaskId;
    using CTesselControlBase::DeleteTaskById;
    using CTesselControlBase::GetTaskById;
    using CTesselControlBase::StartTask;
    int stopAllCalls = 0; // one thread at a time calls StopAllTask in these tests
    bool StopAllTask() override {
        ++stopAllCalls;
        return CTesselControlBase::StopAllTask();
    }
    size_t Size() {
        EnterCriticalSection(&m_csTask);
        size_t n = m_mapTask.size();
        LeaveCriticalSection(&m_csTask);
        return n;
    }
    bool Closed() const { return Load(m_bStopAddTask); }
};

} // namespace

TEST(TaskRegistry, KeysAndLookups) {
    Registry registry;
    auto first = MakeJob("k");
    EXPECT_TRUE(registry.AddTaskMap(first, "k"));
    EXPECT_TRUE(registry.AddTaskMap(MakeJob("k"), "k")); // accepted, but the earlier task stays
    EXPECT_EQ(registry.GetTaskById("k"), first);
    EXPECT_TRUE(registry.AddTaskMap(MakeJob(""), ""));   // the empty key is a key
    EXPECT_TRUE(registry.AddTaskMap(MakeJob("K"), "K")); // keys differ by case
    EXPECT_NE(registry.GetTaskById("K"), first);
    EXPECT_NE(registry.GetTaskById(""), nullptr);
    EXPECT_EQ(registry.GetTaskById("absent"), nullptr);
    EXPECT_TRUE(registry.AddTaskMap(nullptr, "null")); // a null entry is accepted
    EXPECT_EQ(registry.Size(), 4u);

    EXPECT_TRUE(registry.DeleteTaskById("absent"));
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
    auto done = MakeJob("done"), kept = MakeJob("kept"), stubborn = MakeJob("stubborn", false);
    registry.AddTaskMap(done, "done");
    registry.AddTaskMap(kept, "kept");
    registry.AddTaskMap(stubborn, "stubborn");
    registry.AddTaskMap(MakeJob("idle"), "idle"); // never started, so never complete
    registry.AddTaskMap(nullptr, "null");
    for (const auto& job : {done, kept, stubborn})
        EXPECT_TRUE(registry.StartTask(job));
    ASSERT_TRUE(Eventually([&] { return done->runs + kept->runs + stubborn->runs == 3; }));
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(registry.GetTaskById("done"), done); // the registry does not watch its tasks
    std::weak_ptr<CTaskBase> doneWatch = done;
    done.reset(); // only the registry holds it now

    int aliveBefore = Probe::alive;
    EXPECT_GE(TimeMs([&] { EXPECT_TRUE(registry.StopAllTask()); }), 195);
    EXPECT_TRUE(doneWatch.expired());
    EXPECT_EQ(Probe::alive, aliveBefore - 1); // "kept" left the map, but its caller holds it
    EXPECT_EQ(registry.GetTaskById("kept"), nullptr);
    EXPECT_EQ(registry.GetTaskById("stubborn"), stubborn); // stays, stopped and flagged
    EXPECT_TRUE(stubborn->Exit());
    EXPECT_EQ(registry.Size(), 3u); // stubborn, idle and the null entry
    kept->StartTask();              // its thread stays stopped: the start ends it without a run
    EXPECT_EQ(WaitForSingleObject(kept->Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(kept->runs.load(), 1);

    EXPECT_FALSE(registry.Closed()); // StopAllTask alone leaves the registry open
    EXPECT_TRUE(registry.AddTaskMap(MakeJob("late"), "late"));
}

TEST(TaskRegistry, PassesGoInKeyOrder) {
    std::vector<std::string> log; // outlives the registry, whose destructor stops the tasks again
    Registry registry;
    for (const char* key : {"b", "a", "\xff", "A", "ab", ""}) {
        auto job = MakeJob(key);
        job->onStop = [&log, key] { log.push_back(key); };
        registry.AddTaskMap(job, key);
    }
    registry.StopAllTask();
    EXPECT_EQ(log, (std::vector<std::string>{"", "A", "a", "ab", "b", "\xff"})); // unsigned bytes
}

TEST(TaskRegistry, ClosedRegistryRefusesAddAndStart) {
    Registry registry;
    auto job = MakeJob("j", false);
    registry.AddTaskMap(job, "j");
    EXPECT_TRUE(registry.SetStopAddTask());
    EXPECT_EQ(registry.stopAllCalls, 1); // through the virtual table
    EXPECT_FALSE(registry.AddTaskMap(MakeJob("x"), "x"));
    EXPECT_EQ(registry.GetTaskById("x"), nullptr);
    auto other = MakeJob("other");
    EXPECT_FALSE(registry.StartTask(other));
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(other->runs.load(), 0);
    EXPECT_EQ(registry.GetTaskById("j"), job); // lookups and deletes go on
    EXPECT_TRUE(registry.StopAllTask());
    EXPECT_TRUE(registry.Closed()); // for good
    EXPECT_TRUE(registry.DeleteTaskById("j"));
    EXPECT_EQ(registry.Size(), 0u);
}

TEST(TaskRegistry, DestructorStopsAndDropsEverything) {
    int aliveBefore = Probe::alive;
    std::shared_ptr<Probe> keep;
    auto registry = std::make_unique<Registry>();
    for (int i = 0; i < 5; ++i) {
        auto job = MakeJob("t" + std::to_string(i), i % 2 == 0);
        registry->AddTaskMap(job, "t" + std::to_string(i));
        registry->StartTask(job);
        if (i == 1) keep = job;
    }
    ASSERT_TRUE(Eventually([&] { return keep->runs.load() == 1; }));
    long long ms = TimeMs([&] { registry.reset(); });
    EXPECT_GE(ms, 195); // the base StopAllTask ran its pass and sleep
    EXPECT_LT(ms, 5000);
    EXPECT_EQ(Probe::alive, aliveBefore + 1); // all but the one kept by the caller, complete or not
    EXPECT_TRUE(keep->Exit());
}

// An unfinished task whose destructor calls back into its registry while the registry is torn
// down: it finds the registry whole (its lock alive), closed and empty, and does no harm.
TEST(TaskRegistry, TeardownSurvivesTaskThatCallsBack) {
    auto registry = std::make_unique<Registry>();
    ZOTH::CTesselControlBase* base = registry.get();
    auto lookUp = &Registry::GetTaskById; // members of the base, callable after Registry's part died
    auto start = &Registry::StartTask;
    std::atomic<int> callbacks{0};
    std::atomic<bool> sawTask{false}, startAccepted{false};
    for (const char* id : {"a", "b"}) {
        auto job = MakeJob(id, false); // never completes: only the final clear drops it
        job->onDestroy = [&, id] {
            EXPECT_TRUE(base->StopAllTask());
            EXPECT_TRUE(base->SetStopAddTask());
            sawTask = sawTask || (base->*lookUp)("a") != nullptr || (base->*lookUp)(id) != nullptr;
            auto other = std::make_shared<Probe>();
            startAccepted = startAccepted || (base->*start)(other);
            ++callbacks;
        };
        registry->AddTaskMap(job, id);
        registry->StartTask(job);
        ASSERT_TRUE(Eventually([&] { return job->runs.load() == 1; }));
    }
    registry.reset();
    EXPECT_EQ(callbacks.load(), 2);
    EXPECT_FALSE(sawTask.load());       // empty
    EXPECT_FALSE(startAccepted.load()); // closed
}

TEST(TaskRegistry, LockIsReentrantForTheStopperAndHeldAcrossTheSleep) {
    Registry registry;
    std::atomic<bool> insideStop{false}, foundFromStop{false};
    std::atomic<Clock::rep> destroyedAt{0};
    {
        auto job = MakeJob("probe");
        job->onStop = [&] {
            foundFromStop = registry.GetTaskById("probe") != nullptr; // the lock is held here
            insideStop = true;
        };
        job->onDestroy = [&] { destroyedAt = Clock::now().time_since_epoch().count(); };
        registry.AddTaskMap(job, "probe");
        registry.StartTask(job);
        ASSERT_TRUE(Eventually([&] { return job->GetTaskCompleteStatus(); }));
    } // the registry holds the only reference
    std::thread stopper([&] { registry.StopAllTask(); });
    ASSERT_TRUE(Eventually([&] { return insideStop.load(); })); // no deadlock
    EXPECT_TRUE(foundFromStop.load());
    // Another thread gets in only after the sleep and the second pass that destroyed the task.
    EXPECT_EQ(registry.GetTaskById("probe"), nullptr);
    Clock::rep gotIn = Clock::now().time_since_epoch().count();
    stopper.join();
    ASSERT_NE(destroyedAt.load(), 0);
    EXPECT_GE(gotIn, destroyedAt.load());
}

TEST(TaskRegistry, CopiesShareTasksWithLocksOfTheirOwn) {
    Registry source, closed;
    auto job = MakeJob("shared");
    source.AddTaskMap(job, "shared");
    Registry copy(source);
    EXPECT_TRUE(copy.DeleteTaskById("shared"));
    EXPECT_EQ(source.GetTaskById("shared"), job); // maps are separate
    closed.SetStopAddTask();
    static_cast<ZOTH::CTesselControlBase&>(copy) = closed;
    EXPECT_TRUE(copy.Closed()); // the flag goes with the assignment
}

TEST(TaskSoak, ThousandsOfTasksThroughRegistries) {
    // Every seventh task never completes and is left for the registry's destructor.
    constexpr int kRounds = 20, kPerRound = 100;
    const int aliveBefore = Probe::alive, ranBefore = Probe::ran;
    int launched = 0;
    long long ms = TimeMs([&] {
        for (int round = 0; round < kRounds; ++round) {
            Registry registry;
            for (int i = 0; i < kPerRound; ++i, ++launched) {
                std::string id = registry.CreateTaskId();
                auto task = MakeJob(id, i % 7 != 0);
                ASSERT_TRUE(registry.AddTaskMap(task, id) && registry.StartTask(task));
            }
            ASSERT_TRUE(Eventually([&] { return Probe::ran - ranBefore == launched; }));
            registry.SetStopAddTask();
            EXPECT_EQ(registry.Size(), static_cast<size_t>((kPerRound + 6) / 7)); // the incomplete ones
            EXPECT_FALSE(registry.AddTaskMap(MakeJob("late"), "late"));
        }
    });
    EXPECT_EQ(launched, kRounds * kPerRound);
    EXPECT_EQ(Probe::alive, aliveBefore); // every task was destroyed; the leak checker covers the rest
    EXPECT_LT(ms, 240000);                // bounded: no hang
}
