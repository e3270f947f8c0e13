#include "tools/ipc_client/named_fields.h"

#include <cstdlib>
#include <set>
#include <type_traits>

#include "mcl/mswin/text.h"
#include "protocol/catalogue.h"

namespace named_fields {

namespace {

using namespace protocol;

// ---- the named fields of every record and flat layout, in wire order

template <typename V> void fields(V&, no_fields&) {}
template <typename V> void fields(V& v, service_rule& r) { v("svc", r.protectService); v("proc", r.protectProcess); v("name", r.name); }
template <typename V> void fields(V& v, process_rule& r) { v("protect", r.protect); v("image", r.imagePath); }
template <typename V> void fields(V& v, reg_key_entry& r) {
    v("protect", r.action); v("root", r.root); v("path", r.path); v("owner", r.owner); v("service", r.services); v("level", r.level);
}
template <typename V> void fields(V& v, protection_switch_request& r) { v("on", r.on); }
template <typename V> void fields(V& v, compatibility_request& r) { v("version", r.version); }
template <typename V> void fields(V& v, start_service_request& r) { v("name", r.name); v("arg", r.arguments); }
template <typename V> void fields(V& v, name_request& r) { v("name", r.name); }
template <typename V> void fields(V& v, restore_driver_request& r) { v("flag", r.flag); }
template <typename V> void fields(V& v, create_container_request& r) { v("path", r.path); v("service", r.services); }
template <typename V> void fields(V& v, quarantine_files_request& r) { v("action", r.action); v("container", r.container); v("path", r.paths); }
template <typename V> void fields(V& v, remove_container_request& r) { v("action", r.action); v("path", r.path); }
template <typename V> void fields(V& v, block_files_request& r) { v("action", r.action); v("service", r.services); v("path", r.paths); }
template <typename V> void fields(V& v, subscribe_request& r) {
    v("unsubscribe", r.unsubscribe); v("subscriber", r.subscriber); v("event", r.event_name); v("file", r.file_path);
    v("major", r.major_function); v("minor", r.minor_function); v("type", r.type);
}
template <typename V> void fields(V& v, notification_query_request& r) { v("subscriber", r.subscriber); }

template <typename V> void fields(V& v, status_reply& r) { v("result", r.result); v("message", r.message); }
template <typename V> void fields(V& v, compatibility_reply& r) { v("ok", r.ok); v("version", r.version); }
template <typename V> void fields(V& v, version_reply& r) { v("version", r.version); }
template <typename V> void fields(V& v, protected_service_info& r) {
    v("valid", r.valid); v("process_protected", r.process_protected); v("service_sddl", r.service_sddl);
    v("folder_sddl", r.folder_sddl); v("name", r.name); v("sid", r.sid); v("image", r.image_path); v("folder", r.folder);
}
template <typename V> void fields(V& v, protected_process_info& r) {
    v("valid", r.valid); v("folder_sddl", r.folder_sddl); v("image", r.image_path); v("folder", r.folder);
}
template <typename V> void fields(V& v, protected_reg_key_info& r) {
    v("valid", r.valid); v("original_sddl", r.original_sddl); v("current_sddl", r.current_sddl); v("root", r.root);
    v("path", r.path); v("owner", r.owner); v("service", r.services);
}
template <typename V> void fields(V& v, quarantined_file& r) { v("archive", r.archive_name); v("path", r.recorded_path); }
template <typename V> void fields(V& v, std::string& container) { v("container", container); }
template <typename V> void fields(V& v, notification_data& r) {
    v("sequence", r.sequence); v("time", r.time); v("file", r.file_path); v("major", r.major_function);
    v("minor", r.minor_function); v("pid", r.process_id); v("image", r.process_image);
    v("description", r.process_description); v("irp_denied", r.irp_denied);
}

// The element list of a list layout; null for a flat one.
template <typename T> std::nullptr_t elements(T&) { return nullptr; }
inline std::vector<service_rule>* elements(protect_services_request& r) { return &r.rules; }
inline std::vector<process_rule>* elements(protect_processes_request& r) { return &r.rules; }
inline std::vector<reg_key_entry>* elements(protect_reg_keys_request& r) { return &r.entries; }
inline std::vector<protected_service_info>* elements(protected_services_reply& r) { return &r.services; }
inline std::vector<protected_process_info>* elements(protected_processes_reply& r) { return &r.processes; }
inline std::vector<protected_reg_key_info>* elements(protected_reg_keys_reply& r) { return &r.keys; }
inline std::vector<quarantined_file>* elements(quarantined_files_reply& r) { return &r.files; }
inline std::vector<std::string>* elements(quarantine_containers_reply& r) { return &r.containers; }
inline std::vector<notification_data>* elements(notifications_reply& r) { return &r.records; }

// ---- visitors

// Sets the one field named `key` from `value`.
struct setter {
    const std::string& key;
    const std::string& value;
    bool matched = false;
    bool bad = false;

    template <typename Number>
    void number(const char* k, Number& field) {
        if (key != k) return;
        matched = true;
        char* end = nullptr;
        const unsigned long long v = strtoull(value.c_str(), &end, 0);
        bad = value.empty() || *end != 0;
        field = static_cast<Number>(v);
    }
    void operator()(const char* k, bool& f) {
        uint32_t v = 0;
        number(k, v);
        if (key == k) f = v != 0;
    }
    void operator()(const char* k, uint8_t& f) { number(k, f); }
    void operator()(const char* k, uint32_t& f) { number(k, f); }
    void operator()(const char* k, uint64_t& f) { number(k, f); }
    void operator()(const char* k, std::string& f) {
        if (key == k) matched = true, f = value;
    }
    void operator()(const char* k, std::wstring& f) {
        if (key == k) matched = true, f = mcl::mswin::widen(value);
    }
    void operator()(const char* k, std::vector<std::string>& f) {
        if (key == k) matched = true, f.push_back(value);
    }
};

// Appends " key=value" for every field.
struct printer {
    std::string line;
    void put(const char* k, const std::string& v) { line += (line.empty() ? "" : " ") + std::string(k) + "=" + v; }
    void operator()(const char* k, bool& f) { put(k, f ? "1" : "0"); }
    void operator()(const char* k, uint8_t& f) { put(k, std::to_string(f)); }
    void operator()(const char* k, uint32_t& f) { put(k, std::to_string(f)); }
    void operator()(const char* k, uint64_t& f) { put(k, std::to_string(f)); }
    void operator()(const char* k, std::string& f) { put(k, f); }
    void operator()(const char* k, std::wstring& f) {
        std::string narrow;
        for (wchar_t c : f) narrow += c < 0x80 ? static_cast<char>(c) : '?';
        put(k, narrow);
    }
    void operator()(const char* k, std::vector<std::string>& f) {
        std::string joined;
        for (const std::string& s : f) joined += (joined.empty() ? "" : ",") + s;
        put(k, joined);
    }
};

// Whether the field `key` is a string list (it appends rather than starting a new element).
struct list_key {
    const std::string& key;
    bool is_list = false;
    template <typename T>
    void operator()(const char* k, T&) {
        if (key == k) is_list = std::is_same_v<T, std::vector<std::string>>;
    }
};

bool split(const std::string& arg, std::string& key, std::string& value) {
    const size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0) return false;
    key = arg.substr(0, eq);
    value = arg.substr(eq + 1);
    return true;
}

template <typename Record>
bool set_field(Record& record, const std::string& key, const std::string& value, std::string& error) {
    setter s{key, value};
    fields(s, record);
    if (!s.matched) error = "unknown field \"" + key + "\"";
    if (s.bad) error = "\"" + key + "\" takes a number, not \"" + value + "\"";
    return s.matched && !s.bad;
}

template <typename Request>
bool parse(Request& request, const std::vector<std::string>& args, std::string& error) {
    auto list = elements(request);
    std::set<std::string> seen;
    for (const std::string& arg : args) {
        std::string key, value;
        if (!split(arg, key, value)) {
            error = "\"" + arg + "\" is not key=value";
            return false;
        }
        if constexpr (std::is_same_v<decltype(list), std::nullptr_t>) {
            if (!set_field(request, key, value, error)) return false;
        } else {
            using element = typename std::remove_pointer_t<decltype(list)>::value_type;
            list_key lk{key};
            element probe;
            fields(lk, probe);
            if (list->empty() || (!lk.is_list && seen.count(key) != 0)) {
                list->emplace_back();
                seen.clear();
            }
            seen.insert(key);
            if (!set_field(list->back(), key, value, error)) return false;
        }
    }
    return true;
}

template <typename Reply>
void print(Reply& reply, std::vector<std::string>& lines) {
    auto list = elements(reply);
    if constexpr (std::is_same_v<decltype(list), std::nullptr_t>) {
        printer p;
        fields(p, reply);
        lines.push_back(p.line);
    } else {
        lines.push_back("count=" + std::to_string(list->size()));
        for (auto& element : *list) {
            printer p;
            fields(p, element);
            lines.push_back(p.line);
        }
    }
}

// The keys of a request, for the usage text.
struct key_lister {
    std::string keys;
    template <typename T>
    void operator()(const char* k, T&) {
        keys += std::string(" ") + k + "=";
    }
};

}  // namespace

bool encode_request(const std::string& message, const std::vector<std::string>& args, uint32_t& id,
                    mcl::binary_t& payload, std::string& error) {
    bool found = false, ok = false;
    for_each_message([&](auto m) {
        if (found || message != m.name) return;
        found = true;
        id = decltype(m)::id;
        typename decltype(m)::request request;
        ok = parse(request, args, error);
        if (ok) encode(payload, request);
    });
    if (!found) error = "unknown message \"" + message + "\"";
    return ok;
}

bool encode_reply(const std::string& message, const std::vector<std::string>& args, mcl::binary_t& payload,
                  std::string& error) {
    bool found = false, ok = false;
    for_each_message([&](auto m) {
        using reply_t = typename decltype(m)::reply;
        if constexpr (!std::is_same_v<reply_t, no_reply>) {
            if (found || message != m.name) return;
            found = true;
            reply_t reply;
            ok = parse(reply, args, error);
            if (ok) encode(payload, reply);
        }
    });
    if (!found) error = "unknown message \"" + message + "\" or one without a reply";
    return ok;
}

bool decode_reply(uint32_t id, const mcl::binary_t& reply, std::vector<std::string>& lines) {
    bool ok = false;
    for_each_message([&](auto m) {
        using reply_t = typename decltype(m)::reply;
        if constexpr (!std::is_same_v<reply_t, no_reply>) {
            if (decltype(m)::id != id) return;
            reply_t decoded;
            ok = decode(reply, decoded);
            if (ok) print(decoded, lines);
        }
    });
    return ok;
}

std::string describe() {
    std::string text;
    for_each_message([&](auto m) {
        typename decltype(m)::request request;
        key_lister keys;
        auto list = elements(request);
        if constexpr (std::is_same_v<decltype(list), std::nullptr_t>) {
            fields(keys, request);
        } else {
            typename std::remove_pointer_t<decltype(list)>::value_type element;
            fields(keys, element);
            keys.keys += " ...";
        }
        text += std::string("  ") + m.name + keys.keys + "\n";
    });
    return text;
}

}  // namespace named_fields
