// The request dispatcher: one table from message identifier to handler, and the handlers of the
// connection and control messages.
#include <iterator>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "protocol/message_ids.h"
#include "service/helper_service.h"
#include "service/release.h"
#include "service/request_payloads.h"

namespace {

using handler_fn = void (chelperservice::*)(mcl::ipc_connection*, mcl::binary_t&);

// Whether a request may change what the service protects, holds or runs: each one handled
// writes an audit line naming the request and the client process.
enum route_effect : bool { reads_only = false, changes_state = true };

struct request_route {
    uint32_t id;
    handler_fn handler;
    const char* name;
    route_effect effect = reads_only;
};

// One route for every identifier of the catalogue; any other identifier is unknown.
const request_route routes[] = {
    {msg::disconnect, &chelperservice::disconnect_client, "disconnect"},
    {msg::stop_service, &chelperservice::stop_service, "stop service", changes_state},
    {msg::protocol_compatible, &chelperservice::protocol_compatible, "protocol compatibility"},
    {msg::service_version, &chelperservice::service_version_query, "service version"},

    // Driver command port.
    {msg::disable_driver_protection, &chelperservice::disable_driver_protection, "driver protection off", changes_state},
    {msg::enable_driver_protection, &chelperservice::enable_driver_protection, "driver protection on", changes_state},
    {msg::set_protection_enabled, &chelperservice::set_protection_enabled, "protection master switch", changes_state},

    // Process and folder protection.
    {msg::protect_processes, &chelperservice::protect_processes, "protect processes", changes_state},
    {msg::query_protected_processes, &chelperservice::query_protected_processes, "query protected processes"},

    // Service protection.
    {msg::protect_services, &chelperservice::protect_services, "protect services", changes_state},
    {msg::query_protected_services, &chelperservice::query_protected_services, "query protected services"},

    // Registry key protection.
    {msg::protect_reg_keys, &chelperservice::protect_reg_keys, "protect reg keys", changes_state},
    {msg::get_protected_reg_keys, &chelperservice::get_protected_reg_keys, "get protected reg keys"},

    // Enforcement and service control.
    {msg::service_ctrl_start_service, &chelperservice::service_ctrl_start_service, "start service", changes_state},
    {msg::service_ctrl_stop_service, &chelperservice::service_ctrl_stop_service, "stop service by name", changes_state},
    {msg::service_ctrl_recover_dacl, &chelperservice::service_ctrl_recover_dacl, "recover service DACL", changes_state},
    {msg::restore_driver_protection, &chelperservice::restore_driver_protection, "restore driver protection", changes_state},
    {msg::recover_folder_dacl, &chelperservice::recover_folder_dacl, "recover folder DACL", changes_state},

    // Quarantine.
    {msg::create_quarantine_container, &chelperservice::create_quarantine_container, "create quarantine container", changes_state},
    {msg::quarantine_files, &chelperservice::quarantine_files, "quarantine files", changes_state},
    {msg::remove_quarantine_container, &chelperservice::remove_quarantine_container, "remove quarantine container", changes_state},
    {msg::get_quarantined_files, &chelperservice::get_quarantined_files, "list quarantined files"},
    {msg::get_quarantine_containers, &chelperservice::get_quarantine_containers, "list quarantine containers"},
    {msg::is_file_quarantined, &chelperservice::is_file_quarantined, "is file quarantined"},
    {msg::block_file_access, &chelperservice::block_file_access, "block file access", changes_state},
    {msg::unblock_file_access, &chelperservice::unblock_file_access, "unblock file access", changes_state},
    {msg::block_files_access, &chelperservice::block_files_access, "block files access", changes_state},
    {msg::is_file_access_blocked, &chelperservice::is_file_access_blocked, "is file access blocked"},

    // IRP-denied notifications.
    {msg::subscribe_irp_notification, &chelperservice::subscribe_irp_notification, "subscribe IRP notification"},
    {msg::query_irp_notification_data, &chelperservice::query_irp_notification_data, "query IRP notification data"},
};

const request_route* find_route(uint32_t id) {
    if (id - msg::first >= msg::span) return nullptr;
    for (const request_route& r : routes)
        if (r.id == id) return &r;
    return nullptr;
}

static_assert(std::size(routes) == std::size(msg::catalogue), "every catalogue identifier has a route");

}  // namespace

int chelperservice::helper_msg_handler::operator()(mcl::ipc_connection* conn, uint32_t msg_id,
                                                   mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::helper_msg_handler::operator ()";
    if (conn == nullptr) return 0;
    NV_LOG(fn, "Received IPC message %X, payload size: %d", msg_id, static_cast<int>(payload.size()));
    const request_route* route = find_route(msg_id);
    if (route != nullptr && route->effect == changes_state)
        NV_LOG(fn, "Audit: request \"%s\" (IPC message %X) from process %lu (%s)", route->name, msg_id,
               static_cast<unsigned long>(conn->client_process_id()),
               conn->client_image().empty() ? "image unknown" : conn->client_image().c_str());
    if (route == nullptr) {
        NV_LOG(fn, "Unknow mc::ipc message %X, ignored", msg_id);
        return 1;
    }
    (owner_->*route->handler)(conn, payload);
    return 1;
}

void chelperservice::disconnect_client(mcl::ipc_connection* conn, mcl::binary_t&) {
    // The connection stays alive for this call: the queued event holds a reference.
    disconnect(mcl::share_ptr<mcl::ipc_connection>(conn));
}

void chelperservice::stop_service(mcl::ipc_connection*, mcl::binary_t&) {
    if (service_stop_event() != nullptr) SetEvent(service_stop_event());
}

void chelperservice::protocol_compatible(mcl::ipc_connection*, mcl::binary_t& payload) {
    // The client sends its own version; any four bytes make the request well formed.
    const bool ok = request_payload::read_protocol_compatible(payload);
    payload.clear();
    mcl::write_byte(payload, ok ? 1 : 0);
    mcl::write_u32(payload, this_release().ipc_protocol);
}

void chelperservice::service_version_query(mcl::ipc_connection*, mcl::binary_t& payload) {
    payload.clear();
    mcl::write_u32(payload, this_release().packed_version);
}
