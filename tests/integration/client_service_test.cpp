// The client library against the real service, both suites run from halvernctl_test.sh:
// client_against_the_service first, where NV_SERVICE_EXE names the service's program and the
// service starts uninstalled; then client_with_simulator, where the service runs with the
// driver simulator (NV_WITH_SIMULATOR set).
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "client/invchelper.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace {

using NVClientHelper::result;

std::string service_exe() {
    const char* exe = std::getenv("NV_SERVICE_EXE");
    return exe != nullptr ? exe : "";
}

// Lines of the service's debug log (beside its program) that contain `text`.
size_t service_log_count(const std::string& text) {
    const std::string exe = service_exe();
    return nv_test::count_of(nv_test::file_text(exe.substr(0, exe.rfind('\\') + 1) + "nvhalvernservice.debug.log"), text);
}

DWORD service_command(const std::string& arguments) {
    nv_test::child c = nv_test::start("\"" + service_exe() + "\" " + arguments);
    return c.process != nullptr ? c.wait(120000) : static_cast<DWORD>(-1);
}

TEST(client_against_the_service, a_missing_service_is_neither_started_nor_connected) {
    ASSERT_FALSE(service_exe().empty());
    nv_test::log_capture log;
    invchelper* h = NVClientHelper::createHelper();
    EXPECT_FALSE(h->is_installed());
    EXPECT_FALSE(h->is_stopped());  // no state to read
    EXPECT_FALSE(h->connect(5000));
    EXPECT_FALSE(log.contains("mcl::mswin::service::start"));
    EXPECT_FALSE(log.contains("mcl::ipc_peer::connect"));
    NVClientHelper::releaseHelper(h);
}

TEST(client_against_the_service, connect_starts_the_stopped_service_which_answers_and_stops) {
    ASSERT_EQ(service_command("-i install"), 0u);
    invchelper* h = NVClientHelper::createHelper();
    EXPECT_TRUE(h->is_installed());
    EXPECT_TRUE(h->is_stopped());
    ASSERT_TRUE(h->connect(30000));
    EXPECT_FALSE(h->is_stopped());  // its versions: halvernctl status in the same script
    NVClientHelper::releaseHelper(h);  // posts the disconnect
    for (int i = 0; i < 100 && service_log_count("Received IPC message 1000000") == 0; ++i) Sleep(100);
    EXPECT_EQ(service_log_count("Received IPC message 1000000"), 1u);

    h = NVClientHelper::createHelper();
    ASSERT_TRUE(h->connect(30000));  // running: no second start
    EXPECT_TRUE(h->connect(30000));  // connected already: still one connection
    EXPECT_EQ(service_log_count("Service Version: 3.0.45.1"), 1u);
    EXPECT_TRUE(h->request_stop());
    for (int i = 0; i < 300 && !h->is_stopped(); ++i) Sleep(100);
    EXPECT_TRUE(h->is_stopped());
    NVClientHelper::releaseHelper(h);
    EXPECT_EQ(service_command("-i uninstall"), 0u);
}

// ---------------------------------------------------------------------------------------------
// Every method against the running service and the simulator: halvernctl_test.sh
// starts the test services nv_lib_svc (from C:\prot\lib) and leaves nv_lib_ctl stopped.

std::string driver_state() {
    std::string out;
    nv_test::run("driver_ctl.exe", "state", &out);
    return out;
}

struct step {
    const char* what;
    std::function<bool(invchelper*, result*)> call;
    bool want;
    std::string message;              // the reply's message
    std::vector<std::string> driver;  // pieces of the simulator's state afterwards
    std::string driver_not;           // a piece it must not hold
};

void run_steps(invchelper* h, const std::vector<step>& steps) {
    for (const step& s : steps) {
        result r{7, "untouched"};
        EXPECT_EQ(s.call(h, &r), s.want) << s.what;
        EXPECT_EQ(r.ok, s.want ? 1 : 0) << s.what;
        EXPECT_EQ(r.message, s.message) << s.what;
        const std::string state = driver_state();
        for (const std::string& piece : s.driver) {
            EXPECT_NE(state.find(piece), std::string::npos) << s.what << ": " << piece << " in " << state;
        }
        if (!s.driver_not.empty()) {
            EXPECT_EQ(state.find(s.driver_not), std::string::npos) << s.what << ": " << state;
        }
    }
}

const std::string lib_image = R"(C:\\prot\\lib\\nv_test_service.exe)";  // as JSON writes it
const std::string app_image = R"(C:\\prot\\app\\a.exe)";
const std::string data_file = R"(C:\prot\data\lib.txt)";
const std::string blocked_rule = R"(\\prot\\data\\lib.txt)";
// The process, folder and registry protection features.
std::vector<std::string> features(bool process, bool registry) {
    const std::string p = process ? "true" : "false";
    return {R"("0":)" + p, R"("6":)" + p, std::string(R"("11":)") + (registry ? "true" : "false")};
}
#define STEP(what, call) what, [&](invchelper* c, result* r) { return c->call; }

}  // namespace

TEST(client_with_simulator, every_method) {
    if (std::getenv("NV_WITH_SIMULATOR") == nullptr) GTEST_SKIP() << "needs the running service and simulator";
    invchelper* h = NVClientHelper::createHelper();
    ASSERT_TRUE(h->connect(30000));
    ASSERT_TRUE(h->proto_compatible());
    const std::wstring key = L"Software\\NvLib\\Key";
    run_steps(h, {
        {STEP("protect_process", protect_process(R"(C:\prot\app\a.exe)", r)), true, "", {app_image}, ""},
        {STEP("protect_reg_key", protect_reg_key(HKEY_LOCAL_MACHINE, key, NVClientHelper::level_write, r)), true, "",
         {R"(Software\\NvLib\\Key)"}, ""},
    });
    std::vector<NVClientHelper::protected_service_info> services;
    std::vector<NVClientHelper::protected_process_info> processes;
    std::vector<NVClientHelper::protected_reg_key_info> keys;
    auto listed = [&]() {
        std::string found;
        EXPECT_TRUE(h->query_protected_services(services) && h->query_protected_processes(processes) &&
                    h->get_protected_reg_keys(keys));
        for (const auto& s : services)
            if (s.name == "nv_lib_svc" && s.process_protected && s.image_path == LR"(C:\prot\lib\nv_test_service.exe)") found += "s";
        for (const auto& p : processes)
            if (p.image_path == LR"(C:\prot\app\a.exe)" && p.folder == LR"(C:\prot\app)") found += "p";
        for (const auto& k : keys)
            if (_wcsicmp(k.path.c_str(), key.c_str()) == 0 && k.root == 0xFFFFFFFF80000002ull) found += "k";
        return found;
    };
    EXPECT_EQ(listed(), "pk");
    run_steps(h, {
        {STEP("unprotect_process", unprotect_process(R"(C:\prot\app\a.exe)", r)), true, "", {}, app_image},
        {STEP("unprotect_reg_key", unprotect_reg_key(HKEY_LOCAL_MACHINE, key, r)), true, "", {}, ""},
    });
    EXPECT_EQ(listed(), "");
    // The list forms, on and off (halvernctl_test.sh protects one service and refuses a drive root).
    for (const bool on : {true, false}) {
        EXPECT_TRUE(h->protect_services({{on, on, "nv_lib_svc"}}));
        EXPECT_TRUE(h->protect_processes({{on, LR"(C:\prot\app\a.exe)"}}));
        EXPECT_TRUE(h->protect_reg_keys({{on, HKEY_LOCAL_MACHINE, key, "", {}, NVClientHelper::level_write}}));
        EXPECT_EQ(listed(), on ? "spk" : "");
    }
    const std::string state = driver_state();
    EXPECT_EQ(state.find(app_image), std::string::npos) << state;
    EXPECT_EQ(state.find(lib_image), std::string::npos) << state;
    std::ofstream(data_file, std::ios::binary) << "lib";
    run_steps(h, {
        // The switches (off lifts every service and process protection), service control, repairs.
        {STEP("disable_driver_protection", disable_driver_protection(r)), true, "", features(false, true), ""},
        {STEP("set_protection_enabled off", set_protection_enabled(false, r)), true, "", features(false, false), ""},
        {STEP("enable_driver_protection", enable_driver_protection(r)), true, "", features(true, false), ""},
        {STEP("set_protection_enabled on", set_protection_enabled(true, r)), true, "", features(true, true), ""},
        {STEP("disable again", disable_driver_protection(r)), true, "", {}, ""},
        {STEP("restore_driver_protection", restore_driver_protection(true, r)), true, "", features(true, true), ""},
        {STEP("start_service", start_service({"nv_lib_ctl", {"alpha", "beta gamma"}}, r)), true, "", {}, ""},
        {STEP("start_service, running", start_service({"nv_lib_ctl", {}}, r)), true, "Service has already been started.", {}, ""},
        {STEP("stop_service", stop_service("nv_lib_ctl", r)), true, "", {}, ""},
        {STEP("recover_service_dacl", recover_service_dacl("nv_lib_ctl", r)), true, "", {}, ""},
        {STEP("recover_folder_dacl", recover_folder_dacl(R"(C:\prot\lib)", r)), true, "", {}, ""},
        // Quarantine and blocked files.
        {STEP("create_quarantine_container", create_quarantine_container(R"(C:\prot\libq)", {}, r)), true, "", {}, ""},
        {STEP("block_files_access", block_files_access(NVClientHelper::block_files, {}, {data_file}, r)), true, "", {blocked_rule}, ""},
        {STEP("block_files_access, unblock", block_files_access(NVClientHelper::unblock_files, {}, {data_file}, r)), true, "", {}, blocked_rule},
        {STEP("is_file_access_blocked, no", is_file_access_blocked(data_file, r)), true, "no", {}, ""},
    });
    // A file quarantined and deleted, then the container (halvernctl_test.sh lists and restores).
    result added;
    EXPECT_TRUE(h->add_quarantine_files(R"(C:\prot\libq)", {data_file}, &added)) << added.message;
    const std::string archive = added.message.substr(0, added.message.find(';'));
    EXPECT_EQ(added.message, archive + ";");
    EXPECT_EQ(archive.rfind(R"(c:\prot\libq\lib.txt.)", 0), 0u) << archive;
    EXPECT_EQ(GetFileAttributesA(data_file.c_str()), INVALID_FILE_ATTRIBUTES);
    run_steps(h, {
        {STEP("remove_quarantine_files", remove_quarantine_files(R"(C:\prot\libq)", {archive}, r)), true, "", {}, ""},
        {STEP("remove_quarantine_container", remove_quarantine_container(NVClientHelper::container_delete_archives, R"(C:\prot\libq)", r)), true, "", {}, ""},
    });
    EXPECT_EQ(GetFileAttributesA(archive.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesA(data_file.c_str()), INVALID_FILE_ATTRIBUTES);
    std::vector<std::string> containers;
    ASSERT_TRUE(h->get_quarantine_containers(containers));
    EXPECT_TRUE(containers.empty());

    // A denial for a subscribed file sets the subscriber's event; its record is collected once.
    const std::string event_name = "Global\\" + nv_test::unique_name("nv_lib_event");
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, event_name.c_str());
    ASSERT_NE(event, nullptr);
    const uint8_t any = NVClientHelper::any_function;
    result r;
    ASSERT_TRUE(h->subscribe(event_name, R"(C:\Data\Lib.txt)", any, any, NVClientHelper::any_notification, &r));
    const std::string pid = std::to_string(GetCurrentProcessId());
    ASSERT_EQ(nv_test::run("driver_ctl.exe", "inject 3 0 " + pid + R"( \Device\HarddiskVolume1\data\lib.txt)"), 0u);
    EXPECT_EQ(WaitForSingleObject(event, 30000), WAIT_OBJECT_0);
    std::vector<NVClientHelper::notification_data> records;
    ASSERT_TRUE(h->query_notification_data(records));
    ASSERT_EQ(records.size(), 1u);
    const auto& n = records[0];
    EXPECT_EQ(n.file_path + "|" + std::to_string(n.major_function) + "|" + std::to_string(n.process_id) + "|" +
                  std::to_string(n.irp_denied),
              R"(c:\data\lib.txt|3|)" + pid + "|1");
    EXPECT_NE(n.process_image.find("client_service_test.exe"), std::string::npos) << n.process_image;
    ASSERT_TRUE(h->query_notification_data(records));
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(h->unsubscribe(event_name, R"(C:\Data\Lib.txt)", any, any, NVClientHelper::any_notification, &r));
    CloseHandle(event);
    NVClientHelper::releaseHelper(h);
}
