// The service's driver command port against the driver stand-in, with the service object in this
// process: the failures the senders log. What the senders put on the wire is checked through the
// running service (protection_test.sh, regkey_service_test.sh, quarantine_test.sh).
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "protocol/driver_protocol.h"
#include "mcl/mswin/text.h"
#include "service/helper_service.h"
#include "tests/helpers/driver_ctl.h"
#include "tests/helpers/log_capture.h"

namespace {

using mcl::mswin::to_utf8;
using nv_test::ctl;

// The unloaded and not-loaded lines of the running service are shown end to end (driver_port_test.sh).
TEST(DriverPort, NoDriverAndRefusedMessagesAreLogged) {
    chelperservice& service = chelperservice::instance();
    DWORD code = 0;
    ctl("load");
    ctl("reset", &code);
    ASSERT_EQ(0u, code) << "driver simulator not running";
    nv_test::log_capture log;
    ctl("unload");
    const std::string not_found =
        "Could not connect to filter: -2147024894 - " + to_utf8(chelperservice::driver_error_text(vqr::hr_not_found));
    // Switching off: one connection for the features, one for removing every image and folder
    // rule; the switches change all the same.
    service.setProtectionEnabled(false);
    EXPECT_EQ(2u, log.count(not_found)) << log.text();
    EXPECT_FALSE(service.protection_enabled());
    ctl("load");
    chelperservice::drvSendCommand(chelperservice::openDriverPort().get(), 4, L"x");
    EXPECT_EQ(1u, log.count("] - UNEXPECTED ERROR received: -2147024809 - " +
                            to_utf8(chelperservice::driver_error_text(vqr::hr_invalid_parameter))))
        << log.text();
    service.detachAllVolumes();
    service.setProtectionEnabled(true);
}

TEST(DriverErrorText, KnownAndUnknownCodes) {
    const std::wstring known = chelperservice::driver_error_text(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(std::wstring::npos, known.find(L"Could not translate")) << to_utf8(known);
    // A Filter Manager code that neither the system nor fltlib.dll can put into words.
    EXPECT_EQ(L"Could not translate error: -2145451777", chelperservice::driver_error_text(static_cast<HRESULT>(0x801F00FF)));
}

}  // namespace
