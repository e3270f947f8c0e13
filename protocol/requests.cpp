#include "protocol/requests.h"

#include "mcl/encoding.h"

namespace protocol {

namespace {

bool read_service_rule(service_rule& rule, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(rule.protectService, in, pos) && mcl::read_bool(rule.protectProcess, in, pos) &&
           mcl::read_string(rule.name, in, pos);
}

bool read_process_rule(process_rule& rule, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(rule.protect, in, pos) && mcl::read_wstring(rule.imagePath, in, pos);
}

bool read_reg_key_entry(reg_key_entry& entry, const mcl::binary_t& in, uint32_t& pos) { return decode(in, pos, entry); }

// A string field with its own bound: `oversized` rather than reading on past the bound.
request_check read_bounded(std::string& value, size_t max_bytes, const mcl::binary_t& in, uint32_t& pos) {
    if (!mcl::read_string(value, in, pos)) return request_check::truncated;
    return value.size() > max_bytes ? request_check::oversized : request_check::ok;
}

}  // namespace

// ---- encoders

void encode(mcl::binary_t&, const no_fields&) {}

void encode(mcl::binary_t& out, const protect_services_request& request) {
    mcl::write_list(out, request.rules, [](mcl::binary_t& o, const service_rule& rule) {
        mcl::write_byte(o, rule.protectService ? 1 : 0);
        mcl::write_byte(o, rule.protectProcess ? 1 : 0);
        mcl::write_string(o, rule.name);
    });
}

void encode(mcl::binary_t& out, const protect_processes_request& request) {
    mcl::write_list(out, request.rules, [](mcl::binary_t& o, const process_rule& rule) {
        mcl::write_byte(o, rule.protect ? 1 : 0);
        mcl::write_wstring(o, rule.imagePath);
    });
}

void encode(mcl::binary_t& out, const reg_key_entry& entry) {
    mcl::write_byte(out, entry.action);
    mcl::write_u64(out, entry.root);
    mcl::write_wstring(out, entry.path);
    mcl::write_string(out, entry.owner);
    mcl::write_string_list(out, entry.services);
    mcl::write_u32(out, entry.level);
}

void encode(mcl::binary_t& out, const protect_reg_keys_request& request) {
    mcl::write_list(out, request.entries, [](mcl::binary_t& o, const reg_key_entry& entry) { encode(o, entry); });
}

void encode(mcl::binary_t& out, const protection_switch_request& request) { mcl::write_byte(out, request.on ? 1 : 0); }

void encode(mcl::binary_t& out, const compatibility_request& request) { mcl::write_u32(out, request.version); }

void encode(mcl::binary_t& out, const start_service_request& request) {
    mcl::write_string(out, request.name);
    mcl::write_string_list(out, request.arguments);
}

void encode(mcl::binary_t& out, const name_request& request) { mcl::write_string(out, request.name); }

void encode(mcl::binary_t& out, const restore_driver_request& request) { mcl::write_byte(out, request.flag ? 1 : 0); }

void encode(mcl::binary_t& out, const create_container_request& request) {
    mcl::write_string(out, request.path);
    mcl::write_string_list(out, request.services);
}

void encode(mcl::binary_t& out, const quarantine_files_request& request) {
    mcl::write_u32(out, request.action);
    mcl::write_string(out, request.container);
    mcl::write_string_list(out, request.paths);
}

void encode(mcl::binary_t& out, const remove_container_request& request) {
    mcl::write_u32(out, request.action);
    mcl::write_string(out, request.path);
}

void encode(mcl::binary_t& out, const block_files_request& request) {
    mcl::write_u32(out, request.action);
    mcl::write_string_list(out, request.services);
    mcl::write_string_list(out, request.paths);
}

void encode(mcl::binary_t& out, const subscribe_request& request) {
    mcl::write_byte(out, request.unsubscribe ? 1 : 0);
    mcl::write_string(out, request.subscriber);
    mcl::write_string(out, request.event_name);
    mcl::write_string(out, request.file_path);
    mcl::write_byte(out, request.major_function);
    mcl::write_byte(out, request.minor_function);
    mcl::write_u32(out, request.type);
}

void encode(mcl::binary_t& out, const notification_query_request& request) {
    mcl::write_string(out, request.subscriber);
}

// ---- decoders

bool decode(const mcl::binary_t&, no_fields&) { return true; }

bool decode(const mcl::binary_t& in, protect_services_request& request) {
    uint32_t pos = 0;
    return mcl::read_list(request.rules, in, pos, read_service_rule);
}

bool decode(const mcl::binary_t& in, protect_processes_request& request) {
    uint32_t pos = 0;
    return mcl::read_list(request.rules, in, pos, read_process_rule);
}

bool decode(const mcl::binary_t& in, uint32_t& pos, reg_key_entry& entry) {
    return mcl::read_byte(entry.action, in, pos) && mcl::read_u64(entry.root, in, pos) &&
           mcl::read_wstring(entry.path, in, pos) && mcl::read_string(entry.owner, in, pos) &&
           mcl::read_string_list(entry.services, in, pos) && mcl::read_u32(entry.level, in, pos);
}

bool decode(const mcl::binary_t& in, protect_reg_keys_request& request) {
    uint32_t pos = 0;
    return mcl::read_list(request.entries, in, pos, read_reg_key_entry);
}

bool decode(const mcl::binary_t& in, protection_switch_request& request) {
    uint32_t pos = 0;
    return mcl::read_bool(request.on, in, pos);
}

bool decode(const mcl::binary_t& in, compatibility_request& request) {
    uint32_t pos = 0;
    return mcl::read_u32(request.version, in, pos);
}

bool decode(const mcl::binary_t& in, start_service_request& request) {
    uint32_t pos = 0;
    return mcl::read_string(request.name, in, pos) && mcl::read_string_list(request.arguments, in, pos) &&
           !request.name.empty();
}

bool decode(const mcl::binary_t& in, name_request& request) {
    uint32_t pos = 0;
    return mcl::read_string(request.name, in, pos) && !request.name.empty();
}

bool decode(const mcl::binary_t& in, restore_driver_request& request) {
    uint32_t pos = 0;
    return mcl::read_bool(request.flag, in, pos);
}

bool decode(const mcl::binary_t& in, create_container_request& request) {
    uint32_t pos = 0;
    return mcl::read_string(request.path, in, pos) && mcl::read_string_list(request.services, in, pos);
}

bool decode(const mcl::binary_t& in, quarantine_files_request& request) {
    uint32_t pos = 0;
    return mcl::read_u32(request.action, in, pos) && mcl::read_string(request.container, in, pos) &&
           mcl::read_string_list(request.paths, in, pos);
}

bool decode(const mcl::binary_t& in, remove_container_request& request) {
    uint32_t pos = 0;
    return mcl::read_u32(request.action, in, pos) && mcl::read_string(request.path, in, pos);
}

bool decode(const mcl::binary_t& in, block_files_request& request) {
    uint32_t pos = 0;
    return mcl::read_u32(request.action, in, pos) && mcl::read_string_list(request.services, in, pos) &&
           mcl::read_string_list(request.paths, in, pos);
}

request_check decode(const mcl::binary_t& in, subscribe_request& request) {
    request = subscribe_request{};
    if (in.size() > max_subscribe_payload) return request_check::oversized;
    uint32_t pos = 0;
    if (!mcl::read_bool(request.unsubscribe, in, pos)) return request_check::truncated;
    request_check c = read_bounded(request.subscriber, max_name_bytes, in, pos);
    if (c == request_check::ok) c = read_bounded(request.event_name, max_name_bytes, in, pos);
    if (c == request_check::ok) c = read_bounded(request.file_path, max_path_bytes, in, pos);
    if (c != request_check::ok) return c;
    if (!mcl::read_byte(request.major_function, in, pos) || !mcl::read_byte(request.minor_function, in, pos) ||
        !mcl::read_u32(request.type, in, pos))
        return request_check::truncated;
    return pos == in.size() ? request_check::ok : request_check::oversized;
}

request_check decode(const mcl::binary_t& in, notification_query_request& request) {
    request.subscriber.clear();
    if (in.size() > max_query_payload) return request_check::oversized;
    uint32_t pos = 0;
    const request_check c = read_bounded(request.subscriber, max_name_bytes, in, pos);
    if (c != request_check::ok) return c;
    return pos == in.size() ? request_check::ok : request_check::oversized;
}

}  // namespace protocol
