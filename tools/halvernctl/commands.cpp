// The commands: each turns its arguments into one or a few client calls and fills the report.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/halvernctl/cli.h"

using NVClientHelper::result;

namespace halvernctl {

namespace {

result fresh() {
    result r;
    r.ok = no_reply;
    return r;
}

// ---------------------------------------------------------------------------------------------
// Argument helpers

bool parse_number(const std::string& text, uint64_t max, uint64_t& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    const unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (*end != 0 || v > max) return false;
    out = v;
    return true;
}

struct root_name {
    const char* short_name;
    const char* long_name;
    HKEY key;
};
const root_name roots[] = {
    {"HKLM", "HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE}, {"HKCU", "HKEY_CURRENT_USER", HKEY_CURRENT_USER},
    {"HKU", "HKEY_USERS", HKEY_USERS},                  {"HKCR", "HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
    {"HKCC", "HKEY_CURRENT_CONFIG", HKEY_CURRENT_CONFIG},
};

// "HKLM\Software\X" -> HKEY_LOCAL_MACHINE and L"Software\X".
bool parse_key(const std::string& text, HKEY& root, std::wstring& path) {
    const size_t slash = text.find('\\');
    if (slash == std::string::npos || slash + 1 >= text.size()) return false;
    const std::string head = text.substr(0, slash);
    for (const root_name& r : roots) {
        if (_stricmp(head.c_str(), r.short_name) == 0 || _stricmp(head.c_str(), r.long_name) == 0) {
            root = r.key;
            const std::string rest = text.substr(slash + 1);
            const int n = MultiByteToWideChar(CP_ACP, 0, rest.data(), static_cast<int>(rest.size()), nullptr, 0);
            path.assign(static_cast<size_t>(n), L'\0');
            if (n > 0) MultiByteToWideChar(CP_ACP, 0, rest.data(), static_cast<int>(rest.size()), &path[0], n);
            return true;
        }
    }
    return false;
}

std::string root_text(uint64_t root) {
    for (const root_name& r : roots)
        if (static_cast<uint64_t>(static_cast<int64_t>(reinterpret_cast<intptr_t>(r.key))) == root) return r.short_name;
    char text[32];
    snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(root));
    return text;
}

std::wstring widen(const std::string& s) {
    const int n = MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring w(static_cast<size_t>(n > 0 ? n : 0), L'\0');
    if (n > 0) MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), &w[0], n);
    return w;
}

// A message of ";"-terminated fields (archive paths, failed paths) as items.
void split_fields(context& c, const std::string& message, const char* name) {
    size_t start = 0;
    for (size_t end = message.find(';'); end != std::string::npos; end = message.find(';', start)) {
        c.out.items.push_back({{name, value::of(message.substr(start, end - start))}});
        start = end + 1;
    }
}

std::string filetime_text(uint64_t t) {
    FILETIME ft{static_cast<DWORD>(t), static_cast<DWORD>(t >> 32)};
    SYSTEMTIME st{};
    if (!FileTimeToSystemTime(&ft, &st)) return std::to_string(t);
    char text[40];
    snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u UTC", st.wYear, st.wMonth, st.wDay, st.wHour,
             st.wMinute, st.wSecond, st.wMilliseconds);
    return text;
}

fields notification_fields(const NVClientHelper::notification_data& n) {
    return {{"sequence", value::of(n.sequence)},
            {"time", value::of(filetime_text(n.time))},
            {"file", value::of(n.file_path)},
            {"major", value::of(static_cast<uint64_t>(n.major_function))},
            {"minor", value::of(static_cast<uint64_t>(n.minor_function))},
            {"pid", value::of(n.process_id)},
            {"image", value::of(n.process_image)},
            {"description", value::of(n.process_description)},
            {"denied", value::of(n.irp_denied == 1)}};
}

// ---------------------------------------------------------------------------------------------
// Services, processes, registry keys

int service_protect(context& c, bool protect) {
    result r = fresh();
    bool ok;
    if (c.args.size() == 1 && !c.has("--service-only")) {
        ok = protect ? c.helper->protect_service(c.args[0], &r) : c.helper->unprotect_service(c.args[0], &r);
    } else {
        std::vector<NVClientHelper::service_rule> rules;
        for (const auto& name : c.args) rules.push_back({protect, protect && !c.has("--service-only"), name});
        ok = c.helper->protect_services(rules, &r);
    }
    return finish_status(c, ok, r);
}
int run_service_protect(context& c) { return service_protect(c, true); }
int run_service_unprotect(context& c) { return service_protect(c, false); }

int run_service_list(context& c) {
    std::vector<NVClientHelper::protected_service_info> list;
    const bool ok = c.helper->query_protected_services(list);
    c.out.items_name = "services";
    for (const auto& s : list)
        c.out.items.push_back({{"name", value::of(s.name)},
                               {"process_protected", value::of(s.process_protected)},
                               {"image", value::of(s.image_path)},
                               {"folder", value::of(s.folder)},
                               {"sid", value::of(s.sid)},
                               {"service_sddl", value::of(s.service_sddl)},
                               {"folder_sddl", value::of(s.folder_sddl)}});
    return finish_query(c, ok);
}

int run_service_start(context& c) {
    NVClientHelper::start_request request{c.args[0], {c.args.begin() + 1, c.args.end()}};
    result r = fresh();
    return finish_status(c, c.helper->start_service(request, &r), r);
}

int run_service_stop(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->stop_service(c.args[0], &r), r);
}

int process_protect(context& c, bool protect) {
    result r = fresh();
    bool ok;
    if (c.args.size() == 1) {
        ok = protect ? c.helper->protect_process(c.args[0], &r) : c.helper->unprotect_process(c.args[0], &r);
    } else {
        std::vector<NVClientHelper::process_rule> rules;
        for (const auto& path : c.args) rules.push_back({protect, widen(path)});
        ok = c.helper->protect_processes(rules, &r);
    }
    return finish_status(c, ok, r);
}
int run_process_protect(context& c) { return process_protect(c, true); }
int run_process_unprotect(context& c) { return process_protect(c, false); }

int run_process_list(context& c) {
    std::vector<NVClientHelper::protected_process_info> list;
    const bool ok = c.helper->query_protected_processes(list);
    c.out.items_name = "processes";
    for (const auto& p : list)
        c.out.items.push_back({{"image", value::of(p.image_path)},
                               {"folder", value::of(p.folder)},
                               {"folder_sddl", value::of(p.folder_sddl)}});
    return finish_query(c, ok);
}

int run_key_protect(context& c) {
    HKEY root = nullptr;
    std::wstring path;
    if (!parse_key(c.args[0], root, path)) return usage_error(c, "not a registry key: " + c.args[0]);
    uint32_t level = NVClientHelper::level_read;
    const std::string level_text = c.option("--level", "read");
    if (level_text == "none") {
        level = NVClientHelper::level_none;
    } else if (level_text == "write") {
        level = NVClientHelper::level_write;
    } else if (level_text != "read") {
        return usage_error(c, "--level takes none, read or write");
    }
    result r = fresh();
    bool ok;
    if (!c.has("--owner") && !c.has("--service")) {
        ok = c.helper->protect_reg_key(root, path, level, &r);
    } else {
        NVClientHelper::reg_key_rule rule;
        rule.root = root;
        rule.path = path;
        rule.owner = c.option("--owner", "");
        rule.services = c.all("--service");
        rule.level = level;
        ok = c.helper->protect_reg_keys({rule}, &r);
    }
    return finish_status(c, ok, r);
}

int run_key_unprotect(context& c) {
    HKEY root = nullptr;
    std::wstring path;
    if (!parse_key(c.args[0], root, path)) return usage_error(c, "not a registry key: " + c.args[0]);
    result r = fresh();
    return finish_status(c, c.helper->unprotect_reg_key(root, path, &r), r);
}

int run_key_list(context& c) {
    std::vector<NVClientHelper::protected_reg_key_info> list;
    const bool ok = c.helper->get_protected_reg_keys(list);
    c.out.items_name = "keys";
    for (const auto& k : list) {
        std::string services;
        for (const auto& s : k.services) services += (services.empty() ? "" : ",") + s;
        c.out.items.push_back({{"key", value::of(root_text(k.root) + "\\" + value::of(k.path).string)},
                               {"owner", value::of(k.owner)},
                               {"services", value::of(services)},
                               {"original_sddl", value::of(k.original_sddl)},
                               {"current_sddl", value::of(k.current_sddl)}});
    }
    return finish_query(c, ok);
}

// ---------------------------------------------------------------------------------------------
// Switches and repairs

int run_driver_on(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->enable_driver_protection(&r), r);
}
int run_driver_off(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->disable_driver_protection(&r), r);
}
int run_driver_restore(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->restore_driver_protection(true, &r), r);
}
int run_protection_on(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->set_protection_enabled(true, &r), r);
}
int run_protection_off(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->set_protection_enabled(false, &r), r);
}
int run_recover_service(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->recover_service_dacl(c.args[0], &r), r);
}
int run_recover_folder(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->recover_folder_dacl(c.args[0], &r), r);
}
int run_shutdown(context& c) {
    // Releasing the client afterwards gives the post time to reach the pipe.
    if (!c.helper->request_stop()) return fail(c, exit_not_connected, "not_connected", "the stop request was not sent");
    c.out.add("ok", value::of(true));
    return finish(c);
}

// ---------------------------------------------------------------------------------------------
// Quarantine and blocked files

int run_q_containers(context& c) {
    std::vector<std::string> list;
    const bool ok = c.helper->get_quarantine_containers(list);
    c.out.items_name = "containers";
    for (const auto& path : list) c.out.items.push_back({{"path", value::of(path)}});
    return finish_query(c, ok);
}
int run_q_create(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->create_quarantine_container(c.args[0], c.all("--service"), &r), r);
}
int run_q_add(context& c) {
    result r = fresh();
    const bool ok = c.helper->add_quarantine_files(c.args[0], {c.args.begin() + 1, c.args.end()}, &r);
    if (r.ok != no_reply) {
        c.out.items_name = "archives";
        split_fields(c, r.message, "archive");
    }
    return finish_status(c, ok, r);
}
int run_q_remove(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->remove_quarantine_files(c.args[0], {c.args.begin() + 1, c.args.end()}, &r), r);
}
int run_q_restore(context& c) {
    result r = fresh();
    return finish_status(c, c.helper->restore_quarantine_files(c.args[0], {c.args.begin() + 1, c.args.end()}, &r), r);
}
int run_q_list(context& c) {
    std::vector<NVClientHelper::quarantined_file> list;
    const bool ok = c.helper->get_quarantined_files(c.args[0], list);
    c.out.items_name = "files";
    for (const auto& f : list)
        c.out.items.push_back({{"archive", value::of(f.archive_name)}, {"path", value::of(f.recorded_path)}});
    return finish_query(c, ok);
}
int run_q_drop(context& c) {
    if (c.has("--delete") == c.has("--restore")) return usage_error(c, "give either --delete or --restore");
    const uint32_t action =
        c.has("--delete") ? NVClientHelper::container_delete_archives : NVClientHelper::container_restore_archives;
    result r = fresh();
    return finish_status(c, c.helper->remove_quarantine_container(action, c.args[0], &r), r);
}
// The answer of a yes/no request is its message.
int yes_no(context& c, const char* key, bool ok, const result& r) {
    if (ok) c.out.add(key, value::of(r.message == "yes"));
    return finish_status(c, ok, r);
}
int run_q_is(context& c) {
    result r = fresh();
    const bool ok = c.helper->is_file_quarantined(c.args[0], &r);
    return yes_no(c, "quarantined", ok, r);
}
int block(context& c, bool on) {
    result r = fresh();
    bool ok;
    if (c.args.size() == 1 && !c.has("--service")) {
        ok = on ? c.helper->block_file_access(c.args[0], &r) : c.helper->unblock_file_access(c.args[0], &r);
    } else {
        ok = c.helper->block_files_access(on ? NVClientHelper::block_files : NVClientHelper::unblock_files,
                                          c.all("--service"), c.args, &r);
        if (ok && !r.message.empty()) {
            // The service lists the paths it could not change; the request itself went through.
            c.out.items_name = "failed";
            split_fields(c, r.message, "path");
            if (!c.out.items.empty()) {
                r.ok = 0;
                r.message = "not changed: " + r.message;
                return finish_status(c, false, r);
            }
        }
    }
    return finish_status(c, ok, r);
}
int run_block(context& c) { return block(c, true); }
int run_unblock(context& c) { return block(c, false); }
int run_is_blocked(context& c) {
    result r = fresh();
    const bool ok = c.helper->is_file_access_blocked(c.args[0], &r);
    return yes_no(c, "blocked", ok, r);
}

// ---------------------------------------------------------------------------------------------
// Notifications

struct filter {
    std::string file;
    uint8_t major = NVClientHelper::any_function;
    uint8_t minor = NVClientHelper::any_function;
    uint32_t type = NVClientHelper::any_notification;
};

bool read_filter(const context& c, filter& f) {
    uint64_t n = 0;
    f.file = c.option("--file", "");
    if (c.has("--major")) {
        if (!parse_number(c.option("--major", ""), 0xFF, n)) return false;
        f.major = static_cast<uint8_t>(n);
    }
    if (c.has("--minor")) {
        if (!parse_number(c.option("--minor", ""), 0xFF, n)) return false;
        f.minor = static_cast<uint8_t>(n);
    }
    if (c.has("--type")) {
        if (!parse_number(c.option("--type", ""), 0xFFFFFFFFull, n)) return false;
        f.type = static_cast<uint32_t>(n);
    }
    return true;
}

std::string check_key(const context& c) {
    HKEY root = nullptr;
    std::wstring path;
    if (!parse_key(c.args[0], root, path)) return "not a registry key: " + c.args[0];
    const std::string level = c.option("--level", "read");
    if (level != "none" && level != "read" && level != "write") return "--level takes none, read or write";
    return {};
}

std::string check_drop(const context& c) {
    return c.has("--delete") == c.has("--restore") ? "give either --delete or --restore" : "";
}

std::string check_filter(const context& c) {
    filter f;
    return read_filter(c, f) ? "" : "--major and --minor take 0 to 255, --type a number";
}

std::string check_subscription(const context& c) {
    return c.option("--event", "").empty() ? "--event NAME is required" : check_filter(c);
}

int subscription(context& c, bool on) {
    filter f;
    if (!read_filter(c, f)) return usage_error(c, "--major and --minor take 0 to 255, --type a number");
    const std::string event_name = c.option("--event", "");
    if (event_name.empty()) return usage_error(c, "--event NAME is required");
    result r = fresh();
    bool ok;
    if (c.has("--as")) {
        ok = on ? c.helper->subscribe_as(c.option("--as", ""), event_name, f.file, f.major, f.minor, f.type, &r)
                : c.helper->unsubscribe_as(c.option("--as", ""), event_name, f.file, f.major, f.minor, f.type, &r);
    } else {
        ok = on ? c.helper->subscribe(event_name, f.file, f.major, f.minor, f.type, &r)
                : c.helper->unsubscribe(event_name, f.file, f.major, f.minor, f.type, &r);
    }
    return finish_status(c, ok, r);
}
int run_subscribe(context& c) { return subscription(c, true); }
int run_unsubscribe(context& c) { return subscription(c, false); }

bool collect(context& c, std::vector<NVClientHelper::notification_data>& list) {
    return c.has("--as") ? c.helper->query_notification_data_as(c.option("--as", ""), list)
                         : c.helper->query_notification_data(list);
}

int run_collect(context& c) {
    std::vector<NVClientHelper::notification_data> list;
    const bool ok = collect(c, list);
    c.out.items_name = "notifications";
    for (const auto& n : list) c.out.items.push_back(notification_fields(n));
    return finish_query(c, ok);
}

HANDLE g_interrupted = nullptr;

BOOL WINAPI on_console_control(DWORD type) {
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT && type != CTRL_CLOSE_EVENT) return FALSE;
    SetEvent(g_interrupted);
    return TRUE;
}

// Subscribes under a name of its own with an event of its own, then prints every denial as it
// arrives (a line each; with --json one document per denial) until Ctrl+C.
int run_watch(context& c) {
    filter f;
    if (!read_filter(c, f)) return usage_error(c, "--major and --minor take 0 to 255, --type a number");
    const std::string own = "halvernctl_watch_" + std::to_string(GetCurrentProcessId());
    const std::string subscriber = c.option("--as", own);
    const std::string event_name = "Global\\" + own;
    HANDLE arrived = CreateEventA(nullptr, /*manual_reset=*/FALSE, /*initial=*/FALSE, event_name.c_str());
    g_interrupted = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (arrived == nullptr || g_interrupted == nullptr)
        return fail(c, exit_not_connected, "no_event", "cannot create the notification event");
    SetConsoleCtrlHandler(&on_console_control, TRUE);
    result r = fresh();
    if (!c.helper->subscribe_as(subscriber, event_name, f.file, f.major, f.minor, f.type, &r))
        return finish_status(c, false, r);
    fprintf(stderr, "watching denied access%s%s as %s; Ctrl+C ends\n", f.file.empty() ? "" : " to ",
            f.file.c_str(), subscriber.c_str());
    int code = exit_ok;
    HANDLE handles[] = {g_interrupted, arrived};
    for (;;) {
        // A second's poll besides the event: a lost connection shows at the next collect.
        const DWORD w = WaitForMultipleObjects(2, handles, FALSE, 1000);
        if (w == WAIT_OBJECT_0) break;
        std::vector<NVClientHelper::notification_data> list;
        if (!c.helper->query_notification_data_as(subscriber, list)) {
            code = fail(c, exit_not_connected, "not_connected", "the connection to the service was lost");
            break;
        }
        for (const auto& n : list) {
            report one;
            one.command = "watch";
            one.top = notification_fields(n);
            if (c.json) {
                fputs(to_json(one).c_str(), stdout);
            } else {
                printf("%s denied %s major=%u minor=%u pid=%llu %s\n", filetime_text(n.time).c_str(),
                       n.file_path.c_str(), n.major_function, n.minor_function,
                       static_cast<unsigned long long>(n.process_id), n.process_image.c_str());
            }
            fflush(stdout);
        }
    }
    (void)c.helper->unsubscribe_as(subscriber, event_name, f.file, f.major, f.minor, f.type, nullptr);
    CloseHandle(arrived);
    return code;
}

}  // namespace

const std::vector<command>& commands() {
    static const std::vector<command> table = {
        {"status", "", "installed, running, IPC protocol and service version", 0, 0, "", "", 0, nullptr, nullptr},
        {"shutdown", "", "ask the protection service to stop", 0, 0, "", "", 0, run_shutdown, nullptr},
        {"service protect", "NAME... [--service-only]",
         "protect services and their program images (--service-only: not the images)", 1, -1, "", "--service-only", 0,
         run_service_protect, nullptr},
        {"service unprotect", "NAME...", "lift the protection of services and their images", 1, -1, "", "", 0,
         run_service_unprotect, nullptr},
        {"service list", "", "the protected services", 0, 0, "", "", 0, run_service_list, nullptr},
        {"service start", "NAME [ARG...]", "start a service with its arguments", 1, -1, "", "", 0, run_service_start, nullptr},
        {"service stop", "NAME", "stop a service, terminating it if it resists", 1, 1, "", "", 0, run_service_stop, nullptr},
        {"process protect", "PATH...", "protect program images and their folders", 1, -1, "", "", 0,
         run_process_protect, nullptr},
        {"process unprotect", "PATH...", "lift the protection of program images", 1, -1, "", "", 0,
         run_process_unprotect, nullptr},
        {"process list", "", "the protected program images", 0, 0, "", "", 0, run_process_list, nullptr},
        {"key protect", "ROOT\\PATH [--level none|read|write] [--owner SERVICE] [--service SERVICE]...",
         "protect a registry key (ROOT: HKLM, HKCU, HKU, HKCR, HKCC)", 1, 1, "--level --owner --service", "", 0,
         run_key_protect, check_key},
        {"key unprotect", "ROOT\\PATH", "lift the protection of a registry key", 1, 1, "", "", 0, run_key_unprotect, check_key},
        {"key list", "", "the protected registry keys", 0, 0, "", "", 0, run_key_list, nullptr},
        {"driver on", "", "switch the driver's process and folder protection on", 0, 0, "", "", 0, run_driver_on, nullptr},
        {"driver off", "", "switch the driver's process and folder protection off", 0, 0, "", "", 0, run_driver_off, nullptr},
        {"driver restore", "", "set the driver's switches back to the service's own", 0, 0, "", "", 0,
         run_driver_restore, nullptr},
        {"protection on", "", "master switch on: service, process and registry protection", 0, 0, "", "", 0,
         run_protection_on, nullptr},
        {"protection off", "", "master switch off: lifts every service and process protection", 0, 0, "", "", 0,
         run_protection_off, nullptr},
        {"recover service", "NAME", "give a service its default security back", 1, 1, "", "", 0, run_recover_service, nullptr},
        {"recover folder", "PATH", "give a folder its default security back", 1, 1, "", "", 0, run_recover_folder, nullptr},
        {"quarantine containers", "", "the quarantine containers", 0, 0, "", "", 3, run_q_containers, nullptr},
        {"quarantine create", "CONTAINER [--service NAME]...", "create a container (NAME: services with access)", 1, 1,
         "--service", "", 3, run_q_create, nullptr},
        {"quarantine add", "CONTAINER FILE...", "move files into a container", 2, -1, "", "", 3, run_q_add, nullptr},
        {"quarantine remove", "CONTAINER ARCHIVE...", "delete quarantined files", 2, -1, "", "", 3, run_q_remove, nullptr},
        {"quarantine restore", "CONTAINER ARCHIVE...", "put quarantined files back where they were", 2, -1, "", "", 3,
         run_q_restore, nullptr},
        {"quarantine list", "CONTAINER", "the files in a container", 1, 1, "", "", 3, run_q_list, nullptr},
        {"quarantine drop", "CONTAINER --delete|--restore",
         "remove a container, deleting or restoring its files first", 1, 1, "", "--delete --restore", 3, run_q_drop, check_drop},
        {"quarantine is-quarantined", "PATH", "whether PATH is a quarantined file's archive", 1, 1, "", "", 3,
         run_q_is, nullptr},
        {"block", "FILE... [--service NAME]...", "deny access to files (NAME: services that keep access)", 1, -1,
         "--service", "", 3, run_block, nullptr},
        {"unblock", "FILE...", "allow access to blocked files again", 1, -1, "", "", 3, run_unblock, nullptr},
        {"is-blocked", "FILE", "whether access to FILE is blocked", 1, 1, "", "", 3, run_is_blocked, nullptr},
        {"notify subscribe", "--event NAME [--as SUBSCRIBER] [--file PATH] [--major N] [--minor N] [--type N]",
         "be told through event NAME when access to PATH (any file without it) is denied", 0, 0,
         "--event --as --file --major --minor --type", "", 5, run_subscribe, check_subscription},
        {"notify unsubscribe", "--event NAME [--as SUBSCRIBER] [--file PATH] [--major N] [--minor N] [--type N]",
         "remove a subscription filter", 0, 0, "--event --as --file --major --minor --type", "", 5, run_unsubscribe, check_subscription},
        {"notify collect", "[--as SUBSCRIBER]", "the denials recorded for the subscriber since the last collect", 0, 0,
         "--as", "", 5, run_collect, nullptr},
        {"watch", "[--as SUBSCRIBER] [--file PATH] [--major N] [--minor N] [--type N]",
         "print denials as they arrive, until Ctrl+C", 0, 0, "--as --file --major --minor --type", "", 5, run_watch, check_filter},
    };
    return table;
}

}  // namespace halvernctl
