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

}  // namespace request_payload
