// Registry key names, limits and the persisted record layout.
#include "service/regkey_protection.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "mcl/encoding.h"

namespace {

TEST(RegKeyNames, KeyTextMaskAndRoot) {
    EXPECT_EQ(L"\\\\18446744071562067970\\software\\a\x00C4z",
              regkey::key_text(regkey::widen_root(0x80000002), L"SOFTWARE\\a\x00C4Z"));
    const std::pair<uint32_t, DWORD> masks[] = {
        {0, 0}, {2, 0x40020006}, {1, 0x80020019}, {3, 0x80020019}, {0xFFFFFFFF, 0x80020019}};
    for (const auto& m : masks) EXPECT_EQ(m.second, regkey::others_mask(m.first)) << m.first;
    const std::pair<uint64_t, bool> roots[] = {
        {0xFFFFFFFF80000000ull, true}, {0xFFFFFFFF80000002ull, true}, {0xFFFFFFFF80000007ull, true},
        {0xFFFFFFFF80000008ull, false}, {0x80000002ull, false}, {0, false}, {0x1234, false},
        {0xFFFFFFFF7FFFFFFFull, false}};
    for (const auto& r : roots) EXPECT_EQ(r.second, regkey::predefined_root(r.first) != nullptr) << std::hex << r.first;
}

TEST(RegKeyNames, PathLimits) {
    const std::pair<std::wstring, bool> cases[] = {
        {L"Software\\A", true}, {L"Software\\" + std::wstring(255, L'k'), true},
        {L"Software\\" + std::wstring(256, L'k'), false}, {L"Software\\\\A", false}, {L"\\Software", false},
        {L"Software\\", false}, {std::wstring(16361, L'k'), false},
        {L"Software\\\x4E2D", false},  // no ANSI form here: it would name another key
    };
    for (const auto& c : cases) {
        std::string why;
        EXPECT_EQ(c.second, regkey::valid_key_path(c.first, why)) << c.first.size();
        EXPECT_EQ(c.second, why.empty());
    }
}

TEST(RegKeyRecord, PersistedLayoutRoundTrip) {
    reg_key_record r;
    r.original_dacl = "D:(A;;KA;;;BA)";
    r.current_dacl = "D:P";
    r.root = 0x80000002;
    r.path = L"S";
    r.owner = "o";
    r.services = {"a", "b"};
    r.level = 2;
    mcl::binary_t data;
    regkey::write_record(data, r);
    // Original, current, u32 root, wide path, owner, services, u32 level.
    EXPECT_EQ("443A28413B3B4B413B3B3B424129" "00" "443A5000" "02000080" "53000000" "6F00" "02000000" "6100" "6200"
              "02000000",
              std::string(mcl::to_hex(data).c_str()));
    reg_key_record back;
    uint32_t pos = 0;
    ASSERT_TRUE(regkey::read_record(back, data, pos));
    EXPECT_EQ(data.size(), pos);
    mcl::binary_t again;  // every field read back as written
    regkey::write_record(again, back);
    EXPECT_EQ(mcl::to_hex(data), mcl::to_hex(again));
    for (uint32_t cut = 0; cut < data.size(); ++cut) {
        mcl::binary_t part;
        part.append(data.data(), cut);
        pos = 0;
        EXPECT_FALSE(regkey::read_record(back, part, pos)) << cut;
    }
}

}  // namespace
