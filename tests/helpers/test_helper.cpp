// A small program that tests start as a second process.
//   nv_test_helper hold-mutex NAME MS READY_EVENT   create and hold a named mutex for MS ms
//   nv_test_helper abandon-mutex NAME READY_EVENT   take the mutex and exit without releasing
//   nv_test_helper wait-event NAME MS [SDDL]        create a named event, print "ready", wait MS ms for it
//   nv_test_helper set-event NAME                   set an existing named event (exit 2 if none)
//   nv_test_helper start-stop NAME                  start the service and send it a stop control the
//       moment it reports running; exit 0 once it has stopped (within 30 s)
//   nv_test_helper process-alive PID                exit 0 while process PID runs, 1 when it has ended
//   nv_test_helper service-pid NAME                 print the process id of service NAME (0 when none)
//   nv_test_helper as-user PROGRAM ARGS...          run PROGRAM as an ordinary user (this token with
//       every privilege but change-notify dropped and Administrators deny-only), its output and
//       exit code passed through (exit 255 when it could not be started)
//   nv_test_helper is-admin                         exit 0 for a member of Administrators, 1 otherwise
#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mcl/mswin/service.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"

namespace {

// One argument quoted as the C runtime splits a command line.
std::wstring quoted(const char* arg) {
    const int n = MultiByteToWideChar(CP_ACP, 0, arg, -1, nullptr, 0);
    std::wstring in(n > 0 ? n - 1 : 0, L'\0');
    if (n > 1) MultiByteToWideChar(CP_ACP, 0, arg, -1, &in[0], n);
    if (!in.empty() && in.find_first_of(L" \t\"") == std::wstring::npos) return in;
    std::wstring out = L"\"";
    size_t slashes = 0;
    for (wchar_t c : in) {
        if (c == L'\\') {
            ++slashes;
        } else {
            out.append(c == L'"' ? slashes * 2 + 1 : slashes, L'\\');
            slashes = 0;
        }
        out += c;
    }
    out.append(slashes, L'\\');
    return out + L"\"";
}

int run_as_user(int argc, char** argv) {
    mcl::mswin::unique_kernel_handle own;
    mcl::mswin::unique_kernel_handle restricted;
    SID_AND_ATTRIBUTES admins{};
    BYTE admins_sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(admins_sid);
    admins.Sid = admins_sid;
    if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins_sid, &size) ||
        !OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY | TOKEN_ASSIGN_PRIMARY, own.put()) ||
        !CreateRestrictedToken(own.get(), DISABLE_MAX_PRIVILEGE, 1, &admins, 0, nullptr, 0, nullptr, restricted.put()))
        return 255;
    std::wstring command;
    for (int i = 2; i < argc; ++i) command += (i > 2 ? L" " : L"") + quoted(argv[i]);
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    for (HANDLE h : {startup.hStdInput, startup.hStdOutput, startup.hStdError})
        if (h != nullptr && h != INVALID_HANDLE_VALUE) SetHandleInformation(h, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    PROCESS_INFORMATION child{};
    if (!CreateProcessAsUserW(restricted.get(), nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                              &startup, &child)) {
        fprintf(stderr, "nv_test_helper: CreateProcessAsUserW failed, error %lu\n", GetLastError());
        return 255;
    }
    const mcl::mswin::unique_kernel_handle process(child.hProcess);
    const mcl::mswin::unique_kernel_handle thread(child.hThread);
    DWORD code = 255;
    WaitForSingleObject(process.get(), INFINITE);
    GetExitCodeProcess(process.get(), &code);
    return static_cast<int>(code);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "as-user") == 0) return run_as_user(argc, argv);
    if (argc >= 2 && strcmp(argv[1], "is-admin") == 0) {
        BYTE admins[SECURITY_MAX_SID_SIZE];
        DWORD size = sizeof(admins);
        BOOL member = FALSE;
        return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &size) &&
                       CheckTokenMembership(nullptr, admins, &member) && member
                   ? 0
                   : 1;
    }
    const bool abandon = argc >= 4 && strcmp(argv[1], "abandon-mutex") == 0;
    if (abandon || (argc >= 5 && strcmp(argv[1], "hold-mutex") == 0)) {
        HANDLE m = CreateMutexA(nullptr, TRUE, argv[2]);
        if (m == nullptr) return 2;
        HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[abandon ? 3 : 4]);
        if (ready != nullptr) SetEvent(ready);
        if (abandon) {
            Sleep(300);
            ExitProcess(0);  // the mutex is abandoned
        }
        Sleep(static_cast<DWORD>(atoi(argv[3])));
        ReleaseMutex(m);
        CloseHandle(m);
        return 0;
    }
    if (argc >= 4 && strcmp(argv[1], "wait-event") == 0) {
        // Creates the named event (with the descriptor SDDL when given), says "ready", and waits
        // for it: "fired" (0) or "timeout" (4).
        mcl::mswin::unique_local<PSECURITY_DESCRIPTOR> descriptor;
        if (argc >= 5 && !ConvertStringSecurityDescriptorToSecurityDescriptorA(argv[4], SDDL_REVISION_1, descriptor.put(), nullptr))
            return 2;
        SECURITY_ATTRIBUTES attributes{sizeof(attributes), descriptor.get(), FALSE};
        HANDLE e = CreateEventA(descriptor ? &attributes : nullptr, FALSE, FALSE, argv[2]);
        if (e == nullptr) return 2;
        printf("ready\n");
        fflush(stdout);
        const DWORD w = WaitForSingleObject(e, static_cast<DWORD>(atoi(argv[3])));
        printf(w == WAIT_OBJECT_0 ? "fired\n" : "timeout\n");
        CloseHandle(e);
        return w == WAIT_OBJECT_0 ? 0 : 4;
    }
    if (argc >= 3 && strcmp(argv[1], "set-event") == 0) {
        HANDLE e = OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[2]);
        if (e == nullptr) return 2;
        const BOOL ok = SetEvent(e);
        CloseHandle(e);
        return ok ? 0 : 3;
    }
    if (argc >= 3 && strcmp(argv[1], "start-stop") == 0) {
        mcl::mswin::unique_sc_handle manager;
        mcl::mswin::unique_sc_handle svc;
        const DWORD access = SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS;
        if (!mcl::mswin::open_service(nullptr, argv[2], SC_MANAGER_CONNECT, access, manager, svc) ||
            !StartServiceA(svc.get(), 0, nullptr))
            return 2;
        SERVICE_STATUS status{};
        for (int i = 0; i < 3000; ++i) {
            if (!QueryServiceStatus(svc.get(), &status) || status.dwCurrentState != SERVICE_START_PENDING) break;
            Sleep(10);
        }
        if (status.dwCurrentState != SERVICE_RUNNING || !ControlService(svc.get(), SERVICE_CONTROL_STOP, &status)) return 3;
        for (int i = 0; i < 300 && status.dwCurrentState != SERVICE_STOPPED; ++i) {
            Sleep(100);
            if (!QueryServiceStatus(svc.get(), &status)) break;
        }
        return status.dwCurrentState == SERVICE_STOPPED ? 0 : 4;
    }
    if (argc >= 3 && strcmp(argv[1], "process-alive") == 0) {
        const DWORD pid = static_cast<DWORD>(strtoul(argv[2], nullptr, 10));
        const mcl::mswin::unique_kernel_handle p(OpenProcess(SYNCHRONIZE, FALSE, pid));
        return p && WaitForSingleObject(p.get(), 0) == WAIT_TIMEOUT ? 0 : 1;
    }
    if (argc >= 3 && strcmp(argv[1], "service-pid") == 0) {
        SERVICE_STATUS_PROCESS status{};
        if (!mcl::mswin::service::query_status_ex(argv[2], status)) status.dwProcessId = 0;
        printf("%lu\n", static_cast<unsigned long>(status.dwProcessId));
        return 0;
    }
    fprintf(stderr, "nv_test_helper: unknown command\n");
    return 1;
}
