// nv_irp_subscriber: a subscriber of IRP-denied notifications against the running service.
//   watch NAME EVENT PATH MAJOR MINOR TYPE WAIT_MS READY_FILE   creates EVENT, subscribes, writes
//       its process id to READY_FILE, waits for EVENT, then queries twice and prints both answers
//   bound NAME EVENT COUNT   subscribes NAME to c:\data\burst.txt and a marker subscriber to
//       c:\data\marker.txt, injects COUNT denials on the first and then one on the marker, waits
//       for the marker's event (every denial handled) and prints how many NAME collects
// Numbers may be decimal or 0x-hex. Exit codes: 0 done, 1 usage, 2 no service, 3 a request or an
// injection failed, 4 the event did not fire.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "mcl/event.h"
#include "tests/helpers/irp_client.h"

namespace {

void print_records(const char* label, const std::vector<irp::record>& records) {
    printf("%s: %u\n", label, static_cast<unsigned>(records.size()));
    for (const irp::record& r : records)
        printf("record seq=%llu path=%s major=%u minor=%u pid=%u image=%s description=%s denied=%u\n",
               static_cast<unsigned long long>(r.sequence), r.file_path.c_str(), r.major_function, r.minor_function,
               r.process_id, r.process_image.c_str(), r.process_description.c_str(), r.type);
}

uint8_t byte(const char* text) { return static_cast<uint8_t>(strtoul(text, nullptr, 0)); }

int watch(nv_test::irp_client& client, char** a) {
    mcl::event event;
    uint8_t result = 0;
    if (event.create(a[1]) != 0 ||
        !client.subscribe(false, a[0], a[1], a[2], byte(a[3]), byte(a[4]), strtoul(a[5], nullptr, 0), result))
        return 3;
    printf("subscribe: %u\n", result);
    fflush(stdout);
    FILE* ready = fopen(a[7], "w");
    if (ready == nullptr) return 3;
    fprintf(ready, "%lu\n", GetCurrentProcessId());
    fclose(ready);
    const bool fired = WaitForSingleObject(event.get(), strtoul(a[6], nullptr, 0)) == WAIT_OBJECT_0;
    printf("event: %s\n", fired ? "fired" : "timeout");
    std::vector<irp::record> records;
    for (const char* label : {"first query", "second query"}) {
        if (!client.query(a[0], records)) return 3;
        print_records(label, records);
    }
    return fired ? 0 : 4;
}

int bound(nv_test::irp_client& client, char** a) {
    const std::string name = a[0], marker = name + "_marker", marker_event_name = std::string(a[1]) + "_marker";
    mcl::event event, marker_event;
    uint8_t result = 0;
    nv_test::sim_injector sim;
    if (event.create(a[1]) != 0 || marker_event.create(marker_event_name.c_str()) != 0 ||
        !client.subscribe(false, name, a[1], "C:\\data\\burst.txt", 0xFF, 0xFF, 0, result) || result != 1 ||
        !client.subscribe(false, marker, marker_event_name, "C:\\data\\marker.txt", 0xFF, 0xFF, 0, result) ||
        result != 1 || !sim.open())
        return 3;
    uint32_t delivered = 0;
    for (unsigned long i = 0, count = strtoul(a[2], nullptr, 0); i <= count; ++i)
        if (!sim.inject(1, 3, 0, GetCurrentProcessId(),
                        i < count ? L"\\Device\\HarddiskVolume1\\data\\burst.txt" : L"\\Device\\HarddiskVolume1\\data\\marker.txt",
                        delivered))
            return 3;
    if (WaitForSingleObject(marker_event.get(), 120000) != WAIT_OBJECT_0) return 4;
    std::vector<irp::record> records;
    if (!client.query(name, records)) return 3;
    printf("collected: %u\n", static_cast<unsigned>(records.size()));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    nv_test::irp_client client;
    if (argc < 3) return 1;
    if (!client.connect("norvale_halvern_svc", 10000)) {
        fprintf(stderr, "nv_irp_subscriber: no service\n");
        return 2;
    }
    if (mode == "watch" && argc == 10) return watch(client, argv + 2);
    if (mode == "bound" && argc == 5) return bound(client, argv + 2);
    fprintf(stderr, "nv_irp_subscriber: bad arguments\n");
    return 1;
}
