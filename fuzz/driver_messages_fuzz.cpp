// The driver stand-in reads whatever a client hands FilterSendMessage: it must take any bytes. (The
// service's reader of the notification port: irp_notifications_fuzz.)
#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocol/driver_protocol.h"
#include "tools/driver_sim/driver_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vqr::driver_message m;
    if (vqr::parse_message(data, size, m) == vqr::message_check::ok && !m.feature) {
        const auto again = vqr::build_command(m.code, m.text);
        if (again.size() != size) __builtin_trap();
    }
    static vqr::sim::driver_state state;
    static unsigned runs = 0;
    state.handle_message(1, vqr::sim::port_kind::command, data, size);
    if (++runs % 256 == 0) {
        (void)state.journal_json();
        (void)state.state_json(0, 0);
        state.reset();
    }
    return 0;
}
