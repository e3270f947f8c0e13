// Every request and reply layout of the codec, fed what the fuzzer makes of a valid payload of
// that layout (the corpus holds one per request) and the shorter payloads cut from it. The first
// input byte picks the layout, the rest is the payload. What the decoder accepts must come out
// the same after encoding it again and decoding that. The replies are read by the client from
// whatever serves the pipe; together the layouts reach every payload reader of mcl/encoding.h.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "tests/unit/protocol/conformance.h"

namespace {

using nv_test::accepted;

void check(bool condition) { if (!condition) __builtin_trap(); }

template <typename Layout>
void round_trip(const mcl::binary_t& payload) {
    Layout value;
    const bool ok = accepted(payload, value);
    // The layouts that take any payload long enough.
    if constexpr (std::is_same_v<Layout, protocol::protection_switch_request> ||
                  std::is_same_v<Layout, protocol::restore_driver_request>)
        check(ok == !payload.empty());
    if constexpr (std::is_same_v<Layout, protocol::compatibility_request>) check(ok == (payload.size() >= 4));
    if (!ok) return;
    if constexpr (std::is_same_v<Layout, protocol::name_request>)
        check(!value.name.empty() && value.name.size() < payload.size());
    mcl::binary_t again;
    protocol::encode(again, value);
    check(again.size() <= payload.size());
    Layout reread;
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
    // 14 to 22: the replies.
    round_trip<protocol::status_reply>, round_trip<protocol::compatibility_reply>, round_trip<protocol::version_reply>,
    round_trip<protocol::protected_services_reply>, round_trip<protocol::protected_processes_reply>,
    round_trip<protocol::protected_reg_keys_reply>, round_trip<protocol::quarantined_files_reply>,
    round_trip<protocol::quarantine_containers_reply>, round_trip<protocol::notifications_reply>,
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
