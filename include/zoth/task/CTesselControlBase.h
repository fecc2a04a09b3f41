// CTesselControlBase: the registry of a program's tasks, by id, stopped together.
#pragma once

#include "zoth/platform/ZothTypes.h"
#include "zoth/task/CTaskBase.h"

#include <map>
#include <memory>
#include <string>

namespace ZOTH {

/// The registry of a program's tasks, by id, used by derivation: a control class adds tasks, starts
/// them, and at shutdown closes the registry and stops them all together.
///
/// The registry holds one std::shared_ptr to each task; the client may hold others. Adding, finding,
/// deleting and stopping take the registry's lock (m_csTask), so any thread may call them; the lock
/// is held across StopAllTask's 200 ms sleep.
class ZOTH_API CTesselControlBase {
public:
    /// An empty, open registry. Throws std::system_error with the platform error code when its lock
    /// cannot be prepared.
    CTesselControlBase();
    /// Closes the registry, runs this class's StopAllTask (not an override), takes every entry that is
    /// left out of the map under the lock and drops it outside (a task destructor that calls back
    /// finds the registry closed and empty), then deletes the lock.
    virtual ~CTesselControlBase();
    /// Tells every task to stop (StopTask, then what BreakThread does), sleeps 200 ms, and erases the
    /// tasks that report completion, all under the lock. Always true. May block for 200 ms plus up to
    /// 500 ms for each erased task whose worker has to be ended.
    virtual bool StopAllTask();
    /// Closes the registry for good (AddTaskMap and StartTask refuse from now on), then calls
    /// StopAllTask. Always true.
    virtual bool SetStopAddTask();

    /// A copy shares the tasks, takes over the closed flag and has a lock of its own.
    CTesselControlBase(const CTesselControlBase& other);
    /// As the copy: shares the other's tasks (dropping its own references) and keeps its own lock.
    CTesselControlBase& operator=(const CTesselControlBase& other);

protected:
    /// Calls task->StartTask() unless the registry is closed (then false). Takes no lock.
    virtual bool StartTask(std::shared_ptr<CTaskBase> task);
    /// Erases the entry with this key, if any, dropping the registry's reference. Always true.
    virtual bool DeleteTaskById(std::string taskId);
    /// Inserts the pair unless the registry is closed (then false). An existing key keeps its task
    /// and the result is still true.
    virtual bool AddTaskMap(std::shared_ptr<CTaskBase> task, std::string taskId);
    /// The task under this key, or an empty pointer.
    virtual std::shared_ptr<CTaskBase> GetTaskById(std::string taskId);
    /// A new id: 32 upper-case hexadecimal digits from a random GUID. Takes no lock.
    std::string CreateTaskId();

    std::map<std::string, std::shared_ptr<CTaskBase>> m_mapTask; ///< The tasks by id; guard with m_csTask.
    CRITICAL_SECTION m_csTask; ///< The registry's lock; may be entered again by the thread holding it.
    bool m_bStopAddTask;       ///< True once the registry is closed; touch it through std::atomic_ref<bool>.
};

} // namespace ZOTH
