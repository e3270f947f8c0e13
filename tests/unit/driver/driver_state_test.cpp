#include "tools/driver_sim/driver_state.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using vqr::sim::port_kind;
namespace c = vqr::code;

TEST(DriverState, RulesAreKeptExactlyAsSentAndUnloadForgetsThemButNotTheJournal) {
    vqr::sim::driver_state s;
    auto send = [&s](const std::vector<uint8_t>& m, port_kind port = port_kind::command) {
        return s.handle_message(1, port, m.data(), m.size());
    };
    auto has = [&s](const std::string& part) { return s.state_json(0, 0).find(part) != std::string::npos; };
    for (const auto& m : {vqr::build_command(c::protect_process, L"C:\\A.exe"),
                          vqr::build_command(c::protect_process, L"C:\\A.exe"),     // the same rule
                          vqr::build_command(c::unprotect_process, L"c:\\a.exe"),   // another one
                          vqr::build_command(c::block_path, L"q"),
                          vqr::build_command(c::unblock_path, L""),  // not a remove-all code
                          vqr::build_feature(c::feature_irp_notify, true)})
        EXPECT_EQ(vqr::hr_ok, send(m));
    EXPECT_TRUE(has("\"process_rules\":[\"C:\\\\A.exe\"]"));
    EXPECT_TRUE(has("\"blocking_rules\":[\"q\"]"));
    // The notification port takes no commands; a short message is journaled with why it was refused.
    EXPECT_EQ(vqr::hr_invalid_parameter, send(vqr::build_feature(0, true), port_kind::notify));
    EXPECT_EQ(vqr::hr_invalid_parameter, send({1, 2, 3}));
    EXPECT_TRUE(has("\"malformed\":2"));
    EXPECT_NE(std::string::npos,
              s.journal_json().find("\"code\":null,\"kind\":\"unknown\",\"check\":\"too_short\",\"hr\":\"0x80070057\""));
    EXPECT_FALSE(s.feature(0));

    std::wstring instance;
    ASSERT_EQ(vqr::hr_ok, s.attach(L"VQRMonitor", L"C:", L"", instance));
    EXPECT_EQ(vqr::hr_ok, s.unload(L"vqrmonitor"));
    EXPECT_FALSE(s.feature(c::feature_irp_notify));
    EXPECT_TRUE(has("\"process_rules\":[]"));
    EXPECT_TRUE(has("\"volumes\":[]"));
    EXPECT_EQ(vqr::hr_filter_not_found, s.unload(L"VQRMonitor"));
    EXPECT_EQ(vqr::hr_filter_not_found, s.attach(L"VQRMonitor", L"C:", L"", instance));
    EXPECT_NE(std::string::npos, s.journal_json().find("\"bytes\":\"100000000000000001\""));
    EXPECT_EQ(vqr::hr_ok, s.load(L"VQRMonitor"));
    EXPECT_EQ(vqr::hr_already_loaded, s.load(L"VQRMonitor"));
    EXPECT_EQ(vqr::hr_not_found, s.load(L"Other"));
    s.reset();
    EXPECT_EQ("[]", s.journal_json());
}

}  // namespace
