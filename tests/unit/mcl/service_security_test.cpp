#include <windows.h>

#include <sddl.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/event.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/process.h"

using mcl::mswin::service;
using mcl::mswin::unique_local;

namespace {

std::string sid_text(PSID sid) {
    unique_local text;
    if (!ConvertSidToStringSidA(sid, reinterpret_cast<char**>(text.put()))) return "?";
    return static_cast<const char*>(text.get());
}

std::string acl_sddl(PACL acl) {
    SECURITY_DESCRIPTOR sd{};
    InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&sd, TRUE, acl, FALSE);
    unique_local text;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorA(&sd, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                              reinterpret_cast<char**>(text.put()), nullptr))
        return "?";
    return static_cast<const char*>(text.get());
}

// Holds the DACL of an SDDL text.
struct sddl_dacl {
    unique_local sd;
    PACL dacl = nullptr;
    explicit sddl_dacl(const char* text) {
        if (text == nullptr) return;
        EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(text, SDDL_REVISION_1, sd.put(), nullptr));
        BOOL present = FALSE;
        BOOL defaulted = FALSE;
        GetSecurityDescriptorDacl(sd.get(), &present, &dacl, &defaulted);
    }
};

TEST(ServiceSid, DerivedFromTheUpperCasedNameAsWindowsPublishesIt) {
    // TrustedInstaller's service SID as Windows publishes it (a lower-case name's SID is checked
    // through the service in protection_test.sh).
    const std::string published = "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
    PSID derived = nullptr;
    ASSERT_TRUE(service::derive_service_sid("TrustedInstaller", &derived));
    EXPECT_EQ(published, sid_text(derived));
    LocalFree(derived);
    // get_sid answers the same, whether the lookup maps the account or the name is derived.
    PSID looked_up = nullptr;
    ASSERT_TRUE(service::get_sid("TrustedInstaller", &looked_up));
    EXPECT_EQ(published, sid_text(looked_up));
    LocalFree(looked_up);
}

TEST(SelectedFullAccessDacl, SelectedSidsFirstThenTheOldAcesNarrowed) {
    struct {
        const char* label;
        const char* old_sddl;  // null: no old DACL
        std::vector<const char*> sids;
        BYTE flags;
        DWORD selected_mask;
        DWORD other_mask;
        const char* want;
    } cases[] = {
        {"no old DACL: only the selected ACEs", nullptr, {"S-1-5-18", "S-1-5-32-544"}, 0x3, FILE_ALL_ACCESS,
         0xFFFFFFFF, "D:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"},
        {"old ACEs follow in order, selected SIDs dropped, inherited flag cleared",
         "D:(A;ID;0x1301bf;;;AU)(A;;FA;;;SY)(A;OICIID;FA;;;BU)", {"S-1-5-18"}, 0, FILE_ALL_ACCESS, 0xFFFFFFFF,
         "D:(A;;FA;;;SY)(A;;0x1301bf;;;AU)(A;OICI;FA;;;BU)"},
        {"other masks are ANDed", "D:(A;;FA;;;AU)(D;;0x1301bf;;;BU)", {"S-1-5-18"}, 0, FILE_ALL_ACCESS, 0x1200a9,
         "D:(A;;FA;;;SY)(A;;0x1200a9;;;AU)(D;;0x1200a9;;;BU)"},
        {"generic-all widened to all generic bits", "D:(A;;GA;;;AU)", {"S-1-5-18"}, 0, FILE_ALL_ACCESS, 0xFFFFFFFF,
         "D:(A;;FA;;;SY)(A;;GAGXGWGR;;;AU)"},
        {"generic-all widened, then narrowed", "D:(A;;GA;;;AU)", {"S-1-5-18"}, 0, FILE_ALL_ACCESS, GENERIC_READ,
         "D:(A;;FA;;;SY)(A;;GR;;;AU)"},
    };
    for (const auto& c : cases) {
        sddl_dacl old_dacl(c.old_sddl);
        const std::string old_before = c.old_sddl != nullptr ? acl_sddl(old_dacl.dacl) : "";
        std::vector<unique_local> holders(c.sids.size());
        std::vector<PSID> sids;
        for (size_t i = 0; i < c.sids.size(); ++i) {
            EXPECT_TRUE(ConvertStringSidToSidA(c.sids[i], holders[i].put()));
            sids.push_back(holders[i].get());
        }
        PACL out = nullptr;
        ASSERT_TRUE(service::update_dacl_with_selected_full_access_sids(old_dacl.dacl, sids, c.flags,
                                                                        c.selected_mask, c.other_mask, &out))
            << c.label;
        EXPECT_EQ(c.want, acl_sddl(out)) << c.label;
        HeapFree(GetProcessHeap(), 0, out);
        if (c.old_sddl != nullptr) {
            EXPECT_EQ(old_before, acl_sddl(old_dacl.dacl)) << c.label << ": old DACL kept";
        }
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

}  // namespace
