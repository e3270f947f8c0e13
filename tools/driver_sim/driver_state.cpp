#include "tools/driver_sim/driver_state.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/driver_sim/json_writer.h"

namespace vqr::sim {

namespace {

// Filter names compare as Windows compares service names: without case.
bool same_name(const std::wstring& a, const std::wstring& b) {
    auto lower = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c; };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [&](wchar_t x, wchar_t y) { return lower(x) == lower(y); });
}

// Rules are kept exactly as sent: the driver compares what it was given.
void add_rule(std::vector<std::wstring>& list, const std::wstring& path) {
    if (path.empty() || std::find(list.begin(), list.end(), path) != list.end()) return;
    list.push_back(path);
}

void remove_rule(std::vector<std::wstring>& list, const std::wstring& path, bool empty_removes_all) {
    if (path.empty()) {
        if (empty_removes_all) list.clear();
        return;
    }
    list.erase(std::remove(list.begin(), list.end(), path), list.end());
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

instances_config default_instances() {
    return {L"VQRMonitor - Top Instance",
            {{L"VQRMonitor - Bottom Instance", L"362700", 1},
             {L"VQRMonitor - Middle Instance", L"368520", 1},
             {L"VQRMonitor - Top Instance", L"383350", 1}}};
}

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
    const std::wstring name = instance.empty() ? instances_.default_instance : instance;
    const instance_config* config = nullptr;
    for (const auto& i : instances_.instances)
        if (same_name(i.name, name)) config = &i;
    int32_t hr = hr_ok;
    if (!loaded_ || !same_name(filter, filter_name)) {
        hr = hr_filter_not_found;
    } else if (config == nullptr) {
        hr = hr_not_found;  // no such instance in the service key
    } else {
        for (const auto& a : volumes_) {
            if (a.volume != volume) continue;
            if (same_name(a.instance, config->name)) hr = hr_instance_name_collision;
            else if (a.altitude == config->altitude && hr == hr_ok) hr = hr_altitude_collision;
        }
        if (hr == hr_ok) {
            volumes_.push_back({volume, config->name, config->altitude});
            created_instance = config->name;
        }
    }
    filter_calls_.push_back({"attach", volume, name, hr});
    return hr;
}

int32_t driver_state::detach(const std::wstring& filter, const std::wstring& volume, const std::wstring& instance) {
    const std::wstring name = instance.empty() ? instances_.default_instance : instance;
    auto it = std::find_if(volumes_.begin(), volumes_.end(),
                           [&](const attached& a) { return a.volume == volume && same_name(a.instance, name); });
    int32_t hr = hr_ok;
    if (!loaded_ || !same_name(filter, filter_name)) {
        hr = hr_filter_not_found;
    } else if (it == volumes_.end()) {
        hr = hr_instance_not_found;
    } else {
        volumes_.erase(it);
    }
    filter_calls_.push_back({"detach", volume, name, hr});
    return hr;
}

int32_t driver_state::load(const std::wstring& filter) {
    int32_t hr = hr_ok;
    if (!same_name(filter, filter_name)) {
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
    if (!same_name(filter, filter_name) || !loaded_) {
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
    stop_message_ = true;
    unload_on_send_ = false;
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
    for (const auto& a : volumes_) {
        if (!first) out += ",";
        first = false;
        out += "{\"volume\":";
        append_json_string(out, a.volume);
        out += ",\"instance\":";
        append_json_string(out, a.instance);
        out += ",\"altitude\":";
        append_json_string(out, a.altitude);
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
    out += std::string(",\"stop_message\":") + (stop_message_ ? "true" : "false");
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
