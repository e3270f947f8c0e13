#include "setup/folder_security.h"

#include <aclapi.h>

#include <vector>

#include "service/object_security.h"

namespace folder_security {

namespace {

// SetNamedSecurityInfoA takes a writable name.
std::vector<char> writable(const std::string& text) { return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1); }

}  // namespace

DWORD write_dacl(const std::string& folder, PACL dacl, bool protect) {
    // Narrow paths are in the ANSI code page, as the narrow calls take them.
    const int n = MultiByteToWideChar(CP_ACP, 0, folder.c_str(), static_cast<int>(folder.size()), nullptr, 0);
    std::wstring wide(n > 0 ? static_cast<size_t>(n) : 0, L'\0');
    if (n > 0) MultiByteToWideChar(CP_ACP, 0, folder.c_str(), static_cast<int>(folder.size()), &wide[0], n);
    return object_security::current().set_file_dacl(wide, dacl, protect);
}

DWORD write_owner(const std::string& folder, PSID owner) {
    std::vector<char> name = writable(folder);
    return SetNamedSecurityInfoA(name.data(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner, /*group=*/nullptr,
                                 /*dacl=*/nullptr, /*sacl=*/nullptr);
}

}  // namespace folder_security
