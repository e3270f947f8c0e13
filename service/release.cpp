#include "service/release.h"

#ifndef NV_RELEASE_USAGE_VERSION
#define NV_RELEASE_USAGE_VERSION "3.0.45 (Build 1)"
#endif
#ifndef NV_RELEASE_FILE_VERSION
#define NV_RELEASE_FILE_VERSION "3.0.45.1"
#endif
#ifndef NV_RELEASE_PACKED_VERSION
#define NV_RELEASE_PACKED_VERSION 196653
#endif
#ifndef NV_RELEASE_IPC_PROTOCOL
#define NV_RELEASE_IPC_PROTOCOL 5
#endif

const release_identity& this_release() {
    static const release_identity identity{NV_RELEASE_USAGE_VERSION, NV_RELEASE_FILE_VERSION, NV_RELEASE_PACKED_VERSION,
                                           NV_RELEASE_IPC_PROTOCOL};
    return identity;
}
