// What the conformance tests share: a sample value of every request and reply layout, the
// malformed forms of a request, and what the client reads as a failure.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/encoding.h"
#include "protocol/replies.h"
#include "protocol/requests.h"

namespace nv_test {

inline std::vector<uint8_t> bytes_of(const mcl::binary_t& b) { return std::vector<uint8_t>(b.data(), b.data() + b.size()); }

template <typename T>
mcl::binary_t encoded(const T& value) {
    mcl::binary_t out;
    protocol::encode(out, value);
    return out;
}

// Whether the codec takes `payload` as a `T`, for the decoders that answer with a bool and for
// those that answer with a request_check.
template <typename T>
bool accepted(const mcl::binary_t& payload, T& out) {
    const auto outcome = protocol::decode(payload, out);
    if constexpr (std::is_same_v<decltype(outcome), const protocol::request_check>) {
        return outcome == protocol::request_check::ok;
    } else {
        return outcome;
    }
}

// ---- one sample value per layout, every field set

template <typename T>
T sample();

template <> inline protocol::no_fields sample() { return {}; }
template <> inline protocol::protect_services_request sample() {
    return {{{true, false, "nv_sample_a"}, {false, true, "nv_sample_b"}}};
}
template <> inline protocol::protect_processes_request sample() { return {{{true, L"C:\\nv\\a.exe"}, {false, L"b.exe"}}}; }
template <> inline protocol::protect_reg_keys_request sample() {
    return {{{1, 0xFFFFFFFF80000002ULL, L"SOFTWARE\\nv_sample", "nv_owner", {"nv_a", "nv_b"}, 2}}};
}
template <> inline protocol::protection_switch_request sample() { return {true}; }
template <> inline protocol::compatibility_request sample() { return {5}; }
template <> inline protocol::start_service_request sample() { return {"nv_no_such_service", {"-a", "b"}}; }
template <> inline protocol::name_request sample() { return {"c:\\nv_no_such_folder\\file.txt"}; }
template <> inline protocol::restore_driver_request sample() { return {true}; }
template <> inline protocol::create_container_request sample() { return {"c:\\nv_no_such_container", {"nv_a"}}; }
template <> inline protocol::quarantine_files_request sample() { return {2, "c:\\nv_no_such_container", {"a.QUA"}}; }
template <> inline protocol::remove_container_request sample() { return {1, "c:\\nv_no_such_container"}; }
template <> inline protocol::block_files_request sample() { return {1, {"nv_a"}, {"c:\\nv\\x.txt", "c:\\nv\\y.txt"}}; }
template <> inline protocol::subscribe_request sample() { return {true, "nv_sub", "Global\\nv_event", "c:\\nv\\f.txt", 3, 4, 1}; }
template <> inline protocol::notification_query_request sample() { return {"nv_sub"}; }

template <> inline protocol::status_reply sample() { return {1, "done"}; }
template <> inline protocol::compatibility_reply sample() { return {1, 5}; }
template <> inline protocol::version_reply sample() { return {0x3002D}; }
template <> inline protocol::protected_services_reply sample() {
    return {{{true, true, "D:(A;;CC;;;SY)", "D:P", "nv_a", "S-1-5-80-1", L"C:\\nv\\a.exe", L"C:\\nv"}}};
}
template <> inline protocol::protected_processes_reply sample() { return {{{true, "D:P", L"C:\\nv\\a.exe", L"C:\\nv"}}}; }
template <> inline protocol::protected_reg_keys_reply sample() {
    return {{{true, "D:(A;;KA;;;BA)", "D:P", 0xFFFFFFFF80000002ULL, L"SOFTWARE\\nv", "nv_owner", {"nv_a"}}}};
}
template <> inline protocol::quarantined_files_reply sample() { return {{{"f.txt.0123456789ABCDEF.QUA", "c:\\nv\\f.txt"}}}; }
template <> inline protocol::quarantine_containers_reply sample() { return {{"c:\\nv\\q\\", "d:\\q\\"}}; }
template <> inline protocol::notifications_reply sample() {
    return {{{7, 133000000000000000ULL, "c:\\nv\\f.txt", 3, 0, 1234, "c:\\x.exe", "X", 1}}};
}

// ---- what the client reads as a failure: result 0, ok 0, an empty list

inline bool failed(const protocol::status_reply& r) { return r.result == 0; }
inline bool failed(const protocol::compatibility_reply& r) { return r.ok == 0; }
inline bool failed(const protocol::version_reply& r) { return r.version == 0; }
inline bool failed(const protocol::protected_services_reply& r) { return r.services.empty(); }
inline bool failed(const protocol::protected_processes_reply& r) { return r.processes.empty(); }
inline bool failed(const protocol::protected_reg_keys_reply& r) { return r.keys.empty(); }
inline bool failed(const protocol::quarantined_files_reply& r) { return r.files.empty(); }
inline bool failed(const protocol::quarantine_containers_reply& r) { return r.containers.empty(); }
inline bool failed(const protocol::notifications_reply& r) { return r.records.empty(); }

// The reply decodes as a `Reply` and says failure.
template <typename Reply>
bool reads_as_failure(const mcl::binary_t& reply) {
    Reply r;
    return protocol::decode(reply, r) && failed(r);
}

// ---- malformed requests

enum class malformed_kind { empty, truncated, trailing, oversized };

struct malformed {
    malformed_kind kind;
    const char* what;
    mcl::binary_t payload;
};

// The empty payload, the sample without its last byte, the sample with one byte more, and a
// run of 0xFF bytes longer than any well-formed request (a string without its terminator, a
// list count over the limit).
template <typename Request>
std::vector<malformed> malformed_payloads() {
    const mcl::binary_t whole = encoded(sample<Request>());
    mcl::binary_t trailing = whole;
    mcl::write_byte(trailing, 0);
    const std::vector<uint8_t> run(protocol::max_subscribe_payload + 1, 0xFF);
    return {
        {malformed_kind::empty, "empty", mcl::binary_t()},
        {malformed_kind::truncated, "truncated", mcl::binary_t(whole.data(), whole.size() - 1)},
        {malformed_kind::trailing, "trailing byte", trailing},
        {malformed_kind::oversized, "oversized", mcl::binary_t(run.data(), static_cast<uint32_t>(run.size()))},
    };
}

}  // namespace nv_test
