// CSimpleThread: an event-driven worker. One thread, parked on a start event; each start signal runs
// the derived class's body once. A stop request ends the thread for good.
#pragma once

#include "zoth/platform/Win32Types.h"

#include <memory>

namespace ZOTH {

struct ThreadLoopState; // what the worker thread shares with its object (CSimpleThread.cpp)

class ZOTH_API CSimpleThread {
public:
    // All fields at their defaults; no handle exists yet.
    CSimpleThread();
    // Asks the worker to end, gives it 500 ms, ends it by force after that, and closes the handles.
    virtual ~CSimpleThread();
    // The thread body, run once per start signal. `exitFlag` is the address of m_bExit: setting it
    // true before returning ends the worker; it turns true when a stop is asked.
    virtual void ThreadWork(bool* exitFlag) = 0;

    // A copy gets the flag but no handles: it is an uninitialised worker of its own.
    CSimpleThread(const CSimpleThread& other);
    // Copies the flag; the target keeps its own handles and worker.
    CSimpleThread& operator=(const CSimpleThread& other);

    // Creates the start event, the stop event and the parked thread, in that order. True when all
    // three exist; false at the first failure, keeping what was made. Called at most once.
    bool InitThread();
    // Signals the start event: one more run of the body. Always true.
    bool StartThread();
    // If the stop event exists: sets m_bExit, then signals the stop event. Does not wait.
    void BreakThread();
    // The thread's entry; `param` is the object. 1, or 0 when a std::exception* escaped the loop.
    static unsigned int _ThreadProc(void* param);
    // The worker's loop: wait for a start, look 20 ms at the stop event, run the body, repeat.
    void RunThreadProc();

protected:
    HANDLE m_hThread;
    HANDLE m_hStartEvent;
    HANDLE m_hStopEvent;
    bool m_bExit;

private:
    // Shared with the worker thread, so that a worker outliving a forced end never touches the
    // object again.
    std::shared_ptr<ThreadLoopState> m_spLoopState;
};

} // namespace ZOTH
