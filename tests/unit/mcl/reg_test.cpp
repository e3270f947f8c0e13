#include "mcl/mswin/reg.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace reg = mcl::mswin::reg;
using mcl::mswin::unique_kernel_handle;
using mcl::mswin::unique_reg_key;

namespace {

// A fresh key under HKLM\Software\NvTest for each test, removed afterwards whatever its DACL.
class Reg : public ::testing::Test {
protected:
    void SetUp() override { root_ = "Software\\NvTest\\" + nv_test::unique_name("reg"); }
    void TearDown() override { EXPECT_TRUE(!exists(root_) || reg::force_remove(HKEY_LOCAL_MACHINE, root_)) << root_; }

    static bool exists(const std::string& key) {
        unique_reg_key h;
        return reg::open_key(HKEY_LOCAL_MACHINE, key, READ_CONTROL, h) == ERROR_SUCCESS;
    }
    static void create(const std::string& key) {
        unique_reg_key h;
        ASSERT_EQ(ERROR_SUCCESS, reg::create_key(HKEY_LOCAL_MACHINE, key, KEY_ALL_ACCESS, h));
    }
    std::string root_;
};

// A key deleted while it is open ends its listing with a log line.
TEST_F(Reg, ListingAnEmptyMissingOrDeletedKeyIsFalseAndLongNamesComeBack) {
    std::vector<std::string> names;
    for (const char* state : {"missing", "empty"}) {
        EXPECT_FALSE(reg::list_subkeys(HKEY_LOCAL_MACHINE, root_, names)) << state;
        EXPECT_FALSE(reg::list_values(root_, names)) << state;
        create(root_);
    }

    const std::string longest(16383, 'v');  // the registry's limit for a value name
    ASSERT_TRUE(reg::write_dword(root_, longest.c_str(), 1));
    ASSERT_TRUE(reg::write_dword(root_, "short", 2));
    EXPECT_TRUE(reg::list_values(root_, names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{"short", longest}), names);

    unique_reg_key h;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExA(HKEY_LOCAL_MACHINE, root_.c_str(), 0, KEY_READ, h.put()));
    ASSERT_TRUE(reg::remove(HKEY_LOCAL_MACHINE, root_, nullptr));
    nv_test::log_capture log;
    names.clear();
    EXPECT_FALSE(reg::list_subkeys(h.get(), names));
    EXPECT_FALSE(reg::list_values(h.get(), names));
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(2u, log.count("] - Failed to enumerate a reg key at index 0: 1018")) << log.text();
}

// Two strings with an empty one between them: only the two come back.
TEST_F(Reg, StringListSkipsEmptyStrings) {
    const char gap[] = "first\0\0second\0";
    ASSERT_TRUE(reg::write_value(root_, "gap", gap, sizeof(gap), REG_MULTI_SZ));
    std::vector<std::string> list;
    ASSERT_TRUE(reg::read_string_list(root_, "gap", list));
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), list);
}

TEST_F(Reg, OwnershipAndFullAccessOpenAKeyThatDeniesEveryoneAndForceRemoveDeletesSuchATree) {
    create(root_ + "\\locked\\inner");
    create(root_ + "\\locked\\other");
    ASSERT_TRUE(reg::set_key_sddl_security_str(HKEY_LOCAL_MACHINE, root_, "D:P(D;;KA;;;WD)"));
    unique_reg_key h;
    ASSERT_EQ(ERROR_ACCESS_DENIED, RegOpenKeyExA(HKEY_LOCAL_MACHINE, root_.c_str(), 0, KEY_READ, h.put()));

    unique_kernel_handle token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.put()));
    ASSERT_TRUE(reg::take_ownership(token.get(), HKEY_LOCAL_MACHINE, root_));
    ASSERT_TRUE(reg::reset_full_access(token.get(), HKEY_LOCAL_MACHINE, root_));
    EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyExA(HKEY_LOCAL_MACHINE, root_.c_str(), 0, KEY_READ, h.put()));

    // Exactly one ACE: KEY_ALL_ACCESS for the token's user.
    DWORD size = 0;
    GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
    std::vector<BYTE> user(size);
    ASSERT_TRUE(GetTokenInformation(token.get(), TokenUser, user.data(), size, &size));
    const std::string sid_text = mcl::mswin::sid(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid).to_string();
    mcl::mswin::security_descriptor sd;
    ASSERT_TRUE(reg::get_key_dacl_security(HKEY_LOCAL_MACHINE, root_, sd));
    EXPECT_EQ("D:(A;;KA;;;" + sid_text + ")", sd.dacl_sddl());

    // Denied again, the whole tree goes all the same.
    h.reset();
    ASSERT_TRUE(reg::set_key_sddl_security_str(HKEY_LOCAL_MACHINE, root_, "D:P(D;;KA;;;WD)"));
    nv_test::log_capture log;
    ASSERT_TRUE(reg::force_remove(HKEY_LOCAL_MACHINE, root_)) << log.text();
    EXPECT_FALSE(exists(root_));
}

}  // namespace
