// Critical sections: a recursive mutex behind CRITICAL_SECTION::Impl.
#if !defined(_WIN32) // on Windows these calls come from the system
#include "zoth/platform/Win32Thread.h"

#include <mutex>
#include <new>

BOOL InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD, DWORD) {
    if (lpCriticalSection == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    lpCriticalSection->Impl = new (std::nothrow) std::recursive_mutex();
    if (lpCriticalSection->Impl == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    return TRUE;
}

void EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    static_cast<std::recursive_mutex*>(lpCriticalSection->Impl)->lock();
}

void LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    static_cast<std::recursive_mutex*>(lpCriticalSection->Impl)->unlock();
}

void DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    if (lpCriticalSection == nullptr) return;
    delete static_cast<std::recursive_mutex*>(lpCriticalSection->Impl);
    lpCriticalSection->Impl = nullptr;
}

#endif // !_WIN32
