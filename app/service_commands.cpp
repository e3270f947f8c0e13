#include "app/service_commands.h"

#include <windows.h>

#include "mcl/mswin/service.h"
#include "service/helper_service.h"

using mcl::mswin::service;

namespace {

BOOL WINAPI console_control(DWORD event) {
    switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
        if (mcl::mswin::g_service != nullptr) (void)mcl::mswin::g_service->stop_request();
        return TRUE;
    default:
        return FALSE;  // close, log-off and shut-down get the system's handling
    }
}

}  // namespace

bool install_service(const std::string& command_line) {
    SC_ACTION restart{SC_ACTION_RESTART, /*delay_ms=*/5000};
    SERVICE_FAILURE_ACTIONSA actions{};
    actions.dwResetPeriod = INFINITE;
    actions.lpRebootMsg = nullptr;
    actions.lpCommand = nullptr;
    actions.cActions = 1;
    actions.lpsaActions = &restart;
    chelperservice& svc = chelperservice::instance();
    if (!svc.install(command_line.c_str(), &actions) || !service::is_service_installed(svc.service_name().c_str()))
        return false;
    (void)service::set_sid_type(svc.service_name().c_str());  // systems without service SIDs refuse it
    return true;
}

bool uninstall_service() { return chelperservice::instance().uninstall(); }

bool run_service() {
    mcl::mswin::service& svc = chelperservice::instance();  // not the peer's thread body
    return svc.run();
}

bool run_service_in_console() {
    chelperservice& svc = chelperservice::instance();
    mcl::mswin::g_service = &svc;
    SetConsoleCtrlHandler(&console_control, TRUE);
    svc.set_debug(true);
    svc.run_main();
    svc.set_debug(false);
    return true;
}
