// Every request layout of the codec, fed what the fuzzer makes of a valid payload of that
// request (the corpus holds one per request) and the shorter payloads cut from it. The first
// input byte picks the layout, the rest is the payload. What the decoder accepts must come out
// the same after encoding it again and decoding that.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "protocol/requests.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

// The decoders answer with a bool or, for the notification requests, a request_check.
template <typename Request>
bool accepted(const mcl::binary_t& payload, Request& out) {
    const auto outcome = protocol::decode(payload, out);
    if constexpr (std::is_same_v<decltype(outcome), const protocol::request_check>)
        return outcome == protocol::request_check::ok;
    else
        return outcome;
}

template <typename Request>
void round_trip(const mcl::binary_t& payload) {
    Request request;
    const bool ok = accepted(payload, request);
    // The layouts that take any payload long enough.
    if constexpr (std::is_same_v<Request, protocol::protection_switch_request> ||
                  std::is_same_v<Request, protocol::restore_driver_request>)
        check(ok == !payload.empty());
    if constexpr (std::is_same_v<Request, protocol::compatibility_request>) check(ok == (payload.size() >= 4));
    if (!ok) return;
    if constexpr (std::is_same_v<Request, protocol::name_request>)
        check(!request.name.empty() && request.name.size() < payload.size());
    mcl::binary_t again;
    protocol::encode(again, request);
    check(again.size() <= payload.size());
    Request reread;
    check(accepted(again, reread));
    mcl::binary_t third;
    protocol::encode(third, reread);
    check(third == again);
}

// In the order of the first byte of the corpus files.
void (*const layouts[])(const mcl::binary_t&) = {
    round_trip<protocol::protect_services_request>,    // 0: 0x1000002
    round_trip<protocol::protect_processes_request>,   // 1: 0x1000003
    round_trip<protocol::protection_switch_request>,   // 2: 0x1000008
    round_trip<protocol::compatibility_request>,       // 3: 0x1000009
    round_trip<protocol::protect_reg_keys_request>,    // 4: 0x100000b
    round_trip<protocol::start_service_request>,       // 5: 0x1000065
    round_trip<protocol::name_request>,                // 6: 0x1000066, 67, 69, 0x10000cc, ce, cf, d0, d2
    round_trip<protocol::restore_driver_request>,      // 7: 0x1000068
    round_trip<protocol::subscribe_request>,           // 8: 0x10000fa
    round_trip<protocol::notification_query_request>,  // 9: 0x10000fb
    round_trip<protocol::create_container_request>,    // 10: 0x10000c9
    round_trip<protocol::quarantine_files_request>,    // 11: 0x10000ca
    round_trip<protocol::remove_container_request>,    // 12: 0x10000cb
    round_trip<protocol::block_files_request>,         // 13: 0x10000d1
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > UINT32_MAX) return 0;
    const auto read = layouts[data[0] % (sizeof(layouts) / sizeof(layouts[0]))];
    const mcl::binary_t payload(data + 1, static_cast<uint32_t>(size - 1));
    read(payload);
    // Payloads cut short: every field boundary of a small payload, halvings of a large one.
    const uint32_t n = payload.size();
    for (uint32_t cut = n; cut-- > 0;) {
        if (n > 64 && cut != n - 1 && cut != n / 2 && cut != n / 4) continue;
        read(mcl::binary_t(payload.data(), cut));
    }
    return 0;
}
