#include "tests/helpers/service_double.h"

#include "mcl/encoding.h"
#include "service/message_ids.h"

namespace nv_test {

service_double::service_double(const char* name) : mcl::ipc_peer(name, &handler_), handler_(this) {
    (void)stop_.create_unnamed();
}

service_double::~service_double() {
    stop_.set();
    if (accept_thread_.joinable()) accept_thread_.join();
    close();
}

bool service_double::start_listening() {
    accept_thread_ = std::thread([this] { serve_until(stop_.get()); });
    return true;
}

void service_double::set_protocol(uint32_t version) {
    mcl::scoped_lock guard(lock_);
    protocol_ = version;
}

void service_double::set_reply(uint32_t id, const mcl::binary_t& reply) {
    mcl::scoped_lock guard(lock_);
    replies_[id] = reply;
}

std::vector<recorded_request> service_double::received() {
    mcl::scoped_lock guard(lock_);
    return received_;
}

bool service_double::wait_for(size_t count, DWORD timeout_ms) {
    for (DWORD waited = 0;; waited += 10) {
        {
            mcl::scoped_lock guard(lock_);
            if (received_.size() >= count) return true;
        }
        if (waited >= timeout_ms) return false;
        Sleep(10);
    }
}

int service_double::handler::operator()(mcl::ipc_connection* conn, uint32_t id, mcl::binary_t& payload) {
    recorded_request record{id, payload};
    mcl::binary_t reply;
    {
        mcl::scoped_lock guard(owner_->lock_);
        owner_->received_.push_back(record);
        const auto canned = owner_->replies_.find(id);
        if (canned != owner_->replies_.end()) {
            reply = canned->second;
        } else if (id == msg::protocol_compatible) {
            mcl::write_byte(reply, 1);
            mcl::write_u32(reply, owner_->protocol_);
        } else if (id == msg::service_version) {
            mcl::write_u32(reply, 196653);
        } else {
            mcl::write_status(reply, true, "");
        }
    }
    if (owner_->on_message != nullptr) owner_->on_message(record);
    if (id == msg::disconnect) {
        // As the service does: the client waits for its pipe to close.
        owner_->disconnect(mcl::share_ptr<mcl::ipc_connection>(conn));
        return 0;
    }
    payload = reply;
    return 0;
}

}  // namespace nv_test
