#include "setup/driver_installer.h"

#include "app/log.h"

// The driver installer is not part of this build yet: both entry points fail visibly.
int install_vqrmonitor(bool) {
    NV_LOG("install_vqrmonitor", "the driver installer is not available in this build");
    return -1;
}

int uninstall_vqrmonitor(bool* marked_for_deletion) {
    if (marked_for_deletion != nullptr) *marked_for_deletion = false;
    NV_LOG("uninstall_vqrmonitor", "the driver installer is not available in this build");
    return -1;
}
