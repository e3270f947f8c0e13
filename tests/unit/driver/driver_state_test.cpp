#include "tools/driver_sim/driver_state.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using vqr::sim::driver_state;
using vqr::sim::port_kind;

int32_t send(driver_state& s, const std::vector<uint8_t>& m, port_kind port = port_kind::command) {
    return s.handle_message(1, port, m.data(), m.size());
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(DriverState, RulesFollowTheirCodesAndAreKeptExactlyAsSent) {
    driver_state s;
    namespace c = vqr::code;
    EXPECT_EQ(vqr::hr_ok, send(s, vqr::build_command(c::protect_process, L"C:\\A.exe")));
    EXPECT_EQ(vqr::hr_ok, send(s, vqr::build_command(c::protect_process, L"C:\\A.exe")));  // same rule
    EXPECT_EQ(vqr::hr_ok, send(s, vqr::build_command(c::unprotect_process, L"c:\\a.exe")));  // another one
    EXPECT_EQ(vqr::hr_ok, send(s, vqr::build_command(c::block_path, L"q")));
    EXPECT_EQ(vqr::hr_ok, send(s, vqr::build_command(c::unblock_path, L"")));  // not a remove-all code
    EXPECT_TRUE(has(s.state_json(0, 0), "\"process_rules\":[\"C:\\\\A.exe\"]"));
    EXPECT_TRUE(has(s.state_json(0, 0), "\"blocking_rules\":[\"q\"]"));
    EXPECT_EQ(vqr::hr_ok, send(s, vqr::build_command(c::unprotect_process, L"C:\\A.exe")));
    EXPECT_TRUE(has(s.state_json(0, 0), "\"process_rules\":[]"));
}

TEST(DriverState, UnloadForgetsRulesButKeepsTheJournal) {
    driver_state s;
    ASSERT_EQ(vqr::hr_ok, send(s, vqr::build_feature(vqr::code::feature_irp_notify, true)));
    std::wstring instance;
    ASSERT_EQ(vqr::hr_ok, s.attach(L"VQRMonitor", L"C:", L"", instance));
    EXPECT_TRUE(s.feature(vqr::code::feature_irp_notify));
    EXPECT_EQ(vqr::hr_ok, s.unload(L"vqrmonitor"));
    EXPECT_FALSE(s.feature(vqr::code::feature_irp_notify));
    EXPECT_EQ(vqr::hr_filter_not_found, s.unload(L"VQRMonitor"));
    EXPECT_EQ(vqr::hr_filter_not_found, s.attach(L"VQRMonitor", L"C:", L"", instance));
    EXPECT_TRUE(has(s.state_json(0, 0), "\"volumes\":[]"));
    EXPECT_TRUE(has(s.journal_json(), "\"bytes\":\"100000000000000001\""));
    EXPECT_EQ(vqr::hr_ok, s.load(L"VQRMonitor"));
    EXPECT_EQ(vqr::hr_already_loaded, s.load(L"VQRMonitor"));
    EXPECT_EQ(vqr::hr_not_found, s.load(L"Other"));
}

TEST(DriverState, NotificationPortTakesNoCommandsAndJournalShowsWhy) {
    driver_state s;
    EXPECT_EQ(vqr::hr_invalid_parameter, send(s, vqr::build_feature(0, true), port_kind::notify));
    const std::vector<uint8_t> shorty = {1, 2, 3};
    EXPECT_EQ(vqr::hr_invalid_parameter, send(s, shorty));
    const std::string journal = s.journal_json();
    EXPECT_TRUE(has(journal, "\"port\":\"notify\""));
    EXPECT_TRUE(has(journal, "\"code\":null,\"kind\":\"unknown\",\"check\":\"too_short\",\"hr\":\"0x80070057\""));
    EXPECT_TRUE(has(s.state_json(0, 0), "\"malformed\":2"));
    EXPECT_FALSE(s.feature(0));
    s.reset();
    EXPECT_EQ("[]", s.journal_json());
}

}  // namespace
