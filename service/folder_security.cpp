// A folder's DACL rewritten for chosen SIDs, and written back from SDDL.
#include "service/folder_security.h"

#include <windows.h>

#include "mcl/log.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/unique_handle.h"
#include "service/object_security.h"

namespace {

using mcl::mswin::security_descriptor;
using mcl::mswin::sid;
using mcl::mswin::unique_heap;

constexpr DWORD folder_ace_flags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
constexpr DWORD folder_full_access = 0x101F01FF;
constexpr DWORD folder_other_access = 0xA01200A9;  // read and execute

}  // namespace

bool folder_security::setPathPermissions(const std::wstring& path, const std::vector<sid>& sids,
                                        std::string* originalSddl, bool denyOthers) {
    constexpr const char* fn = "chelperservice::setPathPermissions";
    if (sids.empty()) return false;
    NV_LOG(fn, "Updating permissions of folder (%ls)\n", path.c_str());
    security_descriptor descriptor;
    const DWORD err = object_security::current().get_file_dacl(path, descriptor);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "GetNamedSecurityInfoW failed(%ls, %d)\n", path.c_str(), static_cast<int>(err));
        return false;
    }
    if (originalSddl != nullptr) {
        if (!descriptor.to_sddl(DACL_SECURITY_INFORMATION, *originalSddl)) {
            NV_LOG(fn, "ConvertSecurityDescriptorToStringSecurityDescriptor failed on path %ls (%d)\n", path.c_str(),
                   static_cast<int>(GetLastError()));
            return false;
        }
        NV_LOG(fn, "folder %ls's original DACL SD String:\n%s", path.c_str(), originalSddl->c_str());
    }
    PACL raw_new = nullptr;
    if (!mcl::mswin::service::update_dacl_with_selected_full_access_sids(
            descriptor.dacl(), sids, folder_ace_flags, folder_full_access, denyOthers ? 0 : folder_other_access, &raw_new)) {
        NV_LOG(fn, "Failed to generate the new dacl\n");
        return false;
    }
    unique_heap new_dacl(raw_new);
    const DWORD set_err = object_security::current().set_file_dacl(path, raw_new, /*protect=*/true);
    if (set_err != ERROR_SUCCESS) {
        NV_LOG(fn, "SetNamedSecurityInfoW failed(%ls, %d)\n", path.c_str(), static_cast<int>(set_err));
        return false;
    }
    return true;
}

bool folder_security::restorePathPermissions(const std::wstring& path, const char* sddl) {
    constexpr const char* fn = "chelperservice::restorePathPermissions";
    NV_LOG(fn, "Restoring permissions of folder (%ls)\n", path.c_str());
    DWORD err = ERROR_SUCCESS;
    if (object_security::current().set_file_sddl(fn, path, sddl, err)) return true;
    if (err != ERROR_SUCCESS) NV_LOG(fn, "SetNamedSecurityInfoW failed(%ls, %d)\n", path.c_str(), static_cast<int>(err));
    return false;
}
