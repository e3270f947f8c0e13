// Feeds arbitrary bytes to every payload reader, in the orders the message handlers use.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mcl/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > UINT32_MAX) return 0;
    const mcl::binary_t payload(data, static_cast<uint32_t>(size));
    for (uint32_t start = 0; start < 8 && start <= payload.size(); ++start) {
        uint32_t pos = start;
        uint8_t b = 0;
        uint32_t u = 0;
        uint64_t q = 0;
        std::string s;
        std::wstring w;
        std::vector<std::string> list;
        bool ok = false;
        // A mixed record, as the subscription and quarantine requests carry.
        if (mcl::read_byte(b, payload, pos) && mcl::read_string(s, payload, pos) && mcl::read_wstring(w, payload, pos) &&
            mcl::read_u32(u, payload, pos) && mcl::read_u64(q, payload, pos) && mcl::read_string_list(list, payload, pos)) {
            (void)mcl::read_status(ok, s, payload, pos);
        }
        if (pos > payload.size()) __builtin_trap();
        pos = start;
        std::vector<std::vector<std::string>> nested;
        (void)mcl::read_list(nested, payload, pos, [](std::vector<std::string>& v, const mcl::binary_t& in, uint32_t& p) {
            return mcl::read_string_list(v, in, p);
        });
        if (pos > payload.size()) __builtin_trap();
    }
    (void)mcl::to_hex(payload);
    return 0;
}
