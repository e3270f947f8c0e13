#include "app/service_commands.h"

#include <windows.h>

#include "app/log.h"
#include "mcl/mswin/unique_handle.h"

using mcl::mswin::unique_sc_handle;

bool is_service_installed(const char* name) {
    unique_sc_handle manager(OpenSCManagerA(nullptr, nullptr, GENERIC_READ));
    if (!manager) return false;
    unique_sc_handle service(OpenServiceA(manager.get(), name, GENERIC_READ));
    if (!service) return false;
    DWORD needed = 0;
    if (QueryServiceConfigA(service.get(), nullptr, 0, &needed)) return true;
    return GetLastError() == ERROR_INSUFFICIENT_BUFFER;
}

// The service wrapper is not part of this build yet; every request that needs it fails
// visibly, with a log line naming what is missing.
namespace {
bool not_available(const char* function) {
    NV_LOG(function, "the service wrapper is not available in this build");
    return false;
}
}  // namespace

bool install_service(const std::string&) { return not_available("install_service"); }
bool uninstall_service() { return not_available("uninstall_service"); }
bool start_service(const char*) { return not_available("start_service"); }
bool stop_service(const char*, bool, unsigned) { return not_available("stop_service"); }
bool run_service() { return not_available("run_service"); }
bool run_service_in_console() { return not_available("run_service_in_console"); }
