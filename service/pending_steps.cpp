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

void chelperservice::enableIrpNotifications(bool on) {
    NV_LOG("chelperservice::enableIrpNotifications",
           "chelperservice::drvEnableFeature 16 %s: not available in this build", on ? "on" : "off");
}
void chelperservice::stopIrpReceiver() {
    not_yet("chelperservice::stopIrpReceiver", "chelperservice::irp_notification_receiver stop");
}
void chelperservice::loadPersistedRules() {
    loadTrustedOpenApps();
    loadProtectedService();
    loadProtectedRegKeys();
    loadqQuarantineContainers();
}
void chelperservice::removeAllServiceAndProcessRules() {
    not_yet("chelperservice::removeAllServiceAndProcessRules",
            "chelperservice::handle_protect_services / handle_protect_processes remove all");
}
void chelperservice::loadProtectedRegKeys() {
    not_yet("chelperservice::loadProtectedRegKeys", "chelperservice::loadProtectedRegKeys");
}
void chelperservice::loadqQuarantineContainers() {
    not_yet("chelperservice::loadqQuarantineContainers", "chelperservice::loadqQuarantineContainers");
}
void chelperservice::unprotectOwnRegKeys() {
    not_yet("chelperservice::unprotectOwnRegKeys", "chelperservice::unprotectRegKey");
}
void chelperservice::restoreProtectedRegKeys() {
    not_yet("chelperservice::restoreProtectedRegKeys", "restoring the protected registry keys");
}
