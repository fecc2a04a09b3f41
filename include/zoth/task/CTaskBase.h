// CTaskBase: a worker with an id and a completion flag, the unit of work a task registry holds.
#pragma once

#include "zoth/task/CSimpleThread.h"

#include <string>

namespace ZOTH {

/// A worker with an id and a completion flag: the unit of work that a CTesselControlBase registry
/// holds, used by derivation. The derived ThreadWork sets m_bTaskComplete when its work is done.
///
/// Tasks are shared through std::shared_ptr: the registry keeps one reference and the client may keep
/// others; the task's worker ends when the last reference goes (see ~CSimpleThread). InitTask,
/// StartTask and StopTask are called by the thread that controls the task.
class ZOTH_API CTaskBase : public CSimpleThread {
public:
    /// Worker defaults, not complete, an empty id. No event or thread exists yet.
    CTaskBase();
    /// Frees the id, then ends the worker as ~CSimpleThread does (500 ms, then by force).
    virtual ~CTaskBase();
    /// The task's work, run on its worker once per StartTask. See CSimpleThread::ThreadWork.
    virtual void ThreadWork(bool* exitFlag) = 0;
    /// InitThread's steps, then stores `taskId`. True when the events and the thread exist; on
    /// failure false, and the id keeps its previous value. Call it at most once.
    virtual bool InitTask(std::string taskId);
    /// Signals the start event: one run of the body. Does nothing visible before InitTask.
    virtual void StartTask();
    /// Signals the stop event and nothing else; m_bExit is left alone (BreakThread sets it).
    virtual void StopTask();
    /// The value of m_bTaskComplete: true once the body said its work is done. Any thread may ask.
    bool GetTaskCompleteStatus();

    /// A copy carries the completion flag and the id, and starts with no handles.
    CTaskBase(const CTaskBase& other);
    /// Copies the completion flag and the id; the target keeps its own handles and worker.
    CTaskBase& operator=(const CTaskBase& other);

protected:
    bool m_bTaskComplete;    ///< Set true by the derived body, through std::atomic_ref<bool>, when done.
    std::string m_strTaskId; ///< The id given to InitTask; empty before.
};

} // namespace ZOTH
