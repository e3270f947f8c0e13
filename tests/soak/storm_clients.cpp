// The storm's clients and their connection: valid requests of every kind, their own objects
// protected and unprotected, random payloads and identifiers, hang-ups in mid-request and clients
// killed in mid-request.
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "mcl/mswin/text.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "tests/helpers/process.h"
#include "tests/soak/storm.h"
#include "tests/unit/protocol/conformance.h"

namespace storm {

namespace {

using mcl::mswin::widen;
using nv_test::encoded;

// Identifiers that random payloads and random identifiers never reach: the service's stop, the
// protection lists whose final state the storm checks, and the switches that turn protection
// off (a random payload could do any of that).
bool kept_from_random(uint32_t id) {
    return id == msg::stop_service || id == msg::protect_services || id == msg::protect_processes ||
           id == msg::protect_reg_keys || id == msg::disable_driver_protection ||
           id == msg::set_protection_enabled || id == msg::enable_driver_protection;
}

mcl::binary_t quarantine_payload(uint32_t action, const std::string& path) {
    return encoded(protocol::quarantine_files_request{action, storm_container, {path}});
}

// One storm file quarantined when it is at its place, restored when it is not; false when the
// connection ended. `archive` is where this client last saw the file archived.
bool quarantine_or_restore(client_conn& conn, int client, int file, std::string& archive, counters& c) {
    const std::string path = storm_file(client, file);
    mcl::binary_t reply;
    if (GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES) {
        if (!conn.request(msg::quarantine_files, quarantine_payload(0, path), reply)) return false;
        protocol::status_reply status;
        if (protocol::decode(reply, status) && status.result == 1 && status.message.size() > 1 &&
            status.message.back() == ';') {
            archive = status.message.substr(0, status.message.size() - 1);
            c.quarantined++;
        }
        return true;
    }
    if (archive.empty()) {  // archived by an earlier run, or the reply was lost
        std::map<std::string, std::string> archives;
        if (!list_archives(conn, archives)) return false;
        const auto found = archives.find(mcl::mswin::lower_case(path));
        if (found == archives.end()) return true;
        archive = found->second;
    }
    if (!conn.request(msg::quarantine_files, quarantine_payload(2, archive), reply)) return false;
    if (status_ok(reply)) c.restored++;
    archive.clear();
    return true;
}

mcl::binary_t process_payload(int client, bool protect) {
    return encoded(protocol::protect_processes_request{
        {{protect, widen("C:\\storm\\f" + std::to_string(client) + "\\storm.exe")}}});
}

}  // namespace

std::vector<unsigned char> storm_file_bytes(int client, int file) {
    const unsigned number = static_cast<unsigned>(client * files_per_client + file);
    std::vector<unsigned char> bytes(4096 + (number * 7919u) % 61441u);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(number * 131u + i * 31u + i / 251u);
    return bytes;
}

bool client_conn::request(uint32_t id, const mcl::binary_t& payload, mcl::binary_t& reply) {
    if (watch != nullptr) {
        watch->id = id;
        watch->since = GetTickCount64();
    }
    mcl::frame_header h;
    const bool answered = client_.write_frame(id, ++sequence_, payload) && client_.read_frame(h, reply);
    if (watch != nullptr) watch->since = 0;
    return answered;
}

bool status_ok(const mcl::binary_t& reply) {
    protocol::status_reply status;
    return protocol::decode(reply, status) && status.result == 1;
}

bool list_archives(client_conn& conn, std::map<std::string, std::string>& archives) {
    archives.clear();
    mcl::binary_t request;
    protocol::encode(request, protocol::name_request{storm_container});
    mcl::binary_t reply;
    protocol::quarantined_files_reply files;
    if (!conn.request(msg::get_quarantined_files, request, reply) || !protocol::decode(reply, files)) return false;
    for (const protocol::quarantined_file& f : files.files)
        archives[mcl::mswin::lower_case(f.recorded_path)] = std::string(storm_container) + "\\" + f.archive_name;
    return true;
}

mcl::binary_t valid_payload(uint32_t id, int client, std::mt19937& rng) {
    const std::string subscriber = "storm" + std::to_string(client);
    switch (id) {
    case msg::protocol_compatible: return encoded(protocol::compatibility_request{5});
    case msg::set_protection_enabled: return encoded(protocol::protection_switch_request{true});
    case msg::protect_processes: return process_payload(client, rng() % 2 == 0);
    case msg::service_ctrl_start_service: return encoded(protocol::start_service_request{"nvstorm_absent", {}});
    case msg::service_ctrl_stop_service:
    case msg::service_ctrl_recover_dacl: return encoded(protocol::name_request{"nvstorm_absent"});
    case msg::restore_driver_protection: return encoded(protocol::restore_driver_request{true});
    case msg::recover_folder_dacl: return encoded(protocol::name_request{"C:\\storm\\f" + std::to_string(client)});
    case msg::subscribe_irp_notification:
        return encoded(protocol::subscribe_request{rng() % 2 != 0, subscriber, "Global\\" + subscriber + "_irp", "*",
                                                   0xFF, 0xFF, 1});
    case msg::query_irp_notification_data: return encoded(protocol::notification_query_request{subscriber});
    case msg::get_quarantined_files: return encoded(protocol::name_request{storm_container});
    case msg::create_quarantine_container: return encoded(protocol::create_container_request{own_container(client), {}});
    case msg::remove_quarantine_container:  // restoring what it holds: nothing
        return encoded(protocol::remove_container_request{2, own_container(client)});
    case msg::block_file_access:
    case msg::unblock_file_access:
    case msg::is_file_access_blocked: return encoded(protocol::name_request{blocked_file(client)});
    case msg::block_files_access:
        return encoded(protocol::block_files_request{static_cast<uint32_t>(rng() % 2), {}, {blocked_file(client)}});
    case msg::is_file_quarantined: return encoded(protocol::name_request{storm_file(client, 0)});
    case msg::quarantine_files:  // an empty list; storm_client quarantines and restores real files
        return encoded(protocol::quarantine_files_request{0, storm_container, {}});
    default: return mcl::binary_t();  // the rest take no payload
    }
}

std::vector<uint32_t> valid_ids() {
    std::vector<uint32_t> ids;
    for (uint32_t id : msg::catalogue)
        if (id != msg::stop_service && id != msg::disable_driver_protection && id != msg::disconnect &&
            id != msg::protect_services && id != msg::protect_reg_keys)
            ids.push_back(id);
    return ids;
}

void storm_client(int index, ULONGLONG end, counters& c, owned_state& owned, const std::string& self) {
    std::mt19937 rng(static_cast<unsigned>(index * 7919 + GetTickCount()));
    const std::vector<uint32_t> ids = valid_ids();
    client_conn conn;
    conn.watch = &c.waits[index];
    bool open = false;
    bool connected_once = false;
    std::string archives[files_per_client];
    // Counts an exchange; one without an answer ends the connection.
    auto answered = [&](bool ok) {
        ++(ok ? c.answered : c.unanswered);
        if (!ok) open = false;
        return ok;
    };
    while (GetTickCount64() < end) {
        if (!open && !(open = conn.open())) {
            c.connect_failures++;
            Sleep(200);
            continue;
        }
        if (!std::exchange(connected_once, true)) c.clients_connected++;
        const unsigned action = rng() % 100;
        mcl::binary_t reply;
        if (action < 45) {  // a valid request
            const uint32_t id = ids[rng() % ids.size()];
            if (id != msg::quarantine_files) {
                answered(conn.request(id, valid_payload(id, index, rng), reply));
            } else {
                const int file = static_cast<int>(rng() % files_per_client);
                if (!answered(quarantine_or_restore(conn, index, file, archives[file], c))) archives[file].clear();
            }
        } else if (action < 60) {  // this client's own key, or service, protected or not
            const bool protect = rng() % 2 == 0;
            const bool service = index < storm_services && rng() % 2 == 0;
            const uint32_t id = service ? msg::protect_services : msg::protect_reg_keys;
            const mcl::binary_t p =
                service
                    ? encoded(protocol::protect_services_request{{{protect, false, "nvstorm" + std::to_string(index)}}})
                    : encoded(protocol::protect_reg_keys_request{
                          {{static_cast<uint8_t>(protect ? 1 : 0), hklm, widen(storm_key(index)), "nvstorm0", {}, 1}}});
            const bool ok = answered(conn.request(id, p, reply));
            std::lock_guard<std::mutex> guard(owned.lock);
            auto& state = service ? owned.services : owned.keys;
            if (!ok)
                state.erase(index);  // unknown outcome: the next answered request of this client decides again
            else if (status_ok(reply))
                state[index] = protect;
        } else if (action < 80) {  // random bytes to a request, or a random identifier
            uint32_t id = action < 72 ? msg::catalogue[rng() % std::size(msg::catalogue)]
                                      : static_cast<uint32_t>(rng());
            if (kept_from_random(id)) id = msg::service_version;
            std::vector<unsigned char> p(rng() % 64);
            for (auto& b : p) b = static_cast<unsigned char>(rng());
            answered(conn.request(id, mcl::binary_t(p.data(), static_cast<uint32_t>(p.size())), reply));
        } else if (action < 92) {  // hang up in the middle of a request
            const uint32_t id = ids[rng() % ids.size()];
            (void)conn.partial(id, valid_payload(id, index, rng), 1 + rng() % 20);
            conn.close();
            open = false;
            c.hangups++;
        } else {  // a client killed in the middle of its request
            nv_test::child v = nv_test::start("\"" + self + "\" victim");
            if (v.process) {
                Sleep(rng() % 300);
                v.kill();
                c.killed++;
            }
        }
    }
    conn.close();
    c.clients_ended++;
}

int victim() {
    client_conn conn;
    if (!conn.open()) return 1;
    std::mt19937 rng(GetCurrentProcessId());
    for (;;) {
        mcl::binary_t reply;
        if (!conn.request(msg::protect_processes, process_payload(1000 + static_cast<int>(rng() % 50), true), reply))
            return 1;
    }
}

}  // namespace storm
