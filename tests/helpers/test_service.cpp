// A service for the protection tests to protect, kill, start and stop.
//   nv_test_service [ignore-stop | exit-on-stop]
// Runs under the service control manager under whatever name it was installed with. Its process
// identifier is written to <name>.pid and its start arguments, one a line, to <name>.args beside
// the executable. With ignore-stop it
// accepts the stop control and goes on running; with exit-on-stop it accepts it and ends its
// process shortly after without reporting the stop (a process that vanishes).
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

SERVICE_STATUS_HANDLE g_status = nullptr;
HANDLE g_stop = nullptr;
bool g_ignore_stop = false;
bool g_exit_on_stop = false;

DWORD WINAPI exit_soon(void*) {
    Sleep(200);
    ExitProcess(3);
}

void report(DWORD state) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    SetServiceStatus(g_status, &status);
}

DWORD WINAPI handler(DWORD control, DWORD, void*, void*) {
    if (control != SERVICE_CONTROL_STOP || g_ignore_stop) return NO_ERROR;
    if (g_exit_on_stop) {
        HANDLE t = CreateThread(nullptr, 0, exit_soon, nullptr, 0, nullptr);
        if (t != nullptr) CloseHandle(t);
        return NO_ERROR;
    }
    SetEvent(g_stop);
    return NO_ERROR;
}

FILE* open_beside(const char* name, const char* extension) {
    char exe[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, exe, MAX_PATH);
    std::string path(exe);
    path = path.substr(0, path.rfind('\\') + 1) + name + extension;
    return fopen(path.c_str(), "w");
}

void write_args(DWORD argc, char** argv) {
    FILE* f = open_beside(argv[0], ".pid");
    if (f != nullptr) {
        fprintf(f, "%lu\n", GetCurrentProcessId());
        fclose(f);
    }
    if (argc < 2) return;
    f = open_beside(argv[0], ".args");
    if (f == nullptr) return;
    for (DWORD i = 1; i < argc; ++i) fprintf(f, "%s\n", argv[i]);
    fclose(f);
}

void WINAPI service_main(DWORD argc, char** argv) {
    g_status = RegisterServiceCtrlHandlerExA(argc > 0 ? argv[0] : "", handler, nullptr);
    if (g_status == nullptr) return;
    if (argc > 0) write_args(argc, argv);
    report(SERVICE_RUNNING);
    WaitForSingleObject(g_stop, INFINITE);
    report(SERVICE_STOPPED);
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "ignore-stop") == 0) g_ignore_stop = true;
        else if (strcmp(argv[i], "exit-on-stop") == 0) g_exit_on_stop = true;
    g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    char name[] = "";
    SERVICE_TABLE_ENTRYA table[] = {{name, service_main}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
