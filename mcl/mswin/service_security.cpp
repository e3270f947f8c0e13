// Service SIDs, service DACLs and the DACL that grants full access to selected SIDs only.
#include <windows.h>

#include <sddl.h>
#include <wincrypt.h>

#include <cstring>
#include <string>
#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/crypto.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

namespace {

bool sha1(const void* data, DWORD size, BYTE (&digest)[20]) {
    std::vector<unsigned char> value;
    if (!mcl::mswin::digest(CALG_SHA1, data, size, value) || value.size() != sizeof(digest)) return false;
    memcpy(digest, value.data(), sizeof(digest));
    return true;
}

// Opens the service `name` for reading and writing its DACL; `fn` names the caller in the log.
bool open_for_security(const char* fn, const char* name, unique_sc_handle& manager, unique_sc_handle& svc) {
    return open_service(fn, name, SC_MANAGER_ALL_ACCESS, READ_CONTROL | WRITE_DAC, manager, svc);
}

bool apply_descriptor(const char* fn, SC_HANDLE svc, PSECURITY_DESCRIPTOR sd) {
    if (!SetServiceObjectSecurity(svc, DACL_SECURITY_INFORMATION, sd)) {
        NV_LOG(fn, "SetServiceObjectSecurity failed(%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    NV_LOG(fn, "Service DACL updated successfully\n");
    return true;
}

}  // namespace

bool service::derive_service_sid(const char* name, PSID* sid) {
    if (sid == nullptr) return false;
    *sid = nullptr;
    std::wstring upper = widen(name != nullptr ? name : "");
    if (!upper.empty()) CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    // The hash covers the UTF-16LE bytes; wchar_t is UTF-16 little-endian on every Windows target.
    BYTE digest[20];
    if (!sha1(upper.data(), static_cast<DWORD>(upper.size() * sizeof(wchar_t)), digest)) return false;
    DWORD words[5];
    memcpy(words, digest, sizeof(words));

    const DWORD size = GetSidLengthRequired(6);
    unique_local buffer(LocalAlloc(LPTR, size));
    SID_IDENTIFIER_AUTHORITY nt_authority = SECURITY_NT_AUTHORITY;
    if (!buffer || !InitializeSid(buffer.get(), &nt_authority, 6)) return false;
    *GetSidSubAuthority(buffer.get(), 0) = SECURITY_SERVICE_ID_BASE_RID;  // 80
    for (DWORD i = 0; i < 5; ++i) *GetSidSubAuthority(buffer.get(), i + 1) = words[i];
    *sid = buffer.release();
    return true;
}

bool service::get_sid(const char* name, PSID* sid) {
    if (sid == nullptr) {
        NV_LOG("mcl::mswin::service::get_sid", "service - [get_sid] invalid parameter");
        return false;
    }
    *sid = nullptr;
    DWORD sid_size = 32;
    DWORD domain_size = 32;
    unique_local sid_buffer(LocalAlloc(LPTR, sid_size));
    unique_local domain(LocalAlloc(LPTR, domain_size * sizeof(wchar_t)));
    if (!sid_buffer || !domain) {
        NV_LOG("mcl::mswin::service::get_sid", "service - [get_sid] insufficient memory");
        return false;
    }
    const std::wstring account = L"NT SERVICE\\" + widen(name != nullptr ? name : "");
    SID_NAME_USE use = SidTypeUnknown;
    BOOL found = LookupAccountNameW(nullptr, account.c_str(), sid_buffer.get(), &sid_size,
                                    static_cast<wchar_t*>(domain.get()), &domain_size, &use);
    if (!found && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        sid_buffer.reset(LocalAlloc(LPTR, sid_size));
        domain.reset(LocalAlloc(LPTR, static_cast<size_t>(domain_size) * sizeof(wchar_t)));
        if (!sid_buffer || !domain) {
            NV_LOG("mcl::mswin::service::get_sid", "service - [get_sid] insufficient memory");
            return false;
        }
        found = LookupAccountNameW(nullptr, account.c_str(), sid_buffer.get(), &sid_size,
                                   static_cast<wchar_t*>(domain.get()), &domain_size, &use);
    }
    if (!found) {
        const DWORD err = GetLastError();
        // A system that cannot map service accounts (no service SIDs there) still has the SID
        // the name stands for: it is derived from the name alone.
        if (err == ERROR_NONE_MAPPED) return derive_service_sid(name, sid);
        NV_LOG("mcl::mswin::service::get_sid",
               "service - [get_sid] LookupAccountNameW failed. GetLastError returned: %d\n", static_cast<int>(err));
        return false;
    }
    if (!IsValidSid(sid_buffer.get())) {
        NV_LOG("mcl::mswin::service::get_sid", "service - [get_sid] the SID is invalid");
        return false;
    }
    *sid = sid_buffer.release();
    return true;
}

bool service::set_dacl(const char* name, PACL dacl) {
    unique_sc_handle manager;
    unique_sc_handle svc;
    if (!open_for_security("mcl::mswin::service::set_dacl", name, manager, svc)) return false;
    SECURITY_DESCRIPTOR sd{};
    if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION)) {
        NV_LOG("mcl::mswin::service::set_dacl", "InitializeSecurityDescriptor failed(%d)\n",
               static_cast<int>(GetLastError()));
        return false;
    }
    if (!SetSecurityDescriptorDacl(&sd, TRUE, dacl, FALSE)) {
        NV_LOG("mcl::mswin::service::set_dacl", "SetSecurityDescriptorDacl failed(%d)\n",
               static_cast<int>(GetLastError()));
        return false;
    }
    if (!SetSecurityDescriptorControl(&sd, SE_DACL_PROTECTED, SE_DACL_PROTECTED)) {
        NV_LOG("mcl::mswin::service::set_dacl", "SetSecurityDescriptorControl failed(%d)\n",
               static_cast<int>(GetLastError()));
        return false;
    }
    return apply_descriptor("mcl::mswin::service::set_dacl", svc.get(), &sd);
}

bool service::set_dacl_str(const char* name, const char* sddl) {
    unique_sc_handle manager;
    unique_sc_handle svc;
    if (!open_for_security("mcl::mswin::service::set_dacl_str", name, manager, svc)) return false;
    unique_local sd;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl, SDDL_REVISION_1, sd.put(), nullptr)) {
        NV_LOG("mcl::mswin::service::set_dacl_str",
               "ConvertStringSecurityDescriptorToSecurityDescriptor failed(%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    return apply_descriptor("mcl::mswin::service::set_dacl_str", svc.get(), sd.get());
}

bool service::update_dacl_with_selected_full_access_sids(PACL old_dacl, const std::vector<PSID>& sids,
                                                         BYTE ace_flags, DWORD selected_mask, DWORD other_mask,
                                                         PACL* new_dacl) {
    constexpr const char* fn = "mcl::mswin::service::update_dacl_with_selected_full_access_sids";
    if (new_dacl != nullptr) *new_dacl = nullptr;
    if (sids.empty() || new_dacl == nullptr) {
        NV_LOG(fn, "No full access SID configured.");
        return false;
    }
    ACL_SIZE_INFORMATION old_info{};
    DWORD size = sizeof(ACL);
    if (old_dacl != nullptr) {
        if (!GetAclInformation(old_dacl, &old_info, sizeof(old_info), AclSizeInformation)) {
            NV_LOG(fn, "GetAclInformation() failed. Error %d\n", static_cast<int>(GetLastError()));
            return false;
        }
        size = old_info.AclBytesInUse;
    }
    for (PSID sid : sids) size += 8 + GetLengthSid(sid);

    unique_heap acl(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size));
    if (!acl) {
        NV_LOG(fn, "new acl HeapAlloc() failed. Error %d\n", static_cast<int>(GetLastError()));
        return false;
    }
    auto* out = static_cast<PACL>(acl.get());
    if (!InitializeAcl(out, size, ACL_REVISION)) {
        NV_LOG(fn, "InitializeAcl() failed. Error %d\n", static_cast<int>(GetLastError()));
        return false;
    }
    for (PSID sid : sids) {
        if (!AddAccessAllowedAceEx(out, ACL_REVISION, ace_flags, selected_mask, sid)) {
            NV_LOG(fn, "AddAccessAllowedAceEx() failed. Error %d\n", static_cast<int>(GetLastError()));
            return false;
        }
    }
    for (DWORD i = 0; old_dacl != nullptr && i < old_info.AceCount; ++i) {
        void* raw = nullptr;
        if (!GetAce(old_dacl, i, &raw)) {
            NV_LOG(fn, "GetAce() failed. Error %d\n", static_cast<int>(GetLastError()));
            return false;
        }
        // Allowed, denied and audit ACEs share this layout: header, mask, then the SID. The
        // caller's DACL stays as it was: the changes go to a copy.
        const auto* header = static_cast<const ACE_HEADER*>(raw);
        std::vector<BYTE> copy(static_cast<const BYTE*>(raw), static_cast<const BYTE*>(raw) + header->AceSize);
        auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(copy.data());
        bool selected = false;
        for (PSID sid : sids) selected = selected || EqualSid(&ace->SidStart, sid);
        if (selected) continue;
        ace->Header.AceFlags &= static_cast<BYTE>(~INHERITED_ACE);
        if (ace->Mask & GENERIC_ALL) ace->Mask |= GENERIC_ALL | GENERIC_EXECUTE | GENERIC_WRITE | GENERIC_READ;
        ace->Mask &= other_mask;
        if (!AddAce(out, ACL_REVISION, MAXDWORD, ace, ace->Header.AceSize)) {
            NV_LOG(fn, "AddAce() failed. Error %d\n", static_cast<int>(GetLastError()));
            return false;
        }
    }
    *new_dacl = static_cast<PACL>(acl.release());
    return true;
}

bool service::set_sid_type(const char* name) {
    unique_sc_handle manager;
    unique_sc_handle svc;
    SERVICE_SID_INFO info{SERVICE_SID_TYPE_UNRESTRICTED};
    if (!open_service(nullptr, name, SC_MANAGER_ALL_ACCESS, SERVICE_ALL_ACCESS, manager, svc) || !ChangeServiceConfig2A(svc.get(), SERVICE_CONFIG_SERVICE_SID_INFO, &info)) {
        NV_LOG("mcl::mswin::service::set_sid_type", "ChangeServiceConfig2 failed (%d)\n",
               static_cast<int>(GetLastError()));
        return false;
    }
    return true;
}

}  // namespace mcl::mswin
