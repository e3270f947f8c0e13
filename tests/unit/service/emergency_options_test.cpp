#include "service/emergency_options.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

#include "mcl/mswin/reg.h"
#include "tests/helpers/process.h"

namespace reg = mcl::mswin::reg;

namespace {

struct option_value {
    const char* name;
    bool is_dword;
    uint32_t number;
    std::string text;
};

class EmergencyOptions : public ::testing::Test {
protected:
    void SetUp() override { key_ = "Software\\NvTest\\" + nv_test::unique_name("emergency"); }
    void TearDown() override { (void)reg::remove(HKEY_LOCAL_MACHINE, key_, nullptr); }

    void write(const std::vector<option_value>& values) {
        for (const option_value& v : values) {
            if (v.is_dword) {
                ASSERT_TRUE(reg::write_dword(key_, v.name, v.number));
            } else {
                ASSERT_TRUE(reg::write_string(key_, v.name, v.text));
            }
        }
    }
    std::vector<std::string> remaining() {
        std::vector<std::string> names;
        reg::list_values(key_, names);
        return names;
    }
    bool present(const char* name) {
        mcl::binary_t data;
        return reg::read_value(key_, name, data);
    }

    std::string key_;
};

option_value dword(const char* name, uint32_t n) { return {name, true, n, ""}; }
option_value text(const char* name, const char* s) { return {name, false, 0, s}; }

TEST_F(EmergencyOptions, ConsumedInOrderAndGuardedByTheCode) {
    struct {
        const char* label;
        std::vector<option_value> values;
        bool emergency, uninstall, disable;
        std::vector<std::string> calls;
        std::vector<std::string> left;
    } cases[] = {
        {"nothing there", {}, false, false, false, {}, {}},
        {"disableProtection 0 alone", {dword("disableProtection", 0)}, true, false, false, {}, {}},
        {"uninstallService", {dword("uninstallService", 1)}, true, true, false, {}, {}},
        {"a valid code unlocks everything",
         {text("code", "good"), dword("uninstallService", 0), dword("disableProtection", 7), text("serv", "svcA"),
          text("fold", "C:\\Program Files\\x")},
         true, false, true,
         {"code good", "serv svcA", "fold C:\\Program Files\\x"}, {}},
        {"a rejected code leaves the others",
         {text("code", "bad"), dword("disableProtection", 1), text("serv", "svcB"), text("fold", "C:\\y")},
         false, false, false, {"code bad"}, {"disableProtection", "fold", "serv"}},
    };
    for (const auto& c : cases) {
        write(c.values);
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
        std::vector<std::string> left = remaining();
        std::sort(left.begin(), left.end());
        EXPECT_EQ(c.left, left) << c.label;
        (void)reg::remove(HKEY_LOCAL_MACHINE, key_, nullptr);
    }
}

TEST_F(EmergencyOptions, NumbersAreTheFirstFourBytesWhateverTheType) {
    const unsigned char six[] = {1, 0, 0, 0, 9, 9};
    ASSERT_TRUE(reg::write_value(key_, "disableProtection", six, sizeof(six), REG_BINARY));
    const unsigned char zero_then_more[] = {0, 0, 0, 0, 1};
    ASSERT_TRUE(reg::write_value(key_, "uninstallService", zero_then_more, sizeof(zero_then_more), REG_BINARY));
    const emergency_start start = consume_emergency_options(key_, emergency_actions{});
    EXPECT_TRUE(start.emergency);
    EXPECT_TRUE(start.disable);
    EXPECT_FALSE(start.uninstall);
}

TEST_F(EmergencyOptions, ServAndFoldWaitForABuildThatActsOnThem) {
    write({text("serv", "svcC"), text("fold", "C:\\z")});
    const emergency_start start = consume_emergency_options(key_, emergency_actions{});
    EXPECT_FALSE(start.emergency) << "nothing was done, so the service listens";
    std::vector<std::string> left = remaining();
    std::sort(left.begin(), left.end());
    EXPECT_EQ((std::vector<std::string>{"fold", "serv"}), left);
}

}  // namespace
