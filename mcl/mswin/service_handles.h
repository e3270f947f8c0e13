// Opening the service manager and one service: the one place for it in the service wrapper.
#pragma once

#include <windows.h>

#include "mcl/log.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

namespace detail {

inline SC_HANDLE open_service_by_name(SC_HANDLE manager, const char* name, DWORD access) {
    return OpenServiceA(manager, name, access);
}
inline SC_HANDLE open_service_by_name(SC_HANDLE manager, const wchar_t* name, DWORD access) {
    return OpenServiceW(manager, name, access);
}

// A failed `call`: with a `function`, "<call> failed (%d)" under that name; GetLastError() kept.
inline bool failed(const char* function, const char* call) {
    const DWORD err = GetLastError();
    if (function != nullptr) NV_LOG(function, "%s failed (%d)\n", call, static_cast<int>(err));
    SetLastError(err);
    return false;
}

}  // namespace detail

// Opens the local service manager with `manager_access`. With a `function`, a failure writes
// "OpenSCManagerA failed (%d)" under that name; with null it is silent. GetLastError() still
// holds the failure afterwards.
inline bool open_manager(const char* function, DWORD manager_access, unique_sc_handle& manager) {
    manager.reset(OpenSCManagerA(nullptr, nullptr, manager_access));
    return manager ? true : detail::failed(function, "OpenSCManagerA");
}

// The local service manager opened with `manager_access`, shared by the whole process and never
// closed: each open is a round trip to the manager (about 5 ms under load), and a start asks it
// about every protected service several times. Null when it cannot be opened (GetLastError()
// says why; the next call tries again). Any thread.
SC_HANDLE shared_manager(DWORD manager_access);

// Opens the service `name` (narrow or wide) with `service_access`, through the shared manager
// opened with `manager_access`. With a `function`, a failure writes "OpenSCManagerA failed (%d)"
// or "OpenServiceA failed (%d)" under that name; with null it is silent (the caller logs, or an
// absent service is a normal answer). GetLastError() still holds the failure afterwards.
template <typename Char>
bool open_service(const char* function, const Char* name, DWORD manager_access, DWORD service_access,
                  unique_sc_handle& svc) {
    const SC_HANDLE manager = shared_manager(manager_access);
    if (manager == nullptr) return detail::failed(function, "OpenSCManagerA");
    svc.reset(detail::open_service_by_name(manager, name, service_access));
    return svc ? true : detail::failed(function, "OpenServiceA");
}

}  // namespace mcl::mswin
