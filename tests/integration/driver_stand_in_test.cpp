// The driver stand-in as the service will meet it: the Filter Manager calls of our fltlib.dll
// (linked through the system's import library) against the simulator that the test prefix
// runs, inspected and driven through driver_ctl in a second process.
#include <windows.h>

#include <fltuser.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>
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
namespace c = vqr::code;

const HRESULT handle_gone = HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
const HRESULT filter_not_found = static_cast<HRESULT>(0x801F0013);

HRESULT send(HANDLE port, const std::vector<uint8_t>& message) {
    DWORD returned = 123;
    const HRESULT hr = FilterSendMessage(port, const_cast<uint8_t*>(message.data()),
                                         static_cast<DWORD>(message.size()), nullptr, 0, &returned);
    EXPECT_EQ(0u, returned);
    return hr;
}

HRESULT get(HANDLE notify, std::vector<uint8_t>& buffer, OVERLAPPED* ov = nullptr) {
    return FilterGetMessage(notify, reinterpret_cast<PFILTER_MESSAGE_HEADER>(buffer.data()),
                            static_cast<DWORD>(buffer.size()), ov);
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
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(vqr::notification::size, 0xCC);
};

TEST_F(DriverStandIn, EveryCodeLandsInStateAndJournalByteForByte) {
    const std::wstring sys = L"\\Device\\HarddiskVolume1\\windows\\system32\\", vol = L"\\Device\\HarddiskVolume1\\";
    const std::vector<std::vector<uint8_t>> messages = {
        vqr::build_feature(c::feature_process_protection, true), vqr::build_feature(c::feature_skip_first_svcmgr_open, true),
        vqr::build_feature(c::feature_folder_protection, true), vqr::build_feature(c::feature_irp_notify, true),
        vqr::build_command(c::protect_process, L"C:\\App\\a.exe"),
        vqr::build_command(c::protect_process, L"C:\\App\\a.exe"),    // the same rule again
        vqr::build_command(c::unprotect_process, L"c:\\app\\A.EXE"),  // another rule: compared as sent
        vqr::build_command(c::unprotect_process, L"\x20AC"),
        vqr::build_command(c::trusted_app, sys + L"lsass.exe"),
        vqr::build_command(c::protect_folder, vol + L"App\\"),
        vqr::build_command(c::unprotect_folder, vol + L"Other"),
        vqr::build_command(c::block_path, vol + L"Q\\x.QUA"), vqr::build_command(c::block_path, vol + L"Q"),
        vqr::build_command(c::unblock_path, vol + L"Q\\x.QUA"),
        vqr::build_command(c::unblock_path, L""),  // code 10 takes no remove-all
        vqr::build_command(c::protect_regkey, L"\\REGISTRY\\MACHINE\\SOFTWARE\\Norvale"),
        vqr::build_command(c::unprotect_regkey, L""),  // every registry rule, and only those
        vqr::build_command(c::svcmgr_path, sys + L"services.exe"),
    };
    std::vector<std::string> sent;
    for (const auto& m : messages) sent.push_back(hex(m));
    for (const auto& m : messages) EXPECT_EQ(S_OK, send(command_, m)) << hex(m);
    EXPECT_EQ(sent, nv_test::journal_bytes());
    // The layout spelled out: a feature switch, and a text of one UTF-16 unit with its terminator.
    EXPECT_EQ("000000000000000001", sent[0]);
    EXPECT_EQ("0200000004000000ac200000", sent[7]);
    const std::string journal = ctl("journal");
    EXPECT_EQ(messages.size(), nv_test::count_of(journal, "\"hr\":\"0x00000000\""));
    EXPECT_NE(std::string::npos, journal.find("\"code\":1,\"kind\":\"command\",\"text\":" + json(L"C:\\App\\a.exe")));
    expect_state({"\"features\":{\"0\":true,\"5\":true,\"6\":true,\"11\":false,\"16\":true}",
                  "\"process_rules\":[" + json(L"C:\\App\\a.exe") + "]",
                  "\"trusted_apps\":[" + json(sys + L"lsass.exe") + "]",
                  "\"folder_rules\":[" + json(vol + L"App\\") + "]", "\"blocking_rules\":[" + json(vol + L"Q") + "]",
                  "\"registry_rules\":[]", "\"svc_mgr_path\":" + json(sys + L"services.exe"), "\"malformed\":0"});
}

TEST_F(DriverStandIn, MalformedMessagesAndBadCallsAreRefusedAndServingGoesOn) {
    const auto text = vqr::build_command(c::protect_process, L"C:\\x.exe");
    const auto feature = vqr::build_feature(6, true);
    auto with = [](std::vector<uint8_t> m, size_t at, uint8_t value) { return m[at] = value, m; };
    auto resized = [](std::vector<uint8_t> m, size_t n) { return m.resize(n), m; };
    const struct {
        const char* name;
        std::vector<uint8_t> message;
    } cases[] = {
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
    expect_state({"\"malformed\":" + std::to_string(std::size(cases) + 1), "\"process_rules\":[" + json(L"C:\\x.exe") + "]"});
}

TEST_F(DriverStandIn, InjectedDenialArrivesInTheNotificationLayoutAndFeatureOffStopsTheReceiver) {
    ASSERT_EQ(S_OK, send(command_, vqr::build_feature(c::feature_irp_notify, true)));
    const std::wstring name = L"\\Device\\HarddiskVolume1\\data\\file.txt";
    EXPECT_NE(std::string::npos, ctl("inject 0x12 0x2 4660 \\Device\\HarddiskVolume1\\data\\file.txt").find("{\"delivered\":1}"));
    ASSERT_EQ(S_OK, get(notify_, buffer_));
    const ULONGLONG first_id = reinterpret_cast<PFILTER_MESSAGE_HEADER>(buffer_.data())->MessageId;
    EXPECT_NE(0u, first_id);
    // Type 1, functions 0x12 and 0x02, two bytes, pid 4660, then the name and zeros to byte 552.
    EXPECT_EQ("010000001202000034120000", hex({buffer_.begin() + 16, buffer_.begin() + 28}));
    EXPECT_EQ(0, memcmp(name.c_str(), &buffer_[28], 2 * name.size()));
    EXPECT_EQ(std::vector<uint8_t>(buffer_.size() - 28 - 2 * name.size(), 0),
              std::vector<uint8_t>(buffer_.begin() + 28 + 2 * name.size(), buffer_.end()));

    ASSERT_EQ(S_OK, send(command_, vqr::build_feature(c::feature_irp_notify, false)));
    ASSERT_EQ(S_OK, get(notify_, buffer_));
    vqr::irp_notification stop;
    ASSERT_TRUE(vqr::parse_notification(buffer_.data(), buffer_.size(), stop));
    EXPECT_EQ(vqr::notification::type_stop, stop.type);
    EXPECT_GT(stop.message_id, first_id);
}

TEST_F(DriverStandIn, OverlappedGetIsCancelledOrCompletesAtOnce) {
    ASSERT_EQ(S_OK, send(command_, vqr::build_feature(c::feature_irp_notify, true)));
    OVERLAPPED ov{};
    DWORD bytes = 0;
    // Cancelled with CancelIoEx (all of the port's I/O, or without an event that very
    // OVERLAPPED), a pending get ends as an aborted operation.
    mcl::mswin::unique_kernel_handle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    for (HANDLE e : {event.get(), HANDLE(nullptr)}) {
        ov = OVERLAPPED{};
        ov.hEvent = e;
        ASSERT_EQ(HRESULT_FROM_WIN32(ERROR_IO_PENDING), get(notify_, buffer_, &ov));
        EXPECT_TRUE(CancelIoEx(notify_, e != nullptr ? nullptr : &ov));
        EXPECT_FALSE(GetOverlappedResult(notify_, &ov, &bytes, TRUE));
        EXPECT_EQ(static_cast<DWORD>(ERROR_OPERATION_ABORTED), GetLastError());
    }
    // A message already queued completes the call at once.
    ctl("inject 3 0 78 \\Device\\HarddiskVolume1\\b");
    ov = OVERLAPPED{};
    ASSERT_EQ(S_OK, get(notify_, buffer_, &ov));
    EXPECT_TRUE(GetOverlappedResult(notify_, &ov, &bytes, FALSE));
    EXPECT_EQ(vqr::notification::size, bytes);
    EXPECT_EQ(78u, vqr::get_u32(&buffer_[24]));
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

// The port handle is asynchronous, as Windows opens it for options 0: a blocking wait is no
// synchronous I/O that CancelSynchronousIo could end; only CancelIoEx on the port ends it.
TEST_F(DriverStandIn, BlockingGetEndsOnlyByCancelIoExOnThePort) {
    std::atomic<HRESULT> result{S_FALSE};
    HANDLE waiter = nullptr;  // the waiting thread, for CancelSynchronousIo
    std::atomic<bool> entered{false};
    std::thread t([&] {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &waiter, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        entered = true;
        result = get(notify_, buffer_);
    });
    while (!entered) Sleep(10);
    Sleep(200);
    CancelSynchronousIo(waiter);
    Sleep(500);
    EXPECT_EQ(S_FALSE, result.load()) << "CancelSynchronousIo ended the wait";
    EXPECT_TRUE(CancelIoEx(notify_, nullptr)) << GetLastError();
    t.join();
    CloseHandle(waiter);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED), result.load());
}

TEST_F(DriverStandIn, UnloadedAndNotLoadedAnswerWindowsHresults) {
    const auto rule = vqr::build_command(c::protect_process, L"C:\\a.exe");
    ASSERT_EQ(S_OK, send(command_, rule));
    ASSERT_EQ(S_OK, FilterAttach(vqr::filter_name, L"Z:", nullptr, 0, nullptr));
    DWORD code = 0;
    ctl("unload-on-send", &code);
    ASSERT_EQ(0u, code);
    // The driver goes away under the next message; the connection goes with it.
    for (int i = 0; i < 2; ++i) EXPECT_EQ(handle_gone, send(command_, vqr::build_feature(0, true)));
    HANDLE other = INVALID_HANDLE_VALUE;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              FilterConnectCommunicationPort(vqr::command_port_name, 0, nullptr, 0, nullptr, &other));
    // A waiting receiver hears the stop message first, then that the driver is gone.
    ASSERT_EQ(S_OK, get(notify_, buffer_));
    EXPECT_EQ(vqr::notification::type_stop, vqr::get_u32(&buffer_[16]));
    EXPECT_EQ(handle_gone, get(notify_, buffer_));
    expect_state({"\"loaded\":false,", "\"process_rules\":[]", "\"volumes\":[]"});
    EXPECT_EQ(filter_not_found, FilterAttach(vqr::filter_name, L"Z:", nullptr, 0, nullptr));
    EXPECT_EQ(filter_not_found, FilterUnload(vqr::filter_name));
    EXPECT_EQ(std::vector<std::string>{hex(rule)}, nv_test::journal_bytes()) << "the journal outlives the unload";
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
    expect_state({"{\"volume\":" + json(volume) + "," + top, "{\"volume\":\"Z:\"," + top,
                  "\"instance\":\"VQRMonitor - Bottom Instance\",\"altitude\":\"362700\"}"});
    EXPECT_EQ(S_OK, FilterDetach(vqr::filter_name, volume.c_str(), nullptr));
    EXPECT_EQ(static_cast<HRESULT>(0x801F0015), FilterDetach(vqr::filter_name, volume.c_str(), nullptr));
    EXPECT_EQ(filter_not_found, FilterAttach(L"Other", L"Z:", nullptr, 0, nullptr));
    expect_state({"\"volumes\":[{\"volume\":\"Z:\""});
}

}  // namespace
