// What the storm checks afterwards: the service's process and its resources, every request type
// answered, the persisted lists, the storm keys' records and the storm files.
#include <windows.h>

#include <winternl.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "protocol/message_ids.h"
#include "tests/helpers/process.h"
#include "tests/soak/storm.h"

namespace storm {

namespace {

int failure_count = 0;

std::set<std::string> value_names(const char* key) {
    std::vector<std::string> names;
    mcl::mswin::reg::list_values(key, names);
    return std::set<std::string>(names.begin(), names.end());
}

// The key's DACL as SDDL; empty when it cannot be read.
std::string dacl_sddl(const std::string& key) {
    mcl::mswin::security_descriptor sd;
    return mcl::mswin::reg::get_key_dacl_security(HKEY_LOCAL_MACHINE, key, sd) ? sd.dacl_sddl() : std::string();
}

bool holds_bytes(const std::string& path, const std::vector<unsigned char>& want) {
    HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    std::vector<unsigned char> got(want.size() + 1);
    DWORD total = 0, n = 0;
    while (total < got.size() && ReadFile(h, got.data() + total, static_cast<DWORD>(got.size() - total), &n, nullptr) &&
           n > 0)
        total += n;
    CloseHandle(h);
    return total == want.size() && std::memcmp(got.data(), want.data(), want.size()) == 0;
}

}  // namespace

void check(bool ok, const std::string& what) {
    std::printf("check: %s: %s\n", what.c_str(), ok ? "ok" : "FAILED");
    if (!ok) ++failure_count;
}

DWORD service_pid() {
    SERVICE_STATUS_PROCESS status{};
    return mcl::mswin::service::query_status_ex(mcl::mswin::service::default_name, status) ? status.dwProcessId : 0;
}

namespace {

// One system information class into `buffer`, grown until it fits; false when refused.
bool query_system(int information_class, std::vector<unsigned char>& buffer) {
    buffer.resize(1 << 20);
    ULONG needed = 0;
    NTSTATUS status = 0;
    while ((status = NtQuerySystemInformation(static_cast<SYSTEM_INFORMATION_CLASS>(information_class), buffer.data(),
                                              static_cast<ULONG>(buffer.size()), &needed)) ==
               static_cast<NTSTATUS>(0xC0000004) &&  // STATUS_INFO_LENGTH_MISMATCH
           buffer.size() < (256u << 20))
        buffer.resize(buffer.size() * 2);
    return status == 0;
}

// The handles the process holds, counted one by one in the system's handle list (a process's
// HandleCount may report its table's capacity, which only grows); 0 when the list is refused.
DWORD open_handles(DWORD pid) {
    struct entry {
        void* object;
        ULONG_PTR process, handle;
        ULONG access;
        USHORT back_trace, type;
        ULONG attributes, reserved;
    };
    constexpr int extended_handle_information = 64;
    std::vector<unsigned char> buffer;
    if (!query_system(extended_handle_information, buffer) || buffer.size() < 2 * sizeof(ULONG_PTR)) return 0;
    ULONG_PTR count = 0;
    memcpy(&count, buffer.data(), sizeof(count));
    const size_t fits = (buffer.size() - 2 * sizeof(ULONG_PTR)) / sizeof(entry);
    DWORD held = 0;
    for (size_t i = 0; i < count && i < fits; ++i) {
        entry e;
        memcpy(&e, buffer.data() + 2 * sizeof(ULONG_PTR) + i * sizeof(entry), sizeof(e));
        if (e.process == pid) ++held;
    }
    return held;
}

}  // namespace

// From the system's process and handle lists: they also have the figures of processes this one
// may not open.
bool read_usage(DWORD pid, usage& u) {
    std::vector<unsigned char> buffer;
    if (!query_system(SystemProcessInformation, buffer)) return false;
    for (size_t at = 0;;) {
        const auto* p = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(buffer.data() + at);
        if (static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(p->UniqueProcessId)) == pid) {
            const DWORD counted = open_handles(pid);
            u.handles = counted != 0 ? counted : p->HandleCount;
            u.private_bytes = p->PrivatePageCount != 0 ? p->PrivatePageCount : p->VirtualMemoryCounters.PagefileUsage;
            return u.handles != 0 && u.private_bytes != 0;
        }
        if (p->NextEntryOffset == 0) return false;
        at += p->NextEntryOffset;
    }
}

// Read by `nv_storm sample PID` in a process of its own, tried twice: under Wine, reading the
// system's lists while the storm's victims come and go has ended the reading thread (the storm's
// main thread, twice, at the end of its warm-up) and left the process unable to exit.
bool sample(DWORD pid, usage& u) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        nv_test::child reader = nv_test::start("\"" + nv_test::bin_dir() + "nv_storm.exe\" sample " + std::to_string(pid),
                                               /*capture_output=*/true);
        if (!reader.process) continue;
        if (reader.wait(30000) != 0) {  // its one line fits the pipe: read once it has ended
            reader.kill();
            continue;
        }
        unsigned long handles = 0;
        unsigned long long bytes = 0;
        if (std::sscanf(reader.read_output().c_str(), "%lu %llu", &handles, &bytes) != 2) continue;
        u.handles = static_cast<DWORD>(handles);
        u.private_bytes = static_cast<SIZE_T>(bytes);
        return true;
    }
    return false;
}

// Every request the storm sends valid, once more, on a fresh connection.
void check_every_request_answers() {
    std::mt19937 rng(1);
    client_conn conn;
    check(conn.open_patiently(), "a client connects after the storm");
    int missing = 0;
    std::vector<uint32_t> ids = valid_ids();
    ids.insert(ids.end(), {msg::protect_services, msg::protect_reg_keys});
    for (uint32_t id : ids) {
        mcl::binary_t reply;
        if (!conn.request(id, valid_payload(id, 0, rng), reply)) {
            std::printf("no answer to %X\n", id);
            ++missing;
            (void)conn.open();
        }
    }
    check(missing == 0, "every request type is answered after the storm");
}

void check_owned(const owned_state& owned) {
    const std::set<std::string> services = value_names(services_key);
    const std::set<std::string> records = value_names(reg_keys_key);
    int wrong = 0;
    auto expect_listed = [&wrong](const std::string& what, const char* how, bool listed, bool want) {
        if (listed == want) return;
        std::printf("%s: %s %d, want %d\n", what.c_str(), how, listed ? 1 : 0, want ? 1 : 0);
        ++wrong;
    };
    for (const auto& s : owned.services) {
        const std::string name = "nvstorm" + std::to_string(s.first);
        expect_listed("service " + name, "listed", services.count(name) != 0, s.second);
    }
    const std::string reference = dacl_sddl(reference_key);
    int kept = 0;
    for (const auto& k : owned.keys) {
        const bool listed = records.count(record_name(k.first)) != 0;
        // A protect answered 0 because the driver was away keeps its DACL step and its persisted
        // record (applied again at the next start): the key differs from the reference then.
        if (listed && !k.second && !reference.empty()) {
            const std::string sddl = dacl_sddl(storm_key(k.first));
            if (!sddl.empty() && sddl != reference) {
                ++kept;
                continue;
            }
        }
        expect_listed("key " + storm_key(k.first), "recorded", listed, k.second);
    }
    std::printf("owned_services_checked: %zu services\n", owned.services.size());
    std::printf("owned_keys_checked: %zu keys\n", owned.keys.size());
    std::printf("records_left_by_failed_protects: %d keys\n", kept);
    check(wrong == 0, "the persisted services and keys are what the answered requests left");
}

namespace {

int check_keys(int clients) {
    const std::string reference = dacl_sddl(reference_key);
    if (reference.empty()) {
        std::printf("the reference key %s is missing\n", reference_key);
        return 1;
    }
    const std::set<std::string> records = value_names(reg_keys_key);
    int orphans = 0;
    for (int i = 0; i < clients; ++i) {
        // A key unreadable to us is protected: it must be recorded too.
        const std::string sddl = dacl_sddl(storm_key(i));
        if (sddl != reference && records.count(record_name(i)) == 0) {
            std::printf("key %s has DACL %s without a record\n", storm_key(i).c_str(), sddl.c_str());
            ++orphans;
        }
    }
    // And every record holds an original DACL.
    int empty = 0;
    for (const std::string& name : records) {
        mcl::binary_t record;
        uint32_t pos = 0;
        std::string original;
        if (!mcl::mswin::reg::read_value(reg_keys_key, name.c_str(), record) || !mcl::read_string(original, record, pos) ||
            original.empty())
            ++empty;
    }
    return orphans + empty;
}

// Clients may be moving files meanwhile (an archive is in place before its source goes, a
// restored file before its archive goes): a file found in neither form is looked for again,
// archives first, a few times before it counts.
int check_files(int clients) {
    client_conn conn;
    if (!conn.open_patiently()) {
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
            (void)conn.open_patiently();
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

}  // namespace

int final_checks(int clients) {
    check(check_keys(clients) == 0, "no protected storm key without the record of its original DACL");
    check(check_files(clients) == 0, "every storm file is at its place or quarantined, never neither");
    return failure_count == 0 ? 0 : 1;
}

}  // namespace storm
