// CTimerBase: a worker prepared as an event timer.
#pragma once

#include "zoth/task/CSimpleThread.h"

namespace ZOTH {

/// A worker prepared as an event timer, used by derivation: it adds a wake event, a timer stop event,
/// an exit flag and an interval (ms), and starts the worker's first pass by itself. The timing loop
/// is the derived ThreadWork, which typically waits on m_hTimerWakeEvent and m_hTimerStopEvent for
/// m_nTimerInterval milliseconds at a time until m_bTimerExit is set.
///
/// The object owns its events and worker. InitTimerBase and BreakTimer are called by the thread that
/// owns the object; the body runs on the worker.
class ZOTH_API CTimerBase : public CSimpleThread {
public:
    /// Worker defaults, no timer events, not exited, an interval of 1000 ms.
    CTimerBase();
    /// Signals and closes the timer events, stops the worker, then ends it as ~CSimpleThread does.
    virtual ~CTimerBase();
    /// The timing loop, run on the worker; started once by InitTimerBase. See CSimpleThread::ThreadWork.
    virtual void ThreadWork(bool* exitFlag) = 0;

    /// A copy carries the exit flag and the interval, and starts with no handles.
    CTimerBase(const CTimerBase& other);
    /// Copies the exit flag and the interval; the target keeps its own handles and worker.
    CTimerBase& operator=(const CTimerBase& other);

    /// Stores the interval, creates the wake, timer stop, start and stop events and the thread, and
    /// signals the start event for the first pass. False at the first failure, keeping what was made
    /// (the destructor closes it). Call it at most once.
    bool InitTimerBase(unsigned int interval);

protected:
    /// Creates the wake event (auto-reset), then the timer stop event (manual-reset), over what the
    /// fields held. False at the first failure.
    bool InitEvents();
    /// Sets m_bTimerExit, then closes the wake and timer stop events. Always true.
    bool ClearEvents();
    /// Signals the wake event, then the timer stop event, so a waiting body wakes and sees the stop.
    /// Always true.
    bool BreakTimer();

    HANDLE m_hTimerStopEvent;      ///< Manual-reset: signalled once the timer is to end.
    HANDLE m_hTimerWakeEvent;      ///< Auto-reset: wakes the body before its interval is over.
    bool m_bTimerExit;             ///< True once the timer is to end; touch it through std::atomic_ref<bool>.
    unsigned int m_nTimerInterval; ///< The interval in milliseconds.
};

} // namespace ZOTH
