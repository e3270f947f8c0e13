#include "service/helper_service.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "mcl/mswin/reg.h"
#include "service/message_ids.h"
#include "tests/helpers/log_capture.h"

namespace {

// A connection that is in no peer's list: disconnect leaves the peer as it was.
mcl::share_ptr<mcl::ipc_connection> test_connection(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
mcl::ipc_connection* const conn = test_connection.get();

std::vector<unsigned char> bytes(const mcl::binary_t& b) { return {b.data(), b.data() + b.size()}; }

mcl::binary_t payload_of(std::vector<unsigned char> v) {
    mcl::binary_t b;
    b.append(v.data(), static_cast<uint32_t>(v.size()));
    return b;
}

TEST(RequestDispatch, ReplyEncodings) {
    struct {
        const char* label;
        uint32_t id;
        std::vector<unsigned char> request;
        std::vector<unsigned char> reply;
    } cases[] = {
        {"compatibility, empty request", msg::protocol_compatible, {}, {0, 5, 0, 0, 0}},
        {"compatibility, three bytes", msg::protocol_compatible, {5, 0, 0}, {0, 5, 0, 0, 0}},
        {"compatibility, client version 5", msg::protocol_compatible, {5, 0, 0, 0}, {1, 5, 0, 0, 0}},
        {"compatibility, any four or more bytes", msg::protocol_compatible, {9, 9, 9, 9, 9}, {1, 5, 0, 0, 0}},
        {"service version", msg::service_version, {}, {0x2D, 0x00, 0x03, 0x00}},
        {"service version ignores the request", msg::service_version, {1, 2, 3, 4, 5, 6}, {0x2D, 0x00, 0x03, 0x00}},
        {"disconnect writes no reply", msg::disconnect, {7, 7}, {7, 7}},
    };
    chelperservice::helper_msg_handler& handler = chelperservice::instance().msg_handler();
    for (const auto& c : cases) {
        nv_test::log_capture log;
        mcl::binary_t payload = payload_of(c.request);
        EXPECT_EQ(1, handler(conn, c.id, payload)) << c.label;
        EXPECT_EQ(c.reply, bytes(payload)) << c.label;
        char line[128];
        snprintf(line, sizeof(line), "[chelperservice::helper_msg_handler::operator ():");
        EXPECT_TRUE(log.contains(line)) << c.label;
        snprintf(line, sizeof(line), "] - Received IPC message %X, payload size: %d", c.id,
                 static_cast<int>(c.request.size()));
        EXPECT_TRUE(log.contains(line)) << c.label << "\n" << log.text();
        EXPECT_FALSE(log.contains("Unknow mc::ipc message")) << c.label;
    }
}

TEST(RequestDispatch, UnknownIdentifiersAreLoggedAndEchoed) {
    const uint32_t unknown[] = {0x10000fc, 0xFFFFFF, 0, 0x100000d, 0x1000064, 0x100006a, 0x10000c8, 0x10000d3,
                                0x10000f9, 0x2000009, 0xFFFFFFFF};
    chelperservice::helper_msg_handler& handler = chelperservice::instance().msg_handler();
    for (uint32_t id : unknown) {
        nv_test::log_capture log;
        mcl::binary_t payload = payload_of({1, 2, 3});
        EXPECT_EQ(1, handler(conn, id, payload)) << std::hex << id;
        EXPECT_EQ((std::vector<unsigned char>{1, 2, 3}), bytes(payload)) << std::hex << id;
        char line[96];
        snprintf(line, sizeof(line), "] - Unknow mc::ipc message %X, ignored", id);
        EXPECT_TRUE(log.contains(line)) << log.text();
    }
}

TEST(RequestDispatch, NoConnectionNoWork) {
    nv_test::log_capture log;
    mcl::binary_t payload = payload_of({});
    EXPECT_EQ(0, chelperservice::instance().msg_handler()(nullptr, msg::service_version, payload));
    EXPECT_EQ(0u, payload.size());
    EXPECT_FALSE(log.contains("Received IPC message"));
}

// Waits up to 20 s for `needle` in the log.
bool wait_for(const nv_test::log_capture& log, const std::string& needle) {
    for (int i = 0; i < 200; ++i) {
        if (log.contains(needle)) return true;
        Sleep(100);
    }
    return false;
}

TEST(ServiceCore, StopMessageEndsTheServiceWhichShutsDownCompletely) {
    nv_test::log_capture log;
    chelperservice& svc = chelperservice::instance();
    svc.set_debug(true);
    std::thread service_thread([&] { svc.run_main(); });
    ASSERT_TRUE(wait_for(log, "loadqQuarantineContainers")) << log.text();

    mcl::binary_t payload = payload_of({});
    EXPECT_EQ(1, svc.msg_handler()(conn, msg::stop_service, payload));
    EXPECT_EQ(0u, payload.size()) << "no reply";
    service_thread.join();
    svc.set_debug(false);

    const std::string text = log.text();
    EXPECT_NE(std::string::npos, text.find("[chelperservice::main:")) << text;
    EXPECT_NE(std::string::npos, text.find("] - Service Version: 3.0.45.1")) << text;
    EXPECT_EQ(std::string::npos, text.find("Emergency options")) << text;
    EXPECT_LT(text.find("Service Version"), text.find("service_enforce_thread stop")) << text;
    EXPECT_TRUE(WaitForSingleObject(svc.service_stopped_event(), 0) == WAIT_OBJECT_0) << "the stopped event is set";
    // The instance mutex is free again.
    HANDLE m = CreateMutexA(nullptr, FALSE, chelperservice::instance_mutex_name);
    EXPECT_NE(ERROR_ALREADY_EXISTS, GetLastError());
    CloseHandle(m);
}

TEST(ServiceCore, ASecondInstanceStopsAtOnceWithoutAVersionLine) {
    HANDLE first = CreateMutexA(nullptr, FALSE, chelperservice::instance_mutex_name);
    ASSERT_NE(nullptr, first);
    nv_test::log_capture log;
    chelperservice::instance().main(0, nullptr);
    CloseHandle(first);
    EXPECT_FALSE(log.contains("Service Version")) << log.text();
    EXPECT_TRUE(log.contains("drvEnableFeature 16 off")) << log.text();
    // What reaches the driver: tests/integration/driver_port_test.sh.
}

TEST(ServiceCore, DisableProtectionZeroAloneStopsWithoutListening) {
    ASSERT_TRUE(mcl::mswin::reg::write_dword(k_emergency_key, "disableProtection", 0));
    nv_test::log_capture log;
    chelperservice& svc = chelperservice::instance();
    // No stop event exists in this call: returning at all shows that the service did not listen.
    svc.main(0, nullptr);
    uint32_t value = 0;
    EXPECT_FALSE(mcl::mswin::reg::read_dword(k_emergency_key, "disableProtection", value)) << "consumed";
    EXPECT_TRUE(log.contains("] - Emergency options have been handled, exit the service.")) << log.text();
    EXPECT_FALSE(log.contains("Emergency option - protection has been disabled.")) << log.text();
    EXPECT_TRUE(log.contains("handle_protect_services norvale_halvern_svc off")) << log.text();
    EXPECT_TRUE(svc.protection_enabled()) << "nothing else is disabled";
}

}  // namespace
