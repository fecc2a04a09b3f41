// CTaskBase: a worker with an id and a completion flag, the unit of work a task registry holds.
#pragma once

#include "zoth/task/CSimpleThread.h"

#include <string>

namespace ZOTH {

class ZOTH_API CTaskBase : public CSimpleThread {
public:
    // Worker defaults, not complete, empty id.
    CTaskBase();
    // Frees the id, then ends the worker as CSimpleThread does.
    virtual ~CTaskBase();
    virtual void ThreadWork(bool* exitFlag) = 0;
    // InitThread's steps, then stores `taskId`. On failure the id keeps its previous value.
    virtual bool InitTask(std::string taskId);
    // Signals the start event: one run of the body.
    virtual void StartTask();
    // Signals the stop event and nothing else; m_bExit is left alone (BreakThread sets it).
    virtual void StopTask();
    // The value of m_bTaskComplete.
    bool GetTaskCompleteStatus();

    // Copies carry the completion flag and the id, and start with no handles.
    CTaskBase(const CTaskBase& other);
    CTaskBase& operator=(const CTaskBase& other);

protected:
    bool m_bTaskComplete; // set true by the derived body when its work is finished
    std::string m_strTaskId;
};

} // namespace ZOTH
