#include "setup/folder_security.h"

#include <aclapi.h>

#include <vector>

namespace folder_security {

namespace {

// SetNamedSecurityInfoA takes a writable name.
std::vector<char> writable(const std::string& text) { return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1); }

}  // namespace

DWORD write_dacl(const std::string& folder, PACL dacl, bool protect) {
    std::vector<char> name = writable(folder);
    const SECURITY_INFORMATION what =
        DACL_SECURITY_INFORMATION | (protect ? PROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_DACL_SECURITY_INFORMATION);
    return SetNamedSecurityInfoA(name.data(), SE_FILE_OBJECT, what, /*owner=*/nullptr, /*group=*/nullptr, dacl,
                                 /*sacl=*/nullptr);
}

DWORD write_owner(const std::string& folder, PSID owner) {
    std::vector<char> name = writable(folder);
    return SetNamedSecurityInfoA(name.data(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner, /*group=*/nullptr,
                                 /*dacl=*/nullptr, /*sacl=*/nullptr);
}

}  // namespace folder_security
