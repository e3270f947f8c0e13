// What the driver delivers on the notification port and what clients send as 0x10000fa and
// 0x10000fb reach the service's readers as they are; the tables then take whatever got through.
#include <cstddef>
#include <cstdint>
#include <string>

#include "mcl/buffer.h"
#include "service/irp_tables.h"
#include "service/request_payloads.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    irp::message m;
    const irp::message_check check = irp::parse_message(data, size, m);
    if (check == irp::message_check::ok && m.type == irp::type_irp_denied && m.file_name.size() > 261) __builtin_trap();

    mcl::binary_t payload;
    payload.assign(data, static_cast<uint32_t>(size));
    irp::subscribe_request request;
    std::string subscriber;
    (void)request_payload::read_query_irp_notification_data(payload, subscriber);

    // The tables under a stream of operations chosen by the input.
    static irp::tables tables;
    static uint64_t counter = 0;
    static uint64_t now = 0;
    static unsigned runs = 0;
    if (request_payload::read_subscribe_irp_notification(payload, request) == irp::request_check::ok && !request.subscriber.empty() &&
        !request.event_name.empty()) {
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
            case 2:
                (void)tables.collect(who);
                break;
            default:
                (void)tables.choose(who, data[i], data[i + 1]);
                break;
        }
    }
    if (++runs % 256 == 0) tables.clear_store();
    return 0;
}
