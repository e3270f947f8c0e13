// The client library against the real service, run by halvernctl_test.sh inside its own Wine
// prefix: NV_SERVICE_EXE names the service's program there, which starts uninstalled.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

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
