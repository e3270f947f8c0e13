// Where the setup tasks write the security of a folder: its DACL and its owner. The one place
// the folder repair touches folder security, so that it can be observed where the system does
// not keep folder DACLs.
#pragma once

#include <windows.h>

#include <string>

namespace folder_security {

// The folder's DACL, through the service's object security (Windows', or the recorder a test run
// selects), unprotected unless `protect`. The Win32 code.
DWORD write_dacl(const std::string& folder, PACL dacl, bool protect);
// SetNamedSecurityInfoA (file object) with OWNER_SECURITY_INFORMATION. The Win32 code. (The
// object security interface has no owner operation.)
DWORD write_owner(const std::string& folder, PSID owner);

}  // namespace folder_security
