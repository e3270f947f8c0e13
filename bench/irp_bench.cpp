// IRP-denied notifications through the running service: latency from the simulator's inject
// to the subscriber's event and to the collected record, and a burst of denials with the
// records collected and dropped and the service's peak private bytes. bench/irp_bench.sh
// prepares the prefix, the simulator and the service, then runs this.
#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/clock.h"
#include "client/nvchelper.h"
#include "mcl/event.h"
#include "tools/driver_sim/sim_client.h"

namespace {

using nv_bench::now_ms;

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

DWORD service_pid() {
    mcl::mswin::unique_kernel_handle snap(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32 e{};
    e.dwSize = sizeof(e);
    if (!snap || !Process32First(snap.get(), &e)) return 0;
    do {
        if (_stricmp(e.szExeFile, "NorvaleHalvernService.exe") == 0) return e.th32ProcessID;
    } while (Process32Next(snap.get(), &e));
    return 0;
}

double peak_private_mib(DWORD pid) {
    mcl::mswin::unique_kernel_handle p(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid));
    PROCESS_MEMORY_COUNTERS c{};
    if (!p || !GetProcessMemoryInfo(p.get(), &c, sizeof(c))) return -1;
    return static_cast<double>(c.PeakPagefileUsage) / (1024.0 * 1024.0);
}

// One control connection to the simulator, kept open for every injection.
class sim_injector {
public:
    bool open() { return vqr::sim::open_channel(pipe_) == ERROR_SUCCESS; }
    // An IRP-denied notification for `file`; `delivered` is how many ports got it.
    bool inject(DWORD pid, const std::wstring& file, uint32_t& delivered) {
        mcl::binary_t answer;
        uint32_t hr = 0;
        return vqr::sim::exchange(pipe_.get(), vqr::sim::inject_request(1, 3, 0, pid, file), answer) == ERROR_SUCCESS &&
               vqr::sim::read_inject_answer(answer, hr, delivered) && hr == 0;
    }

private:
    mcl::mswin::unique_kernel_handle pipe_;
};

int fail(const char* what) {
    fprintf(stderr, "irp_bench: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? atoi(argv[1]) : 1000;
    const int burst = argc > 2 ? atoi(argv[2]) : 10000;
    // The client library, as a subscriber links it, told that it leaves when the bench ends. The
    // service runs in the console, not registered: its endpoint is reached by name.
    const std::unique_ptr<invchelper, void (*)(invchelper*)> client(NVClientHelper::createHelper(),
                                                                     NVClientHelper::releaseHelper);
    if (!static_cast<nvchelper*>(client.get())->connect(nvchelper::service_name, 10000) || !client->proto_compatible())
        return fail("no service");
    sim_injector sim;
    if (!sim.open()) return fail("no simulator");
    const DWORD pid = GetCurrentProcessId();

    mcl::event latency_event;
    if (latency_event.create("Global\\nv_irp_bench_latency") != 0) return fail("event");
    if (!client->subscribe_as("bench_latency", "Global\\nv_irp_bench_latency", "c:\\bench\\latency.txt", 0xFF, 0xFF, 0))
        return fail("subscribe");
    std::vector<double> to_event, to_record;
    std::vector<protocol::notification_data> records;
    uint32_t delivered = 0;
    for (int i = 0; i < rounds; ++i) {
        latency_event.reset();
        const double t0 = now_ms();
        if (!sim.inject(pid, L"\\Device\\HarddiskVolume1\\bench\\latency.txt", delivered) || delivered != 1)
            return fail("inject");
        if (WaitForSingleObject(latency_event.get(), 30000) != WAIT_OBJECT_0) return fail("the event did not fire");
        const double t1 = now_ms();
        if (!client->query_notification_data_as("bench_latency", records) || records.size() != 1) return fail("query");
        const double t2 = now_ms();
        to_event.push_back(t1 - t0);
        to_record.push_back(t2 - t0);
    }
    printf("irp_inject_to_event_median: %.3f ms\n", percentile(to_event, 0.5));
    printf("irp_inject_to_event_p99: %.3f ms\n", percentile(to_event, 0.99));
    printf("irp_inject_to_record_median: %.3f ms\n", percentile(to_record, 0.5));
    printf("irp_inject_to_record_p99: %.3f ms\n", percentile(to_record, 0.99));
    fflush(stdout);

    mcl::event burst_event, marker_event;
    if (burst_event.create("Global\\nv_irp_bench_burst") != 0 || marker_event.create("Global\\nv_irp_bench_marker") != 0)
        return fail("event");
    if (!client->subscribe_as("bench_burst", "Global\\nv_irp_bench_burst", "c:\\bench\\burst.txt", 0xFF, 0xFF, 0) ||
        !client->subscribe_as("bench_marker", "Global\\nv_irp_bench_marker", "c:\\bench\\marker.txt", 0xFF, 0xFF, 0))
        return fail("subscribe");
    const double b0 = now_ms();
    for (int i = 0; i < burst; ++i)
        if (!sim.inject(pid, L"\\Device\\HarddiskVolume1\\bench\\burst.txt", delivered)) return fail("inject");
    if (!sim.inject(pid, L"\\Device\\HarddiskVolume1\\bench\\marker.txt", delivered)) return fail("inject");
    if (WaitForSingleObject(marker_event.get(), 900000) != WAIT_OBJECT_0) return fail("the burst was not handled");
    const double b1 = now_ms();
    if (!client->query_notification_data_as("bench_burst", records)) return fail("query");
    printf("irp_burst_injected: %d records\n", burst);
    printf("irp_burst_collected: %u records\n", static_cast<unsigned>(records.size()));
    printf("irp_burst_dropped: %d records\n", burst - static_cast<int>(records.size()));
    printf("irp_burst_handled_in: %.2f s\n", (b1 - b0) / 1000.0);
    printf("irp_burst_rate: %.0f records/s\n", burst * 1000.0 / (b1 - b0));
    printf("service_peak_private_bytes: %.1f MiB\n", peak_private_mib(service_pid()));
    return 0;
}
