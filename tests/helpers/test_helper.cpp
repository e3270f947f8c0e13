// A small program that tests start as a second process.
//   nv_test_helper hold-mutex NAME MS READY_EVENT   create (or open) and hold a named mutex for MS ms
//   nv_test_helper wait-event NAME MS [SDDL]        create a named event (with the descriptor SDDL when given),
//       print "ready", wait MS ms for it: exit 0 once it is set, 4 when the time is up
//   nv_test_helper set-event NAME                   set an existing named event (exit 2 and the error
//       code on stdout if it cannot be opened)
//   nv_test_helper start-stop NAME                  start the service and send it a stop control the
//       moment it reports running; exit 0 once it has stopped (within 30 s)
//   nv_test_helper process-alive PID                exit 0 while process PID runs, 1 when it has ended
//   nv_test_helper service-pid NAME                 print the process id of service NAME (0 when none)
//   nv_test_helper as-user PROGRAM ARGS...          run PROGRAM as an ordinary user (this token with
//       every privilege but change-notify dropped and Administrators deny-only), its output and
//       exit code passed through (exit 255 when it could not be started)
//   nv_test_helper pipeline NAME ID:HEX...          on one connection to the listener NAME, writes
//       every request (hex ID, hex payload) before reading any reply, then prints each reply as
//       it comes, "ID SEQUENCE HEX" (requests are numbered from 1); exit 2 without a connection
//       or for a payload that is not hex, 3 when the connection ends before every reply
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/mutex.h"
#include "tests/helpers/raw_client.h"
#include "tests/helpers/restricted.h"
#include "tools/recovery_code/signer.h"

namespace {

int pipeline(const char* name, int count, char** requests) {
    nv_test::raw_client client;
    if (!client.connect(name)) return 2;
    mcl::binary_t frames;
    for (int i = 0; i < count; ++i) {
        const char* colon = strchr(requests[i], ':');
        std::vector<unsigned char> hex;
        if (!nv_tools::from_hex(colon != nullptr ? colon + 1 : "", hex)) return 2;
        mcl::append_frame(frames, mcl::frame_kind::request, static_cast<uint32_t>(strtoul(requests[i], nullptr, 16)),
                          static_cast<uint32_t>(i + 1), hex.data(), static_cast<uint32_t>(hex.size()));
    }
    if (!client.write(frames)) return 3;
    for (int i = 0; i < count; ++i) {
        mcl::frame_header header;
        mcl::binary_t payload;
        if (!client.read_frame(header, payload)) return 3;
        printf("%X %u %s\n", static_cast<unsigned>(header.message_id), static_cast<unsigned>(header.sequence),
               mcl::to_hex(payload).c_str());
        fflush(stdout);
    }
    return 0;
}

// What follows "PROGRAM as-user " on this program's command line, passed on as it came: the
// program started sees the arguments this one was given, however they were quoted.
const wchar_t* after_as_user(const wchar_t* line) {
    for (int skipped = 0; skipped < 2; ++skipped) {
        for (bool quoted = false; *line != L'\0' && (quoted || (*line != L' ' && *line != L'\t')); ++line)
            if (*line == L'"') quoted = !quoted;
        while (*line == L' ' || *line == L'\t') ++line;
    }
    return line;
}

// Runs `command_line` under nv_test::restricted_token() through CreateProcessAsUserW, with this
// process's standard handles (and only those) inherited; waits for it and returns its exit code,
// 255 when it cannot start.
int run_restricted(const wchar_t* command_line) {
    std::wstring command = command_line;
    const mcl::mswin::unique_kernel_handle token = nv_test::restricted_token();
    if (command.empty() || !token) return 255;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    HANDLE* const slots[] = {&startup.hStdInput, &startup.hStdOutput, &startup.hStdError};
    const DWORD std_ids[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    mcl::mswin::unique_kernel_handle inherited[3];
    for (int i = 0; i < 3; ++i) {
        const HANDLE own = GetStdHandle(std_ids[i]);
        if (own == nullptr || own == INVALID_HANDLE_VALUE ||
            !DuplicateHandle(GetCurrentProcess(), own, GetCurrentProcess(), inherited[i].put(), 0, TRUE,
                             DUPLICATE_SAME_ACCESS))
            (void)inherited[i].release();  // what a failed duplicate left in the slot is no handle
        *slots[i] = inherited[i].get();
    }
    PROCESS_INFORMATION process{};
    if (!CreateProcessAsUserW(token.get(), nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                              &process)) {
        fprintf(stderr, "CreateProcessAsUserW failed, error %lu\n", static_cast<unsigned long>(GetLastError()));
        return 255;
    }
    CloseHandle(process.hThread);
    const mcl::mswin::unique_kernel_handle child(process.hProcess);
    WaitForSingleObject(child.get(), INFINITE);
    DWORD code = 255;
    GetExitCodeProcess(child.get(), &code);
    return static_cast<int>(code);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 4 && strcmp(argv[1], "pipeline") == 0) return pipeline(argv[2], argc - 3, argv + 3);
    if (argc >= 3 && strcmp(argv[1], "as-user") == 0) return run_restricted(after_as_user(GetCommandLineW()));
    if (argc >= 5 && strcmp(argv[1], "hold-mutex") == 0) {
        // A mutex made by someone else is opened with what a client gets, and taken.
        mcl::mutex m;
        if ((m.create(argv[2], nullptr) != 0 && m.open(argv[2]) != 0) || m.acquire_step(INFINITE) != 0) return 2;
        const mcl::mswin::unique_kernel_handle ready(OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[4]));
        if (ready) SetEvent(ready.get());
        Sleep(static_cast<DWORD>(atoi(argv[3])));
        return 0;  // released as it goes
    }
    if (argc >= 4 && strcmp(argv[1], "wait-event") == 0) {
        mcl::mswin::security_descriptor descriptor;
        if (argc >= 5 && !mcl::mswin::security_descriptor::from_sddl(argv[4], descriptor)) return 2;
        SECURITY_ATTRIBUTES sa{sizeof(sa), descriptor.get(), FALSE};
        const mcl::mswin::unique_kernel_handle e(CreateEventA(argc >= 5 ? &sa : nullptr, FALSE, FALSE, argv[2]));
        if (!e) return 2;
        printf("ready\n");
        fflush(stdout);
        return WaitForSingleObject(e.get(), static_cast<DWORD>(atoi(argv[3]))) == WAIT_OBJECT_0 ? 0 : 4;
    }
    if (argc >= 3 && strcmp(argv[1], "set-event") == 0) {
        const mcl::mswin::unique_kernel_handle e(OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[2]));
        if (!e) printf("error %lu\n", static_cast<unsigned long>(GetLastError()));
        return !e ? 2 : SetEvent(e.get()) ? 0 : 3;
    }
    if (argc >= 3 && strcmp(argv[1], "start-stop") == 0) {
        mcl::mswin::unique_sc_handle svc;
        const DWORD access = SERVICE_START | SERVICE_QUERY_STATUS;
        if (!mcl::mswin::open_service(nullptr, argv[2], SC_MANAGER_CONNECT, access, svc) ||
            !StartServiceA(svc.get(), 0, nullptr))
            return 2;
        SERVICE_STATUS status{};
        for (int i = 0; i < 3000 && QueryServiceStatus(svc.get(), &status); ++i) {
            if (status.dwCurrentState != SERVICE_START_PENDING) break;
            Sleep(10);
        }
        if (status.dwCurrentState != SERVICE_RUNNING) return 3;
        return mcl::mswin::service::stop(argv[2], /*event_fallback=*/false, 30) ? 0 : 4;
    }
    if (argc >= 3 && strcmp(argv[1], "process-alive") == 0) {
        const mcl::mswin::unique_kernel_handle p(OpenProcess(SYNCHRONIZE, FALSE, strtoul(argv[2], nullptr, 10)));
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
