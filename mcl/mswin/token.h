// What a process's access token says about who runs it: whether its user is LocalSystem, whether
// it is a member of a group (deny-only entries do not count), and whether it would be granted an
// access to an object. Each question is asked of the process's own token, through an
// identification-level duplicate, so that nothing is ever done under that token. Any thread.
#pragma once

#include <windows.h>

#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

class process_token {
public:
    // Opens the primary token of `process` (held with PROCESS_QUERY_LIMITED_INFORMATION or
    // PROCESS_QUERY_INFORMATION) for query and duplication, and makes its identification-level
    // duplicate. valid() is false when either fails; error() tells why.
    explicit process_token(HANDLE process);

    bool valid() const { return identity_.valid(); }
    DWORD error() const { return error_; }

    // Whether the token's user is `type` (WinLocalSystemSid, for example). False when unreadable.
    bool user_is(WELL_KNOWN_SID_TYPE type) const;
    // CheckTokenMembership on the duplicate: an enabled group, never a deny-only one. False when
    // it cannot be asked.
    bool member_of(WELL_KNOWN_SID_TYPE type) const;
    // AccessCheck of `desired` against `descriptor` (its owner, group and DACL; LocalSystem stands
    // in for an owner or group it lacks) under `mapping`: true only when every right asked for is
    // granted. False when it cannot be asked.
    bool may_access(PSECURITY_DESCRIPTOR descriptor, ACCESS_MASK desired, const GENERIC_MAPPING& mapping) const;

private:
    unique_kernel_handle identity_;  // the identification-level duplicate
    DWORD error_ = ERROR_SUCCESS;
};

}  // namespace mcl::mswin
