#include "tests/helpers/service_double.h"

#include "mcl/encoding.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"

namespace nv_test {

service_double::service_double(const char* name) : serving_peer(name, this) {
    protocol::encode(replies_[msg::protocol_compatible], protocol::compatibility_reply{1, 5});
    protocol::encode(replies_[msg::service_version], protocol::version_reply{196653});
}

service_double::~service_double() {
    finish();  // while the members the handler uses are there
    close();
}

void service_double::set_reply(uint32_t id, const mcl::binary_t& reply) {
    mcl::scoped_lock guard(lock_);
    replies_[id] = reply;
}

std::vector<recorded_request> service_double::received() {
    mcl::scoped_lock guard(lock_);
    return received_;
}

int service_double::operator()(mcl::ipc_connection* conn, uint32_t id, mcl::binary_t& payload) {
    recorded_request record{id, payload};
    mcl::binary_t reply;
    {
        mcl::scoped_lock guard(lock_);
        received_.push_back(record);
        const auto canned = replies_.find(id);
        if (canned != replies_.end())
            reply = canned->second;
        else
            protocol::encode(reply, protocol::status(true));
    }
    if (on_message != nullptr) on_message(record);
    // On the disconnect message, as the service does: the client waits for its pipe to close.
    if (id == msg::disconnect)
        disconnect(mcl::share_ptr<mcl::ipc_connection>(conn));
    else
        payload = reply;
    return 0;
}

}  // namespace nv_test
