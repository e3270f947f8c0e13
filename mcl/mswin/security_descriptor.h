// A security descriptor as a value: it owns a self-relative copy, converts to and from SDDL,
// and is read from (and written to) files, folders, services and registry keys with the same
// calls and flags everywhere. Any thread.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "mcl/mswin/sid.h"

namespace mcl::mswin {

// ConvertSecurityDescriptorToStringSecurityDescriptorA (revision 1) of the `parts` of any
// descriptor, an absolute one built around a DACL included. False with GetLastError() set by the
// conversion; `out` is then untouched.
[[nodiscard]] bool descriptor_to_sddl(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts, std::string& out);

class security_descriptor {
public:
    // An empty value: get() is null.
    security_descriptor() = default;
    // A copy of a self-relative descriptor (as the conversion and query calls return it; not an
    // absolute one, whose parts are pointers).
    explicit security_descriptor(PSECURITY_DESCRIPTOR self_relative);

    // ConvertStringSecurityDescriptorToSecurityDescriptorA (revision 1). False with GetLastError()
    // set by the conversion; `out` is then empty.
    [[nodiscard]] static bool from_sddl(const char* sddl, security_descriptor& out);
    // descriptor_to_sddl of this value.
    [[nodiscard]] bool to_sddl(SECURITY_INFORMATION parts, std::string& out) const {
        return descriptor_to_sddl(get(), parts, out);
    }
    // The DACL part as SDDL, or empty when it cannot be converted.
    std::string dacl_sddl() const;

    // GetSecurityDescriptorDacl: *dacl points into this value (null for a null or absent DACL).
    [[nodiscard]] bool get_dacl(PACL* dacl) const;
    // The DACL, or null when there is none or it cannot be read.
    PACL dacl() const;
    // Whether SE_DACL_PROTECTED is set (GetSecurityDescriptorControl).
    bool dacl_protected() const;
    // Whether the DACL holds the same entries, in the same order, as `other` (both present).
    bool dacl_equals(PACL other) const;
    // The owner (GetSecurityDescriptorOwner), empty when there is none.
    sid owner() const;

    bool empty() const { return bytes_.empty(); }
    PSECURITY_DESCRIPTOR get() const { return empty() ? nullptr : const_cast<BYTE*>(bytes_.data()); }

    // The DACL of a file or folder (GetNamedSecurityInfoW, SE_FILE_OBJECT). The Win32 code.
    [[nodiscard]] DWORD read_file_dacl(const std::wstring& path);
    // The DACL of an open file or folder (GetSecurityInfo, SE_FILE_OBJECT; the handle needs
    // READ_CONTROL). The Win32 code.
    [[nodiscard]] DWORD read_handle_dacl(HANDLE file);
    // The DACL of a service (QueryServiceObjectSecurity, the service opened for READ_CONTROL).
    // The Win32 code.
    [[nodiscard]] DWORD read_service_dacl(const std::string& name);
    // The owner of an open kernel object (GetSecurityInfo, SE_KERNEL_OBJECT; the handle needs
    // READ_CONTROL). The Win32 code.
    [[nodiscard]] DWORD read_object_owner(HANDLE object);
    // The DACL of an open registry key (RegGetKeySecurity: the size, then the descriptor). The
    // registry code; ERROR_INSUFFICIENT_BUFFER is not expected from the size query, so any other
    // answer is returned as it came.
    [[nodiscard]] LONG read_key_dacl(HKEY key);
    // The DACL part written to an open registry key (RegSetKeySecurity). The registry code.
    [[nodiscard]] LONG write_key_dacl(HKEY key) const;

    // SetNamedSecurityInfoW on a file or folder with `dacl`, marked protected (nothing inherited
    // from the parent) or unprotected (the parent's inheritable ACEs apply again). The Win32 code.
    [[nodiscard]] static DWORD write_file_dacl(const std::wstring& path, PACL dacl, bool protect);
    // SetSecurityInfo on an open file or folder (the handle needs WRITE_DAC), protected or not as
    // write_file_dacl. The Win32 code.
    [[nodiscard]] static DWORD write_handle_dacl(HANDLE file, PACL dacl, bool protect);
    // SetNamedSecurityInfoW with the owner of a file or folder. The Win32 code.
    [[nodiscard]] static DWORD write_file_owner(const std::wstring& path, PSID owner);

private:
    std::vector<BYTE> bytes_;
};

}  // namespace mcl::mswin
