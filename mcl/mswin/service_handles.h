// Opening the service manager and one service: the one place for it in the service wrapper.
#pragma once

#include <windows.h>

#include "app/log.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

// Opens the local service manager with `manager_access`, then the service `name` with
// `service_access`. With a `function`, a failure writes "OpenSCManagerA failed (%d)" or
// "OpenServiceA failed (%d)" under that name; with null it is silent (the caller logs, or an
// absent service is a normal answer). GetLastError() still holds the failure afterwards.
inline bool open_service(const char* function, const char* name, DWORD manager_access, DWORD service_access,
                         unique_sc_handle& manager, unique_sc_handle& svc) {
    manager.reset(OpenSCManagerA(nullptr, nullptr, manager_access));
    if (!manager) {
        const DWORD err = GetLastError();
        if (function != nullptr) NV_LOG(function, "OpenSCManagerA failed (%d)\n", static_cast<int>(err));
        SetLastError(err);
        return false;
    }
    svc.reset(OpenServiceA(manager.get(), name, service_access));
    if (!svc) {
        const DWORD err = GetLastError();
        if (function != nullptr) NV_LOG(function, "OpenServiceA failed (%d)\n", static_cast<int>(err));
        SetLastError(err);
        return false;
    }
    return true;
}

}  // namespace mcl::mswin
