// nv_service_double: plays the protection service for command-line tests.
//
//   nv_service_double NAME RECORD STOP_EVENT [--reply ID HEX]...
//
// Listens under NAME until the named event STOP_EVENT is set, appends one line per received
// message to RECORD ("ID HEX", "-" for an empty payload, ID in upper-case hexadecimal) and
// answers as nv_test::service_double does, with each --reply overriding one identifier. Its IPC
// layer's log lines go to RECORD.log, the product's log file.
// Exit codes: 0 stopped by the event, 2 usage.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/log.h"
#include "mcl/encoding.h"
#include "tests/helpers/service_double.h"
#include "tools/recovery_code/signer.h"

namespace {

FILE* g_record = nullptr;

void record(const nv_test::recorded_request& r) {
    const std::string hex = mcl::to_hex(r.payload).c_str();
    fprintf(g_record, "%X %s\n", r.id, hex.empty() ? "-" : hex.c_str());
    fflush(g_record);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: nv_service_double NAME RECORD STOP_EVENT [--reply ID HEX]...\n");
        return 2;
    }
    nv_test::service_double service(argv[1]);
    for (int i = 4; i < argc; i += 3) {
        std::vector<unsigned char> bytes;
        if (strcmp(argv[i], "--reply") != 0 || i + 2 >= argc ||
            (strcmp(argv[i + 2], "-") != 0 && !nv_tools::from_hex(argv[i + 2], bytes)))
            return 2;
        service.set_reply(static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 16)),
                          mcl::binary_t(bytes.data(), static_cast<uint32_t>(bytes.size())));
    }
    g_record = fopen(argv[2], "a");
    the_log().open((std::string(argv[2]) + ".log").c_str(), /*truncate=*/false);
    g_log = &the_log();  // before any thread of the peer
    HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, argv[3]);
    if (g_record == nullptr || stop == nullptr) return 2;
    service.on_message = &record;
    service.start_listening();
    WaitForSingleObject(stop, INFINITE);
    return 0;
}
