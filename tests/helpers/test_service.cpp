// A service for the protection tests to protect, kill, start and stop:
//   nv_test_service [ignore-stop | exit-on-stop | stuck-starting | stuck-stopping | stillborn]
//   nv_test_service -i install
// Runs under whatever name it was installed with; writes its process identifier to <name>.pid and
// its start arguments, one a line, to <name>.args beside the executable. ignore-stop accepts the
// stop control and goes on running. exit-on-stop denies everyone the right to terminate its
// process and ends it on the stop control without reporting the stop (a process that vanishes).
// stuck-starting reports start pending (a 2-second wait hint, one checkpoint) and nothing more;
// stuck-stopping answers the stop control with stop pending in the same way, and runs on.
// stillborn ends before the control dispatcher: a release whose service never starts, which
// "-i install" registers as the product's service (leaving one registered alone, as the product).
#include <windows.h>

#include <aclapi.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "mcl/file.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/service.h"
#include "tests/helpers/process.h"

namespace {

SERVICE_STATUS_HANDLE g_status = nullptr;
HANDLE g_stop = nullptr;
const char* g_mode = "";

void report(DWORD state) {
    const DWORD pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0u,
                          NO_ERROR, 0, /*checkpoint=*/pending, /*wait_hint=*/pending * 2000};
    SetServiceStatus(g_status, &status);
}

DWORD WINAPI handler(DWORD control, DWORD, void*, void*) {
    if (control != SERVICE_CONTROL_STOP || strcmp(g_mode, "ignore-stop") == 0) return NO_ERROR;
    if (strcmp(g_mode, "exit-on-stop") == 0) ExitProcess(3);
    if (strcmp(g_mode, "stuck-stopping") == 0)
        report(SERVICE_STOP_PENDING);
    else
        SetEvent(g_stop);
    return NO_ERROR;
}

void write_beside(const char* name, const char* extension, const std::string& text) {
    const mcl::unique_file f = mcl::open_file((nv_test::bin_dir() + name + extension).c_str(), "w");
    if (f) fputs(text.c_str(), f.get());
}

void WINAPI service_main(DWORD argc, char** argv) {
    g_status = RegisterServiceCtrlHandlerExA(argc > 0 ? argv[0] : "", handler, nullptr);
    if (g_status == nullptr || argc == 0) return;
    write_beside(argv[0], ".pid", std::to_string(GetCurrentProcessId()) + "\n");
    std::string args;
    for (DWORD i = 1; i < argc; ++i) args += std::string(argv[i]) + "\n";
    if (argc > 1) write_beside(argv[0], ".args", args);
    report(strcmp(g_mode, "stuck-starting") == 0 ? SERVICE_START_PENDING : SERVICE_RUNNING);
    WaitForSingleObject(g_stop, INFINITE);
    report(SERVICE_STOPPED);
}

// Registered as the product registers itself, through the product's own service code.
int install_stillborn() {
    char path[MAX_PATH] = {};
    const DWORD n = GetModuleFileNameA(nullptr, path, MAX_PATH);
    mcl::mswin::service product;
    const std::string command = "\"" + std::string(path) + "\" stillborn";
    return n > 0 && n < MAX_PATH && (product.installed() || product.install(command.c_str())) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 && _stricmp(argv[1], "-i") == 0 && _stricmp(argv[2], "install") == 0) return install_stillborn();
    if (argc > 1) g_mode = argv[1];
    if (strcmp(g_mode, "stillborn") == 0) return 0;
    mcl::mswin::security_descriptor sd;
    if (strcmp(g_mode, "exit-on-stop") == 0 && mcl::mswin::security_descriptor::from_sddl("D:(D;;0x1;;;WD)(A;;GA;;;WD)", sd))
        SetSecurityInfo(GetCurrentProcess(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, sd.dacl(),
                        nullptr);
    g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    char name[] = "";
    SERVICE_TABLE_ENTRYA table[] = {{name, service_main}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
