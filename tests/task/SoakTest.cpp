#include "TaskTestSupport.h"
#include "zoth/task/CTesselControlBase.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace task_test;

namespace {

std::atomic<int> g_alive{0};
std::atomic<int> g_ran{0};

// Completes on its first run, except every seventh, which runs but never reports completion and so
// is left for the registry's destructor.
class SoakTask : public ZOTH::CTaskBase {
public:
    explicit SoakTask(bool completes) : m_completes(completes) { ++g_alive; }
    ~SoakTask() override { --g_alive; }
    void ThreadWork(bool*) override {
        ++g_ran;
        if (m_completes) std::atomic_ref<bool>(m_bTaskComplete).store(true);
    }

private:
    bool m_completes;
};

class SoakRegistry : public ZOTH::CTesselControlBase {
public:
    // The order a control class follows: id, InitTask, AddTaskMap, StartTask.
    bool Launch(bool completes) {
        std::string id = CreateTaskId();
        auto task = std::make_shared<SoakTask>(completes);
        if (!task->InitTask(id)) return false;
        return AddTaskMap(task, id) && StartTask(task);
    }
    size_t Size() {
        EnterCriticalSection(&m_csTask);
        size_t n = m_mapTask.size();
        LeaveCriticalSection(&m_csTask);
        return n;
    }
};

} // namespace

TEST(TaskSoak, ThousandsOfTasksThroughRegistries) {
    constexpr int kRounds = 20;
    constexpr int kPerRound = 100;
    int launched = 0;
    const int ranBefore = g_ran.load();
    long long ms = TimeMs([&] {
        for (int round = 0; round < kRounds; ++round) {
            SoakRegistry registry;
            for (int i = 0; i < kPerRound; ++i) {
                ASSERT_TRUE(registry.Launch(i % 7 != 0));
                ++launched;
            }
            ASSERT_TRUE(Eventually([&] { return g_ran.load() - ranBefore == launched; }));
            registry.SetStopAddTask();
            EXPECT_EQ(registry.Size(), static_cast<size_t>((kPerRound + 6) / 7)); // the incomplete ones
            EXPECT_FALSE(registry.Launch(true));                                  // closed
        } // the destructor drops the rest
    });
    EXPECT_EQ(launched, kRounds * kPerRound);
    EXPECT_EQ(g_alive.load(), 0); // every task was destroyed; the leak checker covers the rest
    EXPECT_LT(ms, 240000);        // bounded: no hang
    std::printf("soak: %d tasks in %lld ms\n", launched, ms);
}
