// The request payloads the service reads, as plain functions over bytes: the handlers and the
// fuzz targets share them. Each returns false for a payload that does not hold the request;
// nothing else is checked here (names, paths and rules are judged by the handlers), except the
// bounds of the IRP notification requests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "service/irp_tables.h"

// One item of request 0x1000003.
struct process_rule {
    bool protect = false;
    std::wstring imagePath;
};

// One item of request 0x1000002.
struct service_rule {
    bool protectService = false;
    bool protectProcess = false;
    std::string name;
};

// One item of request 0x100000b.
struct reg_key_entry {
    uint8_t action = 0;  // non-zero: protect; 0: unprotect
    uint64_t root = 0;   // predefined root handle value, sign-extended to 64 bits
    std::wstring path;   // below the root
    std::string owner;   // the service on whose behalf the key is protected
    std::vector<std::string> services;  // further services with full access
    uint32_t level = 0;  // access left to others: 0 none, 2 write, other values read
};

namespace request_payload {

// 0x1000002: list of (bool protect service, bool protect process, string name).
[[nodiscard]] bool read_protect_services(const mcl::binary_t& payload, std::vector<service_rule>& rules);
// 0x1000003: list of (bool protect, wstring image path).
[[nodiscard]] bool read_protect_processes(const mcl::binary_t& payload, std::vector<process_rule>& rules);
// 0x1000008: one byte, non-zero for on.
[[nodiscard]] bool read_protection_switch(const mcl::binary_t& payload, bool& on);
// 0x1000009: the client's u32 version; any four bytes or more.
[[nodiscard]] bool read_protocol_compatible(const mcl::binary_t& payload);
// 0x100000b: list of reg_key_entry.
[[nodiscard]] bool read_reg_key_entry(reg_key_entry& entry, const mcl::binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_protect_reg_keys(const mcl::binary_t& payload, std::vector<reg_key_entry>& entries);
// One reg_key_entry as read_reg_key_entry reads it.
void write_reg_key_entry(mcl::binary_t& out, const reg_key_entry& entry);
// 0x1000065: string service name (not empty), string list of arguments.
[[nodiscard]] bool read_start_service(const mcl::binary_t& payload, std::string& name, std::vector<std::string>& args);
// 0x1000066, 0x1000067: string service name; 0x1000069: string folder path. Not empty.
[[nodiscard]] bool read_name(const mcl::binary_t& payload, std::string& name);
// 0x1000068: any bytes but none.
[[nodiscard]] bool read_restore_driver_protection(const mcl::binary_t& payload);
// 0x10000fa: byte unsubscribe, string subscriber, string event name, string file path, byte
// major, byte minor, u32 type. Oversized: larger than any well-formed request, a field over its
// bound, or bytes after the last field. Reads nothing of a payload that is too large.
irp::request_check read_subscribe_irp_notification(const mcl::binary_t& payload, irp::subscribe_request& out);
// 0x10000fb: string subscriber. An empty payload is `truncated`.
irp::request_check read_query_irp_notification_data(const mcl::binary_t& payload, std::string& subscriber);

}  // namespace request_payload
