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

void chelperservice::startEnforcement() {
    not_yet("chelperservice::startEnforcement", "chelperservice::service_enforce_thread start");
}
void chelperservice::stopEnforcement() {
    not_yet("chelperservice::stopEnforcement", "chelperservice::service_enforce_thread stop");
}
void chelperservice::skipFirstServiceManagerOpen() {
    not_yet("chelperservice::skipFirstServiceManagerOpen", "chelperservice::drvSkipProcessFirstSvcMgrOpen");
}
void chelperservice::enableDriverFeatures(bool on) {
    NV_LOG("chelperservice::enableDriverFeatures",
           "chelperservice::drvEnableFeature 0, 6, 11 %s: not available in this build", on ? "on" : "off");
}
void chelperservice::protectSelf(bool on) {
    NV_LOG("chelperservice::protectSelf", "chelperservice::handle_protect_services %s %s: not available in this build",
           service_name().c_str(), on ? "on" : "off");
}
void chelperservice::loadPersistedRules() {
    loadTrustedOpenApps();
    loadProtectedService();
    loadProtectedRegKeys();
    loadqQuarantineContainers();
}
void chelperservice::loadTrustedOpenApps() {
    not_yet("chelperservice::loadTrustedOpenApps", "chelperservice::loadTrustedOpenApps");
}
void chelperservice::loadProtectedService() {
    not_yet("chelperservice::loadProtectedService", "chelperservice::loadProtectedService");
}
void chelperservice::loadqQuarantineContainers() {
    not_yet("chelperservice::loadqQuarantineContainers", "chelperservice::loadqQuarantineContainers");
}
void chelperservice::unprotectServiceByName(const std::string& service_name) {
    NV_LOG("chelperservice::unprotectServiceByName", "chelperservice::unprotectService %s: not available in this build",
           service_name.c_str());
}
void chelperservice::restoreFolder(const std::wstring& path) {
    NV_LOG("chelperservice::restoreFolder", "chelperservice::restorePathPermissions %ls: not available in this build",
           path.c_str());
}
void chelperservice::restoreProtectedFolders() {
    not_yet("chelperservice::restoreProtectedFolders",
            "chelperservice::restorePathPermissions of the protected folders");
}
