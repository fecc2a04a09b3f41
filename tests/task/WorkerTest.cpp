// The worker loop of CSimpleThread, and CTaskBase's stop and copies.
#include "TaskTestSupport.h"

#include <gtest/gtest.h>

#include <memory>

using namespace task_test;

namespace {

// Ignores every stop, sleeping or spinning until released (which never comes).
std::atomic<bool> g_stuck{false}, g_release{false}, g_sleeps{false};
class Stubborn : public ZOTH::CSimpleThread {
public:
    void ThreadWork(bool*) override {
        g_stuck = true;
        while (!g_release)
            g_sleeps ? Sleep(10) : std::this_thread::yield();
    }
    HANDLE Thread() const { return m_hThread; }
};

} // namespace

TEST(TaskWorker, UninitialisedWorkerDoesNothing) {
    long long ms = TimeMs([] {
        Probe worker;
        EXPECT_TRUE(worker.StartThread());
        worker.StartTask();
        worker.StopTask();
        worker.BreakThread();
        EXPECT_FALSE(worker.Exit()); // no stop event, so the flag is untouched
        EXPECT_EQ(worker.Thread(), nullptr);
    });
    EXPECT_LT(ms, 400); // no wait in the destructor
}

TEST(TaskWorker, OneRunPerStartSignalCoalescedSignalsAndQuietEnd) {
    auto worker = std::make_unique<Probe>();
    ASSERT_TRUE(worker->InitThread());
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(worker->runs.load(), 0); // parked: no body before a start
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(worker->StartThread());
        ASSERT_TRUE(Eventually([&] { return worker->runs.load() == i; }));
        std::this_thread::sleep_for(milliseconds(60));
        EXPECT_EQ(worker->runs.load(), i);
    }
    // Starts during a run are remembered, but as one.
    HANDLE gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    worker->gate = gate;
    worker->StartThread();
    ASSERT_TRUE(Eventually([&] { return worker->entered.load() == 4; }));
    for (int i = 0; i < 3; ++i)
        worker->StartThread();
    SetEvent(gate);
    ASSERT_TRUE(Eventually([&] { return worker->runs.load() == 5; }));
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(worker->runs.load(), 5);
    EXPECT_FALSE(worker->Ended());

    // Destroying a parked worker ends it without force, at once.
    HANDLE thread = Dup(worker->Thread());
    EXPECT_LT(TimeMs([&] { worker.reset(); }), 400);
    EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(thread), 1u);
    CloseHandle(thread);
    CloseHandle(gate);
}

TEST(TaskWorker, StopWithinConfirmWindowOverridesStart) {
    Probe worker;
    ASSERT_TRUE(worker.InitThread());
    worker.StartThread();
    worker.BreakThread(); // inside the 20 ms look at the stop event
    EXPECT_EQ(WaitForSingleObject(worker.Thread(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(worker.runs.load(), 0);
    EXPECT_EQ(ExitCode(worker.Thread()), 1u);
}

TEST(TaskWorker, StopOnParkedWorkerEndsItOnlyAtTheNextStart) {
    for (bool viaBreak : {true, false}) {
        SCOPED_TRACE(viaBreak ? "BreakThread" : "StopTask");
        Probe worker;
        ASSERT_TRUE(worker.InitTask("parked"));
        worker.StartTask(); // one run makes sure the worker is parked, not still starting
        ASSERT_TRUE(Eventually([&] { return worker.runs.load() == 1; }));
        std::this_thread::sleep_for(milliseconds(20));
        viaBreak ? worker.BreakThread() : worker.StopTask();
        EXPECT_EQ(worker.Exit(), viaBreak); // StopTask leaves the flag alone
        EXPECT_EQ(WaitForSingleObject(worker.StopEvent(), 0), WAIT_OBJECT_0);
        std::this_thread::sleep_for(milliseconds(100));
        EXPECT_FALSE(worker.Ended()); // still parked on the start event
        worker.StartTask();
        EXPECT_EQ(WaitForSingleObject(worker.Thread(), 10000), WAIT_OBJECT_0);
        worker.StartTask(); // nothing clears the stop: the worker is over
        std::this_thread::sleep_for(milliseconds(60));
        EXPECT_EQ(worker.runs.load(), 1);
    }
}

TEST(TaskWorker, BodyEndsTheWorkerByFlagOrThrownPointer) {
    for (Probe::Mode mode : {Probe::kEndThread, Probe::kThrow}) {
        SCOPED_TRACE(mode == Probe::kThrow ? "std::exception* thrown" : "flag set");
        auto worker = std::make_unique<Probe>();
        worker->mode = mode;
        ASSERT_TRUE(worker->InitThread());
        worker->StartThread();
        ASSERT_EQ(WaitForSingleObject(worker->Thread(), 10000), WAIT_OBJECT_0);
        EXPECT_EQ(ExitCode(worker->Thread()), 1u); // a thrown pointer is taken by the loop's own guard
        worker->StartThread();
        std::this_thread::sleep_for(milliseconds(60));
        EXPECT_EQ(worker->runs.load(), 1);
        EXPECT_LT(TimeMs([&] { worker.reset(); }), 400); // the destructor's wait returns at once
    }
}

TEST(TaskWorker, BodyIgnoringTheStopIsEndedByForce) {
    for (bool sleeps : {true, false}) {
        SCOPED_TRACE(sleeps ? "sleeping body" : "spinning body");
        g_stuck = false;
        g_release = false;
        g_sleeps = sleeps;
        auto stubborn = std::make_unique<Stubborn>();
        ASSERT_TRUE(stubborn->InitThread());
        stubborn->StartThread();
        ASSERT_TRUE(Eventually([] { return g_stuck.load(); }));
        HANDLE thread = Dup(stubborn->Thread());
        long long ms = TimeMs([&] { stubborn.reset(); });
        EXPECT_GE(ms, 450); // it had its 500 ms
        EXPECT_LT(ms, 1500);
        // Ended wherever it was, sleeping or spinning, by the time the destructor returned.
        EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
        EXPECT_EQ(ExitCode(thread), 0xFFFFFFFFu);
        CloseHandle(thread);
    }
}

TEST(TaskTask, CopiesTakeFlagIdAndCompletionButNoHandles) {
    Probe source, target;
    ASSERT_TRUE(source.InitTask("original"));
    ASSERT_TRUE(target.InitTask("mine"));
    source.Complete();
    source.BreakThread();
    Probe copy(source);
    EXPECT_EQ(copy.Thread(), nullptr);
    EXPECT_TRUE(copy.Exit() && copy.GetTaskCompleteStatus() && copy.Id() == "original");
    HANDLE ownThread = target.Thread();
    static_cast<ZOTH::CTaskBase&>(target) = source;
    EXPECT_EQ(target.Thread(), ownThread); // keeps its own worker
    EXPECT_TRUE(target.Exit() && target.GetTaskCompleteStatus() && target.Id() == "original");
}
