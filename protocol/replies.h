// The reply payloads of the pipe protocol: one plain struct per layout, one encoder and one
// decoder each, shared by the service that writes a reply and the client that reads it.
//
// Decoders read from the start of the payload and return false for a reply that is cut short;
// bytes after the last field are ignored. Every layout has a failure form, which the service
// sends for a request it cannot decode or handle: result 0 with an empty message for the status
// reply, an empty list for the lists, ok 0 for the compatibility reply and version 0 for the
// service version.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "mcl/buffer.h"

namespace protocol {

// Byte result (1 success, 0 failure), string message: the answer to most requests.
struct status_reply {
    uint8_t result = 0;
    std::string message;
};

// Byte ok (1: the request held a version), u32 the service's protocol version.
struct compatibility_reply {
    uint8_t ok = 0;
    uint32_t version = 0;
};

// u32 the service's version, packed as major << 16 | minor << 8 | patch.
struct version_reply {
    uint32_t version = 0;
};

struct protected_service_info {
    bool valid = false;
    bool process_protected = false;
    std::string service_sddl;
    std::string folder_sddl;
    std::string name;
    std::string sid;
    std::wstring image_path;
    std::wstring folder;
};

struct protected_process_info {
    bool valid = false;
    std::string folder_sddl;
    std::wstring image_path;
    std::wstring folder;
};

struct protected_reg_key_info {
    bool valid = false;
    std::string original_sddl;
    std::string current_sddl;
    uint64_t root = 0;  // the root's handle value, sign-extended (HKLM is 0xFFFFFFFF80000002)
    std::wstring path;
    std::string owner;
    std::vector<std::string> services;
};

struct quarantined_file {
    std::string archive_name;   // file name of the archive inside the container
    std::string recorded_path;  // where the file was, and where a restore puts it
};

// One access the driver denied on a subscribed file.
struct notification_data {
    uint64_t sequence = 0;
    uint64_t time = 0;  // FILETIME, UTC
    std::string file_path;
    uint8_t major_function = 0;
    uint8_t minor_function = 0;
    uint64_t process_id = 0;
    std::string process_image;
    std::string process_description;
    uint32_t irp_denied = 0;
};

struct protected_services_reply {
    std::vector<protected_service_info> services;
};

struct protected_processes_reply {
    std::vector<protected_process_info> processes;
};

struct protected_reg_keys_reply {
    std::vector<protected_reg_key_info> keys;
};

struct quarantined_files_reply {
    std::vector<quarantined_file> files;
};

struct quarantine_containers_reply {
    std::vector<std::string> containers;
};

struct notifications_reply {
    std::vector<notification_data> records;
};

// A request that is answered by no reply: disconnect and stop service.
struct no_reply {};

void encode(mcl::binary_t& out, const status_reply& reply);
void encode(mcl::binary_t& out, const compatibility_reply& reply);
void encode(mcl::binary_t& out, const version_reply& reply);
void encode(mcl::binary_t& out, const protected_services_reply& reply);
void encode(mcl::binary_t& out, const protected_processes_reply& reply);
void encode(mcl::binary_t& out, const protected_reg_keys_reply& reply);
void encode(mcl::binary_t& out, const quarantined_files_reply& reply);
void encode(mcl::binary_t& out, const quarantine_containers_reply& reply);
void encode(mcl::binary_t& out, const notifications_reply& reply);

[[nodiscard]] bool decode(const mcl::binary_t& in, status_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, compatibility_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, version_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, protected_services_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, protected_processes_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, protected_reg_keys_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, quarantined_files_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, quarantine_containers_reply& reply);
[[nodiscard]] bool decode(const mcl::binary_t& in, notifications_reply& reply);

// The status reply of an outcome.
inline status_reply status(bool ok, std::string message = std::string()) {
    return status_reply{static_cast<uint8_t>(ok ? 1 : 0), std::move(message)};
}

// Replaces `out` with `reply`.
template <typename Reply>
void reply_with(mcl::binary_t& out, const Reply& reply) {
    out.clear();
    encode(out, reply);
}

// Replaces `out` with the failure form of the reply layout `Reply` (see above); a `no_reply`
// leaves it as it is.
template <typename Reply>
void encode_failure(mcl::binary_t& out) {
    out.clear();
    encode(out, Reply{});
}
template <>
inline void encode_failure<no_reply>(mcl::binary_t&) {}

}  // namespace protocol
