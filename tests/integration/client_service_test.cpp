// The client library against the real service, run by halvernctl_test.sh inside its own Wine
// prefix: NV_SERVICE_EXE names the service's program there, which starts uninstalled.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "client/invchelper.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace {

std::string service_exe() {
    const char* exe = std::getenv("NV_SERVICE_EXE");
    return exe != nullptr ? exe : "";
}

// Lines of the service's debug log (beside its program) that contain `text`.
size_t service_log_count(const std::string& text) {
    const std::string exe = service_exe();
    std::ifstream in(exe.substr(0, exe.rfind('\\') + 1) + "nvhalvernservice.debug.log", std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    const std::string t = s.str();
    size_t n = 0;
    for (size_t at = t.find(text); at != std::string::npos; at = t.find(text, at + 1)) ++n;
    return n;
}

// Runs the service's program with `arguments`; its exit code.
DWORD service_command(const std::string& arguments) {
    nv_test::child c = nv_test::start("\"" + service_exe() + "\" " + arguments);
    return c.process != nullptr ? c.wait(120000) : static_cast<DWORD>(-1);
}

bool wait_stopped(invchelper* h) {
    for (int i = 0; i < 300; ++i) {
        if (h->is_stopped()) return true;
        Sleep(100);
    }
    return false;
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
    EXPECT_FALSE(h->is_stopped());
    EXPECT_EQ(h->get_service_version(), 196653u);
    EXPECT_TRUE(h->proto_compatible());
    EXPECT_EQ(NVClientHelper::protocolVersion(h), 5u);
    NVClientHelper::releaseHelper(h);  // posts the disconnect
    for (int i = 0; i < 100 && service_log_count("Received IPC message 1000000") == 0; ++i) Sleep(100);
    EXPECT_EQ(service_log_count("Received IPC message 1000000"), 1u);

    h = NVClientHelper::createHelper();
    ASSERT_TRUE(h->connect(30000));  // running: no second start
    EXPECT_TRUE(h->connect(30000));  // connected already: still one connection
    EXPECT_EQ(h->get_service_version(), 196653u);
    EXPECT_EQ(service_log_count("Service Version: 3.0.45.1"), 1u);
    EXPECT_TRUE(h->request_stop());
    EXPECT_TRUE(wait_stopped(h));
    NVClientHelper::releaseHelper(h);
    EXPECT_EQ(service_command("-i uninstall"), 0u);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Every method whose request the service handles, against the running service and the driver
// simulator: halvernctl_service_test.sh installs and starts the service and the test services
// nv_lib_svc (running from C:\prot\lib) and nv_lib_ctl (stopped), then sets NV_WITH_SIMULATOR.

namespace {

using NVClientHelper::result;

std::string driver_state() {
    std::string out;
    nv_test::run("driver_ctl.exe", "state", &out);
    return out;
}

struct step {
    const char* what;
    std::function<bool(invchelper*, result*)> call;
    bool want;
    std::string message;       // the reply's message
    std::vector<std::string> driver;  // pieces of the simulator's state afterwards
    std::string driver_not;    // a piece it must not hold
};

const std::string lib_image = R"(C:\\prot\\lib\\nv_test_service.exe)";  // as JSON writes it
const std::string app_image = R"(C:\\prot\\app\\a.exe)";
// The process, folder and registry protection features.
std::vector<std::string> features(bool process, bool registry) {
    const char* p = process ? "true" : "false";
    return {std::string(R"("0":)") + p, std::string(R"("6":)") + p, std::string(R"("11":)") + (registry ? "true" : "false")};
}

}  // namespace

TEST(client_with_simulator, every_method_of_the_landed_requests) {
    if (std::getenv("NV_WITH_SIMULATOR") == nullptr) GTEST_SKIP() << "needs the running service and simulator";
    invchelper* h = NVClientHelper::createHelper();
    ASSERT_TRUE(h->connect(30000));
    ASSERT_TRUE(h->proto_compatible());
    const std::wstring key = L"Software\\NvLib\\Key";
    auto run_steps = [h](const std::vector<step>& steps) {
        for (const step& s : steps) {
            result r;
            r.ok = 7;
            EXPECT_EQ(s.call(h, &r), s.want) << s.what;
            EXPECT_EQ(r.ok, s.want ? 1 : 0) << s.what;
            EXPECT_EQ(r.message, s.message) << s.what;
            const std::string state = driver_state();
            for (const std::string& piece : s.driver)
                EXPECT_NE(state.find(piece), std::string::npos) << s.what << ": " << piece << " in " << state;
            if (!s.driver_not.empty()) {
                EXPECT_EQ(state.find(s.driver_not), std::string::npos) << s.what << ": " << state;
            }
        }
    };
    run_steps({
        {"protect_service", [](invchelper* c, result* r) { return c->protect_service("nv_lib_svc", r); }, true, "", {lib_image}, ""},
        {"protect_process", [](invchelper* c, result* r) { return c->protect_process(R"(C:\prot\app\a.exe)", r); }, true, "", {app_image}, ""},
        {"protect_process, a drive root", [](invchelper* c, result* r) { return c->protect_process(R"(C:\e.exe)", r); }, false, "", {}, R"(C:\\e.exe)"},
        {"protect_reg_key", [&](invchelper* c, result* r) { return c->protect_reg_key(HKEY_LOCAL_MACHINE, key, NVClientHelper::level_write, r); }, true, "", {R"(Software\\NvLib\\Key)"}, ""},
    });
    std::vector<NVClientHelper::protected_service_info> services;
    ASSERT_TRUE(h->query_protected_services(services));
    bool listed = false;
    for (const auto& s : services)
        if (s.name == "nv_lib_svc") listed = s.process_protected && s.image_path == LR"(C:\prot\lib\nv_test_service.exe)";
    EXPECT_TRUE(listed) << services.size() << " services";
    std::vector<NVClientHelper::protected_process_info> processes;
    ASSERT_TRUE(h->query_protected_processes(processes));
    listed = false;
    for (const auto& p : processes) listed = listed || (p.image_path == LR"(C:\prot\app\a.exe)" && p.folder == LR"(C:\prot\app)");
    EXPECT_TRUE(listed);
    std::vector<NVClientHelper::protected_reg_key_info> keys;
    ASSERT_TRUE(h->get_protected_reg_keys(keys));
    listed = false;
    for (const auto& k : keys) listed = listed || (_wcsicmp(k.path.c_str(), key.c_str()) == 0 && k.root == 0xFFFFFFFF80000002ull);
    EXPECT_TRUE(listed);

    // The list forms take them off again.
    EXPECT_TRUE(h->protect_services({{false, false, "nv_lib_svc"}}));
    EXPECT_TRUE(h->protect_processes({{false, LR"(C:\prot\app\a.exe)"}}));
    NVClientHelper::reg_key_rule off;
    off.protect = false;
    off.root = HKEY_LOCAL_MACHINE;
    off.path = key;
    EXPECT_TRUE(h->protect_reg_keys({off}));
    ASSERT_TRUE(h->query_protected_processes(processes));
    for (const auto& p : processes) EXPECT_NE(p.image_path, LR"(C:\prot\app\a.exe)");
    ASSERT_TRUE(h->query_protected_services(services));
    for (const auto& s : services) EXPECT_NE(s.name, "nv_lib_svc");
    ASSERT_TRUE(h->get_protected_reg_keys(keys));
    for (const auto& k : keys) EXPECT_NE(_wcsicmp(k.path.c_str(), key.c_str()), 0);
    const std::string state = driver_state();
    EXPECT_EQ(state.find(app_image), std::string::npos) << state;
    EXPECT_EQ(state.find(lib_image), std::string::npos) << state;

    // The switches (off lifts every service and process protection), service control, repairs.
    run_steps({
        {"disable_driver_protection", [](invchelper* c, result* r) { return c->disable_driver_protection(r); }, true, "", features(false, true), ""},
        {"set_protection_enabled off", [](invchelper* c, result* r) { return c->set_protection_enabled(false, r); }, true, "", features(false, false), ""},
        {"enable_driver_protection", [](invchelper* c, result* r) { return c->enable_driver_protection(r); }, true, "", features(true, false), ""},
        {"set_protection_enabled on", [](invchelper* c, result* r) { return c->set_protection_enabled(true, r); }, true, "", features(true, true), ""},
        {"disable again", [](invchelper* c, result* r) { return c->disable_driver_protection(r); }, true, "", {}, ""},
        {"restore_driver_protection", [](invchelper* c, result* r) { return c->restore_driver_protection(true, r); }, true, "", features(true, true), ""},
        {"start_service", [](invchelper* c, result* r) { return c->start_service({"nv_lib_ctl", {"alpha", "beta gamma"}}, r); }, true, "", {}, ""},
        {"start_service, running", [](invchelper* c, result* r) { return c->start_service({"nv_lib_ctl", {}}, r); }, true, "Service has already been started.", {}, ""},
        {"stop_service", [](invchelper* c, result* r) { return c->stop_service("nv_lib_ctl", r); }, true, "", {}, ""},
        {"recover_service_dacl", [](invchelper* c, result* r) { return c->recover_service_dacl("nv_lib_ctl", r); }, true, "", {}, ""},
        {"recover_folder_dacl", [](invchelper* c, result* r) { return c->recover_folder_dacl(R"(C:\prot\lib)", r); }, true, "", {}, ""},
    });

    // A denial for a subscribed file sets the subscriber's event; its record is collected once.
    const std::string event_name = "Global\\" + nv_test::unique_name("nv_lib_event");
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, event_name.c_str());
    ASSERT_NE(event, nullptr);
    result r;
    ASSERT_TRUE(h->subscribe(event_name, R"(C:\Data\Lib.txt)", NVClientHelper::any_function,
                             NVClientHelper::any_function, NVClientHelper::any_notification, &r));
    const std::string pid = std::to_string(GetCurrentProcessId());
    ASSERT_EQ(nv_test::run("driver_ctl.exe", "inject 3 0 " + pid + R"( \Device\HarddiskVolume1\data\lib.txt)"), 0u);
    EXPECT_EQ(WaitForSingleObject(event, 30000), WAIT_OBJECT_0);
    std::vector<NVClientHelper::notification_data> records;
    ASSERT_TRUE(h->query_notification_data(records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].file_path, R"(c:\data\lib.txt)");
    EXPECT_EQ(records[0].major_function, 3);
    EXPECT_EQ(records[0].process_id, GetCurrentProcessId());
    EXPECT_NE(records[0].process_image.find("client_service_test.exe"), std::string::npos) << records[0].process_image;
    EXPECT_EQ(records[0].irp_denied, 1u);
    ASSERT_TRUE(h->query_notification_data(records));
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(h->unsubscribe(event_name, R"(C:\Data\Lib.txt)", NVClientHelper::any_function,
                               NVClientHelper::any_function, NVClientHelper::any_notification, &r));
    CloseHandle(event);
    NVClientHelper::releaseHelper(h);
}
