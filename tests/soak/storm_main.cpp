// nv_storm, run by tests/soak/storm.sh: the running service under a storm of clients. Prints
// "name: value unit" and "check: ..." lines; exit 0 when every check held.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mcl/file.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/message_ids.h"
#include "protocol/requests.h"
#include "tests/soak/storm.h"
#include "tests/unit/protocol/conformance.h"

namespace storm {

namespace {

bool write_file(const std::string& path, const std::vector<unsigned char>& bytes) {
    const mcl::unique_file f = mcl::open_file(path.c_str(), "wb");
    return f && fwrite(bytes.data(), 1, bytes.size(), f.get()) == bytes.size() && fflush(f.get()) == 0;
}

// The storm's keys beside the reference key, its folders and its files.
int prepare(int clients) {
    CreateDirectoryA("C:\\storm", nullptr);  // the container in it is the service's to make
    for (int i = -1; i < clients; ++i) {
        mcl::mswin::unique_reg_key key;
        if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, (i < 0 ? std::string(reference_key) : storm_key(i)).c_str(), 0, nullptr,
                            0, KEY_READ, nullptr, key.put(), nullptr) != ERROR_SUCCESS)
            return 1;
        if (i < 0) continue;
        CreateDirectoryA(("C:\\storm\\f" + std::to_string(i)).c_str(), nullptr);
        if (!write_file(blocked_file(i), {})) return 1;
        for (int f = 0; f < files_per_client; ++f)
            if (!write_file(storm_file(i, f), storm_file_bytes(i, f))) return 1;
    }
    return 0;
}

// Returns once every client has ended. A client still waiting for a reply two minutes after the
// storm's end never gets one: the requests they wait on are printed and the process ends, a
// failure the script reports, instead of a storm that never ends.
void wait_for_clients(const counters& c, int clients, ULONGLONG end) {
    const ULONGLONG limit = end + 120000;
    while (c.clients_ended.load() < clients) {
        if (GetTickCount64() >= limit) {
            int stuck = 0;
            for (int i = 0; i < clients; ++i) {
                const ULONGLONG since = c.waits[i].since.load();
                if (since == 0) continue;
                ++stuck;
                char what[128];
                std::snprintf(what, sizeof(what), "client %d is answered (request %X sent %.1f s ago)", i,
                              static_cast<unsigned>(c.waits[i].id.load()),
                              static_cast<double>(GetTickCount64() - since) / 1000.0);
                check(false, what);
            }
            std::printf("clients_not_ended: %d clients (%d of them waiting for a reply)\n",
                        clients - c.clients_ended.load(), stuck);
            ExitProcess(1);
        }
        Sleep(200);
    }
}

// Made by tests/soak/storm.sh once its last kill has been followed by a restart.
constexpr const char* kills_done_marker = "C:\\storm\\kills_done";

int run_storm(int seconds, int clients, bool crashes, const std::string& self) {
    counters c;
    c.waits.reset(new in_flight[static_cast<size_t>(clients)]);
    owned_state owned;
    const DWORD pid = service_pid();
    std::printf("service_pid: %lu\n", static_cast<unsigned long>(pid));
    {
        client_conn conn;
        mcl::binary_t reply;
        check(conn.open_patiently() &&
                  conn.request(msg::create_quarantine_container,
                               nv_test::encoded(protocol::create_container_request{storm_container, {}}), reply) &&
                  status_ok(reply),
              "the storm's quarantine container is made");
    }
    const ULONGLONG start = GetTickCount64();
    const ULONGLONG end = start + static_cast<ULONGLONG>(seconds) * 1000;
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i)
        threads.emplace_back([&, i] { storm_client(i, end, c, owned, self); });
    // Warm-up: a tenth of the run, but at least 30 s or half the run if that is shorter, and
    // until every client has connected and 5 s more have passed, at most half the run. The
    // service's lists, buffers and handle table grow until each client's objects have been
    // protected once and every client is in (on a loaded machine 200 clients take a while).
    const int half = seconds / 2 < 30 ? seconds / 2 : 30;
    ULONGLONG warm = start + static_cast<ULONGLONG>(seconds / 10 > half ? seconds / 10 : half) * 1000;
    const ULONGLONG warm_limit = start + static_cast<ULONGLONG>(seconds) * 500;
    ULONGLONG all_in = 0;
    while (GetTickCount64() < warm || (all_in == 0 || GetTickCount64() < all_in + 5000)) {
        if (all_in == 0 && c.clients_connected.load() >= clients) all_in = GetTickCount64();
        if (GetTickCount64() >= warm_limit) break;
        Sleep(200);
    }
    warm = GetTickCount64();
    std::printf("warmup_seconds: %.1f s\n", static_cast<double>(warm - start) / 1000.0);
    const uint64_t answered_at_warm = c.answered.load();
    usage warm_usage;
    const bool warm_ok = sample(pid, warm_usage);
    wait_for_clients(c, clients, end);
    for (auto& t : threads) t.join();
    const double elapsed = static_cast<double>(GetTickCount64() - warm) / 1000.0;
    Sleep(3000);  // the service drops the last connections

    std::printf("requests_answered: %llu requests\n", static_cast<unsigned long long>(c.answered.load()));
    std::printf("requests_unanswered: %llu requests\n", static_cast<unsigned long long>(c.unanswered.load()));
    std::printf("hangups_mid_request: %llu clients\n", static_cast<unsigned long long>(c.hangups.load()));
    std::printf("killed_mid_request: %llu clients\n", static_cast<unsigned long long>(c.killed.load()));
    std::printf("connect_failures: %llu attempts\n", static_cast<unsigned long long>(c.connect_failures.load()));
    std::printf("requests_per_second: %.1f requests/s\n",
                elapsed > 0 ? static_cast<double>(c.answered.load() - answered_at_warm) / elapsed : 0.0);
    std::printf("files_quarantined: %llu files\n", static_cast<unsigned long long>(c.quarantined.load()));
    std::printf("files_restored: %llu files\n", static_cast<unsigned long long>(c.restored.load()));

    // With kills, the script's last restart may come after the clients end: the checks wait
    // for the script to say that the kills are over and the service answers again.
    if (crashes)
        for (int i = 0; i < 3000 && GetFileAttributesA(kills_done_marker) == INVALID_FILE_ATTRIBUTES; ++i) Sleep(100);
    check_every_request_answers();
    const DWORD pid_after = service_pid();
    if (!crashes) {
        check(pid_after == pid, "the service ran the whole storm in one process");
        usage after;
        if (warm_ok && sample(pid, after)) {
            const double handles = 100.0 * (static_cast<double>(after.handles) - warm_usage.handles) / warm_usage.handles;
            const double bytes =
                100.0 * (static_cast<double>(after.private_bytes) - warm_usage.private_bytes) / warm_usage.private_bytes;
            std::printf("handles_after_warmup: %lu handles\nhandles_after_storm: %lu handles\nhandles_change: %.1f %%\n",
                        warm_usage.handles, after.handles, handles);
            std::printf("private_bytes_after_warmup: %.1f MiB\nprivate_bytes_after_storm: %.1f MiB\n"
                        "private_bytes_change: %.1f %%\n",
                        warm_usage.private_bytes / 1048576.0, after.private_bytes / 1048576.0, bytes);
            const char* limit_text = std::getenv("NV_STORM_GROWTH_LIMIT");
            const double limit = std::atof(limit_text != nullptr ? limit_text : "10");
            const std::string within = " within " + std::to_string(static_cast<int>(limit)) + "% of ";
            check(handles <= limit, "handle count" + within + "its value after warm-up");
            check(bytes <= limit, "private bytes" + within + "their value after warm-up");
        } else {
            check(false, "the service's handle count and private bytes can be read");
        }
        check_owned(owned);
    }
    return final_checks(clients);
}

}  // namespace

}  // namespace storm

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    char self[MAX_PATH];
    const DWORD n = GetModuleFileNameA(nullptr, self, MAX_PATH);
    const std::string mode = argc > 1 ? argv[1] : "";
    const int clients = argc > 2 ? atoi(argv[2]) : 200;
    if (mode == "victim") return storm::victim();
    if (mode == "prepare") return storm::prepare(clients);
    if (mode == "checks" && argc >= 3) return storm::final_checks(clients);
    if (mode == "sample" && argc >= 3) {
        storm::usage u;
        if (!storm::read_usage(static_cast<DWORD>(strtoul(argv[2], nullptr, 10)), u)) return 1;
        std::printf("%lu %llu\n", static_cast<unsigned long>(u.handles), static_cast<unsigned long long>(u.private_bytes));
        return 0;
    }
    if (mode == "storm" && argc >= 4) {
        const bool crashes = argc > 4 && std::strcmp(argv[4], "--crashes") == 0;
        return storm::run_storm(atoi(argv[2]), atoi(argv[3]), crashes, std::string(self, n));
    }
    std::fprintf(stderr,
                 "usage: nv_storm storm SECONDS CLIENTS [--crashes] | prepare CLIENTS | victim | checks CLIENTS | sample PID\n");
    return 2;
}
