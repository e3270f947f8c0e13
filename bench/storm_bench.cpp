// The running service under a storm of clients: valid requests of every kind, random payloads,
// random identifiers, clients that hang up or are killed in the middle of a request. Run by
// bench/storm_bench.sh, which also drives the driver simulator and, with --crashes, kills the
// service meanwhile. Prints "name: value unit" lines and "check: ..." lines; exit 0 when every
// check held, 1 otherwise.
//
//   storm_bench storm SECONDS CLIENTS [--crashes]
//                               (NV_STORM_GROWTH_LIMIT: the allowed growth of handles and private
//                               bytes after warm-up, in percent; 10 unless set)
//   storm_bench prepare CLIENTS (the storm's registry keys, folders and files to quarantine)
//   storm_bench victim          (a client the storm kills in the middle of its request)
//   storm_bench check-keys      (every storm key whose DACL changed has its original recorded)
//   storm_bench restart CLIENTS [SECONDS]
//                               (taskkill /f of the service, started again, answering, keys and
//                               quarantined files checked)
#include <windows.h>

#include <psapi.h>
#include <winternl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/ipc/frame.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "tests/helpers/raw_client.h"

namespace {

const std::string endpoint = mcl::mswin::service::default_name;
constexpr int storm_services = 8;  // nvstorm0..7, installed by the script, never started
constexpr const char* services_key = "Software\\Norvale\\NVClientHelper\\ProtectedServices";
constexpr const char* reg_keys_key = "Software\\Norvale\\NVClientHelper\\ProtectedRegKeys";
constexpr uint64_t hklm = 0xFFFFFFFF80000002ull;

std::string storm_key(int client) { return "SOFTWARE\\NVStorm\\k" + std::to_string(client); }
std::wstring wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

// The quarantine container of the storm and each client's files that its clients quarantine and
// restore: 4-64 KiB each, their bytes derived from the client and file index.
constexpr const char* storm_container = "C:\\storm\\q";
constexpr int files_per_client = 2;
std::string storm_file(int client, int file) {
    return "C:\\storm\\f" + std::to_string(client) + "\\q" + std::to_string(file) + ".bin";
}
// Each client's own container, made and removed again (never the storm's), and its file to block.
std::string own_container(int client) { return "C:\\storm\\c" + std::to_string(client); }
std::string blocked_file(int client) { return "C:\\storm\\f" + std::to_string(client) + "\\blk.txt"; }
std::vector<unsigned char> storm_file_bytes(int client, int file) {
    const unsigned number = static_cast<unsigned>(client * files_per_client + file);
    std::vector<unsigned char> bytes(4096 + (number * 7919u) % 61441u);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(number * 131u + i * 31u + i / 251u);
    return bytes;
}

// Identifiers that random payloads and random identifiers never reach: the service's stop, the
// protection lists whose final state the storm checks, and the switches that turn protection
// off (a random payload could do any of that).
bool kept_from_random(uint32_t id) {
    return id == msg::stop_service || id == msg::protect_services || id == msg::protect_processes ||
           id == msg::protect_reg_keys || id == msg::disable_driver_protection ||
           id == msg::set_protection_enabled || id == msg::enable_driver_protection;
}

struct counters {
    std::atomic<uint64_t> answered{0};
    std::atomic<uint64_t> unanswered{0};
    std::atomic<uint64_t> hangups{0};
    std::atomic<uint64_t> killed{0};
    std::atomic<uint64_t> connect_failures{0};
    std::atomic<int> clients_connected{0};  // clients whose first connection succeeded
    std::atomic<uint64_t> quarantined{0};   // storm files archived into the container
    std::atomic<uint64_t> restored{0};      // and restored from it
};

class client_conn {
public:
    bool open() {
        client_.close();
        return client_.connect(endpoint);
    }
    void close() { client_.close(); }
    // Sends one request; true with the reply payload when one came.
    bool request(uint32_t id, const mcl::binary_t& payload, mcl::binary_t& reply) {
        mcl::binary_t frame;
        mcl::append_frame(frame, mcl::frame_kind::request, id, ++sequence_, payload);
        if (!client_.write(std::vector<unsigned char>(frame.data(), frame.data() + frame.size()))) return false;
        std::vector<unsigned char> header;
        if (!client_.read(mcl::frame_header_size, header)) return false;
        mcl::frame_header h;
        if (!mcl::read_frame_header(header.data(), static_cast<uint32_t>(header.size()), h)) return false;
        std::vector<unsigned char> body;
        if (!client_.read(h.length == 0 ? 1 : h.length, body)) return false;
        reply = mcl::binary_t();
        if (h.length != 0) reply.append(body.data(), h.length);
        return true;
    }
    // Writes the first `n` bytes of a request frame and nothing more.
    bool partial(uint32_t id, const mcl::binary_t& payload, uint32_t n) {
        mcl::binary_t frame;
        mcl::append_frame(frame, mcl::frame_kind::request, id, ++sequence_, payload);
        if (n > frame.size()) n = frame.size();
        return client_.write(std::vector<unsigned char>(frame.data(), frame.data() + n));
    }

private:
    nv_test::raw_client client_;
    uint32_t sequence_ = 0;
};

bool status_ok(const mcl::binary_t& reply) {
    protocol::status_reply status;
    return protocol::decode(reply, status) && status.result == 1;
}

template <typename Request>
mcl::binary_t encoded(const Request& request) {
    mcl::binary_t p;
    protocol::encode(p, request);
    return p;
}

mcl::binary_t quarantine_payload(uint32_t action, const std::string& path) {
    return encoded(protocol::quarantine_files_request{action, storm_container, {path}});
}

// The container's archives as the service lists them: lowered original path -> archive path.
bool list_archives(client_conn& conn, std::map<std::string, std::string>& archives) {
    archives.clear();
    mcl::binary_t reply;
    protocol::quarantined_files_reply files;
    if (!conn.request(msg::get_quarantined_files, encoded(protocol::name_request{storm_container}), reply) ||
        !protocol::decode(reply, files))
        return false;
    for (const protocol::quarantined_file& f : files.files)
        archives[mcl::mswin::lower_case(f.recorded_path)] = std::string(storm_container) + "\\" + f.archive_name;
    return true;
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

mcl::binary_t service_rule_payload(int service, bool protect) {
    return encoded(protocol::protect_services_request{{{protect, false, "nvstorm" + std::to_string(service)}}});
}

mcl::binary_t reg_key_payload(int client, bool protect) {
    return encoded(protocol::protect_reg_keys_request{
        {{static_cast<uint8_t>(protect ? 1 : 0), hklm, wide(storm_key(client)), "nvstorm0", {}, 1}}});
}

mcl::binary_t process_payload(int client, bool protect) {
    return encoded(protocol::protect_processes_request{
        {{protect, wide("C:\\storm\\f" + std::to_string(client) + "\\storm.exe")}}});
}

// A valid request of `id` that leaves the prefix usable, for client `client`.
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

// Requests the storm sends valid, besides the owned protect requests: every catalogue request
// except the service's stop and the switches that turn protection off.
std::vector<uint32_t> valid_ids() {
    std::vector<uint32_t> ids;
    for (uint32_t id : msg::catalogue)
        if (id != msg::stop_service && id != msg::disable_driver_protection && id != msg::disconnect &&
            id != msg::protect_services && id != msg::protect_reg_keys)
            ids.push_back(id);
    return ids;
}

struct owned_state {
    std::mutex lock;
    std::map<int, bool> services;  // service -> protected after the last answered request
    std::map<int, bool> keys;      // client -> its key protected after the last answered request
};

void storm_client(int index, ULONGLONG end, counters& c, owned_state& owned, const std::string& self) {
    std::mt19937 rng(static_cast<unsigned>(index * 7919 + GetTickCount()));
    const std::vector<uint32_t> ids = valid_ids();
    client_conn conn;
    bool open = false;
    bool connected_once = false;
    std::string archives[files_per_client];
    while (GetTickCount64() < end) {
        if (!open) {
            open = conn.open();
            if (!open) {
                c.connect_failures++;
                Sleep(200);
                continue;
            }
            if (!connected_once) {
                connected_once = true;
                c.clients_connected++;
            }
        }
        const unsigned action = rng() % 100;
        mcl::binary_t reply;
        if (action < 45) {  // a valid request
            const uint32_t id = ids[rng() % ids.size()];
            if (id == msg::quarantine_files) {
                const int file = static_cast<int>(rng() % files_per_client);
                if (quarantine_or_restore(conn, index, file, archives[file], c)) {
                    c.answered++;
                } else {
                    c.unanswered++;
                    open = false;
                    archives[file].clear();
                }
            } else if (conn.request(id, valid_payload(id, index, rng), reply)) {
                c.answered++;
            } else {
                c.unanswered++;
                open = false;
            }
        } else if (action < 60) {  // this client's own key, or service, protected or not
            const bool protect = rng() % 2 == 0;
            const bool service = index < storm_services && rng() % 2 == 0;
            const uint32_t id = service ? msg::protect_services : msg::protect_reg_keys;
            const mcl::binary_t p = service ? service_rule_payload(index, protect) : reg_key_payload(index, protect);
            if (conn.request(id, p, reply)) {
                c.answered++;
                if (status_ok(reply)) {
                    std::lock_guard<std::mutex> guard(owned.lock);
                    (service ? owned.services : owned.keys)[index] = protect;
                }
            } else {
                // Unknown outcome: the next answered request of this client decides again.
                c.unanswered++;
                open = false;
                std::lock_guard<std::mutex> guard(owned.lock);
                (service ? owned.services : owned.keys).erase(index);
            }
        } else if (action < 80) {  // random bytes to a request, or a random identifier
            uint32_t id = action < 72 ? msg::catalogue[rng() % (sizeof(msg::catalogue) / sizeof(msg::catalogue[0]))]
                                      : static_cast<uint32_t>(rng());
            if (kept_from_random(id)) id = msg::service_version;
            mcl::binary_t p;
            const uint32_t n = rng() % 64;
            for (uint32_t i = 0; i < n; ++i) {
                const auto b = static_cast<unsigned char>(rng());
                p.append(&b, 1);
            }
            if (conn.request(id, p, reply)) {
                c.answered++;
            } else {
                c.unanswered++;
                open = false;
            }
        } else if (action < 92) {  // hang up in the middle of a request
            const uint32_t id = ids[rng() % ids.size()];
            (void)conn.partial(id, valid_payload(id, index, rng), 1 + rng() % 20);
            conn.close();
            open = false;
            c.hangups++;
        } else {  // a client killed in the middle of its request
            STARTUPINFOA si{};
            si.cb = sizeof(si);
            PROCESS_INFORMATION pi{};
            std::string command = "\"" + self + "\" victim";
            if (CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
                Sleep(rng() % 300);
                TerminateProcess(pi.hProcess, 9);
                WaitForSingleObject(pi.hProcess, 10000);
                CloseHandle(pi.hProcess);
                CloseHandle(pi.hThread);
                c.killed++;
            }
        }
    }
    conn.close();
}

DWORD service_pid() {
    SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (scm == nullptr) return 0;
    DWORD pid = 0;
    SC_HANDLE s = OpenServiceA(scm, endpoint.c_str(), SERVICE_QUERY_STATUS);
    if (s != nullptr) {
        SERVICE_STATUS_PROCESS st{};
        DWORD n = 0;
        if (QueryServiceStatusEx(s, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&st), sizeof(st), &n))
            pid = st.dwProcessId;
        CloseServiceHandle(s);
    }
    CloseServiceHandle(scm);
    return pid;
}

struct usage {
    DWORD handles = 0;
    SIZE_T private_bytes = 0;
};

// From the system's process list: it also has the figures of processes this one may not open.
bool sample(DWORD pid, usage& u) {
    using query_fn = LONG(WINAPI*)(int, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<query_fn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    if (query == nullptr) return false;
    std::vector<unsigned char> buffer(1 << 20);
    ULONG needed = 0;
    LONG status = 0;
    while ((status = query(SystemProcessInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &needed)) ==
           static_cast<LONG>(0xC0000004))  // STATUS_INFO_LENGTH_MISMATCH
        buffer.resize(buffer.size() * 2);
    if (status != 0) return false;
    for (size_t at = 0;;) {
        const auto* p = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(buffer.data() + at);
        if (static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(p->UniqueProcessId)) == pid) {
            u.handles = p->HandleCount;
            u.private_bytes = p->PrivatePageCount != 0 ? p->PrivatePageCount : p->VirtualMemoryCounters.PagefileUsage;
            return u.handles != 0 && u.private_bytes != 0;
        }
        if (p->NextEntryOffset == 0) return false;
        at += p->NextEntryOffset;
    }
}

std::set<std::string> value_names(const char* key) {
    std::set<std::string> names;
    HKEY k = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &k) != ERROR_SUCCESS) return names;
    for (DWORD i = 0;; ++i) {
        char name[1024];
        DWORD n = sizeof(name);
        if (RegEnumValueA(k, i, name, &n, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        names.insert(std::string(name, n));
    }
    RegCloseKey(k);
    return names;
}

// The persisted record name of a storm key: two backslashes, the decimal root, a backslash, the lowered path.
std::string record_name(int client) { return "\\\\" + std::to_string(hklm) + "\\" + mcl::mswin::lower_case(storm_key(client)); }

int failures = 0;
void check(bool ok, const std::string& what) {
    std::printf("check: %s: %s\n", what.c_str(), ok ? "ok" : "FAILED");
    if (!ok) ++failures;
}

// Every request the storm sends valid, once more, on a fresh connection.
void check_every_request_answers() {
    std::mt19937 rng(1);
    client_conn conn;
    bool open = false;
    for (int i = 0; i < 100 && !open; ++i) {
        open = conn.open();
        if (!open) Sleep(200);
    }
    check(open, "a client connects after the storm");
    int missing = 0;
    std::vector<uint32_t> ids = valid_ids();
    ids.push_back(msg::protect_services);
    ids.push_back(msg::protect_reg_keys);
    for (uint32_t id : ids) {
        mcl::binary_t reply;
        const mcl::binary_t p = id == msg::protect_services ? mcl::binary_t() : valid_payload(id, 0, rng);
        if (!conn.request(id, p, reply)) {
            std::printf("no answer to %X\n", id);
            ++missing;
            open = conn.open();
        }
    }
    check(missing == 0, "every request type is answered after the storm");
}

std::string dacl_sddl(HKEY k) {
    mcl::mswin::security_descriptor sd;
    return sd.read_key_dacl(k) == ERROR_SUCCESS ? sd.dacl_sddl() : std::string();
}

// Every storm key whose DACL differs from the one it was made with has its record with the
// original DACL: the keys are made beside a reference key that nothing protects.
int check_keys(int clients) {
    std::string reference;
    HKEY ref = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\NVStorm\\ref", 0, READ_CONTROL, &ref) == ERROR_SUCCESS) {
        reference = dacl_sddl(ref);
        RegCloseKey(ref);
    }
    if (reference.empty()) {
        std::printf("the reference key SOFTWARE\\NVStorm\\ref is missing\n");
        return 1;
    }
    const std::set<std::string> records = value_names(reg_keys_key);
    int orphans = 0;
    for (int i = 0; i < clients; ++i) {
        HKEY k = nullptr;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, storm_key(i).c_str(), 0, READ_CONTROL, &k) != ERROR_SUCCESS) {
            // Unreadable to us: protected; it must be recorded.
            if (records.count(record_name(i)) == 0) ++orphans;
            continue;
        }
        const std::string sddl = dacl_sddl(k);
        RegCloseKey(k);
        if (sddl != reference && records.count(record_name(i)) == 0) {
            std::printf("key %s has DACL %s without a record\n", storm_key(i).c_str(), sddl.c_str());
            ++orphans;
        }
    }
    // And every record holds an original DACL.
    HKEY k = nullptr;
    int empty = 0;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, reg_keys_key, 0, KEY_READ, &k) == ERROR_SUCCESS) {
        for (DWORD i = 0;; ++i) {
            char name[1024];
            DWORD n = sizeof(name);
            std::vector<unsigned char> data(65536);
            DWORD size = static_cast<DWORD>(data.size());
            if (RegEnumValueA(k, i, name, &n, nullptr, nullptr, data.data(), &size) != ERROR_SUCCESS) break;
            mcl::binary_t b;
            b.append(data.data(), size);
            uint32_t pos = 0;
            std::string original;
            if (!mcl::read_string(original, b, pos) || original.empty()) ++empty;
        }
        RegCloseKey(k);
    }
    return orphans + empty;
}

bool holds_bytes(const std::string& path, const std::vector<unsigned char>& want) {
    HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    std::vector<unsigned char> got(want.size() + 1);
    DWORD total = 0;
    DWORD n = 0;
    while (total < got.size() && ReadFile(h, got.data() + total, static_cast<DWORD>(got.size() - total), &n, nullptr) &&
           n > 0)
        total += n;
    CloseHandle(h);
    return total == want.size() && std::memcmp(got.data(), want.data(), want.size()) == 0;
}

// Every storm file is at its place with its bytes, or an archive in the container records its
// path; never neither. Clients may be moving files meanwhile (an archive is in place before its
// source goes, a restored file before its archive goes): a file found in neither form is looked
// for again, archives first, a few times before it counts.
int check_files(int clients) {
    client_conn conn;
    bool open = false;
    for (int i = 0; i < 100 && !open; ++i) {
        open = conn.open();
        if (!open) Sleep(200);
    }
    if (!open) {
        std::printf("files: no connection to list the container\n");
        return 1;
    }
    std::vector<std::pair<int, int>> pending;
    for (int i = 0; i < clients; ++i)
        for (int f = 0; f < files_per_client; ++f)
            if (!holds_bytes(storm_file(i, f), storm_file_bytes(i, f))) pending.emplace_back(i, f);
    size_t archived = 0;
    int listing_failures = 0;
    for (int round = 0; round < 5 && !pending.empty();) {
        if (round > 0) Sleep(100);
        std::map<std::string, std::string> archives;
        if (!list_archives(conn, archives)) {
            // The service may be being killed and started again: a new connection waits for it.
            std::printf("files: the container's listing failed\n");
            if (++listing_failures > 5) break;
            open = false;
            for (int i = 0; i < 100 && !open; ++i) {
                open = conn.open();
                if (!open) Sleep(200);
            }
            continue;
        }
        ++round;
        std::vector<std::pair<int, int>> neither;
        for (const auto& f : pending) {
            if (archives.count(mcl::mswin::lower_case(storm_file(f.first, f.second))) != 0)
                ++archived;
            else if (!holds_bytes(storm_file(f.first, f.second), storm_file_bytes(f.first, f.second)))
                neither.push_back(f);
        }
        pending.swap(neither);
    }
    for (const auto& f : pending)
        std::printf("file %s: neither at its place with its bytes nor archived\n", storm_file(f.first, f.second).c_str());
    std::printf("storm_files_archived: %zu files (of %d)\n", archived, clients * files_per_client);
    return static_cast<int>(pending.size());
}

// The storm's container, made (or found made) by the service.
bool register_container() {
    client_conn conn;
    const mcl::binary_t p = encoded(protocol::create_container_request{storm_container, {}});
    mcl::binary_t reply;
    for (int i = 0; i < 100; ++i) {
        if (conn.open() && conn.request(msg::create_quarantine_container, p, reply)) return status_ok(reply);
        Sleep(200);
    }
    return false;
}

int storm(int seconds, int clients, bool crashes, const std::string& self) {
    counters c;
    owned_state owned;
    const DWORD pid = service_pid();
    std::printf("service_pid: %lu\n", static_cast<unsigned long>(pid));
    check(register_container(), "the storm's quarantine container is made");
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
    for (auto& t : threads) t.join();
    const double elapsed = static_cast<double>(GetTickCount64() - warm) / 1000.0;
    Sleep(3000);  // the service drops the last connections

    std::printf("storm_seconds: %d s\n", seconds);
    std::printf("storm_clients: %d clients\n", clients);
    std::printf("requests_answered: %llu requests\n", static_cast<unsigned long long>(c.answered.load()));
    std::printf("requests_unanswered: %llu requests\n", static_cast<unsigned long long>(c.unanswered.load()));
    std::printf("hangups_mid_request: %llu clients\n", static_cast<unsigned long long>(c.hangups.load()));
    std::printf("killed_mid_request: %llu clients\n", static_cast<unsigned long long>(c.killed.load()));
    std::printf("connect_failures: %llu attempts\n", static_cast<unsigned long long>(c.connect_failures.load()));
    std::printf("requests_per_second: %.1f requests/s\n",
                elapsed > 0 ? static_cast<double>(c.answered.load() - answered_at_warm) / elapsed : 0.0);
    std::printf("files_quarantined: %llu files\n", static_cast<unsigned long long>(c.quarantined.load()));
    std::printf("files_restored: %llu files\n", static_cast<unsigned long long>(c.restored.load()));

    check_every_request_answers();
    const DWORD pid_after = service_pid();
    if (!crashes) {
        check(pid_after == pid, "the service ran the whole storm in one process");
        usage after;
        const bool after_ok = sample(pid, after);
        if (warm_ok && after_ok) {
            const double handles = 100.0 * (static_cast<double>(after.handles) - warm_usage.handles) / warm_usage.handles;
            const double bytes =
                100.0 * (static_cast<double>(after.private_bytes) - warm_usage.private_bytes) / warm_usage.private_bytes;
            std::printf("handles_after_warmup: %lu handles\n", static_cast<unsigned long>(warm_usage.handles));
            std::printf("handles_after_storm: %lu handles\n", static_cast<unsigned long>(after.handles));
            std::printf("handles_change: %.1f %%\n", handles);
            std::printf("private_bytes_after_warmup: %.1f MiB\n", warm_usage.private_bytes / 1048576.0);
            std::printf("private_bytes_after_storm: %.1f MiB\n", after.private_bytes / 1048576.0);
            std::printf("private_bytes_change: %.1f %%\n", bytes);
            // The allowed growth in percent: NV_STORM_GROWTH_LIMIT, 10 unless set.
            const char* limit_text = std::getenv("NV_STORM_GROWTH_LIMIT");
            const double limit = limit_text != nullptr && std::atof(limit_text) > 0 ? std::atof(limit_text) : 10.0;
            const std::string within = " within " + std::to_string(static_cast<int>(limit)) + "% of ";
            check(handles <= limit, "handle count" + within + "its value after warm-up");
            check(bytes <= limit, "private bytes" + within + "their value after warm-up");
        } else {
            check(false, "the service's handle count and private bytes can be read");
        }
        // The persisted lists hold exactly what the answered requests left.
        const std::set<std::string> services = value_names(services_key);
        const std::set<std::string> records = value_names(reg_keys_key);
        int wrong = 0;
        for (const auto& s : owned.services) {
            const bool listed = services.count("nvstorm" + std::to_string(s.first)) != 0;
            if (listed != s.second) {
                std::printf("service nvstorm%d: listed %d, want %d\n", s.first, listed ? 1 : 0, s.second ? 1 : 0);
                ++wrong;
            }
        }
        std::string reference;
        HKEY ref = nullptr;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\NVStorm\\ref", 0, READ_CONTROL, &ref) == ERROR_SUCCESS) {
            reference = dacl_sddl(ref);
            RegCloseKey(ref);
        }
        int kept = 0;
        for (const auto& k : owned.keys) {
            const bool listed = records.count(record_name(k.first)) != 0;
            // A protect answered 0 because the driver was away keeps its DACL step and its
            // persisted record (applied again at the next start): the key differs from the
            // reference then.
            if (listed && !k.second && !reference.empty()) {
                HKEY key = nullptr;
                if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, storm_key(k.first).c_str(), 0, READ_CONTROL, &key) == ERROR_SUCCESS) {
                    const bool differs = dacl_sddl(key) != reference;
                    RegCloseKey(key);
                    if (differs) {
                        ++kept;
                        continue;
                    }
                }
            }
            if (listed != k.second) {
                std::printf("key %s: recorded %d, want %d\n", storm_key(k.first).c_str(), listed ? 1 : 0,
                            k.second ? 1 : 0);
                ++wrong;
            }
        }
        std::printf("owned_services_checked: %zu services\n", owned.services.size());
        std::printf("owned_keys_checked: %zu keys\n", owned.keys.size());
        std::printf("records_left_by_failed_protects: %d keys\n", kept);
        check(wrong == 0, "the persisted services and keys are what the answered requests left");
    }
    check(check_keys(clients) == 0, "no protected storm key without the record of its original DACL");
    check(check_files(clients) == 0, "every storm file is at its place or quarantined, never neither");
    return failures == 0 ? 0 : 1;
}

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

// Kills the service with taskkill /f, starts it again as soon as the service manager has seen
// its process end, and waits until it answers and lists its protected keys and services; then
// the key records are checked. Prints the time from the kill to the answer.
int restart(int clients, int seconds) {
    const DWORD pid = service_pid();
    if (pid == 0) {
        std::printf("restart: the service is not running\n");
        return 1;
    }
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, pid);
    const ULONGLONG start = GetTickCount64();
    const ULONGLONG deadline = start + static_cast<ULONGLONG>(seconds) * 1000;
    STARTUPINFOA si{};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi{};
    std::string command = "taskkill.exe /F /PID " + std::to_string(pid);
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
        std::printf("restart: taskkill cannot be started: %lu\n", static_cast<unsigned long>(GetLastError()));
        return 1;
    }
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD taskkill_rc = 1;
    GetExitCodeProcess(pi.hProcess, &taskkill_rc);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
    if (taskkill_rc != 0) {
        std::printf("restart: taskkill exit code %lu\n", static_cast<unsigned long>(taskkill_rc));
        return 1;
    }
    if (process != nullptr) {
        WaitForSingleObject(process, static_cast<DWORD>(deadline - GetTickCount64()));
        CloseHandle(process);
    }
    // The service manager notices the end of the process on its own thread: until then a start
    // is refused as "already running".
    bool started = false;
    SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE s = scm == nullptr ? nullptr : OpenServiceA(scm, endpoint.c_str(), SERVICE_START);
    while (s != nullptr && !started && GetTickCount64() < deadline) {
        started = StartServiceA(s, 0, nullptr) != FALSE;
        if (!started && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) break;
        if (!started) Sleep(50);
    }
    if (s != nullptr) CloseServiceHandle(s);
    if (scm != nullptr) CloseServiceHandle(scm);
    if (!started) {
        std::printf("restart: the service does not start: %lu\n", static_cast<unsigned long>(GetLastError()));
        return 1;
    }
    const bool keys = answered_by(msg::get_protected_reg_keys, deadline);
    const bool services = keys && answered_by(msg::query_protected_services, deadline);
    std::printf("restart_seconds: %.2f s\n", static_cast<double>(GetTickCount64() - start) / 1000.0);
    check(keys && services, "the restarted service answers and lists its protected keys and services");
    check(check_keys(clients) == 0, "no protected storm key without the record of its original DACL");
    check(check_files(clients) == 0, "every storm file is at its place or quarantined, never neither");
    return failures == 0 ? 0 : 1;
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

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    char self[MAX_PATH];
    const DWORD n = GetModuleFileNameA(nullptr, self, MAX_PATH);
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "victim") return victim();
    if (mode == "prepare") {
        // The storm's keys beside the reference key, and its folders.
        const int clients = argc > 2 ? atoi(argv[2]) : 200;
        for (int i = -1; i < clients; ++i) {
            HKEY k = nullptr;
            const std::string name = i < 0 ? "SOFTWARE\\NVStorm\\ref" : storm_key(i);
            if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, 0, KEY_READ, nullptr, &k, nullptr) !=
                ERROR_SUCCESS)
                return 1;
            RegCloseKey(k);
            if (i >= 0) {
                CreateDirectoryA("C:\\storm", nullptr);
                CreateDirectoryA(storm_container, nullptr);
                CreateDirectoryA(("C:\\storm\\f" + std::to_string(i)).c_str(), nullptr);
                HANDLE blk = CreateFileA(blocked_file(i).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
                if (blk == INVALID_HANDLE_VALUE) return 1;
                CloseHandle(blk);
                for (int f = 0; f < files_per_client; ++f) {
                    const std::vector<unsigned char> bytes = storm_file_bytes(i, f);
                    HANDLE h = CreateFileA(storm_file(i, f).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
                    DWORD written_bytes = 0;
                    const bool written = h != INVALID_HANDLE_VALUE &&
                                         WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written_bytes, nullptr) &&
                                         written_bytes == bytes.size();
                    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
                    if (!written) return 1;
                }
            }
        }
        return 0;
    }
    if (mode == "check-keys") {
        const int clients = argc > 2 ? atoi(argv[2]) : 200;
        check(check_keys(clients) == 0, "no protected storm key without the record of its original DACL");
        return failures == 0 ? 0 : 1;
    }
    if (mode == "restart" && argc >= 3) return restart(atoi(argv[2]), argc > 3 ? atoi(argv[3]) : 300);
    if (mode == "storm" && argc >= 4) {
        const bool crashes = argc > 4 && std::strcmp(argv[4], "--crashes") == 0;
        return storm(atoi(argv[2]), atoi(argv[3]), crashes, std::string(self, n));
    }
    std::fprintf(stderr, "usage: storm_bench storm SECONDS CLIENTS [--crashes] | prepare CLIENTS | victim | check-keys [CLIENTS] | "
                         "restart CLIENTS [SECONDS]\n");
    return 2;
}
