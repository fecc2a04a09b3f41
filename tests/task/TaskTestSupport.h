// Helpers shared by the task tests.
#pragma once

#include "zoth/platform/Win32Thread.h"

#include <chrono>
#include <thread>

namespace task_test {

using Clock = std::chrono::steady_clock;

// Under ThreadSanitizer the layer does not cancel a thread that it ends by force (the sanitizer
// cannot follow a cancelled thread); it leaves the thread running, detached.
#if defined(__SANITIZE_THREAD__)
constexpr bool kForcedEndCancels = false;
#else
constexpr bool kForcedEndCancels = true;
#endif
using std::chrono::milliseconds;

// Polls `done` until it holds or `limit` passes. Limits are generous: the machine is shared and
// the sanitizers slow everything down.
template <class Pred> bool Eventually(Pred done, milliseconds limit = milliseconds(10000)) {
    auto end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
}

// Milliseconds that `action` took.
template <class Action> long long TimeMs(Action action) {
    auto start = Clock::now();
    action();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

// A handle of the caller's own to the same event or thread, so a test can watch a thread after
// the object that owned it is gone.
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

} // namespace task_test
