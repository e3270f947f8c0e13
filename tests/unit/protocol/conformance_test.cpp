// The wire codec against itself and, on Windows, against the service's dispatcher: every
// catalogue message round-trips its request and reply, and a payload that does not hold its
// request gets a reply that the client reads as a failure.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "mcl/encoding.h"
#include "protocol/catalogue.h"
#include "tests/unit/protocol/conformance.h"

namespace {

using nv_test::bytes_of;

TEST(WireCodec, EveryRequestAndReplyDecodesToTheFieldsItWasEncodedFrom) {
    size_t messages = 0;
    protocol::for_each_message([&](auto m) {
        using message = decltype(m);
        ++messages;
        const typename message::request request = nv_test::sample<typename message::request>();
        mcl::binary_t wire;
        protocol::encode(wire, request);
        typename message::request decoded;
        EXPECT_TRUE(nv_test::accepted(wire, decoded)) << m.name;
        // Every field is on the wire, so equal fields re-encode to the same bytes.
        EXPECT_EQ(bytes_of(wire), bytes_of(nv_test::encoded(decoded))) << m.name;

        if constexpr (!std::is_same_v<typename message::reply, protocol::no_reply>) {
            const typename message::reply reply = nv_test::sample<typename message::reply>();
            typename message::reply read_back;
            EXPECT_TRUE(protocol::decode(nv_test::encoded(reply), read_back)) << m.name;
            EXPECT_EQ(bytes_of(nv_test::encoded(reply)), bytes_of(nv_test::encoded(read_back))) << m.name;
            // The failure form is what the client reads as a failure.
            mcl::binary_t failure;
            protocol::encode_failure<typename message::reply>(failure);
            EXPECT_TRUE(nv_test::reads_as_failure<typename message::reply>(failure)) << m.name;
            EXPECT_FALSE(nv_test::reads_as_failure<typename message::reply>(nv_test::encoded(reply))) << m.name;
        }
    });
    EXPECT_EQ(std::size(msg::catalogue), messages);
}

TEST(WireCodec, MalformedRequestsAreRefusedAndTrailingBytesIgnoredOutsideTheNotificationRequests) {
    protocol::for_each_message([&](auto m) {
        using request_t = typename decltype(m)::request;
        if constexpr (!std::is_same_v<request_t, protocol::no_fields>) {
            for (const nv_test::malformed& bad : nv_test::malformed_payloads<request_t>()) {
                request_t decoded;
                const bool accepted = nv_test::accepted(bad.payload, decoded);
                if (bad.kind != nv_test::malformed_kind::trailing) {
                    // A payload cut short or over a bound; the switches and the compatibility
                    // request take any payload long enough, as they always have.
                    const bool takes_any_bytes = std::is_same_v<request_t, protocol::protection_switch_request> ||
                                                 std::is_same_v<request_t, protocol::restore_driver_request> ||
                                                 std::is_same_v<request_t, protocol::compatibility_request>;
                    EXPECT_EQ(takes_any_bytes && bad.kind == nv_test::malformed_kind::oversized, accepted)
                        << m.name << " " << bad.what;
                } else if (std::is_same_v<request_t, protocol::subscribe_request> ||
                           std::is_same_v<request_t, protocol::notification_query_request>) {
                    EXPECT_FALSE(accepted) << m.name;
                } else {
                    // The fields of the request before the extra byte.
                    EXPECT_TRUE(accepted) << m.name;
                    EXPECT_EQ(bytes_of(nv_test::encoded(nv_test::sample<request_t>())), bytes_of(nv_test::encoded(decoded)))
                        << m.name;
                }
            }
        }
    });
}

TEST(WireCodec, NotificationRequestsAreBoundedFieldByField) {
    const std::string name(protocol::max_name_bytes, 'n'), path(protocol::max_path_bytes, 'p');
    const mcl::binary_t largest = nv_test::encoded(protocol::subscribe_request{false, name, name, path, 0xFF, 0xFF, 0});
    protocol::subscribe_request r;
    ASSERT_EQ(protocol::request_check::ok, protocol::decode(largest, r));
    EXPECT_EQ(name, r.subscriber);
    EXPECT_EQ(path, r.file_path);
    for (uint32_t cut = 0; cut < largest.size(); ++cut)
        EXPECT_EQ(protocol::request_check::truncated, protocol::decode(mcl::binary_t(largest.data(), cut), r)) << cut;
    const std::vector<uint8_t> big(protocol::max_subscribe_payload + 1, 'x');
    for (const mcl::binary_t& payload :
         {nv_test::encoded(protocol::subscribe_request{false, name + "n", "e", "p", 0, 0, 0}),
          nv_test::encoded(protocol::subscribe_request{false, "s", name + "e", "p", 0, 0, 0}),
          nv_test::encoded(protocol::subscribe_request{false, "s", "e", path + "p", 0, 0, 0}),
          mcl::binary_t(big.data(), static_cast<uint32_t>(big.size()))})
        EXPECT_EQ(protocol::request_check::oversized, protocol::decode(payload, r));
    protocol::notification_query_request q;
    EXPECT_EQ(protocol::request_check::truncated, protocol::decode(mcl::binary_t(), q));
    EXPECT_EQ(protocol::request_check::oversized, protocol::decode(nv_test::encoded(protocol::name_request{name + "n"}), q));
}

}  // namespace
