// The VQRMonitor stand-in: serves the private pipe of tools/driver_sim/sim_channel.h for our
// fltlib.dll and for driver_ctl, keeps the driver's state in a driver_state and pushes
// notifications to the clients of the notification port.
//
// Threads: run() listens on the calling thread; every pipe client gets a thread of its own.
// One lock (lock_) guards the state and the connection table. Notifications are built under it
// and written after it is released, so a receiver that stops reading stalls only the thread
// that writes to it; a writer holds a reference to the connection, whose pipe is closed when
// the last reference goes.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
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
        role kind = role::new_client;                // set under lock_
        mcl::mswin::unique_kernel_handle pipe;       // closed with the last reference
        bool gone = false;                           // the driver dropped it (unload); set under lock_
    };
    using connection_ptr = std::shared_ptr<connection>;

    // What a request leaves to do once lock_ is released: notifications to write, then
    // connections to drop.
    struct after_request {
        std::vector<std::pair<connection_ptr, std::vector<uint8_t>>> notifications;
        std::vector<connection_ptr> drops;
        uint32_t delivered = 0;         // set by complete()
        bool reply_delivered = false;   // the reply ends with `delivered`
    };

    void serve(connection_ptr c);
    // Handles one request of `c`; false ends the connection after `reply` is written.
    bool handle_request(connection& c, const mcl::binary_t& request, mcl::binary_t& reply, after_request& after);
    bool handle_port_request(connection& c, uint32_t op, const mcl::binary_t& request, uint32_t& pos,
                             mcl::binary_t& reply, after_request& after);
    bool handle_control_request(uint32_t op, const mcl::binary_t& request, uint32_t& pos, mcl::binary_t& reply,
                                after_request& after);
    // Writes the notifications and drops the connections of `after`, without lock_.
    void complete(after_request& after);

    // Writes one message, waiting at most 5 seconds for the client to make room.
    static bool write_message(HANDLE pipe, const uint8_t* data, size_t size);
    // Queues a notification for every notification-port client in `after`.
    void queue_notification_locked(irp_notification n, after_request& after);
    // The driver goes away: the stop message to every notification client first (when it is
    // switched on), then every port connection is dropped.
    void unload_locked(after_request& after);
    size_t count_locked(role kind) const;
    // Notification connections whose client is still there.
    size_t live_notify_connections_locked();

    mcl::lock lock_;
    driver_state state_;
    std::vector<std::shared_ptr<connection>> connections_;
    uint64_t next_connection_id_ = 0;
    mcl::mswin::unique_kernel_handle quit_event_;
};

}  // namespace vqr::sim
