// A release whose service never starts. "-i install" registers it as the product's service (and,
// as the product, leaves an existing registration alone) and ends with 0; started by the service
// manager it ends at once, never reaching the control dispatcher.
#include <windows.h>

#include <cstring>
#include <string>

int main(int argc, char** argv) {
    if (argc < 3 || _stricmp(argv[1], "-i") != 0 || _stricmp(argv[2], "install") != 0) return 0;
    char path[MAX_PATH] = {};
    const DWORD n = GetModuleFileNameA(nullptr, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return 1;
    const std::string command = std::string("\"") + path + "\"";
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE);
    if (manager == nullptr) return 1;
    SC_HANDLE service = CreateServiceA(manager, "norvale_halvern_svc", "Norvale Halvern Service", SERVICE_ALL_ACCESS,
                                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                       command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    const bool registered = service != nullptr || GetLastError() == ERROR_SERVICE_EXISTS;
    if (service != nullptr) CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return registered ? 0 : 1;
}
