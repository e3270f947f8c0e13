#include "service/helper_service.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "protocol/message_ids.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"
#include "tests/helpers/restricted.h"

namespace {

// What `token` may do with an object under `sddl`: AccessCheck for MAXIMUM_ALLOWED.
DWORD granted_to(HANDLE token, const char* sddl, GENERIC_MAPPING mapping) {
    mcl::mswin::security_descriptor descriptor;
    if (!mcl::mswin::security_descriptor::from_sddl(sddl, descriptor)) return ~0u;
    PRIVILEGE_SET privileges{};
    DWORD privileges_size = sizeof(privileges);
    DWORD granted = 0;
    BOOL allowed = FALSE;
    if (!AccessCheck(descriptor.get(), token, MAXIMUM_ALLOWED, &mapping, &privileges, &privileges_size, &granted, &allowed))
        return ~0u;
    return allowed ? granted : 0;
}

TEST(ObjectSecurity, OrdinaryUsersGetWhatAClientNeedsAdministratorsEverything) {
    const auto user = nv_test::restricted_token(/*impersonation=*/true);
    HANDLE own = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE, &own));
    HANDLE admin_raw = nullptr;
    ASSERT_TRUE(DuplicateToken(own, SecurityImpersonation, &admin_raw));
    CloseHandle(own);
    const mcl::mswin::unique_kernel_handle admin(admin_raw);
    ASSERT_TRUE(user);
    const GENERIC_MAPPING event{STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                                STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS};
    const GENERIC_MAPPING mutex{STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE,
                                STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, MUTEX_ALL_ACCESS};
    const GENERIC_MAPPING pipe{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    const struct {
        const char* sddl;
        GENERIC_MAPPING mapping;
        DWORD ordinary;
    } cases[] = {
        {chelperservice::stop_events_sddl, event, 0},
        {chelperservice::instance_mutex_sddl, mutex, 0},
        {chelperservice::connecting_mutex_sddl, mutex, SYNCHRONIZE | MUTEX_MODIFY_STATE},
        {chelperservice::connected_event_sddl, event, SYNCHRONIZE | EVENT_MODIFY_STATE},
        {chelperservice::pipe_sddl, pipe, FILE_GENERIC_READ | (FILE_GENERIC_WRITE & ~FILE_CREATE_PIPE_INSTANCE)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.ordinary, granted_to(user.get(), c.sddl, c.mapping)) << c.sddl;
        EXPECT_EQ(c.mapping.GenericAll, granted_to(admin.get(), c.sddl, c.mapping)) << c.sddl;
    }
    // What a client asks of the pipes is within what an ordinary user gets.
    DWORD asked = mcl::ipc_channel::client_read_access;
    MapGenericMask(&asked, const_cast<GENERIC_MAPPING*>(&pipe));
    asked |= mcl::ipc_channel::client_write_access;
    EXPECT_EQ(0u, asked & ~granted_to(user.get(), chelperservice::pipe_sddl, pipe));
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

TEST(ImageFolder, PathsAndCommandLines) {
    struct {
        const wchar_t* in;
        const wchar_t* want;
    } cases[] = {
        {L"C:\\Program Files\\App\\app.exe", L"C:\\Program Files\\App"},
        {L"\"C:\\Program Files\\App\\app.exe\" -k netsvcs", L"C:\\Program Files\\App"},
        {L"\"\\\\server\\share\\app.exe\" -x", L"\\\\server\\share"},
        {L"junk before C:\\A\\b.exe", L"C:\\A"},
        {L"C:\\app.exe", L"C:"},
        {L"app.exe", L"app.exe"},
        {L"", L""},
    };
    for (const auto& c : cases) EXPECT_EQ(process_protection::image_folder_of(c.in), c.want) << std::wstring(c.in).c_str();
}

TEST(KillProcessByPath, EveryProcessOfThatImageOnly) {
    char temp[MAX_PATH] = {};
    ASSERT_NE(GetTempPathA(MAX_PATH, temp), 0u);
    const std::string copy = std::string(temp) + nv_test::unique_name("nv_kill_") + ".exe";
    const std::string original = nv_test::bin_dir() + "nv_test_helper.exe";
    ASSERT_TRUE(CopyFileA(original.c_str(), copy.c_str(), FALSE));
    auto hold = [](const std::string& exe) {
        return nv_test::start("\"" + exe + "\" hold-mutex " + nv_test::unique_name("Global\\nv_kill_") + " 60000 none");
    };
    nv_test::child a = hold(copy), b = hold(copy), other = hold(original);
    Sleep(500);
    std::string upper = copy;
    CharUpperBuffA(&upper[0], static_cast<DWORD>(upper.size()));
    chelperservice::killProcessByPath(upper);  // the comparison ignores case
    EXPECT_EQ(a.wait(10000), 9u);
    EXPECT_EQ(b.wait(10000), 9u);
    EXPECT_EQ(other.wait(0), static_cast<DWORD>(STILL_ACTIVE));
    other.kill();
    DeleteFileA(copy.c_str());
}

}  // namespace
