// One kill of the running service, timed for bench/restart_bench.sh: its process ended (what
// taskkill /f does), the service started again as soon as the service manager lets it, then
// requests until it lists its protected keys and its services.
//   restart_bench.exe [SECONDS]   the time allowed from the kill, 120 unless given
// Prints each step's time from the kill and restart_seconds; exit 0 once both lists answered.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/clock.h"
#include "mcl/ipc/frame.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/message_ids.h"
#include "tests/helpers/raw_client.h"

namespace {

using nv_bench::now_ms;

// A request without payload on a fresh connection until a reply with a payload comes or
// `deadline` passes: the connection waits on the service's pipe and handshake objects, so it
// returns as soon as they are there.
bool answered_by(uint32_t id, double deadline) {
    while (now_ms() < deadline) {
        nv_test::raw_client client;
        mcl::frame_header header;
        mcl::binary_t reply;
        if (client.connect(mcl::mswin::service::default_name) && client.write_frame(id, 1, mcl::binary_t()) &&
            client.read_frame(header, reply) && reply.size() != 0)
            return true;
        Sleep(100);
    }
    return false;
}

// Starts the service as soon as the service manager lets it: it notices the end of a killed
// process on its own thread, and until then a start is refused as "already running".
bool start_service(double deadline) {
    mcl::mswin::unique_sc_handle svc;
    if (!mcl::mswin::open_service(nullptr, mcl::mswin::service::default_name, SC_MANAGER_CONNECT, SERVICE_START,
                                  svc))
        return false;
    while (now_ms() < deadline) {
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

int main(int argc, char** argv) {
    SERVICE_STATUS_PROCESS status{};
    if (!mcl::mswin::service::query_status_ex(mcl::mswin::service::default_name, status) || status.dwProcessId == 0) {
        std::printf("restart: the service is not running\n");
        return 1;
    }
    // Timed from the kill itself rather than from starting taskkill.
    mcl::mswin::unique_kernel_handle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, status.dwProcessId));
    if (!process) return failed("the service's process cannot be opened: ", GetLastError());
    const double start = now_ms();
    const double deadline = start + 1000.0 * (argc > 1 ? std::atoi(argv[1]) : 120);
    if (!TerminateProcess(process.get(), 1)) return failed("the service's process cannot be ended: ", GetLastError());
    WaitForSingleObject(process.get(), static_cast<DWORD>(deadline - now_ms()));
    const auto seconds_since = [start] { return (now_ms() - start) / 1000.0; };
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
    if (keys && services) return 0;
    std::printf("restart: the restarted service does not list its protected keys and services\n");
    return 1;
}
