#include "TaskTestSupport.h"
#include "zoth/task/CSimpleThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <cstring>
#include <stdexcept>

using namespace task_test;

namespace {

// A worker whose body counts its runs, can be held on a gate, and can end the thread.
class Worker : public ZOTH::CSimpleThread {
public:
    std::atomic<int> runs{0};
    std::atomic<int> entered{0};
    std::atomic<bool> sawExitOnEntry{false};
    std::atomic<bool> endAfterRun{false};
    HANDLE gate = nullptr; // if set, each run waits for it

    void ThreadWork(bool* exitFlag) override {
        if (std::atomic_ref<bool>(*exitFlag).load()) sawExitOnEntry = true;
        ++entered;
        if (gate) WaitForSingleObject(gate, INFINITE);
        if (endAfterRun) std::atomic_ref<bool>(*exitFlag).store(true);
        ++runs;
    }
    HANDLE Thread() const { return m_hThread; }
    HANDLE StartEvent() const { return m_hStartEvent; }
    HANDLE StopEvent() const { return m_hStopEvent; }
    bool Exit() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bExit)).load(); }
    bool ThreadEnded() const { return WaitForSingleObject(m_hThread, 0) == WAIT_OBJECT_0; }
};

// Ignores every stop: sleeps in a loop (so a cancellation can reach it).
class Sleeper : public ZOTH::CSimpleThread {
public:
    std::atomic<bool>* started;
    explicit Sleeper(std::atomic<bool>* s) : started(s) {}
    void ThreadWork(bool*) override {
        *started = true; // `started` is read before the object can go away
        for (;;)
            Sleep(10);
    }
    HANDLE Thread() const { return m_hThread; }
};

// Ignores every stop and never reaches a cancellation point until the test releases it. Touches
// nothing of the object once it runs, as a body that outlives its object must.
std::atomic<bool> g_spinStarted{false};
std::atomic<bool> g_spinRelease{false};
class Spinner : public ZOTH::CSimpleThread {
public:
    void ThreadWork(bool*) override {
        g_spinStarted = true;
        while (!g_spinRelease.load())
            std::this_thread::yield();
    }
    HANDLE Thread() const { return m_hThread; }
};

// No state of its own, so the copy operations are the worker's.
class Plain : public ZOTH::CSimpleThread {
public:
    void ThreadWork(bool*) override {}
    HANDLE Thread() const { return m_hThread; }
    HANDLE StartEvent() const { return m_hStartEvent; }
    HANDLE StopEvent() const { return m_hStopEvent; }
    bool Exit() const { return std::atomic_ref<bool>(const_cast<bool&>(m_bExit)).load(); }
};

std::runtime_error g_thrown("thrown by pointer");
class Thrower : public ZOTH::CSimpleThread {
public:
    std::atomic<int> runs{0};
    void ThreadWork(bool*) override {
        ++runs;
        throw static_cast<std::exception*>(&g_thrown);
    }
    HANDLE Thread() const { return m_hThread; }
};

} // namespace

TEST(TaskWorker, UninitialisedWorkerDoesNothing) {
    long long ms = TimeMs([] {
        Worker worker;
        EXPECT_TRUE(worker.StartThread());
        worker.BreakThread();
        EXPECT_FALSE(worker.Exit()); // no stop event, so the flag is not touched
        EXPECT_EQ(worker.Thread(), nullptr);
        EXPECT_EQ(worker.StartEvent(), nullptr);
    });
    EXPECT_LT(ms, 400); // no wait in the destructor
}

TEST(TaskWorker, OneRunPerStartSignal) {
    Worker worker;
    ASSERT_TRUE(worker.InitThread());
    EXPECT_NE(worker.Thread(), nullptr);
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(worker.runs.load(), 0); // parked: no body before a start
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(worker.StartThread());
        ASSERT_TRUE(Eventually([&] { return worker.runs.load() == i; }));
        std::this_thread::sleep_for(milliseconds(60));
        EXPECT_EQ(worker.runs.load(), i);
    }
    EXPECT_FALSE(worker.sawExitOnEntry.load());
    EXPECT_FALSE(worker.ThreadEnded());
}

TEST(TaskWorker, SignalsDuringARunCoalesceIntoOneMoreRun) {
    Worker worker;
    worker.gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(worker.InitThread());
    worker.StartThread();
    ASSERT_TRUE(Eventually([&] { return worker.entered.load() == 1; }));
    for (int i = 0; i < 3; ++i)
        worker.StartThread(); // remembered, but as one
    SetEvent(worker.gate);
    ASSERT_TRUE(Eventually([&] { return worker.runs.load() == 2; }));
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(worker.runs.load(), 2);
    CloseHandle(worker.gate);
    worker.gate = nullptr;
}

TEST(TaskWorker, StopWithinConfirmWindowOverridesStart) {
    Worker worker;
    ASSERT_TRUE(worker.InitThread());
    HANDLE thread = worker.Thread();
    worker.StartThread();
    worker.BreakThread(); // inside the 20 ms look at the stop event
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(worker.runs.load(), 0);
    EXPECT_TRUE(worker.Exit());
    EXPECT_EQ(ExitCode(thread), 1u);
}

TEST(TaskWorker, BreakOnParkedWorkerEndsItOnlyAtTheNextStart) {
    Worker worker;
    ASSERT_TRUE(worker.InitThread());
    worker.StartThread(); // one run makes sure the worker is parked, not still starting
    ASSERT_TRUE(Eventually([&] { return worker.runs.load() == 1; }));
    std::this_thread::sleep_for(milliseconds(20));
    worker.BreakThread();
    EXPECT_TRUE(worker.Exit());
    EXPECT_EQ(WaitForSingleObject(worker.StopEvent(), 0), WAIT_OBJECT_0);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(worker.ThreadEnded()); // still parked on the start event
    worker.StartThread();
    EXPECT_EQ(WaitForSingleObject(worker.Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(worker.runs.load(), 1);
    worker.StartThread(); // nothing clears the stop: the worker is over
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(worker.runs.load(), 1);
    EXPECT_NE(worker.Thread(), nullptr); // the handle stays until the destructor
}

TEST(TaskWorker, BodyEndsTheThreadThroughItsFlag) {
    auto worker = std::make_unique<Worker>();
    worker->endAfterRun = true;
    ASSERT_TRUE(worker->InitThread());
    worker->StartThread();
    ASSERT_EQ(WaitForSingleObject(worker->Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(worker->runs.load(), 1);
    worker->StartThread();
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(worker->runs.load(), 1);
    EXPECT_LT(TimeMs([&] { worker.reset(); }), 400); // the destructor's wait returns at once
}

TEST(TaskWorker, DestroyingParkedWorkerEndsItWithoutForce) {
    auto worker = std::make_unique<Worker>();
    ASSERT_TRUE(worker->InitThread());
    worker->StartThread();
    ASSERT_TRUE(Eventually([&] { return worker->runs.load() == 1; }));
    HANDLE thread = Dup(worker->Thread());
    EXPECT_LT(TimeMs([&] { worker.reset(); }), 400);
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(thread), 1u); // left its loop by itself
    CloseHandle(thread);
}

TEST(TaskWorker, BodyThatIgnoresTheStopIsEndedByForce) {
    std::atomic<bool> started{false};
    auto sleeper = std::make_unique<Sleeper>(&started);
    ASSERT_TRUE(sleeper->InitThread());
    sleeper->StartThread();
    ASSERT_TRUE(Eventually([&] { return started.load(); }));
    HANDLE thread = Dup(sleeper->Thread());
    long long ms = TimeMs([&] { sleeper.reset(); });
    EXPECT_GE(ms, 450); // it had its 500 ms
    EXPECT_LT(ms, 1000);
    if (kForcedEndCancels) {
        EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
        EXPECT_EQ(ExitCode(thread), 0xFFFFFFFFu);
    }
    CloseHandle(thread);
}

TEST(TaskWorker, BusyBodyOutlivingItsObjectNeverTouchesIt) {
    // The body cannot be cancelled while it spins. The destructor still returns in time, and when
    // the body finally returns the worker's loop leaves without reading the freed object (the
    // address sanitizer would report it).
    g_spinStarted = false;
    g_spinRelease = false;
    auto spinner = std::make_unique<Spinner>();
    ASSERT_TRUE(spinner->InitThread());
    spinner->StartThread();
    ASSERT_TRUE(Eventually([] { return g_spinStarted.load(); }));
    HANDLE thread = Dup(spinner->Thread());
    long long ms = TimeMs([&] { spinner.reset(); });
    EXPECT_LT(ms, 1000);
    EXPECT_EQ(WaitForSingleObject(thread, 50), WAIT_TIMEOUT);
    auto filler = std::make_unique<char[]>(sizeof(Spinner)); // likely reuses the freed memory
    std::memset(filler.get(), 0x5A, sizeof(Spinner));
    g_spinRelease = true;
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(thread), 0xFFFFFFFFu);
    CloseHandle(thread);
}

TEST(TaskWorker, ExceptionPointerFromBodyEndsTheWorker) {
    Thrower thrower;
    ASSERT_TRUE(thrower.InitThread());
    thrower.StartThread();
    ASSERT_EQ(WaitForSingleObject(thrower.Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(thrower.runs.load(), 1);
    EXPECT_EQ(ExitCode(thrower.Thread()), 1u); // taken by the loop's own guard
    thrower.StartThread();
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(thrower.runs.load(), 1);
}

TEST(TaskWorker, CopyOfInitialisedWorkerHasNoHandles) {
    Plain source;
    ASSERT_TRUE(source.InitThread());
    source.BreakThread();
    Plain copy(source);
    EXPECT_EQ(copy.Thread(), nullptr);
    EXPECT_EQ(copy.StartEvent(), nullptr);
    EXPECT_EQ(copy.StopEvent(), nullptr);
    EXPECT_TRUE(copy.Exit()); // the flag is carried over

    Plain target;
    ASSERT_TRUE(target.InitThread());
    HANDLE ownThread = target.Thread();
    target = source;
    EXPECT_EQ(target.Thread(), ownThread); // keeps its own worker
    EXPECT_TRUE(target.Exit());
    Plain& alias = target;
    target = alias;
    EXPECT_EQ(target.Thread(), ownThread);
}
