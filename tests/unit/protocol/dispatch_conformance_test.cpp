// The service's dispatcher against the codec: every request that does not decode is answered
// with a reply that the client reads as a failure, never with silence or the request's own
// bytes. (What halvernctl sends through the client library is pinned in halvernctl_test.sh.)
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "protocol/catalogue.h"
#include "service/helper_service.h"
#include "tests/unit/protocol/conformance.h"

namespace {

TEST(DispatchConformance, EveryUndecodableRequestGetsItsRoutesFailureReply) {
    const std::string path = std::string(mcl::ipc_channel::pipe_prefix) + "nv_conformance_" + std::to_string(GetCurrentProcessId());
    mcl::share_ptr<mcl::ipc_connection> server(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    mcl::share_ptr<mcl::ipc_connection> client(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    ASSERT_TRUE(server->open(path.c_str()));
    ASSERT_TRUE(client->open(path.c_str()));
    ASSERT_TRUE(server->reader().listen());  // the client, this process, may change state
    chelperservice::helper_msg_handler& handler = chelperservice::instance().msg_handler();

    protocol::for_each_message([&](auto m) {
        using message = decltype(m);
        using request_t = typename message::request;
        using reply_t = typename message::reply;
        if constexpr (!std::is_same_v<reply_t, protocol::no_reply>) {
            if constexpr (std::is_same_v<request_t, protocol::no_fields>) {
                // The payload is ignored: any request is answered in the reply's layout.
                mcl::binary_t payload;
                ASSERT_EQ(1, handler(server.get(), message::id, payload)) << m.name;
                reply_t reply;
                EXPECT_TRUE(protocol::decode(payload, reply)) << m.name;
            } else {
                for (const nv_test::malformed& bad : nv_test::malformed_payloads<request_t>()) {
                    request_t decoded;
                    if (nv_test::accepted(bad.payload, decoded)) continue;  // handled as a request
                    mcl::binary_t payload = bad.payload;
                    ASSERT_EQ(1, handler(server.get(), message::id, payload)) << m.name << " " << bad.what;
                    EXPECT_TRUE(nv_test::reads_as_failure<reply_t>(payload)) << m.name << " " << bad.what;
                }
            }
        }
    });
}

}  // namespace
