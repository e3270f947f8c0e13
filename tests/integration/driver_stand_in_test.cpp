// The driver stand-in as the service will meet it: the Filter Manager calls of our fltlib.dll
// (linked through the system's import library) against the simulator that the test prefix
// runs, inspected and driven through driver_ctl in a second process.
#include <windows.h>

#include <fltuser.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "mcl/mswin/filter_port.h"
#include "mcl/mswin/privilege.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "tests/helpers/driver_ctl.h"
#include "tests/helpers/log_capture.h"

namespace {

using nv_test::ctl;
using nv_test::hex;
using nv_test::json;

HRESULT send(HANDLE port, const std::vector<uint8_t>& message) {
    DWORD returned = 123;
    const HRESULT hr = FilterSendMessage(port, const_cast<uint8_t*>(message.data()),
                                         static_cast<DWORD>(message.size()), nullptr, 0, &returned);
    EXPECT_EQ(0u, returned);
    return hr;
}

std::vector<uint8_t> notification_buffer() { return std::vector<uint8_t>(vqr::notification::size, 0xCC); }
PFILTER_MESSAGE_HEADER header_of(std::vector<uint8_t>& buffer) {
    return reinterpret_cast<PFILTER_MESSAGE_HEADER>(buffer.data());
}

// Every test starts from a freshly loaded driver with an empty journal.
class DriverStandIn : public ::testing::Test {
protected:
    void SetUp() override {
        DWORD code = 0;
        ctl("load", &code);
        ctl("reset", &code);
        ASSERT_EQ(0u, code) << "driver simulator not running";
        ASSERT_TRUE(load_driver_.switched());
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
};

TEST_F(DriverStandIn, EveryCodeLandsInStateAndJournalByteForByte) {
    HANDLE port = connect(vqr::command_port_name);
    namespace c = vqr::code;
    const std::wstring sys = L"\\Device\\HarddiskVolume1\\windows\\system32\\";
    const std::vector<std::vector<uint8_t>> messages = {
        vqr::build_feature(c::feature_process_protection, true),
        vqr::build_feature(c::feature_skip_first_svcmgr_open, true),
        vqr::build_feature(c::feature_folder_protection, true),
        vqr::build_feature(c::feature_irp_notify, true),
        vqr::build_command(c::protect_process, L"C:\\App\\a.exe"),
        vqr::build_command(c::protect_process, L"C:\\App\\a.exe"),    // the same rule again
        vqr::build_command(c::unprotect_process, L"c:\\app\\A.EXE"),  // another rule: compared as sent
        vqr::build_command(c::unprotect_process, L"\x20AC"),
        vqr::build_command(c::trusted_app, sys + L"lsass.exe"),
        vqr::build_command(c::protect_folder, L"\\Device\\HarddiskVolume1\\App\\"),
        vqr::build_command(c::unprotect_folder, L"\\Device\\HarddiskVolume1\\Other"),
        vqr::build_command(c::block_path, L"\\Device\\HarddiskVolume1\\Q\\x.QUA"),
        vqr::build_command(c::block_path, L"\\Device\\HarddiskVolume1\\Q"),
        vqr::build_command(c::unblock_path, L"\\Device\\HarddiskVolume1\\Q\\x.QUA"),
        vqr::build_command(c::unblock_path, L""),  // code 10 takes no remove-all
        vqr::build_command(c::protect_regkey, L"\\REGISTRY\\MACHINE\\SOFTWARE\\Norvale"),
        vqr::build_command(c::unprotect_regkey, L""),  // every registry rule, and only those
        vqr::build_command(c::svcmgr_path, sys + L"services.exe"),
    };
    std::vector<std::string> sent;
    for (const auto& m : messages) {
        EXPECT_EQ(S_OK, send(port, m)) << hex(m);
        sent.push_back(hex(m));
    }
    EXPECT_EQ(sent, nv_test::journal_bytes());
    // The layout spelled out: a feature switch, and a text of one UTF-16 unit with its terminator.
    EXPECT_EQ("000000000000000001", sent[0]);
    EXPECT_EQ("0200000004000000ac200000", sent[7]);
    const std::string journal = ctl("journal");
    EXPECT_EQ(messages.size(), nv_test::count_of(journal, "\"hr\":\"0x00000000\""));
    EXPECT_NE(std::string::npos, journal.find("\"code\":1,\"kind\":\"command\",\"text\":" + json(L"C:\\App\\a.exe")));
    const std::string state = ctl("state");
    for (const std::string& w : {
             std::string("\"features\":{\"0\":true,\"5\":true,\"6\":true,\"11\":false,\"16\":true}"),
             "\"process_rules\":[" + json(L"C:\\App\\a.exe") + "]",
             "\"trusted_apps\":[" + json(sys + L"lsass.exe") + "]",
             "\"folder_rules\":[" + json(L"\\Device\\HarddiskVolume1\\App\\") + "]",
             "\"blocking_rules\":[" + json(L"\\Device\\HarddiskVolume1\\Q") + "]",
             std::string("\"registry_rules\":[]"),
             "\"svc_mgr_path\":" + json(sys + L"services.exe"),
             std::string("\"malformed\":0"),
         })
        EXPECT_NE(std::string::npos, state.find(w)) << w << "\n" << state;
}

TEST_F(DriverStandIn, MalformedMessagesAndBadCallsAreRefusedAndServingGoesOn) {
    HANDLE port = connect(vqr::command_port_name);
    HANDLE notify = connect(vqr::notify_port_name);
    auto with = [](std::vector<uint8_t> m, size_t at, uint8_t value) {
        m[at] = value;
        return m;
    };
    auto resized = [](std::vector<uint8_t> m, size_t n) {
        m.resize(n);
        return m;
    };
    const auto text = vqr::build_command(vqr::code::protect_process, L"C:\\x.exe");
    const auto feature = vqr::build_feature(6, true);
    const struct {
        const char* name;
        std::vector<uint8_t> message;
        HANDLE port;
    } cases[] = {
        {"too_short", {1, 0, 0, 0}, port},
        {"too_short", resized(text, 7), port},
        {"bad_size", resized(feature, 10), port},
        {"bad_size", with(with(resized(text, 9), 4, 1), 0, 7), port},  // a text of length 1
        {"bad_switch", with(feature, 8, 2), port},
        {"bad_switch", with(feature, 4, 1), port},  // a switch has length 0
        {"length_mismatch", with(text, 4, 4), port},
        {"length_mismatch", resized(text, text.size() + 2), port},
        {"no_terminator", with(text, text.size() - 1, 0x41), port},
        {"unknown_code", vqr::build_command(4, L"x"), port},
        {"unknown_code", vqr::build_command(14, L"x"), port},
        {"ok", feature, notify},  // the notification port takes no commands
    };
    for (const auto& c : cases) EXPECT_EQ(static_cast<HRESULT>(0x80070057), send(c.port, c.message)) << c.name;
    // FilterSendMessage itself refuses a call without its buffers or above the port's limit.
    std::vector<uint8_t> huge(128 * 1024, 0);
    DWORD returned = 0;
    EXPECT_EQ(E_INVALIDARG, FilterSendMessage(port, huge.data(), static_cast<DWORD>(huge.size()), nullptr, 0, &returned));
    EXPECT_EQ(E_INVALIDARG, FilterSendMessage(port, nullptr, 0, nullptr, 0, &returned));
    EXPECT_EQ(E_INVALIDARG, FilterSendMessage(port, huge.data(), 9, nullptr, 0, nullptr));
    EXPECT_EQ(S_OK, send(port, text));
    std::vector<std::string> checks;
    for (const auto& c : cases) checks.push_back(c.name);
    checks.push_back("ok");
    EXPECT_EQ(checks, nv_test::journal_bytes("check"));
    EXPECT_EQ(1u, nv_test::count_of(ctl("journal"), "\"port\":\"notify\""));
    const std::string state = ctl("state");
    EXPECT_NE(std::string::npos, state.find("\"malformed\":" + std::to_string(std::size(cases)))) << state;
    EXPECT_NE(std::string::npos, state.find("\"process_rules\":[" + json(L"C:\\x.exe") + "]")) << state;
}

TEST_F(DriverStandIn, InjectedDenialArrivesInTheNotificationLayoutAndFeatureOffStopsTheReceiver) {
    HANDLE command = connect(vqr::command_port_name);
    HANDLE notify = connect(vqr::notify_port_name);

    ASSERT_EQ(S_OK, send(command, vqr::build_feature(vqr::code::feature_irp_notify, true)));
    EXPECT_NE(std::string::npos,
              ctl("inject 0x12 0x2 4660 \\Device\\HarddiskVolume1\\data\\file.txt").find("{\"delivered\":1}"));

    std::vector<uint8_t> buffer = notification_buffer();
    ASSERT_EQ(S_OK, FilterGetMessage(notify, header_of(buffer), static_cast<DWORD>(buffer.size()), nullptr));
    const ULONGLONG first_id = header_of(buffer)->MessageId;
    EXPECT_NE(0u, first_id);
    // Type 1, functions 0x12 and 0x02, two bytes, pid 4660, then the name and zeros to byte 552.
    EXPECT_EQ("010000001202000034120000", hex({buffer.begin() + 16, buffer.begin() + 28}));
    const std::wstring name = L"\\Device\\HarddiskVolume1\\data\\file.txt";
    EXPECT_EQ(0, memcmp(name.c_str(), &buffer[28], 2 * name.size()));
    const std::vector<uint8_t> rest(buffer.begin() + 28 + 2 * name.size(), buffer.end());
    EXPECT_EQ(std::vector<uint8_t>(rest.size(), 0), rest);

    ASSERT_EQ(S_OK, send(command, vqr::build_feature(vqr::code::feature_irp_notify, false)));
    ASSERT_EQ(S_OK, FilterGetMessage(notify, header_of(buffer), static_cast<DWORD>(buffer.size()), nullptr));
    vqr::irp_notification stop;
    ASSERT_TRUE(vqr::parse_notification(buffer.data(), buffer.size(), stop));
    EXPECT_EQ(vqr::notification::type_stop, stop.type);
    EXPECT_GT(stop.message_id, first_id);
}

TEST_F(DriverStandIn, OverlappedGetIsCancelledOrCompletesAtOnce) {
    HANDLE command = connect(vqr::command_port_name);
    HANDLE notify = connect(vqr::notify_port_name);
    ASSERT_EQ(S_OK, send(command, vqr::build_feature(vqr::code::feature_irp_notify, true)));
    std::vector<uint8_t> buffer = notification_buffer();
    OVERLAPPED ov{};
    DWORD bytes = 0;
    const auto get = [&](HANDLE event) {
        ov = OVERLAPPED{};
        ov.hEvent = event;
        return FilterGetMessage(notify, header_of(buffer), static_cast<DWORD>(buffer.size()), &ov);
    };
    // A wait completed through its event is the service's receiver, shown end to end.
    mcl::mswin::unique_kernel_handle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    // Cancelled with CancelIoEx (all of the port's I/O, or without an event that very
    // OVERLAPPED), a pending get ends as an aborted operation.
    for (HANDLE e : {event.get(), HANDLE(nullptr)}) {
        ASSERT_EQ(HRESULT_FROM_WIN32(ERROR_IO_PENDING), get(e));
        EXPECT_TRUE(CancelIoEx(notify, e != nullptr ? nullptr : &ov));
        EXPECT_FALSE(GetOverlappedResult(notify, &ov, &bytes, TRUE));
        EXPECT_EQ(static_cast<DWORD>(ERROR_OPERATION_ABORTED), GetLastError());
    }
    // A message already queued completes the call at once.
    ctl("inject 3 0 78 \\Device\\HarddiskVolume1\\b");
    ASSERT_EQ(S_OK, get(nullptr));
    EXPECT_TRUE(GetOverlappedResult(notify, &ov, &bytes, FALSE));
    EXPECT_EQ(vqr::notification::size, bytes);
    EXPECT_EQ(78u, vqr::get_u32(&buffer[24]));
}

TEST_F(DriverStandIn, NotificationPortTakesOneConnection) {
    connect(vqr::notify_port_name);
    HANDLE second = INVALID_HANDLE_VALUE;
    EXPECT_EQ(static_cast<HRESULT>(0x800704D6),
              FilterConnectCommunicationPort(vqr::notify_port_name, 0, nullptr, 0, nullptr, &second));
    EXPECT_EQ(INVALID_HANDLE_VALUE, second);
    // Closing it frees the place at once.
    CloseHandle(ports_.back());
    ports_.pop_back();
    connect(vqr::notify_port_name);
}

// The port handle is asynchronous, as Windows opens it for options 0: a blocking wait is no
// synchronous I/O that CancelSynchronousIo could end; only CancelIoEx on the port ends it.
TEST_F(DriverStandIn, BlockingGetEndsOnlyByCancelIoExOnThePort) {
    HANDLE notify = connect(vqr::notify_port_name);
    std::atomic<HRESULT> result{S_FALSE};
    std::atomic<bool> done{false};
    HANDLE waiter = nullptr;  // the waiting thread, for CancelSynchronousIo
    std::atomic<bool> entered{false};
    std::thread t([&] {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &waiter, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        entered = true;
        std::vector<uint8_t> buffer = notification_buffer();
        result = FilterGetMessage(notify, header_of(buffer), static_cast<DWORD>(buffer.size()), nullptr);
        done = true;
    });
    while (!entered) Sleep(10);
    Sleep(200);
    CancelSynchronousIo(waiter);
    Sleep(500);
    EXPECT_FALSE(done.load()) << "CancelSynchronousIo ended the wait: 0x" << std::hex << result.load();
    EXPECT_TRUE(CancelIoEx(notify, nullptr)) << GetLastError();
    t.join();
    CloseHandle(waiter);
    EXPECT_EQ(static_cast<HRESULT>(0x800703E3), result.load());
}

TEST_F(DriverStandIn, UnloadedAndNotLoadedAnswerWindowsHresults) {
    HANDLE command = connect(vqr::command_port_name);
    HANDLE notify = connect(vqr::notify_port_name);
    ASSERT_EQ(S_OK, send(command, vqr::build_command(vqr::code::protect_process, L"C:\\a.exe")));

    wchar_t instance[256] = {};
    ASSERT_EQ(S_OK, FilterAttach(vqr::filter_name, L"Z:", nullptr, sizeof instance, instance));
    HANDLE other = INVALID_HANDLE_VALUE;
    DWORD code = 0;
    ctl("unload-on-send", &code);
    ASSERT_EQ(0u, code);
    // The driver goes away under the next message; the connection goes with it.
    EXPECT_EQ(static_cast<HRESULT>(0x80070006), send(command, vqr::build_feature(0, true)));
    EXPECT_EQ(static_cast<HRESULT>(0x80070006), send(command, vqr::build_feature(0, true)));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              FilterConnectCommunicationPort(vqr::command_port_name, 0, nullptr, 0, nullptr, &other));
    // A waiting receiver hears the stop message first, then that the driver is gone.
    std::vector<uint8_t> buffer = notification_buffer();
    ASSERT_EQ(S_OK, FilterGetMessage(notify, header_of(buffer), static_cast<DWORD>(buffer.size()), nullptr));
    EXPECT_EQ(vqr::notification::type_stop, vqr::get_u32(&buffer[16]));
    EXPECT_EQ(static_cast<HRESULT>(0x80070006),
              FilterGetMessage(notify, header_of(buffer), static_cast<DWORD>(buffer.size()), nullptr));
    const std::string state = ctl("state");
    EXPECT_NE(std::string::npos, state.find("\"loaded\":false,")) << state;
    EXPECT_NE(std::string::npos, state.find("\"process_rules\":[]")) << state;
    EXPECT_NE(std::string::npos, state.find("\"volumes\":[]")) << state;
    EXPECT_EQ(static_cast<HRESULT>(0x801F0013), FilterAttach(vqr::filter_name, L"Z:", nullptr, 0, nullptr));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0013), FilterUnload(vqr::filter_name));
    EXPECT_EQ(std::vector<std::string>{hex(vqr::build_command(vqr::code::protect_process, L"C:\\a.exe"))},
              nv_test::journal_bytes())
        << "the journal outlives the unload";
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

    const std::string top = "\"instance\":\"VQRMonitor - Top Instance\",\"altitude\":\"383350\"}";
    wchar_t instance[256] = {};
    EXPECT_EQ(S_OK, FilterAttach(vqr::filter_name, L"\\Device\\HarddiskVolume1", nullptr, sizeof instance, instance));
    EXPECT_STREQ(L"VQRMonitor - Top Instance", instance);
    EXPECT_EQ(S_OK, FilterAttach(vqr::filter_name, L"Z:", nullptr, sizeof instance, instance));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0012), FilterAttach(vqr::filter_name, L"Z:", nullptr, sizeof instance, instance));
    EXPECT_EQ(S_OK, FilterAttach(vqr::filter_name, L"Z:", L"VQRMonitor - Bottom Instance", sizeof instance, instance));
    std::string state = ctl("state");
    EXPECT_NE(std::string::npos, state.find("{\"volume\":" + json(L"\\Device\\HarddiskVolume1") + "," + top)) << state;
    EXPECT_NE(std::string::npos, state.find("{\"volume\":\"Z:\"," + top)) << state;
    EXPECT_NE(std::string::npos, state.find("\"instance\":\"VQRMonitor - Bottom Instance\",\"altitude\":\"362700\"}"));

    EXPECT_EQ(S_OK, FilterDetach(vqr::filter_name, L"\\Device\\HarddiskVolume1", nullptr));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0015), FilterDetach(vqr::filter_name, L"\\Device\\HarddiskVolume1", nullptr));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0013), FilterAttach(L"Other", L"Z:", nullptr, 0, nullptr));
    EXPECT_NE(std::string::npos, ctl("state").find("\"volumes\":[{\"volume\":\"Z:\""));
}

}  // namespace
