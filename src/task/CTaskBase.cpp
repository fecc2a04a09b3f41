// The task: a worker with an id and a completion flag.
#include "zoth/task/CTaskBase.h"

#include "zoth/platform/Win32Thread.h"

#include <atomic>

namespace ZOTH {

namespace {
bool LoadFlag(const bool& flag) {
    return std::atomic_ref<bool>(const_cast<bool&>(flag)).load();
}
} // namespace

CTaskBase::CTaskBase() : m_bTaskComplete(false) {}

CTaskBase::CTaskBase(const CTaskBase& other)
    : CSimpleThread(other), m_bTaskComplete(LoadFlag(other.m_bTaskComplete)), m_strTaskId(other.m_strTaskId) {
}

CTaskBase& CTaskBase::operator=(const CTaskBase& other) {
    if (this == &other) return *this;
    CSimpleThread::operator=(other);
    std::atomic_ref<bool>(m_bTaskComplete).store(LoadFlag(other.m_bTaskComplete));
    m_strTaskId = other.m_strTaskId;
    return *this;
}

// The id string goes with the members, before the worker's own destructor ends the thread.
CTaskBase::~CTaskBase() = default;

bool CTaskBase::InitTask(std::string taskId) {
    if (!InitThread()) return false;
    m_strTaskId = std::move(taskId);
    return true;
}

void CTaskBase::StartTask() {
    SetEvent(m_hStartEvent);
}

void CTaskBase::StopTask() {
    SetEvent(m_hStopEvent);
}

bool CTaskBase::GetTaskCompleteStatus() {
    return LoadFlag(m_bTaskComplete);
}

} // namespace ZOTH
