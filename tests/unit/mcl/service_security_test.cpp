#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/event.h"
#include "mcl/mswin/privilege.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/process.h"

using mcl::mswin::service;

namespace {

// Whether the process token holds the privilege enabled.
bool privilege_enabled(const char* name) {
    LUID luid{};
    mcl::mswin::unique_kernel_handle token;
    if (!LookupPrivilegeValueA(nullptr, name, &luid) || !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return false;
    DWORD size = 0;
    GetTokenInformation(token.get(), TokenPrivileges, nullptr, 0, &size);
    std::vector<BYTE> buffer(size);
    if (!GetTokenInformation(token.get(), TokenPrivileges, buffer.data(), size, &size)) return false;
    const auto* held = reinterpret_cast<const TOKEN_PRIVILEGES*>(buffer.data());
    for (DWORD i = 0; i < held->PrivilegeCount; ++i)
        if (held->Privileges[i].Luid.LowPart == luid.LowPart && held->Privileges[i].Luid.HighPart == luid.HighPart)
            return (held->Privileges[i].Attributes & SE_PRIVILEGE_ENABLED) != 0;
    return false;
}

TEST(ScopedPrivilege, SwitchesForTheScopeAndPutsTheStateBack) {
    const char* name = SE_LOAD_DRIVER_NAME;
    const bool before = privilege_enabled(name);
    {
        const mcl::mswin::scoped_privilege on(name);
        ASSERT_TRUE(on.switched() && privilege_enabled(name));
        {
            const mcl::mswin::scoped_privilege off(name, /*enable=*/false);
            ASSERT_TRUE(off.switched());
            EXPECT_FALSE(privilege_enabled(name));
        }
        EXPECT_TRUE(privilege_enabled(name)) << "the inner scope put it back";
    }
    EXPECT_EQ(before, privilege_enabled(name));
    const mcl::mswin::scoped_privilege unknown("SeNoSuchPrivilege");
    EXPECT_EQ(mcl::mswin::scoped_privilege::state::unknown_privilege, unknown.result());
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

}  // namespace
