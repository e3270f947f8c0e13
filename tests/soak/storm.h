// What nv_storm's parts share: the storm's objects, its client connection and its check lines.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "tests/helpers/raw_client.h"

namespace storm {

constexpr int storm_services = 8;  // nvstorm0..7, installed by the script, never started
constexpr const char* services_key = "Software\\Norvale\\NVClientHelper\\ProtectedServices";
constexpr const char* reg_keys_key = "Software\\Norvale\\NVClientHelper\\ProtectedRegKeys";
constexpr const char* reference_key = "SOFTWARE\\NVStorm\\ref";  // made beside the storm keys, never protected
constexpr uint64_t hklm = 0xFFFFFFFF80000002ull;
// The storm's quarantine container, and how many files each client quarantines and restores.
constexpr const char* storm_container = "C:\\storm\\q";
constexpr int files_per_client = 2;

inline std::string storm_key(int client) { return "SOFTWARE\\NVStorm\\k" + std::to_string(client); }
// The persisted record name of a storm key: two backslashes, the decimal root, a backslash, the lowered path.
inline std::string record_name(int client) {
    return "\\\\" + std::to_string(hklm) + "\\" + mcl::mswin::lower_case(storm_key(client));
}
// A client's files, 4-64 KiB each, their bytes derived from the client and file index.
inline std::string storm_file(int client, int file) {
    return "C:\\storm\\f" + std::to_string(client) + "\\q" + std::to_string(file) + ".bin";
}
std::vector<unsigned char> storm_file_bytes(int client, int file);
// Each client's own container, made and removed again (never the storm's), and its file to block.
inline std::string own_container(int client) { return "C:\\storm\\c" + std::to_string(client); }
inline std::string blocked_file(int client) { return "C:\\storm\\f" + std::to_string(client) + "\\blk.txt"; }

// The request a client waits on, if any: where the storm looks when a client does not end.
struct in_flight {
    std::atomic<uint32_t> id{0};
    std::atomic<ULONGLONG> since{0};  // 0 when it waits on nothing
};

// One connection to the service that sends whole requests or only their first bytes.
class client_conn {
public:
    // Where request() shows what it waits on; none unless set.
    in_flight* watch = nullptr;

    bool open() {
        client_.close();
        return client_.connect(mcl::mswin::service::default_name);
    }
    void close() { client_.close(); }
    // Sends one request; true with the reply payload when one came.
    bool request(uint32_t id, const mcl::binary_t& payload, mcl::binary_t& reply);
    // Writes the first `n` bytes of a request frame and nothing more.
    bool partial(uint32_t id, const mcl::binary_t& payload, uint32_t n) {
        return client_.write_frame(id, ++sequence_, payload, mcl::frame_kind::request, n);
    }
    // Opens, trying for up to 20 s; false when the service never let it in.
    bool open_patiently() {
        for (int i = 0; i < 100; ++i, Sleep(200))
            if (open()) return true;
        return false;
    }

private:
    nv_test::raw_client client_;
    uint32_t sequence_ = 0;
};

bool status_ok(const mcl::binary_t& reply);
// The container's archives as the service lists them: lowered original path -> archive path.
bool list_archives(client_conn& conn, std::map<std::string, std::string>& archives);

struct counters {
    std::atomic<uint64_t> answered{0};
    std::atomic<uint64_t> unanswered{0};
    std::atomic<uint64_t> hangups{0};
    std::atomic<uint64_t> killed{0};
    std::atomic<uint64_t> connect_failures{0};
    std::atomic<int> clients_connected{0};  // clients whose first connection succeeded
    std::atomic<uint64_t> quarantined{0};   // storm files archived into the container
    std::atomic<uint64_t> restored{0};      // and restored from it
    std::atomic<int> clients_ended{0};
    std::unique_ptr<in_flight[]> waits;     // one per client
};

// What each client's last answered protect or unprotect left.
struct owned_state {
    std::mutex lock;
    std::map<int, bool> services;  // service -> protected after the last answered request
    std::map<int, bool> keys;      // client -> its key protected after the last answered request
};

// Requests the storm sends valid, besides the owned protect requests, and a valid payload of one
// for client `client` that leaves the prefix usable.
std::vector<uint32_t> valid_ids();
mcl::binary_t valid_payload(uint32_t id, int client, std::mt19937& rng);

// Storm client `index` until GetTickCount64() reaches `end`; `self` is this program, started
// as a victim.
void storm_client(int index, ULONGLONG end, counters& c, owned_state& owned, const std::string& self);
// A client that sends protect requests until it is killed.
int victim();

void check(bool ok, const std::string& what);

DWORD service_pid();
struct usage {
    DWORD handles = 0;
    SIZE_T private_bytes = 0;
};
// The service's figures, read in this process (read_usage) or in a reader process (sample).
bool read_usage(DWORD pid, usage& u);
bool sample(DWORD pid, usage& u);

void check_every_request_answers();
// The persisted lists hold exactly what the answered requests left.
void check_owned(const owned_state& owned);
// No protected storm key without the record of its original DACL, no storm file neither at its
// place with its bytes nor archived in the container; the exit code: 0 when every check held.
int final_checks(int clients);

}  // namespace storm
