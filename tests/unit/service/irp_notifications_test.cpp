// The 300-second purge of IRP-denied records, through the service's clock seam, and the bound on
// what one subscriber holds: driver messages handed over as the receiver does. Everything else
// about the notifications, bad requests and malformed messages included, is shown end to end
// (driver_port_test.sh).
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/event.h"
#include "protocol/driver_protocol.h"
#include "protocol/message_ids.h"
#include "protocol/requests.h"
#include "service/helper_service.h"
#include "tests/helpers/notification_records.h"
#include "tests/helpers/log_capture.h"
#include "tests/unit/protocol/conformance.h"

namespace {

chelperservice& svc() { return chelperservice::instance(); }

// Requests come on a listening connection whose client is this process, which may set the
// events it created.
mcl::ipc_connection* server() {
    static const std::string path =
        std::string(mcl::ipc_channel::pipe_prefix) + "nv_irp_test_" + std::to_string(GetCurrentProcessId());
    static mcl::share_ptr<mcl::ipc_connection> server(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    static mcl::share_ptr<mcl::ipc_connection> client(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    static const bool opened = server->open(path.c_str()) && client->open(path.c_str()) && server->reader().listen();
    EXPECT_TRUE(opened);
    return server.get();
}

std::vector<uint8_t> call(uint32_t id, mcl::binary_t payload) {
    EXPECT_EQ(1, svc().msg_handler()(server(), id, payload));
    return {payload.data(), payload.data() + payload.size()};
}

std::vector<protocol::notification_data> collect(const std::string& sub) {
    const std::vector<uint8_t> reply =
        call(msg::query_irp_notification_data, nv_test::encoded(protocol::notification_query_request{sub}));
    std::vector<protocol::notification_data> records;
    EXPECT_TRUE(nv_test::read_records(mcl::binary_t(reply.data(), static_cast<uint32_t>(reply.size())), records));
    return records;
}

// Hands one IRP-denied message to the service as the receiver would, with the running sequence
// number the receiver keeps.
uint64_t sequence = 0;
bool deliver(uint64_t id, const std::wstring& file, uint8_t major = 3) {
    const vqr::irp_notification n{id, vqr::notification::type_irp_denied, major, 0, GetCurrentProcessId(), file};
    std::vector<uint8_t> m;
    EXPECT_TRUE(vqr::build_notification(n, m));
    return svc().irp_notifications().handleIrpMessage(m.data(), m.size(), sequence);
}

uint64_t fake_now = 130000000000000000ULL;
uint64_t fake_clock() { return fake_now; }

TEST(IrpMessages, RecordsExpireWhenAMessageArrivesMoreThan300SecondsAfterThem) {
    mcl::event ev;  // a subscriber whose event cannot be opened gets no records
    ASSERT_EQ(0, ev.create("Global\\nv_irp_test_a"));
    const protocol::subscribe_request request{false, "test_a", "Global\\nv_irp_test_a", "C:\\Data\\File.TXT"};
    EXPECT_EQ(std::vector<uint8_t>({1, 0}), call(msg::subscribe_irp_notification, nv_test::encoded(request)));
    svc().irp_notifications().setIrpClock(&fake_clock);
    EXPECT_TRUE(deliver(41, L"\\Device\\HarddiskVolume1\\data\\file.txt"));
    auto a = collect("test_a");
    ASSERT_EQ(1u, a.size());
    EXPECT_EQ(fake_now, a[0].time);

    EXPECT_TRUE(deliver(43, L"\\Device\\HarddiskVolume1\\data\\file.txt"));
    fake_now += 3000000001ULL;
    EXPECT_TRUE(deliver(44, L"\\Device\\HarddiskVolume1\\elsewhere"));
    EXPECT_TRUE(collect("test_a").empty()) << "purged";

    // The subscribing connection ends: the subscription goes 300 seconds later.
    nv_test::log_capture log;
    svc().msg_handler().connection_ended(server());
    fake_now += 3000000000ULL;
    EXPECT_TRUE(deliver(45, L"\\Device\\HarddiskVolume1\\data\\file.txt"));
    EXPECT_EQ(0u, log.count("Subscription for <test_a> ended"));
    fake_now += 1;
    EXPECT_TRUE(deliver(46, L"\\Device\\HarddiskVolume1\\data\\file.txt"));
    EXPECT_EQ(1u, log.count("Subscription for <test_a> ended: its client has been gone for 300 seconds"));
    EXPECT_EQ(1u, log.count("Notify subscriber <test_a>")) << "notified while it lasted, not after";
    svc().irp_notifications().setIrpClock(&irp_notifier::irpSystemTime);
}

TEST(IrpMessages, ASubscriberHoldsAtMostTheBoundOldestDroppedFirstWithOneLinePerBurst) {
    mcl::event ev;
    ASSERT_EQ(0, ev.create("Global\\nv_irp_test_b"));
    const protocol::subscribe_request request{false, "test_b", "Global\\nv_irp_test_b", "C:\\Data\\Burst.txt"};
    EXPECT_EQ(std::vector<uint8_t>({1, 0}), call(msg::subscribe_irp_notification, nv_test::encoded(request)));
    nv_test::log_capture log;
    const size_t extra = 5;  // sent first, with another major function, to be dropped
    for (uint64_t i = 0; i < irp::max_records_per_subscriber + extra; ++i)
        ASSERT_TRUE(deliver(100 + i, L"\\Device\\HarddiskVolume1\\data\\burst.txt", i < extra ? 4 : 3));
    const auto records = collect("test_b");
    ASSERT_EQ(irp::max_records_per_subscriber, records.size());
    for (const auto& r : records) ASSERT_EQ(3, r.major_function);
    EXPECT_EQ(1u, log.count("Subscriber <test_b> holds 10000 notification records, dropping the oldest"));
}

}  // namespace
