// CSimpleThread: an event-driven worker thread, the base of tasks and event timers.
#pragma once

#include "zoth/platform/ZothTypes.h"

#include <memory>

namespace ZOTH {

struct ThreadLoopState; // what the worker thread shares with its object (CSimpleThread.cpp)

/// An event-driven worker, used by derivation: one thread, parked on a start event, runs the derived
/// ThreadWork once per start signal; a stop request ends the thread for good.
///
/// Two-phase: the constructor creates nothing, InitThread creates the events and the thread, the
/// destructor ends and closes them. The object owns its handles. InitThread, StartThread and
/// BreakThread are called by the thread that owns the object; ThreadWork runs on the worker.
class ZOTH_API CSimpleThread {
public:
    /// All fields at their defaults; no event or thread exists yet.
    CSimpleThread();
    /// Asks the worker to end (as BreakThread), gives it 500 ms, ends it by force after that, and
    /// closes the handles. A forced end unwinds nothing and returns once the worker is stopped for
    /// good (parked, on Linux), so its body never runs again; see the README for what it costs.
    virtual ~CSimpleThread();
    /// The body, run on the worker once per start signal. `exitFlag` is the address of m_bExit: it
    /// turns true when a stop is asked (read it through std::atomic_ref<bool>), and setting it true
    /// before returning ends the worker.
    virtual void ThreadWork(bool* exitFlag) = 0;

    /// A copy gets the exit flag but no handles: it is an uninitialised worker of its own.
    CSimpleThread(const CSimpleThread& other);
    /// Copies the exit flag; the target keeps its own handles and worker.
    CSimpleThread& operator=(const CSimpleThread& other);

    /// Creates the start event, the stop event and the parked thread, in that order. True when all
    /// three exist; false at the first failure, keeping what was made (the destructor closes it).
    /// Call it at most once.
    bool InitThread();
    /// Signals the start event: one more run of the body. Always true, also before InitThread.
    bool StartThread();
    /// If the stop event exists: sets m_bExit, then signals the stop event. Does not wait for the
    /// worker to end.
    void BreakThread();
    /// The thread's entry point; `param` is the object. 1, or 0 when a thrown std::exception* escaped the
    /// loop.
    static unsigned int _ThreadProc(void* param);
    /// The worker's loop, run on the worker: wait for a start, look 20 ms at the stop event, run the
    /// body, repeat until the exit flag or the stop event says otherwise.
    void RunThreadProc();

protected:
    HANDLE m_hThread;     ///< The worker thread; null until InitThread made it.
    HANDLE m_hStartEvent; ///< Auto-reset start event: one signal, one run of the body.
    HANDLE m_hStopEvent;  ///< Manual-reset stop event, signalled by BreakThread.
    bool m_bExit;         ///< True once a stop was asked; touch it through std::atomic_ref<bool>.

private:
    // Shared with the worker thread, so that a worker outliving a forced end never touches the
    // object again.
    std::shared_ptr<ThreadLoopState> m_spLoopState;
};

} // namespace ZOTH
