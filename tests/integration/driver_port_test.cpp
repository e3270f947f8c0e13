// The service's driver command port against the driver stand-in, with the service object in this
// process: what the senders put on the wire (as the simulator journals it), the attached-volume
// table, the paths the driver cannot take, and the failures the senders log.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/driver_protocol.h"
#include "service/helper_service.h"
#include "tests/helpers/driver_ctl.h"
#include "tests/helpers/log_capture.h"

namespace {

using nv_test::ctl;
using nv_test::journal_bytes;
namespace c = vqr::code;

std::string narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }
std::string command(uint32_t code, const std::wstring& text) { return nv_test::hex(vqr::build_command(code, text)); }

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

TEST_F(DriverPort, RulesTravelAsSentFoldersInDeviceFormAttachingTheirVolumeOnce) {
    wchar_t target[MAX_PATH + 1] = {};
    const std::wstring volume = QueryDosDeviceW(L"C:", target, MAX_PATH) != 0 ? target : L"C:";
    const std::wstring qua = L"\\Q\\file.txt.0123456789ABCDEF.QUA";
    nv_test::log_capture log;
    {
        const chelperservice::driver_port port = chelperservice::openDriverPort();
        ASSERT_TRUE(port);
        chelperservice::drvProtectProcess(port.get(), L"C:\\App\\a.exe", /*remove=*/false);
        chelperservice::drvProtectProcess(port.get(), L"", /*remove=*/true);
        chelperservice::drvProtectRegKey(port.get(), L"\\REGISTRY\\MACHINE\\SOFTWARE\\A", false);
        chelperservice::drvProtectRegKey(port.get(), L"\\REGISTRY\\MACHINE\\SOFTWARE\\A", true);
        service().drvProtectFolder(port.get(), L"C:\\nv_one", /*remove=*/false, /*block=*/false);
        service().drvProtectFolder(port.get(), L"C:\\", false, false);
        service().drvProtectFolder(port.get(), L"C:\\nv_one", /*remove=*/true, false);
        service().drvProtectFolder(port.get(), L"C:" + qua, false, /*block=*/true);
        service().drvProtectFolder(port.get(), L"C:" + qua, true, true);
        service().drvProtectFolder(port.get(), L"", /*remove=*/true, false);
    }
    const std::vector<std::string> want = {
        command(c::protect_process, L"C:\\App\\a.exe"),
        "02000000020000000000",  // every process rule: 10 bytes, length 2, text 00 00
        command(c::protect_regkey, L"\\REGISTRY\\MACHINE\\SOFTWARE\\A"),
        command(c::unprotect_regkey, L"\\REGISTRY\\MACHINE\\SOFTWARE\\A"),
        command(c::protect_folder, volume + L"\\nv_one"),
        command(c::protect_folder, volume + L"\\"),  // C:\ keeps its backslash
        command(c::unprotect_folder, volume + L"\\nv_one"),
        command(c::block_path, volume + qua),
        command(c::unblock_path, volume + qua),
        "08000000020000000000",  // every folder rule
    };
    EXPECT_EQ(want, journal_bytes());
    // One attach for the two folders; removing the volume's last folder rule does not detach it.
    std::string state = ctl("state");
    EXPECT_EQ(1u, nv_test::count_of(state, "{\"call\":\"attach\",\"volume\":" + nv_test::json(volume))) << state;
    EXPECT_EQ(0u, nv_test::count_of(state, "\"call\":\"detach\"")) << state;
    EXPECT_FALSE(log.contains("Could not")) << log.text();

    // Detaching every volume: one FilterDetach, and the next add attaches again.
    service().detachAllVolumes();
    service().drvProtectFolder(chelperservice::openDriverPort().get(), L"C:\\nv_three", false, false);
    state = ctl("state");
    EXPECT_EQ(1u, nv_test::count_of(state, "\"call\":\"detach\"")) << state;
    EXPECT_EQ(2u, nv_test::count_of(state, "\"call\":\"attach\"")) << state;
    // A volume the filter is not attached to.
    chelperservice::detachFilter(L"Q:");
    EXPECT_EQ(1u, log.count("] -  Could not detach from device Q:: -2145452011 - ")) << log.text();
}

TEST_F(DriverPort, FolderPathsTheDriverCannotTakeAreRefusedWithALogLine) {
    const chelperservice::driver_port port = chelperservice::openDriverPort();
    ASSERT_TRUE(port);
    nv_test::log_capture log;
    for (const std::wstring& path : {std::wstring(L"\\\\server\\share\\folder"), std::wstring(L"folder\\sub"),
                                     std::wstring(L"C:folder"), L"C:\\" + std::wstring(258, L'a')}) {
        service().drvProtectFolder(port.get(), path, /*remove=*/false, /*block=*/false);
        service().drvProtectFolder(port.get(), path, /*remove=*/true, /*block=*/true);
    }
    EXPECT_EQ(8u, log.count("] - Path refused for the driver (needs a drive letter, colon and backslash, at most 260 "
                            "characters): "))
        << log.text();
    EXPECT_TRUE(journal_bytes().empty());
    EXPECT_EQ(0u, nv_test::count_of(ctl("state"), "\"call\":\"attach\""));
    service().drvProtectFolder(port.get(), L"C:\\" + std::wstring(257, L'a'), false, false);  // 260 fit
    EXPECT_EQ(1u, journal_bytes().size());
}

// The unloaded and not-loaded lines of the running service are shown end to end (driver_port_test.sh).
TEST_F(DriverPort, NoDriverAndRefusedMessagesAreLogged) {
    nv_test::log_capture log;
    ctl("unload");
    const std::string not_found =
        "Could not connect to filter: -2147024894 - " + narrow(chelperservice::driver_error_text(vqr::hr_not_found));
    // Switching off: one connection for the features, one for removing every image and folder
    // rule; the switches change all the same.
    service().setProtectionEnabled(false);
    EXPECT_EQ(2u, log.count(not_found)) << log.text();
    EXPECT_FALSE(service().protection_enabled());
    ctl("load");
    chelperservice::drvSendCommand(chelperservice::openDriverPort().get(), 4, L"x");
    EXPECT_EQ(1u, log.count("] - UNEXPECTED ERROR received: -2147024809 - " +
                            narrow(chelperservice::driver_error_text(vqr::hr_invalid_parameter))))
        << log.text();
}

TEST(DriverErrorText, KnownAndUnknownCodes) {
    const std::wstring known = chelperservice::driver_error_text(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(std::wstring::npos, known.find(L"Could not translate")) << narrow(known);
    EXPECT_NE(L'\n', known.back());
    // A Filter Manager code that neither the system nor fltlib.dll can put into words.
    EXPECT_EQ(L"Could not translate error: -2145451777", chelperservice::driver_error_text(static_cast<HRESULT>(0x801F00FF)));
}

}  // namespace
