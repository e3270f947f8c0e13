#include "service/request_payloads.h"

#include "mcl/encoding.h"

namespace request_payload {

namespace {

bool read_service_rule(service_rule& rule, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(rule.protectService, in, pos) && mcl::read_bool(rule.protectProcess, in, pos) &&
           mcl::read_string(rule.name, in, pos);
}

bool read_process_rule(process_rule& rule, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(rule.protect, in, pos) && mcl::read_wstring(rule.imagePath, in, pos);
}

// A string field with its own bound: `oversized` rather than reading on past the bound.
irp::request_check read_bounded(std::string& value, size_t max_bytes, const mcl::binary_t& in, uint32_t& pos) {
    if (!mcl::read_string(value, in, pos)) return irp::request_check::truncated;
    return value.size() > max_bytes ? irp::request_check::oversized : irp::request_check::ok;
}

}  // namespace

bool read_protect_services(const mcl::binary_t& payload, std::vector<service_rule>& rules) {
    uint32_t pos = 0;
    return mcl::read_list(rules, payload, pos, read_service_rule);
}

bool read_protect_processes(const mcl::binary_t& payload, std::vector<process_rule>& rules) {
    uint32_t pos = 0;
    return mcl::read_list(rules, payload, pos, read_process_rule);
}

bool read_protection_switch(const mcl::binary_t& payload, bool& on) {
    if (payload.size() < 1) return false;
    on = payload.data()[0] != 0;
    return true;
}

bool read_protocol_compatible(const mcl::binary_t& payload) { return payload.size() >= 4; }

bool read_reg_key_entry(reg_key_entry& entry, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_byte(entry.action, in, pos) && mcl::read_u64(entry.root, in, pos) &&
           mcl::read_wstring(entry.path, in, pos) && mcl::read_string(entry.owner, in, pos) &&
           mcl::read_string_list(entry.services, in, pos) && mcl::read_u32(entry.level, in, pos);
}

void write_reg_key_entry(mcl::binary_t& out, const reg_key_entry& entry) {
    mcl::write_byte(out, entry.action);
    mcl::write_u64(out, entry.root);
    mcl::write_wstring(out, entry.path);
    mcl::write_string(out, entry.owner);
    mcl::write_string_list(out, entry.services);
    mcl::write_u32(out, entry.level);
}

bool read_protect_reg_keys(const mcl::binary_t& payload, std::vector<reg_key_entry>& entries) {
    uint32_t pos = 0;
    return mcl::read_list(entries, payload, pos, read_reg_key_entry);
}

bool read_start_service(const mcl::binary_t& payload, std::string& name, std::vector<std::string>& args) {
    uint32_t pos = 0;
    return !payload.empty() && mcl::read_string(name, payload, pos) && mcl::read_string_list(args, payload, pos) &&
           !name.empty();
}

bool read_name(const mcl::binary_t& payload, std::string& name) {
    uint32_t pos = 0;
    return !payload.empty() && mcl::read_string(name, payload, pos) && !name.empty();
}

bool read_restore_driver_protection(const mcl::binary_t& payload) { return !payload.empty(); }

irp::request_check read_subscribe_irp_notification(const mcl::binary_t& payload, irp::subscribe_request& out) {
    out = irp::subscribe_request{};
    if (payload.size() > irp::max_subscribe_payload) return irp::request_check::oversized;
    uint32_t pos = 0;
    uint8_t unsubscribe = 0;
    if (!mcl::read_byte(unsubscribe, payload, pos)) return irp::request_check::truncated;
    out.unsubscribe = unsubscribe != 0;
    irp::request_check c = read_bounded(out.subscriber, irp::max_name_bytes, payload, pos);
    if (c == irp::request_check::ok) c = read_bounded(out.event_name, irp::max_name_bytes, payload, pos);
    if (c == irp::request_check::ok) c = read_bounded(out.file_path, irp::max_path_bytes, payload, pos);
    if (c != irp::request_check::ok) return c;
    if (!mcl::read_byte(out.what.major_function, payload, pos) || !mcl::read_byte(out.what.minor_function, payload, pos) ||
        !mcl::read_u32(out.what.type, payload, pos))
        return irp::request_check::truncated;
    return pos == payload.size() ? irp::request_check::ok : irp::request_check::oversized;
}

irp::request_check read_query_irp_notification_data(const mcl::binary_t& payload, std::string& subscriber) {
    subscriber.clear();
    if (payload.size() > irp::max_query_payload) return irp::request_check::oversized;
    uint32_t pos = 0;
    const irp::request_check c = read_bounded(subscriber, irp::max_name_bytes, payload, pos);
    if (c != irp::request_check::ok) return c;
    return pos == payload.size() ? irp::request_check::ok : irp::request_check::oversized;
}

}  // namespace request_payload
