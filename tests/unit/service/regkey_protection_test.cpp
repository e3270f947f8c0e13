// Registry key protection without the driver: names, limits, the wire and registry layouts,
// requests refused before anything is touched, and the protection switch.
#include "service/regkey_protection.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "service/helper_service.h"
#include "service/message_ids.h"
#include "tests/helpers/log_capture.h"

namespace {

mcl::share_ptr<mcl::ipc_connection> test_connection(new mcl::ipc_connection(mcl::ipc_connection::connect_type));

std::vector<unsigned char> reply_of(mcl::binary_t payload, uint32_t id = msg::protect_reg_keys) {
    chelperservice::instance().msg_handler()(test_connection.get(), id, payload);
    return {payload.data(), payload.data() + payload.size()};
}

mcl::binary_t bytes(const void* data, uint32_t size) {
    mcl::binary_t b;
    b.append(static_cast<const unsigned char*>(data), size);
    return b;
}

bool key_exists(const char* path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

reg_key_entry entry_for(const wchar_t* path, uint64_t root = 0xFFFFFFFF80000002ull, const char* owner = "norvale_halvern_svc") {
    reg_key_entry e;
    e.action = 1;
    e.root = root;
    e.path = path;
    e.owner = owner;
    e.level = 0;
    return e;
}

TEST(RegKeyNames, KeyTextMaskAndRoot) {
    EXPECT_EQ(L"\\\\18446744071562067970\\software\\a\x00C4z", regkey::key_text(regkey::widen_root(0x80000002), L"SOFTWARE\\a\x00C4Z"));
    EXPECT_EQ(0xFFFFFFFF80000002ull, regkey::widen_root(0x80000002));
    struct {
        uint32_t level;
        DWORD mask;
    } masks[] = {{0, 0}, {2, 0x40020006}, {1, 0x80020019}, {3, 0x80020019}, {0xFFFFFFFF, 0x80020019}};
    for (const auto& m : masks) EXPECT_EQ(m.mask, regkey::others_mask(m.level)) << m.level;
    struct {
        uint64_t root;
        bool predefined;
    } roots[] = {{0xFFFFFFFF80000000ull, true},  {0xFFFFFFFF80000002ull, true}, {0xFFFFFFFF80000007ull, true},
                 {0xFFFFFFFF80000008ull, false}, {0x80000002ull, false},        {0, false},
                 {0x1234, false},                {0xFFFFFFFF7FFFFFFFull, false}};
    for (const auto& r : roots) EXPECT_EQ(r.predefined, regkey::predefined_root(r.root) != nullptr) << std::hex << r.root;
}

TEST(RegKeyNames, PathLimits) {
    struct {
        std::wstring path;
        bool valid;
    } cases[] = {
        {L"Software\\A", true},
        {L"Software\\" + std::wstring(255, L'k'), true},
        {L"Software\\" + std::wstring(256, L'k'), false},
        {L"Software\\\\A", false},
        {L"\\Software", false},
        {L"Software\\", false},
        {std::wstring(16361, L'k'), false},
        {L"Software\\\x4E2D", false},  // no ANSI form here: it would name another key
    };
    for (const auto& c : cases) {
        std::string why;
        EXPECT_EQ(c.valid, regkey::valid_key_path(c.path, why)) << c.path.size();
        EXPECT_EQ(c.valid, why.empty());
    }
}

TEST(RegKeyRecord, PersistedLayoutRoundTrip) {
    reg_key_record r;
    r.original_dacl = "D:(A;;KA;;;BA)";
    r.current_dacl = "D:P(A;;KR;;;BA)";
    r.root = 0x80000002;
    r.path = L"Software\\X";
    r.owner = "svc";
    r.services = {"a", "b"};
    r.level = 2;
    mcl::binary_t data;
    regkey::write_record(data, r);
    const std::string hex = mcl::to_hex(data).c_str();
    // Field order: original, current, u32 root, wide path, owner, services, u32 level.
    EXPECT_EQ(0u, hex.find(mcl::to_hex(bytes("D:(A;;KA;;;BA)", 15)).c_str()));
    EXPECT_NE(std::string::npos, hex.find("0200008053006F0066007400"));
    EXPECT_EQ("02000000", hex.substr(hex.size() - 8));
    reg_key_record back;
    uint32_t pos = 0;
    ASSERT_TRUE(regkey::read_record(back, data, pos));
    EXPECT_EQ(data.size(), pos);
    EXPECT_EQ(r.original_dacl, back.original_dacl);
    EXPECT_EQ(r.path, back.path);
    EXPECT_EQ(r.services, back.services);
    EXPECT_EQ(r.level, back.level);
    for (uint32_t cut = 0; cut < data.size(); ++cut) {
        mcl::binary_t part = bytes(data.data(), cut);
        pos = 0;
        EXPECT_FALSE(regkey::read_record(back, part, pos)) << cut;
    }
}

TEST(RegKeyRequests, MalformedAndEmptyRequests) {
    mcl::binary_t whole;
    mcl::write_u32(whole, 1);
    request_payload::write_reg_key_entry(whole, entry_for(L"Software\\NvUnitTest\\Never"));
    struct {
        const char* label;
        uint32_t cut;  // bytes of `whole` sent
        std::vector<unsigned char> reply;
    } cases[] = {
        {"empty payload", 0, {0, 0}},
        {"half a count", 2, {0, 0}},
        {"count without entries", 4, {0, 0}},
        {"entry cut in the root", 9, {0, 0}},
        {"entry cut before the level", whole.size() - 1, {0, 0}},
    };
    for (const auto& c : cases) {
        nv_test::log_capture log;
        EXPECT_EQ(c.reply, reply_of(bytes(whole.data(), c.cut))) << c.label;
        EXPECT_TRUE(log.contains("Malformed request")) << c.label;
    }
    EXPECT_FALSE(key_exists("Software\\NvUnitTest\\Never"));
    nv_test::log_capture log;
    mcl::binary_t none;
    mcl::write_u32(none, 0);
    EXPECT_EQ((std::vector<unsigned char>{1, 0}), reply_of(none));
    EXPECT_TRUE(log.contains("] - No reg key set to (un)protect."));
    mcl::binary_t list;
    EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 0}), reply_of(list, msg::get_protected_reg_keys));
}

TEST(RegKeyRequests, RefusedBeforeAnythingIsTouched) {
    struct {
        const char* label;
        reg_key_entry entry;
        const char* line;
    } cases[] = {
        {"not a predefined root", entry_for(L"Software\\NvUnitTest\\Root", 0x80000002ull),
         "is not protected: the root is not a predefined key."},
        {"a name over 255 characters", entry_for((L"Software\\NvUnitTest\\" + std::wstring(256, L'k')).c_str()),
         "is not protected: a key name is longer than 255 characters."},
        {"an owner that is not installed",
         entry_for(L"Software\\NvUnitTest\\Owner", 0xFFFFFFFF80000002ull, "nv_no_such_service"),
         "is not protected: its owner service [nv_no_such_service] is not installed."},
    };
    for (const auto& c : cases) {
        nv_test::log_capture log;
        EXPECT_FALSE(chelperservice::instance().handle_protect_reg_keys({c.entry})) << c.label;
        EXPECT_TRUE(log.contains(c.line)) << c.label << "\n" << log.text();
        EXPECT_FALSE(log.contains("Trying to protect")) << c.label;
    }
    EXPECT_FALSE(key_exists("Software\\NvUnitTest"));
    EXPECT_TRUE(chelperservice::instance().protected_reg_keys().empty());
}

TEST(RegKeyRequests, SwitchOffRefusesProtection) {
    chelperservice& service = chelperservice::instance();
    service.setProtectionEnabled(false);
    nv_test::log_capture log;
    mcl::binary_t request;
    mcl::write_u32(request, 1);
    request_payload::write_reg_key_entry(request, entry_for(L"Software\\NvUnitTest\\Off"));
    EXPECT_EQ((std::vector<unsigned char>{0, 0}), reply_of(request));
    service.setProtectionEnabled(true);
    // The message ends in a line break of its own, before the one every entry gets (text mode).
    EXPECT_TRUE(log.contains("] - Trying to protect reg key (\\\\18446744071562067970\\Software\\NvUnitTest\\Off)\r\n\r\n"));
    EXPECT_TRUE(log.contains("[chelperservice::protectRegKey:"));
    EXPECT_TRUE(log.contains("] - Registry protection function is disabled\r\n\r\n"));
    EXPECT_FALSE(key_exists("Software\\NvUnitTest\\Off"));
    EXPECT_TRUE(service.protected_reg_keys().empty());
}

}  // namespace
