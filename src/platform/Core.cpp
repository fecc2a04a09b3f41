// Last error, handle release, sleep and tick count.
#include "platform/KernelObject.h"

#include <chrono>
#include <thread>

namespace {
thread_local DWORD t_lastError = ERROR_SUCCESS;
}

DWORD GetLastError() {
    return t_lastError;
}

void SetLastError(DWORD error) {
    t_lastError = error;
}

BOOL CloseHandle(HANDLE handle) {
    ZOTH::platform::KernelObject* object = ZOTH::platform::ObjectOf(handle);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return object->Close();
}

void Sleep(DWORD milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

DWORD GetTickCount() {
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<DWORD>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}
