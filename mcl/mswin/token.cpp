#include "mcl/mswin/token.h"

#include <vector>

#include "mcl/mswin/sid.h"

namespace mcl::mswin {

process_token::process_token(HANDLE process) {
    unique_kernel_handle primary;
    if (process == nullptr || !OpenProcessToken(process, TOKEN_QUERY | TOKEN_DUPLICATE, primary.put()) ||
        !DuplicateToken(primary.get(), SecurityIdentification, identity_.put())) {
        error_ = GetLastError();
        identity_.reset();
    }
}

bool process_token::user_is(WELL_KNOWN_SID_TYPE type) const {
    if (!valid()) return false;
    DWORD size = 0;
    GetTokenInformation(identity_.get(), TokenUser, nullptr, 0, &size);
    if (size < sizeof(TOKEN_USER)) return false;
    std::vector<BYTE> user(size);
    if (!GetTokenInformation(identity_.get(), TokenUser, user.data(), size, &size)) return false;
    sid wanted;
    return sid::from_well_known(type, wanted) && sid(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid) == wanted;
}

bool process_token::member_of(WELL_KNOWN_SID_TYPE type) const {
    sid group;
    BOOL member = FALSE;
    return valid() && sid::from_well_known(type, group) && CheckTokenMembership(identity_.get(), group.get(), &member) &&
           member != FALSE;
}

bool process_token::may_access(PSECURITY_DESCRIPTOR descriptor, ACCESS_MASK desired,
                               const GENERIC_MAPPING& mapping) const {
    if (!valid() || descriptor == nullptr) return false;
    MapGenericMask(&desired, const_cast<GENERIC_MAPPING*>(&mapping));
    PRIVILEGE_SET privileges{};
    DWORD privileges_size = sizeof(privileges);
    DWORD granted = 0;
    BOOL status = FALSE;
    return AccessCheck(descriptor, identity_.get(), desired, const_cast<GENERIC_MAPPING*>(&mapping), &privileges,
                       &privileges_size, &granted, &status) &&
           status != FALSE && (granted & desired) == desired;
}

}  // namespace mcl::mswin
