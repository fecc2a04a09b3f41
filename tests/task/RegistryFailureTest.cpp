// The registry under pressure: allocations that fail inside StopAllTask, task destructors that come
// back to the registry while it erases, and every locked operation raced against the others.
#include "FailingAllocator.h"
#include "TaskTestSupport.h"
#include "zoth/task/CTesselControlBase.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <latch>
#include <vector>

using namespace task_test;
using ZOTH::CTaskBase;

namespace {

// Fails allocations on this thread for its scope: the `failAt`-th from now, or every one for -1.
struct FailingAllocations {
    explicit FailingAllocations(long failAt) { task_test::FailAllocations(failAt); }
    ~FailingAllocations() { task_test::FailAllocations(0); }
};

std::shared_ptr<Probe> MakeJob(const std::string& id, bool completes = true) {
    auto job = std::make_shared<Probe>();
    job->completes = completes;
    EXPECT_TRUE(job->InitTask(id));
    return job;
}

class Registry : public ZOTH::CTesselControlBase {
public:
    using CTesselControlBase::AddTaskMap;
    using CTesselControlBase::DeleteTaskById;
    using CTesselControlBase::GetTaskById;
    using CTesselControlBase::StartTask;
};

// True when another thread gets through the registry's lock within 5 s. A lock left held makes it
// false; the blocked thread is then left behind, and so is the registry, whose lock it waits on.
bool LockIsFree(Registry*& registry) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> got = done->get_future();
    std::thread([registry, done] {
        registry->GetTaskById("any");
        done->set_value();
    }).detach();
    if (got.wait_for(std::chrono::seconds(5)) == std::future_status::ready) return true;
    registry = nullptr; // leaked on purpose: deleting a lock that a thread waits on is undefined
    return false;
}

} // namespace

TEST(TaskRegistryFailure, AllocationFailuresInsideStopAllTaskLeaveNoLockHeld) {
    auto* registry = new Registry;
    std::vector<std::shared_ptr<Probe>> kept; // the test's references: no task destructor runs inside
    for (const char* id : {"a", "b", "c"}) {
        kept.push_back(MakeJob(id));
        registry->AddTaskMap(kept.back(), id);
        registry->StartTask(kept.back());
    }
    ASSERT_TRUE(Eventually([&] { return kept[0]->runs + kept[1]->runs + kept[2]->runs == 3; }));
    std::vector<std::string> log;
    auto hungry = MakeJob("h", false);
    hungry->onStop = [&log] { log.push_back(std::string(100, 'x')); }; // allocates in StopAllTask
    registry->AddTaskMap(hungry, "h");

    // A StopTask override that runs out of memory: the exception reaches the caller, the lock does not stay
    // held.
    {
        FailingAllocations fail(1);
        EXPECT_THROW(registry->StopAllTask(), std::bad_alloc);
    }
    ASSERT_TRUE(LockIsFree(registry));

    // No memory at all: StopAllTask either does without or throws, and leaves the lock free.
    hungry->onStop = nullptr;
    bool threw = false;
    {
        FailingAllocations fail(-1);
        try {
            registry->StopAllTask();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
    }
    ASSERT_TRUE(LockIsFree(registry));
    if (threw) registry->StopAllTask();
    for (const char* id : {"a", "b", "c"})
        EXPECT_EQ(nullptr, registry->GetTaskById(id)); // complete: erased
    EXPECT_EQ(hungry, registry->GetTaskById("h"));
    delete registry;
}

TEST(TaskRegistryFailure, StopAllTaskErasesOnTheSpotAndSurvivesDestructorsThatComeBack) {
    Registry registry;
    std::vector<std::string> destroyed;
    auto stayed = MakeJob("d", false), late = MakeJob("c", false);
    {
        auto first = MakeJob("a");
        first->Complete();
        Probe* lateTask = late.get();
        // Runs inside StopAllTask's erase of "a": deletes the next entry, adds one behind it, and
        // completes a later task, which must be erased in the same pass.
        first->onDestroy = [&registry, &destroyed, lateTask] {
            destroyed.push_back("a");
            registry.DeleteTaskById("b");
            registry.AddTaskMap(nullptr, "bb");
            lateTask->Complete();
        };
        auto second = MakeJob("b", false);
        second->onDestroy = [&destroyed] { destroyed.push_back("b"); };
        registry.AddTaskMap(first, "a");
        registry.AddTaskMap(second, "b");
    } // the registry holds the only references to "a" and "b"
    registry.AddTaskMap(late, "c");
    registry.AddTaskMap(stayed, "d");

    EXPECT_TRUE(registry.StopAllTask());
    EXPECT_EQ(destroyed, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(nullptr, registry.GetTaskById("a"));
    EXPECT_EQ(nullptr, registry.GetTaskById("b"));
    EXPECT_EQ(nullptr, registry.GetTaskById("c")); // completed while "a" went: erased too
    EXPECT_EQ(stayed, registry.GetTaskById("d"));
    EXPECT_TRUE(registry.DeleteTaskById("bb"));
}

// Every locked operation runs on a thread of its own, before, between and after two StopAllTask
// rounds and the closing; under ThreadSanitizer an operation that skipped the lock shows as a data
// race, elsewhere as a broken map. The rounds wait for each thread to have gone on (counted, not
// timed), so the operations meet each other however the machine schedules the threads.
TEST(TaskRegistryRace, LockedOperationsRacedAgainstEachOther) {
    Registry registry;
    constexpr int kKeys = 40;
    constexpr int kThreads = 4;
    auto key = [](int i) { return "k" + std::to_string(i % kKeys); };
    std::vector<std::shared_ptr<Probe>> workers; // started again and again while the rest goes on
    for (int i = 0; i < 3; ++i)
        workers.push_back(MakeJob("w" + std::to_string(i)));
    std::atomic<bool> done{false};
    std::atomic<int> found{0};
    std::atomic<long> steps[kThreads] = {}; // operations each thread has made so far
    std::latch start(kThreads + 1);         // no thread begins before all have come
    std::vector<std::thread> threads;
    auto spawn = [&](int index, std::function<void(int)> step) {
        threads.emplace_back([&, index, step] {
            start.arrive_and_wait();
            for (int i = 0; !done; ++i, ++steps[index])
                step(i);
        });
    };
    spawn(0, [&](int i) { // adds
        auto task = std::make_shared<Probe>();
        if (i % 3 == 0) task->Complete(); // the next StopAllTask erases it
        registry.AddTaskMap(i % 11 == 0 ? nullptr : task, key(i));
    });
    spawn(1, [&](int i) { // looks up
        if (registry.GetTaskById(key(i))) ++found;
    });
    spawn(2, [&](int i) { // deletes
        registry.DeleteTaskById(key(i * 7));
    });
    spawn(3, [&](int i) { // registers and starts real workers
        const auto& worker = workers[i % workers.size()];
        registry.AddTaskMap(worker, "w" + std::to_string(i % workers.size()));
        registry.StartTask(worker);
        std::this_thread::sleep_for(milliseconds(1));
    });
    // True once every thread has made `count` more operations than at `since`; generous for a
    // loaded machine under sanitizers.
    auto everyThreadWentOn = [&](long count) {
        long since[kThreads];
        for (int k = 0; k < kThreads; ++k)
            since[k] = steps[k];
        return Eventually(
            [&] {
                for (int k = 0; k < kThreads; ++k)
                    if (steps[k] - since[k] < count) return false;
                return true;
            },
            milliseconds(120000));
    };
    start.arrive_and_wait();
    // Stops everything twice while the others go on, then closes the registry.
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(everyThreadWentOn(20)) << "round " << round;
        EXPECT_TRUE(registry.StopAllTask());
    }
    EXPECT_TRUE(everyThreadWentOn(20));
    EXPECT_TRUE(Eventually([&] { return found > 0; }, milliseconds(120000)));
    EXPECT_TRUE(registry.SetStopAddTask());
    EXPECT_TRUE(everyThreadWentOn(20)); // adds and starts refused from here on
    done = true;
    for (auto& thread : threads)
        thread.join();
    EXPECT_GT(found.load(), 0);
    EXPECT_EQ(nullptr, registry.GetTaskById("late"));
    EXPECT_FALSE(registry.AddTaskMap(std::make_shared<Probe>(), "late"));
    EXPECT_EQ(nullptr, registry.GetTaskById("late"));
}
