// periodic_job: two timers drive one periodic job, and both are ended cleanly before exit.
//
// usage: periodic_job [RUN_MS [INTERVAL_MS]]     (defaults: 1000 and 100)
//   A loop timer (CThreadTimer, on a detached thread) and an event timer (CTimerBase, on a worker)
//   each run the job every INTERVAL_MS for RUN_MS; then the program ends both and reports how many
//   times each ran. Exit status: 0 when both ran and ended, 1 otherwise, 2 for bad usage.
#include "zoth/platform/Win32Thread.h"
#include "zoth/task/CThreadTimer.h"
#include "zoth/task/CTimerBase.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// The periodic job: here it only counts and prints; both timers call it from their own threads.
class Job {
public:
    Job() : m_start(Clock::now()) {}
    void Run(const char* timer, std::atomic<int>& counter) {
        const int n = ++counter;
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_start).count();
        std::lock_guard<std::mutex> lock(m_printMutex);
        std::printf("%6lld ms  %-5s timer, run %d\n", static_cast<long long>(ms), timer, n);
    }

private:
    Clock::time_point m_start;
    std::mutex m_printMutex;
};

// Loop timer: OnTimer runs after each pause, on the timer's own detached thread.
class LoopTimer : public ZOTH::CThreadTimer {
public:
    LoopTimer(Job& job, std::atomic<int>& runs) : m_job(job), m_runs(runs) {}
    void OnTimer() override { m_job.Run("loop", m_runs); }

private:
    Job& m_job;
    std::atomic<int>& m_runs;
};

// Event timer: the base starts the body once; the body holds the tick loop, waiting on the wake
// event for one interval at a time, so BreakTimer wakes it at once.
class EventTimer : public ZOTH::CTimerBase {
public:
    EventTimer(Job& job, std::atomic<int>& runs) : m_job(job), m_runs(runs) {}

    // The body uses this object's members, so it is ended and waited for before they go.
    ~EventTimer() override { Stop(); }

    // Ends the tick loop and waits for the worker thread. True when it has ended.
    bool Stop() {
        BreakThread(); // sets the exit flag first, so the wake below finds it
        BreakTimer();  // wakes the body from its wait
        return m_hThread == nullptr || WaitForSingleObject(m_hThread, 5000) == WAIT_OBJECT_0;
    }

    void ThreadWork(bool* exitFlag) override {
        std::atomic_ref<bool> exit(*exitFlag);
        std::atomic_ref<bool> timerExit(m_bTimerExit);
        for (;;) {
            const DWORD woke = WaitForSingleObject(m_hTimerWakeEvent, m_nTimerInterval);
            if (exit.load() || timerExit.load() || WaitForSingleObject(m_hTimerStopEvent, 0) == WAIT_OBJECT_0)
                break;
            if (woke == WAIT_TIMEOUT) m_job.Run("event", m_runs);
        }
        exit.store(true); // leave the worker for good rather than park it
    }

private:
    Job& m_job;
    std::atomic<int>& m_runs;
};

// A loop leaves only from one of its 20 ms waits on the exit pair, and a notification given at
// another moment is lost; so keep notifying, more often than every 20 ms, until it has gone.
bool EndLoops(const LoopTimer& timer, std::mutex& exitMutex, std::condition_variable& exitCond,
              std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (timer.GetRunningLoopCount() > 0) {
        if (Clock::now() >= deadline) return false;
        { std::lock_guard<std::mutex> lock(exitMutex); }
        exitCond.notify_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool ParseMs(const char* text, unsigned int& value) {
    char* end = nullptr;
    const unsigned long parsed = std::strtoul(text, &end, 10);
    if (end == text || *end != '\0' || parsed > 3600000) return false;
    value = static_cast<unsigned int>(parsed);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    unsigned int runMs = 1000, intervalMs = 100;
    if (argc > 3 || (argc > 1 && !ParseMs(argv[1], runMs)) || (argc > 2 && !ParseMs(argv[2], intervalMs)) ||
        intervalMs == 0) {
        std::fprintf(stderr, "usage: periodic_job [RUN_MS [INTERVAL_MS]]  (INTERVAL_MS at least 1)\n");
        return 2;
    }

    Job job;
    std::atomic<int> loopRuns{0}, eventRuns{0};
    // The exit pair must outlive every loop that uses it: declared before the timer.
    std::mutex exitMutex;
    std::condition_variable exitCond;
    LoopTimer loop(job, loopRuns);
    loop.SetTimerDuringTime(intervalMs);
    loop.SetGlobalExitMutex(&exitMutex);
    loop.SetGlobalConditionVariable(&exitCond);

    EventTimer event(job, eventRuns);
    if (!event.InitTimerBase(intervalMs)) {
        std::fprintf(stderr, "periodic_job: cannot start the event timer\n");
        return 1;
    }
    loop.StartTimer();

    std::this_thread::sleep_for(std::chrono::milliseconds(runMs));

    // One whole loop cycle is the pause, two exit waits and the job: allow a few of them.
    const bool eventEnded = event.Stop();
    const bool loopEnded =
        EndLoops(loop, exitMutex, exitCond, std::chrono::milliseconds(4 * (intervalMs + 40) + 2000));
    const int loops = loopRuns.load(), events = eventRuns.load();
    std::printf("loop timer ran %d times and %s; event timer ran %d times and %s\n", loops,
                loopEnded ? "ended" : "DID NOT END", events, eventEnded ? "ended" : "DID NOT END");
    if (!loopEnded) std::_Exit(1); // a live loop still uses `loop`: leave without destroying it
    return loops > 0 && events > 0 && eventEnded ? 0 : 1;
}
