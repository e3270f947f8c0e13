#include "mcl/mswin/service.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>

#include "mcl/event.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

using mcl::mswin::service;
using mcl::mswin::unique_sc_handle;

namespace {

// A service entry that is never started, for the security calls.
class registered_service {
public:
    registered_service() : name_(nv_test::unique_name("nv_test_svc")) {
        unique_sc_handle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        handle_.reset(CreateServiceA(manager.get(), name_.c_str(), "NV test service", SERVICE_ALL_ACCESS,
                                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                     "C:\\nowhere\\svc.exe", nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_TRUE(handle_.valid()) << GetLastError();
    }
    ~registered_service() {
        if (handle_) DeleteService(handle_.get());
    }
    registered_service(const registered_service&) = delete;
    registered_service& operator=(const registered_service&) = delete;
    const char* name() const { return name_.c_str(); }

private:
    std::string name_;
    unique_sc_handle handle_;
};

// Waits until run_main has made the service's stopped event (it makes the stop event first).
void wait_for_events(const service& svc) {
    const std::string name = service::stopped_event_name(svc.service_name());
    for (int i = 0; i < 500; ++i) {
        HANDLE h = OpenEventA(SYNCHRONIZE, FALSE, name.c_str());
        if (h != nullptr) {
            CloseHandle(h);
            return;
        }
        Sleep(10);
    }
    ADD_FAILURE() << "no " << name;
}

TEST(ServiceSecurity, DaclWritersLogWhatHappened) {
    registered_service reg;
    struct {
        const char* label;
        bool (*call)(const char* name);
        bool exists;
        bool result;
        const char* line;
    } cases[] = {
        {"sddl on a service", [](const char* n) { return service::set_dacl_str(n, "D:(A;;GA;;;SY)"); }, true, true,
         "[mcl::mswin::service::set_dacl_str:"},
        {"bad sddl", [](const char* n) { return service::set_dacl_str(n, "D:(nonsense"); }, true, false,
         "] - ConvertStringSecurityDescriptorToSecurityDescriptor failed("},
        {"no such service", [](const char* n) { return service::set_dacl_str(n, "D:(A;;GA;;;SY)"); }, false, false,
         "] - OpenServiceA failed (1060)"},
        {"dacl on a missing service", [](const char* n) { return service::set_dacl(n, nullptr); }, false, false,
         "[mcl::mswin::service::set_dacl:"},
    };
    for (const auto& c : cases) {
        nv_test::log_capture log;
        EXPECT_EQ(c.result, c.call(c.exists ? reg.name() : "nv_no_such_service")) << c.label;
        EXPECT_TRUE(log.contains(c.line)) << c.label << "\n" << log.text();
        EXPECT_EQ(c.result, log.contains("] - Service DACL updated successfully")) << c.label;
    }
}

TEST(ServiceControl, StopWithFallbackSignalsTheStopEventOfAMissingService) {
    const std::string name = nv_test::unique_name("nv_missing_svc");
    mcl::event stop_event;
    ASSERT_EQ(0, stop_event.create(service::stop_event_name(name).c_str()));
    EXPECT_FALSE(service::stop(name.c_str(), /*event_fallback=*/false, 1));
    EXPECT_FALSE(stop_event.is_set()) << "no fallback, no signal";
    EXPECT_FALSE(service::stop(name.c_str(), /*event_fallback=*/true, 1));
    EXPECT_TRUE(stop_event.is_set());

}

TEST(ServiceControl, ConsoleRunAnswersStopControlsOnlyWhileItCanStop) {
    service svc(nv_test::unique_name("nv_console_svc").c_str());
    EXPECT_FALSE(svc.installed());
    EXPECT_FALSE(svc.stop_request()) << "no run, no stopped event";
    svc.set_debug(true);
    std::thread body([&] { svc.run_main(); });
    wait_for_events(svc);

    svc.set_can_stop(false);
    svc.control_handler(SERVICE_CONTROL_STOP);
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(svc.service_stopped_event(), 300))
        << "a stop control is ignored while the service cannot stop";

    svc.set_can_stop(true);
    svc.control_handler(SERVICE_CONTROL_STOP);  // returns once main has finished
    body.join();
    EXPECT_FALSE(WaitForSingleObject(svc.service_stop_event(), 0) == WAIT_OBJECT_0) << "main reset the stop event";
}

}  // namespace
