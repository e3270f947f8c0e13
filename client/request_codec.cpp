#include "client/request_codec.h"

#include <cstdint>

#include "mcl/encoding.h"
#include "mcl/mswin/text.h"

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
    mcl::write_string(out, name);
    return true;
}

bool encode_path(mcl::binary_t& out, const std::string& path, result* r) {
    input_check check;
    check.path(path, "Path");
    if (check.refuse(r)) return false;
    mcl::write_string(out, path);
    return true;
}

bool encode_process_path(mcl::binary_t& out, bool protect, const std::string& image_path, result* r) {
    input_check check;
    check.path(image_path, "Image path");
    if (check.refuse(r)) return false;
    mcl::write_u32(out, 1);
    mcl::write_byte(out, protect ? 1 : 0);
    mcl::write_wstring(out, mcl::mswin::widen(image_path));
    return true;
}

bool encode_service_rules(mcl::binary_t& out, const std::vector<NVClientHelper::service_rule>& rules, result* r) {
    input_check check;
    check.count(rules.size(), "Service rule");
    for (const auto& rule : rules) check.name(rule.name, "Service name");
    if (check.refuse(r)) return false;
    mcl::write_list(out, rules, [](mcl::binary_t& o, const NVClientHelper::service_rule& rule) {
        mcl::write_byte(o, rule.protect_service ? 1 : 0);
        mcl::write_byte(o, rule.protect_process ? 1 : 0);
        mcl::write_string(o, rule.name);
    });
    return true;
}

bool encode_process_rules(mcl::binary_t& out, const std::vector<NVClientHelper::process_rule>& rules, result* r) {
    input_check check;
    check.count(rules.size(), "Process rule");
    for (const auto& rule : rules) check.wtext(rule.image_path, NVClientHelper::max_path_chars, "Image path");
    if (check.refuse(r)) return false;
    mcl::write_list(out, rules, [](mcl::binary_t& o, const NVClientHelper::process_rule& rule) {
        mcl::write_byte(o, rule.protect ? 1 : 0);
        mcl::write_wstring(o, rule.image_path);
    });
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
    mcl::write_list(out, rules, [](mcl::binary_t& o, const NVClientHelper::reg_key_rule& rule) {
        mcl::write_byte(o, rule.protect ? 1 : 0);
        mcl::write_u64(o, root_value(rule.root));
        mcl::write_wstring(o, rule.path);
        mcl::write_string(o, rule.owner);
        mcl::write_string_list(o, rule.services);
        mcl::write_u32(o, rule.level);
    });
    return true;
}

bool read_service_infos(std::vector<NVClientHelper::protected_service_info>& out, const mcl::binary_t& in,
                        uint32_t& pos) {
    return mcl::read_list(out, in, pos, [](NVClientHelper::protected_service_info& e, const mcl::binary_t& b, uint32_t& p) {
        return mcl::read_bool(e.valid, b, p) && mcl::read_bool(e.process_protected, b, p) &&
               mcl::read_string(e.service_sddl, b, p) && mcl::read_string(e.folder_sddl, b, p) &&
               mcl::read_string(e.name, b, p) && mcl::read_string(e.sid, b, p) && mcl::read_wstring(e.image_path, b, p) &&
               mcl::read_wstring(e.folder, b, p);
    });
}

bool read_process_infos(std::vector<NVClientHelper::protected_process_info>& out, const mcl::binary_t& in,
                        uint32_t& pos) {
    return mcl::read_list(out, in, pos, [](NVClientHelper::protected_process_info& e, const mcl::binary_t& b, uint32_t& p) {
        return mcl::read_bool(e.valid, b, p) && mcl::read_string(e.folder_sddl, b, p) &&
               mcl::read_wstring(e.image_path, b, p) && mcl::read_wstring(e.folder, b, p);
    });
}

bool read_reg_key_infos(std::vector<NVClientHelper::protected_reg_key_info>& out, const mcl::binary_t& in,
                        uint32_t& pos) {
    return mcl::read_list(out, in, pos, [](NVClientHelper::protected_reg_key_info& e, const mcl::binary_t& b, uint32_t& p) {
        return mcl::read_bool(e.valid, b, p) && mcl::read_string(e.original_sddl, b, p) &&
               mcl::read_string(e.current_sddl, b, p) && mcl::read_u64(e.root, b, p) && mcl::read_wstring(e.path, b, p) &&
               mcl::read_string(e.owner, b, p) && mcl::read_string_list(e.services, b, p);
    });
}

bool read_quarantined_files(std::vector<NVClientHelper::quarantined_file>& out, const mcl::binary_t& in,
                            uint32_t& pos) {
    return mcl::read_list(out, in, pos, [](NVClientHelper::quarantined_file& e, const mcl::binary_t& b, uint32_t& p) {
        return mcl::read_string(e.archive_name, b, p) && mcl::read_string(e.recorded_path, b, p);
    });
}

bool read_notifications(std::vector<NVClientHelper::notification_data>& out, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_list(out, in, pos, [](NVClientHelper::notification_data& e, const mcl::binary_t& b, uint32_t& p) {
        return mcl::read_u64(e.sequence, b, p) && mcl::read_u64(e.time, b, p) && mcl::read_string(e.file_path, b, p) &&
               mcl::read_byte(e.major_function, b, p) && mcl::read_byte(e.minor_function, b, p) &&
               mcl::read_u64(e.process_id, b, p) && mcl::read_string(e.process_image, b, p) &&
               mcl::read_string(e.process_description, b, p) && mcl::read_u32(e.irp_denied, b, p);
    });
}

}  // namespace nvclient_codec
