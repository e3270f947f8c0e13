#include "client/request_codec.h"

#include <cstdint>

#include "mcl/mswin/text.h"
#include "protocol/requests.h"

using NVClientHelper::result;

namespace nvclient_codec {

namespace {

template <typename Text>
void check_text(std::string& reason, const Text& value, size_t max_chars, const char* what) {
    if (!reason.empty()) return;
    if (value.size() > max_chars) {
        reason = std::string(what) + " is too long: " + std::to_string(value.size()) + " characters, at most " +
                 std::to_string(max_chars) + ".";
    } else if (value.find(typename Text::value_type(0)) != Text::npos) {
        reason = std::string(what) + " contains a zero character.";
    }
}

}  // namespace

void input_check::text(const std::string& value, size_t max_chars, const char* what) {
    check_text(reason_, value, max_chars, what);
}

void input_check::wtext(const std::wstring& value, size_t max_chars, const char* what) {
    check_text(reason_, value, max_chars, what);
}

void input_check::count(size_t entries, const char* what) {
    if (!reason_.empty() || entries <= NVClientHelper::max_list_entries) return;
    reason_ = std::string(what) + " list is too long: " + std::to_string(entries) + " entries, at most " +
              std::to_string(NVClientHelper::max_list_entries) + ".";
}

void input_check::list(const std::vector<std::string>& values, size_t max_chars, const char* what) {
    count(values.size(), what);
    for (const std::string& v : values) text(v, max_chars, what);
}

bool input_check::refuse(result* r) const {
    if (reason_.empty()) return false;
    if (r != nullptr) {
        r->ok = 0;
        r->message = reason_;
    }
    return true;
}

bool encode_name(mcl::binary_t& out, const std::string& name, result* r) {
    input_check check;
    check.name(name, "Name");
    if (check.refuse(r)) return false;
    protocol::encode(out, protocol::name_request{name});
    return true;
}

bool encode_path(mcl::binary_t& out, const std::string& path, result* r) {
    input_check check;
    check.path(path, "Path");
    if (check.refuse(r)) return false;
    protocol::encode(out, protocol::name_request{path});
    return true;
}

bool encode_process_path(mcl::binary_t& out, bool protect, const std::string& image_path, result* r) {
    input_check check;
    check.path(image_path, "Image path");
    if (check.refuse(r)) return false;
    protocol::protect_processes_request request;
    request.rules.push_back(protocol::process_rule{protect, mcl::mswin::widen(image_path)});
    protocol::encode(out, request);
    return true;
}

bool encode_service_rules(mcl::binary_t& out, const std::vector<NVClientHelper::service_rule>& rules, result* r) {
    input_check check;
    check.count(rules.size(), "Service rule");
    for (const auto& rule : rules) check.name(rule.name, "Service name");
    if (check.refuse(r)) return false;
    protocol::protect_services_request request;
    for (const auto& rule : rules)
        request.rules.push_back(protocol::service_rule{rule.protect_service, rule.protect_process, rule.name});
    protocol::encode(out, request);
    return true;
}

bool encode_process_rules(mcl::binary_t& out, const std::vector<NVClientHelper::process_rule>& rules, result* r) {
    input_check check;
    check.count(rules.size(), "Process rule");
    for (const auto& rule : rules) check.wtext(rule.image_path, NVClientHelper::max_path_chars, "Image path");
    if (check.refuse(r)) return false;
    protocol::protect_processes_request request;
    for (const auto& rule : rules) request.rules.push_back(protocol::process_rule{rule.protect, rule.image_path});
    protocol::encode(out, request);
    return true;
}

uint64_t root_value(HKEY root) {
    // Through a signed integer of the pointer's width: a 32-bit HKEY_LOCAL_MACHINE (0x80000002)
    // widens to 0xFFFFFFFF80000002, as on 64-bit Windows.
    return static_cast<uint64_t>(static_cast<int64_t>(reinterpret_cast<intptr_t>(root)));
}

bool encode_reg_key_rules(mcl::binary_t& out, const std::vector<NVClientHelper::reg_key_rule>& rules, result* r) {
    input_check check;
    check.count(rules.size(), "Registry key rule");
    for (const auto& rule : rules) {
        check.wtext(rule.path, NVClientHelper::max_key_path_chars, "Registry key path");
        check.name(rule.owner, "Owner service name");
        check.list(rule.services, NVClientHelper::max_name_chars, "Service name");
    }
    if (check.refuse(r)) return false;
    protocol::protect_reg_keys_request request;
    for (const auto& rule : rules) {
        request.entries.push_back(protocol::reg_key_entry{static_cast<uint8_t>(rule.protect ? 1 : 0), root_value(rule.root),
                                                          rule.path, rule.owner, rule.services, rule.level});
    }
    protocol::encode(out, request);
    return true;
}

}  // namespace nvclient_codec
