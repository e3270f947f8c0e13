// Identifiers of the request messages, shared by the service, the client, the tools and the tests.
#pragma once

#include <cstdint>

namespace msg {

// Every identifier lies in [first, first + span).
inline constexpr uint32_t first = 0x1000000;
inline constexpr uint32_t span = 252;

inline constexpr uint32_t disconnect = 0x1000000;
inline constexpr uint32_t stop_service = 0x1000001;
inline constexpr uint32_t protect_services = 0x1000002;
inline constexpr uint32_t protect_processes = 0x1000003;
inline constexpr uint32_t query_protected_services = 0x1000004;
inline constexpr uint32_t query_protected_processes = 0x1000005;
inline constexpr uint32_t disable_driver_protection = 0x1000006;
inline constexpr uint32_t enable_driver_protection = 0x1000007;
inline constexpr uint32_t set_protection_enabled = 0x1000008;
inline constexpr uint32_t protocol_compatible = 0x1000009;
inline constexpr uint32_t service_version = 0x100000a;
inline constexpr uint32_t protect_reg_keys = 0x100000b;
inline constexpr uint32_t get_protected_reg_keys = 0x100000c;
inline constexpr uint32_t service_ctrl_start_service = 0x1000065;
inline constexpr uint32_t service_ctrl_stop_service = 0x1000066;
inline constexpr uint32_t service_ctrl_recover_dacl = 0x1000067;
inline constexpr uint32_t restore_driver_protection = 0x1000068;
inline constexpr uint32_t recover_folder_dacl = 0x1000069;
inline constexpr uint32_t create_quarantine_container = 0x10000c9;
inline constexpr uint32_t quarantine_files = 0x10000ca;
inline constexpr uint32_t remove_quarantine_container = 0x10000cb;
inline constexpr uint32_t get_quarantined_files = 0x10000cc;
inline constexpr uint32_t get_quarantine_containers = 0x10000cd;
inline constexpr uint32_t is_file_quarantined = 0x10000ce;
inline constexpr uint32_t block_file_access = 0x10000cf;
inline constexpr uint32_t unblock_file_access = 0x10000d0;
inline constexpr uint32_t block_files_access = 0x10000d1;
inline constexpr uint32_t is_file_access_blocked = 0x10000d2;
inline constexpr uint32_t subscribe_irp_notification = 0x10000fa;
inline constexpr uint32_t query_irp_notification_data = 0x10000fb;

// Every identifier the service understands.
inline constexpr uint32_t catalogue[] = {
    disconnect, stop_service, protect_services, protect_processes, query_protected_services,
    query_protected_processes, disable_driver_protection, enable_driver_protection, set_protection_enabled,
    protocol_compatible, service_version, protect_reg_keys, get_protected_reg_keys, service_ctrl_start_service,
    service_ctrl_stop_service, service_ctrl_recover_dacl, restore_driver_protection, recover_folder_dacl,
    create_quarantine_container, quarantine_files, remove_quarantine_container, get_quarantined_files,
    get_quarantine_containers, is_file_quarantined, block_file_access, unblock_file_access, block_files_access,
    is_file_access_blocked, subscribe_irp_notification, query_irp_notification_data,
};

inline bool in_catalogue(uint32_t id) {
    for (uint32_t known : catalogue)
        if (known == id) return true;
    return false;
}

}  // namespace msg
