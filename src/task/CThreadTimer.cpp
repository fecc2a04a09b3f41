// The loop timer.
#include "zoth/task/CThreadTimer.h"

#include <chrono>
#include <system_error>

namespace ZOTH {

CThreadTimer::CThreadTimer()
    : m_timerDuringTime(1000), m_loopTime(1), m_pGlobalExitMutex(nullptr),
      m_pGlobalConditionVariable(nullptr), m_nRunningLoops(0) {}

CThreadTimer::~CThreadTimer() = default;

void CThreadTimer::SetLoopTime(int loopTime) {
    m_loopTime.store(loopTime);
}

void CThreadTimer::SetTimerDuringTime(unsigned int milliseconds) {
    m_timerDuringTime.store(milliseconds);
}

void CThreadTimer::SetGlobalExitMutex(std::mutex* mutex) {
    m_pGlobalExitMutex = mutex;
}

void CThreadTimer::SetGlobalConditionVariable(std::condition_variable* cond) {
    m_pGlobalConditionVariable = cond;
}

void CThreadTimer::StartTimer() {
    m_nRunningLoops.fetch_add(1);
    try {
        m_thread = std::thread(&CThreadTimer::RunLoop, this);
    } catch (const std::system_error&) {
        m_nRunningLoops.fetch_sub(1);
        throw;
    }
    m_thread.detach();
}

void CThreadTimer::StopTimer() {}

int CThreadTimer::GetRunningLoopCount() const {
    return m_nRunningLoops.load();
}

bool CThreadTimer::ExitWait() {
    std::mutex* mutex = m_pGlobalExitMutex;
    std::condition_variable* cond = m_pGlobalConditionVariable;
    if (mutex == nullptr || cond == nullptr) return false;
    std::unique_lock<std::mutex> lock(*mutex);
    // No predicate: any return other than the time-out ends the loop, a spurious one included.
    return cond->wait_for(lock, std::chrono::milliseconds(20)) == std::cv_status::no_timeout;
}

void CThreadTimer::RunLoop() {
    for (;;) {
        if (ExitWait()) break;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_cond.wait_for(lock, std::chrono::milliseconds(m_timerDuringTime.load()));
        }
        if (ExitWait()) break;
        OnTimer();
    }
    m_nRunningLoops.fetch_sub(1); // the loop's last touch of the object
}

} // namespace ZOTH
