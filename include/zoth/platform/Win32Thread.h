/// \file
/// Events, threads and critical sections of the platform layer, under their Win32 names. On Windows
/// they come from <windows.h> and <process.h>; elsewhere src/platform implements them on POSIX threads.
#pragma once

#include "zoth/platform/Win32Types.h"

#if defined(_WIN32)
#include <windows.h>
#include <process.h>
#else
#include <cstdint>

#define DUPLICATE_CLOSE_SOURCE 0x00000001u
#define DUPLICATE_SAME_ACCESS 0x00000002u
#define STILL_ACTIVE 259u

/// An unnamed event, auto-reset unless `bManualReset`, signalled at first if `bInitialState`.
/// Security attributes and name are accepted and ignored. Null on failure.
ZOTH_API HANDLE CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                             LPCWSTR lpName);

/// Signals an event: a manual-reset event stays signalled and releases every waiter; an auto-reset
/// event releases one wait, and signals given while nobody waits count as one. FALSE on a bad handle.
ZOTH_API BOOL SetEvent(HANDLE hEvent);

/// Puts an event back to non-signalled. FALSE on a bad handle.
ZOTH_API BOOL ResetEvent(HANDLE hEvent);

/// Waits until an event is signalled or a thread has ended, at most `dwMilliseconds` (INFINITE: no
/// bound). WAIT_OBJECT_0 when signalled (an auto-reset event's signal is consumed), WAIT_TIMEOUT, or
/// WAIT_FAILED with ERROR_INVALID_HANDLE for a handle that is not an event or thread.
ZOTH_API DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

/// The pseudo handle of the current process, for DuplicateHandle.
ZOTH_API HANDLE GetCurrentProcess();

/// A second handle to the same event or thread; each handle is closed on its own. Only the current
/// process is supported. FALSE with ERROR_INVALID_HANDLE for other kinds of handle.
ZOTH_API BOOL DuplicateHandle(HANDLE hSourceProcessHandle, HANDLE hSourceHandle, HANDLE hTargetProcessHandle,
                              HANDLE* lpTargetHandle, DWORD dwDesiredAccess, BOOL bInheritHandle,
                              DWORD dwOptions);

/// Starts a thread at `start_address(arglist)` at once and gives its handle as an integer, 0 on
/// failure. `initflag` must be 0; `stack_size` 0 means the default. The thread id goes to `thrdaddr`
/// if given. The handle can be waited on; closing it does not touch the running thread.
ZOTH_API uintptr_t _beginthreadex(void* security, unsigned stack_size, unsigned (*start_address)(void*),
                                  void* arglist, unsigned initflag, unsigned* thrdaddr);

/// Ends a thread by force with `dwExitCode`, wherever it is, without unwinding it. On POSIX a signal
/// parks the thread for good (its stack and any lock it holds stay) and the call returns once it is
/// parked, so it runs no code of its own again; the handle is then signalled. A thread that blocked
/// that signal (SIGRTMAX-1) runs on; the call gives up waiting for it after 2 seconds.
ZOTH_API BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode);

/// The exit code of a thread: what its entry returned, the code given to TerminateThread, or
/// STILL_ACTIVE while it runs.
ZOTH_API BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode);

/// Prepares a lock that its owning thread may enter again. Spin count and flags are ignored.
/// FALSE with the cause in GetLastError on failure.
ZOTH_API BOOL InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount,
                                          DWORD Flags);
ZOTH_API void EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
ZOTH_API void LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
/// Frees what InitializeCriticalSectionEx prepared; the lock must not be held.
ZOTH_API void DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);

#endif // _WIN32
