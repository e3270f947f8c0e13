// What the driver delivers on the notification port and what clients send as 0x10000fa reach the
// service's readers as they are (0x10000fb and every other request: request_payloads_fuzz); the
// tables then take whatever got through.
#include <cstddef>
#include <cstdint>
#include <string>

#include "mcl/buffer.h"
#include "protocol/requests.h"
#include "service/irp_tables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    irp::message m;
    const irp::message_check check = irp::parse_message(data, size, m);
    if (check == irp::message_check::ok && m.type == irp::type_irp_denied && m.file_name.size() > 261) __builtin_trap();

    // The tables under a stream of operations chosen by the input.
    static irp::tables tables;
    static uint64_t counter = 0, now = 0;
    static unsigned runs = 0;
    protocol::subscribe_request decoded;
    const mcl::binary_t payload(data, static_cast<uint32_t>(size));
    if (protocol::decode(payload, decoded) == irp::request_check::ok && !decoded.subscriber.empty() &&
        !decoded.event_name.empty()) {
        irp::subscribe_request request = irp::to_subscription(decoded);
        if (request.file_path.empty()) request.file_path = irp::any_file;
        (void)tables.subscribe(request);
    }
    for (size_t i = 0; i + 1 < size && i < 32; i += 2) {
        const std::string who(1, static_cast<char>('a' + data[i] % 4));
        switch (data[i + 1] % 4) {
            case 0: {
                irp::record r;
                r.sequence = counter++;
                r.time = now;
                (void)tables.store(who, r, counter);
                if (tables.held_by(who) > irp::max_records_per_subscriber) __builtin_trap();
                break;
            }
            case 1:
                now += static_cast<uint64_t>(data[i]) * 100000000ULL;
                tables.purge(now);
                break;
            case 2: (void)tables.collect(who); break;
            default: (void)tables.choose(who, data[i], data[i + 1]); break;
        }
    }
    if (++runs % 256 == 0) tables.clear_store();
    return 0;
}
