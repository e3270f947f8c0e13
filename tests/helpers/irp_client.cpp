#include "tests/helpers/irp_client.h"

#include "mcl/encoding.h"
#include "protocol/message_ids.h"
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

mcl::binary_t subscribe_request(bool unsubscribe, const std::string& subscriber, const std::string& event_name,
                                const std::string& path, uint8_t major, uint8_t minor, uint32_t type) {
    mcl::binary_t payload;
    mcl::write_byte(payload, unsubscribe ? 1 : 0);
    mcl::write_string(payload, subscriber);
    mcl::write_string(payload, event_name);
    mcl::write_string(payload, path);
    mcl::write_byte(payload, major);
    mcl::write_byte(payload, minor);
    mcl::write_u32(payload, type);
    return payload;
}

bool read_records(const mcl::binary_t& reply, std::vector<irp::record>& records) {
    uint32_t pos = 0;
    return mcl::read_list(records, reply, pos,
                          [](irp::record& r, const mcl::binary_t& in, uint32_t& p) {
                              uint64_t pid = 0;
                              const bool ok = mcl::read_u64(r.sequence, in, p) && mcl::read_u64(r.time, in, p) &&
                                              mcl::read_string(r.file_path, in, p) &&
                                              mcl::read_byte(r.major_function, in, p) &&
                                              mcl::read_byte(r.minor_function, in, p) && mcl::read_u64(pid, in, p) &&
                                              mcl::read_string(r.process_image, in, p) &&
                                              mcl::read_string(r.process_description, in, p) &&
                                              mcl::read_u32(r.type, in, p);  // the irpDenied flag
                              r.process_id = static_cast<uint32_t>(pid);
                              return ok && pid <= UINT32_MAX;
                          }) &&
           pos == reply.size();
}

bool irp_client::subscribe(bool unsubscribe, const std::string& subscriber, const std::string& event_name,
                           const std::string& path, uint8_t major, uint8_t minor, uint32_t type, uint8_t& result) {
    mcl::binary_t payload = subscribe_request(unsubscribe, subscriber, event_name, path, major, minor, type);
    if (!peer_.send(msg::subscribe_irp_notification, payload, connection_, 30000)) return false;
    uint32_t pos = 0;
    std::string message;
    return mcl::read_byte(result, payload, pos) && mcl::read_string(message, payload, pos);
}

bool irp_client::query(const std::string& subscriber, std::vector<irp::record>& records) {
    mcl::binary_t payload;
    mcl::write_string(payload, subscriber);
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
