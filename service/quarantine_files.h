// What the container code takes from the quarantined-file code beyond the service's own members.
// Service thread at start-up; no state.
#pragma once

#include <string>

// Removes what interrupted work left behind in `container` (a normalised path ending in a
// backslash): temporaries that never became an archive, and beside each archive's recorded path
// the temporary of a restore that never finished. Each removal is logged.
void remove_archive_leftovers(const std::string& container);
