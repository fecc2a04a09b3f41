// The task registry.
#include "zoth/task/CTesselControlBase.h"

#include "zoth/text/STRING_UTIL.h"

#include <atomic>
#include <system_error>
#include <vector>

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
    CTesselControlBase::StopAllTask(); // an override is gone by now
    DeleteCriticalSection(&m_csTask);
    m_mapTask.clear(); // what is left goes now, complete or not, with no lock held
}

bool CTesselControlBase::StopAllTask() {
    EnterCriticalSection(&m_csTask);
    for (auto& [id, task] : m_mapTask) {
        if (!task) continue;
        task->StopTask();
        task->BreakThread();
    }
    Sleep(200); // the tasks' time to report completion; the lock stays held
    // Erased references are dropped after the pass, still under the lock, so a task destructor
    // that comes back to this registry cannot upset the iteration.
    std::vector<std::shared_ptr<CTaskBase>> erased;
    for (auto it = m_mapTask.begin(); it != m_mapTask.end();) {
        if (it->second && it->second->GetTaskCompleteStatus()) {
            erased.push_back(std::move(it->second));
            it = m_mapTask.erase(it);
        } else {
            ++it;
        }
    }
    for (auto& task : erased)
        task.reset(); // in key order, each may take up to 500 ms
    LeaveCriticalSection(&m_csTask);
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
    std::shared_ptr<CTaskBase> erased; // dropped after the erase, still under the lock
    EnterCriticalSection(&m_csTask);
    auto found = m_mapTask.find(taskId);
    if (found != m_mapTask.end()) {
        erased = std::move(found->second);
        m_mapTask.erase(found);
    }
    erased.reset();
    LeaveCriticalSection(&m_csTask);
    return true;
}

bool CTesselControlBase::AddTaskMap(std::shared_ptr<CTaskBase> task, std::string taskId) {
    if (IsClosed(m_bStopAddTask)) return false;
    EnterCriticalSection(&m_csTask);
    m_mapTask.emplace(std::move(taskId), std::move(task));
    LeaveCriticalSection(&m_csTask);
    return true;
}

std::shared_ptr<CTaskBase> CTesselControlBase::GetTaskById(std::string taskId) {
    std::shared_ptr<CTaskBase> task;
    EnterCriticalSection(&m_csTask);
    auto found = m_mapTask.find(taskId);
    if (found != m_mapTask.end()) task = found->second;
    LeaveCriticalSection(&m_csTask);
    return task;
}

std::string CTesselControlBase::CreateTaskId() {
    return STRING_UTIL::GetGuid();
}

} // namespace ZOTH
