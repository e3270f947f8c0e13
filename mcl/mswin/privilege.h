// One privilege of the process token switched for a scope and put back as it was when the
// scope ends. The token holds many privileges disabled (SeLoadDriverPrivilege,
// SeTakeOwnershipPrivilege...); calls such as FilterAttach need them enabled.
#pragma once

#include <windows.h>

#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

class scoped_privilege {
public:
    // Where the switch stopped, for the caller's one log line.
    enum class state { switched, no_token, unknown_privilege, not_switched };

    // Opens the process token (TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY), looks `name` up and
    // enables it (or disables it with `enable` false), keeping the state it had. Does not log:
    // state() and error() say what failed.
    explicit scoped_privilege(const char* name, bool enable = true);
    // Puts the privilege back as it was, when it was switched.
    ~scoped_privilege();
    scoped_privilege(const scoped_privilege&) = delete;
    scoped_privilege& operator=(const scoped_privilege&) = delete;

    bool switched() const { return state_ == state::switched; }
    state result() const { return state_; }
    // GetLastError() of the failed step (ERROR_NOT_ALL_ASSIGNED when the token lacks it).
    DWORD error() const { return error_; }

private:
    unique_kernel_handle token_;
    TOKEN_PRIVILEGES previous_{};
    state state_ = state::no_token;
    DWORD error_ = ERROR_SUCCESS;
};

}  // namespace mcl::mswin
