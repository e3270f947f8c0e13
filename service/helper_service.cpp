#include "service/helper_service.h"

#include "mcl/log.h"
#include "mcl/mswin/os_version.h"
#include "service/recovery_code.h"
#include "service/release.h"

chelperservice::chelperservice() : mcl::ipc_peer(mcl::mswin::service::default_name, &handler_), handler_(this) {}

void chelperservice::main(int, char**) {
    // Another instance holds the name (or it may not be opened): only the shutdown runs.
    if (instance_mutex_.create(instance_mutex_name, /*inherit=*/nullptr) != -2) {
        NV_LOG("chelperservice::main", "Service Version: %s", this_release().file_version);

        emergency_actions actions;
        actions.check_code = [](const std::string& code) { return nv::check_recovery_code(code); };
        actions.unprotect_service = [this](const std::string& name) { unprotectServiceByName(name); };
        actions.restore_folder = [this](const std::wstring& path) { restoreFolder(path); };
        const emergency_start start = consume_emergency_options(k_emergency_key, actions);

        startDriver();
        logDriverVersion();
        startEnforcement();
        if (!mcl::mswin::is_windows_at_least(6, 2)) skipFirstServiceManagerOpen();
        enableDriverFeatures(/*on=*/!start.emergency);
        enableIrpNotifications(/*on=*/true);
        protectSelf(/*on=*/!start.emergency);
        loadPersistedRules();

        if (start.emergency) {
            handleEmergencyStart(start);
        } else {
            listen();
        }
    }
    shutdown();
}

void chelperservice::loadPersistedRules() {
    loadTrustedOpenApps();
    loadProtectedService();
    loadProtectedRegKeys();
    loadqQuarantineContainers();
}

void chelperservice::handleEmergencyStart(const emergency_start& start) {
    if (start.disable || start.uninstall) {
        NV_LOG("chelperservice::main", "Emergency option - protection has been disabled.\n");
        setProtectionEnabled(false);
        if (start.uninstall) {
            NV_LOG("chelperservice::main", "Emergency option - service has been uninstalled.\n");
            (void)uninstall(/*stop_running=*/false);  // main returns next: the service stops on its own
        }
    }
    NV_LOG("chelperservice::main", "Emergency options have been handled, exit the service.\n");
}

void chelperservice::listen() {
    serve_until(service_stop_event());
    if (service_stop_event() != nullptr) ResetEvent(service_stop_event());
}

void chelperservice::shutdown() {
    enableIrpNotifications(/*on=*/false);
    stopIrpReceiver();
    enableDriverFeatures(/*on=*/false);
    unprotectOwnRegKeys();
    restoreAllRegKeys();
    restoreProtectedFolders();
    stopEnforcement();
    if (service_stop_event() != nullptr) ResetEvent(service_stop_event());
    (void)instance_mutex_.release();
    instance_mutex_.close();
}
