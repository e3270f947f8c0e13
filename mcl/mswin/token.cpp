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

namespace {

// AccessCheck refuses a descriptor without an owner or a group, which an object may have. A
// self-relative copy of `descriptor` with LocalSystem in the place of each one missing: the DACL
// decides every right as before, and no caller gets an owner's implied rights from it.
bool with_owner_and_group(PSECURITY_DESCRIPTOR descriptor, PSID owner, PSID group, std::vector<BYTE>& out) {
    sid system;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL dacl = nullptr;
    SECURITY_DESCRIPTOR absolute;
    if (!sid::from_well_known(WinLocalSystemSid, system) ||
        !GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) ||
        !InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&absolute, present, dacl, FALSE) ||
        !SetSecurityDescriptorOwner(&absolute, owner != nullptr ? owner : system.get(), FALSE) ||
        !SetSecurityDescriptorGroup(&absolute, group != nullptr ? group : system.get(), FALSE))
        return false;
    DWORD size = 0;
    MakeSelfRelativeSD(&absolute, nullptr, &size);
    out.assign(size, 0);
    return size != 0 && MakeSelfRelativeSD(&absolute, out.data(), &size);
}

}  // namespace

bool process_token::may_access(PSECURITY_DESCRIPTOR descriptor, ACCESS_MASK desired,
                               const GENERIC_MAPPING& mapping) const {
    if (!valid() || descriptor == nullptr) return false;
    PSID owner = nullptr;
    PSID group = nullptr;
    BOOL defaulted = FALSE;
    if (!GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) ||
        !GetSecurityDescriptorGroup(descriptor, &group, &defaulted))
        return false;
    std::vector<BYTE> completed;
    if (owner == nullptr || group == nullptr) {
        if (!with_owner_and_group(descriptor, owner, group, completed)) return false;
        descriptor = completed.data();
    }
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
