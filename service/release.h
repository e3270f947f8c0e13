// What this build of the program is: its version and the IPC protocol it speaks. A release is
// built from these sources with its own values (see CMakeLists.txt: the previous release).
#pragma once

#include <cstdint>

struct release_identity {
    const char* usage_version;   // shown by the usage text, "3.0.45 (Build 1)"
    const char* file_version;    // the four numbers of the version resource, logged at start-up, "3.0.45.1"
    uint32_t packed_version;     // major << 16 | minor << 8 | patch, answered to 0x100000a
    uint32_t ipc_protocol;       // answered to 0x1000009
};

// This build's values. Defined in service/release.cpp; an executable built as another release
// compiles that file itself with the NV_RELEASE_* definitions, which takes precedence over the
// library's copy.
const release_identity& this_release();
