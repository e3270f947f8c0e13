#include "mcl/mswin/security_descriptor.h"

#include <aclapi.h>
#include <sddl.h>

#include <cstring>
#include <vector>

#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

security_descriptor::security_descriptor(PSECURITY_DESCRIPTOR self_relative) {
    if (self_relative == nullptr) return;
    const BYTE* bytes = static_cast<const BYTE*>(self_relative);
    bytes_.assign(bytes, bytes + GetSecurityDescriptorLength(self_relative));
}

bool security_descriptor::from_sddl(const char* sddl, security_descriptor& out) {
    out.bytes_.clear();
    unique_local<PSECURITY_DESCRIPTOR> raw;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl, SDDL_REVISION_1, raw.put(), nullptr)) return false;
    out = security_descriptor(raw.get());
    return true;
}

bool descriptor_to_sddl(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts, std::string& out) {
    unique_local<char*> text;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1, parts, text.put(), nullptr))
        return false;
    out = text.get();
    return true;
}

std::string security_descriptor::dacl_sddl() const {
    std::string text;
    return to_sddl(DACL_SECURITY_INFORMATION, text) ? text : std::string();
}

bool security_descriptor::get_dacl(PACL* dacl) const {
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    *dacl = nullptr;
    return GetSecurityDescriptorDacl(get(), &present, dacl, &defaulted) != FALSE;
}

PACL security_descriptor::dacl() const {
    PACL found = nullptr;
    return !empty() && get_dacl(&found) ? found : nullptr;
}

bool security_descriptor::dacl_protected() const {
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    return !empty() && GetSecurityDescriptorControl(get(), &control, &revision) && (control & SE_DACL_PROTECTED) != 0;
}

bool security_descriptor::dacl_equals(PACL other) const {
    const PACL mine = dacl();
    ACL_SIZE_INFORMATION a{}, b{};
    if (mine == nullptr || other == nullptr || !GetAclInformation(mine, &a, sizeof(a), AclSizeInformation) ||
        !GetAclInformation(other, &b, sizeof(b), AclSizeInformation))
        return false;
    // The entries follow the header; the bytes past those in use are slack.
    return a.AceCount == b.AceCount && a.AclBytesInUse == b.AclBytesInUse && a.AclBytesInUse >= sizeof(ACL) &&
           memcmp(reinterpret_cast<const BYTE*>(mine) + sizeof(ACL), reinterpret_cast<const BYTE*>(other) + sizeof(ACL),
                  a.AclBytesInUse - sizeof(ACL)) == 0;
}

sid security_descriptor::owner() const {
    PSID found = nullptr;
    BOOL defaulted = FALSE;
    if (empty() || !GetSecurityDescriptorOwner(get(), &found, &defaulted) || found == nullptr) return sid();
    return sid(found);
}

DWORD security_descriptor::read_object_owner(HANDLE object) {
    bytes_.clear();
    PSID owner = nullptr;
    unique_local<PSECURITY_DESCRIPTOR> raw;
    const DWORD err = GetSecurityInfo(object, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                      nullptr, raw.put());
    if (err == ERROR_SUCCESS) *this = security_descriptor(raw.get());
    return err;
}

DWORD security_descriptor::read_file_dacl(const std::wstring& path) {
    bytes_.clear();
    PACL dacl = nullptr;
    unique_local<PSECURITY_DESCRIPTOR> raw;
    const DWORD err = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                            &dacl, nullptr, raw.put());
    if (err == ERROR_SUCCESS) *this = security_descriptor(raw.get());
    return err;
}

DWORD security_descriptor::read_handle_dacl(HANDLE file) {
    bytes_.clear();
    PACL dacl = nullptr;
    unique_local<PSECURITY_DESCRIPTOR> raw;
    const DWORD err = GetSecurityInfo(file, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                                      raw.put());
    if (err == ERROR_SUCCESS) *this = security_descriptor(raw.get());
    return err;
}

DWORD security_descriptor::read_service_dacl(const std::string& name) {
    bytes_.clear();
    // Through the process's shared service manager: GetNamedSecurityInfo opens and closes a
    // manager of its own on every call, three times the cost of the service's own open.
    unique_sc_handle svc;
    if (!open_service(nullptr, name.c_str(), SC_MANAGER_CONNECT, READ_CONTROL, svc)) return GetLastError();
    DWORD needed = 0;
    if (QueryServiceObjectSecurity(svc.get(), DACL_SECURITY_INFORMATION, nullptr, 0, &needed)) return ERROR_INVALID_DATA;
    const DWORD err = GetLastError();
    if (err != ERROR_INSUFFICIENT_BUFFER) return err;
    std::vector<BYTE> buffer(needed);
    if (!QueryServiceObjectSecurity(svc.get(), DACL_SECURITY_INFORMATION, buffer.data(), needed, &needed))
        return GetLastError();
    bytes_ = std::move(buffer);
    return ERROR_SUCCESS;
}

LONG security_descriptor::read_key_dacl(HKEY key) {
    bytes_.clear();
    DWORD size = 0;
    LONG rc = RegGetKeySecurity(key, DACL_SECURITY_INFORMATION, nullptr, &size);
    if (rc != ERROR_INSUFFICIENT_BUFFER) return rc == ERROR_SUCCESS ? ERROR_INVALID_DATA : rc;
    std::vector<BYTE> buffer(size);
    rc = RegGetKeySecurity(key, DACL_SECURITY_INFORMATION, buffer.data(), &size);
    if (rc == ERROR_SUCCESS) bytes_ = std::move(buffer);
    return rc;
}

LONG security_descriptor::write_key_dacl(HKEY key) const {
    return RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, get());
}

DWORD security_descriptor::write_file_dacl(const std::wstring& path, PACL dacl, bool protect) {
    const SECURITY_INFORMATION info = DACL_SECURITY_INFORMATION |
                                      (protect ? PROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_DACL_SECURITY_INFORMATION);
    return SetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), SE_FILE_OBJECT, info, nullptr, nullptr, dacl, nullptr);
}

DWORD security_descriptor::write_handle_dacl(HANDLE file, PACL dacl, bool protect) {
    const SECURITY_INFORMATION info = DACL_SECURITY_INFORMATION |
                                      (protect ? PROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_DACL_SECURITY_INFORMATION);
    return SetSecurityInfo(file, SE_FILE_OBJECT, info, nullptr, nullptr, dacl, nullptr);
}

DWORD security_descriptor::write_file_owner(const std::wstring& path, PSID owner) {
    return SetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner,
                                 nullptr, nullptr, nullptr);
}

}  // namespace mcl::mswin
