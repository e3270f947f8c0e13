#include "service/helper_service.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
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

TEST(RequestDispatch, EachStateChangingRequestWritesOneAuditLineNamingTheClient) {
    // A listening connection whose client is this process.
    const std::string path = std::string(mcl::ipc_channel::pipe_prefix) + "nv_audit_" + std::to_string(GetCurrentProcessId());
    mcl::share_ptr<mcl::ipc_connection> server(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    mcl::share_ptr<mcl::ipc_connection> client(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    ASSERT_TRUE(server->open(path.c_str()));
    ASSERT_TRUE(client->open(path.c_str()));
    ASSERT_TRUE(server->reader().listen());
    char image[MAX_PATH];
    const std::string own_image(image, GetModuleFileNameA(nullptr, image, MAX_PATH));

    struct {
        uint32_t id;
        const char* name;
    } cases[] = {
        {msg::stop_service, "stop service"},
        {msg::protect_services, "protect services"},
        {msg::protect_processes, "protect processes"},
        {msg::disable_driver_protection, "driver protection off"},
        {msg::enable_driver_protection, "driver protection on"},
        {msg::set_protection_enabled, "protection master switch"},
        {msg::protect_reg_keys, "protect reg keys"},
        {msg::service_ctrl_start_service, "start service"},
        {msg::service_ctrl_stop_service, "stop service by name"},
        {msg::service_ctrl_recover_dacl, "recover service DACL"},
        {msg::restore_driver_protection, "restore driver protection"},
        {msg::recover_folder_dacl, "recover folder DACL"},
        {msg::create_quarantine_container, "create quarantine container"},
        {msg::quarantine_files, "quarantine files"},
        {msg::remove_quarantine_container, "remove quarantine container"},
        {msg::block_file_access, "block file access"},
        {msg::unblock_file_access, "unblock file access"},
        {msg::block_files_access, "block files access"},
    };
    // Requests that only read: no audit line.
    const uint32_t reads[] = {msg::disconnect, msg::protocol_compatible, msg::service_version,
                              msg::query_protected_services, msg::query_protected_processes, msg::get_protected_reg_keys,
                              msg::get_quarantined_files, msg::get_quarantine_containers, msg::is_file_quarantined,
                              msg::is_file_access_blocked, msg::query_irp_notification_data, 0x10000fc};
    chelperservice::helper_msg_handler& handler = chelperservice::instance().msg_handler();
    for (const auto& c : cases) {
        nv_test::log_capture log;
        mcl::binary_t payload;  // malformed for most: the audit line comes before the handler looks
        EXPECT_EQ(1, handler(server.get(), c.id, payload)) << std::hex << c.id;
        char line[512];
        snprintf(line, sizeof(line), "] - Audit: request \"%s\" (IPC message %X) from process %lu (%s)", c.name, c.id,
                 static_cast<unsigned long>(GetCurrentProcessId()), own_image.c_str());
        EXPECT_EQ(1u, log.count(line)) << c.name << "\n" << log.text();
        EXPECT_EQ(1u, log.count("Audit: ")) << c.name;
    }
    for (uint32_t id : reads) {
        nv_test::log_capture log;
        mcl::binary_t payload;
        EXPECT_EQ(1, handler(server.get(), id, payload)) << std::hex << id;
        EXPECT_FALSE(log.contains("Audit: ")) << std::hex << id << "\n" << log.text();
    }
}

}  // namespace
