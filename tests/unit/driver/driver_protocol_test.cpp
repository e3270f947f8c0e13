#include "service/driver_protocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/driver_sim/json_writer.h"

namespace {

std::string hex(const std::vector<uint8_t>& b) { return vqr::sim::hex_bytes(b.data(), b.size()); }

TEST(DriverProtocol, MessagesHaveTheDriversLayout) {
    const struct {
        std::vector<uint8_t> message;
        const char* bytes;
    } cases[] = {
        {vqr::build_command(vqr::code::unprotect_process, L""), "02000000020000000000"},
        {vqr::build_command(vqr::code::protect_process, L"C:"), "010000000600000043003a000000"},
        {vqr::build_command(vqr::code::svcmgr_path, L"\x20AC"), "0f00000004000000ac200000"},
        {vqr::build_feature(vqr::code::feature_irp_notify, true), "100000000000000001"},
        {vqr::build_feature(vqr::code::feature_folder_protection, false), "060000000000000000"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.bytes, hex(c.message));
}

TEST(DriverProtocol, ParsingRefusesWhatTheDriverCannotTrust) {
    auto with = [](std::vector<uint8_t> m, size_t at, uint8_t v) {
        m[at] = v;
        return m;
    };
    auto resized = [](std::vector<uint8_t> m, size_t n) {
        m.resize(n);
        return m;
    };
    const auto text = vqr::build_command(vqr::code::protect_folder, L"\\Device\\X");
    const auto feature = vqr::build_feature(vqr::code::feature_process_protection, true);
    const struct {
        std::vector<uint8_t> message;
        vqr::message_check expected;
    } cases[] = {
        {text, vqr::message_check::ok},
        {feature, vqr::message_check::ok},
        {{}, vqr::message_check::too_short},
        {resized(text, 7), vqr::message_check::too_short},
        {vqr::build_command(14, L"x"), vqr::message_check::unknown_code},
        {resized(feature, 10), vqr::message_check::bad_size},
        {with(feature, 4, 1), vqr::message_check::bad_switch},
        {with(feature, 8, 7), vqr::message_check::bad_switch},
        {with(text, 4, 2), vqr::message_check::length_mismatch},
        {resized(text, text.size() + 2), vqr::message_check::length_mismatch},
        {with(with(resized(text, 9), 4, 1), 0, 7), vqr::message_check::bad_size},  // length 1
        {with(text, text.size() - 2, 'x'), vqr::message_check::no_terminator},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        vqr::driver_message m;
        EXPECT_EQ(cases[i].expected, vqr::parse_message(cases[i].message.data(), cases[i].message.size(), m))
            << "case " << i;
    }
    vqr::driver_message m;
    ASSERT_EQ(vqr::message_check::ok, vqr::parse_message(text.data(), text.size(), m));
    EXPECT_EQ(L"\\Device\\X", m.text);
    EXPECT_EQ(vqr::code::protect_folder, m.code);
}

TEST(DriverProtocol, NotificationFieldsSitAtTheirOffsets) {
    vqr::irp_notification n, back;
    n.message_id = 0x0102030405060708ull;
    n.major_function = 0x12;
    n.minor_function = 0x03;
    n.process_id = 0xA1B2C3D4;
    n.file_name.assign(261, L'x');  // the longest name that fits with its terminator
    std::vector<uint8_t> b;
    ASSERT_TRUE(vqr::build_notification(n, b));
    ASSERT_EQ(552u, b.size());
    EXPECT_EQ("08070605040302010100000012030000d4c3b2a17800", hex({b.begin() + 8, b.begin() + 30}));
    EXPECT_EQ("78000000", hex({b.end() - 4, b.end()}));
    ASSERT_TRUE(vqr::parse_notification(b.data(), b.size(), back));
    EXPECT_EQ(n.file_name, back.file_name);
    n.file_name.push_back(L'x');
    EXPECT_FALSE(vqr::build_notification(n, b));
    EXPECT_FALSE(vqr::parse_notification(b.data(), b.size() - 2, back)) << "no terminator inside";
}

}  // namespace
