// The service's driver command port against the driver stand-in: what the senders, the master
// switch and the driver protection requests put on the wire, as the simulator journals it.
// The service object runs in this process; the simulator is the one the test prefix runs.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "service/driver_protocol.h"
#include "service/helper_service.h"
#include "service/message_ids.h"
#include "tests/helpers/driver_ctl.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace {

using nv_test::ctl;
using nv_test::hex;
using nv_test::json;

std::string feature_hex(uint32_t feature, bool on) { return hex(vqr::build_feature(feature, on)); }
std::string command_hex(uint32_t code, const std::wstring& text) { return hex(vqr::build_command(code, text)); }

// The bytes of every journaled message, in arrival order.
std::vector<std::string> journal_bytes() {
    const std::string journal = ctl("journal");
    std::vector<std::string> out;
    const std::string key = "\"bytes\":\"";
    for (size_t at = journal.find(key); at != std::string::npos; at = journal.find(key, at)) {
        at += key.size();
        out.push_back(journal.substr(at, journal.find('"', at) - at));
    }
    return out;
}

// A connection that is in no peer's list, for calling request handlers directly.
mcl::share_ptr<mcl::ipc_connection> test_connection(new mcl::ipc_connection(mcl::ipc_connection::connect_type));

std::wstring system_volume() {
    wchar_t target[MAX_PATH + 1] = {};
    return QueryDosDeviceW(L"C:", target, MAX_PATH) != 0 ? std::wstring(target) : std::wstring(L"C:");
}

// Every test starts from a freshly loaded driver with an empty journal and leaves the service
// object with all switches on and no attached volume.
class DriverPort : public ::testing::Test {
protected:
    void SetUp() override {
        DWORD code = 0;
        ctl("load");
        ctl("reset", &code);
        ASSERT_EQ(0u, code) << "driver simulator not running";
    }
    void TearDown() override {
        ctl("load");
        service().detachAllVolumes();
        service().setProtectionEnabled(true);
    }
    static chelperservice& service() { return chelperservice::instance(); }
};

TEST_F(DriverPort, FoldersOnOneVolumeAttachItOnceAndTravelInDeviceForm) {
    const std::wstring volume = system_volume();
    nv_test::log_capture log;
    {
        const chelperservice::driver_port port = chelperservice::openDriverPort();
        ASSERT_TRUE(port);
        service().drvProtectFolder(port.get(), L"C:\\nv_one", /*remove=*/false, /*block=*/false);
        service().drvProtectFolder(port.get(), L"C:\\", false, false);
        service().drvProtectFolder(port.get(), L"C:\\nv_one", /*remove=*/true, false);
        service().drvProtectFolder(port.get(), L"C:\\Q\\file.txt.0123456789ABCDEF.QUA", false, /*block=*/true);
        service().drvProtectFolder(port.get(), L"C:\\Q\\file.txt.0123456789ABCDEF.QUA", true, true);
        service().drvProtectFolder(port.get(), L"", /*remove=*/true, false);
    }
    namespace c = vqr::code;
    const std::vector<std::string> want = {
        hex(vqr::build_command(c::protect_folder, volume + L"\\nv_one")),
        hex(vqr::build_command(c::protect_folder, volume + L"\\")),  // C:\ keeps its backslash
        hex(vqr::build_command(c::unprotect_folder, volume + L"\\nv_one")),
        hex(vqr::build_command(c::block_path, volume + L"\\Q\\file.txt.0123456789ABCDEF.QUA")),
        hex(vqr::build_command(c::unblock_path, volume + L"\\Q\\file.txt.0123456789ABCDEF.QUA")),
        "08000000020000000000",  // every folder rule
    };
    EXPECT_EQ(want, journal_bytes());
    // One attach for the volume; removing its last folder rule does not detach it.
    const std::string state = ctl("state");
    EXPECT_EQ(1u, nv_test::count_in(state, "\"call\":\"attach\"")) << state;
    EXPECT_EQ(0u, nv_test::count_in(state, "\"call\":\"detach\"")) << state;
    EXPECT_NE(std::string::npos, state.find("{\"call\":\"attach\",\"volume\":" + json(volume))) << state;
    EXPECT_FALSE(log.contains("Could not")) << log.text();

    // Detaching every volume: one FilterDetach, and the next add attaches again.
    service().detachAllVolumes();
    {
        const chelperservice::driver_port port = chelperservice::openDriverPort();
        service().drvProtectFolder(port.get(), L"C:\\nv_three", false, false);
    }
    const std::string after = ctl("state");
    EXPECT_EQ(1u, nv_test::count_in(after, "\"call\":\"detach\"")) << after;
    EXPECT_EQ(2u, nv_test::count_in(after, "\"call\":\"attach\"")) << after;
}

TEST_F(DriverPort, FolderPathsTheDriverCannotTakeAreRefusedWithALogLine) {
    const struct {
        const char* label;
        std::wstring path;
    } cases[] = {
        {"UNC path", L"\\\\server\\share\\folder"},
        {"relative path", L"folder\\sub"},
        {"drive without backslash", L"C:folder"},
        {"261 characters", L"C:\\" + std::wstring(258, L'a')},
    };
    const chelperservice::driver_port port = chelperservice::openDriverPort();
    ASSERT_TRUE(port);
    for (const auto& c : cases) {
        nv_test::log_capture log;
        service().drvProtectFolder(port.get(), c.path, /*remove=*/false, /*block=*/false);
        service().drvProtectFolder(port.get(), c.path, /*remove=*/true, /*block=*/true);
        EXPECT_EQ(2u, log.count("] - Path refused for the driver (needs a drive letter, colon and backslash, at most 260 "
                                "characters): "))
            << c.label << "\n"
            << log.text();
    }
    EXPECT_TRUE(journal_bytes().empty());
    EXPECT_EQ(0u, nv_test::count_in(ctl("state"), "\"call\":\"attach\""));

    // 260 characters still fit.
    service().drvProtectFolder(port.get(), L"C:\\" + std::wstring(257, L'a'), false, false);
    EXPECT_EQ(1u, journal_bytes().size());
}

TEST_F(DriverPort, ProtectionRequestsSwitchFeaturesAndReply) {
    namespace c = vqr::code;
    const auto f = [](uint32_t feature, bool on) { return feature_hex(feature, on); };
    const struct {
        const char* label;
        uint32_t id;
        std::vector<uint8_t> request;
        std::vector<uint8_t> reply;
        std::vector<std::string> sent;
    } steps[] = {
        {"0x1000008 without its byte", msg::set_protection_enabled, {}, {0, 0}, {}},
        {"0x1000006 with protection on", msg::disable_driver_protection, {9, 9}, {1, 0},
         {f(c::feature_process_protection, false), f(c::feature_folder_protection, false),
          f(c::feature_registry_protection, true)}},
        {"0x1000007 with protection on", msg::enable_driver_protection, {}, {1, 0},
         {f(c::feature_process_protection, true), f(c::feature_folder_protection, true),
          f(c::feature_registry_protection, true)}},
        {"0x1000008 off", msg::set_protection_enabled, {0}, {1, 0},
         {f(c::feature_process_protection, false), f(c::feature_folder_protection, false),
          f(c::feature_registry_protection, false), command_hex(c::unprotect_process, L""),
          command_hex(c::unprotect_folder, L"")}},
        {"0x1000008 off again", msg::set_protection_enabled, {0, 1}, {1, 0}, {}},
        {"0x1000007 with protection off", msg::enable_driver_protection, {}, {1, 0},
         {f(c::feature_process_protection, true), f(c::feature_folder_protection, true),
          f(c::feature_registry_protection, false)}},
        {"0x1000006 with protection off", msg::disable_driver_protection, {}, {1, 0},
         {f(c::feature_process_protection, false), f(c::feature_folder_protection, false),
          f(c::feature_registry_protection, false)}},
        {"0x1000008 any non-zero byte is on", msg::set_protection_enabled, {7}, {1, 0},
         {f(c::feature_process_protection, true), f(c::feature_folder_protection, true),
          f(c::feature_registry_protection, true)}},
        {"0x1000008 on again", msg::set_protection_enabled, {1}, {1, 0}, {}},
    };
    nv_test::log_capture log;
    chelperservice::helper_msg_handler& handler = service().msg_handler();
    std::vector<std::string> sent;
    bool on = true;
    for (const auto& s : steps) {
        mcl::binary_t payload;
        payload.append(s.request.data(), static_cast<uint32_t>(s.request.size()));
        EXPECT_EQ(1, handler(test_connection.get(), s.id, payload)) << s.label;
        EXPECT_EQ(s.reply, std::vector<uint8_t>(payload.data(), payload.data() + payload.size())) << s.label;
        sent.insert(sent.end(), s.sent.begin(), s.sent.end());
        EXPECT_EQ(sent, journal_bytes()) << s.label;
        if (s.id == msg::set_protection_enabled && !s.request.empty()) on = s.request[0] != 0;
        EXPECT_EQ(on, service().protection_enabled()) << s.label;
    }
    // Switched off once, the enforcement thread stopped once; switched on, it started again.
    EXPECT_EQ(1u, log.count("] - chelperservice::service_enforce_thread stopped")) << log.text();
    EXPECT_FALSE(log.contains("The enforcement thread could not be started")) << log.text();
}

TEST_F(DriverPort, NoDriverUnloadedDriverAndRefusalsAreLogged) {
    nv_test::log_capture log;
    {
        // The driver goes away while a connection is open: the send fails, nothing retries.
        const chelperservice::driver_port port = chelperservice::openDriverPort();
        ASSERT_TRUE(port);
        ctl("unload");
        chelperservice::drvEnableFeature(port.get(), vqr::code::feature_process_protection, true);
        EXPECT_EQ(1u, log.count("[chelperservice::drvEnableFeature:"));
        EXPECT_EQ(1u, log.count("] - The kernel component of vqrmonitor has unloaded.")) << log.text();
    }
    // While it is unloaded no connection opens, and every step that needs one says so.
    EXPECT_EQ(INVALID_HANDLE_VALUE, chelperservice::connectFilterDriver());
    const std::string not_found = "Could not connect to filter: -2147024894 - " +
                                  [] {
                                      const std::wstring w = chelperservice::driver_error_text(vqr::hr_not_found);
                                      return std::string(w.begin(), w.end());
                                  }();
    EXPECT_EQ(1u, log.count(not_found)) << log.text();
    chelperservice::loadTrustedOpenApp("\\Device\\HarddiskVolume1\\windows\\system32\\csrss.exe");
    // Switching off: one connection for the features, one for removing every image and folder rule.
    service().setProtectionEnabled(false);
    EXPECT_EQ(4u, log.count(not_found)) << log.text();
    EXPECT_FALSE(service().protection_enabled());  // the switches change all the same
    ctl("load");

    // A message the driver refuses.
    {
        const chelperservice::driver_port port = chelperservice::openDriverPort();
        chelperservice::drvSendCommand(port.get(), 4, L"x");
    }
    const std::wstring invalid = chelperservice::driver_error_text(vqr::hr_invalid_parameter);
    EXPECT_EQ(1u, log.count("] - UNEXPECTED ERROR received: -2147024809 - " + std::string(invalid.begin(), invalid.end())))
        << log.text();
}

TEST(DriverErrorText, KnownAndUnknownCodes) {
    EXPECT_FALSE(chelperservice::driver_error_text(vqr::hr_not_found).empty());
    const std::wstring known = chelperservice::driver_error_text(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(std::wstring::npos, known.find(L"Could not translate")) << std::string(known.begin(), known.end());
    EXPECT_NE(L'\n', known.back());
    // A Filter Manager code that neither the system nor fltlib.dll can put into words.
    EXPECT_EQ(L"Could not translate error: -2145451777", chelperservice::driver_error_text(static_cast<HRESULT>(0x801F00FF)));
}

}  // namespace
