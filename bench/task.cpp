// Costs of the task subsystem: an event round trip between two threads (against a std peer), a
// worker's start-to-body delay (its 20 ms look at the stop event dominates), and a registry's
// task creation and teardown.
#include "zoth/platform/Win32Thread.h"
#include "zoth/task/CTesselControlBase.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

void BM_EventPingPong(benchmark::State& state) {
    HANDLE ping = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE pong = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    std::thread echo([&] {
        while (WaitForSingleObject(ping, INFINITE) == WAIT_OBJECT_0 && !stop.load())
            SetEvent(pong);
    });
    for (auto _ : state) {
        SetEvent(ping);
        WaitForSingleObject(pong, INFINITE);
    }
    stop = true;
    SetEvent(ping);
    echo.join();
    CloseHandle(ping);
    CloseHandle(pong);
}
BENCHMARK(BM_EventPingPong)->UseRealTime();

// The peer: the same round trip with a bare mutex, condition variable and flag per direction.
void BM_StdPingPong(benchmark::State& state) {
    std::mutex m;
    std::condition_variable cv;
    int turn = 0; // 1: echo's turn, 2: caller's turn, 3: stop
    std::thread echo([&] {
        std::unique_lock<std::mutex> lock(m);
        for (;;) {
            cv.wait(lock, [&] { return turn == 1 || turn == 3; });
            if (turn == 3) return;
            turn = 2;
            cv.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(m);
        turn = 1;
        cv.notify_all();
        cv.wait(lock, [&] { return turn == 2; });
    }
    {
        std::lock_guard<std::mutex> lock(m);
        turn = 3;
    }
    cv.notify_all();
    echo.join();
}
BENCHMARK(BM_StdPingPong)->UseRealTime();

class SignalTask : public ZOTH::CTaskBase {
public:
    HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    ~SignalTask() override { CloseHandle(done); }
    void ThreadWork(bool*) override { SetEvent(done); }
};

void BM_WorkerStartToBody(benchmark::State& state) {
    SignalTask task;
    task.InitTask("bench");
    for (auto _ : state) {
        task.StartTask();
        WaitForSingleObject(task.done, INFINITE);
    }
}
BENCHMARK(BM_WorkerStartToBody)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(50);

class Registry : public ZOTH::CTesselControlBase {
public:
    void Add(int n) {
        for (int i = 0; i < n; ++i) {
            auto task = std::make_shared<SignalTask>();
            std::string id = CreateTaskId();
            task->InitTask(id);
            AddTaskMap(task, id);
        }
    }
};

// Creating N parked tasks and destroying the registry (its 200 ms stop pass included).
void BM_RegistryLifecycle(benchmark::State& state) {
    for (auto _ : state) {
        Registry registry;
        registry.Add(static_cast<int>(state.range(0)));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RegistryLifecycle)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

BENCHMARK_MAIN();
