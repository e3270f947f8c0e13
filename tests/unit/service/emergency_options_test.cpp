#include "service/emergency_options.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "mcl/mswin/reg.h"
#include "tests/helpers/process.h"

namespace reg = mcl::mswin::reg;

namespace {

// A value as the registry holds it.
struct option_value {
    const char* name;
    DWORD type;
    std::string data;
};

option_value dword(const char* name, uint32_t n) { return {name, REG_DWORD, std::string(reinterpret_cast<char*>(&n), 4)}; }
option_value text(const char* name, const char* s) { return {name, REG_SZ, std::string(s, strlen(s) + 1)}; }
option_value binary(const char* name, const std::string& bytes) { return {name, REG_BINARY, bytes}; }

class EmergencyOptions : public ::testing::Test {
protected:
    void SetUp() override { key_ = "Software\\NvTest\\" + nv_test::unique_name("emergency"); }
    void TearDown() override { (void)reg::remove(HKEY_LOCAL_MACHINE, key_, nullptr); }

    bool present(const char* name) {
        mcl::binary_t data;
        return reg::read_value(key_, name, data);
    }

    std::string key_;
};

TEST_F(EmergencyOptions, ConsumedInOrderAndGuardedByTheCode) {
    struct {
        const char* label;
        std::vector<option_value> values;
        bool emergency, uninstall, disable;
        std::vector<std::string> calls;
        std::vector<std::string> left;
    } cases[] = {
        {"no code: nothing runs, nothing consumed", {dword("disableProtection", 1), text("serv", "svcC")}, false, false,
         false, {}, {"disableProtection", "serv"}},
        {"disableProtection 0", {text("code", "good"), dword("disableProtection", 0)}, true, false, false, {"code good"}, {}},
        {"a valid code unlocks everything",
         {text("code", "good"), dword("uninstallService", 0), dword("disableProtection", 7), text("serv", "svcA"),
          text("fold", "C:\\Program Files\\x")},
         true, false, true,
         {"code good", "serv svcA", "fold C:\\Program Files\\x"}, {}},
        {"a rejected code leaves the others",
         {text("code", "bad"), dword("disableProtection", 1), text("serv", "svcB"), text("fold", "C:\\y")},
         false, false, false, {"code bad"}, {"disableProtection", "fold", "serv"}},
        {"numbers are the first four bytes, whatever the type",
         {text("code", "good"), binary("disableProtection", std::string("\1\0\0\0\11\11", 6)),
          binary("uninstallService", std::string("\0\0\0\0\1", 5))},
         true, false, true, {"code good"}, {}},
    };
    for (const auto& c : cases) {
        for (const option_value& v : c.values)
            ASSERT_TRUE(reg::write_value(key_, v.name, v.data.data(), static_cast<DWORD>(v.data.size()), v.type));
        std::vector<std::string> calls;
        emergency_actions actions;
        actions.check_code = [&](const std::string& code) {
            calls.push_back("code " + code);
            EXPECT_FALSE(present("code")) << "deleted before it is checked";
            return code == "good";
        };
        actions.unprotect_service = [&](const std::string& name) {
            calls.push_back("serv " + name);
            EXPECT_FALSE(present("serv")) << "deleted before its action";
            EXPECT_TRUE(present("fold")) << "fold comes after serv";
        };
        actions.restore_folder = [&](const std::wstring& folder) {
            calls.push_back("fold " + std::string(folder.begin(), folder.end()));
            EXPECT_FALSE(present("fold"));
        };
        const emergency_start start = consume_emergency_options(key_, actions);
        EXPECT_EQ(c.emergency, start.emergency) << c.label;
        EXPECT_EQ(c.uninstall, start.uninstall) << c.label;
        EXPECT_EQ(c.disable, start.disable) << c.label;
        EXPECT_EQ(c.calls, calls) << c.label;
        std::vector<std::string> left;
        reg::list_values(key_, left);
        std::sort(left.begin(), left.end());
        EXPECT_EQ(c.left, left) << c.label;
        (void)reg::remove(HKEY_LOCAL_MACHINE, key_, nullptr);
    }
}

}  // namespace
