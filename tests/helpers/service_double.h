// A listening peer that plays the protection service for client tests: it records every
// request and post it receives and answers with canned replies.
//
// It drops a connection on the disconnect message, as the service does. Default replies:
// 0x1000009 gets ok 1 and protocol version 5, 0x100000a gets 196653, every other identifier a
// status reply (1, ""); set_reply overrides one identifier.
#pragma once

#include <cstdint>
#include <map>
#include <thread>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/event.h"
#include "mcl/ipc/peer.h"
#include "mcl/lock.h"

namespace nv_test {

// A peer listening under its name on a thread of its own, from start_listening() until finish()
// (which waits for that thread) or its destruction.
class serving_peer : public mcl::ipc_peer {
public:
    serving_peer(const char* name, mcl::ipc_msg_handler* handler) : ipc_peer(name, handler) { (void)stop_.create_unnamed(); }
    ~serving_peer() override { finish(); }
    void start_listening() { thread_ = std::thread([this] { serve_until(stop_.get()); }); }
    void finish() {
        stop_.set();
        if (thread_.joinable()) thread_.join();
    }

private:
    mcl::event stop_;
    std::thread thread_;
};

struct recorded_request {
    uint32_t id = 0;
    mcl::binary_t payload;
};

class service_double : public mcl::ipc_msg_handler, public serving_peer {
public:
    explicit service_double(const char* name);
    ~service_double() override;

    void set_reply(uint32_t id, const mcl::binary_t& reply);
    // Every message received so far, in arrival order.
    std::vector<recorded_request> received();
    // Called on the event thread for every message, after it was recorded (for a log file).
    void (*on_message)(const recorded_request&) = nullptr;

    int operator()(mcl::ipc_connection* conn, uint32_t id, mcl::binary_t& payload) override;

private:
    mcl::lock lock_;
    std::vector<recorded_request> received_;
    std::map<uint32_t, mcl::binary_t> replies_;
};

}  // namespace nv_test
