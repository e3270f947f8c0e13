// The client object: service control queries, the connect that starts a stopped service, the
// protocol gates and one request per method.
#include "client/nvchelper.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <utility>

#include "client/request_codec.h"
#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/service.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"

using NVClientHelper::result;
namespace codec = nvclient_codec;

namespace {

// The folder of the service's registered program (its binary path without arguments, up to the
// last backslash); empty when the service's configuration cannot be read.
std::string program_folder(const char* service_name) {
    mcl::binary_t config;
    if (!mcl::mswin::service::query_config(service_name, config) || config.size() < sizeof(QUERY_SERVICE_CONFIGA))
        return {};
    const auto* record = reinterpret_cast<const QUERY_SERVICE_CONFIGA*>(config.data());
    if (record->lpBinaryPathName == nullptr) return {};
    // "C:\...\x.exe" args, or an unquoted C:\...\x.exe args: the program ends at its closing
    // quote or after ".exe".
    std::string program = record->lpBinaryPathName;
    if (!program.empty() && program[0] == '"') {
        program = program.substr(1, program.find('"', 1) - 1);
    } else {
        std::string lower = program;
        for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        const size_t exe = lower.find(".exe");
        if (exe != std::string::npos) program.resize(exe + 4);
    }
    const size_t slash = program.rfind('\\');
    return slash == std::string::npos ? std::string() : program.substr(0, slash);
}

}  // namespace

nvchelper::nvchelper() : mcl::ipc_peer(own_peer_name, &agent_), agent_(this) {}

nvchelper::~nvchelper() {
    if (auto connection = the_connection()) {
        const mcl::binary_t none;
        (void)post(msg::disconnect, none, connection);
        // The service drops the connection when it takes the disconnect, which the read thread
        // sees as the pipe closing. Until then the frame may still be on its way, and closing
        // would cancel it; but teardown never waits on the service for long.
        connection = {};
        for (DWORD waited = 0; waited < disconnect_wait_ms && !connections().empty(); waited += 10) Sleep(10);
    }
    close();
}

// ---------------------------------------------------------------------------------------------
// Service control and connection

bool nvchelper::is_installed() { return mcl::mswin::service::is_service_installed(service_name); }

bool nvchelper::is_stopped() { return mcl::mswin::service::is_service_stopped(service_name); }

bool nvchelper::connect(int timeout_ms) {
    if (!is_installed()) return false;
    // A second connection would leave the object unable to send: requests need exactly one.
    if (the_connection()) return true;
    connect_error_.clear();
    DWORD state = 0;
    if (!mcl::mswin::service::query_state(service_name, state) || state != SERVICE_RUNNING) {
        // Whatever the state was, and whether or not the start works: the service may be on its
        // way up already.
        (void)mcl::mswin::service::start(service_name);
        Sleep(100);
    }
    return mcl::ipc_peer::connect(service_name, timeout_ms,
                                  [this](const mcl::ipc_connection& connection) { return served_by_service(connection); });
}

bool nvchelper::served_by_service(const mcl::ipc_connection& connection) {
    const DWORD pid = connection.server_process_id();
    SERVICE_STATUS_PROCESS status{};
    if (pid != 0 && mcl::mswin::service::query_status_ex(service_name, status) && status.dwProcessId == pid) return true;
    const std::string image = pid != 0 ? mcl::ipc_connection::process_image(pid) : std::string();
    const size_t slash = image.rfind('\\');
    const std::string folder = program_folder(service_name);
    if (slash != std::string::npos && !folder.empty() && _stricmp(image.substr(0, slash).c_str(), folder.c_str()) == 0)
        return true;
    char text[MAX_PATH * 3 + 160];
    snprintf(text, sizeof text, "The pipe (\"%s%s\") is served by process %lu (%s), not by the protection service",
             mcl::ipc_channel::pipe_prefix, service_name, static_cast<unsigned long>(pid),
             image.empty() ? "image unknown" : image.c_str());
    NV_LOG("nvchelper::connect", "%s", text);
    connect_error_ = text;
    return false;
}

bool nvchelper::request_stop() {
    auto connection = the_connection();
    if (!connection) return false;
    const mcl::binary_t none;
    return post(msg::stop_service, none, connection);
}

mcl::share_ptr<mcl::ipc_connection> nvchelper::the_connection() {
    auto all = connections();
    if (all.size() != 1) return {};
    return all.front();
}

bool nvchelper::gate_open(uint32_t minimum, result* r) const {
    if (protocol_version_ >= minimum) return true;
    if (r != nullptr) {
        r->ok = 0;
        if (protocol_version_ == 0) {
            r->message = call_proto_compatible_message;
        } else {
            char text[260];
            snprintf(text, sizeof text,
                     "Service does not support the feature, current IPC protocol version : %d, minimum required "
                     "version: %d",
                     static_cast<int>(protocol_version_), static_cast<int>(minimum));
            r->message = text;
        }
    }
    return false;
}

bool nvchelper::request(uint32_t id, mcl::binary_t& payload) {
    auto connection = the_connection();
    return connection && send(id, payload, connection, reply_timeout_ms);
}

bool nvchelper::status_request(uint32_t id, mcl::binary_t& payload, result* r) {
    protocol::status_reply reply;
    if (!request(id, payload) || !protocol::decode(payload, reply)) return false;
    const bool ok = reply.result == 1;
    if (r != nullptr) {
        r->ok = reply.result;
        r->message = std::move(reply.message);
    }
    return ok;
}

// Every request method: the gate when it has one, the connection, the encoding (which refuses
// bad input before anything is sent), the send, the decoding.

// ---------------------------------------------------------------------------------------------
// Protection rules

bool nvchelper::protect_service(const std::string& name, result* r) {
    return protect_services({NVClientHelper::service_rule{true, true, name}}, r);
}

bool nvchelper::unprotect_service(const std::string& name, result* r) {
    return protect_services({NVClientHelper::service_rule{false, false, name}}, r);
}

bool nvchelper::protect_process(const std::string& image_path, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_process_path(payload, true, image_path, r)) return false;
    return status_request(msg::protect_processes, payload, r);
}

bool nvchelper::unprotect_process(const std::string& image_path, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_process_path(payload, false, image_path, r)) return false;
    return status_request(msg::protect_processes, payload, r);
}

bool nvchelper::protect_reg_key(HKEY root, const std::wstring& path, uint32_t level, result* r) {
    NVClientHelper::reg_key_rule rule;
    rule.protect = true;
    rule.root = root;
    rule.path = path;
    rule.level = level;
    return protect_reg_keys({rule}, r);
}

bool nvchelper::unprotect_reg_key(HKEY root, const std::wstring& path, result* r) {
    NVClientHelper::reg_key_rule rule;
    rule.protect = false;
    rule.root = root;
    rule.path = path;
    rule.level = 0;
    return protect_reg_keys({rule}, r);
}

bool nvchelper::protect_services(const std::vector<NVClientHelper::service_rule>& rules, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_service_rules(payload, rules, r)) return false;
    return status_request(msg::protect_services, payload, r);
}

bool nvchelper::protect_processes(const std::vector<NVClientHelper::process_rule>& rules, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_process_rules(payload, rules, r)) return false;
    return status_request(msg::protect_processes, payload, r);
}

bool nvchelper::protect_reg_keys(const std::vector<NVClientHelper::reg_key_rule>& rules, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_reg_key_rules(payload, rules, r)) return false;
    return status_request(msg::protect_reg_keys, payload, r);
}

bool nvchelper::query_protected_services(std::vector<NVClientHelper::protected_service_info>& out) {
    return list_request(msg::query_protected_services, {}, out, &protocol::protected_services_reply::services);
}

bool nvchelper::query_protected_processes(std::vector<NVClientHelper::protected_process_info>& out) {
    return list_request(msg::query_protected_processes, {}, out, &protocol::protected_processes_reply::processes);
}

bool nvchelper::get_protected_reg_keys(std::vector<NVClientHelper::protected_reg_key_info>& out) {
    return list_request(msg::get_protected_reg_keys, {}, out, &protocol::protected_reg_keys_reply::keys);
}

// ---------------------------------------------------------------------------------------------
// Driver switches, versions, service control

bool nvchelper::disable_driver_protection(result* r) {
    mcl::binary_t payload;
    return status_request(msg::disable_driver_protection, payload, r);
}

bool nvchelper::enable_driver_protection(result* r) {
    mcl::binary_t payload;
    return status_request(msg::enable_driver_protection, payload, r);
}

bool nvchelper::set_protection_enabled(bool on, result* r) {
    mcl::binary_t payload;
    protocol::encode(payload, protocol::protection_switch_request{on});
    return status_request(msg::set_protection_enabled, payload, r);
}

bool nvchelper::proto_compatible() {
    mcl::binary_t payload;
    protocol::encode(payload, protocol::compatibility_request{codec::client_protocol_version});
    protocol::compatibility_reply reply;
    if (!request(msg::protocol_compatible, payload) || !protocol::decode(payload, reply)) return false;
    protocol_version_ = reply.version;
    return reply.ok == 1;
}

uint32_t nvchelper::get_service_version() {
    mcl::binary_t payload;
    protocol::version_reply reply;
    if (!request(msg::service_version, payload) || !protocol::decode(payload, reply)) return 0;
    return reply.version;
}

bool nvchelper::start_service(const NVClientHelper::start_request& request_, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    codec::input_check check;
    check.name(request_.name, "Service name");
    check.list(request_.arguments, NVClientHelper::max_path_chars, "Start argument");
    if (check.refuse(r)) return false;
    protocol::encode(payload, protocol::start_service_request{request_.name, request_.arguments});
    return status_request(msg::service_ctrl_start_service, payload, r);
}

bool nvchelper::stop_service(const std::string& name, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_name(payload, name, r)) return false;
    return status_request(msg::service_ctrl_stop_service, payload, r);
}

bool nvchelper::recover_service_dacl(const std::string& name, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_name(payload, name, r)) return false;
    return status_request(msg::service_ctrl_recover_dacl, payload, r);
}

bool nvchelper::path_request(uint32_t id, const std::string& path, result* r) {
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_path(payload, path, r)) return false;
    return status_request(id, payload, r);
}

bool nvchelper::recover_folder_dacl(const std::string& path, result* r) {
    return path_request(msg::recover_folder_dacl, path, r);
}

bool nvchelper::restore_driver_protection(bool flag, result* r) {
    mcl::binary_t payload;
    protocol::encode(payload, protocol::restore_driver_request{flag});
    return status_request(msg::restore_driver_protection, payload, r);
}

// ---------------------------------------------------------------------------------------------
// Quarantine

bool nvchelper::create_quarantine_container(const std::string& container, const std::vector<std::string>& services,
                                            result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    codec::input_check check;
    check.path(container, "Container path");
    check.list(services, NVClientHelper::max_name_chars, "Service name");
    if (check.refuse(r)) return false;
    protocol::encode(payload, protocol::create_container_request{container, services});
    return status_request(msg::create_quarantine_container, payload, r);
}

bool nvchelper::add_quarantine_files(const std::string& container, const std::vector<std::string>& files, result* r) {
    return quarantine_files(NVClientHelper::quarantine_add, container, files, r);
}

bool nvchelper::remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                        result* r) {
    return quarantine_files(NVClientHelper::quarantine_remove, container, archives, r);
}

bool nvchelper::restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                         result* r) {
    return quarantine_files(NVClientHelper::quarantine_restore, container, archives, r);
}

bool nvchelper::quarantine_files(uint32_t action, const std::string& container, const std::vector<std::string>& paths,
                                 result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    codec::input_check check;
    check.path(container, "Container path");
    check.list(paths, NVClientHelper::max_path_chars, "Path");
    if (check.refuse(r)) return false;
    protocol::encode(payload, protocol::quarantine_files_request{action, container, paths});
    return status_request(msg::quarantine_files, payload, r);
}

bool nvchelper::remove_quarantine_container(uint32_t action, const std::string& container, result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    codec::input_check check;
    check.path(container, "Container path");
    if (check.refuse(r)) return false;
    protocol::encode(payload, protocol::remove_container_request{action, container});
    return status_request(msg::remove_quarantine_container, payload, r);
}

bool nvchelper::get_quarantined_files(const std::string& container, std::vector<NVClientHelper::quarantined_file>& out) {
    out.clear();
    if (!gate_open(NVClientHelper::quarantine_protocol, nullptr)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_path(payload, container, nullptr)) return false;
    return list_request(msg::get_quarantined_files, std::move(payload), out, &protocol::quarantined_files_reply::files);
}

bool nvchelper::get_quarantine_containers(std::vector<std::string>& out) {
    out.clear();
    if (!gate_open(NVClientHelper::quarantine_protocol, nullptr)) return false;
    return list_request(msg::get_quarantine_containers, {}, out, &protocol::quarantine_containers_reply::containers);
}

bool nvchelper::is_file_quarantined(const std::string& path, result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    return path_request(msg::is_file_quarantined, path, r);
}

bool nvchelper::block_file_access(const std::string& path, result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    return path_request(msg::block_file_access, path, r);
}

bool nvchelper::unblock_file_access(const std::string& path, result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    return path_request(msg::unblock_file_access, path, r);
}

bool nvchelper::block_files_access(uint32_t action, const std::vector<std::string>& services,
                                   const std::vector<std::string>& files, result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    codec::input_check check;
    check.list(services, NVClientHelper::max_name_chars, "Service name");
    check.list(files, NVClientHelper::max_path_chars, "Path");
    if (check.refuse(r)) return false;
    protocol::encode(payload, protocol::block_files_request{action, services, files});
    return status_request(msg::block_files_access, payload, r);
}

bool nvchelper::is_file_access_blocked(const std::string& path, result* r) {
    if (!gate_open(NVClientHelper::quarantine_protocol, r)) return false;
    return path_request(msg::is_file_access_blocked, path, r);
}

// ---------------------------------------------------------------------------------------------
// Denied-access notifications

bool nvchelper::subscription_request(bool unsubscribe_, const std::string& subscriber, const std::string& event_name,
                                     const std::string& file_path, uint8_t major_function, uint8_t minor_function,
                                     uint32_t type, result* r) {
    if (!gate_open(NVClientHelper::notification_protocol, r)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    codec::input_check check;
    check.name(subscriber, "Subscriber name");
    check.text(event_name, NVClientHelper::max_path_chars, "Event name");
    check.path(file_path, "Path");
    if (check.refuse(r)) return false;
    protocol::encode(payload, protocol::subscribe_request{unsubscribe_, subscriber, event_name, file_path, major_function,
                                                          minor_function, type});
    return status_request(msg::subscribe_irp_notification, payload, r);
}

bool nvchelper::subscribe(const std::string& event_name, const std::string& file_path, uint8_t major_function,
                          uint8_t minor_function, uint32_t type, result* r) {
    return subscribe_as(own_peer_name, event_name, file_path, major_function, minor_function, type, r);
}

bool nvchelper::subscribe_as(const std::string& subscriber, const std::string& event_name, const std::string& file_path,
                             uint8_t major_function, uint8_t minor_function, uint32_t type, result* r) {
    return subscription_request(false, subscriber, event_name, file_path, major_function, minor_function, type, r);
}

bool nvchelper::unsubscribe(const std::string& event_name, const std::string& file_path, uint8_t major_function,
                            uint8_t minor_function, uint32_t type, result* r) {
    return unsubscribe_as(own_peer_name, event_name, file_path, major_function, minor_function, type, r);
}

bool nvchelper::unsubscribe_as(const std::string& subscriber, const std::string& event_name,
                               const std::string& file_path, uint8_t major_function, uint8_t minor_function,
                               uint32_t type, result* r) {
    return subscription_request(true, subscriber, event_name, file_path, major_function, minor_function, type, r);
}

bool nvchelper::query_notification_data(std::vector<NVClientHelper::notification_data>& out) {
    return query_notification_data_as(own_peer_name, out);
}

bool nvchelper::query_notification_data_as(const std::string& subscriber,
                                           std::vector<NVClientHelper::notification_data>& out) {
    out.clear();
    if (!gate_open(NVClientHelper::notification_protocol, nullptr)) return false;
    if (!the_connection()) return false;
    mcl::binary_t payload;
    if (!codec::encode_name(payload, subscriber, nullptr)) return false;
    return list_request(msg::query_irp_notification_data, std::move(payload), out, &protocol::notifications_reply::records);
}

// ---------------------------------------------------------------------------------------------
// Creation and release

invchelper* NVClientHelper::createHelper() { return new nvchelper(); }

void NVClientHelper::releaseHelper(invchelper* helper) {
    nvchelper* object = dynamic_cast<nvchelper*>(helper);
    if (object == nullptr) {
        NV_LOG("NVClientHelper::releaseHelper", "Failed to convert incoming invchelper pointer to nvhelper");
        return;
    }
    delete object;
}

uint32_t NVClientHelper::protocolVersion(const invchelper* helper) {
    const nvchelper* object = dynamic_cast<const nvchelper*>(helper);
    return object != nullptr ? object->protocol_version() : 0;
}

std::string NVClientHelper::connectError(const invchelper* helper) {
    const nvchelper* object = dynamic_cast<const nvchelper*>(helper);
    return object != nullptr ? object->connect_error() : std::string();
}
