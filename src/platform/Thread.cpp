// Events and threads behind HANDLEs, on POSIX threads. Both kinds share one waitable state: a
// signalled flag under a mutex and condition variable; a thread's state is a manual-reset event that
// its thread signals as it ends. Handles are only entry points to the state (shared_ptr), so a wait
// keeps the state alive even if another thread closes the handle meanwhile, and a thread's state
// outlives a closed handle.
#if !defined(_WIN32) // on Windows these calls come from the system
#include "platform/KernelObject.h"
#include "zoth/platform/Win32Thread.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_set>

#if defined(__SANITIZE_THREAD__)
#define ZOTH_UNDER_TSAN 1
#else
#define ZOTH_UNDER_TSAN 0
#endif

namespace {

struct SyncState {
    std::mutex mutex;
    std::condition_variable changed;
    bool signalled = false;
    bool manualReset = true;
    // Threads only.
    bool isThread = false;
    bool started = false;          // the entry has been called
    bool terminateAsked = false;   // TerminateThread came first
    DWORD exitCode = STILL_ACTIVE; // valid once signalled
    pthread_t thread{};
};

struct SyncHandle : ZOTH::platform::KernelObject {
    explicit SyncHandle(std::shared_ptr<SyncState> s) : state(std::move(s)) {}
    std::shared_ptr<SyncState> state;
    BOOL Close() override;
};

// The handles that are open now. A handle value is looked up here before use, so a closed or foreign
// handle gives ERROR_INVALID_HANDLE rather than a read of freed memory.
std::shared_mutex g_handlesMutex; // shared for look-ups, exclusive for opening and closing
std::unordered_set<const SyncHandle*>& OpenHandles() {
    static auto* handles = new std::unordered_set<const SyncHandle*>(); // never freed: used at exit
    return *handles;
}

HANDLE Register(std::shared_ptr<SyncState> state) {
    SyncHandle* handle = new (std::nothrow) SyncHandle(std::move(state));
    if (handle == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::lock_guard<std::shared_mutex> lock(g_handlesMutex);
    OpenHandles().insert(handle);
    return handle;
}

BOOL SyncHandle::Close() {
    {
        std::lock_guard<std::shared_mutex> lock(g_handlesMutex);
        OpenHandles().erase(this);
    }
    delete this;
    return TRUE;
}

// The state behind an open event or thread handle, or null (with ERROR_INVALID_HANDLE).
std::shared_ptr<SyncState> StateOf(HANDLE handle) {
    std::shared_lock<std::shared_mutex> lock(g_handlesMutex);
    auto found = OpenHandles().find(static_cast<const SyncHandle*>(handle));
    if (handle == nullptr || found == OpenHandles().end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return (*found)->state;
}

std::atomic<unsigned> g_nextThreadId{1};

struct ThreadStart {
    std::shared_ptr<SyncState> state;
    unsigned (*entry)(void*);
    void* arg;
};

// Signals the thread's end on every way out, also when a cancellation unwinds the stack.
struct EndMark {
    SyncState& state;
    bool returned = false;
    unsigned code = 0;
    ~EndMark() {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (returned && !state.terminateAsked) state.exitCode = code;
        state.signalled = true;
        state.changed.notify_all();
    }
};

void* ThreadMain(void* param) {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(param));
    std::shared_ptr<SyncState> state = start->state;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->terminateAsked) { // ended by force before it began
            state->signalled = true;
            state->changed.notify_all();
            return nullptr;
        }
        state->started = true;
    }
    EndMark mark{*state};
    mark.code = start->entry(start->arg);
    mark.returned = true;
    return nullptr;
}

} // namespace

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCWSTR) {
    std::shared_ptr<SyncState> state(new (std::nothrow) SyncState());
    if (!state) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    state->manualReset = bManualReset != FALSE;
    state->signalled = bInitialState != FALSE;
    return Register(std::move(state));
}

BOOL SetEvent(HANDLE hEvent) {
    std::shared_ptr<SyncState> state = StateOf(hEvent);
    if (!state || state->isThread) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->signalled = true;
    }
    // Woken outside the lock, so the waiter does not block on it at once; `state` keeps it alive.
    if (state->manualReset)
        state->changed.notify_all();
    else
        state->changed.notify_one();
    return TRUE;
}

BOOL ResetEvent(HANDLE hEvent) {
    std::shared_ptr<SyncState> state = StateOf(hEvent);
    if (!state || state->isThread) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(state->mutex);
    state->signalled = false;
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    std::shared_ptr<SyncState> state = StateOf(hHandle);
    if (!state) return WAIT_FAILED;
    std::unique_lock<std::mutex> lock(state->mutex);
    auto isSignalled = [&] { return state->signalled; };
    if (dwMilliseconds == INFINITE)
        state->changed.wait(lock, isSignalled);
    else if (!state->changed.wait_for(lock, std::chrono::milliseconds(dwMilliseconds), isSignalled))
        return WAIT_TIMEOUT;
    if (!state->manualReset) state->signalled = false; // the signal is this wait's
    return WAIT_OBJECT_0;
}

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1));
}

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(::getpid());
}

BOOL DuplicateHandle(HANDLE hSourceProcessHandle, HANDLE hSourceHandle, HANDLE hTargetProcessHandle,
                     HANDLE* lpTargetHandle, DWORD, BOOL, DWORD dwOptions) {
    if (hSourceProcessHandle != GetCurrentProcess() || hTargetProcessHandle != GetCurrentProcess() ||
        lpTargetHandle == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::shared_ptr<SyncState> state = StateOf(hSourceHandle);
    if (!state) return FALSE;
    HANDLE copy = Register(std::move(state));
    if (copy == nullptr) return FALSE;
    if (dwOptions & DUPLICATE_CLOSE_SOURCE) CloseHandle(hSourceHandle);
    *lpTargetHandle = copy;
    return TRUE;
}

uintptr_t _beginthreadex(void*, unsigned stack_size, unsigned (*start_address)(void*), void* arglist,
                         unsigned initflag, unsigned* thrdaddr) {
    if (start_address == nullptr || initflag != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::shared_ptr<SyncState> state(new (std::nothrow) SyncState());
    ThreadStart* start = state ? new (std::nothrow) ThreadStart{state, start_address, arglist} : nullptr;
    if (start == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    state->isThread = true;
    HANDLE handle = Register(state);
    if (handle == nullptr) {
        delete start;
        return 0;
    }

    // Detached from the start: nobody joins, the handle's wait is on the state instead.
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (stack_size != 0) pthread_attr_setstacksize(&attr, stack_size < 65536 ? 65536 : stack_size);
    int rc;
    {
        // The thread's own id is stored before it can be cancelled.
        std::lock_guard<std::mutex> lock(state->mutex);
        rc = pthread_create(&state->thread, &attr, ThreadMain, start);
    }
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete start;
        CloseHandle(handle);
        SetLastError(rc == EAGAIN ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (thrdaddr != nullptr) *thrdaddr = g_nextThreadId.fetch_add(1);
    return reinterpret_cast<uintptr_t>(handle);
}

BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode) {
    std::shared_ptr<SyncState> state = StateOf(hThread);
    if (!state || !state->isThread) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->signalled || state->terminateAsked) return TRUE; // already over, or on its way out
    state->terminateAsked = true;
    state->exitCode = dwExitCode;
    // While not signalled the detached thread has not left ThreadMain, so its id is still valid.
    // The thread sanitizer loses track of a cancelled thread's locks and reports races that are
    // not there; under it the thread is left to run on, detached, which the callers survive too.
#if !ZOTH_UNDER_TSAN
    if (state->started) pthread_cancel(state->thread);
#endif
    return TRUE;
}

BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode) {
    std::shared_ptr<SyncState> state = StateOf(hThread);
    if (!state || !state->isThread || lpExitCode == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(state->mutex);
    *lpExitCode = state->signalled ? state->exitCode : STILL_ACTIVE;
    return TRUE;
}

#endif // !_WIN32
