// The service's start-up steps that bring the driver up: install it when it is missing, start it
// and log the version of the installed image.
#include "mcl/log.h"
#include "mcl/mswin/service.h"
#include "service/helper_service.h"
#include "setup/driver_installer.h"

void chelperservice::startDriver() {
    // Neither result is acted on: a driver that cannot be reached leaves the driver steps undone.
    if (!mcl::mswin::service::is_service_installed(driver_installer::service_name)) (void)install_vqrmonitor(true);
    (void)mcl::mswin::service::start(driver_installer::service_name);
}

void chelperservice::logDriverVersion() {
    if (initDirs() != driver_installer::ok) return;
    NV_LOG("chelperservice::main", "VQRMonitor Driver Version: %s",
           GetFileVersionString(driver_installer::current_paths().installed_driver).c_str());
}
