#include "service/helper_service.h"

#include "mcl/log.h"
#include "mcl/mswin/os_version.h"
#include "service/recovery_code.h"
#include "service/release.h"

namespace {

mcl::mswin::security_descriptor descriptor_of(const char* sddl) {
    mcl::mswin::security_descriptor descriptor;
    if (!mcl::mswin::security_descriptor::from_sddl(sddl, descriptor))
        NV_LOG("chelperservice::chelperservice", "Failed to convert the security descriptor \"%s\", error: %lu", sddl,
               static_cast<unsigned long>(GetLastError()));
    return descriptor;
}

}  // namespace

chelperservice::chelperservice() : mcl::ipc_peer(mcl::mswin::service::default_name, &handler_), handler_(this) {
    set_event_security(descriptor_of(stop_events_sddl));
    instance_security_ = descriptor_of(instance_mutex_sddl);
    set_listener_security(
        {descriptor_of(connecting_mutex_sddl), descriptor_of(connected_event_sddl), descriptor_of(pipe_sddl)});
}

bool chelperservice::existing_object_trusted(const std::string& name, HANDLE existing) {
    mcl::mswin::security_descriptor descriptor;
    mcl::mswin::sid owner;
    if (existing != nullptr && descriptor.read_object_owner(existing) == ERROR_SUCCESS) owner = descriptor.owner();
    const bool trusted = !owner.empty() && (IsWellKnownSid(owner.get(), WinLocalSystemSid) ||
                                            IsWellKnownSid(owner.get(), WinBuiltinAdministratorsSid));
    if (trusted) return true;
    NV_LOG("chelperservice::existing_object_trusted",
           "The named object \"%s\" was made before the service by %s, neither the system nor an administrator: "
           "the service goes on without it",
           name.c_str(), owner.empty() ? "an unknown owner" : owner.to_string().c_str());
    return false;
}

bool chelperservice::take_instance_name() {
    if (instance_mutex_.create(instance_mutex_name, /*inherit=*/nullptr, instance_security_.get()) != -2) return true;
    const mcl::mswin::unique_kernel_handle existing(OpenMutexA(READ_CONTROL, FALSE, instance_mutex_name));
    return !existing_object_trusted(instance_mutex_name, existing.get());
}

void chelperservice::main(int, char**) {
    // Another instance holds the name: only the shutdown runs.
    if (take_instance_name()) {
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
    (void)requests_.start();
    serve_until(service_stop_event());
    if (service_stop_event() != nullptr) ResetEvent(service_stop_event());
}

void chelperservice::close() {
    requests_.stop(1);
    ipc_peer::close();
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
