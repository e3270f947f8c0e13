// What the quarantine and blocked-file handlers share: ASCII lower-casing of paths and the list of service SIDs given full access to a container or a file.
// Request thread; no state.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "mcl/buffer.h"

// `text` with A to Z lowered (no other case folding).
std::string lower_ascii(std::string text);

// Service SIDs that get full access, each freed with LocalFree when the list goes.
class full_access_sids {
public:
    full_access_sids() = default;
    ~full_access_sids();
    full_access_sids(const full_access_sids&) = delete;
    full_access_sids& operator=(const full_access_sids&) = delete;

    // The own service's SID first, then the SID of each of `services` that has one; a name
    // without one is logged (as from `fn`, with `target` saying what it was for) and skipped.
    // False (logged) when the own SID is missing.
    bool build(const char* fn, const char* target, const std::vector<std::string>& services);
    const std::vector<PSID>& sids() const { return sids_; }

private:
    std::vector<PSID> sids_;
};
