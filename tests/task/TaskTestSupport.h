// Helpers shared by the task tests.
#pragma once

#include "zoth/platform/Win32Thread.h"
#include "zoth/task/CTaskBase.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

namespace task_test {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Polls `done` until it holds or `limit` passes; generous for a loaded machine under sanitizers.
template <class Pred> bool Eventually(Pred done, milliseconds limit = milliseconds(10000)) {
    for (auto end = Clock::now() + limit; !done(); std::this_thread::sleep_for(milliseconds(2)))
        if (Clock::now() > end) return false;
    return true;
}

template <class Action> long long TimeMs(Action action) {
    auto start = Clock::now();
    action();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

// A flag the worker thread writes, read without a race.
inline bool Load(const bool& flag) {
    return std::atomic_ref<bool>(const_cast<bool&>(flag)).load();
}

// A handle of the test's own, to watch a thread after its object is gone.
inline HANDLE Dup(HANDLE handle) {
    HANDLE copy = nullptr;
    DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return copy;
}

inline DWORD ExitCode(HANDLE thread) {
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    return code;
}

inline std::runtime_error g_thrown("thrown by pointer");

// A task whose body counts its runs; it may wait on a gate, report completion, end the thread
// through its flag, or throw a std::exception*. Hooks run in its StopTask and destructor.
class Probe : public ZOTH::CTaskBase {
public:
    enum Mode { kPlain, kEndThread, kThrow } mode = kPlain;
    bool completes = false;
    std::atomic<int> runs{0}, entered{0};
    std::atomic<HANDLE> gate{nullptr};
    std::function<void()> onStop, onDestroy;
    static inline std::atomic<int> alive{0}, ran{0};

    Probe() { ++alive; }
    Probe(const Probe& other) : CTaskBase(other) { ++alive; }
    ~Probe() override {
        --alive;
        if (onDestroy) onDestroy();
    }
    void ThreadWork(bool* exitFlag) override {
        ++entered;
        if (HANDLE wait = gate.load()) WaitForSingleObject(wait, INFINITE);
        ++runs;
        ++ran;
        if (completes) std::atomic_ref<bool>(m_bTaskComplete).store(true);
        if (mode == kEndThread) std::atomic_ref<bool>(*exitFlag).store(true);
        if (mode == kThrow) throw static_cast<std::exception*>(&g_thrown);
    }
    void StopTask() override {
        if (onStop) onStop();
        CTaskBase::StopTask();
    }
    HANDLE Thread() const { return m_hThread; }
    HANDLE StopEvent() const { return m_hStopEvent; }
    bool Exit() const { return Load(m_bExit); }
    bool Ended() const { return WaitForSingleObject(m_hThread, 0) == WAIT_OBJECT_0; }
    const std::string& Id() const { return m_strTaskId; }
    void Complete() { std::atomic_ref<bool>(m_bTaskComplete).store(true); }
};

} // namespace task_test
