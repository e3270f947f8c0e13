#include "service/helper_service.h"

#include "app/log.h"
#include "mcl/error_text.h"
#include "service/recovery_code.h"

namespace {

bool is_windows8_or_later() {
    OSVERSIONINFOEXW want{};
    want.dwOSVersionInfoSize = sizeof(want);
    want.dwMajorVersion = 6;
    want.dwMinorVersion = 2;
    DWORDLONG mask = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&want, VER_MAJORVERSION | VER_MINORVERSION, mask) != FALSE;
}

}  // namespace

chelperservice::chelperservice() : mcl::ipc_peer(mcl::mswin::service::default_name, &handler_), handler_(this) {}

void chelperservice::main(int, char**) {
    // Another instance holds the name (or it may not be opened): only the shutdown runs.
    if (instance_mutex_.create(instance_mutex_name, /*inherit=*/nullptr) != -2) {
        NV_LOG("chelperservice::main", "Service Version: %s", service_version);

        emergency_actions actions;
        actions.check_code = [](const std::string& code) { return nv::check_recovery_code(code); };
        actions.unprotect_service = [this](const std::string& name) { unprotectServiceByName(name); };
        actions.restore_folder = [this](const std::wstring& path) { restoreFolder(path); };
        const emergency_start start = consume_emergency_options(k_emergency_key, actions);

        startDriver();
        logDriverVersion();
        startEnforcement();
        if (!is_windows8_or_later()) skipFirstServiceManagerOpen();
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

void chelperservice::handleEmergencyStart(const emergency_start& start) {
    if (start.disable || start.uninstall) {
        NV_LOG("chelperservice::main", "Emergency option - protection has been disabled.\n");
        setProtectionEnabled(false);
        if (start.uninstall) {
            NV_LOG("chelperservice::main", "Emergency option - service has been uninstalled.\n");
            (void)uninstall();
        }
    }
    NV_LOG("chelperservice::main", "Emergency options have been handled, exit the service.\n");
}

void chelperservice::listen() {
    const std::string pipe_path = "\\\\.\\pipe\\" + name();
    (void)setup(/*listening=*/true);
    HANDLE handles[] = {service_stop_event(), connected_event()};
    for (;;) {
        (void)new_listen_connection(pipe_path.c_str());
        const DWORD r = WaitForMultipleObjects(2, handles, /*wait_all=*/FALSE, INFINITE);
        if (r == WAIT_FAILED) {
            const DWORD err = GetLastError();
            NV_LOG("chelperservice::listen",
                   "Failed to WaitForMultipleObjects when listening incoming ipc connections , error: [%d:%s]",
                   static_cast<int>(err), mcl::error_text(err).c_str());
            if (handles[0] == nullptr) break;  // no stop event: nothing could ever end the loop
            Sleep(10);                         // never spin on a broken wait
            continue;
        }
        if (r == WAIT_OBJECT_0) break;
        ResetEvent(handles[1]);
    }
    if (service_stop_event() != nullptr) ResetEvent(service_stop_event());
    mcl::scoped_lock guard(connection_list_lock());
    shutdown_locked();
}

void chelperservice::shutdown() {
    enableIrpNotifications(/*on=*/false);
    stopIrpReceiver();
    enableDriverFeatures(/*on=*/false);
    unprotectOwnRegKeys();
    restoreProtectedRegKeys();
    restoreProtectedFolders();
    stopEnforcement();
    if (service_stop_event() != nullptr) ResetEvent(service_stop_event());
    (void)instance_mutex_.release();
    instance_mutex_.close();
}
