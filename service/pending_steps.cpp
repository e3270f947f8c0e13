// Start-up and shutdown steps of the service whose work belongs to the driver link, the
// protection managers and the quarantine. Until those are part of the build, each step says in
// the log that it did nothing; each moves to its owner's file when that lands.
#include "app/log.h"
#include "service/helper_service.h"

namespace {

void not_yet(const char* function, const char* what) {
    NV_LOG(function, "%s: not available in this build", what);
}

}  // namespace

void chelperservice::loadPersistedRules() {
    loadTrustedOpenApps();
    loadProtectedService();
    loadProtectedRegKeys();
    loadqQuarantineContainers();
}
void chelperservice::loadqQuarantineContainers() {
    not_yet("chelperservice::loadqQuarantineContainers", "chelperservice::loadqQuarantineContainers");
}
