// Where the setup tasks write the security of a folder: its DACL and its owner. The one place
// the folder repair touches folder security, so that it can be observed where the system does
// not keep folder DACLs.
#pragma once

#include <windows.h>

#include <string>

namespace folder_security {

// SetNamedSecurityInfoA (file object) with DACL_SECURITY_INFORMATION and, unless `protect`,
// UNPROTECTED_DACL_SECURITY_INFORMATION. The Win32 code.
DWORD write_dacl(const std::string& folder, PACL dacl, bool protect);
// SetNamedSecurityInfoA (file object) with OWNER_SECURITY_INFORMATION. The Win32 code.
DWORD write_owner(const std::string& folder, PSID owner);

}  // namespace folder_security
