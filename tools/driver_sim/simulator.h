// The VQRMonitor stand-in: serves the private pipe of tools/driver_sim/sim_channel.h for our
// fltlib.dll and for driver_ctl, keeps the driver's state in a driver_state and pushes
// notifications to the clients of the notification port.
//
// Threads: run() listens on the calling thread; every pipe client gets a thread of its own.
// One lock (lock_) guards the state and the connection table; notifications are written while
// it is held, so a connection is never closed under a writer.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/lock.h"
#include "mcl/mswin/unique_handle.h"
#include "tools/driver_sim/driver_state.h"

namespace vqr::sim {

class simulator {
public:
    simulator() = default;
    simulator(const simulator&) = delete;
    simulator& operator=(const simulator&) = delete;

    // Serves until a quit request arrives. Returns 0, or 1 when the pipe cannot be served.
    int run();

private:
    enum class role { new_client, command_port, notify_port, control };

    struct connection {
        uint64_t id = 0;
        role kind = role::new_client;
        HANDLE pipe = INVALID_HANDLE_VALUE;  // closed by the connection's own thread, under lock_
        bool gone = false;                   // the driver dropped it (unload); set under lock_
    };

    void serve(std::shared_ptr<connection> c);
    // Handles one request of `c`; false ends the connection after `reply` is written.
    bool handle_request(connection& c, const mcl::binary_t& request, mcl::binary_t& reply);
    bool handle_port_request(connection& c, uint32_t op, const mcl::binary_t& request, uint32_t& pos,
                             mcl::binary_t& reply);
    bool handle_control_request(uint32_t op, const mcl::binary_t& request, uint32_t& pos, mcl::binary_t& reply);

    // Writes one message, waiting at most 5 seconds for the client to make room.
    static bool write_message(HANDLE pipe, const uint8_t* data, size_t size);
    // Sends a notification to every notification-port client; returns how many got it.
    uint32_t push_notification_locked(irp_notification n);
    // The driver goes away: a stop message to every notification client first, then every
    // port connection is dropped.
    void unload_locked();
    size_t count_locked(role kind) const;

    mcl::lock lock_;
    driver_state state_;
    std::vector<std::shared_ptr<connection>> connections_;
    uint64_t next_connection_id_ = 0;
    mcl::mswin::unique_kernel_handle quit_event_;
};

}  // namespace vqr::sim
