// What the quarantine and blocked-file handlers share: the list of service SIDs given full access
// to a container or a file.
// Request thread; no state.
#pragma once

#include <string>
#include <vector>

#include "mcl/mswin/sid.h"

// The service SIDs that get full access: the own service's SID first, then the SID of each of
// `services` that has one; a name without one is logged (as from `fn`, with `target` saying what
// it was for) and skipped. False (logged) when the own SID is missing.
bool full_access_service_sids(const char* fn, const char* target, const std::vector<std::string>& services,
                              std::vector<mcl::mswin::sid>& sids);
