#include "mcl/mswin/privilege.h"

namespace mcl::mswin {

scoped_privilege::scoped_privilege(const char* name, bool enable) {
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token_.put())) {
        error_ = GetLastError();
        return;
    }
    TOKEN_PRIVILEGES want{};
    want.PrivilegeCount = 1;
    want.Privileges[0].Attributes = enable ? SE_PRIVILEGE_ENABLED : 0;
    if (!LookupPrivilegeValueA(nullptr, name, &want.Privileges[0].Luid)) {
        error_ = GetLastError();
        state_ = state::unknown_privilege;
        return;
    }
    DWORD size = sizeof(previous_);
    // AdjustTokenPrivileges succeeds with ERROR_NOT_ALL_ASSIGNED when the token lacks the privilege.
    if (!AdjustTokenPrivileges(token_.get(), FALSE, &want, sizeof(want), &previous_, &size) ||
        GetLastError() == ERROR_NOT_ALL_ASSIGNED) {
        error_ = GetLastError();
        state_ = state::not_switched;
        return;
    }
    state_ = state::switched;
}

scoped_privilege::~scoped_privilege() {
    if (switched()) AdjustTokenPrivileges(token_.get(), FALSE, &previous_, 0, nullptr, nullptr);
}

}  // namespace mcl::mswin
