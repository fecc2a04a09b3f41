// CTimerBase: a worker prepared as a timer. Adds a wake and a stop event, an exit flag and an
// interval (ms), and starts the worker's first pass by itself. The timing loop is the derived body.
#pragma once

#include "zoth/task/CSimpleThread.h"

namespace ZOTH {

class ZOTH_API CTimerBase : public CSimpleThread {
public:
    // Worker defaults, no timer events, not exited, interval 1000.
    CTimerBase();
    // Signals and closes the timer events, stops the worker, then ends it as CSimpleThread does.
    virtual ~CTimerBase();
    virtual void ThreadWork(bool* exitFlag) = 0;

    // Copies carry the flag and the interval, and start with no handles.
    CTimerBase(const CTimerBase& other);
    CTimerBase& operator=(const CTimerBase& other);

    // Stores the interval, creates the wake, timer stop, start and stop events and the thread, and
    // signals the start event for the first pass. False at the first failure, keeping what was made.
    bool InitTimerBase(unsigned int interval);

protected:
    // Creates the wake event (auto-reset), then the timer stop event (manual-reset), over what the
    // fields held. False at the first failure.
    bool InitEvents();
    // Sets m_bTimerExit, then closes the wake and timer stop events. Always true.
    bool ClearEvents();
    // Signals the wake event, then the timer stop event. Always true.
    bool BreakTimer();

    HANDLE m_hTimerStopEvent;
    HANDLE m_hTimerWakeEvent;
    bool m_bTimerExit;
    unsigned int m_nTimerInterval;
};

} // namespace ZOTH
