// What a subscriber of IRP-denied notifications reads: the records of a 0x10000fb reply.
#pragma once

#include <vector>

#include "protocol/replies.h"

namespace nv_test {

// The records of a 0x10000fb reply; false when it does not decode to the end.
inline bool read_records(const mcl::binary_t& reply, std::vector<protocol::notification_data>& records) {
    protocol::notifications_reply decoded;
    const bool ok = protocol::decode(reply, decoded);
    records = decoded.records;
    // Decoded to the end: what was read encodes to as many bytes as the reply holds.
    mcl::binary_t again;
    protocol::encode(again, decoded);
    return ok && again.size() == reply.size();
}

}  // namespace nv_test
