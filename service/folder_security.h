// A folder's DACL: rewritten so that chosen SIDs have full access and everyone else less, and
// written back from SDDL. Stateless; runs on whichever thread protects or restores.
#pragma once

#include <string>
#include <vector>

#include "mcl/mswin/sid.h"

class folder_security {
public:
    // The DACL a folder gets back when its protection is lifted.
    static constexpr const char* default_folder_sddl =
        "D:AI(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;ID;0x1301bf;;;AU)(A;OICIIOID;"
        "SDGXGWGR;;;AU)";

    // Rewrites the folder's DACL: full access for `sids` in order, every other ACE cut down to read
    // and execute (to nothing with `denyOthers`), protected from the parent. With `originalSddl`,
    // the DACL before the change is returned there as SDDL.
    static bool setPathPermissions(const std::wstring& path, const std::vector<mcl::mswin::sid>& sids,
                                   std::string* originalSddl, bool denyOthers);
    // Writes the DACL of `sddl` to the folder, unprotected so the parent's ACEs apply again
    // (protected only when the text itself is, "D:P...").
    static bool restorePathPermissions(const std::wstring& path, const char* sddl);
};
