// The wire codec against itself and, on Windows, against the service's dispatcher: every
// catalogue message round-trips its request and reply, and a payload that does not hold its
// request gets a reply that the client reads as a failure.
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

#include "mcl/encoding.h"
#include "protocol/catalogue.h"
#include "tests/unit/protocol/conformance.h"

namespace {

using nv_test::bytes_of;

// The bytes of every sample request and reply (name|request|reply), as the service and the
// client library have always put them on the wire.
const char wire[] = R"(
disconnect||
stop-service||
protect-services|0200000001006E765F73616D706C655F610000016E765F73616D706C655F6200|01646F6E6500
protect-processes|020000000143003A005C006E0076005C0061002E0065007800650000000062002E006500780065000000|01646F6E6500
query-protected-services||010000000101443A28413B3B43433B3B3B53592900443A50006E765F6100532D312D352D38302D310043003A005C006E0076005C0061002E00650078006500000043003A005C006E0076000000
query-protected-processes||0100000001443A500043003A005C006E0076005C0061002E00650078006500000043003A005C006E0076000000
disable-driver-protection||01646F6E6500
enable-driver-protection||01646F6E6500
set-protection-enabled|01|01646F6E6500
protocol-compatible|05000000|0105000000
service-version||2D000300
protect-reg-keys|010000000102000080FFFFFFFF53004F004600540057004100520045005C006E0076005F00730061006D0070006C00650000006E765F6F776E657200020000006E765F61006E765F620002000000|01646F6E6500
get-protected-reg-keys||0100000001443A28413B3B4B413B3B3B42412900443A500002000080FFFFFFFF53004F004600540057004100520045005C006E00760000006E765F6F776E657200010000006E765F6100
start-service|6E765F6E6F5F737563685F7365727669636500020000002D61006200|01646F6E6500
stop-service-by-name|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
recover-service-dacl|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
restore-driver-protection|01|01646F6E6500
recover-folder-dacl|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
create-quarantine-container|633A5C6E765F6E6F5F737563685F636F6E7461696E657200010000006E765F6100|01646F6E6500
quarantine-files|02000000633A5C6E765F6E6F5F737563685F636F6E7461696E65720001000000612E51554100|01646F6E6500
remove-quarantine-container|01000000633A5C6E765F6E6F5F737563685F636F6E7461696E657200|01646F6E6500
get-quarantined-files|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01000000662E7478742E303132333435363738394142434445462E51554100633A5C6E765C662E74787400
get-quarantine-containers||02000000633A5C6E765C715C00643A5C715C00
is-file-quarantined|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
block-file-access|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
unblock-file-access|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
block-files-access|01000000010000006E765F610002000000633A5C6E765C782E74787400633A5C6E765C792E74787400|01646F6E6500
is-file-access-blocked|633A5C6E765F6E6F5F737563685F666F6C6465725C66696C652E74787400|01646F6E6500
subscribe-irp-notification|016E765F73756200476C6F62616C5C6E765F6576656E7400633A5C6E765C662E74787400030401000000|01646F6E6500
query-irp-notification-data|6E765F73756200|0100000007000000000000000080209BCB82D801633A5C6E765C662E747874000300D204000000000000633A5C782E65786500580001000000
)";

TEST(WireCodec, EveryRequestAndReplyDecodesToTheFieldsItWasEncodedFrom) {
    size_t messages = 0;
    protocol::for_each_message([&](auto m) {
        using message = decltype(m);
        ++messages;
        const mcl::binary_t request = nv_test::encoded(nv_test::sample<typename message::request>());
        typename message::request decoded;
        EXPECT_TRUE(nv_test::accepted(request, decoded)) << m.name;
        // Every field is on the wire, so equal fields re-encode to the same bytes.
        EXPECT_EQ(bytes_of(request), bytes_of(nv_test::encoded(decoded))) << m.name;
        std::string line = std::string("\n") + m.name + "|" + mcl::to_hex(request).c_str() + "|";

        if constexpr (!std::is_same_v<typename message::reply, protocol::no_reply>) {
            const typename message::reply reply = nv_test::sample<typename message::reply>();
            line += mcl::to_hex(nv_test::encoded(reply)).c_str();
            typename message::reply read_back;
            EXPECT_TRUE(protocol::decode(nv_test::encoded(reply), read_back)) << m.name;
            EXPECT_EQ(bytes_of(nv_test::encoded(reply)), bytes_of(nv_test::encoded(read_back))) << m.name;
            // The failure form is what the client reads as a failure.
            mcl::binary_t failure;
            protocol::encode_failure<typename message::reply>(failure);
            EXPECT_TRUE(nv_test::reads_as_failure<typename message::reply>(failure)) << m.name;
            EXPECT_FALSE(nv_test::reads_as_failure<typename message::reply>(nv_test::encoded(reply))) << m.name;
        }
        EXPECT_NE(std::string::npos, std::string(wire).find(line + "\n")) << "not the bytes it always had: " << line;
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

// The query's bounds (a name cut short, one over 260 bytes) are shown on the wire: driver_port_test.sh.
TEST(WireCodec, SubscriptionRequestsAreBoundedFieldByField) {
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
}

}  // namespace
