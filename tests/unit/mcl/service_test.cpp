#include "mcl/mswin/service.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>

#include "mcl/event.h"
#include "tests/helpers/process.h"

using mcl::mswin::service;

namespace {

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
