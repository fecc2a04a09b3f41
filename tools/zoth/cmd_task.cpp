// zoth commands and demo section of the task subsystem.
#include "Commands.h"

#include "zoth/platform/Win32Thread.h"
#include "zoth/task/CTesselControlBase.h"
#include "zoth/task/CThreadTimer.h"
#include "zoth/task/CTimerBase.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zoth_cli {

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

template <class Pred> bool WaitFor(Pred done, int limitMs) {
    auto end = Clock::now() + std::chrono::milliseconds(limitMs);
    while (!done()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Parses a whole decimal number in [low, high]; false otherwise.
bool ParseCount(const std::string& text, long low, long high, long& value) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    value = std::stol(text);
    return value >= low && value <= high;
}

// Sleeps for its work time, then reports completion.
class SleepTask : public ZOTH::CTaskBase {
public:
    explicit SleepTask(DWORD workMs) : m_workMs(workMs) {}
    void ThreadWork(bool*) override {
        Sleep(m_workMs);
        ++runs;
        std::atomic_ref<bool>(m_bTaskComplete).store(true);
    }
    std::atomic<int> runs{0};

private:
    DWORD m_workMs;
};

class CliRegistry : public ZOTH::CTesselControlBase {
public:
    // The order a control class follows: id, InitTask, AddTaskMap, StartTask.
    std::shared_ptr<SleepTask> Launch(DWORD workMs, std::string& id) {
        id = CreateTaskId();
        auto task = std::make_shared<SleepTask>(workMs);
        if (!task->InitTask(id) || !AddTaskMap(task, id) || !StartTask(task)) return nullptr;
        return task;
    }
    size_t Size() {
        EnterCriticalSection(&m_csTask);
        size_t n = m_mapTask.size();
        LeaveCriticalSection(&m_csTask);
        return n;
    }
};

// An event timer that ticks every interval until it has ticked `limit` times in one pass.
class TickTimer : public ZOTH::CTimerBase {
public:
    explicit TickTimer(int limit) : m_limit(limit) {}
    ~TickTimer() override {
        // The body uses this object's members: see it finished before the members go.
        BreakTimer();
        BreakThread();
        StartThread(); // a parked worker wakes, finds the stop and leaves
        WaitForSingleObject(m_hThread, 2000);
    }
    void ThreadWork(bool* exitFlag) override {
        ++passes;
        HANDLE stop = m_hTimerStopEvent;
        while (ticks.load() < m_limit) {
            DWORD result = WaitForSingleObject(stop, m_nTimerInterval);
            if (result != WAIT_TIMEOUT || std::atomic_ref<bool>(m_bTimerExit).load() ||
                std::atomic_ref<bool>(*exitFlag).load())
                return;
            ++ticks;
        }
    }
    std::atomic<int> passes{0};
    std::atomic<int> ticks{0};

private:
    int m_limit;
};

class CountingLoopTimer : public ZOTH::CThreadTimer {
public:
    void OnTimer() override { ++calls; }
    std::atomic<int> calls{0};
};

// Notifies the pair until no loop of the timers runs.
bool EndLoops(std::condition_variable& cond, const std::vector<CountingLoopTimer*>& timers, int limitMs) {
    return WaitFor(
        [&] {
            cond.notify_all();
            for (auto* t : timers)
                if (t->GetRunningLoopCount() != 0) return false;
            return true;
        },
        limitMs);
}

int RunTasks(const Args& args) {
    long count = 0, workMs = 50;
    if (args.empty()) return Usage("tasks", "needs N");
    if (args.size() > 2) return Extra("tasks", args[2]);
    if (!ParseCount(args[0], 1, 1000, count))
        return Usage("tasks", "N must be 1..1000, not '" + args[0] + "'");
    if (args.size() == 2 && !ParseCount(args[1], 0, 10000, workMs))
        return Usage("tasks", "WORK_MS must be 0..10000, not '" + args[1] + "'");
    auto start = Clock::now();
    CliRegistry registry;
    std::vector<std::pair<std::string, std::shared_ptr<SleepTask>>> tasks;
    for (long i = 0; i < count; ++i) {
        std::string id;
        auto task = registry.Launch(static_cast<DWORD>(workMs), id);
        if (!task) return Error("cannot start task " + std::to_string(i + 1));
        tasks.emplace_back(id, task);
    }
    std::printf("started %ld tasks in %lld ms\n", count, MsSince(start));
    bool allDone = WaitFor(
        [&] {
            for (auto& t : tasks)
                if (!t.second->GetTaskCompleteStatus()) return false;
            return true;
        },
        static_cast<int>(workMs) + 30000);
    for (auto& [id, task] : tasks)
        std::printf("  %s runs=%d complete=%s\n", id.c_str(), task->runs.load(),
                    task->GetTaskCompleteStatus() ? "yes" : "no");
    tasks.clear(); // the registry holds the only references now
    auto stopStart = Clock::now();
    registry.SetStopAddTask();
    std::printf("closed the registry: %zu task(s) left, stop took %lld ms, total %lld ms\n", registry.Size(),
                MsSince(stopStart), MsSince(start));
    if (!allDone) return Error("not every task completed in time");
    return 0;
}

int RunTimer(const Args& args) {
    long ticks = 0, intervalMs = 100;
    if (args.empty()) return Usage("timer", "needs TICKS");
    if (args.size() > 2) return Extra("timer", args[2]);
    if (!ParseCount(args[0], 1, 1000, ticks))
        return Usage("timer", "TICKS must be 1..1000, not '" + args[0] + "'");
    if (args.size() == 2 && !ParseCount(args[1], 0, 10000, intervalMs))
        return Usage("timer", "INTERVAL_MS must be 0..10000, not '" + args[1] + "'");
    auto start = Clock::now();
    TickTimer timer(static_cast<int>(ticks));
    if (!timer.InitTimerBase(static_cast<unsigned>(intervalMs))) return Error("cannot start the timer");
    int printed = 0;
    bool done = WaitFor(
        [&] {
            while (printed < timer.ticks.load())
                std::printf("tick %d at %lld ms\n", ++printed, MsSince(start));
            return printed >= ticks;
        },
        static_cast<int>(ticks * (intervalMs + 50) + 10000));
    if (!done) return Error("the timer stopped early");
    std::printf("%ld ticks in %lld ms (first pass started by itself)\n", ticks, MsSince(start));
    return 0;
}

} // namespace

std::vector<Command> TaskCommands() {
    return {
        {"tasks", "tasks N [WORK_MS]",
         "run N tasks (each sleeps WORK_MS, default 50) through a task registry and close it", RunTasks},
        {"timer", "timer TICKS [INTERVAL_MS]", "run an event timer for TICKS ticks (default interval 100 ms)",
         RunTimer},
    };
}

void TaskDemo(Demo& demo) {
    const std::string sub = "task";
    {
        CliRegistry registry;
        std::vector<std::shared_ptr<SleepTask>> tasks;
        std::string ids;
        for (int i = 0; i < 3; ++i) {
            std::string id;
            if (auto task = registry.Launch(30, id)) tasks.push_back(task);
            ids += (ids.empty() ? "" : " ") + id.substr(0, 8);
        }
        bool ran = tasks.size() == 3 && WaitFor(
                                            [&] {
                                                for (auto& t : tasks)
                                                    if (!t->GetTaskCompleteStatus()) return false;
                                                return true;
                                            },
                                            10000);
        demo.Step(sub, "registry starts 3 tasks", ran, "ids " + ids + "..., each ran once and completed");
        tasks.clear();
        auto start = Clock::now();
        registry.SetStopAddTask();
        long long ms = MsSince(start);
        std::string lateId;
        bool refused = registry.Launch(0, lateId) == nullptr;
        demo.Step(sub, "registry stops and closes", registry.Size() == 0 && refused,
                  "completed tasks erased in " + std::to_string(ms) + " ms; " +
                      (refused ? "new tasks refused" : "a new task was accepted"));
    }
    {
        TickTimer timer(3);
        auto start = Clock::now();
        bool ok = timer.InitTimerBase(20) && WaitFor([&] { return timer.ticks.load() == 3; }, 10000);
        demo.Step(sub, "event timer first pass", ok && timer.passes.load() == 1,
                  std::to_string(timer.ticks.load()) + " ticks of 20 ms in one pass, no start call, " +
                      std::to_string(MsSince(start)) + " ms");
    }
    {
        std::mutex exitMutex;
        std::condition_variable exitCond;
        CountingLoopTimer a, b;
        for (auto* t : {&a, &b}) {
            t->SetTimerDuringTime(20);
            t->SetGlobalExitMutex(&exitMutex);
            t->SetGlobalConditionVariable(&exitCond);
            t->StartTimer();
        }
        bool fired = WaitFor([&] { return a.calls.load() >= 2 && b.calls.load() >= 2; }, 10000);
        bool ended = EndLoops(exitCond, {&a, &b}, 10000);
        demo.Step(sub, "loop timers end by notify_all", fired && ended,
                  "two timers fired " + std::to_string(a.calls.load()) + " and " +
                      std::to_string(b.calls.load()) + " times; " +
                      (ended ? "one shared pair ended both" : "a loop is still running"));
        if (!ended) std::_Exit(1); // the loops would outlive their objects
    }
}

} // namespace zoth_cli
