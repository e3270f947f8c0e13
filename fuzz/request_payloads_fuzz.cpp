// Every request payload the service reads, fed what the fuzzer makes of a valid payload of
// that request (the corpus holds one per request) and the shorter payloads cut from it. The
// first input byte picks the request, the rest is the payload. What a reader accepts must
// come out the same after writing it again and reading that.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "service/irp_tables.h"
#include "service/request_payloads.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

bool same(const service_rule& a, const service_rule& b) {
    return a.protectService == b.protectService && a.protectProcess == b.protectProcess && a.name == b.name;
}
bool same(const process_rule& a, const process_rule& b) { return a.protect == b.protect && a.imagePath == b.imagePath; }
bool same(const reg_key_entry& a, const reg_key_entry& b) {
    return a.action == b.action && a.root == b.root && a.path == b.path && a.owner == b.owner &&
           a.services == b.services && a.level == b.level;
}
template <typename T>
bool same(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (!same(a[i], b[i])) return false;
    return true;
}

void protect_services(const mcl::binary_t& payload) {
    std::vector<service_rule> rules;
    if (!request_payload::read_protect_services(payload, rules)) return;
    mcl::binary_t again;
    mcl::write_list(again, rules, [](mcl::binary_t& out, const service_rule& r) {
        mcl::write_byte(out, r.protectService ? 1 : 0);
        mcl::write_byte(out, r.protectProcess ? 1 : 0);
        mcl::write_string(out, r.name);
    });
    std::vector<service_rule> reread;
    check(request_payload::read_protect_services(again, reread) && same(rules, reread));
}

void protect_processes(const mcl::binary_t& payload) {
    std::vector<process_rule> rules;
    if (!request_payload::read_protect_processes(payload, rules)) return;
    mcl::binary_t again;
    mcl::write_list(again, rules, [](mcl::binary_t& out, const process_rule& r) {
        mcl::write_byte(out, r.protect ? 1 : 0);
        mcl::write_wstring(out, r.imagePath);
    });
    std::vector<process_rule> reread;
    check(request_payload::read_protect_processes(again, reread) && same(rules, reread));
}

void protect_reg_keys(const mcl::binary_t& payload) {
    std::vector<reg_key_entry> entries;
    if (!request_payload::read_protect_reg_keys(payload, entries)) return;
    mcl::binary_t again;
    mcl::write_list(again, entries, request_payload::write_reg_key_entry);
    std::vector<reg_key_entry> reread;
    check(request_payload::read_protect_reg_keys(again, reread) && same(entries, reread));
}

void protection_switch(const mcl::binary_t& payload) {
    bool on = false;
    check(request_payload::read_protection_switch(payload, on) == !payload.empty());
}

void protocol_compatible(const mcl::binary_t& payload) {
    check(request_payload::read_protocol_compatible(payload) == (payload.size() >= 4));
}

void start_service(const mcl::binary_t& payload) {
    std::string name;
    std::vector<std::string> args;
    if (!request_payload::read_start_service(payload, name, args)) return;
    check(!name.empty());
    mcl::binary_t again;
    mcl::write_string(again, name);
    mcl::write_string_list(again, args);
    std::string name2;
    std::vector<std::string> args2;
    check(request_payload::read_start_service(again, name2, args2) && name2 == name && args2 == args);
}

void name(const mcl::binary_t& payload) {
    std::string text;
    if (!request_payload::read_name(payload, text)) return;
    check(!text.empty() && text.size() < payload.size());
}

void restore_driver_protection(const mcl::binary_t& payload) {
    check(request_payload::read_restore_driver_protection(payload) == !payload.empty());
}

void subscribe_irp_notification(const mcl::binary_t& payload) {
    irp::subscribe_request request;
    (void)request_payload::read_subscribe_irp_notification(payload, request);
}

void query_irp_notification_data(const mcl::binary_t& payload) {
    std::string subscriber;
    (void)request_payload::read_query_irp_notification_data(payload, subscriber);
}

// In the order of the first byte of the corpus files.
void (*const readers[])(const mcl::binary_t&) = {
    protect_services,         // 0: 0x1000002
    protect_processes,        // 1: 0x1000003
    protection_switch,        // 2: 0x1000008
    protocol_compatible,      // 3: 0x1000009
    protect_reg_keys,         // 4: 0x100000b
    start_service,            // 5: 0x1000065
    name,                     // 6: 0x1000066, 0x1000067, 0x1000069
    restore_driver_protection,  // 7: 0x1000068
    subscribe_irp_notification,  // 8: 0x10000fa
    query_irp_notification_data,  // 9: 0x10000fb
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > UINT32_MAX) return 0;
    const auto read = readers[data[0] % (sizeof(readers) / sizeof(readers[0]))];
    const mcl::binary_t payload(data + 1, static_cast<uint32_t>(size - 1));
    read(payload);
    // Payloads cut short: every field boundary of a small payload, halvings of a large one.
    const uint32_t n = payload.size();
    for (uint32_t cut = n; cut-- > 0;) {
        if (n > 64 && cut != n - 1 && cut != n / 2 && cut != n / 4) continue;
        read(mcl::binary_t(payload.data(), cut));
    }
    return 0;
}
