// The event timer's base.
#include "zoth/task/CTimerBase.h"

#include "zoth/platform/Win32Thread.h"

#include <atomic>

namespace ZOTH {

CTimerBase::CTimerBase()
    : m_hTimerStopEvent(nullptr), m_hTimerWakeEvent(nullptr), m_bTimerExit(false), m_nTimerInterval(1000) {}

CTimerBase::CTimerBase(const CTimerBase& other)
    : CSimpleThread(other), m_hTimerStopEvent(nullptr), m_hTimerWakeEvent(nullptr),
      m_bTimerExit(std::atomic_ref<bool>(const_cast<bool&>(other.m_bTimerExit)).load()),
      m_nTimerInterval(other.m_nTimerInterval) {}

CTimerBase& CTimerBase::operator=(const CTimerBase& other) {
    if (this == &other) return *this;
    CSimpleThread::operator=(other);
    std::atomic_ref<bool>(m_bTimerExit)
        .store(std::atomic_ref<bool>(const_cast<bool&>(other.m_bTimerExit)).load());
    m_nTimerInterval = other.m_nTimerInterval;
    return *this;
}

CTimerBase::~CTimerBase() {
    std::atomic_ref<bool>(m_bTimerExit).store(true);
    // A body waiting on the timer events wakes before they are closed.
    SetEvent(m_hTimerWakeEvent);
    SetEvent(m_hTimerStopEvent);
    BreakThread();
    ClearEvents();
}

bool CTimerBase::InitTimerBase(unsigned int interval) {
    m_nTimerInterval = interval;
    if (!InitEvents()) return false;
    if (!InitThread()) return false;
    StartThread(); // the first pass needs no call of StartThread by the caller
    return true;
}

bool CTimerBase::InitEvents() {
    m_hTimerWakeEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hTimerWakeEvent == nullptr) return false;
    m_hTimerStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return m_hTimerStopEvent != nullptr;
}

bool CTimerBase::ClearEvents() {
    std::atomic_ref<bool>(m_bTimerExit).store(true);
    if (m_hTimerWakeEvent) {
        CloseHandle(m_hTimerWakeEvent);
        m_hTimerWakeEvent = nullptr;
    }
    if (m_hTimerStopEvent) {
        CloseHandle(m_hTimerStopEvent);
        m_hTimerStopEvent = nullptr;
    }
    return true;
}

bool CTimerBase::BreakTimer() {
    SetEvent(m_hTimerWakeEvent);
    SetEvent(m_hTimerStopEvent);
    return true;
}

} // namespace ZOTH
