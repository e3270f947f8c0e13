#include "service/recovery_code.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "service/recovery_key.h"
#include "tests/data/recovery_test_key.h"
#include "tests/helpers/log_capture.h"
#include "tools/recovery_code/signer.h"

namespace {

const std::string machine = "19487ca1-b523-4f5c-99a0-5e2aba76551a";

std::string make_code(const std::string& machine_id, const std::string& date) {
    const std::vector<unsigned char> key(std::begin(nv_test::recovery_test_private_key),
                                         std::end(nv_test::recovery_test_private_key));
    std::string code;
    EXPECT_TRUE(nv_tools::make_recovery_code(key, machine_id, date, code));
    return code;
}

bool verify(const std::string& code, const std::string& machine_id, const std::string& today) {
    return nv::verify_recovery_code(code, machine_id, nv_test::recovery_test_public_key,
                                    sizeof(nv_test::recovery_test_public_key), today);
}

TEST(RecoveryCode, OnlyAnUnexpiredCodeSignedForThisMachineIsAccepted) {
    const std::string valid = make_code(machine, "20270131");
    std::string tampered = valid;
    tampered[20] = tampered[20] == 'A' ? 'B' : 'A';
    std::string other_date = valid;
    other_date.replace(0, 8, "20991231");

    struct {
        const char* label;
        std::string code;
        std::string machine_id;
        std::string today;
        bool accepted;
    } cases[] = {
        {"valid", valid, machine, "20261123", true},
        {"valid on its last day", valid, machine, "20270131", true},
        {"machine id in capitals", valid, "19487CA1-B523-4F5C-99A0-5E2ABA76551A", "20261123", true},
        {"expired", valid, machine, "20270201", false},
        {"another machine", valid, "00000000-b523-4f5c-99a0-5e2aba76551a", "20261123", false},
        {"no machine id", valid, "", "20261123", false},
        {"signature altered", tampered, machine, "20261123", false},
        {"expiry moved", other_date, machine, "20261123", false},
        {"no signature", "20270131-", machine, "20261123", false},
        {"no dash", "20270131" + valid.substr(9), machine, "20261123", false},
        {"odd hex", valid.substr(0, valid.size() - 1), machine, "20261123", false},
        {"not hex", "20270131-XYZ0", machine, "20261123", false},
        {"bad date", "2027013A-" + valid.substr(9), machine, "20261123", false},
        {"empty", "", machine, "20261123", false},
    };
    for (const auto& c : cases) EXPECT_EQ(c.accepted, verify(c.code, c.machine_id, c.today)) << c.label;
}

TEST(RecoveryCode, TheServiceAcceptsCodesOfTheKeyItWasBuiltWith) {
    nv_test::log_capture log;
    const std::string code = make_code(nv::machine_id(), "20991231");
    // A build that names no key carries its own pair's public half; one with a vendor key refuses these codes.
    const bool test_key = nv::recovery_public_key_size == sizeof(nv_test::recovery_test_public_key) &&
                          memcmp(nv::recovery_public_key, nv_test::recovery_test_public_key,
                                 nv::recovery_public_key_size) == 0;
    EXPECT_EQ(test_key, nv::check_recovery_code(code));
    EXPECT_EQ(!test_key, log.contains("Recovery code is not valid for this machine")) << log.text();
}

}  // namespace
