// Events and threads behind HANDLEs, on POSIX threads. Both kinds share one waitable state: a
// signalled flag under a mutex and condition variable; a thread's state is a manual-reset event that
// its thread signals as it ends. Handles are only entry points to the state (shared_ptr), so a wait
// keeps the state alive even if another thread closes the handle meanwhile, and a thread's state
// outlives a closed handle.
//
// A forced end parks the thread for good instead of unwinding it: a signal whose handler blocks
// every signal and sleeps for ever. Unwinding (pthread_cancel) aborts the process at a catch (...)
// or a noexcept frame and runs client destructors; a parked thread runs no client code again and
// keeps its stack and whatever locks it held, as Windows' TerminateThread does.
#if !defined(_WIN32) // on Windows these calls come from the system
#include "platform/KernelObject.h"
#include "zoth/platform/Win32Thread.h"

#include <pthread.h>
#include <signal.h>
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
    std::atomic<bool> parked{false}; // set by the park signal's handler, on the thread itself
};

struct SyncHandle : ZOTH::platform::KernelObject {
    explicit SyncHandle(std::shared_ptr<SyncState> s) : state(std::move(s)) {}
    std::shared_ptr<SyncState> state;
    BOOL Close() override;
};

// A thread is not parked while it holds the lock of the open handles, which every handle call
// takes: the park waits until the scope ends. Initial-exec TLS, so the handler's access allocates
// nothing.
__attribute__((tls_model("initial-exec"))) thread_local int t_noParkDepth = 0;
__attribute__((tls_model("initial-exec"))) thread_local std::atomic<bool>* t_parkPending = nullptr;

[[noreturn]] void Park(std::atomic<bool>* parked);

struct NoParkScope {
    NoParkScope() {
        ++t_noParkDepth;
        std::atomic_signal_fence(std::memory_order_seq_cst); // the handler sees the count first
    }
    ~NoParkScope() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (--t_noParkDepth == 0 && t_parkPending != nullptr) {
            // The signal came while the lock was held; park now with every signal blocked, as the
            // handler does.
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            Park(t_parkPending);
        }
    }
    NoParkScope(const NoParkScope&) = delete;
    NoParkScope& operator=(const NoParkScope&) = delete;
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
    NoParkScope noPark;
    std::lock_guard<std::shared_mutex> lock(g_handlesMutex);
    OpenHandles().insert(handle);
    return handle;
}

BOOL SyncHandle::Close() {
    {
        NoParkScope noPark;
        std::lock_guard<std::shared_mutex> lock(g_handlesMutex);
        OpenHandles().erase(this);
    }
    delete this;
    return TRUE;
}

// The state behind an open event or thread handle, or null (with ERROR_INVALID_HANDLE).
std::shared_ptr<SyncState> StateOf(HANDLE handle) {
    NoParkScope noPark;
    std::shared_lock<std::shared_mutex> lock(g_handlesMutex);
    auto found = OpenHandles().find(static_cast<const SyncHandle*>(handle));
    if (handle == nullptr || found == OpenHandles().end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return (*found)->state;
}

std::atomic<unsigned> g_nextThreadId{1};

// Tells TerminateThread the thread is parked, then sleeps for good; signals are blocked by then.
void Park(std::atomic<bool>* parked) {
    if (parked != nullptr) parked->store(true);
    for (;;)
        pause();
}

// The signal that parks a thread; a real-time one, which nothing sends by default.
int ParkSignal() {
    return SIGRTMAX - 1;
}

// Runs on the thread being ended, with every signal blocked (the action's mask). It parks at once
// and never returns, so the mask stays; inside a handle call it returns and the call parks on its
// way out. Only async-signal-safe work: lock-free stores and pause().
void ParkHandler(int, siginfo_t* info, void*) {
    auto* parked = static_cast<std::atomic<bool>*>(info->si_value.sival_ptr);
    if (t_noParkDepth > 0) { // inside a handle call: parked as it leaves the lock
        t_parkPending = parked;
        return;
    }
    Park(parked);
}

// Installed once per process; an installed action survives fork.
void InstallParkHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_sigaction = ParkHandler;
        action.sa_flags = SA_SIGINFO;
        sigfillset(&action.sa_mask);
        sigaction(ParkSignal(), &action, nullptr);
    });
}

// Blocks the park signal for the rest of the calling thread's life: its own end-of-thread code must
// not be parked while it holds the state's lock. A park signal that comes later dies with the thread.
void BlockParkSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, ParkSignal());
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

struct ThreadStart {
    std::shared_ptr<SyncState> state;
    unsigned (*entry)(void*);
    void* arg;
};

// Signals the thread's end on every way out of its entry.
struct EndMark {
    SyncState& state;
    bool returned = false;
    unsigned code = 0;
    ~EndMark() {
        BlockParkSignal();
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
        // The thread's own id is stored before TerminateThread can signal it.
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
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->signalled || state->terminateAsked) return TRUE; // already over, or on its way out
        state->terminateAsked = true;
        state->exitCode = dwExitCode;
        if (!state->started) return TRUE; // ThreadMain sees terminateAsked and never calls the entry
        // While not signalled the detached thread has not left ThreadMain, so its id is still valid,
        // and the state (held by ThreadMain) outlives the handler's store.
        InstallParkHandler();
        union sigval value {};
        value.sival_ptr = &state->parked;
        if (pthread_sigqueue(state->thread, ParkSignal(), value) != 0) return TRUE;
    }
    // Waits until the thread is parked or has ended by itself (its end code blocks the signal), so
    // that on return it runs no client code any more. Delivery takes microseconds; the bound only
    // covers a body that blocked the signal itself, which then runs on.
    std::unique_lock<std::mutex> lock(state->mutex);
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
         !state->signalled && !state->parked.load() && std::chrono::steady_clock::now() < end;)
        state->changed.wait_for(lock, std::chrono::milliseconds(1));
    if (state->parked.load() && !state->signalled) {
        state->signalled = true; // parked for good: it counts as ended
        state->changed.notify_all();
    }
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
