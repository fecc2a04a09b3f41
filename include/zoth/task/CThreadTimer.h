// CThreadTimer: a loop timer that calls OnTimer again and again on a detached thread.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace ZOTH {

/// A loop timer, used by derivation: each StartTimer starts a detached thread that pauses, calls
/// OnTimer, and repeats. A loop ends only when the client notifies the exit condition variable it
/// handed in (SetGlobalConditionVariable) while the loop waits on it.
///
/// The client owns the exit mutex and condition variable and must keep them alive, and this object
/// too, until every loop has ended: GetRunningLoopCount() tells when. The destructor neither stops
/// nor waits for a loop. SetTimerDuringTime and SetLoopTime may be called from any thread at any
/// time; the exit pair is set before the first StartTimer.
class ZOTH_API CThreadTimer {
public:
    /// A pause of 1000 ms, loop time 1, no exit pair, no loop running.
    CThreadTimer();
    /// Does not stop or wait for a running loop: the caller ends every loop first.
    ~CThreadTimer();
    CThreadTimer(const CThreadTimer&) = delete;
    CThreadTimer& operator=(const CThreadTimer&) = delete;

    /// The action, run on the loop's thread with no lock held, once per pause. Must not throw.
    virtual void OnTimer() = 0;

    /// Stores the value; no loop reads it.
    void SetLoopTime(int loopTime);
    /// The pause before each action, in milliseconds, from the next pause on.
    void SetTimerDuringTime(unsigned int milliseconds);
    /// The exit mutex, owned by the client. A loop can be ended only when both the mutex and the
    /// condition variable are set; set them before StartTimer.
    void SetGlobalExitMutex(std::mutex* mutex);
    /// The exit condition variable, owned by the client: notifying it while a loop waits on it (20 ms
    /// before and after each pause) ends that loop.
    void SetGlobalConditionVariable(std::condition_variable* cond);
    /// Starts one more loop on a detached thread. Throws std::system_error if no thread can start.
    void StartTimer();
    /// Does nothing: a loop ends only through the exit pair.
    void StopTimer();
    /// How many loops of this object are running now; the object may be destroyed once this is 0.
    /// Any thread may ask.
    int GetRunningLoopCount() const;

protected:
    std::atomic<unsigned int> m_timerDuringTime;         ///< The pause in milliseconds.
    std::atomic<int> m_loopTime;                         ///< SetLoopTime's value, unread by the loop.
    std::mutex m_mutex;                                  ///< Guards the pause's wait on m_cond.
    std::thread m_thread;                                ///< The latest loop's thread, detached at once.
    std::condition_variable m_cond;                      ///< The pause waits on it; nothing notifies it.
    std::mutex* m_pGlobalExitMutex;                      ///< The client's exit mutex, or null.
    std::condition_variable* m_pGlobalConditionVariable; ///< The client's exit condition variable, or null.

private:
    void RunLoop();
    // True when the exit pair was notified during a 20 ms wait on it.
    bool ExitWait();

    std::atomic<int> m_nRunningLoops;
};

} // namespace ZOTH
