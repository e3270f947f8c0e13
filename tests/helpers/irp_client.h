// A subscriber of IRP-denied notifications for the benchmark: the two requests over
// the service's pipe, and injections straight into the driver simulator's control pipe.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mcl/ipc/peer.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/replies.h"

namespace nv_test {

// The records of a 0x10000fb reply (false when it does not decode to the end).
bool read_records(const mcl::binary_t& reply, std::vector<protocol::notification_data>& records);

class irp_client {
public:
    irp_client() : peer_("nv_irp_subscriber", nullptr) {}
    ~irp_client();
    bool connect(const char* service, int timeout_ms);
    // 0x10000fa; `result` is the status byte of the reply.
    bool subscribe(bool unsubscribe, const std::string& subscriber, const std::string& event_name,
                   const std::string& path, uint8_t major, uint8_t minor, uint32_t type, uint8_t& result);
    // 0x10000fb, decoded.
    bool query(const std::string& subscriber, std::vector<protocol::notification_data>& records);

private:
    mcl::ipc_peer peer_;
    mcl::share_ptr<mcl::ipc_connection> connection_;
};

// Keeps one control connection to the simulator open for many injections.
class sim_injector {
public:
    bool open();
    // An IRP-denied (or other `type`) notification; `delivered` is how many ports got it.
    bool inject(uint32_t type, uint8_t major, uint8_t minor, uint32_t pid, const std::wstring& file,
                uint32_t& delivered);

private:
    mcl::mswin::unique_kernel_handle pipe_;
};

}  // namespace nv_test
