// Service SIDs, service DACLs and the DACL that grants full access to selected SIDs only.
#include <windows.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "mcl/lock.h"
#include "mcl/log.h"
#include "mcl/mswin/crypto.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

namespace {

// Opens the service `name` for reading and writing its DACL; `fn` names the caller in the log.
bool open_for_security(const char* fn, const char* name, unique_sc_handle& svc) {
    return open_service(fn, name, SC_MANAGER_ALL_ACCESS, READ_CONTROL | WRITE_DAC, svc);
}

bool apply_descriptor(const char* fn, SC_HANDLE svc, PSECURITY_DESCRIPTOR sd) {
    if (!SetServiceObjectSecurity(svc, DACL_SECURITY_INFORMATION, sd)) {
        NV_LOG(fn, "SetServiceObjectSecurity failed(%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    NV_LOG(fn, "Service DACL updated successfully\n");
    return true;
}

// What a protect asks of every service it names, the same for the whole run: the service's SID
// and the outcome of setting its SID type. Each is looked up once per name and kept (a lookup
// costs a round trip to the account authority or the service manager). Bounded: past the limit
// nothing more is kept and each call looks up again. Any thread.
template <typename T>
class kept_by_name {
public:
    bool find(const std::string& name, T& out) {
        scoped_lock hold(lock_);
        const auto found = values_.find(name);
        if (found == values_.end()) return false;
        out = found->second;
        return true;
    }
    void keep(const std::string& name, const T& value) {
        scoped_lock hold(lock_);
        if (values_.size() < limit) values_[name] = value;
    }

private:
    static constexpr size_t limit = 4096;
    lock lock_;
    std::map<std::string, T> values_;
};

struct sid_type_outcome {
    bool ok;
    DWORD error;
};

kept_by_name<sid>& kept_sids() {
    static kept_by_name<sid> kept;
    return kept;
}

kept_by_name<sid_type_outcome>& kept_sid_types() {
    static kept_by_name<sid_type_outcome> kept;
    return kept;
}

}  // namespace

bool service::get_sid(const char* name, sid& out) {
    const std::string key = name != nullptr ? name : "";
    if (kept_sids().find(key, out)) return true;
    const std::wstring account = L"NT SERVICE\\" + widen(key);
    if (sid::from_account(account, out)) {
        kept_sids().keep(key, out);
        return true;
    }
    const DWORD err = GetLastError();
    // A system that cannot map service accounts (no service SIDs there) still has the SID the
    // name stands for: it is derived from the name alone.
    if (err == ERROR_NONE_MAPPED) {
        if (!sid::from_service_name(name, out)) return false;
        kept_sids().keep(key, out);
        return true;
    }
    if (err == ERROR_INVALID_SID) {
        NV_LOG("mcl::mswin::service::get_sid", "service - [get_sid] the SID is invalid");
        return false;
    }
    NV_LOG("mcl::mswin::service::get_sid",
           "service - [get_sid] LookupAccountNameW failed. GetLastError returned: %d\n", static_cast<int>(err));
    return false;
}

bool service::set_dacl(const char* name, PACL dacl) {
    unique_sc_handle svc;
    if (!open_for_security("mcl::mswin::service::set_dacl", name, svc)) return false;
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
    unique_sc_handle svc;
    if (!open_for_security("mcl::mswin::service::set_dacl_str", name, svc)) return false;
    security_descriptor sd;
    if (!security_descriptor::from_sddl(sddl, sd)) {
        NV_LOG("mcl::mswin::service::set_dacl_str",
               "ConvertStringSecurityDescriptorToSecurityDescriptor failed(%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    return apply_descriptor("mcl::mswin::service::set_dacl_str", svc.get(), sd.get());
}

bool service::update_dacl_with_selected_full_access_sids(PACL old_dacl, const std::vector<sid>& sids,
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
    for (const sid& one : sids) size += 8 + one.size();

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
    for (const sid& one : sids) {
        if (!AddAccessAllowedAceEx(out, ACL_REVISION, ace_flags, selected_mask, one.get())) {
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
        for (const sid& one : sids) selected = selected || EqualSid(&ace->SidStart, one.get());
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
    const std::string key = name != nullptr ? name : "";
    sid_type_outcome kept{};
    if (kept_sid_types().find(key, kept)) {
        if (!kept.ok) SetLastError(kept.error);
        return kept.ok;
    }
    unique_sc_handle svc;
    SERVICE_SID_INFO info{SERVICE_SID_TYPE_UNRESTRICTED};
    if (!open_service(nullptr, name, SC_MANAGER_ALL_ACCESS, SERVICE_ALL_ACCESS, svc)) {
        NV_LOG("mcl::mswin::service::set_sid_type", "ChangeServiceConfig2 failed (%d)\n",
               static_cast<int>(GetLastError()));
        return false;  // not kept: the service may be installed later
    }
    if (!ChangeServiceConfig2A(svc.get(), SERVICE_CONFIG_SERVICE_SID_INFO, &info)) {
        const DWORD err = GetLastError();
        NV_LOG("mcl::mswin::service::set_sid_type", "ChangeServiceConfig2 failed (%d)\n", static_cast<int>(err));
        // A system without service SID types answers so for every service, every time.
        if (err == ERROR_INVALID_LEVEL || err == ERROR_INVALID_PARAMETER)
            kept_sid_types().keep(key, {false, err});
        SetLastError(err);
        return false;
    }
    kept_sid_types().keep(key, {true, ERROR_SUCCESS});
    return true;
}

}  // namespace mcl::mswin
