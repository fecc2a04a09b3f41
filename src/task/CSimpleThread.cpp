// The event-driven worker.
#include "zoth/task/CSimpleThread.h"

#include "zoth/platform/Win32Thread.h"

#include <atomic>
#include <exception>
#include <mutex>

namespace ZOTH {

// Shared by the object and its worker thread. The worker reads the object's fields only under
// `mutex` and only while `abandoned` is false; the destructor sets it before a forced end, so a
// worker that outlives its object returns without touching it. The worker waits on handles of its
// own to the two events, which stay valid after the object closed its handles.
struct ThreadLoopState {
    std::mutex mutex;
    bool abandoned = false;
    HANDLE hStartEvent = nullptr;
    HANDLE hStopEvent = nullptr;
    ~ThreadLoopState() {
        if (hStartEvent) CloseHandle(hStartEvent);
        if (hStopEvent) CloseHandle(hStopEvent);
    }
};

namespace {
HANDLE Duplicate(HANDLE handle) {
    HANDLE copy = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE,
                         DUPLICATE_SAME_ACCESS))
        return nullptr;
    return copy;
}
} // namespace

CSimpleThread::CSimpleThread()
    : m_hThread(nullptr), m_hStartEvent(nullptr), m_hStopEvent(nullptr), m_bExit(false) {}

CSimpleThread::CSimpleThread(const CSimpleThread& other)
    : m_hThread(nullptr), m_hStartEvent(nullptr), m_hStopEvent(nullptr),
      m_bExit(std::atomic_ref<bool>(const_cast<bool&>(other.m_bExit)).load()) {}

CSimpleThread& CSimpleThread::operator=(const CSimpleThread& other) {
    if (this != &other)
        std::atomic_ref<bool>(m_bExit).store(std::atomic_ref<bool>(const_cast<bool&>(other.m_bExit)).load());
    return *this;
}

bool CSimpleThread::InitThread() {
    m_hStartEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hStartEvent == nullptr) return false;
    m_hStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (m_hStopEvent == nullptr) return false;

    auto loop = std::make_shared<ThreadLoopState>();
    loop->hStartEvent = Duplicate(m_hStartEvent);
    loop->hStopEvent = Duplicate(m_hStopEvent);
    if (loop->hStartEvent == nullptr || loop->hStopEvent == nullptr) return false;
    m_spLoopState = std::move(loop);

    m_hThread =
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &CSimpleThread::_ThreadProc, this, 0, nullptr));
    return m_hThread != nullptr;
}

bool CSimpleThread::StartThread() {
    SetEvent(m_hStartEvent);
    return true;
}

void CSimpleThread::BreakThread() {
    if (m_hStopEvent == nullptr) return;
    std::atomic_ref<bool>(m_bExit).store(true);
    SetEvent(m_hStopEvent);
}

unsigned int CSimpleThread::_ThreadProc(void* param) {
    if (param == nullptr) return 1;
    try {
        static_cast<CSimpleThread*>(param)->RunThreadProc();
    } catch (std::exception*) {
        return 0;
    }
    return 1;
}

void CSimpleThread::RunThreadProc() {
    std::shared_ptr<ThreadLoopState> loop = m_spLoopState;
    if (!loop) return; // never initialised: there are no events to wait on

    // The loop's tests of steps 1, 4 and 7: a missing event or a set exit flag ends the worker.
    auto mustEnd = [&](bool clearExit) {
        std::lock_guard<std::mutex> lock(loop->mutex);
        if (loop->abandoned || m_hStartEvent == nullptr || m_hStopEvent == nullptr) return true;
        std::atomic_ref<bool> exit(m_bExit);
        if (exit.load()) return true;
        if (clearExit) exit.store(false);
        return false;
    };

    for (;;) {
        if (mustEnd(false)) return;
        WaitForSingleObject(loop->hStartEvent, INFINITE);
        // A stop that comes within 20 ms of the start overrides it.
        if (WaitForSingleObject(loop->hStopEvent, 20) == WAIT_OBJECT_0) return;
        if (mustEnd(true)) return;
        try {
            ThreadWork(&m_bExit);
        } catch (std::exception*) {
            return;
        }
        if (mustEnd(false)) return;
    }
}

CSimpleThread::~CSimpleThread() {
    std::atomic_ref<bool>(m_bExit).store(true);
    // Stop before start: a parked worker wakes and finds the stop already signalled.
    if (m_hStopEvent) SetEvent(m_hStopEvent);
    if (m_hStartEvent) SetEvent(m_hStartEvent);
    if (m_hThread && WaitForSingleObject(m_hThread, 500) != WAIT_OBJECT_0) {
        if (m_spLoopState) {
            std::lock_guard<std::mutex> lock(m_spLoopState->mutex);
            m_spLoopState->abandoned = true;
        }
        TerminateThread(m_hThread, 0xFFFFFFFF);
    }
    if (m_hStopEvent) {
        CloseHandle(m_hStopEvent);
        m_hStopEvent = nullptr;
    }
    if (m_hStartEvent) {
        CloseHandle(m_hStartEvent);
        m_hStartEvent = nullptr;
    }
    if (m_hThread) {
        CloseHandle(m_hThread);
        m_hThread = nullptr;
    }
}

} // namespace ZOTH
