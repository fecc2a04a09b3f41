// Every HANDLE the platform layer gives out points at a KernelObject. CloseHandle calls Close(),
// which by default deletes the object; kinds that outlive their handle (a running thread) override it.
#pragma once

#include "zoth/platform/Win32Types.h"

namespace ZOTH::platform {

struct KernelObject {
    virtual ~KernelObject() = default;
    virtual BOOL Close() {
        delete this;
        return TRUE;
    }
};

// The object behind a handle, or null for null and INVALID_HANDLE_VALUE.
inline KernelObject* ObjectOf(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
    return static_cast<KernelObject*>(handle);
}

} // namespace ZOTH::platform
