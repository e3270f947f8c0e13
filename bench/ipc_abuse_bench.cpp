// The IPC listener under hostile clients: what it costs in memory and whether it still answers
// and stops. Run by hand under Wine from the build's bin directory:
//   ipc_abuse_bench.exe [ANNOUNCING [NEVER_READING [FLOODING]]]
// It starts nv_ipc_helper as the listener, then nv_ipc_helper abuse clients: ANNOUNCING (200)
// connections that announce 64 MiB frames and trickle one byte a second, NEVER_READING (50)
// connections that each leave one 3,000-byte reply unread, and FLOODING (4) connections that
// send 20 MiB of requests and never read a reply. Meanwhile nv_ipc_client asks the listener for
// its version once a second, ten times. Prints "name: value unit" lines.
//   ipc_abuse_bench.exe smoke
// The same in a few seconds: 20 announcing, 5 never reading, 1 flooding 2 MiB, three requests.
//   ipc_abuse_bench.exe service [ANNOUNCING [NEVER_READING]]
// The same against the installed, running service (bench/ipc_abuse_bench.sh sets it up): 8
// connections that each send one 3,000-byte request of an unknown identifier and never read
// the reply, 200 that announce 64 MiB frames; then the time from the stop control to the
// service manager reporting the service stopped.
//   ipc_abuse_bench.exe handshake [ROUNDS]
// Clients stopped in their handshake (nv_ipc_helper stall) in front of a listener: killed after
// opening the pipes and before signalling, killed holding the connecting mutex, or hung holding
// it, after opening the pipes or before; after each, the time an mcl::ipc_peer client takes to
// connect. ROUNDS (5) of each; prints the worst.
#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "bench/clock.h"
#include "mcl/event.h"
#include "mcl/ipc/peer.h"
#include "tests/helpers/process.h"
#include "tests/helpers/raw_client.h"

namespace {

using nv_bench::now_ms;

uint64_t private_bytes(HANDLE process) {
    PROCESS_MEMORY_COUNTERS_EX memory{};
    if (!GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory), sizeof(memory))) return 0;
    // The private commit charge; some systems fill in only PagefileUsage.
    return memory.PrivateUsage > memory.PagefileUsage ? memory.PrivateUsage : memory.PagefileUsage;
}

// Whether an abuse client got all its connections made (it prints "ready" then).
bool wait_ready(nv_test::child& c) { return nv_test::first_line(c).compare(0, 5, "ready") == 0; }

// A fresh client process asks the listener for its version: true when the status reply (1, ""),
// which nv_ipc_client prints as "0100", came.
bool version_answered(const std::string& name) {
    nv_test::child c = nv_test::start("\"" + nv_test::bin_dir() + "nv_ipc_client.exe\" -n " + name + " -t 30000 send 1000009",
                                      /*capture_output=*/true);
    const bool replied = nv_test::first_line(c).compare(0, 4, "0100") == 0;
    return c.wait(30000) == 0 && replied;
}

nv_test::child abuse(const std::string& helper, const std::string& name, int stalled, int flood_kib, int announcing) {
    return nv_test::start("\"" + helper + "\" abuse " + name + " nul 2000001 " + std::to_string(stalled) + " " +
                              std::to_string(flood_kib) + " " + std::to_string(announcing) + " 600",
                          /*capture_output=*/true);
}

// Waits for the service to report `state`, polling every 5 ms for up to `ms`.
bool wait_service_state(SC_HANDLE svc, DWORD state, DWORD ms) {
    const double start = now_ms();
    SERVICE_STATUS status{};
    while (QueryServiceStatus(svc, &status)) {
        if (status.dwCurrentState == state) return true;
        if (now_ms() - start > ms) return false;
        Sleep(5);
    }
    return false;
}

int run_service(int argc, char** argv) {
    const int announcing = argc > 2 ? atoi(argv[2]) : 200;
    const int never_reading = argc > 3 ? atoi(argv[3]) : 8;
    const char* name = "norvale_halvern_svc";
    const std::string helper = nv_test::bin_dir() + "nv_ipc_helper.exe";
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE svc = manager != nullptr ? OpenServiceA(manager, name, SERVICE_STOP | SERVICE_QUERY_STATUS) : nullptr;
    if (svc == nullptr || !wait_service_state(svc, SERVICE_RUNNING, 1000)) {
        printf("the service %s is not running (error %lu)\n", name, static_cast<unsigned long>(GetLastError()));
        return 1;
    }
    SERVICE_STATUS_PROCESS process{};
    DWORD needed = 0;
    (void)QueryServiceStatusEx(svc, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&process), sizeof(process), &needed);
    HANDLE service_process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, process.dwProcessId);

    const double start = now_ms();
    nv_test::child stalled = abuse(helper, name, never_reading, 0, 0);
    nv_test::child trickling = abuse(helper, name, 0, 0, announcing);
    if (!wait_ready(stalled) || !wait_ready(trickling)) {
        printf("the hostile clients could not all connect\n");
        stalled.kill();
        trickling.kill();
        return 1;
    }
    printf("service_abuse_connect_all: %.0f ms\n", now_ms() - start);
    Sleep(3000);  // the requests are read and their replies are waiting on the clients
    if (service_process != nullptr)
        printf("service_abuse_private_bytes: %.1f MiB\n",
               static_cast<double>(private_bytes(service_process)) / (1024.0 * 1024.0));

    const double stop_start = now_ms();
    SERVICE_STATUS status{};
    const bool sent = ControlService(svc, SERVICE_CONTROL_STOP, &status) != FALSE;
    const DWORD err = sent ? ERROR_SUCCESS : GetLastError();
    const bool stopped = wait_service_state(svc, SERVICE_STOPPED, 120000);
    printf("service_abuse_stop: %.0f ms (target: under 2000; %d never reading, %d announcing%s)\n",
           now_ms() - stop_start, never_reading, announcing, !sent ? ", stop control failed" : !stopped ? ", not stopped" : "");
    if (!sent) printf("ControlService error %lu\n", static_cast<unsigned long>(err));
    stalled.kill();
    trickling.kill();
    if (service_process != nullptr) CloseHandle(service_process);
    CloseServiceHandle(svc);
    CloseServiceHandle(manager);
    return stopped ? 0 : 1;
}

// The time a client takes to connect to `name` behind a client stopped in its handshake at
// `stage` ("pipes" or "mutex"), killed there or left hanging; -1 when it failed.
double connect_behind(const std::string& helper, const std::string& name, const char* stage, bool kill) {
    nv_test::child staller =
        nv_test::start("\"" + helper + "\" stall " + name + " nul " + stage + " 60000", /*capture_output=*/true);
    wait_ready(staller);
    if (kill) {
        staller.kill();
        (void)staller.wait(10000);
    }
    mcl::ipc_peer client("", nullptr);
    const double start = now_ms();
    const bool connected = client.connect(name.c_str(), 10000);
    const double took = now_ms() - start;
    client.close();
    staller.kill();
    return connected ? took : -1;
}

int run_handshake(int argc, char** argv) {
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    const std::string helper = nv_test::bin_dir() + "nv_ipc_helper.exe";
    const std::string name = nv_test::unique_name("nv_handshake_bench");
    const std::string stop_name = "Global\\" + name + "_stop";
    mcl::event stop;
    if (stop.create(stop_name.c_str()) != 0) return 1;
    nv_test::child server = nv_test::start("\"" + helper + "\" server " + name + " nul " + stop_name);
    {
        mcl::ipc_peer probe("", nullptr);  // the listener is up
        if (!probe.connect(name.c_str(), 30000)) return 1;
    }
    struct {
        const char* figure;
        const char* stage;
        bool kill;
    } const cases[] = {{"connect_after_killed_client", "pipes", true},
                       {"connect_after_client_killed_holding_mutex", "mutex", true},
                       {"connect_after_hung_client", "pipes", false},
                       {"connect_after_client_hung_holding_mutex", "mutex", false}};
    int failed = 0;
    for (const auto& c : cases) {
        double worst = 0;
        for (int i = 0; i < rounds; ++i) {
            const double took = connect_behind(helper, name, c.stage, c.kill);
            if (took < 0) ++failed;
            if (took > worst) worst = took;
        }
        printf("%s: %.1f ms (worst of %d; target: under 200)\n", c.figure, worst, rounds);
    }
    printf("handshake_connects_failed: %d of %d\n", failed, rounds * static_cast<int>(std::size(cases)));
    stop.set();
    (void)server.wait(30000);
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "service") == 0) return run_service(argc, argv);
    if (argc > 1 && strcmp(argv[1], "handshake") == 0) return run_handshake(argc, argv);
    const bool smoke = argc > 1 && strcmp(argv[1], "smoke") == 0;
    const int announcing = smoke ? 20 : argc > 1 ? atoi(argv[1]) : 200;
    const int never_reading = smoke ? 5 : argc > 2 ? atoi(argv[2]) : 50;
    const int flooding = smoke ? 1 : argc > 3 ? atoi(argv[3]) : 4;
    const int flood_kib = (smoke ? 2 : 20) * 1024;
    const int samples = smoke ? 3 : 10;
    const std::string helper = nv_test::bin_dir() + "nv_ipc_helper.exe";
    const std::string name = nv_test::unique_name("nv_abuse_bench");
    const std::string stop_name = "Global\\" + name + "_stop";
    mcl::event stop;
    if (stop.create(stop_name.c_str()) != 0) return 1;
    nv_test::child server = nv_test::start("\"" + helper + "\" server " + name + " nul " + stop_name);

    const double start = now_ms();
    nv_test::child trickling = abuse(helper, name, 0, 0, announcing);
    nv_test::child stalled = abuse(helper, name, never_reading, 0, 0);
    nv_test::child flood = abuse(helper, name, flooding, flood_kib, 0);
    bool ready = wait_ready(trickling);
    ready = wait_ready(stalled) && ready;
    ready = wait_ready(flood) && ready;
    if (!ready) {
        printf("the listener or some hostile clients did not start or could not connect\n");
        server.kill();
        trickling.kill();
        stalled.kill();
        flood.kill();
        return 1;
    }
    printf("abuse_connect_all: %.0f ms\n", now_ms() - start);

    // Ten seconds of trickling (three in the smoke run), sampling the listener's memory and its answers to a client.
    uint64_t peak = 0;
    double worst_answer = 0;
    int unanswered = 0;
    for (int i = 0; i < samples; ++i) {
        const uint64_t bytes = private_bytes(server.process.get());
        if (bytes > peak) peak = bytes;
        const double t = now_ms();
        if (!version_answered(name)) ++unanswered;
        if (now_ms() - t > worst_answer) worst_answer = now_ms() - t;
        Sleep(1000 - (static_cast<DWORD>(now_ms() - t) % 1000));
    }
    printf("abuse_peak_private_bytes: %.1f MiB (target: under 400)\n", static_cast<double>(peak) / (1024.0 * 1024.0));
    printf("abuse_version_client_worst: %.0f ms\n", worst_answer);
    printf("abuse_version_client_unanswered: %d of %d\n", unanswered, samples);

    const double stop_start = now_ms();
    stop.set();
    const DWORD code = server.wait(60000);
    printf("abuse_stop: %.0f ms (target: under 2000; exit code %lu)\n", now_ms() - stop_start,
           static_cast<unsigned long>(code));
    trickling.kill();
    stalled.kill();
    flood.kill();
    return code == 0 ? 0 : 1;
}
