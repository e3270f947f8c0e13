// installer_probe: runs the driver installer's entry points from a program placed beside the
// driver package (the installer finds the package beside the running executable), for the
// calls the command line does not make, and holds the handles that the installer's tests need.
//
//   installer_probe install FORCE            install_vqrmonitor(FORCE != 0); prints "result=N"
//   installer_probe uninstall                uninstall_vqrmonitor; prints "result=N marked=0|1"
//   installer_probe run-command LENGTH       run_command of "cmd /c rem xxx..." padded to LENGTH
//                                            characters (0: empty); prints "result=N"
//   installer_probe hold-service NAME EVENT  keeps a handle to service NAME open until EVENT is set
//   installer_probe hold-image PATH EVENT    keeps PATH mapped as an image (as a loaded driver is)
//                                            until EVENT is set
// Log lines go to nvhalvernservice.debug.log beside the probe, as the service's do.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/program.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"
#include "setup/driver_installer.h"

namespace {

using mcl::mswin::unique_kernel_handle;

// Created unset; the test sets it with nv_test_helper set-event. 120 s at most.
bool wait_for(const char* event_name) {
    const unique_kernel_handle event(CreateEventA(nullptr, TRUE, FALSE, event_name));
    if (!event) return false;
    printf("holding\n");
    fflush(stdout);
    WaitForSingleObject(event.get(), 120000);
    return true;
}

int hold_image(const char* path, const char* event_name) {
    unique_kernel_handle file(CreateFileA(path, GENERIC_READ | GENERIC_EXECUTE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                          nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file) return 2;
    const unique_kernel_handle section(
        CreateFileMappingA(file.get(), nullptr, PAGE_READONLY | SEC_IMAGE, /*size_high=*/0, /*size_low=*/0, nullptr));
    file.reset();  // the section alone holds the file, as for a loaded driver
    if (!section) return 3;
    void* view = MapViewOfFile(section.get(), FILE_MAP_READ, 0, 0, 0);
    if (view == nullptr) return 4;
    const bool ok = wait_for(event_name);
    UnmapViewOfFile(view);
    return ok ? 0 : 5;
}

int hold_service(const char* name, const char* event_name) {
    mcl::mswin::unique_sc_handle service;
    if (!mcl::mswin::open_service(nullptr, name, SC_MANAGER_CONNECT, SERVICE_QUERY_STATUS, service)) return 2;
    return wait_for(event_name) ? 0 : 5;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string command = argv[1];
    (void)init_module_path();
    open_debug_log();
    if (command == "install" && argc >= 3) {
        printf("result=%d\n", install_vqrmonitor(atoi(argv[2]) != 0));
        return 0;
    }
    if (command == "uninstall") {
        bool marked = false;
        const int result = uninstall_vqrmonitor(&marked);
        printf("result=%d marked=%d\n", result, marked ? 1 : 0);
        return 0;
    }
    if (command == "run-command" && argc >= 3) {
        const size_t length = strtoul(argv[2], nullptr, 10);
        std::string line = length == 0 ? std::string() : std::string("cmd /c rem ");
        if (line.size() < length) line.append(length - line.size(), 'x');
        printf("result=%d\n", run_command(line.substr(0, length)));
        return 0;
    }
    if (command == "hold-service" && argc >= 4) return hold_service(argv[2], argv[3]);
    if (command == "hold-image" && argc >= 4) return hold_image(argv[2], argv[3]);
    return 2;
}
