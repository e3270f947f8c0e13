#include "tests/helpers/irp_client.h"

#include "mcl/encoding.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "tools/driver_sim/sim_channel.h"
#include "tools/driver_sim/sim_client.h"

namespace nv_test {

irp_client::~irp_client() {
    if (connection_) {
        mcl::binary_t none;
        peer_.post(msg::disconnect, none, connection_);
        Sleep(50);
    }
    connection_ = mcl::share_ptr<mcl::ipc_connection>();
    peer_.close();
}

bool irp_client::connect(const char* service, int timeout_ms) {
    if (!peer_.connect(service, timeout_ms) || peer_.connections().empty()) return false;
    connection_ = peer_.connections().front();
    return true;
}

bool read_records(const mcl::binary_t& reply, std::vector<protocol::notification_data>& records) {
    protocol::notifications_reply decoded;
    const bool ok = protocol::decode(reply, decoded);
    records = decoded.records;
    // Decoded to the end: what was read encodes to as many bytes as the reply holds.
    mcl::binary_t again;
    protocol::encode(again, decoded);
    return ok && again.size() == reply.size();
}

bool irp_client::subscribe(bool unsubscribe, const std::string& subscriber, const std::string& event_name,
                           const std::string& path, uint8_t major, uint8_t minor, uint32_t type, uint8_t& result) {
    mcl::binary_t payload;
    protocol::encode(payload, protocol::subscribe_request{unsubscribe, subscriber, event_name, path, major, minor, type});
    if (!peer_.send(msg::subscribe_irp_notification, payload, connection_, 30000)) return false;
    protocol::status_reply reply;
    if (!protocol::decode(payload, reply)) return false;
    result = reply.result;
    return true;
}

bool irp_client::query(const std::string& subscriber, std::vector<protocol::notification_data>& records) {
    mcl::binary_t payload;
    protocol::encode(payload, protocol::notification_query_request{subscriber});
    return peer_.send(msg::query_irp_notification_data, payload, connection_, 30000) && read_records(payload, records);
}

bool sim_injector::open() { return vqr::sim::open_channel(pipe_) == ERROR_SUCCESS; }

bool sim_injector::inject(uint32_t type, uint8_t major, uint8_t minor, uint32_t pid, const std::wstring& file,
                          uint32_t& delivered) {
    mcl::binary_t request;
    mcl::write_u32(request, vqr::sim::op::inject);
    mcl::write_u32(request, type);
    mcl::write_byte(request, major);
    mcl::write_byte(request, minor);
    mcl::write_u32(request, pid);
    mcl::write_wstring(request, file);
    mcl::binary_t answer;
    if (vqr::sim::exchange(pipe_.get(), request, answer) != ERROR_SUCCESS) return false;
    uint32_t hr = 0, pos = 0;
    return mcl::read_u32(hr, answer, pos) && mcl::read_u32(delivered, answer, pos) && hr == 0;
}

}  // namespace nv_test
