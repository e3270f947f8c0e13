// The request payloads of the pipe protocol: one plain struct per layout, one encoder and one
// decoder each, shared by the client that writes a request and the service that reads it.
//
// Decoders read from the start of the payload. They return false (or a request_check other than
// `ok`) for a payload that does not hold the request; fields read before the failing one stay
// stored. Bytes after the last field are ignored, except by the two notification requests, which
// bound their whole payload. What a name, path or rule means is judged by the service, not here,
// except that the requests that name one thing refuse an empty name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mcl/buffer.h"

namespace protocol {

// Requests whose payload the service ignores: disconnect, stop service, the protection lists,
// the driver switches, the service version and the container list.
struct no_fields {};

// One item of the protect-services request.
struct service_rule {
    bool protectService = false;
    bool protectProcess = false;
    std::string name;
};

// One item of the protect-processes request.
struct process_rule {
    bool protect = false;
    std::wstring imagePath;
};

// One item of the protect-registry-keys request.
struct reg_key_entry {
    uint8_t action = 0;  // non-zero: protect; 0: unprotect
    uint64_t root = 0;   // predefined root handle value, sign-extended to 64 bits
    std::wstring path;   // below the root
    std::string owner;   // the service on whose behalf the key is protected
    std::vector<std::string> services;  // further services with full access
    uint32_t level = 0;  // access left to others: 0 none, 2 write, other values read
};

// List of (byte protect service, byte protect process, string name).
struct protect_services_request {
    std::vector<service_rule> rules;
};

// List of (byte protect, wstring image path).
struct protect_processes_request {
    std::vector<process_rule> rules;
};

// List of (byte action, u64 root, wstring path, string owner, string list services, u32 level).
struct protect_reg_keys_request {
    std::vector<reg_key_entry> entries;
};

// One byte, non-zero for on.
struct protection_switch_request {
    bool on = false;
};

// The client's u32 protocol version; any four bytes or more.
struct compatibility_request {
    uint32_t version = 0;
};

// String service name (not empty), string list of start arguments.
struct start_service_request {
    std::string name;
    std::vector<std::string> arguments;
};

// One string naming a service, folder, container or file; not empty.
struct name_request {
    std::string name;
};

// One byte; any payload but an empty one.
struct restore_driver_request {
    bool flag = false;
};

// String container path, string list of services with full access.
struct create_container_request {
    std::string path;
    std::vector<std::string> services;
};

// u32 action (0 add, 1 remove, 2 restore), string container, string list of paths.
struct quarantine_files_request {
    uint32_t action = 0;
    std::string container;
    std::vector<std::string> paths;
};

// u32 action (1 delete the archives, 2 restore them), string container path.
struct remove_container_request {
    uint32_t action = 0;
    std::string path;
};

// u32 action (0 block, other values unblock), string list of services, string list of paths.
struct block_files_request {
    uint32_t action = 0;
    std::vector<std::string> services;
    std::vector<std::string> paths;
};

// What the notification requests bound: a subscriber or event name, a UTF-8 file path (both
// without the terminator), and the largest well-formed payloads.
inline constexpr size_t max_name_bytes = 260;
inline constexpr size_t max_path_bytes = 1024;
inline constexpr size_t max_subscribe_payload = 1 + 2 * (max_name_bytes + 1) + (max_path_bytes + 1) + 1 + 1 + 4;
inline constexpr size_t max_query_payload = max_name_bytes + 1;

enum class request_check { ok, truncated, oversized };

// Byte unsubscribe, string subscriber, string event name, string file path, byte major, byte
// minor, u32 type. Oversized: larger than any well-formed request, a field over its bound, or
// bytes after the last field; nothing is read of a payload that is too large.
struct subscribe_request {
    bool unsubscribe = false;
    std::string subscriber;
    std::string event_name;
    std::string file_path;
    uint8_t major_function = 0xFF;
    uint8_t minor_function = 0xFF;
    uint32_t type = 0;
};

// String subscriber; an empty payload is `truncated`.
struct notification_query_request {
    std::string subscriber;
};

void encode(mcl::binary_t& out, const no_fields&);
void encode(mcl::binary_t& out, const protect_services_request& request);
void encode(mcl::binary_t& out, const protect_processes_request& request);
void encode(mcl::binary_t& out, const protect_reg_keys_request& request);
void encode(mcl::binary_t& out, const protection_switch_request& request);
void encode(mcl::binary_t& out, const compatibility_request& request);
void encode(mcl::binary_t& out, const start_service_request& request);
void encode(mcl::binary_t& out, const name_request& request);
void encode(mcl::binary_t& out, const restore_driver_request& request);
void encode(mcl::binary_t& out, const create_container_request& request);
void encode(mcl::binary_t& out, const quarantine_files_request& request);
void encode(mcl::binary_t& out, const remove_container_request& request);
void encode(mcl::binary_t& out, const block_files_request& request);
void encode(mcl::binary_t& out, const subscribe_request& request);
void encode(mcl::binary_t& out, const notification_query_request& request);
// One list element, as the protect-registry-keys request carries it.
void encode(mcl::binary_t& out, const reg_key_entry& entry);

[[nodiscard]] bool decode(const mcl::binary_t& in, no_fields&);
[[nodiscard]] bool decode(const mcl::binary_t& in, protect_services_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, protect_processes_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, protect_reg_keys_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, protection_switch_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, compatibility_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, start_service_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, name_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, restore_driver_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, create_container_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, quarantine_files_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, remove_container_request& request);
[[nodiscard]] bool decode(const mcl::binary_t& in, block_files_request& request);
[[nodiscard]] request_check decode(const mcl::binary_t& in, subscribe_request& request);
[[nodiscard]] request_check decode(const mcl::binary_t& in, notification_query_request& request);
// One list element at `pos`, advancing it.
[[nodiscard]] bool decode(const mcl::binary_t& in, uint32_t& pos, reg_key_entry& entry);

}  // namespace protocol
