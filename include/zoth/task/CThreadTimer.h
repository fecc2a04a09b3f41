// CThreadTimer: calls OnTimer again and again on a detached thread, after a pause each time. A loop
// ends only when the caller notifies its exit condition variable while the loop waits on it.
#pragma once

#include "zoth/platform/ZothExport.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace ZOTH {

class ZOTH_API CThreadTimer {
public:
    CThreadTimer();
    // Does not stop or wait for a running loop: the caller ends every loop first.
    ~CThreadTimer();
    CThreadTimer(const CThreadTimer&) = delete;
    CThreadTimer& operator=(const CThreadTimer&) = delete;

    // The action, run on the loop's thread with no lock held. Must not throw.
    virtual void OnTimer() = 0;

    // Stores the value; the loop does not read it.
    void SetLoopTime(int loopTime);
    // The pause before each action, in ms, from the next pause on.
    void SetTimerDuringTime(unsigned int milliseconds);
    // The exit pair; both are needed for a loop to be endable. Set before StartTimer.
    void SetGlobalExitMutex(std::mutex* mutex);
    void SetGlobalConditionVariable(std::condition_variable* cond);
    // Starts one more loop on a detached thread. Throws std::system_error if no thread can start.
    void StartTimer();
    // Does nothing: a loop ends only through the exit pair.
    void StopTimer();
    // How many loops of this object are running now; the object may go once this is 0.
    int GetRunningLoopCount() const;

protected:
    std::atomic<unsigned int> m_timerDuringTime;
    std::atomic<int> m_loopTime;
    std::mutex m_mutex;
    std::thread m_thread;
    std::condition_variable m_cond;
    std::mutex* m_pGlobalExitMutex;
    std::condition_variable* m_pGlobalConditionVariable;

private:
    void RunLoop();
    // True when the exit pair was notified during a 20 ms wait on it.
    bool ExitWait();

    std::atomic<int> m_nRunningLoops;
};

} // namespace ZOTH
