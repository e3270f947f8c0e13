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

#include "app/log.h"
#include "setup/driver_installer.h"

namespace {

void open_log() {
    char module[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, module, MAX_PATH);
    std::string path = module;
    path = path.substr(0, path.rfind('\\') + 1) + "nvhalvernservice.debug.log";
    the_log().open(path.c_str(), /*truncate=*/false);
    g_log = &the_log();
}

// Created unset; the test sets it with nv_test_helper set-event. 120 s at most.
bool wait_for(const char* event_name) {
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, event_name);
    if (event == nullptr) return false;
    printf("holding\n");
    fflush(stdout);
    WaitForSingleObject(event, 120000);
    CloseHandle(event);
    return true;
}

int hold_image(const char* path, const char* event_name) {
    HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_EXECUTE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 2;
    HANDLE section = CreateFileMappingA(file, nullptr, PAGE_READONLY | SEC_IMAGE, 0, 0, nullptr);
    CloseHandle(file);
    if (section == nullptr) return 3;
    void* view = MapViewOfFile(section, FILE_MAP_READ, 0, 0, 0);
    if (view == nullptr) return 4;
    const bool ok = wait_for(event_name);
    UnmapViewOfFile(view);
    CloseHandle(section);
    return ok ? 0 : 5;
}

int hold_service(const char* name, const char* event_name) {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service = manager != nullptr ? OpenServiceA(manager, name, SERVICE_QUERY_STATUS) : nullptr;
    if (service == nullptr) return 2;
    const bool ok = wait_for(event_name);
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return ok ? 0 : 5;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string command = argv[1];
    open_log();
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
