// nv_service_double: plays the protection service for command-line tests.
//
//   nv_service_double NAME RECORD STOP_EVENT [--reply ID HEX]...
//
// Listens under NAME until the named event STOP_EVENT is set, appends one line per received
// message to RECORD ("ID HEX", "-" for an empty payload, ID in upper-case hexadecimal) and
// answers as nv_test::service_double does, with each --reply overriding one identifier. Its IPC
// layer's log lines go to RECORD.log, each with the tick count in milliseconds.
// Exit codes: 0 stopped by the event, 2 usage.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "tests/helpers/service_double.h"
#include "tools/recovery_code/signer.h"

namespace {

FILE* g_record = nullptr;
FILE* g_log = nullptr;

bool log_ready() { return g_log != nullptr; }
void log_write(const char* text) {
    fprintf(g_log, "%llu %s\n", static_cast<unsigned long long>(GetTickCount64()), text);
    fflush(g_log);
}
const mcl::log_sink log_file{&log_ready, &log_write};

void record(const nv_test::recorded_request& r) {
    const std::string hex = mcl::to_hex(r.payload).c_str();
    fprintf(g_record, "%X %s\n", r.id, hex.empty() ? "-" : hex.c_str());
    fflush(g_record);
}

}  // namespace

int main(int argc, char** argv) {
    mcl::set_log_sink(&log_file);  // ready once the file is open, before any thread of the peer
    if (argc < 4) {
        fprintf(stderr, "usage: nv_service_double NAME RECORD STOP_EVENT [--reply ID HEX]...\n");
        return 2;
    }
    nv_test::service_double service(argv[1]);
    for (int i = 4; i < argc; ++i) {
        if (strcmp(argv[i], "--reply") == 0 && i + 2 < argc) {
            std::vector<unsigned char> bytes;
            if (strcmp(argv[i + 2], "-") != 0 && !nv_tools::from_hex(argv[i + 2], bytes)) return 2;
            mcl::binary_t reply;
            reply.append(bytes.data(), static_cast<uint32_t>(bytes.size()));
            service.set_reply(static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 16)), reply);
            i += 2;
        } else {
            return 2;
        }
    }
    g_record = fopen(argv[2], "a");
    g_log = fopen((std::string(argv[2]) + ".log").c_str(), "a");
    HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, argv[3]);
    if (g_record == nullptr || stop == nullptr) return 2;
    service.on_message = &record;
    service.start_listening();
    WaitForSingleObject(stop, INFINITE);
    return 0;
}
