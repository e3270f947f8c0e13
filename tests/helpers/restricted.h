// An ordinary (non-administrator) user for tests: the caller's token with the Administrators
// group made deny-only and every privilege but change-notify removed.
#pragma once

#include <windows.h>

#include "mcl/mswin/unique_handle.h"

namespace nv_test {

// CreateRestrictedToken(DISABLE_MAX_PRIVILEGE, Administrators deny-only) of this process's
// token; with `impersonation`, duplicated as an impersonation token (for AccessCheck). Null on
// failure.
mcl::mswin::unique_kernel_handle restricted_token(bool impersonation = false);
// Runs `command_line` (a program and its arguments, quoted as a command line) under that token
// through CreateProcessAsUserW, with this process's standard handles, waits for it and returns
// its exit code; 255 when it cannot start.
int run_restricted(const wchar_t* command_line);

}  // namespace nv_test
