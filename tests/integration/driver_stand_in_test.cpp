// The driver stand-in as the service will meet it: the Filter Manager calls of our fltlib.dll
// (linked through the system's import library) against the simulator that the test prefix
// runs, inspected and driven through driver_ctl in a second process. What it journals and
// delivers for the service's own messages, and the service's overlapped wait on the notification
// port (completed by a queued denial, cancelled at the stop), is checked through the service
// (driver_port_test.sh).
#include <windows.h>

#include <fltuser.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "mcl/mswin/filter_port.h"
#include "mcl/mswin/privilege.h"
#include "protocol/driver_protocol.h"
#include "tests/helpers/driver_ctl.h"
#include "tests/helpers/log_capture.h"
#include "tools/driver_sim/sim_client.h"

namespace {

using nv_test::ctl;
namespace c = vqr::code;

HRESULT send(HANDLE port, const std::vector<uint8_t>& message) {
    DWORD returned = 123;
    const HRESULT hr = FilterSendMessage(port, const_cast<uint8_t*>(message.data()),
                                         static_cast<DWORD>(message.size()), nullptr, 0, &returned);
    EXPECT_EQ(0u, returned);
    return hr;
}

// Each piece is found in the simulator's state.
void expect_state(std::initializer_list<std::string> pieces) {
    const std::string state = ctl("state");
    for (const std::string& piece : pieces) EXPECT_NE(std::string::npos, state.find(piece)) << piece << "\n" << state;
}

// Every test starts from a freshly loaded driver with an empty journal, both ports connected.
class DriverStandIn : public ::testing::Test {
protected:
    void SetUp() override {
        DWORD code = 0;
        ctl("load", &code);
        ctl("reset", &code);
        ASSERT_EQ(0u, code) << "driver simulator not running";
        ASSERT_TRUE(load_driver_.switched());
        command_ = connect(vqr::command_port_name);
        notify_ = connect(vqr::notify_port_name);
    }
    void TearDown() override {
        for (HANDLE h : ports_) CloseHandle(h);
        ctl("load");
    }
    HANDLE connect(const wchar_t* name) {
        mcl::mswin::filter_port port = mcl::mswin::connect_filter_port(&FilterConnectCommunicationPort, S_OK, name);
        EXPECT_EQ(S_OK, port.hr);
        if (!port.handle) return INVALID_HANDLE_VALUE;
        ports_.push_back(port.handle.release());
        return ports_.back();
    }
    // Loading, unloading, attaching and detaching need SeLoadDriverPrivilege enabled, as on Windows.
    const mcl::mswin::scoped_privilege load_driver_{SE_LOAD_DRIVER_NAME};
    std::vector<HANDLE> ports_;
    HANDLE command_ = INVALID_HANDLE_VALUE, notify_ = INVALID_HANDLE_VALUE;
};

TEST_F(DriverStandIn, MalformedMessagesAndBadCallsAreRefusedAndServingGoesOn) {
    const auto text = vqr::build_command(c::protect_process, L"C:\\x.exe");
    const auto feature = vqr::build_feature(6, true);
    auto with = [](std::vector<uint8_t> m, size_t at, uint8_t value) { return m[at] = value, m; };
    auto resized = [](std::vector<uint8_t> m, size_t n) { return m.resize(n), m; };
    const struct { const char* name; std::vector<uint8_t> message; } cases[] = {
        {"too_short", {1, 0, 0, 0}}, {"too_short", resized(text, 7)}, {"bad_size", resized(feature, 10)},
        {"bad_size", with(with(resized(text, 9), 4, 1), 0, 7)},  // a text of length 1
        {"bad_switch", with(feature, 8, 2)}, {"bad_switch", with(feature, 4, 1)},  // a switch has length 0
        {"length_mismatch", with(text, 4, 4)}, {"length_mismatch", resized(text, text.size() + 2)},
        {"no_terminator", with(text, text.size() - 1, 0x41)},
        {"unknown_code", vqr::build_command(4, L"x")}, {"unknown_code", vqr::build_command(14, L"x")},
    };
    for (const auto& k : cases) EXPECT_EQ(E_INVALIDARG, send(command_, k.message)) << k.name;
    EXPECT_EQ(E_INVALIDARG, send(notify_, feature)) << "the notification port takes no commands";
    // FilterSendMessage itself refuses a call without its buffers or above the port's limit.
    std::vector<uint8_t> huge(128 * 1024, 0);
    DWORD returned = 0;
    EXPECT_EQ(E_INVALIDARG, FilterSendMessage(command_, huge.data(), static_cast<DWORD>(huge.size()), nullptr, 0, &returned));
    EXPECT_EQ(E_INVALIDARG, FilterSendMessage(command_, nullptr, 0, nullptr, 0, &returned));
    EXPECT_EQ(E_INVALIDARG, FilterSendMessage(command_, huge.data(), 9, nullptr, 0, nullptr));
    EXPECT_EQ(S_OK, send(command_, text));
    std::vector<std::string> checks;
    for (const auto& k : cases) checks.push_back(k.name);
    checks.insert(checks.end(), {"ok", "ok"});
    EXPECT_EQ(checks, nv_test::journal_bytes("check"));
    EXPECT_EQ(1u, nv_test::count_of(ctl("journal"), "\"port\":\"notify\""));
    expect_state({"\"malformed\":" + std::to_string(std::size(cases) + 1), R"("process_rules":["C:\\x.exe"])"});
}

TEST_F(DriverStandIn, NotificationPortTakesOneConnection) {
    HANDLE second = INVALID_HANDLE_VALUE;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT),
              FilterConnectCommunicationPort(vqr::notify_port_name, 0, nullptr, 0, nullptr, &second));
    EXPECT_EQ(INVALID_HANDLE_VALUE, second);
    // Closing it frees the place at once.
    CloseHandle(ports_.back());
    ports_.pop_back();
    connect(vqr::notify_port_name);
}

TEST_F(DriverStandIn, AttachAndDetachNeedTheLoadDriverPrivilege) {
    {
        const mcl::mswin::scoped_privilege held_disabled(SE_LOAD_DRIVER_NAME, /*enable=*/false);
        ASSERT_TRUE(held_disabled.switched());
        const HRESULT not_held = HRESULT_FROM_WIN32(ERROR_PRIVILEGE_NOT_HELD);
        EXPECT_EQ(not_held, FilterAttach(vqr::filter_name, L"Z:", nullptr, 0, nullptr));
        EXPECT_EQ(not_held, FilterDetach(vqr::filter_name, L"Z:", nullptr));
        EXPECT_EQ(not_held, FilterUnload(vqr::filter_name));
        EXPECT_EQ(not_held, FilterLoad(vqr::filter_name));
    }
    EXPECT_EQ(std::string::npos, ctl("state").find("\"call\":"));

    const std::wstring volume = L"\\Device\\HarddiskVolume1";
    const std::string top = "\"instance\":\"VQRMonitor - Top Instance\",\"altitude\":\"383350\"}";
    wchar_t instance[256] = {};
    EXPECT_EQ(S_OK, FilterAttach(vqr::filter_name, volume.c_str(), nullptr, sizeof instance, instance));
    EXPECT_STREQ(L"VQRMonitor - Top Instance", instance);
    EXPECT_EQ(S_OK, FilterAttach(vqr::filter_name, L"Z:", nullptr, sizeof instance, instance));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0012), FilterAttach(vqr::filter_name, L"Z:", nullptr, sizeof instance, instance));
    EXPECT_EQ(S_OK, FilterAttach(vqr::filter_name, L"Z:", L"VQRMonitor - Bottom Instance", sizeof instance, instance));
    expect_state({R"({"volume":"\\Device\\HarddiskVolume1",)" + top, "{\"volume\":\"Z:\"," + top,
                  "\"instance\":\"VQRMonitor - Bottom Instance\",\"altitude\":\"362700\"}"});
    EXPECT_EQ(S_OK, FilterDetach(vqr::filter_name, volume.c_str(), nullptr));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0015), FilterDetach(vqr::filter_name, volume.c_str(), nullptr));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0013), FilterAttach(L"Other", L"Z:", nullptr, 0, nullptr));
    expect_state({"\"volumes\":[{\"volume\":\"Z:\""});
}

// A control report longer than one read buffer (the journal of a long run) that is already in the
// pipe when the read starts: that read ends at once with more to come, and what it read counts.
TEST(SimChannel, AnAnswerLongerThanOneReadIsTakenWholeWhenItIsAlreadyThere) {
    const std::wstring name = L"\\\\.\\pipe\\nv_sim_channel_" + std::to_wstring(GetCurrentProcessId());
    const mcl::mswin::unique_kernel_handle server(CreateNamedPipeW(
        name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, 1 << 20, 1 << 20, 0, nullptr));
    ASSERT_TRUE(server) << GetLastError();
    mcl::mswin::unique_kernel_handle client(
        CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
    ASSERT_TRUE(client) << GetLastError();
    DWORD mode = PIPE_READMODE_MESSAGE;
    ASSERT_TRUE(SetNamedPipeHandleState(client.get(), &mode, nullptr, nullptr));

    std::vector<uint8_t> report(vqr::sim::max_message * 3 / 2);
    for (size_t i = 0; i < report.size(); ++i) report[i] = static_cast<uint8_t>(i * 31 + i / 251);
    std::thread writer([&] {
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(server.get(), report.data(), static_cast<DWORD>(report.size()), &written, nullptr));
    });
    DWORD available = 0;
    for (int i = 0; i < 500 && available < vqr::sim::max_message; ++i) {
        if (!PeekNamedPipe(client.get(), nullptr, 0, nullptr, &available, nullptr)) break;
        if (available < vqr::sim::max_message) Sleep(10);
    }
    const unsigned char ask[] = {'?'};
    mcl::binary_t answer;
    EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), vqr::sim::exchange(client.get(), mcl::binary_t(ask, 1), answer, 1 << 20, 10000));
    writer.join();
    EXPECT_TRUE(mcl::binary_t(report.data(), static_cast<uint32_t>(report.size())) == answer)
        << answer.size() << " bytes of " << report.size();
}

}  // namespace
