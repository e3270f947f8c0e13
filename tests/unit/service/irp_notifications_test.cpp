// The IRP notification half of the service object: the two requests on the wire, and driver
// messages handed over as the receiver does, with the clock seam for the 300-second purge.
// Malformed messages and the receiver's stop are shown end to end (irp_notify_test.sh).
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/event.h"
#include "service/driver_protocol.h"
#include "service/helper_service.h"
#include "service/message_ids.h"
#include "tests/helpers/irp_client.h"
#include "tests/helpers/log_capture.h"

namespace {

using nv_test::subscribe_request;

mcl::share_ptr<mcl::ipc_connection> test_connection(new mcl::ipc_connection(mcl::ipc_connection::connect_type));

chelperservice& svc() { return chelperservice::instance(); }

std::vector<uint8_t> call(uint32_t id, mcl::binary_t payload) {
    EXPECT_EQ(1, svc().msg_handler()(test_connection.get(), id, payload));
    return {payload.data(), payload.data() + payload.size()};
}
const std::vector<uint8_t> ok = {1, 0}, refused = {0, 0}, empty_list = {0, 0, 0, 0};

mcl::binary_t query(const std::string& sub) {
    mcl::binary_t b;
    mcl::write_string(b, sub);
    return b;
}

std::vector<irp::record> collect(const std::string& sub) {
    const std::vector<uint8_t> reply = call(msg::query_irp_notification_data, query(sub));
    std::vector<irp::record> records;
    EXPECT_TRUE(nv_test::read_records(mcl::binary_t(reply.data(), static_cast<uint32_t>(reply.size())), records));
    return records;
}

// Hands one IRP-denied message to the service as the receiver would.
bool deliver(uint64_t id, const std::wstring& file) {
    vqr::irp_notification n;
    n.message_id = id;
    n.major_function = 3;
    n.process_id = GetCurrentProcessId();
    n.file_name = file;
    std::vector<uint8_t> m;
    EXPECT_TRUE(vqr::build_notification(n, m));
    uint64_t sequence = 0;
    return svc().handleIrpMessage(m.data(), m.size(), sequence);
}

uint64_t fake_now = 130000000000000000ULL;
uint64_t fake_clock() { return fake_now; }

TEST(IrpRequests, SubscribeAndQueryOnTheWireBadPayloadsRefusedWithALine) {
    mcl::binary_t one_byte;  // an add flag and nothing more; as a query, a name without its end
    mcl::write_byte(one_byte, 'q');
    mcl::binary_t trailing = query("wire");
    mcl::write_byte(trailing, 0);
    const uint32_t fa = msg::subscribe_irp_notification, fb = msg::query_irp_notification_data;
    struct {
        const char* label;
        uint32_t id;
        mcl::binary_t request;
        std::vector<uint8_t> reply;
        const char* log;
    } cases[] = {
        {"add", fa, subscribe_request(0, "wire", "Global\\wire_ev", "C:\\Wire\\A.TXT"), ok,
         "Add subscription for <wire> on file <c:\\wire\\a.txt>"},
        {"covered", fa, subscribe_request(0, "wire", "Global\\x", "c:\\wire\\a.txt", 3, 0, 1), refused, nullptr},
        {"empty path", fa, subscribe_request(0, "wire", "Global\\wire_ev", ""), ok,
         "Add subscription for <wire> on file <subscribe_any_file>"},
        {"remove without an event name", fa, subscribe_request(1, "wire", "", "C:\\WIRE\\a.txt"), refused, nullptr},
        {"remove", fa, subscribe_request(1, "wire", "e", "C:\\WIRE\\a.txt"), ok,
         "Remove subscription for <wire> on file <c:\\wire\\a.txt>"},
        {"empty subscriber", fa, subscribe_request(0, "", "e", "p"), refused, nullptr},
        {"truncated subscription", fa, one_byte, refused, "Subscription request of 1 bytes is truncated, refused"},
        {"empty subscription", fa, mcl::binary_t(), refused, "Subscription request of 0 bytes is truncated, refused"},
        {"oversized subscription", fa, subscribe_request(0, std::string(300, 's'), "e", "p"), refused,
         "Subscription request of 312 bytes is oversized (at most 1554 bytes, names 260, path 1024), refused"},
        {"query of an unknown subscriber", fb, query("nobody"), empty_list, nullptr},
        {"query without a name", fb, mcl::binary_t(), empty_list, nullptr},
        {"query with an empty name", fb, query(""), empty_list, nullptr},
        {"truncated query", fb, one_byte, empty_list, "Query of 1 bytes is truncated, refused"},
        {"oversized query", fb, query(std::string(261, 'q')), empty_list,
         "Query of 262 bytes is oversized (a subscriber name of at most 260 bytes), refused"},
        {"a byte after the name", fb, trailing, empty_list, "Query of 6 bytes is oversized"},
        // Nothing else was touched: the any-file filter is still there.
        {"the table is as it was", fa, subscribe_request(0, "wire", "Global\\wire_ev", ""), refused, nullptr},
    };
    for (auto& c : cases) {
        nv_test::log_capture log;
        EXPECT_EQ(c.reply, call(c.id, c.request)) << c.label;
        EXPECT_TRUE(c.log == nullptr || log.contains(c.log)) << c.label << "\n" << log.text();
    }
}

TEST(IrpMessages, DenialReachesEachSubscriberOnceAndExpiresAfter300Seconds) {
    mcl::event ev_a, ev_b;
    ASSERT_EQ(0, ev_a.create("Global\\nv_irp_test_a"));
    ASSERT_EQ(0, ev_b.create("Global\\nv_irp_test_b"));
    EXPECT_EQ(ok, call(msg::subscribe_irp_notification,
                       subscribe_request(0, "test_a", "Global\\nv_irp_test_a", "C:\\Data\\File.TXT")));
    EXPECT_EQ(ok, call(msg::subscribe_irp_notification, subscribe_request(0, "test_b", "Global\\nv_irp_test_b", "")));
    EXPECT_EQ(ok, call(msg::subscribe_irp_notification,
                       subscribe_request(0, "test_gone", "Global\\nv_irp_no_such_event", "c:\\data\\file.txt")));
    svc().setIrpClock(&fake_clock);
    nv_test::log_capture log;
    EXPECT_TRUE(deliver(41, L"\\Device\\HarddiskVolume1\\data\\file.txt"));
    EXPECT_TRUE(ev_a.is_set());
    EXPECT_TRUE(ev_b.is_set());
    EXPECT_TRUE(log.contains("[IRP Notification]: Received the IRP denied notification: "
                             "FileName=\"\\Device\\HarddiskVolume1\\data\\file.txt\" MajorFun=3, MinorFunc=0, pid=0x"));
    EXPECT_TRUE(log.contains("Failed to notify subscriber <test_gone> on IRP for file <c:\\data\\file.txt>, unable to "
                             "open event <Global\\nv_irp_no_such_event>, error: 2"))
        << log.text();
    auto a = collect("test_a");
    ASSERT_EQ(1u, a.size());
    EXPECT_EQ(fake_now, a[0].time);
    EXPECT_EQ("c:\\data\\file.txt", a[0].file_path);
    EXPECT_TRUE(log.contains("Found notification data for <test_a> on file <c:\\data\\file.txt>, from pid <" +
                             std::to_string(GetCurrentProcessId()) + ">"));
    EXPECT_EQ(1u, collect("test_b").size());
    EXPECT_TRUE(collect("test_gone").empty());

    // A name on no volume reaches only the any-file subscriber, with an empty path.
    ev_a.reset();
    EXPECT_TRUE(deliver(42, L"\\Device\\NoSuchVolume\\x"));
    EXPECT_FALSE(ev_a.is_set());
    auto b = collect("test_b");
    ASSERT_EQ(1u, b.size());
    EXPECT_EQ("", b[0].file_path);

    // A record goes when a message arrives more than 300 seconds after it.
    EXPECT_TRUE(deliver(43, L"\\Device\\HarddiskVolume1\\data\\file.txt"));
    fake_now += 3000000001ULL;
    EXPECT_TRUE(deliver(44, L"\\Device\\HarddiskVolume1\\elsewhere"));
    EXPECT_TRUE(collect("test_a").empty()) << "purged";
    svc().setIrpClock(&chelperservice::irpSystemTime);
}

}  // namespace
