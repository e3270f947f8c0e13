// An ordinary (non-administrator) user for tests: the caller's token with the Administrators
// group made deny-only and every privilege but change-notify removed.
#pragma once

#include <windows.h>

#include <utility>

#include "mcl/mswin/sid.h"
#include "mcl/mswin/unique_handle.h"

namespace nv_test {

// CreateRestrictedToken(DISABLE_MAX_PRIVILEGE, Administrators deny-only) of this process's
// token; with `impersonation`, duplicated as an impersonation token (for AccessCheck). Null on
// failure.
inline mcl::mswin::unique_kernel_handle restricted_token(bool impersonation = false) {
    mcl::mswin::unique_kernel_handle own, restricted, duplicate;
    mcl::mswin::sid admins;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, own.put()) ||
        !mcl::mswin::sid::from_well_known(WinBuiltinAdministratorsSid, admins))
        return {};
    SID_AND_ATTRIBUTES deny{admins.get(), 0};
    if (!CreateRestrictedToken(own.get(), DISABLE_MAX_PRIVILEGE, 1, &deny, 0, nullptr, 0, nullptr, restricted.put()) ||
        (impersonation && !DuplicateToken(restricted.get(), SecurityImpersonation, duplicate.put())))
        return {};
    return impersonation ? std::move(duplicate) : std::move(restricted);
}

}  // namespace nv_test
