// The task registry.
#include "zoth/task/CTesselControlBase.h"

#include "zoth/text/STRING_UTIL.h"
#include "zoth/win32.h"

#include <atomic>
#include <system_error>

namespace ZOTH {

namespace {
void InitLock(CRITICAL_SECTION& lock) {
    if (!InitializeCriticalSectionEx(&lock, 0, 0))
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                                "InitializeCriticalSectionEx");
}

bool IsClosed(const bool& flag) {
    return std::atomic_ref<bool>(const_cast<bool&>(flag)).load();
}

// Holds a critical section for a scope, so that no exception can leave it held.
class CriticalSectionLock {
public:
    explicit CriticalSectionLock(CRITICAL_SECTION& lock) : m_lock(lock) { EnterCriticalSection(&m_lock); }
    ~CriticalSectionLock() { LeaveCriticalSection(&m_lock); }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

private:
    CRITICAL_SECTION& m_lock;
};
} // namespace

CTesselControlBase::CTesselControlBase() : m_csTask{}, m_bStopAddTask(false) {
    InitLock(m_csTask);
}

CTesselControlBase::CTesselControlBase(const CTesselControlBase& other)
    : m_mapTask(other.m_mapTask), m_csTask{}, m_bStopAddTask(IsClosed(other.m_bStopAddTask)) {
    InitLock(m_csTask);
}

CTesselControlBase& CTesselControlBase::operator=(const CTesselControlBase& other) {
    if (this == &other) return *this;
    m_mapTask.clear();
    m_mapTask = other.m_mapTask;
    std::atomic_ref<bool>(m_bStopAddTask).store(IsClosed(other.m_bStopAddTask));
    return *this;
}

CTesselControlBase::~CTesselControlBase() {
    std::atomic_ref<bool>(m_bStopAddTask).store(true);
    try {
        CTesselControlBase::StopAllTask(); // an override is gone by now
    } catch (...) {
        // A task's StopTask threw (the lock is released by then); a destructor cannot pass it on,
        // and the entries still have to go.
    }
    // What is left goes now, complete or not. The entries leave the map under the lock and die
    // outside it, before the lock itself: a task destructor that comes back to this registry finds
    // it whole, closed and empty.
    for (;;) {
        std::map<std::string, std::shared_ptr<CTaskBase>> left;
        {
            CriticalSectionLock hold(m_csTask);
            left.swap(m_mapTask);
        }
        if (left.empty()) break;
        left.clear(); // each task's destructor: up to 500 ms
    }
    DeleteCriticalSection(&m_csTask);
}

bool CTesselControlBase::StopAllTask() {
    CriticalSectionLock hold(m_csTask);
    for (auto& [id, task] : m_mapTask) {
        if (!task) continue;
        task->StopTask();
        task->BreakThread();
    }
    Sleep(200); // the tasks' time to report completion; the lock stays held
    // Each complete task is erased on the spot, so one that completes while an earlier task's
    // destructor waits goes too. A destructor may come back to this registry (the lock is
    // re-entrant) and change the map, so the pass finds its place again by key after each erase.
    // Taking the node out allocates nothing.
    for (auto it = m_mapTask.begin(); it != m_mapTask.end();) {
        if (!it->second || !it->second->GetTaskCompleteStatus()) {
            ++it;
            continue;
        }
        auto node = m_mapTask.extract(it);
        node.mapped().reset(); // the task's destructor, if this was the last reference: up to 500 ms
        it = m_mapTask.upper_bound(node.key());
    }
    return true;
}

bool CTesselControlBase::SetStopAddTask() {
    std::atomic_ref<bool>(m_bStopAddTask).store(true);
    StopAllTask();
    return true;
}

bool CTesselControlBase::StartTask(std::shared_ptr<CTaskBase> task) {
    if (IsClosed(m_bStopAddTask)) return false;
    task->StartTask();
    return true;
}

bool CTesselControlBase::DeleteTaskById(std::string taskId) {
    CriticalSectionLock hold(m_csTask);
    // Out of the map first: the task's destructor, run after, may come back to this registry.
    auto node = m_mapTask.extract(taskId);
    if (!node.empty()) node.mapped().reset();
    return true;
}

bool CTesselControlBase::AddTaskMap(std::shared_ptr<CTaskBase> task, std::string taskId) {
    if (IsClosed(m_bStopAddTask)) return false;
    CriticalSectionLock hold(m_csTask);
    m_mapTask.emplace(std::move(taskId), std::move(task));
    return true;
}

std::shared_ptr<CTaskBase> CTesselControlBase::GetTaskById(std::string taskId) {
    CriticalSectionLock hold(m_csTask);
    auto found = m_mapTask.find(taskId);
    return found != m_mapTask.end() ? found->second : nullptr;
}

std::string CTesselControlBase::CreateTaskId() {
    return STRING_UTIL::GetGuid();
}

} // namespace ZOTH
