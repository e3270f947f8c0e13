#include "tools/driver_sim/driver_state.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/driver_sim/json_writer.h"

namespace vqr::sim {

namespace {

bool same_path(const std::wstring& a, const std::wstring& b) {
    auto lower = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c; };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [&](wchar_t x, wchar_t y) { return lower(x) == lower(y); });
}

void add_rule(std::vector<std::wstring>& list, const std::wstring& path) {
    if (path.empty()) return;
    for (const auto& p : list)
        if (same_path(p, path)) return;
    list.push_back(path);
}

void remove_rule(std::vector<std::wstring>& list, const std::wstring& path, bool empty_removes_all) {
    if (path.empty()) {
        if (empty_removes_all) list.clear();
        return;
    }
    list.erase(std::remove_if(list.begin(), list.end(), [&](const std::wstring& p) { return same_path(p, path); }),
               list.end());
}

std::string hr_text(int32_t hr) {
    char text[16];
    snprintf(text, sizeof text, "0x%08" PRIX32, static_cast<uint32_t>(hr));
    return text;
}

void append_list(std::string& out, const char* name, const std::vector<std::wstring>& list) {
    out += ",\"";
    out += name;
    out += "\":[";
    for (size_t i = 0; i < list.size(); ++i) {
        if (i) out += ",";
        append_json_string(out, list[i]);
    }
    out += "]";
}

const uint32_t feature_codes[] = {code::feature_process_protection, code::feature_skip_first_svcmgr_open,
                                  code::feature_folder_protection, code::feature_registry_protection,
                                  code::feature_irp_notify};

}  // namespace

int32_t driver_state::handle_message(uint64_t connection, port_kind port, const uint8_t* data, size_t size) {
    journal_entry entry{journal_.size() + 1, connection, port, message_check::ok, {}, {data, data + size}, hr_ok};
    entry.check = parse_message(data, size, entry.message);
    // The notification port takes no commands.
    if (entry.check != message_check::ok || port != port_kind::command) {
        entry.hr = hr_invalid_parameter;
        ++malformed_;
    } else {
        apply(entry.message);
    }
    const int32_t hr = entry.hr;
    journal_.push_back(std::move(entry));
    return hr;
}

void driver_state::apply(const driver_message& m) {
    if (m.feature) {
        features_[m.code] = m.on;
        return;
    }
    if (m.code == code::svcmgr_path) {
        svc_mgr_path_ = m.text;
        return;
    }
    struct rule_action {
        uint32_t code;
        std::vector<std::wstring> driver_state::*list;
        bool add;
    };
    static const rule_action actions[] = {
        {code::protect_process, &driver_state::process_rules_, true},
        {code::unprotect_process, &driver_state::process_rules_, false},
        {code::trusted_app, &driver_state::trusted_apps_, true},
        {code::protect_folder, &driver_state::folder_rules_, true},
        {code::unprotect_folder, &driver_state::folder_rules_, false},
        {code::block_path, &driver_state::blocking_rules_, true},
        {code::unblock_path, &driver_state::blocking_rules_, false},
        {code::protect_regkey, &driver_state::registry_rules_, true},
        {code::unprotect_regkey, &driver_state::registry_rules_, false},
    };
    for (const auto& a : actions) {
        if (a.code != m.code) continue;
        if (a.add) {
            add_rule(this->*a.list, m.text);
        } else {
            remove_rule(this->*a.list, m.text, is_remove_all_code(m.code));
        }
        return;
    }
}

int32_t driver_state::attach(const std::wstring& filter, const std::wstring& volume, const std::wstring& instance,
                             std::wstring& created_instance) {
    created_instance.clear();
    int32_t hr = hr_ok;
    const std::wstring name = instance.empty() ? default_instance_name : instance;
    if (!loaded_ || !same_path(filter, filter_name)) {
        hr = hr_filter_not_found;
    } else {
        volumes_[volume] = name;
        created_instance = name;
    }
    filter_calls_.push_back({"attach", volume, name, hr});
    return hr;
}

int32_t driver_state::detach(const std::wstring& filter, const std::wstring& volume, const std::wstring& instance) {
    int32_t hr = hr_ok;
    auto it = volumes_.find(volume);
    if (!loaded_ || !same_path(filter, filter_name)) {
        hr = hr_filter_not_found;
    } else if (it == volumes_.end() || (!instance.empty() && !same_path(instance, it->second))) {
        hr = hr_instance_not_found;
    } else {
        volumes_.erase(it);
    }
    filter_calls_.push_back({"detach", volume, instance, hr});
    return hr;
}

int32_t driver_state::load(const std::wstring& filter) {
    int32_t hr = hr_ok;
    if (!same_path(filter, filter_name)) {
        hr = hr_not_found;
    } else if (loaded_) {
        hr = hr_already_loaded;
    } else {
        set_loaded(true);
    }
    filter_calls_.push_back({"load", {}, {}, hr});
    return hr;
}

int32_t driver_state::unload(const std::wstring& filter) {
    int32_t hr = hr_ok;
    if (!same_path(filter, filter_name) || !loaded_) {
        hr = hr_filter_not_found;
    } else {
        set_loaded(false);
    }
    filter_calls_.push_back({"unload", {}, {}, hr});
    return hr;
}

void driver_state::set_loaded(bool loaded) {
    if (loaded_ && !loaded) forget_rules();
    loaded_ = loaded;
}

void driver_state::forget_rules() {
    features_.clear();
    for (const uint32_t f : feature_codes) features_[f] = false;
    process_rules_.clear();
    trusted_apps_.clear();
    folder_rules_.clear();
    blocking_rules_.clear();
    registry_rules_.clear();
    svc_mgr_path_.clear();
    volumes_.clear();
}

void driver_state::reset() {
    forget_rules();
    loaded_ = true;
    journal_.clear();
    filter_calls_.clear();
    malformed_ = 0;
    notifications_sent_ = 0;
}

bool driver_state::feature(uint32_t c) const {
    auto it = features_.find(c);
    return it != features_.end() && it->second;
}

std::string driver_state::state_json(size_t command_connections, size_t notify_connections) const {
    std::string out = "{\"loaded\":";
    out += loaded_ ? "true" : "false";
    out += ",\"features\":{";
    bool first = true;
    for (const auto& [c, on] : features_) {
        if (!first) out += ",";
        first = false;
        out += "\"" + std::to_string(c) + "\":" + (on ? "true" : "false");
    }
    out += "}";
    append_list(out, "process_rules", process_rules_);
    append_list(out, "trusted_apps", trusted_apps_);
    append_list(out, "folder_rules", folder_rules_);
    append_list(out, "blocking_rules", blocking_rules_);
    append_list(out, "registry_rules", registry_rules_);
    out += ",\"svc_mgr_path\":";
    append_json_string(out, svc_mgr_path_);
    out += ",\"volumes\":[";
    first = true;
    for (const auto& [volume, instance] : volumes_) {
        if (!first) out += ",";
        first = false;
        out += "{\"volume\":";
        append_json_string(out, volume);
        out += ",\"instance\":";
        append_json_string(out, instance);
        out += "}";
    }
    out += "],\"filter_calls\":[";
    for (size_t i = 0; i < filter_calls_.size(); ++i) {
        const auto& c = filter_calls_[i];
        if (i) out += ",";
        out += "{\"call\":\"" + c.call + "\",\"volume\":";
        append_json_string(out, c.volume);
        out += ",\"instance\":";
        append_json_string(out, c.instance);
        out += ",\"hr\":\"" + hr_text(c.hr) + "\"}";
    }
    out += "],\"connections\":{\"command\":" + std::to_string(command_connections) +
           ",\"notify\":" + std::to_string(notify_connections) + "}";
    out += ",\"messages\":" + std::to_string(journal_.size());
    out += ",\"malformed\":" + std::to_string(malformed_);
    out += ",\"notifications_sent\":" + std::to_string(notifications_sent_);
    out += "}";
    return out;
}

std::string driver_state::journal_json() const {
    std::string out = "[";
    for (size_t i = 0; i < journal_.size(); ++i) {
        const auto& e = journal_[i];
        if (i) out += ",\n";
        out += "{\"seq\":" + std::to_string(e.sequence) + ",\"connection\":" + std::to_string(e.connection);
        out += std::string(",\"port\":\"") + (e.port == port_kind::command ? "command" : "notify") + "\"";
        out += ",\"size\":" + std::to_string(e.bytes.size());
        out += ",\"code\":";
        out += e.bytes.size() >= message_header_size ? std::to_string(e.message.code) : "null";
        out += ",\"kind\":\"";
        out += e.check == message_check::too_short || e.check == message_check::unknown_code ? "unknown"
               : e.message.feature                                                             ? "feature"
                                                                                               : "command";
        out += "\"";
        if (e.check == message_check::ok && e.message.feature) out += std::string(",\"on\":") + (e.message.on ? "true" : "false");
        if (e.check == message_check::ok && !e.message.feature) {
            out += ",\"text\":";
            append_json_string(out, e.message.text);
        }
        out += std::string(",\"check\":\"") + message_check_name(e.check) + "\"";
        out += ",\"hr\":\"" + hr_text(e.hr) + "\"";
        out += ",\"bytes\":\"" + hex_bytes(e.bytes.data(), e.bytes.size()) + "\"}";
    }
    out += "]";
    return out;
}

}  // namespace vqr::sim
