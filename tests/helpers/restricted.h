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
// Runs argv[0] with argv[1..] under that token through CreateProcessAsUserW, with this
// process's standard handles, waits for it and returns its exit code; 255 when it cannot start.
int run_restricted(int argc, char** argv);

}  // namespace nv_test
