#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "mcl/event.h"
#include "mcl/mswin/service.h"
#include "tests/helpers/process.h"

using mcl::mswin::service;

namespace {

TEST(ServiceControl, StopWithFallbackSignalsTheStopEventOfAMissingService) {
    const std::string name = nv_test::unique_name("nv_missing_svc");
    mcl::event stop_event;
    ASSERT_EQ(0, stop_event.create(service::stop_event_name(name).c_str()));
    EXPECT_FALSE(service::stop(name.c_str(), /*event_fallback=*/false, 1));
    EXPECT_FALSE(stop_event.is_set()) << "no fallback, no signal";
    EXPECT_FALSE(service::stop(name.c_str(), /*event_fallback=*/true, 1));
    EXPECT_TRUE(stop_event.is_set());
}

}  // namespace
