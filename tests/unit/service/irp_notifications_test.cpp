// The IRP notification half of the service object: the two requests on the wire, the handling
// of driver messages (with the clock seam for the 300-second purge) and the receiver's stop.
#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
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

mcl::share_ptr<mcl::ipc_connection> test_connection(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
mcl::ipc_connection* const conn = test_connection.get();

std::vector<uint8_t> bytes(const mcl::binary_t& b) { return {b.data(), b.data() + b.size()}; }

chelperservice& svc() { return chelperservice::instance(); }

mcl::binary_t call(uint32_t id, mcl::binary_t payload) {
    EXPECT_EQ(1, svc().msg_handler()(conn, id, payload));
    return payload;
}

mcl::binary_t subscription(uint8_t remove, const std::string& sub, const std::string& event, const std::string& path,
                           uint8_t major = 0xFF, uint8_t minor = 0xFF, uint32_t type = 0) {
    mcl::binary_t b;
    mcl::write_byte(b, remove);
    mcl::write_string(b, sub);
    mcl::write_string(b, event);
    mcl::write_string(b, path);
    mcl::write_byte(b, major);
    mcl::write_byte(b, minor);
    mcl::write_u32(b, type);
    return b;
}

mcl::binary_t query(const std::string& sub) {
    mcl::binary_t b;
    mcl::write_string(b, sub);
    return b;
}

struct reply_record {
    uint64_t sequence = 0, time = 0, pid = 0;
    std::string path, image, description;
    uint8_t major = 0, minor = 0;
    uint32_t denied = 0;
};

std::vector<reply_record> records_of(const mcl::binary_t& reply) {
    std::vector<reply_record> out;
    uint32_t pos = 0;
    EXPECT_TRUE(mcl::read_list(out, reply, pos, [](reply_record& r, const mcl::binary_t& in, uint32_t& p) {
        return mcl::read_u64(r.sequence, in, p) && mcl::read_u64(r.time, in, p) && mcl::read_string(r.path, in, p) &&
               mcl::read_byte(r.major, in, p) && mcl::read_byte(r.minor, in, p) && mcl::read_u64(r.pid, in, p) &&
               mcl::read_string(r.image, in, p) && mcl::read_string(r.description, in, p) &&
               mcl::read_u32(r.denied, in, p);
    }));
    EXPECT_EQ(reply.size(), pos) << "nothing after the list";
    return out;
}

std::vector<uint8_t> message(uint64_t id, uint32_t type, const std::wstring& file, uint32_t pid = GetCurrentProcessId()) {
    vqr::irp_notification n;
    n.message_id = id;
    n.type = type;
    n.major_function = 3;
    n.minor_function = 0;
    n.process_id = pid;
    n.file_name = file;
    std::vector<uint8_t> out;
    EXPECT_TRUE(vqr::build_notification(n, out));
    return out;
}

uint64_t fake_now = 0;
uint64_t fake_clock() { return fake_now; }

// Hands one message to the service as the receiver would; true unless it was the stop message.
bool deliver(const std::vector<uint8_t>& m, size_t size, uint64_t& sequence) {
    return svc().handleIrpMessage(m.data(), size, sequence);
}

TEST(IrpRequests, SubscribeAndQueryOnTheWire) {
    const std::vector<uint8_t> ok = {1, 0}, refused = {0, 0}, empty_list = {0, 0, 0, 0};
    mcl::binary_t bad_type;  // an add flag, then nothing; as a query, a name without its end
    mcl::write_byte(bad_type, 'q');
    mcl::binary_t trailing = query("wire");
    mcl::write_byte(trailing, 0);
    struct {
        const char* label;
        uint32_t id;
        mcl::binary_t request;
        std::vector<uint8_t> reply;
        const char* log;
    } cases[] = {
        {"add", msg::subscribe_irp_notification, subscription(0, "wire", "Global\\wire_ev", "C:\\Wire\\A.TXT"), ok,
         "Add subscription for <wire> on file <c:\\wire\\a.txt>"},
        {"covered", msg::subscribe_irp_notification, subscription(0, "wire", "Global\\x", "c:\\wire\\a.txt", 3, 0, 1),
         refused, nullptr},
        {"empty path", msg::subscribe_irp_notification, subscription(0, "wire", "Global\\wire_ev", ""), ok,
         "Add subscription for <wire> on file <subscribe_any_file>"},
        {"remove", msg::subscribe_irp_notification, subscription(1, "wire", "", "C:\\WIRE\\a.txt"), refused, nullptr},
        {"remove needs the event name too", msg::subscribe_irp_notification,
         subscription(1, "wire", "e", "C:\\WIRE\\a.txt"), ok, "Remove subscription for <wire> on file <c:\\wire\\a.txt>"},
        {"empty subscriber", msg::subscribe_irp_notification, subscription(0, "", "e", "p"), refused, nullptr},
        {"truncated subscription", msg::subscribe_irp_notification, bad_type, refused,
         "Subscription request of 1 bytes is truncated, refused"},
        {"empty subscription", msg::subscribe_irp_notification, mcl::binary_t(), refused,
         "Subscription request of 0 bytes is truncated, refused"},
        {"oversized subscription", msg::subscribe_irp_notification,
         subscription(0, std::string(300, 's'), "e", "p"), refused, "bytes is oversized (at most 1554 bytes"},
        {"query with nothing pending", msg::query_irp_notification_data, query("wire"), empty_list, nullptr},
        {"query of an unknown subscriber", msg::query_irp_notification_data, query("nobody"), empty_list, nullptr},
        {"query without a name", msg::query_irp_notification_data, mcl::binary_t(), empty_list, nullptr},
        {"query with an empty name", msg::query_irp_notification_data, query(""), empty_list, nullptr},
        {"truncated query", msg::query_irp_notification_data, bad_type, empty_list, "Query of 1 bytes is truncated"},
        {"oversized query", msg::query_irp_notification_data, query(std::string(261, 'q')), empty_list,
         "Query of 262 bytes is oversized"},
        {"a byte after the name", msg::query_irp_notification_data, trailing, empty_list,
         "Query of 6 bytes is oversized"},
    };
    for (auto& c : cases) {
        nv_test::log_capture log;
        EXPECT_EQ(c.reply, bytes(call(c.id, c.request))) << c.label;
        if (c.log != nullptr) {
            EXPECT_TRUE(log.contains(c.log)) << c.label << "\n" << log.text();
        }
    }
}

TEST(IrpMessages, DenialReachesEachSubscriberOnceWithItsOwnRecord) {
    mcl::event ev_a, ev_b;
    ASSERT_EQ(0, ev_a.create("Global\\nv_irp_test_a"));
    ASSERT_EQ(0, ev_b.create("Global\\nv_irp_test_b"));
    EXPECT_EQ((std::vector<uint8_t>{1, 0}),
              bytes(call(msg::subscribe_irp_notification,
                         subscription(0, "test_a", "Global\\nv_irp_test_a", "C:\\Data\\File.TXT"))));
    EXPECT_EQ((std::vector<uint8_t>{1, 0}),
              bytes(call(msg::subscribe_irp_notification, subscription(0, "test_b", "Global\\nv_irp_test_b", ""))));
    EXPECT_EQ((std::vector<uint8_t>{1, 0}),
              bytes(call(msg::subscribe_irp_notification,
                         subscription(0, "test_gone", "Global\\nv_irp_no_such_event", "c:\\data\\file.txt"))));
    fake_now = 130000000000000000ULL;
    svc().setIrpClock(&fake_clock);
    nv_test::log_capture log;
    uint64_t sequence = 0;
    EXPECT_TRUE(deliver(message(41, 1, L"\\Device\\HarddiskVolume1\\data\\file.txt"), 552, sequence));
    EXPECT_TRUE(ev_a.is_set());
    EXPECT_TRUE(ev_b.is_set());
    // Record fields, collection once and the notify lines are also checked end to end
    // (irp_notify_test.sh); here: the record's time, and a subscriber whose event is gone.
    EXPECT_TRUE(log.contains("[IRP Notification]: Received the IRP denied notification: "
                             "FileName=\"\\Device\\HarddiskVolume1\\data\\file.txt\" MajorFun=3, MinorFunc=0, pid=0x"));
    EXPECT_TRUE(log.contains("Failed to notify subscriber <test_gone> on IRP for file <c:\\data\\file.txt>, unable to "
                             "open event <Global\\nv_irp_no_such_event>, error: 2"))
        << log.text();

    auto a = records_of(call(msg::query_irp_notification_data, query("test_a")));
    ASSERT_EQ(1u, a.size());
    EXPECT_EQ(fake_now, a[0].time);
    EXPECT_EQ("c:\\data\\file.txt", a[0].path);
    EXPECT_TRUE(log.contains("Found notification data for <test_a> on file <c:\\data\\file.txt>, from pid <" +
                             std::to_string(GetCurrentProcessId()) + ">"));
    auto b = records_of(call(msg::query_irp_notification_data, query("test_b")));
    EXPECT_TRUE(records_of(call(msg::query_irp_notification_data, query("test_gone"))).empty());

    // A name on no volume reaches only the any-file subscriber, with an empty path.
    ev_a.reset();
    ev_b.reset();
    EXPECT_TRUE(deliver(message(42, 1, L"\\Device\\NoSuchVolume\\x"), 552, sequence));
    EXPECT_FALSE(ev_a.is_set());
    EXPECT_TRUE(ev_b.is_set());
    b = records_of(call(msg::query_irp_notification_data, query("test_b")));
    ASSERT_EQ(1u, b.size());
    EXPECT_EQ("", b[0].path);

    // Records older than 300 seconds go when the next message arrives; 300 seconds exactly stay.
    EXPECT_TRUE(deliver(message(43, 1, L"\\Device\\HarddiskVolume1\\data\\file.txt"), 552, sequence));
    fake_now += 3000000000ULL;
    EXPECT_TRUE(deliver(message(44, 1, L"\\Device\\HarddiskVolume1\\elsewhere"), 552, sequence));
    EXPECT_EQ(1u, records_of(call(msg::query_irp_notification_data, query("test_a"))).size());
    EXPECT_TRUE(deliver(message(45, 1, L"\\Device\\HarddiskVolume1\\data\\file.txt"), 552, sequence));
    fake_now += 3000000001ULL;
    EXPECT_TRUE(deliver(message(46, 1, L"\\Device\\HarddiskVolume1\\elsewhere"), 552, sequence));
    EXPECT_TRUE(records_of(call(msg::query_irp_notification_data, query("test_a"))).empty()) << "purged";
    svc().setIrpClock(&chelperservice::irpSystemTime);
}

TEST(IrpMessages, MalformedAndOtherMessagesAreDroppedWithALine) {
    mcl::event ev;
    ASSERT_EQ(0, ev.create("Global\\nv_irp_test_bad"));
    call(msg::subscribe_irp_notification, subscription(0, "test_bad", "Global\\nv_irp_test_bad", ""));
    std::vector<uint8_t> unterminated = message(52, 1, L"\\Device\\HarddiskVolume1\\a");
    for (size_t i = 28; i < unterminated.size(); ++i) unterminated[i] = 'a';
    struct {
        const char* label;
        std::vector<uint8_t> data;
        size_t size;
        bool more;
        const char* line;
    } cases[] = {
        {"shorter than the header", message(51, 1, L"x"), 20, true,
         "[IRP Notification]: Message of 20 bytes is shorter than its header (28 bytes), dropped."},
        {"name without terminator", unterminated, 552, true,
         "[IRP Notification]: The file name of message 52 does not end inside the message, dropped."},
        {"unknown type", message(54, 7, L"x"), 552, true,
         "[IRP Notification]: Invalid notification type 7, message ignored."},
        {"stop", message(55, 0, L""), 552, false, "[IRP Notification]: Received the stop message from driver"},
    };
    for (const auto& c : cases) {
        nv_test::log_capture log;
        uint64_t sequence = 0;
        ev.reset();
        EXPECT_EQ(c.more, deliver(c.data, c.size, sequence)) << c.label;
        EXPECT_TRUE(log.contains(c.line)) << c.label << "\n" << log.text();
        EXPECT_FALSE(ev.is_set()) << c.label;
        EXPECT_FALSE(log.contains("Notify subscriber")) << c.label;
    }
    EXPECT_TRUE(records_of(call(msg::query_irp_notification_data, query("test_bad"))).empty());
}

TEST(IrpReceiver, StopEndsAPendingWaitAtOnce) {
    {
        chelperservice::driver_port port = chelperservice::openDriverPort();
        ASSERT_TRUE(port) << "the driver simulator runs in the test prefix";
        chelperservice::drvEnableFeature(port.get(), vqr::code::feature_irp_notify, true);
    }
    nv_test::log_capture log;
    chelperservice::irp_notification_receiver receiver(&svc());
    ASSERT_TRUE(receiver.start());
    // Once a notification reaches a port, the receiver is connected and waiting.
    nv_test::sim_injector sim;
    ASSERT_TRUE(sim.open());
    uint32_t delivered = 0;
    for (int i = 0; i < 200 && delivered == 0; ++i) {
        ASSERT_TRUE(sim.inject(1, 3, 0, 4, L"\\Device\\HarddiskVolume1\\wait.txt", delivered));
        if (delivered == 0) Sleep(100);
    }
    ASSERT_EQ(1u, delivered);
    for (int i = 0; i < 200 && !log.contains("Got message"); ++i) Sleep(100);
    Sleep(200);  // back in its wait

    const auto started = std::chrono::steady_clock::now();
    receiver.stop(1000);
    const auto took = std::chrono::steady_clock::now() - started;
    // The limit is 1000 s; a cancelled wait ends in well under a minute even on a loaded machine.
    EXPECT_LT(took, std::chrono::seconds(60));
    EXPECT_EQ(0u, receiver.last_exit_code()) << "ended by itself, not terminated";
    EXPECT_TRUE(log.contains("[IRP Notification]: FilterGetMessage aborted: -2147023901 - ")) << log.text();
    EXPECT_FALSE(log.contains("Failed to close the notification port"));

    chelperservice::driver_port port = chelperservice::openDriverPort();
    chelperservice::drvEnableFeature(port.get(), vqr::code::feature_irp_notify, false);
}

}  // namespace
