// A kill of the service in the middle of a storm: TerminateProcess, a start as soon as the service
// manager has seen the process end, and requests until it answers; then the checks.
#include <windows.h>

#include <cstdio>
#include <string>

#include "mcl/mswin/service.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/message_ids.h"
#include "tests/soak/storm.h"

namespace storm {

namespace {

// One request on a fresh connection, waiting for the service up to `deadline`: the connection
// waits on the service's pipe and handshake objects, so it returns as soon as they are there.
bool answered_by(uint32_t id, ULONGLONG deadline) {
    while (GetTickCount64() < deadline) {
        client_conn conn;
        mcl::binary_t reply;
        if (conn.open() && conn.request(id, mcl::binary_t(), reply) && !reply.empty()) return true;
        Sleep(100);
    }
    return false;
}

// Starts the service as soon as the service manager lets it: it notices the end of a killed
// process on its own thread, and until then a start is refused as "already running".
bool start_service(ULONGLONG deadline) {
    mcl::mswin::unique_sc_handle svc;
    if (!mcl::mswin::open_service(nullptr, mcl::mswin::service::default_name, SC_MANAGER_CONNECT, SERVICE_START,
                                  svc))
        return false;
    while (GetTickCount64() < deadline) {
        if (StartServiceA(svc.get(), 0, nullptr)) return true;
        if (GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) return false;
        Sleep(50);
    }
    return false;
}

int failed(const char* why, DWORD code) {
    std::printf("restart: %s%lu\n", why, static_cast<unsigned long>(code));
    return 1;
}

}  // namespace

int restart(int clients, int seconds) {
    const DWORD pid = service_pid();
    if (pid == 0) {
        std::printf("restart: the service is not running\n");
        return 1;
    }
    // What taskkill /f does, timed from the kill itself rather than from starting taskkill.
    mcl::mswin::unique_kernel_handle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
    if (!process) return failed("the service's process cannot be opened: ", GetLastError());
    const ULONGLONG start = GetTickCount64();
    const ULONGLONG deadline = start + static_cast<ULONGLONG>(seconds) * 1000;
    if (!TerminateProcess(process.get(), 1)) return failed("the service's process cannot be ended: ", GetLastError());
    WaitForSingleObject(process.get(), static_cast<DWORD>(deadline - GetTickCount64()));
    const auto seconds_since = [start] { return static_cast<double>(GetTickCount64() - start) / 1000.0; };
    const double ended = seconds_since();
    if (!start_service(deadline)) return failed("the service does not start: ", GetLastError());
    const double started = seconds_since();
    const bool keys = answered_by(msg::get_protected_reg_keys, deadline);
    const double keys_listed = seconds_since();
    const bool services = keys && answered_by(msg::query_protected_services, deadline);
    // Where the time went: the process's end, the service manager's start, the first answer.
    std::printf("restart_process_ended: %.3f s\nrestart_service_started: %.3f s\nrestart_keys_listed: %.3f s\n", ended,
                started, keys_listed);
    std::printf("restart_seconds: %.2f s\n", seconds_since());
    check(keys && services, "the restarted service answers and lists its protected keys and services");
    return final_checks(clients);
}

}  // namespace storm
