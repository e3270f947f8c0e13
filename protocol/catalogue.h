// Every message of the catalogue with its request and reply layouts, for the code that handles
// messages generically: the command-line client and the conformance tests.
//
//   protocol::for_each_message([&](auto m) {
//       using message = decltype(m);  // message::id, message::request, message::reply
//       ... m.name ...
//   });
#pragma once

#include <cstdint>

#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"

namespace protocol {

template <uint32_t Id, typename Request, typename Reply>
struct message {
    static constexpr uint32_t id = Id;
    using request = Request;
    using reply = Reply;
    const char* name;  // lower case, words joined by '-'
};

// Calls `f` with one `message` value per catalogue identifier, in identifier order.
template <typename F>
void for_each_message(F&& f) {
    f(message<msg::disconnect, no_fields, no_reply>{"disconnect"});
    f(message<msg::stop_service, no_fields, no_reply>{"stop-service"});
    f(message<msg::protect_services, protect_services_request, status_reply>{"protect-services"});
    f(message<msg::protect_processes, protect_processes_request, status_reply>{"protect-processes"});
    f(message<msg::query_protected_services, no_fields, protected_services_reply>{"query-protected-services"});
    f(message<msg::query_protected_processes, no_fields, protected_processes_reply>{"query-protected-processes"});
    f(message<msg::disable_driver_protection, no_fields, status_reply>{"disable-driver-protection"});
    f(message<msg::enable_driver_protection, no_fields, status_reply>{"enable-driver-protection"});
    f(message<msg::set_protection_enabled, protection_switch_request, status_reply>{"set-protection-enabled"});
    f(message<msg::protocol_compatible, compatibility_request, compatibility_reply>{"protocol-compatible"});
    f(message<msg::service_version, no_fields, version_reply>{"service-version"});
    f(message<msg::protect_reg_keys, protect_reg_keys_request, status_reply>{"protect-reg-keys"});
    f(message<msg::get_protected_reg_keys, no_fields, protected_reg_keys_reply>{"get-protected-reg-keys"});
    f(message<msg::service_ctrl_start_service, start_service_request, status_reply>{"start-service"});
    f(message<msg::service_ctrl_stop_service, name_request, status_reply>{"stop-service-by-name"});
    f(message<msg::service_ctrl_recover_dacl, name_request, status_reply>{"recover-service-dacl"});
    f(message<msg::restore_driver_protection, restore_driver_request, status_reply>{"restore-driver-protection"});
    f(message<msg::recover_folder_dacl, name_request, status_reply>{"recover-folder-dacl"});
    f(message<msg::create_quarantine_container, create_container_request, status_reply>{"create-quarantine-container"});
    f(message<msg::quarantine_files, quarantine_files_request, status_reply>{"quarantine-files"});
    f(message<msg::remove_quarantine_container, remove_container_request, status_reply>{"remove-quarantine-container"});
    f(message<msg::get_quarantined_files, name_request, quarantined_files_reply>{"get-quarantined-files"});
    f(message<msg::get_quarantine_containers, no_fields, quarantine_containers_reply>{"get-quarantine-containers"});
    f(message<msg::is_file_quarantined, name_request, status_reply>{"is-file-quarantined"});
    f(message<msg::block_file_access, name_request, status_reply>{"block-file-access"});
    f(message<msg::unblock_file_access, name_request, status_reply>{"unblock-file-access"});
    f(message<msg::block_files_access, block_files_request, status_reply>{"block-files-access"});
    f(message<msg::is_file_access_blocked, name_request, status_reply>{"is-file-access-blocked"});
    f(message<msg::subscribe_irp_notification, subscribe_request, status_reply>{"subscribe-irp-notification"});
    f(message<msg::query_irp_notification_data, notification_query_request, notifications_reply>{"query-irp-notification-data"});
}

}  // namespace protocol
