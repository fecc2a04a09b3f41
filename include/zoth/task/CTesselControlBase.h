// CTesselControlBase: the registry of a program's tasks, by id, stopped together. Used by derivation.
#pragma once

#include "zoth/platform/Win32Thread.h"
#include "zoth/task/CTaskBase.h"

#include <map>
#include <memory>
#include <string>

namespace ZOTH {

class ZOTH_API CTesselControlBase {
public:
    // An empty, open registry. Throws std::system_error with the platform error code when its lock
    // cannot be prepared.
    CTesselControlBase();
    // Closes the registry, runs this class's StopAllTask, deletes the lock, then drops every entry.
    virtual ~CTesselControlBase();
    // Tells every task to stop (StopTask, then what BreakThread does), sleeps 200 ms, and erases the
    // tasks that report completion, all under the lock. Always true.
    virtual bool StopAllTask();
    // Closes the registry for good, then calls StopAllTask. Always true.
    virtual bool SetStopAddTask();

    // A copy shares the tasks, takes over the closed flag and has a lock of its own.
    CTesselControlBase(const CTesselControlBase& other);
    CTesselControlBase& operator=(const CTesselControlBase& other);

protected:
    // Calls task->StartTask() unless the registry is closed (then false). Takes no lock.
    virtual bool StartTask(std::shared_ptr<CTaskBase> task);
    // Erases the entry with this key, if any. Always true.
    virtual bool DeleteTaskById(std::string taskId);
    // Inserts the pair unless the registry is closed (then false). An existing key keeps its task.
    virtual bool AddTaskMap(std::shared_ptr<CTaskBase> task, std::string taskId);
    // The task under this key, or an empty pointer.
    virtual std::shared_ptr<CTaskBase> GetTaskById(std::string taskId);
    // A new id: 32 upper-case hexadecimal digits.
    std::string CreateTaskId();

    std::map<std::string, std::shared_ptr<CTaskBase>> m_mapTask;
    CRITICAL_SECTION m_csTask;
    bool m_bStopAddTask;
};

} // namespace ZOTH
